// async_reset_handler_test.cpp: requests, the resets they cause, the thread's end, and log files that are moved away
// while others log.
//
// This file replaces pthread_create and APR's maker and reader of pipes for its test program, so that they can fail.
// (The undefined behaviour sanitizer makes pipes of its own: they must not fail.)

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "foundation/strfmt.h"
#include "runtime/async_reset_handler.h"
#include "runtime/orvlog.h"
#include "unit/activated_appender.h"
#include "unit/logging_child.h"
#include "unit/own_process.h"
#include "unit/record_collector.h"

namespace {

using orvlog::AsyncResetHandler;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;

constexpr std::chrono::seconds LIMIT{60};

std::atomic<bool> gs_bNoThreads{false};
bool gs_bRefusePipes = false;
int gs_nRefusedPipes = 0;
std::atomic<int> gs_nFailingReads{0};

}  // namespace

extern "C" int apr_file_pipe_create(apr_file_t** readEnd, apr_file_t** writeEnd, apr_pool_t* pool) {
    if (gs_bRefusePipes) {
        ++gs_nRefusedPipes;
        return EMFILE;
    }
    static const auto create =
        reinterpret_cast<decltype(apr_file_pipe_create)*>(dlsym(RTLD_NEXT, "apr_file_pipe_create"));
    return create(readEnd, writeEnd, pool);
}

extern "C" int apr_file_read(apr_file_t* file, void* buffer, size_t* length) {
    if (gs_nFailingReads > 0) {
        --gs_nFailingReads;
        *length = 0;
        return EINTR;
    }
    static const auto read = reinterpret_cast<decltype(apr_file_read)*>(dlsym(RTLD_NEXT, "apr_file_read"));
    return read(file, buffer, length);
}

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                              void* argument) noexcept {
    if (gs_bNoThreads)
        return EAGAIN;
    static const auto create = reinterpret_cast<decltype(pthread_create)*>(dlsym(RTLD_NEXT, "pthread_create"));
    return create(thread, attributes, body, argument);
}

namespace {

// ResetCounter is an appender of the root logger: each reset activates its options once. It can hold resets up.
class ResetCounter {
public:
    ResetCounter() {
        orvlog::getLogger(orvlog::TOP_LOGGER_NAME);
        log4cxx::Logger::getRootLogger()->addAppender(m_pAppender);
    }
    ~ResetCounter() { log4cxx::Logger::getRootLogger()->removeAppender(m_pAppender); }
    ResetCounter(const ResetCounter&) = delete;
    ResetCounter& operator=(const ResetCounter&) = delete;

    // waitFor waits until `count` resets have begun.
    bool waitFor(int count) {
        std::unique_lock lock(m_oMutex);
        return m_oChanged.wait_for(lock, LIMIT, [=, this] { return m_nCount >= count; });
    }

    int count() {
        const std::lock_guard lock(m_oMutex);
        return m_nCount;
    }

    void hold(bool held) {
        const std::lock_guard lock(m_oMutex);
        m_bHeld = held;
        m_oChanged.notify_all();
    }

private:
    void onReset() {
        std::unique_lock lock(m_oMutex);
        m_nCount++;
        m_oChanged.notify_all();
        m_oChanged.wait_for(lock, LIMIT, [this] { return !m_bHeld; });
    }

    std::mutex m_oMutex;
    std::condition_variable m_oChanged;
    int m_nCount = 0;
    bool m_bHeld = false;
    log4cxx::AppenderPtr m_pAppender = std::make_shared<ActivatedAppender>([this] { onReset(); });
};

// descriptors returns the open descriptors of this process.
std::set<int> descriptors() {
    std::set<int> result;
    DIR* const folder = opendir("/proc/self/fd");
    while (const dirent* const entry = readdir(folder))
        if (entry->d_name[0] != '.')
            result.insert(atoi(entry->d_name));
    result.erase(dirfd(folder));
    closedir(folder);
    return result;
}

const std::string KERNEL_NAME = "AsyncResetHandl";

// statesOfHandlers returns the kernel's states of the threads that have the handler's name.
std::string statesOfHandlers() {
    std::string states;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        const std::string stat = TempFolder::contentOf(task.path() / "stat");
        const size_t name = stat.find("(" + KERNEL_NAME + ") ");
        if (name != std::string::npos)
            states += stat[name + KERNEL_NAME.size() + 3];
    }
    return states;
}

// waitForStates waits until the handlers' threads are in these states. The kernel lists a thread a little longer than a
// join of it takes.
bool waitForStates(const std::string& states) {
    const auto deadline = std::chrono::steady_clock::now() + LIMIT;
    while (statesOfHandlers() != states) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::yield();
    }
    return true;
}

// --- Life

TEST(AsyncResetHandler, ThreadHasItsNameAndRecords) {
    RecordCollector collector("orv.utils.thread");
    {
        AsyncResetHandler handler;
        EXPECT_TRUE(waitForStates(""));
        EXPECT_TRUE(handler.start());
        EXPECT_EQ(statesOfHandlers().size(), 1U);
    }
    EXPECT_TRUE(waitForStates(""));
    EXPECT_THAT(collector.lines(),
                ElementsAre(MatchesRegex("DEBUG Thread id '[0-9]+' aka 'AsyncResetHandler' started"),
                            MatchesRegex("DEBUG Thread id '[0-9]+' aka 'AsyncResetHandler' stopped")));
}

TEST(AsyncResetHandler, DestructionEndsAThreadThatWaitsForRequests) {
    for (int i = 0; i < 20; i++) {
        AsyncResetHandler handler;
        ASSERT_TRUE(handler.start());
        ASSERT_TRUE(waitForStates("S"));
    }
    EXPECT_TRUE(waitForStates(""));
}

TEST(AsyncResetHandler, DestructionRightAfterTheStartEnds) {
    for (int i = 0; i < 100; i++) {
        AsyncResetHandler handler;
        ASSERT_TRUE(handler.start());
    }
}

TEST(AsyncResetHandler, DestructionWithoutAStart) {
    ResetCounter counter;
    {
        AsyncResetHandler handler;
        handler.reset();
    }
    EXPECT_EQ(counter.count(), 0);
}

TEST(AsyncResetHandler, DestructionWaitsForTheResetUnderWay) {
    ResetCounter counter;
    counter.hold(true);
    auto handler = std::make_unique<AsyncResetHandler>();
    ASSERT_TRUE(handler->start());
    handler->reset();
    ASSERT_TRUE(counter.waitFor(1));
    std::atomic<bool> gone = false;
    std::thread destroyer([&] {
        handler.reset();
        gone = true;
    });
    EXPECT_FALSE(gone);
    counter.hold(false);
    destroyer.join();
    EXPECT_TRUE(gone);
    EXPECT_EQ(counter.count(), 1);
}

TEST(AsyncResetHandler, SecondStartIsRefused) {
    ResetCounter counter;
    AsyncResetHandler handler;
    EXPECT_TRUE(handler.start());
    EXPECT_FALSE(handler.start());
    handler.reset();
    EXPECT_TRUE(counter.waitFor(1));
}

TEST(AsyncResetHandler, ThreadThatCannotBeMadeIsReportedAndCanBeTriedAgain) {
    RecordCollector collector("orv.utils.thread");
    ResetCounter counter;
    AsyncResetHandler handler;
    gs_bNoThreads = true;
    EXPECT_FALSE(handler.start());
    gs_bNoThreads = false;
    EXPECT_THAT(collector.lines(), ElementsAre(MatchesRegex("ERROR Thread 'AsyncResetHandler' not started: .+")));
    handler.reset();
    EXPECT_EQ(counter.count(), 0);
    EXPECT_TRUE(handler.start());
    EXPECT_TRUE(counter.waitFor(1));
}

TEST(AsyncResetHandler, ThreadThatCannotBeMadeLeavesNothing) {
    const std::set<int> before = descriptors();
    {
        AsyncResetHandler handler;
        gs_bNoThreads = true;
        EXPECT_FALSE(handler.start());
        gs_bNoThreads = false;
    }
    EXPECT_EQ(descriptors(), before);
}

// --- The pipe

TEST(AsyncResetHandler, PipeIsNotInheritedAndOnlyItsReadEndBlocks) {
    const std::set<int> before = descriptors();
    {
        AsyncResetHandler handler;
        int ends = 0;
        for (const int descriptor : descriptors()) {
            if (before.contains(descriptor))
                continue;
            ends++;
            const int flags = fcntl(descriptor, F_GETFL);
            EXPECT_TRUE(fcntl(descriptor, F_GETFD) & FD_CLOEXEC);
            EXPECT_EQ((flags & O_NONBLOCK) != 0, (flags & O_ACCMODE) == O_WRONLY);
        }
        EXPECT_EQ(ends, 2);
    }
    EXPECT_EQ(descriptors(), before);
}

TEST(AsyncResetHandler, StartedOneClosesItsPipe) {
    const std::set<int> before = descriptors();
    for (int i = 0; i < 3; i++) {
        AsyncResetHandler handler;
        EXPECT_TRUE(handler.start());
        handler.reset();
    }
    EXPECT_EQ(descriptors(), before);
}

TEST(AsyncResetHandler, WithoutAPipeItDoesNothing) {
    RecordCollector collector;
    ResetCounter counter;
    const std::set<int> before = descriptors();
    gs_bRefusePipes = true;
    auto handler = std::make_unique<AsyncResetHandler>();
    gs_bRefusePipes = false;
    EXPECT_EQ(gs_nRefusedPipes, 1);
    EXPECT_FALSE(handler->start());
    handler->reset();
    handler->flush();
    handler->send(AsyncResetHandler::Message::Reset);
    EXPECT_FALSE(handler->start());
    handler.reset();
    EXPECT_EQ(descriptors(), before);
    EXPECT_EQ(counter.count(), 0);
    EXPECT_THAT(collector.lines(), IsEmpty());
}

// --- Requests

TEST(AsyncResetHandler, MessagesHaveFixedValues) {
    EXPECT_EQ(sizeof(AsyncResetHandler::Message), 1U);
    EXPECT_EQ(static_cast<int>(AsyncResetHandler::Message::WakeUp), 0);
    EXPECT_EQ(static_cast<int>(AsyncResetHandler::Message::Reset), 1);
    EXPECT_EQ(static_cast<int>(AsyncResetHandler::Message::Flush), 2);
}

TEST(AsyncResetHandler, EachRequestResets) {
    ResetCounter counter;
    AsyncResetHandler handler;
    ASSERT_TRUE(handler.start());
    handler.reset();
    EXPECT_TRUE(counter.waitFor(1));
    handler.flush();
    EXPECT_TRUE(counter.waitFor(2));
    handler.send(AsyncResetHandler::Message::Reset);
    EXPECT_TRUE(counter.waitFor(3));
    handler.send(AsyncResetHandler::Message::Flush);
    EXPECT_TRUE(counter.waitFor(4));
}

// Waiting is a row of messages that wait when the thread begins to read, and how many resets they cause.
struct Waiting {
    const char* what;
    std::vector<int> messages;
    int resets;
};

const Waiting WAITING[] = {
    {"one reset", {1}, 1},
    {"one flush", {2}, 1},
    {"reset and flush", {1, 2}, 1},
    {"several", {2, 1, 1, 2, 2, 1}, 1},
    {"after wake-ups", {0, 0, 1, 0, 2, 0}, 1},
    {"after unknown ones", {3, 255, 2}, 1},
    {"a whole read", std::vector<int>(16, 1), 1},
    {"one more than a read", std::vector<int>(17, 1), 2},
    {"two reads", std::vector<int>(32, 2), 2},
    {"two reads and one", std::vector<int>(33, 2), 3},
    {"last of a read", {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}, 1},
};

TEST(AsyncResetHandler, OneResetServesAllRequestsOfARead) {
    for (const Waiting& waiting : WAITING) {
        SCOPED_TRACE(waiting.what);
        ResetCounter counter;
        {
            AsyncResetHandler handler;
            for (const int message : waiting.messages)
                handler.send(static_cast<AsyncResetHandler::Message>(message));
            ASSERT_TRUE(handler.start());
            ASSERT_TRUE(counter.waitFor(waiting.resets));
            ASSERT_TRUE(waitForStates("S"));
        }
        EXPECT_EQ(counter.count(), waiting.resets);
    }
}

TEST(AsyncResetHandler, RequestsDuringAResetCauseOneMore) {
    ResetCounter counter;
    {
        AsyncResetHandler handler;
        counter.hold(true);
        ASSERT_TRUE(handler.start());
        handler.reset();
        ASSERT_TRUE(counter.waitFor(1));
        for (int i = 0; i < 5; i++) {
            handler.reset();
            handler.flush();
        }
        counter.hold(false);
        ASSERT_TRUE(counter.waitFor(2));
        ASSERT_TRUE(waitForStates("S"));
    }
    EXPECT_EQ(counter.count(), 2);
}

TEST(AsyncResetHandler, WakeUpsAndUnknownMessagesResetNothing) {
    ResetCounter counter;
    {
        AsyncResetHandler handler;
        ASSERT_TRUE(handler.start());
        for (const int message : {0, 3, 4, 127, 255}) {
            handler.send(static_cast<AsyncResetHandler::Message>(message));
            ASSERT_TRUE(waitForStates("S"));
        }
        EXPECT_EQ(counter.count(), 0);
        handler.reset();
        ASSERT_TRUE(counter.waitFor(1));
    }
    EXPECT_EQ(counter.count(), 1);
}

TEST(AsyncResetHandler, FullPipeHoldsNoSenderUp) {
    ResetCounter counter;
    AsyncResetHandler handler;
    counter.hold(true);
    ASSERT_TRUE(handler.start());
    handler.reset();
    ASSERT_TRUE(counter.waitFor(1));
    for (int i = 0; i < 100000; i++)
        handler.reset();
    counter.hold(false);
    EXPECT_TRUE(counter.waitFor(2));
}

TEST(AsyncResetHandler, FullPipeHoldsNoDestructionUp) {
    ResetCounter counter;
    auto handler = std::make_unique<AsyncResetHandler>();
    for (int i = 0; i < 100000; i++)
        handler->send(AsyncResetHandler::Message::WakeUp);
    ASSERT_TRUE(handler->start());
    handler.reset();
    EXPECT_TRUE(waitForStates(""));
    EXPECT_EQ(counter.count(), 0);
}

TEST(AsyncResetHandler, FailedResetIsReportedAndTheNextOneIsMade) {
    const Outcome outcome = inChild([] {
        ResetCounter counter;
        log4cxx::Logger::getRootLogger()->addAppender(
            std::make_shared<ActivatedAppender>([] { throw std::runtime_error("disk 100%s full"); }));
        AsyncResetHandler handler;
        if (!handler.start())
            _exit(1);
        for (const int count : {1, 2}) {
            handler.reset();
            if (!counter.waitFor(count))
                _exit(2);
        }
    });
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.error, "ERROR: orvlog::reset() failed (disk 100%s full)\n"
                             "ERROR: orvlog::reset() failed (disk 100%s full)\n");
}

TEST(AsyncResetHandler, FailedReadIsMadeAgain) {
    ResetCounter counter;
    AsyncResetHandler handler;
    gs_nFailingReads = 3;
    ASSERT_TRUE(handler.start());
    handler.reset();
    EXPECT_TRUE(counter.waitFor(1));
    EXPECT_EQ(gs_nFailingReads, 0);
}

TEST(AsyncResetHandler, AnyThreadMaySend) {
    ResetCounter counter;
    AsyncResetHandler handler;
    ASSERT_TRUE(handler.start());
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; i++)
        threads.emplace_back([&] {
            for (int n = 0; n < 200; n++)
                n % 2 == 0 ? handler.reset() : handler.flush();
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_TRUE(counter.waitFor(1));
    ASSERT_TRUE(waitForStates("S"));
    EXPECT_LE(counter.count(), 1600);
}

// --- Log files that move

constexpr int LOGGERS = 8;
constexpr int MOVES = 20;
const char* const TAIL = "a tail long enough for a torn line to show, the same in each of them";

// logUntil makes numbered records until `over` is set and returns their number.
int logUntil(const std::atomic<bool>& over, int thread) {
    const log4cxx::LoggerPtr logger = orvlog::getLogger("orv.test");
    int made = 0;
    for (; !over || made < 100; made++)
        ORVLOG_INFO(logger, "%d %d %s", thread, made, TAIL);
    return made;
}

bool waitForFile(const std::string& path) {
    const auto deadline = std::chrono::steady_clock::now() + LIMIT;
    while (!std::filesystem::exists(path)) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::yield();
    }
    return true;
}

// moveFiles moves the log file away again and again, each time when it holds something, and has it made again.
bool moveFiles(AsyncResetHandler& handler) {
    for (int i = 0; i < MOVES; i++) {
        if (!waitForFile("log/player.log"))
            return false;
        std::filesystem::rename("log/player.log", strfmt("moved.%d", i));
        handler.reset();
    }
    return waitForFile("log/player.log");
}

// logWhileMoving is what the child process does. It leaves the number of records of each thread in the file "made".
int logWhileMoving() {
    AsyncResetHandler handler;
    if (!orvlog::configureDefault() || !handler.start())
        return 1;
    std::atomic<bool> over = false;
    std::vector<int> made(LOGGERS);
    std::vector<std::thread> threads;
    for (int thread = 0; thread < LOGGERS; thread++)
        threads.emplace_back([&, thread] { made[thread] = logUntil(over, thread); });
    const bool moved = moveFiles(handler);
    over = true;
    for (std::thread& thread : threads)
        thread.join();
    std::string text;
    for (const int count : made)
        text += strfmt("%d\n", count);
    TempFolder::writeTo("made", text);
    return moved ? 0 : 2;
}

int runLogWhileMoving(const TempFolder& folder) {
    const pid_t child = startedProcess(fork());
    if (child == 0) {
        dup2(open((folder / "error").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600), STDERR_FILENO);
        _exit(chdir(folder.path().c_str()) == 0 ? logWhileMoving() : 3);
    }
    return awaitChild(child);
}

std::vector<std::string> linesOf(const std::string& path) {
    std::vector<std::string> result;
    std::ifstream stream(path);
    for (std::string line; std::getline(stream, line);)
        result.push_back(line);
    return result;
}

// Found is what the log files held: the next number expected of each thread, and the lines that fit nowhere.
struct Found {
    std::vector<int> next = std::vector<int>(LOGGERS);
    Lines bad;
};

// takeLine counts a line that is whole and the next of its thread.
void takeLine(Found& found, const std::string& line) {
    const size_t start = std::string("dd-MM-yyyy HH:mm:ss ").size();
    for (int thread = 0; thread < LOGGERS; thread++) {
        const std::string wanted = strfmt("INFO  orv.test             - %d %d %s", thread, found.next[thread], TAIL);
        if (line.size() > start && line[start - 1] == ' ' && line.substr(start) == wanted) {
            found.next[thread]++;
            return;
        }
    }
    found.bad.push_back(line);
}

TEST(AsyncResetHandler, NoLineIsLostOrTornWhileFilesMove) {
    const TempFolder folder;
    ASSERT_EQ(runLogWhileMoving(folder), 0) << TempFolder::contentOf(folder / "error");
    EXPECT_EQ(TempFolder::contentOf(folder / "error"), "");
    Found found;
    for (int i = 0; i <= MOVES; i++)
        for (const std::string& line : linesOf(i < MOVES ? folder / strfmt("moved.%d", i) : folder / "log/player.log"))
            if (!line.ends_with(" - Logs configureDefault() sucess"))
                takeLine(found, line);
    std::string text;
    for (const int count : found.next)
        text += strfmt("%d\n", count);
    EXPECT_EQ(text, TempFolder::contentOf(folder / "made"));
    EXPECT_THAT(found.bad, IsEmpty());
    EXPECT_FALSE(std::filesystem::exists(folder / "log/player.log.1"));
}

}  // namespace
