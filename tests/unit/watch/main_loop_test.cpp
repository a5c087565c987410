// main_loop_test.cpp: what the loop does with a provider that has an unused input, and with events that come late.
//
// The provider here is a stand-in, linked in place of the real one: it answers what a test told it to. GLib's timers,
// signal sources and signal handlers are caught as they are registered, so that a test calls them at the moment that it
// chooses. A call of inotify's and one of GIO's can be made to fail, and the wall clock can be set.

#include <dlfcn.h>
#include <gio/gio.h>
#include <glib-unix.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <ctime>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "unit/record_collector.h"
#include "unit/rounds.h"
#include "watch/clock.h"
#include "watch/main_loop.h"
#include "watch/program.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

// Answers are what the stand-in says, and what it was asked.
struct Answers {
    std::array<std::string, FeatureProvider::INPUT_COUNT> paths;
    bool changed = false;
    int64_t next = 0;
    std::function<void()> duringRecheck = [] {};
    std::vector<std::string> asked;
    int rechecks = 0;

    void note(const char* call, int inputId) { asked.push_back(call + std::to_string(inputId)); }
};
Answers gs_oAnswers;

// Callback is a function of GLib's sources with its data.
struct Callback {
    GSourceFunc function = nullptr;
    gpointer data = nullptr;

    gboolean call() const { return function(data); }
};

// FileHandler is what an input's monitor calls.
struct FileHandler {
    using Function = void(GFileMonitor*, GFile*, GFile*, GFileMonitorEvent, gpointer);
    Function* function = nullptr;
    gpointer data = nullptr;
    GFileMonitor* monitor = nullptr;
};

std::map<guint, Callback> gs_aTimers;  // by their intervals
std::map<gint, Callback> gs_aSignals;
std::vector<FileHandler> gs_aFileHandlers;
std::optional<time_t> gs_oClock;  // what the wall clock shows, if not the real time
int gs_nInotifyFault = 0;         // the errno of the next instance that is asked for, or 0
int gs_nUntilMonitorFault = 0;    // how many monitors of files until one can't be made; 0 for none

}  // namespace

FeatureProvider::FeatureProvider() : m_aSources{FeatureSource("", ""), FeatureSource("", "")} {}

void FeatureProvider::init(int64_t) {}

std::string FeatureProvider::inputPath(int inputId) const {
    return gs_oAnswers.paths[inputId];
}

bool FeatureProvider::dropInput(int inputId) {
    gs_oAnswers.note("drop ", inputId);
    return gs_oAnswers.changed;
}

bool FeatureProvider::loadInput(int inputId) {
    gs_oAnswers.note("load ", inputId);
    return gs_oAnswers.changed;
}

bool FeatureProvider::recheckAll(int64_t) {
    ++gs_oAnswers.rechecks;
    gs_oAnswers.duringRecheck();
    return gs_oAnswers.changed;
}

int64_t FeatureProvider::writeFeatures(int64_t, std::ostream& stream) const {
    stream << "document\n";
    return gs_oAnswers.next;
}

std::vector<std::string> FeatureProvider::activeFeatureNames() const {
    return {"name"};
}

extern "C" guint g_timeout_add_seconds(guint interval, GSourceFunc function, gpointer data) {
    gs_aTimers[interval] = {function, data};
    return interval;
}

extern "C" gboolean g_source_remove(guint interval) {
    return gs_aTimers.erase(interval) == 1;
}

extern "C" guint g_unix_signal_add(gint number, GSourceFunc function, gpointer data) {
    gs_aSignals[number] = {function, data};
    return static_cast<guint>(number);
}

extern "C" gulong g_signal_connect_data(gpointer instance, const gchar* signal, GCallback handler, gpointer data,
                                        GClosureNotify, GConnectFlags) {
    EXPECT_STREQ(signal, "changed");
    gs_aFileHandlers.push_back(
        {reinterpret_cast<FileHandler::Function*>(handler), data, static_cast<GFileMonitor*>(instance)});
    return gs_aFileHandlers.size();
}

extern "C" int clock_gettime(clockid_t clock, timespec* time) noexcept {
    if (clock != CLOCK_REALTIME || !gs_oClock)
        return reinterpret_cast<decltype(clock_gettime)*>(dlsym(RTLD_NEXT, "clock_gettime"))(clock, time);
    *time = {.tv_sec = *gs_oClock, .tv_nsec = 0};
    return 0;
}

extern "C" int inotify_init1(int flags) noexcept {
    errno = gs_nInotifyFault;
    gs_nInotifyFault = 0;
    return errno != 0 ? -1 : reinterpret_cast<decltype(inotify_init1)*>(dlsym(RTLD_NEXT, "inotify_init1"))(flags);
}

extern "C" GFileMonitor* g_file_monitor_file(GFile* file, GFileMonitorFlags flags, GCancellable* cancellable,
                                             GError** error) {
    if (gs_nUntilMonitorFault > 0 && --gs_nUntilMonitorFault == 0) {
        g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_FAILED, "no monitor left");
        return nullptr;
    }
    const auto make = reinterpret_cast<decltype(g_file_monitor_file)*>(dlsym(RTLD_NEXT, "g_file_monitor_file"));
    return make(file, flags, cancellable, error);
}

namespace {

constexpr guint HOUR = 3600;
constexpr guint SOON = 100;

class MainLoopTest : public testing::Test {
protected:
    // A hang is a failure: SIGALRM ends the program.
    MainLoopTest() {
        alarm(patience(60));
        gs_oAnswers = Answers();
        gs_oAnswers.paths = {m_oFolder / "0", m_oFolder / "1"};
        gs_aTimers.clear();
        gs_aSignals.clear();
        gs_aFileHandlers.clear();
        gs_oClock.reset();
        gs_nInotifyFault = 0;
        gs_nUntilMonitorFault = 0;
        g_strWatchFile = m_oFolder / "document";
        g_strScriptCmdline = "echo run >> " + (m_oFolder / "runs");
    }
    ~MainLoopTest() override { alarm(0); }

    void start(MainLoop& loop) {
        ASSERT_TRUE(loop.startLauncher());
        ASSERT_TRUE(loop.start());
        gs_oAnswers.asked.clear();
        gs_oAnswers.rechecks = 0;
        m_oCollector.clear();
    }

    // callTimer calls the timer of about so many seconds: the clock may have gone on since the test asked for it.
    static gboolean callTimer(guint seconds) {
        const auto timer = gs_aTimers.lower_bound(seconds - 1);
        EXPECT_NE(timer, gs_aTimers.end());
        return timer->second.call();
    }

    // callFileHandler reports an event of the file at `path`.
    static void callFileHandler(const FileHandler& handler, const std::string& path,
                                GFileMonitorEvent event = G_FILE_MONITOR_EVENT_CREATED) {
        GFile* file = g_file_new_for_path(path.c_str());
        handler.function(handler.monitor, file, nullptr, event, handler.data);
        g_object_unref(file);
    }

    void forbidPublication() const { g_strWatchFile = m_oFolder / "missing/document"; }
    std::string runs() const { return TempFolder::contentOf(m_oFolder / "runs"); }

    TempFolder m_oFolder;
    RecordCollector m_oCollector;
};

TEST_F(MainLoopTest, UnusedInputIsNeitherReadNorWatched) {
    for (const int unused : {0, 1}) {
        SCOPED_TRACE(unused);
        const int used = 1 - unused;
        gs_oAnswers.paths[unused].clear();
        gs_oAnswers.paths[used] = m_oFolder / "used";
        gs_aFileHandlers.clear();
        const std::string number = std::to_string(used);
        MainLoop loop;
        ASSERT_TRUE(loop.startLauncher());
        ASSERT_TRUE(loop.start());
        EXPECT_THAT(gs_oAnswers.asked, ElementsAre("drop " + number, "load " + number));
        ASSERT_EQ(gs_aFileHandlers.size(), 1U);
        gs_oAnswers.asked.clear();
        gs_aSignals[SIGHUP].call();
        callFileHandler(gs_aFileHandlers[0], gs_oAnswers.paths[used]);
        EXPECT_THAT(gs_oAnswers.asked,
                    ElementsAre("drop " + number, "load " + number, "drop " + number, "load " + number));
        gs_oAnswers.asked.clear();
    }
}

TEST_F(MainLoopTest, LoopWithoutInputsStillPublishes) {
    gs_oAnswers.paths = {"", ""};
    {
        MainLoop loop;
        start(loop);
        gs_oAnswers.changed = true;
        EXPECT_TRUE(gs_aSignals[SIGHUP].call());
    }
    EXPECT_THAT(gs_aFileHandlers, IsEmpty());
    EXPECT_EQ(TempFolder::contentOf(m_oFolder / "document"), "document\n");
    EXPECT_EQ(runs(), "run\nrun\n");
}

TEST_F(MainLoopTest, WatchThatTheSystemRefusesIsWarnedOfOnce) {
    gs_nInotifyFault = EMFILE;
    MainLoop loop;
    ASSERT_TRUE(loop.startLauncher());
    ASSERT_TRUE(loop.start());
    EXPECT_THAT(m_oCollector.lines(), ElementsAre("INFO features list updated: name",
                                                  "WARN failed to watch " + gs_oAnswers.paths[0] +
                                                      ", its changes will be noticed late: Too many open files"));
    EXPECT_EQ(gs_aFileHandlers.size(), 2U);
}

TEST_F(MainLoopTest, EachInputThatCannotBeWatchedFailsTheStart) {
    for (const int inputId : {0, 1}) {
        m_oCollector.clear();
        gs_nUntilMonitorFault = inputId + 1;
        MainLoop loop;
        ASSERT_TRUE(loop.startLauncher());
        EXPECT_FALSE(loop.start());
        EXPECT_THAT(m_oCollector.lines(),
                    ElementsAre("INFO features list updated: name",
                                "FATAL failed to watch " + gs_oAnswers.paths[inputId] + ": no monitor left"));
    }
}

TEST_F(MainLoopTest, InstantThatIsNotAheadArmsNoTimer) {
    for (const int64_t next : {int64_t(0), int64_t(-1), int64_t(1), currentSeconds() - 1, currentSeconds()}) {
        SCOPED_TRACE(next);
        gs_aTimers.clear();
        m_oCollector.clear();
        gs_oAnswers.next = next;
        MainLoop loop;
        ASSERT_TRUE(loop.startLauncher());
        ASSERT_TRUE(loop.start());
        EXPECT_THAT(m_oCollector.lines(), ElementsAre("INFO features list updated: name"));
        EXPECT_EQ(gs_aTimers.size(), 1U);
        EXPECT_TRUE(gs_aTimers.contains(HOUR));
    }
}

// A device without a clock of its own starts there.
TEST_F(MainLoopTest, FirstSecondSinceTheEpochIsAnInstantAsAnyOther) {
    gs_oClock = 0;
    gs_oAnswers.next = 1;
    MainLoop loop;
    ASSERT_TRUE(loop.startLauncher());
    ASSERT_TRUE(loop.start());
    EXPECT_THAT(m_oCollector.lines(),
                ElementsAre("INFO features list updated: name", "INFO features check scheduled in 2 seconds"));
}

TEST_F(MainLoopTest, DocumentThatIsNotWrittenHasNoInstant) {
    gs_oClock = 0;
    forbidPublication();
    MainLoop loop;
    ASSERT_TRUE(loop.startLauncher());
    EXPECT_FALSE(loop.start());
    EXPECT_THAT(gs_aTimers, IsEmpty());
}

// EventRow is an event that a monitor reports of a file, and what follows from it.
struct EventRow {
    GFileMonitorEvent event;
    std::string file;
    Lines asked;
};

TEST_F(MainLoopTest, EventsOfAnInputReadItOrDropItAndOthersDoNothing) {
    const std::string own = gs_oAnswers.paths[1];
    const std::string other = m_oFolder / "other";
    const EventRow rows[] = {
        {G_FILE_MONITOR_EVENT_CREATED, own, {"drop 1", "load 1"}},
        {G_FILE_MONITOR_EVENT_CHANGED, own, {"drop 1", "load 1"}},
        {G_FILE_MONITOR_EVENT_DELETED, own, {"drop 1"}},
        {G_FILE_MONITOR_EVENT_UNMOUNTED, own, {"drop 1"}},
        {G_FILE_MONITOR_EVENT_UNMOUNTED, m_oFolder.path(), {"drop 1"}},
        {G_FILE_MONITOR_EVENT_CREATED, other, {}},
        {G_FILE_MONITOR_EVENT_CHANGED, other, {}},
        {G_FILE_MONITOR_EVENT_DELETED, other, {}},
        {G_FILE_MONITOR_EVENT_CHANGES_DONE_HINT, own, {}},
        {G_FILE_MONITOR_EVENT_ATTRIBUTE_CHANGED, own, {}},
        {G_FILE_MONITOR_EVENT_PRE_UNMOUNT, own, {}},
        {G_FILE_MONITOR_EVENT_MOVED, own, {}},
        {G_FILE_MONITOR_EVENT_RENAMED, own, {}},
        {G_FILE_MONITOR_EVENT_MOVED_IN, own, {}},
        {G_FILE_MONITOR_EVENT_MOVED_OUT, own, {}},
    };
    MainLoop loop;
    start(loop);
    for (const EventRow& row : rows) {
        SCOPED_TRACE(std::to_string(row.event) + " of " + row.file);
        for (const bool changed : {false, true}) {
            gs_oAnswers.changed = changed;
            gs_oAnswers.asked.clear();
            gs_oAnswers.rechecks = 0;
            m_oCollector.clear();
            callFileHandler(gs_aFileHandlers[1], row.file, row.event);
            EXPECT_EQ(gs_oAnswers.asked, row.asked);
            EXPECT_EQ(gs_oAnswers.rechecks, changed && !row.asked.empty() ? 1 : 0);
            EXPECT_EQ(m_oCollector.lines().empty(), row.asked.empty());
        }
    }
}

// LateEvents have been queued before the loop was told to quit.
class LateEvents : public MainLoopTest {
protected:
    // checkNothingHappens calls every handler but that of the signal which has stopped the loop, if one has.
    void checkNothingHappens(int stopSignal) const {
        gs_oAnswers.changed = true;
        EXPECT_FALSE(callTimer(SOON));
        EXPECT_TRUE(callTimer(HOUR));
        EXPECT_TRUE(gs_aSignals[SIGHUP].call());
        EXPECT_FALSE(gs_aSignals[stopSignal].call());
        for (const int inputId : {0, 1})
            callFileHandler(gs_aFileHandlers[inputId], gs_oAnswers.paths[inputId]);
        EXPECT_THAT(gs_oAnswers.asked, IsEmpty());
    }
};

TEST_F(LateEvents, DoNothingAfterAStop) {
    {
        gs_oAnswers.next = currentSeconds() + SOON;
        MainLoop loop;
        start(loop);
        EXPECT_FALSE(gs_aSignals[SIGTERM].call());
        checkNothingHappens(SIGINT);
        EXPECT_FALSE(loop.m_bFailed);
    }
    EXPECT_THAT(m_oCollector.lines(), ElementsAre("INFO terminating on signal"));
    EXPECT_EQ(runs(), "run\n");
}

TEST_F(LateEvents, DoNothingAfterAFailure) {
    {
        gs_oAnswers.next = currentSeconds() + SOON;
        MainLoop loop;
        start(loop);
        gs_oAnswers.changed = true;
        gs_oAnswers.next = 0;
        const Callback scheduled = gs_aTimers.begin()->second;
        forbidPublication();
        EXPECT_TRUE(callTimer(HOUR));
        EXPECT_TRUE(loop.m_bFailed);
        gs_aTimers[SOON] = scheduled;
        checkNothingHappens(SIGTERM);
        EXPECT_TRUE(loop.m_bFailed);
    }
    const std::string open = "ERROR failed to open " + g_strWatchFile + ".tmp: No such file or directory";
    EXPECT_THAT(m_oCollector.lines(), ElementsAre("INFO periodic features check", "INFO features list updated: name",
                                                  open, "FATAL terminating on failure to update features"));
    EXPECT_EQ(runs(), "run\n");
}

TEST_F(MainLoopTest, StopDuringAFailingUpdateIsAStop) {
    MainLoop loop;
    start(loop);
    forbidPublication();
    gs_oAnswers.changed = true;
    gs_oAnswers.duringRecheck = [] { gs_aSignals[SIGTERM].call(); };
    EXPECT_TRUE(callTimer(HOUR));
    EXPECT_FALSE(loop.m_bFailed);
    EXPECT_THAT(m_oCollector.lines(), Contains("INFO terminating on signal"));
    EXPECT_THAT(m_oCollector.lines(), Not(Contains(StartsWith("FATAL"))));
}

}  // namespace
