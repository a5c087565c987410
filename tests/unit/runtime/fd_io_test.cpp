// fd_io_test.cpp: reading and writing in full, on pipes and files, under signals and at every kind of failure.
//
// This file replaces libc's read and write for its test program: on one descriptor that doesn't exist they do what a
// script says. On any other they are libc's own.

// The fortified headers define read and write themselves.
#undef _FORTIFY_SOURCE

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/time.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "runtime/fd_io.h"
#include "unit/exact_buffer.h"
#include "unit/record_collector.h"

namespace {

constexpr int SCRIPTED = 1000000;

// Step is what one call does: it moves up to `result` bytes, or fails with `error`.
struct Step {
    ssize_t result;
    int error = 0;
};

// Script is what the calls on the scripted descriptor do, one step each, and what they were asked for and moved.
struct Script {
    std::vector<Step> steps;
    std::string source;
    std::string written;
    std::vector<size_t> asked;
    size_t taken = 0;
};

Script gs_oScript;

// nextStep returns the result of the next call. A call too many fails.
ssize_t nextStep(size_t length) {
    gs_oScript.asked.push_back(length);
    const size_t index = gs_oScript.asked.size() - 1;
    const Step step = index < gs_oScript.steps.size() ? gs_oScript.steps[index] : Step{-1, ENOTRECOVERABLE};
    if (step.result < 0)  // what succeeds leaves it alone
        errno = step.error;
    return std::min(step.result, static_cast<ssize_t>(length));
}

ssize_t scriptedRead(void* buffer, size_t length) {
    const ssize_t result = nextStep(length);
    if (result > 0) {
        gs_oScript.source.copy(static_cast<char*>(buffer), static_cast<size_t>(result), gs_oScript.taken);
        gs_oScript.taken += static_cast<size_t>(result);
    }
    return result;
}

ssize_t scriptedWrite(const void* data, size_t length) {
    const ssize_t result = nextStep(length);
    if (result > 0)
        gs_oScript.written.append(static_cast<const char*>(data), static_cast<size_t>(result));
    return result;
}

template <class Function>
Function* realCall(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" ssize_t read(int descriptor, void* buffer, size_t length) {
    if (descriptor == SCRIPTED)
        return scriptedRead(buffer, length);
    static const auto real = realCall<ssize_t(int, void*, size_t)>("read");
    return real(descriptor, buffer, length);
}

extern "C" ssize_t write(int descriptor, const void* data, size_t length) {
    if (descriptor == SCRIPTED)
        return scriptedWrite(data, length);
    static const auto real = realCall<ssize_t(int, const void*, size_t)>("write");
    return real(descriptor, data, length);
}

namespace {

// Pipe is a pipe whose ends close with it.
struct Pipe {
    explicit Pipe(int flags = 0) {
        int ends[2] = {-1, -1};
        EXPECT_EQ(pipe2(ends, O_CLOEXEC | flags), 0);
        readEnd = ends[0];
        writeEnd = ends[1];
    }
    ~Pipe() {
        closeReadEnd();
        closeWriteEnd();
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    void closeReadEnd() { closeEnd(readEnd); }
    void closeWriteEnd() { closeEnd(writeEnd); }

    int readEnd = -1;
    int writeEnd = -1;

private:
    static void closeEnd(int& end) {
        if (end != -1)
            close(end);
        end = -1;
    }
};

// pattern returns bytes in which a lost, doubled or swapped stretch shows.
std::string pattern(size_t size) {
    std::string result(size, '\0');
    uint32_t state = 1;
    for (char& byte : result) {
        state = state * 1664525U + 1013904223U;
        byte = static_cast<char>(state >> 24);
    }
    return result;
}

// Result is all that a call returns.
struct Result {
    int value;
    unsigned long count;
    int error;
    std::string bytes;
};

constexpr unsigned long UNSET = 4711;

Result readFull(int descriptor, unsigned long length) {
    const auto buffer = std::make_unique<char[]>(length);
    unsigned long count = UNSET;
    errno = 0;
    const int value = read_full(descriptor, buffer.get(), length, &count);
    const int error = errno;
    return {value, count, error, std::string(buffer.get(), std::min(count, length))};
}

Result writeFull(int descriptor, const std::string& data) {
    const ExactBuffer<char> buffer(data);
    unsigned long count = UNSET;
    errno = 0;
    const int value = write_full(descriptor, buffer.data(), data.size(), &count);
    return {value, count, errno, ""};
}

// --- Scripted calls

const std::string TEN = "0123456789";

// Row is a script for ten bytes, what comes out of it, and the lengths that the calls must ask for.
struct Row {
    const char* what;
    std::vector<Step> steps;
    int value;
    unsigned long count;
    int error;
    std::vector<size_t> asked;
};

const Row ROWS[] = {
    {"all at once", {{10}}, 0, 10, 0, {10}},
    {"in pieces", {{3}, {1}, {6}}, 0, 10, 0, {10, 7, 6}},
    {"byte by byte", {{1}, {1}, {1}, {1}, {1}, {1}, {1}, {1}, {1}, {1}}, 0, 10, 0, {10, 9, 8, 7, 6, 5, 4, 3, 2, 1}},
    {"interrupted at first", {{-1, EINTR}, {10}}, 0, 10, 0, {10, 10}},
    {"interrupted within", {{4}, {-1, EINTR}, {-1, EINTR}, {6}}, 0, 10, 0, {10, 6, 6, 6}},
    {"failing at first", {{-1, EIO}}, -1, 0, EIO, {10}},
    {"failing within", {{4}, {-1, EIO}}, -1, 4, EIO, {10, 6}},
    {"failing after an interrupt", {{4}, {-1, EINTR}, {-1, ENOSPC}}, -1, 4, ENOSPC, {10, 6, 6}},
    {"would block", {{9}, {-1, EAGAIN}}, -1, 9, EAGAIN, {10, 1}},
};

void expectRow(const Row& row, const Result& result) {
    EXPECT_EQ(result.value, row.value);
    EXPECT_EQ(result.count, row.count);
    EXPECT_EQ(row.value == 0 ? 0 : result.error, row.error);
    EXPECT_EQ(gs_oScript.asked, row.asked);
}

TEST(ReadFull, FollowsEveryScript) {
    for (const Row& row : ROWS) {
        SCOPED_TRACE(row.what);
        gs_oScript = {row.steps, TEN, "", {}, 0};
        const Result result = readFull(SCRIPTED, 10);
        expectRow(row, result);
        EXPECT_EQ(result.bytes, TEN.substr(0, row.count));
    }
}

TEST(WriteFull, FollowsEveryScript) {
    for (const Row& row : ROWS) {
        SCOPED_TRACE(row.what);
        gs_oScript = {row.steps, "", "", {}, 0};
        expectRow(row, writeFull(SCRIPTED, TEN));
        EXPECT_EQ(gs_oScript.written, TEN.substr(0, row.count));
    }
}

const Row ENDS[] = {
    {"empty file", {{0}}, 0, 0, 0, {10}},
    {"end within", {{3}, {0}}, 0, 3, 0, {10, 7}},
    {"end after an interrupt", {{3}, {-1, EINTR}, {0}}, 0, 3, 0, {10, 7, 7}},
};

TEST(ReadFull, EndOfFileIsNotAFailure) {
    for (const Row& row : ENDS) {
        SCOPED_TRACE(row.what);
        gs_oScript = {row.steps, TEN, "", {}, 0};
        const Result result = readFull(SCRIPTED, 10);
        expectRow(row, result);
        EXPECT_EQ(result.bytes, TEN.substr(0, row.count));
    }
}

TEST(WriteFull, GoesOnAfterACallThatWroteNothing) {
    gs_oScript = {{{0}, {4}, {0}, {6}}, "", "", {}, 0};
    const Result result = writeFull(SCRIPTED, TEN);
    EXPECT_EQ(result.value, 0);
    EXPECT_EQ(result.count, 10U);
    EXPECT_EQ(gs_oScript.written, TEN);
}

TEST(FullTransfer, CountMayBeNull) {
    for (const Row& row : ROWS) {
        SCOPED_TRACE(row.what);
        char buffer[10] = {};
        gs_oScript = {row.steps, TEN, "", {}, 0};
        EXPECT_EQ(read_full(SCRIPTED, buffer, 10, nullptr), row.value);
        gs_oScript = {row.steps, "", "", {}, 0};
        EXPECT_EQ(write_full(SCRIPTED, TEN.data(), 10, nullptr), row.value);
        EXPECT_EQ(gs_oScript.asked, row.asked);
    }
}

TEST(FullTransfer, LengthOfZeroStillMakesOneCall) {
    gs_oScript = {{{0}}, "", "", {}, 0};
    const Result read = readFull(SCRIPTED, 0);
    EXPECT_EQ(read.value, 0);
    EXPECT_EQ(read.count, 0U);
    EXPECT_EQ(gs_oScript.asked, std::vector<size_t>({0}));
    gs_oScript = {{{0}}, "", "", {}, 0};
    const Result written = writeFull(SCRIPTED, "");
    EXPECT_EQ(written.value, 0);
    EXPECT_EQ(written.count, 0U);
    EXPECT_EQ(gs_oScript.asked, std::vector<size_t>({0}));
}

TEST(FullTransfer, LengthOfZeroReportsABadDescriptor) {
    const Result read = readFull(-1, 0);
    EXPECT_EQ(read.value, -1);
    EXPECT_EQ(read.count, 0U);
    EXPECT_EQ(read.error, EBADF);
    const Result written = writeFull(-1, "");
    EXPECT_EQ(written.value, -1);
    EXPECT_EQ(written.count, 0U);
    EXPECT_EQ(written.error, EBADF);
}

// --- Real descriptors

TEST(ReadFull, WriterThatClosesEarlyMakesTheCountShort) {
    Pipe pipe;
    ASSERT_EQ(write(pipe.writeEnd, "abc", 3), 3);
    pipe.closeWriteEnd();
    const Result result = readFull(pipe.readEnd, 10);
    EXPECT_EQ(result.value, 0);
    EXPECT_EQ(result.count, 3U);
    EXPECT_EQ(result.bytes, "abc");
}

TEST(ReadFull, WaitsForAllOfALateWriter) {
    Pipe pipe;
    std::thread writer([&] {
        for (const char byte : TEN) {
            EXPECT_EQ(write(pipe.writeEnd, &byte, 1), 1);
            std::this_thread::yield();
        }
    });
    const Result result = readFull(pipe.readEnd, TEN.size());
    writer.join();
    EXPECT_EQ(result.value, 0);
    EXPECT_EQ(result.bytes, TEN);
}

TEST(ReadFull, LeavesWhatIsAfterTheLength) {
    Pipe pipe;
    ASSERT_EQ(write(pipe.writeEnd, TEN.data(), 10), 10);
    EXPECT_EQ(readFull(pipe.readEnd, 4).bytes, "0123");
    EXPECT_EQ(readFull(pipe.readEnd, 6).bytes, "456789");
}

TEST(ReadFull, WouldBlockIsAFailureWithTheCountSoFar) {
    Pipe pipe(O_NONBLOCK);
    ASSERT_EQ(write(pipe.writeEnd, "abc", 3), 3);
    const Result result = readFull(pipe.readEnd, 10);
    EXPECT_EQ(result.value, -1);
    EXPECT_EQ(result.count, 3U);
    EXPECT_EQ(result.error, EAGAIN);
    EXPECT_EQ(result.bytes, "abc");
}

TEST(ReadFull, FolderCannotBeRead) {
    const int folder = open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const Result result = readFull(folder, 10);
    close(folder);
    EXPECT_EQ(result.value, -1);
    EXPECT_EQ(result.count, 0U);
    EXPECT_EQ(result.error, EISDIR);
}

TEST(WriteFull, WouldBlockIsAFailureWithTheCountSoFar) {
    Pipe pipe(O_NONBLOCK);
    const int capacity = fcntl(pipe.writeEnd, F_GETPIPE_SZ);
    ASSERT_GT(capacity, 0);
    const std::string data = pattern(static_cast<size_t>(capacity) + 100000);
    const Result result = writeFull(pipe.writeEnd, data);
    EXPECT_EQ(result.value, -1);
    EXPECT_EQ(result.count, static_cast<unsigned long>(capacity));
    EXPECT_EQ(result.error, EAGAIN);
    EXPECT_EQ(readFull(pipe.readEnd, result.count).bytes, data.substr(0, result.count));
}

TEST(WriteFull, FullDeviceIsAFailure) {
    const int device = open("/dev/full", O_WRONLY | O_CLOEXEC);
    ASSERT_NE(device, -1);
    const Result result = writeFull(device, TEN);
    close(device);
    EXPECT_EQ(result.value, -1);
    EXPECT_EQ(result.count, 0U);
    EXPECT_EQ(result.error, ENOSPC);
}

TEST(WriteFull, ReaderThatGoesAwayIsAFailureWithTheCountSoFar) {
    const auto before = signal(SIGPIPE, SIG_IGN);
    Pipe pipe;
    const std::string data = pattern(1U << 20);
    std::string taken;
    std::thread reader([&] {
        taken = readFull(pipe.readEnd, 100000).bytes;
        pipe.closeReadEnd();
    });
    const Result result = writeFull(pipe.writeEnd, data);
    reader.join();
    signal(SIGPIPE, before);
    EXPECT_EQ(result.value, -1);
    EXPECT_EQ(result.error, EPIPE);
    EXPECT_GE(result.count, taken.size());
    EXPECT_LT(result.count, data.size());
    EXPECT_EQ(taken, data.substr(0, 100000));
}

TEST(FullTransfer, FileKeepsEveryByte) {
    const TempFolder folder;
    const std::string data = pattern(3000001);
    const int file = open((folder / "file").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    const Result written = writeFull(file, data);
    EXPECT_EQ(written.value, 0);
    EXPECT_EQ(written.count, data.size());
    lseek(file, 0, SEEK_SET);
    const Result read = readFull(file, data.size() + 1);
    close(file);
    EXPECT_EQ(read.value, 0);
    EXPECT_EQ(read.count, data.size());
    EXPECT_EQ(read.bytes, data);
}

// --- Signals

std::atomic<long> gs_nSignals{0};

// SignalStorm sends this process a signal every 200 microseconds, which interrupts what it hits.
class SignalStorm {
public:
    SignalStorm() {
        struct sigaction action {};
        action.sa_handler = [](int) { gs_nSignals++; };
        sigaction(SIGALRM, &action, &m_oBefore);
        setTimer(200);
    }
    ~SignalStorm() {
        setTimer(0);
        sigaction(SIGALRM, &m_oBefore, nullptr);
    }
    SignalStorm(const SignalStorm&) = delete;
    SignalStorm& operator=(const SignalStorm&) = delete;

    // keepOut keeps the signals off the calling thread.
    static void keepOut() {
        sigset_t signals;
        sigemptyset(&signals);
        sigaddset(&signals, SIGALRM);
        pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    }

    // waitForSignals waits until `count` more signals have come; false if they don't.
    static bool waitForSignals(long count) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        const long goal = gs_nSignals + count;
        while (gs_nSignals < goal) {
            if (std::chrono::steady_clock::now() > deadline)
                return false;
            std::this_thread::yield();
        }
        return true;
    }

private:
    static void setTimer(long microseconds) {
        const itimerval timer{{0, microseconds}, {0, microseconds}};
        setitimer(ITIMER_REAL, &timer, nullptr);
    }

    struct sigaction m_oBefore {};
};

TEST(FullTransfer, StormOfSignalsLosesAndDoublesNothingWritten) {
    Pipe pipe;
    const std::string data = pattern(2U << 20);
    std::string taken;
    std::thread reader([&] {
        SignalStorm::keepOut();
        while (taken.size() < data.size() && SignalStorm::waitForSignals(2))
            taken += readFull(pipe.readEnd, std::min<unsigned long>(60001, data.size() - taken.size())).bytes;
    });
    Result result{};
    {
        const SignalStorm storm;
        result = writeFull(pipe.writeEnd, data);
        reader.join();
    }
    EXPECT_EQ(result.value, 0);
    EXPECT_EQ(result.count, data.size());
    EXPECT_TRUE(taken == data);
}

TEST(FullTransfer, StormOfSignalsLosesAndDoublesNothingRead) {
    Pipe pipe;
    const std::string data = pattern(2U << 20);
    std::thread writer([&] {
        SignalStorm::keepOut();
        for (size_t sent = 0; sent < data.size() && SignalStorm::waitForSignals(2);) {
            const std::string part = data.substr(sent, 60001);
            EXPECT_EQ(writeFull(pipe.writeEnd, part).value, 0);
            sent += part.size();
        }
    });
    Result result{};
    {
        const SignalStorm storm;
        result = readFull(pipe.readEnd, data.size());
        writer.join();
    }
    EXPECT_EQ(result.value, 0);
    EXPECT_EQ(result.count, data.size());
    EXPECT_TRUE(result.bytes == data);
}

}  // namespace
