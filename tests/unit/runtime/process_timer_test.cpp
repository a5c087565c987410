// process_timer_test.cpp: the sums of CPU time, on a clock that the tests set.
//
// This file replaces getrusage for its test program.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cerrno>
#include <cstdint>
#include <vector>

#include "runtime/process_timer.h"

namespace {

// Usage is what getrusage returns, in seconds and microseconds, when it is in use.
struct Usage {
    bool inUse = false;
    bool fails = false;
    timeval user{};
    timeval system{};
    std::vector<int> asked;
};

Usage gs_oUsage;

}  // namespace

extern "C" int getrusage(int who, rusage* usage) noexcept {
    if (!gs_oUsage.inUse)
        return reinterpret_cast<decltype(getrusage)*>(dlsym(RTLD_NEXT, "getrusage"))(who, usage);
    gs_oUsage.asked.push_back(who);
    *usage = {};
    usage->ru_utime = gs_oUsage.user;
    usage->ru_stime = gs_oUsage.system;
    errno = EFAULT;
    return gs_oUsage.fails ? -1 : 0;
}

namespace {

// ProcessTimerTest sets the CPU times that the timer sees.
class ProcessTimerTest : public testing::Test {
protected:
    ProcessTimerTest() {
        gs_oUsage = {};
        gs_oUsage.inUse = true;
    }
    ~ProcessTimerTest() override { gs_oUsage = {}; }

    static void setTimes(const timeval& user, const timeval& system) {
        gs_oUsage.user = user;
        gs_oUsage.system = system;
    }
};

TEST_F(ProcessTimerTest, StartsAtZero) {
    EXPECT_EQ(ProcessTimer().elapsedMicroseconds(), 0);
    EXPECT_TRUE(gs_oUsage.asked.empty());
}

TEST_F(ProcessTimerTest, StopAddsUserAndSystemTime) {
    ProcessTimer timer;
    setTimes({1, 100}, {2, 200});
    timer.start(true);
    EXPECT_EQ(timer.elapsedMicroseconds(), 0);
    setTimes({4, 103}, {7, 205});
    timer.stop();
    EXPECT_EQ(timer.elapsedMicroseconds(), 3000003 + 5000005);
}

TEST_F(ProcessTimerTest, EveryCallSamplesTheWholeProcessOnce) {
    ProcessTimer timer;
    timer.start(true);
    timer.start(false);
    timer.stop();
    timer.restart();
    EXPECT_EQ(gs_oUsage.asked, std::vector<int>(4, RUSAGE_SELF));
}

// Span is a start and an end of user time and what is between.
struct Span {
    timeval start;
    timeval end;
    int64_t microseconds;
};

const Span SPANS[] = {
    {{0, 0}, {0, 0}, 0},
    {{0, 0}, {0, 1}, 1},
    {{0, 999999}, {1, 0}, 1},
    {{1, 999999}, {3, 1}, 1000002},
    {{0, 0}, {2147, 483648}, 2147483648},
    {{0, 0}, {4294, 967296}, 4294967296},
    {{5000000000, 7}, {5000000001, 8}, 1000001},
    {{0, 0}, {9000000000000, 0}, 9000000000000000000},
};

TEST_F(ProcessTimerTest, MicrosecondsCarryAndLongTimesFit) {
    for (const Span& span : SPANS) {
        for (const bool inUser : {true, false}) {
            ProcessTimer timer;
            inUser ? setTimes(span.start, {0, 5}) : setTimes({0, 5}, span.start);
            timer.start(true);
            inUser ? setTimes(span.end, {0, 5}) : setTimes({0, 5}, span.end);
            timer.stop();
            EXPECT_EQ(timer.elapsedMicroseconds(), span.microseconds);
        }
    }
}

TEST_F(ProcessTimerTest, SecondStopAddsTheTimeSinceTheStartAgain) {
    ProcessTimer timer;
    setTimes({10, 0}, {0, 0});
    timer.start(true);
    setTimes({10, 5}, {0, 0});
    timer.stop();
    timer.stop();
    EXPECT_EQ(timer.elapsedMicroseconds(), 10);
    setTimes({10, 7}, {0, 1});
    timer.stop();
    EXPECT_EQ(timer.elapsedMicroseconds(), 18);
}

TEST_F(ProcessTimerTest, StartKeepsOrClearsTheTime) {
    ProcessTimer timer;
    timer.start(true);
    setTimes({0, 5}, {0, 0});
    timer.stop();
    setTimes({0, 100}, {0, 100});
    timer.start(false);
    EXPECT_EQ(timer.elapsedMicroseconds(), 5);
    setTimes({0, 101}, {0, 101});
    timer.stop();
    EXPECT_EQ(timer.elapsedMicroseconds(), 7);
    timer.start(true);
    EXPECT_EQ(timer.elapsedMicroseconds(), 0);
    timer.stop();
    EXPECT_EQ(timer.elapsedMicroseconds(), 0);
}

TEST_F(ProcessTimerTest, RestartReplacesTheTimeAndStartsAgain) {
    ProcessTimer timer;
    timer.start(true);
    setTimes({0, 5}, {0, 0});
    timer.stop();
    timer.stop();
    setTimes({0, 6}, {0, 1});
    timer.restart();
    EXPECT_EQ(timer.elapsedMicroseconds(), 7);
    setTimes({0, 6}, {0, 3});
    timer.restart();
    EXPECT_EQ(timer.elapsedMicroseconds(), 2);
    timer.stop();
    EXPECT_EQ(timer.elapsedMicroseconds(), 2);
}

TEST_F(ProcessTimerTest, StopWithoutAStartCountsFromZero) {
    ProcessTimer timer;
    setTimes({1, 1}, {1, 1});
    timer.stop();
    EXPECT_EQ(timer.elapsedMicroseconds(), 2000002);
}

TEST_F(ProcessTimerTest, FailedSamplingChangesNothing) {
    ProcessTimer timer;
    setTimes({0, 10}, {0, 0});
    timer.start(true);
    setTimes({0, 15}, {0, 0});
    timer.stop();
    gs_oUsage.fails = true;
    setTimes({0, 1000}, {0, 1000});
    timer.stop();
    timer.restart();
    timer.start(false);
    EXPECT_EQ(timer.elapsedMicroseconds(), 5);
    gs_oUsage.fails = false;
    setTimes({0, 17}, {0, 0});
    timer.stop();
    EXPECT_EQ(timer.elapsedMicroseconds(), 5 + 7);
}

TEST_F(ProcessTimerTest, FailedStartStillClearsTheTimeIfAsked) {
    ProcessTimer timer;
    setTimes({0, 10}, {0, 0});
    timer.start(true);
    setTimes({0, 15}, {0, 0});
    timer.stop();
    gs_oUsage.fails = true;
    setTimes({0, 1000}, {0, 0});
    timer.start(true);
    EXPECT_EQ(timer.elapsedMicroseconds(), 0);
    gs_oUsage.fails = false;
    setTimes({0, 16}, {0, 0});
    timer.stop();
    EXPECT_EQ(timer.elapsedMicroseconds(), 6);
}

int64_t cpuTime() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * int64_t{1000000} + usage.ru_utime.tv_usec +
           usage.ru_stime.tv_usec;
}

TEST(ProcessTimerOnTheSystem, MeasuresTheCpuTimeUsed) {
    ProcessTimer timer;
    const int64_t outerBegin = cpuTime();
    timer.start(true);
    const int64_t innerBegin = cpuTime();
    while (cpuTime() < innerBegin + 30000)
        ;
    const int64_t innerEnd = cpuTime();
    timer.stop();
    const int64_t outerEnd = cpuTime();
    EXPECT_GE(timer.elapsedMicroseconds(), innerEnd - innerBegin);
    EXPECT_LE(timer.elapsedMicroseconds(), outerEnd - outerBegin);
}

}  // namespace
