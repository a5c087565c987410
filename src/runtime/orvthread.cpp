#include "runtime/orvthread.h"

#include <sched.h>

#include <algorithm>
#include <chrono>
#include <exception>
#include <sstream>

#include "foundation/strfmt.h"
#include "runtime/orv_error.h"
#include "runtime/orvlog.h"

namespace {

constexpr size_t KERNEL_NAME_SIZE = 16;  // with the terminator

// MAX_TIMEOUT keeps a deadline within the range of the clocks.
constexpr std::chrono::microseconds MAX_TIMEOUT = std::chrono::hours(24 * 365 * 100);

// threadLogger is made with the first thread object, so that it outlives the last one, static ones included.
const log4cxx::LoggerPtr& threadLogger() {
    static const log4cxx::LoggerPtr logger = orvlog::getLogger(ORVThread::loggerName());
    return logger;
}

std::string toText(std::thread::id id) {
    std::ostringstream text;
    text << id;
    return text.str();
}

// Deadline is a point in time on both clocks: the condition waits by the system clock, which may be set meanwhile, and
// a clock set forward must not look like elapsed time.
struct Deadline {
    explicit Deadline(std::chrono::microseconds timeout)
        : steady(std::chrono::steady_clock::now() + timeout), system(std::chrono::system_clock::now() + timeout) {}

    bool isOver() const {
        return std::chrono::steady_clock::now() >= steady && std::chrono::system_clock::now() >= system;
    }

    std::chrono::steady_clock::time_point steady;
    std::chrono::system_clock::time_point system;
};

// toSystemPriority writes the system's number of a priority within `policy` to `result`; false if the policy has no
// range of priorities.
bool toSystemPriority(ORVThread::Priority priority, int policy, int& result) {
    const int minimum = sched_get_priority_min(policy);
    const int maximum = sched_get_priority_max(policy);
    if (minimum == -1 || maximum == -1)
        return false;
    result = priority == ORVThread::Fifo ? minimum : minimum + (maximum - minimum) * priority / ORVThread::Highest;
    return true;
}

}  // namespace

void setThreadName(std::thread& thread, const std::string& name) {
    if (!thread.joinable())
        return;
    char kernelName[KERNEL_NAME_SIZE] = {};
    name.copy(kernelName, sizeof kernelName - 1);
    pthread_setname_np(thread.native_handle(), kernelName);
}

ORVThread::ORVThread(const std::string& name) : m_strName(name) {
    threadLogger();
}

ORVThread::~ORVThread() {
    if (m_oThread.joinable()) {
        try {
            stop();
        } catch (...) {
            // the thread may still run, which is found below
        }
    }
    if (m_oThread.joinable())
        std::terminate();
}

void ORVThread::start() {
    claimStart();
    try {
        createThread();
    } catch (const std::exception& failure) {
        ORVLOG_ERROR(threadLogger(), "Thread '%s' not started: %s", m_strName.c_str(), failure.what());
        setState(Idle);
        m_oCondition.notify_all();
        throw;
    }
    logLife(m_oThread.get_id(), "started");
}

// claimStart notifies after releasing the mutex, so that the waiter it wakes can take it at once.
void ORVThread::claimStart() {
    {
        const std::lock_guard lock(m_oMutex);
        if (m_eState != Idle)
            throw ORVError(ORVError::InvalidState, strfmt("Thread '%s' is already running", m_strName.c_str()));
        m_eState = Starting;
    }
    m_oCondition.notify_all();
}

// createThread holds the mutex, which the new thread takes first, and so finds the handle stored.
void ORVThread::createThread() {
    const std::lock_guard lock(m_oMutex);
    m_bLetGo = false;
    std::thread thread(&ORVThread::runAndEnd, this);
    setThreadName(thread, m_strName);
    m_oThread = std::move(thread);
    m_hThread = m_oThread.native_handle();
}

void ORVThread::setState(State state) {
    const std::lock_guard lock(m_oMutex);
    m_eState = state;
}

// runAndEnd notifies nobody of a detached thread's end, as its owner must not wait for it any more.
void ORVThread::runAndEnd() {
    runUnlessStopped();
    setState(Ended);
    logLife(m_bDetached ? std::thread::id() : std::this_thread::get_id(), "stopped");
    if (!m_bDetached)
        m_oCondition.notify_all();
    letGo();
}

// runUnlessStopped skips `run` if the stop was requested before the thread came here.
void ORVThread::runUnlessStopped() {
    {
        const std::lock_guard lock(m_oMutex);
        if (m_eState != Starting)
            return;
        m_eState = Running;
        if (m_eRequestedPriority != m_eCurrentPriority)
            changePriorityLocked(m_eRequestedPriority);
    }
    m_oCondition.notify_all();
    run();
}

// letGo is the last step of thread and owner alike: the object may be gone after it.
void ORVThread::letGo() {
    if (m_bLetGo.exchange(true))
        delete this;
}

bool ORVThread::waitForStart(long timeout) {
    std::unique_lock lock(m_oMutex);
    if (m_eState != Starting)
        return true;
    if (timeout <= 0) {
        m_oCondition.wait(lock);
        return true;
    }
    const Deadline deadline(std::min(std::chrono::microseconds(timeout), MAX_TIMEOUT));
    m_oCondition.wait_until(lock, deadline.system);  // kept: once, so that a spurious wake-up counts as a start
    return !deadline.isOver();
}

void ORVThread::stop() {
    stopNoWait();
    join();
}

void ORVThread::stopNoWait() {
    const std::lock_guard lock(m_oMutex);
    stopNoWaitLocked();
}

void ORVThread::stopNoWaitLocked() {
    if (m_eState == Ended || m_eState == Idle)
        return;
    m_eState = Stopping;
    m_oCondition.notify_all();
}

void ORVThread::join() {
    {
        const std::lock_guard lock(m_oMutex);
        if (m_bDetached)
            throw ORVError(ORVError::InvalidState, strfmt("Thread '%s' is detached", m_strName.c_str()));
        if (m_eState == Idle)
            return;
    }
    if (m_oThread.joinable())
        m_oThread.join();  // without the mutex, which the ending thread takes
    const std::lock_guard lock(m_oMutex);
    m_eState = Idle;
    m_hThread = pthread_t{};
}

void ORVThread::detach() {
    if (m_bDetached || !m_oThread.joinable())
        return;
    m_bDetached = true;
    m_oThread.detach();
    letGo();
}

bool ORVThread::setPriority(Priority priority) {
    const std::lock_guard lock(m_oMutex);
    if (m_eCurrentPriority == priority && m_eRequestedPriority == priority)
        return true;
    if (m_eState == Running || m_eState == Stopping)
        return changePriorityLocked(priority);
    ORVLOG_DEBUG(threadLogger(), "delayed setPriority() on thread '%s'", m_strName.c_str());
    m_eRequestedPriority = priority;
    return true;
}

bool ORVThread::changePriorityLocked(Priority priority) {
    int policy = 0;
    sched_param present{};
    if (m_hThread == pthread_t{} || pthread_getschedparam(m_hThread, &policy, &present) != 0) {
        // kept: "retrive"; log readers search for the text
        ORVLOG_ERROR(threadLogger(), "failed to retrive thread's scheduling parameters");
        return false;
    }
    if (priority != Fifo && policy == SCHED_OTHER) {
        ORVLOG_DEBUG(threadLogger(), "ignoring set priority for SCHED_OTHER thread (cannot set)");
        recordPriority(priority);
        return true;
    }
    if (!applyPriority(priority, policy, present.sched_priority))
        return false;
    recordPriority(priority);
    return true;
}

bool ORVThread::applyPriority(Priority priority, int presentPolicy, int presentPriority) {
    const int policy = priority == Fifo ? SCHED_FIFO : presentPolicy;
    sched_param wanted{};
    if (!toSystemPriority(priority, policy, wanted.sched_priority))
        return false;
    if (policy != presentPolicy)
        return pthread_setschedparam(m_hThread, policy, &wanted) == 0;
    return wanted.sched_priority == presentPriority || pthread_setschedprio(m_hThread, wanted.sched_priority) == 0;
}

void ORVThread::recordPriority(Priority priority) {
    m_eCurrentPriority = priority;
    m_eRequestedPriority = priority;
}

const std::string& ORVThread::loggerName() {
    static const std::string name = orvlog::append(orvlog::TOP_LOGGER_NAME, "utils.thread");
    return name;
}

bool ORVThread::isRunning() {
    const std::lock_guard lock(m_oMutex);
    return m_eState == Running;
}

void ORVThread::logLife(std::thread::id id, const char* what) const {
    ORVLOG_DEBUG(threadLogger(), "Thread id '%s' aka '%s' %s", toText(id).c_str(), m_strName.c_str(), what);
}

bool ORVReadWriteLock::admitsReader() const {
    return m_nCount >= 0 && (m_nLimit <= 0 || m_nCount <= m_nLimit);  // kept: admits one reader more than the limit
}

void ORVReadWriteLock::readLock() {
    std::unique_lock lock(m_oMutex);
    m_oCondition.wait(lock, [this] { return admitsReader(); });
    ++m_nCount;
}

void ORVReadWriteLock::writeLock() {
    std::unique_lock lock(m_oMutex);
    m_oCondition.wait(lock, [this] { return m_nCount == 0; });
    m_nCount = -1;
}

void ORVReadWriteLock::unlock() {
    {
        const std::lock_guard lock(m_oMutex);
        m_nCount = m_nCount < 1 ? 0 : m_nCount - 1;
    }
    m_oCondition.notify_all();
}
