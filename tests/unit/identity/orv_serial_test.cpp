// orv_serial_test.cpp: the two sources of the identifiers, their priority, their damaged forms and their faults.
//
// This file replaces fopen and stat for its test program: the two fixed paths are served from memory, any other path is
// as usual.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "identity/orv_serial.h"

namespace {

using namespace std::string_literals;

const std::string CPUINFO = "/proc/cpuinfo";
const std::string IDENTIFIERS = "/etc/orvanta/identifiers";

FILE* realFopen(const char* path, const char* mode) {
    using Fopen = FILE* (*)(const char*, const char*);
    static const Fopen real = reinterpret_cast<Fopen>(dlsym(RTLD_NEXT, "fopen"));
    return real(path, mode);
}

// Source is what the code under test finds at one of its paths.
struct Source {
    int openError = ENOENT;  // 0 lets the opening succeed
    std::string content;
    int readError = 0;      // the fault behind the content; 0 gives the end of the file
    std::string instead{};  // if not empty, the real path that is opened in place of the content
    mode_t kind = S_IFREG;
};

Source absent(int openError = ENOENT) {
    return {openError, "", 0, "", S_IFREG};
}
Source holding(std::string content) {
    return {0, std::move(content), 0, "", S_IFREG};
}
Source breaking(std::string content) {
    return {0, std::move(content), EIO, "", S_IFREG};
}
Source folder() {
    return {0, "", 0, "/", S_IFDIR};
}
// special is a file that a reader could wait for without end.
Source special(mode_t kind) {
    return {0, "", 0, "", kind};
}

struct Opening {
    std::string path;
    std::string mode;
};

Source gs_oCpuInfo;
Source gs_oIdentifiers;
std::vector<Opening> gs_aOpenings;
int gs_nOpenStreams = 0;

// Reading is one open stream of a source; it lives until the stream is closed.
struct Reading {
    Source source;
    size_t at = 0;
};

ssize_t readSource(void* cookie, char* buffer, size_t size) {
    auto& reading = *static_cast<Reading*>(cookie);
    const size_t count = std::min(size, reading.source.content.size() - reading.at);
    std::memcpy(buffer, reading.source.content.data() + reading.at, count);
    reading.at += count;
    if (count == 0 && reading.source.readError) {
        errno = reading.source.readError;
        return -1;
    }
    return static_cast<ssize_t>(count);
}

int closeSource(void* cookie) {
    const std::unique_ptr<Reading> reading(static_cast<Reading*>(cookie));
    gs_nOpenStreams--;
    return 0;
}

FILE* openSource(const Source& source, const char* path, const char* mode) {
    gs_aOpenings.push_back({path, mode});
    if (source.openError) {
        errno = source.openError;
        return nullptr;
    }
    if (!source.instead.empty()) {
        return realFopen(source.instead.c_str(), mode);
    }
    cookie_io_functions_t functions{};
    functions.read = readSource;
    functions.close = closeSource;
    gs_nOpenStreams++;
    return fopencookie(new Reading{source}, "r", functions);
}

}  // namespace

extern "C" FILE* fopen(const char* path, const char* mode) {
    if (path == CPUINFO) {
        return openSource(gs_oCpuInfo, path, mode);
    }
    if (path == IDENTIFIERS) {
        return openSource(gs_oIdentifiers, path, mode);
    }
    return realFopen(path, mode);
}

extern "C" int stat(const char* path, struct stat* status) {
    if (path != IDENTIFIERS) {
        using Stat = int (*)(const char*, struct stat*);
        return reinterpret_cast<Stat>(dlsym(RTLD_NEXT, "stat"))(path, status);
    }
    if (gs_oIdentifiers.openError == ENOENT) {
        errno = ENOENT;
        return -1;
    }
    *status = {};
    status->st_mode = gs_oIdentifiers.kind;
    return 0;
}

namespace {

// Identifier is one text with its flag.
struct Identifier {
    const char* name;
    std::string* text;
    bool* has;
    const char* filler;
};

const Identifier SERIAL{"serial", &ORVSerial::ms_strSerialNumber, &ORVSerial::ms_bHasSerialNumber, "[not defined]"};
const Identifier TYPE{"type", &ORVSerial::ms_strDeviceType, &ORVSerial::ms_bHasDeviceType, "[not defined]"};
const Identifier USER{"user", &ORVSerial::ms_strUserSerialNumber, &ORVSerial::ms_bHasUserSerialNumber, "[not defined]"};
const Identifier BOARD{"board", &ORVSerial::ms_strBoardSerialNumber, &ORVSerial::ms_bHasBoardSerialNumber,
                       "[not defined]"};
const Identifier SYSTEM{"system", &ORVSerial::ms_strSystemSerialNumber, &ORVSerial::ms_bHasSystemSerialNumber,
                        "[not defined]"};
const Identifier CHASSIS{"chassis", &ORVSerial::ms_strChassisSerialNumber, &ORVSerial::ms_bHasChassisSerialNumber,
                         "[not defined]"};
const Identifier MAIN_IFACE{"main", &ORVSerial::ms_strMainNetIface, &ORVSerial::ms_bHasMainNetIface, "eth0"};
const Identifier ACTIVE_IFACE{"active", &ORVSerial::ms_strActiveNetIface, &ORVSerial::ms_bHasActiveNetIface, "eth0"};

const Identifier* const ALL[] = {&SERIAL, &TYPE, &USER, &BOARD, &SYSTEM, &CHASSIS, &MAIN_IFACE, &ACTIVE_IFACE};

// state writes down all identifiers that a source supplied, and any filler that is not the right one.
std::string state() {
    std::string text;
    for (const Identifier* identifier : ALL) {
        if (*identifier->has) {
            text += identifier->name + "="s + *identifier->text + ";";
        } else if (*identifier->text != identifier->filler) {
            text += identifier->name + " without flag="s + *identifier->text + ";";
        }
    }
    return text;
}

// What the members held before any test ran.
class BeforeTheFirstLoad : public testing::Environment {
public:
    void SetUp() override {
        if (ms_bTaken) {
            return;
        }
        ms_bTaken = true;
        ms_bLoaded = ORVSerial::ms_bLoaded;
        for (const Identifier* identifier : ALL) {
            ms_bAnyFlag = ms_bAnyFlag || *identifier->has;
            ms_strTexts += *identifier->text;
        }
    }

    static inline bool ms_bTaken = false;
    static inline bool ms_bLoaded = false;
    static inline bool ms_bAnyFlag = false;
    static inline std::string ms_strTexts;
};

const testing::Environment* const gs_pBeforeTheFirstLoad = testing::AddGlobalTestEnvironment(new BeforeTheFirstLoad);

// Every test starts with empty sources, loaded.
class OrvSerial : public testing::Test {
protected:
    void SetUp() override {
        restart("", "");
        gs_aOpenings.clear();
    }

    void TearDown() override {
        EXPECT_EQ(gs_nOpenStreams, 0) << "every stream is closed";
        gs_oCpuInfo = absent();
        gs_oIdentifiers = absent();
    }

    // restart gives both sources a content and loads them.
    static bool restart(const std::string& cpuInfo, const std::string& identifiers) {
        gs_oCpuInfo = holding(cpuInfo);
        gs_oIdentifiers = holding(identifiers);
        return ORVSerial::load();
    }
};

struct Row {
    std::string content;
    std::string state;
    bool result;
    const char* why;
};

size_t openDescriptors() {
    using Iterator = std::filesystem::directory_iterator;
    return static_cast<size_t>(std::distance(Iterator("/proc/self/fd"), Iterator()));
}

// filledLine is `start` filled up with "x" to `size` bytes, without a line end.
std::string filledLine(const std::string& start, size_t size) {
    return start + std::string(size - start.size(), 'x');
}

}  // namespace

static_assert(!std::is_default_constructible_v<ORVSerial>, "the class has no instances");

TEST(OrvSerialAtStart, AllTextsAreEmptyAndAllFlagsFalse) {
    ASSERT_TRUE(BeforeTheFirstLoad::ms_bTaken);
    EXPECT_FALSE(BeforeTheFirstLoad::ms_bLoaded);
    EXPECT_FALSE(BeforeTheFirstLoad::ms_bAnyFlag);
    EXPECT_EQ(BeforeTheFirstLoad::ms_strTexts, "");
}

// load

TEST_F(OrvSerial, LoadGivesFillersWhereNoSourceHasAValue) {
    EXPECT_TRUE(restart("processor\t: 0\n", ""));
    EXPECT_TRUE(ORVSerial::ms_bLoaded);
    for (const Identifier* identifier : ALL) {
        EXPECT_FALSE(*identifier->has) << identifier->name;
        EXPECT_EQ(*identifier->text, identifier->filler) << identifier->name;
    }
}

TEST_F(OrvSerial, LoadReadsBothSourcesInOrder) {
    EXPECT_TRUE(restart("Serial : s\n", "ORV_USER_SN=u\n"));
    EXPECT_EQ(state(), "serial=s;user=u;");
    ASSERT_EQ(gs_aOpenings.size(), 2u);
    EXPECT_EQ(gs_aOpenings[0].path, CPUINFO);
    EXPECT_EQ(gs_aOpenings[1].path, IDENTIFIERS);
}

TEST_F(OrvSerial, SourcesAreOpenedForReadingInBinaryMode) {
    restart("", "");
    for (const Opening& opening : gs_aOpenings) {
        EXPECT_EQ(opening.mode.substr(0, 2), "rb") << opening.path;
        EXPECT_EQ(opening.mode.find('+'), std::string::npos) << opening.path;
    }
}

TEST_F(OrvSerial, LoadForgetsWhatWasReadBefore) {
    EXPECT_TRUE(restart("Serial : s\nHardware : h\n",
                        "ORV_USER_SN=u\nORV_BOARD_SN=b\nORV_SYSTEM_SN=y\nORV_CHASSIS_SN=c\nORV_MAIN_IFACE_NAME=m\n"));
    EXPECT_EQ(state(), "serial=s;type=h;user=u;board=b;system=y;chassis=c;main=m;");
    EXPECT_TRUE(restart("", ""));
    EXPECT_EQ(state(), "");
}

TEST_F(OrvSerial, LoadForgetsTheActiveInterface) {
    ORVSerial::setActiveNetIface("wlan0");
    EXPECT_EQ(state(), "active=wlan0;");
    EXPECT_TRUE(restart("", ""));
    EXPECT_EQ(ORVSerial::ms_strActiveNetIface, "eth0");
    EXPECT_FALSE(ORVSerial::ms_bHasActiveNetIface);
}

TEST_F(OrvSerial, LoadIsTrueOnlyIfBothSourcesWere) {
    EXPECT_TRUE(restart("", ""));
    EXPECT_FALSE(restart("Serial\n", ""));
    EXPECT_FALSE(restart("", "foo\n"));
    EXPECT_FALSE(restart("Serial\n", "foo\n"));
}

TEST_F(OrvSerial, SecondSourceIsReadThoughTheFirstFailed) {
    gs_oCpuInfo = absent();
    gs_oIdentifiers = holding("ORV_SN=fromfile\n");
    EXPECT_FALSE(ORVSerial::load());
    EXPECT_EQ(state(), "serial=fromfile;");
    EXPECT_TRUE(ORVSerial::ms_bLoaded);
}

TEST_F(OrvSerial, FailedLoadForgetsWhatWasReadBefore) {
    EXPECT_TRUE(restart("Serial : s\n", "ORV_USER_SN=u\n"));
    ORVSerial::setActiveNetIface("wlan0");
    gs_oCpuInfo = absent();
    gs_oIdentifiers = absent(EACCES);
    EXPECT_FALSE(ORVSerial::load());
    EXPECT_EQ(state(), "");
}

TEST_F(OrvSerial, FailedLoadKeepsWhatWasRead) {
    EXPECT_FALSE(restart("Serial : s\nHardware\n", "ORV_USER_SN=u\nfoo\n"));
    EXPECT_EQ(state(), "serial=s;user=u;");
}

TEST_F(OrvSerial, ValueOfTheKernelBeatsTheFile) {
    EXPECT_TRUE(restart("Serial : kernel\nHardware : board\n", "ORV_SN=abc\nORV_HW_TYPE=other\n"));
    EXPECT_EQ(state(), "serial=kernel;type=board;");
}

TEST_F(OrvSerial, FileSuppliesWhatTheKernelDoesNot) {
    EXPECT_TRUE(restart("Hardware : board\n", "ORV_SN=abc\nORV_HW_TYPE=other\n"));
    EXPECT_EQ(state(), "serial=abc;type=board;");
}

TEST_F(OrvSerial, FailedLineOfTheKernelLeavesTheValueToTheFile) {
    EXPECT_FALSE(restart("Serial :\n", "ORV_SN=abc\n"));
    EXPECT_EQ(state(), "serial=abc;");
}

TEST_F(OrvSerial, MachineWithoutSerialAndWithoutFileLoads) {
    gs_oCpuInfo = holding("processor\t: 0\nmodel name\t: some\n\n");
    gs_oIdentifiers = absent();
    EXPECT_TRUE(ORVSerial::load());
    EXPECT_FALSE(ORVSerial::ms_bHasSerialNumber);
    EXPECT_EQ(state(), "");
}

TEST_F(OrvSerial, NoStreamStaysOpen) {
    const size_t before = openDescriptors();
    gs_oCpuInfo = folder();
    gs_oIdentifiers = folder();
    EXPECT_FALSE(ORVSerial::load());
    restart("Serial\n", "foo\n");
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(OrvSerial, SetActiveNetIfaceSetsTextAndFlagOnly) {
    std::string name = "wlan0";
    ORVSerial::setActiveNetIface(name);
    name = "changed";
    EXPECT_EQ(state(), "active=wlan0;");
    ORVSerial::setActiveNetIface("");
    EXPECT_EQ(ORVSerial::ms_strActiveNetIface, "");
    EXPECT_TRUE(ORVSerial::ms_bHasActiveNetIface);
    EXPECT_TRUE(gs_aOpenings.empty());
}

// loadCpuInfo

TEST_F(OrvSerial, CpuInfoLines) {
    const std::string longest(63, 'v');
    const Row rows[] = {
        {"", "", true, "an empty file"},
        {"\n\n", "", true, "empty lines"},
        {"Serial : 0000abcd\n", "serial=0000abcd;", true, "blanks"},
        {"Serial\t\t: 0000abcd\n", "serial=0000abcd;", true, "tabs"},
        {"Hardware\t: BCM2835\n", "type=BCM2835;", true, "the other key"},
        {"Hardware\t: Some Board rev 2\n", "type=Some;", true, "the value ends at its first blank"},
        {"Serial : abc", "serial=abc;", true, "no line end at the end of the file"},
        {"Serial : abc\r\n", "serial=abc;", true, "CRLF"},
        {"Serial : abc \t \n", "serial=abc;", true, "white space behind the value"},
        {"Serial number : x\n", "serial=:;", true, "the third word is what counts"},
        {"Serial: abc def\n", "serial=def;", true, "a colon without a blank is no word"},
        {"Serialized x y\n", "serial=y;", true, "only the first six bytes are compared"},
        {"Hardware2 x y\n", "type=y;", true, "only the first eight bytes are compared"},
        {"Serial : a\xc3\xa4\xff\n", "serial=a\xc3\xa4\xff;", true, "bytes above 127"},
        {"Serial : a\xa0z\x85\n", "serial=a\xa0z\x85;", true, "bytes that some locales take for blanks"},
        {"serial : abc\nSERIAL : abc\nhardware : x\n", "", true, "the case counts"},
        {" Serial : abc\n\tHardware : x\n", "", true, "only the beginning of a line counts"},
        {"Seria : abc\nHardwar : x\n", "", true, "a shorter key is another key"},
        {"Serial\n", "", false, "no further word"},
        {"Serial", "", false, "no further word and no line end"},
        {"Serial :\n", "", false, "no third word"},
        {"Serial :\r\n", "", false, "no third word, CRLF"},
        {"Serial : \t \n", "", false, "white space is no word"},
        {"Serial: abc\n", "", false, "two words"},
        {"Hardware\n", "", false, "no further word"},
        {"Hardware :\n", "", false, "no third word"},
        {"Serial : a\nSerial : b\n", "serial=b;", true, "the last one stands"},
        {"Hardware : a\nHardware : b\n", "type=b;", true, "the last one stands"},
        {"Serial : a\nSerial :\n", "serial=a;", false, "a failed line takes nothing away"},
        {"Serial :\nSerial : b\nHardware : c\n", "serial=b;type=c;", false, "reading goes on behind a failed line"},
        {"processor : 0\n\nHardware : h\nRevision : r\nSerial : s\nModel : m\n", "serial=s;type=h;", true, "all"},
        {"Serial : " + longest + "\n", "serial=" + longest + ";", true, "63 characters"},
        {"Serial : " + longest + "w\n", "serial=" + longest + ";", true, "64 characters are cut"},
        {"Serial : " + longest + std::string(1000, 'w') + "\n", "serial=" + longest + ";", true, "many are cut"},
        {"Hardware : " + longest + "w\n", "type=" + longest + ";", true, "64 characters are cut"},
    };
    for (const Row& row : rows) {
        restart("", "");
        gs_oCpuInfo = holding(row.content);
        EXPECT_EQ(ORVSerial::loadCpuInfo(), row.result) << row.why << ": " << row.content;
        EXPECT_EQ(state(), row.state) << row.why;
    }
}

// A piece of a line has at most 2047 bytes, as the last of the buffer is the terminator.
TEST_F(OrvSerial, CpuInfoLinesAtTheSizeOfTheBuffer) {
    const std::string fill2047(2047, 'x');
    const std::string fill2046(2046, 'x');
    const std::string blanks2038(2038, ' ');
    const Row rows[] = {
        {fill2046 + "\nSerial : a\n", "serial=a;", true, "2047 bytes with the line end"},
        {fill2047 + "\nSerial : a\n", "serial=a;", true, "2048 bytes with the line end"},
        {fill2047 + "x\nSerial : a\n", "serial=a;", true, "2049 bytes with the line end"},
        {fill2047 + "Serial : a\n", "serial=a;", true, "the second piece begins with the key"},
        {fill2046 + "Serial : a\n", "", true, "the key is cut"},
        {"Serial :" + blanks2038 + "v\n", "serial=v;", true, "the value is the last byte of the piece"},
        {"Serial :" + blanks2038 + " v\n", "", false, "the value is behind the piece"},
        {"Serial :" + blanks2038 + "vw\n", "serial=v;", true, "the value is cut by the piece"},
        {std::string(100000, 'x') + "\nSerial : a\n", "serial=a;", true, "a very long line"},
    };
    for (const Row& row : rows) {
        restart("", "");
        gs_oCpuInfo = holding(row.content);
        EXPECT_EQ(ORVSerial::loadCpuInfo(), row.result) << row.why;
        EXPECT_EQ(state(), row.state) << row.why;
    }
}

TEST_F(OrvSerial, CpuInfoThatDoesNotOpenIsAFault) {
    for (const int error : {ENOENT, EACCES, EMFILE, EIO}) {
        gs_oCpuInfo = absent(error);
        EXPECT_FALSE(ORVSerial::loadCpuInfo()) << error;
        EXPECT_EQ(state(), "");
    }
}

TEST_F(OrvSerial, CpuInfoThatIsAFolderIsAFault) {
    gs_oCpuInfo = folder();
    EXPECT_FALSE(ORVSerial::loadCpuInfo());
}

TEST_F(OrvSerial, FaultWhileReadingCpuInfoKeepsTheLinesBefore) {
    gs_oCpuInfo = breaking("Serial : a\nHardware : b\n");
    EXPECT_FALSE(ORVSerial::loadCpuInfo());
    EXPECT_EQ(state(), "serial=a;type=b;");
    restart("", "");
    gs_oCpuInfo = breaking("");
    EXPECT_FALSE(ORVSerial::loadCpuInfo());
    EXPECT_EQ(state(), "");
}

TEST_F(OrvSerial, NulBytesInCpuInfoDoNoHarm) {
    gs_oCpuInfo = holding("\0\0\n"s + "Serial : a\0b c\n"s + "\0Hardware : x\n"s + "Hardware : h\n");
    EXPECT_TRUE(ORVSerial::loadCpuInfo());
    EXPECT_EQ(state(), "serial=a;type=h;");
}

TEST_F(OrvSerial, CpuInfoReplacesAValueThatIsThere) {
    gs_oIdentifiers = holding("ORV_SN=file\n");
    EXPECT_TRUE(ORVSerial::loadOrvantaIdentifiers());
    EXPECT_EQ(state(), "serial=file;");
    gs_oCpuInfo = holding("Serial : kernel\n");
    EXPECT_TRUE(ORVSerial::loadCpuInfo());
    EXPECT_EQ(state(), "serial=kernel;");
}

// loadOrvantaIdentifiers

TEST_F(OrvSerial, IdentifierKeys) {
    const Row rows[] = {
        {"ORV_HW_TYPE=v\n", "type=v;", true, ""},
        {"ORV_SN=v\n", "serial=v;", true, ""},
        {"ORV_USER_SN=v\n", "user=v;", true, ""},
        {"ORV_BOARD_SN=v\n", "board=v;", true, ""},
        {"ORV_SYSTEM_SN=v\n", "system=v;", true, ""},
        {"ORV_CHASSIS_SN=v\n", "chassis=v;", true, ""},
        {"ORV_MAIN_IFACE_NAME=v\n", "main=v;", true, ""},
        {"ORV_SN=1\nORV_HW_TYPE=2\nORV_USER_SN=3\nORV_BOARD_SN=4\nORV_SYSTEM_SN=5\nORV_CHASSIS_SN=6\n"
         "ORV_MAIN_IFACE_NAME=7\n",
         "serial=1;type=2;user=3;board=4;system=5;chassis=6;main=7;", true, "all of them"},
        {"ORV_MAIN_IFACE_NAME=eth0\n", "main=eth0;", true, "the filler as a value has its flag"},
        {"ORV_SN=[not defined]\n", "serial=[not defined];", true, "the filler as a value has its flag"},
        {"ORV_ACTIVE_IFACE_NAME=v\n", "", true, "no source has the active interface"},
        {"orv_sn=v\nOrv_Sn=v\n", "", true, "the case counts"},
        {"ORV_S=v\nORV_SNX=v\nXORV_SN=v\n", "", true, "the whole key counts"},
        {"ORV_SN =v\n", "", true, "a blank behind the key belongs to it"},
        {"ORV_SN\t=v\n", "", true, "so does a tab"},
        {"export ORV_SN=v\n", "", true, "a blank inside the key"},
        {"=v\n=\n", "", true, "an empty key is an unknown one"},
        {"OTHER=v\nORV_SN=s\n", "serial=s;", true, "an unknown key is no fault"},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(restart("", row.content), row.result) << row.why << ": " << row.content;
        EXPECT_EQ(state(), row.state) << row.why << ": " << row.content;
    }
}

TEST_F(OrvSerial, IdentifierValues) {
    const Row rows[] = {
        {"ORV_SN=abc\n", "serial=abc;", true, "plain"},
        {"ORV_SN=abc", "serial=abc;", true, "no line end at the end of the file"},
        {"ORV_SN=abc\r\n", "serial=abc;", true, "CRLF"},
        {"ORV_SN=abc \t\v\f\r \n", "serial=abc;", true, "white space at the end"},
        {"ORV_SN=a b\n", "serial=a b;", true, "a blank inside"},
        {"ORV_SN= abc\n", "serial= abc;", true, "a blank behind the ="},
        {"ORV_SN=\tabc\n", "serial=\tabc;", true, "a tab behind the ="},
        {"ORV_SN=a=b\n", "serial=a=b;", true, "the first = counts"},
        {"ORV_SN==\n", "serial==;", true, "the first = counts"},
        {"ORV_SN=#x\n", "serial=#x;", true, "no comment behind a key"},
        {"ORV_SN=a # x\n", "serial=a # x;", true, "no comment behind a value"},
        {"ORV_SN=\n", "serial=;", true, "an empty value has its flag"},
        {"ORV_SN=", "serial=;", true, "an empty value at the end of the file"},
        {"ORV_SN=\r\n", "serial=;", true, "an empty value, CRLF"},
        {"ORV_SN= \t \n", "serial=;", true, "nothing but white space is an empty value"},
        {"ORV_SN=\"abc\"\n", "serial=abc;", true, "double quotes"},
        {"ORV_SN='abc'\n", "serial=abc;", true, "single quotes"},
        {"ORV_SN=\"abc\" \n", "serial=abc;", true, "a blank behind the quote"},
        {"ORV_SN='abc'\r\n", "serial=abc;", true, "quotes, CRLF"},
        {"ORV_SN='abc'", "serial=abc;", true, "quotes at the end of the file"},
        {"ORV_SN=\"\"\n", "serial=;", true, "nothing in quotes"},
        {"ORV_SN=''\n", "serial=;", true, "nothing in single quotes"},
        {"ORV_SN=\" a \"\n", "serial= a ;", true, "blanks in quotes stay"},
        {"ORV_SN='\t'\n", "serial=\t;", true, "a tab in quotes stays"},
        {"ORV_SN=\"a'b\"\n", "serial=a'b;", true, "the other quote inside"},
        {"ORV_SN=\"a\"b\"\n", "serial=a\"b;", true, "the same quote inside"},
        {"ORV_SN=\"\"\"\n", "serial=\";", true, "three quotes hold one"},
        {"ORV_SN=\"a\\\"\n", "serial=a\\;", true, "no escapes"},
        {"ORV_SN=\"a\\n$b\"\n", "serial=a\\n$b;", true, "nothing is interpreted"},
        {"ORV_SN=\"'abc'\"\n", "serial='abc';", true, "one pair of quotes is removed"},
        {"ORV_SN=abc\"\n", "serial=abc\";", true, "a quote at the end only stays"},
        {"ORV_SN=a\"b\"\n", "serial=a\"b\";", true, "quotes inside stay"},
        {"ORV_SN= \"abc\"\n", "serial= \"abc\";", true, "quotes behind a blank stay"},
        {"ORV_SN=\xff\xc3\xa4\x80\n", "serial=\xff\xc3\xa4\x80;", true, "bytes above 127"},
        {"ORV_SN=\xa0z\xa0\x85\n", "serial=\xa0z\xa0\x85;", true, "bytes that some locales take for blanks"},
        {"\xa0ORV_SN=x\n", "", true, "such a byte in front belongs to the key"},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(restart("", row.content), row.result) << row.why << ": " << row.content;
        EXPECT_EQ(state(), row.state) << row.why << ": " << row.content;
    }
}

TEST_F(OrvSerial, IdentifierLinesThatAreIgnored) {
    const std::string lines[] = {
        "",       "\n", "\n\n\n",       "  \t \n",        "\v\f\r\n",
        "\r\n",   "#",  "# ORV_SN=x\n", "  # ORV_SN=x\n", "\t#ORV_SN=\"x\n",
        "#foo\n", " ",  "##\n#",        "#=\n",
    };
    for (const std::string& line : lines) {
        EXPECT_TRUE(restart("", line)) << line;
        EXPECT_EQ(state(), "") << line;
        EXPECT_TRUE(restart("", line + "\nORV_SN=x\n")) << line;
        EXPECT_EQ(state(), "serial=x;") << line;
    }
}

TEST_F(OrvSerial, WhiteSpaceInFrontOfAKeyIsSkipped) {
    for (const std::string blanks : {" ", "\t", "\v", "\f", "\r", " \t\v\f\r "}) {
        EXPECT_TRUE(restart("", blanks + "ORV_SN=x\n"));
        EXPECT_EQ(state(), "serial=x;");
    }
}

TEST_F(OrvSerial, BadIdentifierLineIsToldAndReadingGoesOn) {
    const std::string lines[] = {
        "foo",         "ORV_SN",      "f o o",       "\xff",         "ORV_SN=\"abc'",  "ORV_SN='abc\"",
        "ORV_SN=\"",   "ORV_SN='",    "ORV_SN='abc", "ORV_SN=\"abc", "ORV_SN=\"a\" b", "ORV_SN=\"a\"#",
        "ORV_SN=\"  ", "OTHER=\"abc", "OTHER='",     "=\"",          "  foo",          "foo # =\" # \"x",
    };
    for (const std::string& line : lines) {
        EXPECT_FALSE(restart("", line + "\n")) << line;
        EXPECT_EQ(state(), "") << line;
        EXPECT_FALSE(restart("", line)) << line << " without line end";
        EXPECT_FALSE(restart("", "ORV_USER_SN=u\n" + line + "\nORV_SN=x\n")) << line;
        EXPECT_EQ(state(), "serial=x;user=u;") << line;
    }
}

TEST_F(OrvSerial, BadLineOfAKeyThatHasItsValueIsToldAsWell) {
    EXPECT_FALSE(restart("Serial : s\n", "ORV_SN=\"abc\n"));
    EXPECT_EQ(state(), "serial=s;");
}

TEST_F(OrvSerial, FirstOccurrenceOfAKeyWins) {
    EXPECT_TRUE(restart("", "ORV_SN=a\nORV_SN=b\n"));
    EXPECT_EQ(state(), "serial=a;");
    EXPECT_TRUE(restart("", "ORV_SN=\nORV_SN=b\n"));
    EXPECT_EQ(state(), "serial=;");
    EXPECT_TRUE(restart("", "ORV_MAIN_IFACE_NAME=a\nORV_MAIN_IFACE_NAME=b\n"));
    EXPECT_EQ(state(), "main=a;");
}

TEST_F(OrvSerial, SecondReadingOfTheFileAddsOnlyWhatIsMissing) {
    gs_oIdentifiers = holding("ORV_SN=a\n");
    EXPECT_TRUE(ORVSerial::loadOrvantaIdentifiers());
    gs_oIdentifiers = holding("ORV_SN=b\nORV_USER_SN=c\n");
    EXPECT_TRUE(ORVSerial::loadOrvantaIdentifiers());
    EXPECT_EQ(state(), "serial=a;user=c;");
}

// A piece of a line has at most 127 bytes, as the last of the buffer is the terminator.
TEST_F(OrvSerial, IdentifierLinesAtTheSizeOfTheBuffer) {
    const std::string value119(119, 'x');
    const std::string value120(120, 'x');
    const std::string line126 = filledLine("ORV_SN=", 126);
    const std::string line127 = filledLine("ORV_SN=", 127);
    const Row rows[] = {
        {line126 + "\n", "serial=" + value119 + ";", true, "127 bytes with the line end"},
        {line127 + "\n", "serial=" + value120 + ";", true, "128 bytes: the second piece is a line end"},
        {line127, "serial=" + value120 + ";", true, "127 bytes without a line end"},
        {line127 + "y\n", "serial=" + value120 + ";", false, "129 bytes: the second piece is a bad line"},
        {line127 + "y", "serial=" + value120 + ";", false, "128 bytes without a line end"},
        {line127 + "# y\n", "serial=" + value120 + ";", true, "the second piece is a comment"},
        {line127 + "OTHER=y\n", "serial=" + value120 + ";", true, "the second piece has a key"},
        {line127 + "ORV_USER_SN=y\n", "serial=" + value120 + ";user=y;", true, "the second piece has a known key"},
        {line127 + "  ORV_USER_SN=y\n", "serial=" + value120 + ";user=y;", true, "and blanks in front"},
        {line126 + " \n", "serial=" + value119 + ";", true, "the piece ends in a blank"},
        {line126 + " y\n", "serial=" + value119 + ";", false, "the piece ends in a blank and goes on"},
        {line126 + "\r\n", "serial=" + value119 + ";", true, "CRLF is cut in two"},
        {filledLine("ORV_SN=\"", 126) + "\"\n", "serial=" + std::string(118, 'x') + ";", true, "quotes fit"},
        {filledLine("ORV_SN=\"", 127) + "\"\n", "", false, "the end quote is in the second piece"},
        {std::string(120, ' ') + "ORV_SN=y\n", "serial=;", false, "the value is in the second piece"},
        {std::string(121, ' ') + "ORV_SN=y\n", "", false, "the key is cut: ORV_SN and =y"},
        {std::string(127, ' ') + "ORV_SN=y\n", "serial=y;", true, "the key is in the second piece"},
        {std::string(127 * 3, ' ') + "ORV_SN=y\n", "serial=y;", true, "the key is in the fourth piece"},
        {std::string(2047, '#') + "\nORV_SN=y\n", "serial=y;", true, "2048 bytes, all pieces are comments"},
        {std::string(2048, '#') + "\nORV_SN=y\n", "serial=y;", true, "2049 bytes, all pieces are comments"},
        {"#" + std::string(2047, 'x') + "\nORV_SN=y\n", "serial=y;", false, "only the first piece is a comment"},
        {"#" + std::string(126, 'x') + "\nORV_SN=y\n", "serial=y;", true, "a comment of 128 bytes"},
        {"#" + std::string(127, 'x') + "\nORV_SN=y\n", "serial=y;", false, "a comment of 129 bytes"},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(restart("", row.content), row.result) << row.why;
        EXPECT_EQ(state(), row.state) << row.why;
    }
}

TEST_F(OrvSerial, LineOfTheFileEndsAtANulByte) {
    EXPECT_TRUE(restart("", "ORV_SN=ab\0cd\nORV_USER_SN=u\n"s));
    EXPECT_EQ(state(), "serial=ab;user=u;");
    EXPECT_TRUE(restart("", "\0foo\n\0\n  \0\nORV_SN=x\n"s));
    EXPECT_EQ(state(), "serial=x;");
    EXPECT_FALSE(restart("", "foo\0=x\nORV_SN=\"x\0\"\nORV_SN=y\0"s));
    EXPECT_EQ(state(), "serial=y;");
}

TEST_F(OrvSerial, FileThatIsAbsentIsNoFault) {
    gs_oIdentifiers = absent(ENOENT);
    EXPECT_TRUE(ORVSerial::loadOrvantaIdentifiers());
    EXPECT_EQ(state(), "");

    gs_oCpuInfo = holding("Serial : s\n");
    EXPECT_TRUE(ORVSerial::load());
    gs_oCpuInfo = holding("Serial :\n");
    EXPECT_FALSE(ORVSerial::load());
}

TEST_F(OrvSerial, FileThatDoesNotOpenForAnotherReasonIsAFault) {
    for (const int error : {EACCES, ENOTDIR, ELOOP, EMFILE, EIO, EPERM}) {
        gs_oIdentifiers = absent(error);
        errno = ENOENT;
        EXPECT_FALSE(ORVSerial::loadOrvantaIdentifiers()) << error;
        EXPECT_FALSE(ORVSerial::load()) << error;
    }
}

TEST_F(OrvSerial, FileThatIsAFolderIsAFault) {
    gs_oIdentifiers = folder();
    EXPECT_FALSE(ORVSerial::loadOrvantaIdentifiers());
    EXPECT_FALSE(ORVSerial::load());
}

TEST_F(OrvSerial, FileThatCouldBeWaitedForIsAFaultAndNotEvenOpened) {
    for (const mode_t kind : {S_IFIFO, S_IFCHR, S_IFSOCK, S_IFBLK}) {
        SCOPED_TRACE(kind);
        gs_oIdentifiers = special(kind);
        gs_aOpenings.clear();
        EXPECT_FALSE(ORVSerial::loadOrvantaIdentifiers());
        EXPECT_TRUE(gs_aOpenings.empty());
    }
}

TEST_F(OrvSerial, FaultWhileReadingTheFileKeepsTheLinesBefore) {
    gs_oIdentifiers = breaking("ORV_SN=a\nORV_USER_SN=b\n");
    EXPECT_FALSE(ORVSerial::loadOrvantaIdentifiers());
    EXPECT_EQ(state(), "serial=a;user=b;");
    gs_oIdentifiers = breaking("");
    EXPECT_FALSE(ORVSerial::load());
    EXPECT_EQ(state(), "");
}

// The harness itself: without its redirection the real file would be read.
TEST_F(OrvSerial, OtherPathsOpenAsUsual) {
    const std::unique_ptr<FILE, int (*)(FILE*)> stream(fopen("/proc/self/stat", "rb"), fclose);
    ASSERT_TRUE(stream);
    char buffer[16];
    EXPECT_NE(fgets(buffer, sizeof buffer, stream.get()), nullptr);
    EXPECT_TRUE(gs_aOpenings.empty());
}
