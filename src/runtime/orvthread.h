// orvthread.h: a base class for worker threads with a life cycle, and a counting read/write lock.
//
// Uses the standard thread facilities and the POSIX scheduling calls. Failures throw: `ORVError` for a call in the
// wrong state, std::system_error for what the system refuses.
#pragma once

#include <pthread.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

// setThreadName sets a running thread's name in the kernel, which keeps the first 15 bytes. A thread object without a
// thread is left alone.
void setThreadName(std::thread& thread, const std::string& name);

// ORVThread is a named thread whose body is `run` of a subclass. Nothing can end `run` from outside: `stop` requests
// the end, and `run` returns when it finds that the state is no longer `Running`.
//
//     Idle     --start-->        Starting, and Idle again if the start fails
//     Starting --thread runs-->  Running
//     Starting --stopNoWait-->   Stopping, and `run` is skipped
//     Running  --stopNoWait-->   Stopping
//     Running, Stopping --`run` is over--> Ended --join--> Idle
//
// A joined thread may be started again. One owning thread calls `start`, `stop`, `join`, `detach` and the destructor;
// any thread may call the rest. State and priorities are under one mutex, which is held neither during `run` nor while
// a join waits. A subclass must stop its `run` in its own destructor, before the members that `run` uses die.
//
// The logger of `loggerName` records start and end at DEBUG level, and at ERROR level a failed start and scheduling
// parameters that can't be read. A refused priority has no record.
class ORVThread {
public:
    // State is where the thread is in its life.
    enum State : int32_t {
        Starting = 0,  // `start` is making the system thread
        Running = 1,   // `run` is at work and no stop was requested
        Stopping = 2,  // a stop was requested, `run` should return
        Ended = 3,     // `run` has returned, not joined yet
        Idle = 4       // never started, joined, or not started because of a failure
    };

    // Priority is a step within the thread's present real-time policy, from its minimum (`Lowest`) to its maximum
    // (`Highest`), or a change to the policy SCHED_FIFO at that policy's minimum (`Fifo`).
    enum Priority : int32_t { Lowest = 0, Low = 1, Normal = 2, High = 3, Highest = 4, Fifo = 5 };

    // ORVThread makes an idle thread. Records have the whole name, the kernel its first 15 bytes.
    explicit ORVThread(const std::string& name);
    ORVThread(const ORVThread&) = delete;
    ORVThread& operator=(const ORVThread&) = delete;

    // ~ORVThread stops and joins a thread that still runs. If that fails, the process is terminated.
    virtual ~ORVThread();

    // start makes the system thread. If the state isn't `Idle`, it throws an ORVError with `ORVError::InvalidState`. If
    // the thread can't be made, that is logged, the state is `Idle` again and the failure is rethrown.
    void start();

    // waitForStart waits once for the end of the start, at most `timeout` microseconds (more than 100 years count as
    // 100); 0 and less mean no limit. Unless the state is `Starting`, it returns true at once. It returns false if the
    // time ran out on both the steady and the system clock. True does not prove a start, because a spurious wake-up
    // ends the wait too.
    bool waitForStart(long timeout);

    // stop requests the thread's end and joins it.
    void stop();

    // stopNoWait requests the thread's end. If the request comes while the state is `Starting`, `run` is never called.
    // Without a live thread it does nothing.
    void stopNoWait();

    // stopNoWaitLocked is stopNoWait for a caller that holds the mutex.
    void stopNoWaitLocked();

    // join waits for the thread's end and makes the state `Idle`; an idle thread is left alone. On a detached one it
    // throws an ORVError with `ORVError::InvalidState`.
    void join();

    // detach makes the object own itself: it is deleted when `run` has returned, or at once if that was before. It must
    // live on the heap, and the caller must not touch it any more. Without a system thread detach does nothing. It
    // takes no lock.
    void detach();

    // setPriority requests a priority. It returns false if the system refuses it; the object then keeps the old one.
    // Without a live thread the priority is applied as the thread starts. Kept: a step requested of a SCHED_OTHER
    // thread changes nothing and counts as done, and a thread that is started again keeps the system's priority if the
    // last request was fulfilled.
    bool setPriority(Priority priority);

    // changePriorityLocked applies a priority to the system thread, which must exist, for a caller that holds the
    // mutex. It returns as setPriority does.
    bool changePriorityLocked(Priority priority);

    // runAndEnd is the body of the system thread; not for callers.
    void runAndEnd();

    // loggerName returns the name of the logger of all threads.
    static const std::string& loggerName();

protected:
    // run is the thread's work. It should return soon when the state is no longer `Running`. An exception that leaves
    // it ends the process.
    virtual void run() = 0;

    // isRunning takes the mutex and returns whether `run` should go on.
    bool isRunning();

private:
    std::string m_strName;

protected:
    // m_oMutex guards the state and the priorities; m_oCondition is notified of changes of m_eState.
    std::mutex m_oMutex;
    std::condition_variable m_oCondition;
    State m_eState = Idle;

private:
    static constexpr Priority NO_PRIORITY = static_cast<Priority>(-1);

    void claimStart();
    void createThread();
    void setState(State state);
    void runUnlessStopped();
    void letGo();
    void recordPriority(Priority priority);
    bool applyPriority(Priority priority, int presentPolicy, int presentPriority);
    void logLife(std::thread::id id, const char* what) const;

    std::thread m_oThread;
    Priority m_eCurrentPriority = NO_PRIORITY;
    Priority m_eRequestedPriority = NO_PRIORITY;
    std::atomic<bool> m_bDetached{false};

    // m_hThread is for the scheduling calls, as the thread object loses the handle when it is detached.
    pthread_t m_hThread{};

    // m_bLetGo is set by the first of thread and owner to let go of a detached object; the second deletes it.
    std::atomic<bool> m_bLetGo{false};
};

// ORVReadWriteLock is a lock for many readers or one writer, with a bound on readers. A waiting writer doesn't hold
// back new readers. It belongs to no thread: any may unlock.
class ORVReadWriteLock {
public:
    // ORVReadWriteLock makes a free lock. Kept: `limit` + 1 readers may hold it; 0 and less mean no bound.
    explicit ORVReadWriteLock(int32_t limit) : m_nLimit(limit) {}

    // readLock waits until no writer and not too many readers hold the lock, and takes it as a reader.
    void readLock();

    // writeLock waits until the lock is free and takes it as the writer.
    void writeLock();

    // unlock releases the lock, as a reader or as the writer. A free lock stays free.
    void unlock();

private:
    bool admitsReader() const;

    std::mutex m_oMutex;
    std::condition_variable m_oCondition;
    int32_t m_nCount = 0;
    int32_t m_nLimit;
};
