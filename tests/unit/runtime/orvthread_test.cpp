// orvthread_test.cpp: the life of a worker thread, its priority and its records, and the counting read/write lock.
//
// This file replaces the calls that make a thread, schedule it and read the clock for its test program, so that they
// fail, wait or keep books as a test says. Otherwise they are libc's own.

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <csignal>
#include <ctime>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "foundation/strfmt.h"
#include "runtime/orv_error.h"
#include "runtime/orvthread.h"
#include "unit/child_status.h"
#include "unit/record_collector.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

constexpr std::chrono::seconds LIMIT{60};

// Gate is closed until someone opens it.
class Gate {
public:
    void open() { m_oPromise.set_value(); }
    bool wait() const { return m_oFuture.wait_for(LIMIT) == std::future_status::ready; }

private:
    std::promise<void> m_oPromise;
    std::shared_future<void> m_oFuture = m_oPromise.get_future().share();
};

// Creation is what pthread_create is to do: fail, or hold the new threads back until a gate opens.
struct Creation {
    int error = 0;
    const Gate* gate = nullptr;
};

Creation gs_oCreation;

// Scheduler takes the place of the system's scheduling of all threads while it is in use.
struct Scheduler {
    bool inUse = false;
    int policy = SCHED_OTHER;
    int priority = 0;
    int minimum = 0;
    int maximum = 0;
    int getResult = 0;
    int setResult = 0;
    Lines calls;
};

Scheduler gs_oScheduler;

// gs_nClockShift is the number of seconds that the wall clock was set forward by, from the reading on that follows
// `gs_nTrueReadings` true ones.
std::atomic<time_t> gs_nClockShift{0};
std::atomic<int> gs_nTrueReadings{0};

template <class Function>
Function* realCall(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

// HeldThread is a thread's body that starts once the gate is open.
struct HeldThread {
    const Gate* gate;
    void* (*body)(void*);
    void* argument;
};

void* runHeld(void* pointer) {
    const std::unique_ptr<HeldThread> held(static_cast<HeldThread*>(pointer));
    held->gate->wait();
    return held->body(held->argument);
}

int limitOf(const char* name, int policy, int value) {
    gs_oScheduler.calls.push_back(strfmt("%s %d", name, policy));
    return value;
}

int schedule(const std::string& call, int policy, int priority) {
    gs_oScheduler.calls.push_back(call);
    if (gs_oScheduler.setResult == 0) {
        gs_oScheduler.policy = policy;
        gs_oScheduler.priority = priority;
    }
    return gs_oScheduler.setResult;
}

}  // namespace

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                              void* argument) noexcept {
    if (gs_oCreation.error != 0)
        return gs_oCreation.error;
    const auto create = realCall<decltype(pthread_create)>("pthread_create");
    if (!gs_oCreation.gate)
        return create(thread, attributes, body, argument);
    return create(thread, attributes, runHeld, new HeldThread{gs_oCreation.gate, body, argument});
}

extern "C" int pthread_getschedparam(pthread_t thread, int* policy, sched_param* parameters) noexcept {
    if (!gs_oScheduler.inUse)
        return realCall<decltype(pthread_getschedparam)>("pthread_getschedparam")(thread, policy, parameters);
    if (gs_oScheduler.getResult == 0) {
        *policy = gs_oScheduler.policy;
        parameters->sched_priority = gs_oScheduler.priority;
    }
    return gs_oScheduler.getResult;
}

extern "C" int pthread_setschedparam(pthread_t thread, int policy, const sched_param* parameters) noexcept {
    if (!gs_oScheduler.inUse)
        return realCall<decltype(pthread_setschedparam)>("pthread_setschedparam")(thread, policy, parameters);
    return schedule(strfmt("param %d %d", policy, parameters->sched_priority), policy, parameters->sched_priority);
}

extern "C" int pthread_setschedprio(pthread_t thread, int priority) noexcept {
    if (!gs_oScheduler.inUse)
        return realCall<decltype(pthread_setschedprio)>("pthread_setschedprio")(thread, priority);
    return schedule(strfmt("prio %d", priority), gs_oScheduler.policy, priority);
}

extern "C" int sched_get_priority_min(int policy) noexcept {
    if (!gs_oScheduler.inUse)
        return realCall<decltype(sched_get_priority_min)>("sched_get_priority_min")(policy);
    return limitOf("min", policy, gs_oScheduler.minimum);
}

extern "C" int sched_get_priority_max(int policy) noexcept {
    if (!gs_oScheduler.inUse)
        return realCall<decltype(sched_get_priority_max)>("sched_get_priority_max")(policy);
    return limitOf("max", policy, gs_oScheduler.maximum);
}

extern "C" int clock_gettime(clockid_t clock, timespec* time) noexcept {
    const long result = syscall(SYS_clock_gettime, clock, time);
    if (result == 0 && clock == CLOCK_REALTIME && gs_nClockShift != 0 && gs_nTrueReadings-- <= 0)
        time->tv_sec += gs_nClockShift;
    return static_cast<int>(result);
}

namespace {

// wasToldOf waits on a condition and returns whether a notification found `predicate` true. What the last look finds
// when the time has run out doesn't count, as no notification came with it.
template <class Predicate>
bool wasToldOf(std::condition_variable& condition, std::unique_lock<std::mutex>& lock, Predicate predicate) {
    const auto deadline = std::chrono::steady_clock::now() + LIMIT;
    return condition.wait_until(lock, deadline, predicate) && std::chrono::steady_clock::now() < deadline;
}

// Worker is a thread whose body is a function; without one it waits for the stop.
class Worker : public ORVThread {
public:
    using Body = std::function<void(Worker&)>;

    explicit Worker(const std::string& name, Body body = &Worker::waitForStop)
        : ORVThread(name), m_fBody(std::move(body)) {}
    ~Worker() override {
        try {
            stop();
        } catch (const ORVError&) {
            m_fOnDetachedEnd();
        }
    }

    // onDetachedEnd sets what the destructor of a detached worker does.
    void onDetachedEnd(std::function<void()> function) { m_fOnDetachedEnd = std::move(function); }

    State state() {
        const std::lock_guard lock(m_oMutex);
        return m_eState;
    }

    bool waitFor(State state) {
        std::unique_lock lock(m_oMutex);
        return wasToldOf(m_oCondition, lock, [=, this] { return m_eState == state; });
    }

    // wakeWaiters notifies without a change of state.
    void wakeWaiters() { m_oCondition.notify_all(); }

    void waitForStop() {
        std::unique_lock lock(m_oMutex);
        m_oCondition.wait_for(lock, LIMIT, [this] { return m_eState != Running; });
    }

    void stopUnderLock() {
        const std::lock_guard lock(m_oMutex);
        stopNoWaitLocked();
    }

    bool changePriorityUnderLock(Priority priority) {
        const std::lock_guard lock(m_oMutex);
        return changePriorityLocked(priority);
    }

    bool goesOn() { return isRunning(); }

private:
    void run() override { m_fBody(*this); }

    Body m_fBody;
    std::function<void()> m_fOnDetachedEnd = [] {};
};

// UseCreation sets what pthread_create does, until its end.
struct UseCreation {
    explicit UseCreation(const Creation& creation) { gs_oCreation = creation; }
    UseCreation(const UseCreation&) = delete;
    UseCreation& operator=(const UseCreation&) = delete;
    ~UseCreation() { gs_oCreation = {}; }
};

// UseClock sets the wall clock forward (a negative number of seconds: back) after a number of true readings, until its
// end.
struct UseClock {
    explicit UseClock(time_t shift, int trueReadings = 0) {
        gs_nTrueReadings = trueReadings;
        gs_nClockShift = shift;
    }
    UseClock(const UseClock&) = delete;
    UseClock& operator=(const UseClock&) = delete;
    ~UseClock() { gs_nClockShift = 0; }
};

// UseScheduler puts a scheduler in place of the system's, until its end. Threads are started before and joined after
// it, or see it only under their mutex.
struct UseScheduler {
    explicit UseScheduler(const Scheduler& scheduler) {
        gs_oScheduler = scheduler;
        gs_oScheduler.inUse = true;
    }
    UseScheduler(const UseScheduler&) = delete;
    UseScheduler& operator=(const UseScheduler&) = delete;
    ~UseScheduler() { gs_oScheduler = {}; }
};

std::string idText(std::thread::id id) {
    std::ostringstream text;
    text << id;
    return text.str();
}

std::string life(const std::string& id, const std::string& name, const std::string& what) {
    return "DEBUG Thread id '" + id + "' aka '" + name + "' " + what;
}

// expectInvalidState expects an ORVError for a call in the wrong state.
template <class Call>
void expectInvalidState(Call call, const std::string& detail) {
    try {
        call();
        FAIL() << "no exception, expected: " << detail;
    } catch (const ORVError& error) {
        EXPECT_EQ(static_cast<int>(error.getCode()), 50);
        EXPECT_EQ(error.what(), "The operation cannot be executed in the current state : " + detail);
    }
}

template <class Body>
void expectAbort(Body body) {
    const int status = childStatus(body);
    EXPECT_TRUE(WIFSIGNALED(status)) << status;
    EXPECT_EQ(WTERMSIG(status), SIGABRT);
}

// isAsleep returns whether the kernel has the thread `tid` wait for something.
bool isAsleep(pid_t tid) {
    const std::string stat = TempFolder::contentOf(strfmt("/proc/self/task/%d/stat", tid));
    const size_t end = stat.rfind(") ");
    return end != std::string::npos && stat.compare(end, 3, ") S") == 0;
}

// Attempt makes a call on a thread of its own and returns whether it has come back.
class Attempt {
public:
    explicit Attempt(std::function<void()> call)
        : m_oDone(m_oPromise.get_future()), m_oThread([this, done = std::move(call)] {
              m_nTid = static_cast<pid_t>(syscall(SYS_gettid));
              done();
              m_oPromise.set_value();
          }) {}
    ~Attempt() { m_oThread.join(); }
    Attempt(const Attempt&) = delete;
    Attempt& operator=(const Attempt&) = delete;

    bool comesBack() { return m_oDone.wait_for(LIMIT) == std::future_status::ready; }

    // comesBackFrom repeats `push` until the call has come back, as a first push may come too early to count.
    bool comesBackFrom(const std::function<void()>& push) {
        const auto deadline = std::chrono::steady_clock::now() + LIMIT;
        while (!isDone()) {
            if (std::chrono::steady_clock::now() > deadline)
                return false;
            push();
            std::this_thread::yield();
        }
        return true;
    }

    // waits returns whether the call came to a wait in place of coming back.
    bool waits() {
        const auto deadline = std::chrono::steady_clock::now() + LIMIT;
        while (m_nTid == 0 || !isAsleep(m_nTid)) {
            if (isDone() || std::chrono::steady_clock::now() > deadline)
                return false;
            std::this_thread::yield();
        }
        return !isDone();
    }

private:
    bool isDone() { return m_oDone.wait_for(std::chrono::seconds(0)) == std::future_status::ready; }

    std::atomic<pid_t> m_nTid{0};
    std::promise<void> m_oPromise;
    std::future<void> m_oDone;
    std::thread m_oThread;
};

// --- Names and values

TEST(ORVThreadValues, OfStatesAndPrioritiesAreFixed) {
    EXPECT_EQ(ORVThread::Starting, 0);
    EXPECT_EQ(ORVThread::Running, 1);
    EXPECT_EQ(ORVThread::Stopping, 2);
    EXPECT_EQ(ORVThread::Ended, 3);
    EXPECT_EQ(ORVThread::Idle, 4);
    EXPECT_EQ(ORVThread::Lowest, 0);
    EXPECT_EQ(ORVThread::Highest, 4);
    EXPECT_EQ(ORVThread::Fifo, 5);
    EXPECT_EQ(sizeof(ORVThread::State), 4U);
    EXPECT_EQ(sizeof(ORVThread::Priority), 4U);
}

TEST(ORVThreadValues, LoggerNameIsOneConstant) {
    EXPECT_EQ(ORVThread::loggerName(), "orv.utils.thread");
    EXPECT_EQ(&ORVThread::loggerName(), &ORVThread::loggerName());
}

std::string ownKernelName() {
    const std::string line = TempFolder::contentOf("/proc/thread-self/comm");
    return line.empty() ? "no name" : line.substr(0, line.size() - 1);
}

TEST(ThreadName, KernelKeepsTheFirst15Bytes) {
    const std::string names[] = {
        "", "a", "14 bytes long ", "15 bytes long  ", "16 bytes long   ", std::string(300, 'n')};
    for (const std::string& name : names) {
        RecordCollector collector("orv.utils.thread");
        std::string seen = "none";
        std::string id;
        Worker worker(name, [&](Worker&) {
            seen = ownKernelName();
            id = idText(std::this_thread::get_id());
        });
        worker.start();
        worker.join();
        EXPECT_EQ(seen, name.substr(0, 15));
        EXPECT_THAT(collector.lines(), UnorderedElementsAre(life(id, name, "started"), life(id, name, "stopped")));
    }
}

TEST(ThreadName, CutGoesThroughACharacter) {
    std::string seen;
    Worker worker("14 bytes long \xC3\xBC", [&](Worker&) { seen = ownKernelName(); });
    worker.start();
    worker.join();
    EXPECT_EQ(seen, "14 bytes long \xC3");
}

TEST(ThreadName, IsSetForAnyRunningThread) {
    Gate named;
    std::string seen;
    std::thread thread([&] {
        named.wait();
        seen = ownKernelName();
    });
    setThreadName(thread, "a thread with a long name");
    named.open();
    thread.join();
    EXPECT_EQ(seen, "a thread with a");
}

TEST(ThreadName, ThreadObjectWithoutAThreadIsLeftAlone) {
    const std::string before = ownKernelName();
    std::thread none;
    setThreadName(none, "none");
    EXPECT_FALSE(none.joinable());
    EXPECT_EQ(ownKernelName(), before);
}

// --- Life

TEST(ORVThreadLife, NothingStartsUntilStart) {
    RecordCollector collector;
    std::atomic<int> runs = 0;
    {
        Worker worker("idle", [&](Worker&) { runs++; });
        EXPECT_EQ(worker.state(), ORVThread::Idle);
        EXPECT_FALSE(worker.goesOn());
    }
    EXPECT_EQ(runs, 0);
    EXPECT_THAT(collector.lines(), IsEmpty());
}

TEST(ORVThreadLife, GoesThroughItsStates) {
    Gate hold;
    Gate finish;
    Worker worker("states", [&](Worker& self) {
        self.waitForStop();
        finish.wait();
    });
    {
        const UseCreation creation({0, &hold});
        worker.start();
    }
    EXPECT_EQ(worker.state(), ORVThread::Starting);
    hold.open();
    EXPECT_TRUE(worker.waitFor(ORVThread::Running));
    EXPECT_TRUE(worker.goesOn());
    worker.stopNoWait();
    EXPECT_EQ(worker.state(), ORVThread::Stopping);
    EXPECT_FALSE(worker.goesOn());
    worker.stopNoWait();
    EXPECT_EQ(worker.state(), ORVThread::Stopping);
    finish.open();
    EXPECT_TRUE(worker.waitFor(ORVThread::Ended));
    worker.stopNoWait();
    EXPECT_EQ(worker.state(), ORVThread::Ended);
    worker.join();
    EXPECT_EQ(worker.state(), ORVThread::Idle);
}

TEST(ORVThreadLife, RunIsOnAThreadOfItsOwnAndOutsideTheMutex) {
    std::thread::id id;
    Worker worker("own", [&](Worker& self) {
        id = std::this_thread::get_id();
        EXPECT_EQ(self.state(), ORVThread::Running);
    });
    worker.start();
    worker.join();
    EXPECT_NE(id, std::this_thread::get_id());
    EXPECT_NE(id, std::thread::id());
}

TEST(ORVThreadLife, EndWakesWaiters) {
    Gate finish;
    Worker worker("awaited", [&](Worker&) { finish.wait(); });
    worker.start();
    ASSERT_TRUE(worker.waitFor(ORVThread::Running));
    bool told = false;
    Attempt waiter([&] { told = worker.waitFor(ORVThread::Ended); });
    EXPECT_TRUE(waiter.waits());
    finish.open();
    EXPECT_TRUE(waiter.comesBack());
    EXPECT_TRUE(told);
}

TEST(ORVThreadLife, StopsUnderTheMutexTakeTheSameSteps) {
    Worker worker("locked");
    worker.stopUnderLock();
    EXPECT_EQ(worker.state(), ORVThread::Idle);
    worker.start();
    ASSERT_TRUE(worker.waitFor(ORVThread::Running));
    worker.stopUnderLock();
    ASSERT_TRUE(worker.waitFor(ORVThread::Ended));
    worker.stopUnderLock();
    EXPECT_EQ(worker.state(), ORVThread::Ended);
    worker.join();
}

TEST(ORVThreadLife, StopOfAThreadNeverStartedDoesNothing) {
    RecordCollector collector;
    Worker worker("never");
    worker.stopNoWait();
    EXPECT_EQ(worker.state(), ORVThread::Idle);
    worker.join();
    worker.stop();
    EXPECT_EQ(worker.state(), ORVThread::Idle);
    EXPECT_THAT(collector.lines(), IsEmpty());
}

TEST(ORVThreadLife, StopThatOvertakesTheStartWins) {
    RecordCollector collector("orv.utils.thread");
    Gate hold;
    std::atomic<int> runs = 0;
    Worker worker("overtaken", [&](Worker&) { runs++; });
    {
        const UseCreation creation({0, &hold});
        worker.start();
    }
    worker.stopNoWait();
    EXPECT_EQ(worker.state(), ORVThread::Stopping);
    hold.open();
    ASSERT_TRUE(worker.waitFor(ORVThread::Ended));
    worker.join();
    EXPECT_EQ(worker.state(), ORVThread::Idle);
    EXPECT_EQ(runs, 0);
    EXPECT_EQ(collector.lines().size(), 2U);
}

TEST(ORVThreadLife, StopRightAfterStartNeverHangs) {
    for (int i = 0; i < 100; i++) {
        Worker worker("quick");
        worker.start();
        worker.stop();
        EXPECT_EQ(worker.state(), ORVThread::Idle);
    }
}

TEST(ORVThreadLife, JoinedThreadStartsAgain) {
    RecordCollector collector("orv.utils.thread");
    std::vector<std::string> ids;
    Worker worker("again", [&](Worker& self) {
        ids.push_back(idText(std::this_thread::get_id()));
        self.waitForStop();
    });
    for (int i = 0; i < 3; i++) {
        worker.start();
        ASSERT_TRUE(worker.waitFor(ORVThread::Running));
        worker.stop();
        EXPECT_EQ(worker.state(), ORVThread::Idle);
    }
    ASSERT_EQ(ids.size(), 3U);
    EXPECT_THAT(collector.lines(), ElementsAre(life(ids[0], "again", "started"), life(ids[0], "again", "stopped"),
                                               life(ids[1], "again", "started"), life(ids[1], "again", "stopped"),
                                               life(ids[2], "again", "started"), life(ids[2], "again", "stopped")));
}

TEST(ORVThreadLife, StartIsRefusedUnlessIdle) {
    Gate hold;
    Gate finish;
    Worker worker("busy %s", [&](Worker& self) {
        self.waitForStop();
        finish.wait();
    });
    const auto expectRefusal = [&](ORVThread::State state) {
        ASSERT_TRUE(worker.waitFor(state));
        expectInvalidState([&] { worker.start(); }, "Thread 'busy %s' is already running");
        EXPECT_EQ(worker.state(), state);
    };
    {
        const UseCreation creation({0, &hold});
        worker.start();
    }
    expectRefusal(ORVThread::Starting);
    hold.open();
    expectRefusal(ORVThread::Running);
    worker.stopNoWait();
    expectRefusal(ORVThread::Stopping);
    finish.open();
    expectRefusal(ORVThread::Ended);
    worker.join();
}

TEST(ORVThreadLife, NoRecordsWithoutDebugLevel) {
    RecordCollector collector;
    const log4cxx::LoggerPtr logger = orvlog::getLogger(ORVThread::loggerName());
    logger->setLevel(log4cxx::Level::getInfo());
    Worker worker("quiet");
    EXPECT_TRUE(worker.setPriority(ORVThread::Normal));
    worker.start();
    worker.stop();
    logger->setLevel(nullptr);
    EXPECT_THAT(collector.lines(), IsEmpty());
}

TEST(ORVThreadLife, ExceptionOutOfRunEndsTheProcess) {
    expectAbort([] {
        Worker worker("thrower", [](Worker&) { throw std::runtime_error("out"); });
        worker.start();
        worker.join();
    });
}

TEST(ORVThreadStart, WakesWaitersBeforeTheThreadRuns) {
    Gate hold;
    Worker worker("awaited");
    bool told = false;
    Attempt waiter([&] { told = worker.waitFor(ORVThread::Starting); });
    EXPECT_TRUE(waiter.waits());
    {
        const UseCreation creation({0, &hold});
        worker.start();
    }
    EXPECT_TRUE(waiter.comesBack());
    EXPECT_TRUE(told);
    hold.open();
    worker.stop();
}

// --- Start that fails

TEST(ORVThreadStart, FailureIsReportedAndRethrown) {
    RecordCollector collector("orv.utils.thread");
    Worker worker("a thread with a long name");
    {
        const UseCreation creation({EAGAIN, nullptr});
        try {
            worker.start();
            FAIL() << "started";
        } catch (const std::system_error& error) {
            EXPECT_EQ(error.code(), std::errc::resource_unavailable_try_again);
            EXPECT_THAT(
                collector.lines(),
                ElementsAre(std::string("ERROR Thread 'a thread with a long name' not started: ") + error.what()));
        }
    }
    EXPECT_EQ(worker.state(), ORVThread::Idle);
    EXPECT_TRUE(worker.waitForStart(0));
    worker.stop();
    EXPECT_EQ(worker.state(), ORVThread::Idle);
}

TEST(ORVThreadStart, WorksAfterAFailure) {
    Worker worker("second try");
    {
        const UseCreation creation({EAGAIN, nullptr});
        EXPECT_THROW(worker.start(), std::system_error);
        EXPECT_THROW(worker.start(), std::system_error);
    }
    worker.start();
    EXPECT_TRUE(worker.waitFor(ORVThread::Running));
    worker.stop();
    EXPECT_EQ(worker.state(), ORVThread::Idle);
}

TEST(ORVThreadStart, FailureWakesWaiters) {
    for (int i = 0; i < 50; i++) {
        Worker worker("awaited");
        std::atomic<bool> over = false;
        std::thread waiter([&] {
            while (!over)
                worker.waitForStart(0);
        });
        {
            const UseCreation creation({EAGAIN, nullptr});
            EXPECT_THROW(worker.start(), std::system_error);
        }
        over = true;
        waiter.join();
    }
}

TEST(ORVThreadStart, FailureIsReportedWhileStartingAndThenWakesWaiters) {
    Worker worker("awaited");
    std::optional<Attempt> waiter;
    const auto onRecord = [&](const Record& record) {
        gs_oCreation = {};
        EXPECT_EQ(record.level, "ERROR");
        EXPECT_EQ(worker.state(), ORVThread::Starting);
        waiter.emplace([&] { worker.waitForStart(0); });
        EXPECT_TRUE(waiter->waits());
    };
    const log4cxx::LoggerPtr root = RecordCollector::useAlone(std::make_shared<TestAppender>(onRecord));
    {
        const UseCreation creation({EAGAIN, nullptr});
        EXPECT_THROW(worker.start(), std::system_error);
    }
    root->removeAllAppenders();
    ASSERT_TRUE(waiter);
    EXPECT_TRUE(waiter->comesBack());
    worker.wakeWaiters();
}

// --- waitForStart

TEST(WaitForStart, ReturnsAtOnceUnlessStarting) {
    Worker worker("not starting");
    EXPECT_TRUE(worker.waitForStart(0));
    worker.start();
    ASSERT_TRUE(worker.waitFor(ORVThread::Running));
    EXPECT_TRUE(worker.waitForStart(0));
    worker.stopNoWait();
    EXPECT_TRUE(worker.waitForStart(-1));
    ASSERT_TRUE(worker.waitFor(ORVThread::Ended));
    EXPECT_TRUE(worker.waitForStart(0));
    worker.join();
}

TEST(WaitForStart, TimeoutIsInMicroseconds) {
    Gate hold;
    Worker worker("held");
    {
        const UseCreation creation({0, &hold});
        worker.start();
    }
    for (const long timeout : {1L, 20000L}) {
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_FALSE(worker.waitForStart(timeout));
        const auto took = std::chrono::steady_clock::now() - begin;
        EXPECT_GE(took, std::chrono::microseconds(timeout));
        EXPECT_LT(took, std::chrono::seconds(10));
    }
    EXPECT_EQ(worker.state(), ORVThread::Starting);
    hold.open();
    worker.stop();
}

TEST(WaitForStart, StartEndsTheWait) {
    for (const long timeout : {0L, -1L, LONG_MIN, 60000000L, LONG_MAX}) {
        Gate hold;
        Worker worker("held");
        {
            const UseCreation creation({0, &hold});
            worker.start();
        }
        bool result = false;
        Attempt attempt([&] { result = worker.waitForStart(timeout); });
        EXPECT_TRUE(attempt.waits()) << timeout;
        hold.open();
        EXPECT_TRUE(attempt.comesBack()) << timeout;
        EXPECT_TRUE(result) << timeout;
        worker.stop();
    }
}

TEST(WaitForStart, AnyWakeUpEndsTheWait) {
    for (const long timeout : {0L, LONG_MAX}) {
        Gate hold;
        Worker worker("held");
        {
            const UseCreation creation({0, &hold});
            worker.start();
        }
        bool result = false;
        Attempt attempt([&] { result = worker.waitForStart(timeout); });
        EXPECT_TRUE(attempt.waits()) << timeout;
        EXPECT_TRUE(attempt.comesBackFrom([&] { worker.wakeWaiters(); })) << timeout;
        EXPECT_EQ(worker.state(), ORVThread::Starting) << timeout;
        hold.open();
        ASSERT_TRUE(attempt.comesBack()) << timeout;
        EXPECT_TRUE(result) << timeout;
        worker.stop();
    }
}

TEST(WaitForStart, WallClockSetForwardIsNotElapsedTime) {
    Gate hold;
    Worker worker("held");
    {
        const UseCreation creation({0, &hold});
        worker.start();
    }
    bool result = false;
    Attempt attempt([&] { result = worker.waitForStart(60000000L); });
    EXPECT_TRUE(attempt.waits());
    {
        const UseClock setForward(3600);
        EXPECT_TRUE(attempt.comesBackFrom([&] { worker.wakeWaiters(); }));
    }
    ASSERT_TRUE(attempt.comesBack());
    EXPECT_TRUE(result) << "a wake-up, an hour later by the wall clock alone";
    hold.open();
    worker.stop();
}

TEST(WaitForStart, WallClockSetBackIsNotATimeoutYet) {
    Gate hold;
    Worker worker("held");
    {
        const UseCreation creation({0, &hold});
        worker.start();
    }
    {
        const UseClock setBack(-3600, 1);  // the reading that the deadline is made of is true
        EXPECT_TRUE(worker.waitForStart(1000));
    }
    EXPECT_FALSE(worker.waitForStart(1000));
    hold.open();
    worker.stop();
}

TEST(WaitForStart, StopEndsTheWait) {
    Gate hold;
    Worker worker("held");
    {
        const UseCreation creation({0, &hold});
        worker.start();
    }
    bool result = false;
    Attempt attempt([&] { result = worker.waitForStart(0); });
    EXPECT_TRUE(attempt.waits());
    worker.stopNoWait();
    EXPECT_TRUE(attempt.comesBack());
    EXPECT_TRUE(result);
    hold.open();
    worker.join();
}

// --- detach

TEST(Detach, WithoutASystemThreadDoesNothing) {
    Worker worker("idle");
    worker.detach();
    worker.join();
    worker.start();
    worker.stop();
    worker.detach();
    worker.join();
    EXPECT_EQ(worker.state(), ORVThread::Idle);
}

TEST(Detach, ThreadDeletesItselfAtItsEnd) {
    RecordCollector collector("orv.utils.thread");
    Gate detached;
    const auto deleted = std::make_shared<Gate>();
    std::string id;
    std::thread::id deleter;
    auto* const worker = new Worker("free", [&](Worker& self) {
        id = idText(std::this_thread::get_id());
        detached.wait();
        self.detach();
        expectInvalidState([&] { self.join(); }, "Thread 'free' is detached");
        expectInvalidState([&] { self.stop(); }, "Thread 'free' is detached");
        EXPECT_EQ(self.state(), ORVThread::Stopping);
    });
    worker->onDetachedEnd([&deleter, deleted] {
        deleter = std::this_thread::get_id();
        deleted->open();
    });
    worker->start();
    worker->detach();
    detached.open();
    ASSERT_TRUE(deleted->wait());
    EXPECT_EQ(idText(deleter), id);
    EXPECT_THAT(collector.lines(),
                ElementsAre(life(id, "free", "started"),
                            testing::AnyOf(life(id, "free", "stopped"),
                                           life("thread::id of a non-executing thread", "free", "stopped"))));
}

TEST(Detach, EndedThreadIsDeletedByDetach) {
    const auto gone = std::make_shared<Gate>();
    auto* const worker = new Worker("late", [](Worker&) {});
    worker->onDetachedEnd([gone] { gone->open(); });
    worker->start();
    ASSERT_TRUE(worker->waitFor(ORVThread::Ended));
    worker->detach();
    EXPECT_TRUE(gone->wait());
}

TEST(Detach, ObjectIsDeletedOnceWhoeverComesFirst) {
    for (int i = 0; i < 200; i++) {
        const auto gone = std::make_shared<Gate>();
        auto* const worker = new Worker("race", [](Worker&) {});
        worker->onDetachedEnd([gone] { gone->open(); });
        worker->start();
        worker->detach();
        ASSERT_TRUE(gone->wait());
    }
}

// --- Destructor of the base

// Bare leaves the stop to the base: its run uses nothing of its own.
class Bare : public ORVThread {
public:
    explicit Bare(std::atomic<int>& ended) : ORVThread("bare"), m_nEnded(ended) {}

    bool waitFor(State state) {
        std::unique_lock lock(m_oMutex);
        return wasToldOf(m_oCondition, lock, [=, this] { return m_eState == state; });
    }

private:
    void run() override {
        std::atomic<int>& ended = m_nEnded;
        {
            std::unique_lock lock(m_oMutex);
            m_oEntered.set_value();
            m_oCondition.wait_for(lock, LIMIT, [this] { return m_eState != Running; });
        }
        ended++;
    }

    std::atomic<int>& m_nEnded;

public:
    std::promise<void> m_oEntered;
};

TEST(ORVThreadDestructor, StopsAndJoinsARunningThread) {
    std::atomic<int> ended = 0;
    {
        Bare bare(ended);
        bare.start();
        ASSERT_EQ(bare.m_oEntered.get_future().wait_for(LIMIT), std::future_status::ready);
    }
    EXPECT_EQ(ended, 1);
}

TEST(ORVThreadDestructor, JoinsAnEndedThread) {
    std::atomic<int> ended = 0;
    {
        Bare bare(ended);
        bare.start();
        ASSERT_EQ(bare.m_oEntered.get_future().wait_for(LIMIT), std::future_status::ready);
        bare.stopNoWait();
        ASSERT_TRUE(bare.waitFor(ORVThread::Ended));
    }
    EXPECT_EQ(ended, 1);
}

TEST(ORVThreadDestructor, ThreadThatCannotBeJoinedEndsTheProcess) {
    expectAbort([] {
        struct Suicide : ORVThread {
            Suicide() : ORVThread("suicide") {}
            void run() override { delete this; }
        };
        auto* const thread = new Suicide;
        thread->start();
        pause();
    });
}

// --- Priority

// Request is a priority asked of a live thread: what the scheduler is, what it is asked, and what comes out of it.
struct Request {
    const char* what;
    Scheduler scheduler;
    ORVThread::Priority priority;
    bool result;
    Lines calls;
    Lines records;
};

Scheduler scheduler(int policy, int priority, int minimum = 10, int maximum = 33, int getResult = 0,
                    int setResult = 0) {
    Scheduler result;
    result.policy = policy;
    result.priority = priority;
    result.minimum = minimum;
    result.maximum = maximum;
    result.getResult = getResult;
    result.setResult = setResult;
    return result;
}

const std::string UNREADABLE = "ERROR failed to retrive thread's scheduling parameters";
const std::string IGNORED = "DEBUG ignoring set priority for SCHED_OTHER thread (cannot set)";

const Request REQUESTS[] = {
    {"policy unknown", scheduler(SCHED_RR, 10, 10, 33, ESRCH), ORVThread::Low, false, {}, {UNREADABLE}},
    {"policy unknown, FIFO", scheduler(SCHED_RR, 10, 10, 33, ESRCH), ORVThread::Fifo, false, {}, {UNREADABLE}},
    {"step of other", scheduler(SCHED_OTHER, 0), ORVThread::High, true, {}, {IGNORED}},
    {"lowest of other", scheduler(SCHED_OTHER, 0), ORVThread::Lowest, true, {}, {IGNORED}},
    {"0 of 4", scheduler(SCHED_RR, 12), ORVThread::Lowest, true, {"prio 10"}, {}},
    {"1 of 4", scheduler(SCHED_RR, 12), ORVThread::Low, true, {"prio 15"}, {}},
    {"2 of 4", scheduler(SCHED_RR, 12), ORVThread::Normal, true, {"prio 21"}, {}},
    {"3 of 4", scheduler(SCHED_RR, 12), ORVThread::High, true, {"prio 27"}, {}},
    {"4 of 4", scheduler(SCHED_RR, 12), ORVThread::Highest, true, {"prio 33"}, {}},
    {"step of FIFO", scheduler(SCHED_FIFO, 12), ORVThread::Highest, true, {"prio 33"}, {}},
    {"there already", scheduler(SCHED_RR, 15), ORVThread::Low, true, {}, {}},
    {"step refused", scheduler(SCHED_RR, 12, 10, 33, 0, EPERM), ORVThread::Low, false, {"prio 15"}, {}},
    {"no minimum", scheduler(SCHED_RR, 12, -1, 33), ORVThread::Low, false, {}, {}},
    {"no maximum", scheduler(SCHED_RR, 12, 10, -1), ORVThread::Low, false, {}, {}},
    {"FIFO of other", scheduler(SCHED_OTHER, 0), ORVThread::Fifo, true, {"param 1 10"}, {}},
    {"FIFO of RR", scheduler(SCHED_RR, 10), ORVThread::Fifo, true, {"param 1 10"}, {}},
    {"FIFO of FIFO", scheduler(SCHED_FIFO, 12), ORVThread::Fifo, true, {"prio 10"}, {}},
    {"FIFO there already", scheduler(SCHED_FIFO, 10), ORVThread::Fifo, true, {}, {}},
    {"FIFO refused", scheduler(SCHED_OTHER, 0, 10, 33, 0, EPERM), ORVThread::Fifo, false, {"param 1 10"}, {}},
    {"FIFO step refused", scheduler(SCHED_FIFO, 12, 10, 33, 0, EPERM), ORVThread::Fifo, false, {"prio 10"}, {}},
    {"FIFO, no minimum", scheduler(SCHED_OTHER, 0, -1, 33), ORVThread::Fifo, false, {}, {}},
    {"FIFO, no maximum", scheduler(SCHED_OTHER, 0, 10, -1), ORVThread::Fifo, false, {}, {}},
};

// limitsAsked returns the policies whose limits were asked for, and changes the requests for a change.
Lines limitsAsked() {
    Lines result;
    for (const std::string& call : gs_oScheduler.calls)
        if (call.starts_with("m"))
            result.push_back(call);
    return result;
}

Lines changes() {
    Lines result;
    for (const std::string& call : gs_oScheduler.calls)
        if (call.starts_with("p"))
            result.push_back(call);
    return result;
}

TEST(Priority, OfALiveThreadIsAppliedWithinItsPolicy) {
    for (const Request& request : REQUESTS) {
        SCOPED_TRACE(request.what);
        Worker worker("live");
        worker.start();
        ASSERT_TRUE(worker.waitFor(ORVThread::Running));
        RecordCollector collector("orv.utils.thread");
        {
            const UseScheduler use(request.scheduler);
            EXPECT_EQ(worker.setPriority(request.priority), request.result);
            EXPECT_EQ(changes(), request.calls);
            EXPECT_EQ(collector.lines(), request.records);
            for (const std::string& call : limitsAsked())
                EXPECT_EQ(call.back(), request.priority == ORVThread::Fifo ? '1' : '0' + request.scheduler.policy);
        }
        worker.stop();
    }
}

TEST(Priority, OnceGrantedItIsNotAskedForAgainOnceRefusedItIs) {
    for (const Request& request : REQUESTS) {
        SCOPED_TRACE(request.what);
        Worker worker("live");
        worker.start();
        ASSERT_TRUE(worker.waitFor(ORVThread::Running));
        {
            const UseScheduler use(request.scheduler);
            worker.setPriority(request.priority);
            RecordCollector collector("orv.utils.thread");
            gs_oScheduler.calls.clear();
            EXPECT_EQ(worker.setPriority(request.priority), request.result);
            EXPECT_EQ(changes(), request.result ? Lines() : request.calls);
            EXPECT_EQ(collector.lines(), request.result ? Lines() : request.records);
        }
        worker.stop();
    }
}

TEST(Priority, UnderTheLockActsAlike) {
    for (const Request& request : REQUESTS) {
        SCOPED_TRACE(request.what);
        Worker worker("live");
        worker.start();
        ASSERT_TRUE(worker.waitFor(ORVThread::Running));
        {
            const UseScheduler use(request.scheduler);
            RecordCollector collector("orv.utils.thread");
            EXPECT_EQ(worker.changePriorityUnderLock(request.priority), request.result);
            EXPECT_EQ(changes(), request.calls);
            EXPECT_EQ(collector.lines(), request.records);
        }
        worker.stop();
    }
}

TEST(Priority, OfAStoppingThreadIsAppliedAtOnce) {
    Gate finish;
    Worker worker("stopping", [&](Worker&) { finish.wait(); });
    worker.start();
    ASSERT_TRUE(worker.waitFor(ORVThread::Running));
    worker.stopNoWait();
    {
        const UseScheduler use(scheduler(SCHED_RR, 10));
        EXPECT_TRUE(worker.setPriority(ORVThread::Highest));
        EXPECT_THAT(changes(), ElementsAre("prio 33"));
    }
    finish.open();
    worker.join();
}

TEST(Priority, RefusalLeavesTheOldOneRecorded) {
    Worker worker("kept");
    worker.start();
    ASSERT_TRUE(worker.waitFor(ORVThread::Running));
    {
        const UseScheduler use(scheduler(SCHED_RR, 10));
        EXPECT_TRUE(worker.setPriority(ORVThread::High));
        gs_oScheduler.setResult = EPERM;
        EXPECT_FALSE(worker.setPriority(ORVThread::Low));
        gs_oScheduler.calls.clear();
        EXPECT_TRUE(worker.setPriority(ORVThread::High));
        EXPECT_THAT(gs_oScheduler.calls, IsEmpty());
    }
    worker.stop();
}

const std::string DELAYED = "DEBUG delayed setPriority() on thread 'delayed'";

TEST(Priority, BeforeTheStartIsAppliedAsTheThreadStarts) {
    Gate hold;
    Lines seen;
    Worker worker("delayed", [&](Worker& self) {
        self.stopUnderLock();
        seen = changes();
    });
    const UseScheduler use(scheduler(SCHED_RR, 10));
    {
        RecordCollector collector("orv.utils.thread");
        EXPECT_TRUE(worker.setPriority(ORVThread::Low));
        EXPECT_TRUE(worker.setPriority(ORVThread::High));
        EXPECT_TRUE(worker.setPriority(ORVThread::High));
        EXPECT_THAT(collector.lines(), ElementsAre(DELAYED, DELAYED, DELAYED));
    }
    EXPECT_THAT(gs_oScheduler.calls, IsEmpty());
    worker.start();
    worker.join();
    EXPECT_THAT(seen, ElementsAre("prio 27"));
}

TEST(Priority, BeforeTheNextStartCanBeTakenBack) {
    Lines seen;
    Worker worker("delayed", [&](Worker& self) {
        self.stopUnderLock();
        seen = changes();
    });
    const UseScheduler use(scheduler(SCHED_RR, 10));
    EXPECT_TRUE(worker.setPriority(ORVThread::High));
    worker.start();
    worker.join();
    EXPECT_THAT(seen, ElementsAre("prio 27"));
    gs_oScheduler.calls.clear();
    EXPECT_TRUE(worker.setPriority(ORVThread::Low));
    EXPECT_TRUE(worker.setPriority(ORVThread::High));
    worker.start();
    worker.join();
    EXPECT_THAT(seen, IsEmpty());
}

TEST(Priority, WhileStartingIsDelayedToo) {
    Gate hold;
    Lines seen;
    Worker worker("delayed", [&](Worker& self) {
        self.stopUnderLock();
        seen = changes();
    });
    const UseScheduler use(scheduler(SCHED_RR, 10));
    {
        const UseCreation creation({0, &hold});
        worker.start();
    }
    {
        RecordCollector collector("orv.utils.thread");
        EXPECT_TRUE(worker.setPriority(ORVThread::High));
        EXPECT_THAT(collector.lines(), ElementsAre(DELAYED));
    }
    hold.open();
    worker.join();
    EXPECT_THAT(seen, ElementsAre("prio 27"));
}

TEST(Priority, OfAnEndedThreadIsForTheNextStart) {
    RecordCollector collector("orv.utils.thread");
    Lines seen;
    Worker worker("delayed", [&](Worker&) { seen = changes(); });
    const UseScheduler use(scheduler(SCHED_RR, 10));
    worker.start();
    ASSERT_TRUE(worker.waitFor(ORVThread::Ended));
    EXPECT_TRUE(worker.setPriority(ORVThread::High));
    worker.join();
    EXPECT_THAT(seen, IsEmpty());
    EXPECT_THAT(collector.lines(), testing::Contains(DELAYED).Times(1));
    worker.start();
    worker.join();
    EXPECT_THAT(seen, ElementsAre("prio 27"));
}

TEST(Priority, FulfilledOneIsNotAppliedAgainAtARestart) {
    Worker worker("delayed", [](Worker&) {});
    const UseScheduler use(scheduler(SCHED_RR, 10));
    worker.setPriority(ORVThread::High);
    for (int i = 0; i < 2; i++) {
        worker.start();
        worker.join();
        EXPECT_THAT(changes(), ElementsAre("prio 27"));
    }
    RecordCollector collector;
    EXPECT_TRUE(worker.setPriority(ORVThread::High));
    EXPECT_THAT(collector.lines(), IsEmpty());
}

TEST(Priority, RefusalAtTheStartKeepsNothingFromRunning) {
    bool ran = false;
    bool again = true;
    Worker worker("delayed", [&](Worker& self) {
        ran = true;
        again = self.setPriority(ORVThread::Fifo);
    });
    const UseScheduler use(scheduler(SCHED_OTHER, 0, 10, 33, 0, EPERM));
    EXPECT_TRUE(worker.setPriority(ORVThread::Fifo));
    worker.start();
    worker.join();
    EXPECT_TRUE(ran);
    EXPECT_FALSE(again);
    EXPECT_THAT(changes(), ElementsAre("param 1 10", "param 1 10"));
}

// LiveWorker is a started worker whose real scheduling can be looked at.
struct LiveWorker {
    LiveWorker()
        : worker("live", [this](Worker& self) {
              tid.set_value(static_cast<pid_t>(syscall(SYS_gettid)));
              self.waitForStop();
          }) {
        worker.start();
        id = tid.get_future().get();
    }

    int policy() const { return sched_getscheduler(id); }

    int priority() const {
        sched_param parameters{-1};
        return sched_getparam(id, &parameters) == 0 ? parameters.sched_priority : -1;
    }

    std::promise<pid_t> tid;
    pid_t id = 0;
    Worker worker;
};

void dropSchedulingRight() {
    rlimit none{0, 0};
    setrlimit(RLIMIT_RTPRIO, &none);
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2] = {};
    syscall(SYS_capset, &header, data);
}

// mayUse returns whether the system lets this process use SCHED_FIFO at a priority. It tries on a thread of its own.
bool mayUse(int priority) {
    bool may = false;
    std::thread([&] {
        sched_param parameters{priority};
        may = sched_setscheduler(0, SCHED_FIFO, &parameters) == 0;
    }).join();
    return may;
}

// The numbers of a failed check are the exit statuses of the child process.
int failedCheckWithoutRight() {
    dropSchedulingRight();
    if (mayUse(1))
        return 1;
    LiveWorker live;
    if (!live.worker.setPriority(ORVThread::High) || live.policy() != SCHED_OTHER || live.priority() != 0)
        return 2;
    if (live.worker.setPriority(ORVThread::Fifo) || live.policy() != SCHED_OTHER || live.priority() != 0)
        return 3;
    return live.worker.setPriority(ORVThread::Fifo) ? 4 : 0;
}

TEST(PriorityOfTheSystem, FifoWithoutTheRightIsRefused) {
    const int status = childStatus([] { _exit(failedCheckWithoutRight()); });
    EXPECT_EQ(status, 0) << WEXITSTATUS(status);
}

int failedFifoStep(LiveWorker& live) {
    const int priorities[] = {1, 25, 50, 74, 99};
    for (int step = ORVThread::Lowest; step <= ORVThread::Highest; step++) {
        const bool may = mayUse(priorities[step]);
        const int before = live.priority();
        if (live.worker.setPriority(static_cast<ORVThread::Priority>(step)) != may)
            return 10 + step;
        if (live.policy() != SCHED_FIFO || live.priority() != (may ? priorities[step] : before))
            return 20 + step;
    }
    return 0;
}

int failedCheckAsWeAre() {
    const bool may = mayUse(1);
    LiveWorker live;
    if (live.worker.setPriority(ORVThread::Fifo) != may)
        return 1;
    if (live.policy() != (may ? SCHED_FIFO : SCHED_OTHER) || live.priority() != (may ? 1 : 0))
        return 2;
    return may ? failedFifoStep(live) : 0;
}

// Whether the right is there is the system's matter; both ways the answer must be true.
TEST(PriorityOfTheSystem, FifoIsHadExactlyWhenTheSystemGrantsIt) {
    const int status = childStatus([] { _exit(failedCheckAsWeAre()); });
    EXPECT_EQ(status, 0) << WEXITSTATUS(status);
}

// --- ORVReadWriteLock

TEST(ReadWriteLock, AdmitsOneReaderMoreThanItsLimit) {
    for (const int limit : {1, 2, 7}) {
        ORVReadWriteLock lock(limit);
        for (int i = 0; i < limit + 1; i++)
            lock.readLock();
        Attempt oneMore([&] { lock.readLock(); });
        EXPECT_TRUE(oneMore.waits()) << limit;
        lock.unlock();
        EXPECT_TRUE(oneMore.comesBack()) << limit;
    }
}

TEST(ReadWriteLock, LimitOfZeroAndLessMeansNoBound) {
    for (const int limit : {0, -1, INT_MIN}) {
        ORVReadWriteLock lock(limit);
        for (int i = 0; i < 1000; i++)
            lock.readLock();
        for (int i = 0; i < 1000; i++)
            lock.unlock();
        lock.writeLock();
        Attempt reader([&] { lock.readLock(); });
        EXPECT_TRUE(reader.waits()) << limit;
        lock.unlock();
        EXPECT_TRUE(reader.comesBack()) << limit;
    }
}

TEST(ReadWriteLock, WriterExcludesReadersAndWriters) {
    ORVReadWriteLock lock(5);
    lock.writeLock();
    Attempt reader([&] { lock.readLock(); });
    EXPECT_TRUE(reader.waits());
    lock.unlock();
    EXPECT_TRUE(reader.comesBack());
    lock.unlock();
    lock.writeLock();
    Attempt writer([&] { lock.writeLock(); });
    EXPECT_TRUE(writer.waits());
    lock.unlock();
    EXPECT_TRUE(writer.comesBack());
}

TEST(ReadWriteLock, WriterWaitsForTheLastReader) {
    ORVReadWriteLock lock(5);
    lock.readLock();
    lock.readLock();
    Attempt writer([&] { lock.writeLock(); });
    EXPECT_TRUE(writer.waits());
    lock.unlock();
    EXPECT_TRUE(writer.waits());
    lock.unlock();
    EXPECT_TRUE(writer.comesBack());
}

TEST(ReadWriteLock, WaitingWriterHoldsNoReaderBack) {
    ORVReadWriteLock lock(5);
    lock.readLock();
    Attempt writer([&] { lock.writeLock(); });
    EXPECT_TRUE(writer.waits());
    lock.readLock();
    lock.unlock();
    EXPECT_TRUE(writer.waits());
    lock.unlock();
    EXPECT_TRUE(writer.comesBack());
}

TEST(ReadWriteLock, UnlockOfAFreeLockLeavesItFree) {
    ORVReadWriteLock lock(1);
    for (int i = 0; i < 3; i++)
        lock.unlock();
    lock.writeLock();
    lock.unlock();
    lock.unlock();
    lock.readLock();
    lock.readLock();
    Attempt third([&] { lock.readLock(); });
    EXPECT_TRUE(third.waits());
    lock.unlock();
    EXPECT_TRUE(third.comesBack());
}

TEST(ReadWriteLock, UnlockWakesAllReaders) {
    ORVReadWriteLock lock(0);
    lock.writeLock();
    Attempt first([&] { lock.readLock(); });
    Attempt second([&] { lock.readLock(); });
    EXPECT_TRUE(first.waits());
    EXPECT_TRUE(second.waits());
    lock.unlock();
    EXPECT_TRUE(first.comesBack());
    EXPECT_TRUE(second.comesBack());
}

// Guarded is what the lock guards in the test of many threads.
struct Guarded {
    ORVReadWriteLock lock{2};
    long value = 0;
    std::atomic<int> readers = 0;
    std::atomic<int> mostReaders = 0;
    std::atomic<int> torn = 0;
};

void readGuarded(Guarded& guarded) {
    guarded.lock.readLock();
    const int now = ++guarded.readers;
    int most = guarded.mostReaders;
    while (most < now && !guarded.mostReaders.compare_exchange_weak(most, now))
        ;
    const long first = guarded.value;
    std::this_thread::yield();
    if (guarded.value != first)
        guarded.torn++;
    guarded.readers--;
    guarded.lock.unlock();
}

void writeGuarded(Guarded& guarded) {
    guarded.lock.writeLock();
    if (guarded.readers != 0)
        guarded.torn++;
    guarded.value++;
    guarded.lock.unlock();
}

TEST(ReadWriteLock, ManyThreadsSeeWholeValues) {
    Guarded guarded;
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; i++)
        threads.emplace_back([&, i] {
            for (int n = 0; n < 500; n++)
                (n + i) % 4 == 0 ? writeGuarded(guarded) : readGuarded(guarded);
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(guarded.value, 8 * 125);
    EXPECT_EQ(guarded.torn, 0);
    EXPECT_LE(guarded.mostReaders, 3);
}

}  // namespace
