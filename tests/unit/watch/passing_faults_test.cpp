// passing_faults_test.cpp: faults of the system that pass: what they take away comes back at the next look.
//
// This file replaces open, stat, fstat, fread and fopen for its test program, so that the call for one path fails as
// often as a test asks. It runs in the sandbox.

// The fortified headers define fread themselves.
#undef _FORTIFY_SOURCE

#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <filesystem>
#include <string>

#include "identity/orv_serial.h"
#include "unit/record_collector.h"
#include "unit/rounds.h"
#include "unit/watch/feature_files.h"
#include "watch/clock.h"
#include "watch/feature_provider.h"

namespace {

namespace fs = std::filesystem;
using testing::ContainsRegex;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

const std::string CPUINFO = "/proc/cpuinfo";

// Fault is the call that fails, the file for which it does, the error and how often it still has to.
struct Fault {
    std::string call;
    std::string path;
    int error = 0;
    int times = 0;
};
Fault gs_oFault;

// isDue returns whether this call fails, with errno set.
bool isDue(const std::string& call, const std::string& path) {
    if (gs_oFault.times == 0 || call != gs_oFault.call || path != gs_oFault.path)
        return false;
    --gs_oFault.times;
    errno = gs_oFault.error;
    return true;
}

std::string pathOf(int fd) {
    std::error_code ignored;
    return fs::read_symlink("/proc/self/fd/" + std::to_string(fd), ignored);
}

template <class Function>
Function real(const char* name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" int open(const char* path, int flags, ...) {
    va_list list;
    va_start(list, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(list, mode_t) : 0;
    va_end(list);
    return isDue("open", path) ? -1 : real<int (*)(const char*, int, ...)>("open")(path, flags, mode);
}

extern "C" int fstat(int fd, struct stat* status) {
    return isDue("fstat", pathOf(fd)) ? -1 : real<int (*)(int, struct stat*)>("fstat")(fd, status);
}

extern "C" int stat(const char* path, struct stat* status) {
    return isDue("stat", path) ? -1 : real<int (*)(const char*, struct stat*)>("stat")(path, status);
}

// A read that is to fail finds the memory of address 0, which nobody can read, in place of the file.
extern "C" size_t fread(void* buffer, size_t size, size_t count, FILE* file) {
    if (isDue("fread", pathOf(fileno(file)))) {
        const int memory = open("/proc/self/mem", O_RDONLY);
        dup2(memory, fileno(file));
        close(memory);
    }
    return real<size_t (*)(void*, size_t, size_t, FILE*)>("fread")(buffer, size, count, file);
}

extern "C" FILE* fopen(const char* path, const char* mode) {
    return isDue("fopen", path) ? nullptr : real<FILE* (*)(const char*, const char*)>("fopen")(path, mode);
}

namespace {

class PassingFaults : public testing::Test {
protected:
    // A hang is a failure: SIGALRM ends the program.
    PassingFaults() {
        alarm(patience(60));
        putInstalled(R"({"name":"installed"})");
        putGrant(R"({"name":"granted"})");
        forgetAll();
    }
    ~PassingFaults() override {
        alarm(0);
        gs_oFault = Fault();
        removeFeatureFiles();
    }

    // forgetAll empties the lists and forgets the serial number, which the first test that runs would learn for all.
    void forgetAll() {
        ORVSerial::ms_bLoaded = false;
        ORVSerial::ms_bHasSerialNumber = false;
        m_oProvider.init(currentSeconds());
    }

    bool recheck() { return m_oProvider.recheckAll(currentSeconds()); }

    FeatureProvider m_oProvider;
};

// Row is one input, the file whose reading fails, and the call that does.
struct Row {
    int inputId;
    std::string path;
    const char* call;
    int error;
};

TEST_F(PassingFaults, NextLookReadsTheInputAgain) {
    const Row rows[] = {
        {0, INSTALLED, "open", EMFILE}, {0, INSTALLED, "open", ENFILE}, {0, INSTALLED, "open", EINTR},
        {0, INSTALLED, "open", EACCES}, {0, INSTALLED, "fstat", EIO},   {0, INSTALLED, "fstat", ENOMEM},
        {0, INSTALLED, "fread", EIO},   {1, GRANT, "open", EMFILE},     {1, GRANT, "fread", EIO},
        {1, KEY, "open", EMFILE},       {1, KEY, "open", EIO},          {1, KEY, "fstat", ENOMEM},
        {1, KEY, "fread", EIO},         {1, CPUINFO, "fopen", EMFILE},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.path + " " + row.call + " " + strerror(row.error));
        forgetAll();
        RecordCollector collector;
        gs_oFault = {row.call, row.path, row.error, 1};
        m_oProvider.loadInput(row.inputId);
        EXPECT_EQ(gs_oFault.times, 0) << "the call has failed";
        EXPECT_THAT(m_oProvider.activeFeatureNames(), IsEmpty());
        EXPECT_THAT(collector.lines(), ElementsAre(ContainsRegex("^ERROR features input .* counts as empty: ")));
        EXPECT_TRUE(recheck());
        EXPECT_THAT(m_oProvider.activeFeatureNames(), ElementsAre("granted", "installed"));
        EXPECT_THAT(collector.lines(), SizeIs(1));
        EXPECT_FALSE(recheck());
    }
}

TEST_F(PassingFaults, FaultThatLastsIsReportedOnce) {
    RecordCollector collector;
    gs_oFault = {"open", INSTALLED, EMFILE, 3};
    for (int look = 0; look < 3; ++look)
        m_oProvider.loadInput(0);
    EXPECT_THAT(collector.lines(), ElementsAre(HasSubstr("Too many open files")));
    m_oProvider.loadInput(0);
    EXPECT_THAT(collector.lines(), SizeIs(1));
    EXPECT_THAT(m_oProvider.activeFeatureNames(), ElementsAre("installed"));
}

TEST_F(PassingFaults, AnotherFaultIsReportedToo) {
    RecordCollector collector;
    gs_oFault = {"open", INSTALLED, EMFILE, 1};
    m_oProvider.loadInput(0);
    gs_oFault = {"open", INSTALLED, EIO, 1};
    recheck();
    EXPECT_THAT(collector.lines(), ElementsAre(HasSubstr(strerror(EMFILE)), HasSubstr(strerror(EIO))));
}

TEST_F(PassingFaults, FaultThatComesBackIsReportedAgain) {
    RecordCollector collector;
    for (int turn = 0; turn < 2; ++turn) {
        gs_oFault = {"open", INSTALLED, EMFILE, 1};
        m_oProvider.loadInput(0);
        m_oProvider.loadInput(0);
    }
    EXPECT_THAT(collector.lines(), SizeIs(2));
}

TEST_F(PassingFaults, FaultWithAnotherFileIsReportedAgain) {
    RecordCollector collector;
    gs_oFault = {"open", INSTALLED, EMFILE, 2};
    m_oProvider.loadInput(0);
    putInstalled(R"({"name":"other one"})");
    m_oProvider.loadInput(0);
    EXPECT_THAT(collector.lines(), SizeIs(2));
}

TEST_F(PassingFaults, FaultWithAnotherKeyIsReportedAgain) {
    RecordCollector collector;
    gs_oFault = {"open", GRANT, EMFILE, 3};
    m_oProvider.loadInput(1);
    m_oProvider.loadInput(1);
    EXPECT_THAT(collector.lines(), SizeIs(1));
    TempFolder::writeTo(KEY, "another key");
    m_oProvider.loadInput(1);
    EXPECT_THAT(collector.lines(), SizeIs(2));
}

TEST_F(PassingFaults, SerialNumberThatBecomesKnownMakesTheGrantGood) {
    const std::string cpuinfo = TempFolder::contentOf("/run/sandbox/cpuinfo");
    TempFolder::writeTo("/run/sandbox/cpuinfo", "processor\t: 0\n");
    RecordCollector collector;
    EXPECT_FALSE(m_oProvider.loadInput(1));
    recheck();
    EXPECT_THAT(collector.lines(), ElementsAre(HasSubstr("this device has no serial number")));
    EXPECT_THAT(m_oProvider.activeFeatureNames(), ElementsAre("installed"));
    TempFolder::writeTo("/run/sandbox/cpuinfo", cpuinfo);
    EXPECT_TRUE(recheck());
    EXPECT_THAT(m_oProvider.activeFeatureNames(), ElementsAre("granted", "installed"));
    EXPECT_THAT(collector.lines(), SizeIs(1));
}

TEST_F(PassingFaults, FileThatCannotBeLookedAtIsNotOneThatIsGone) {
    m_oProvider.loadInput(0);
    m_oProvider.loadInput(1);
    for (const int error : {EIO, ENOMEM, EACCES}) {
        SCOPED_TRACE(strerror(error));
        gs_oFault = {"stat", INSTALLED, error, 1};
        EXPECT_FALSE(m_oProvider.dropInput(0));
        EXPECT_THAT(m_oProvider.activeFeatureNames(), ElementsAre("granted", "installed"));
        gs_oFault = {"stat", INSTALLED, error, 1};
        EXPECT_FALSE(recheck()) << "the file is read again";
        EXPECT_THAT(m_oProvider.activeFeatureNames(), ElementsAre("granted", "installed"));
    }
}

TEST_F(PassingFaults, MissingKeyIsNotAFaultThatPasses) {
    fs::remove(KEY);
    RecordCollector collector;
    m_oProvider.loadInput(1);
    recheck();
    recheck();
    EXPECT_THAT(collector.lines(), SizeIs(1));
    EXPECT_THAT(collector.lines()[0], HasSubstr("the key " + KEY + " can't be used: " + strerror(ENOENT)));
}

}  // namespace
