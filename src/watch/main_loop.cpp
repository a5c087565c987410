#include "watch/main_loop.h"

#include <glib-unix.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <fstream>

#include "foundation/string_utils.h"
#include "watch/app_logger.h"
#include "watch/atomic_replace_file.h"
#include "watch/class_callback.h"
#include "watch/clock.h"
#include "watch/program.h"
#include "watch/record_text.h"

namespace {

constexpr int INPUT_COUNT = FeatureProvider::INPUT_COUNT;
constexpr guint HOURLY_SECONDS = 3600;

// inUse returns whether the provider reads this input.
bool inUse(int inputId) {
    return !g_oFeatureProvider.inputPath(inputId).empty();
}

// WatchProbe watches folders as GIO does, to find out whether the kernel allows it.
class WatchProbe {
public:
    WatchProbe() : m_nFd(inotify_init1(IN_CLOEXEC)) {}
    WatchProbe(const WatchProbe&) = delete;
    WatchProbe& operator=(const WatchProbe&) = delete;
    ~WatchProbe() {
        if (m_nFd != -1)
            close(m_nFd);
    }

    // watch returns false, with errno, if the kernel refuses to watch the folder of `path`. A folder that doesn't exist
    // isn't refused: GIO looks for it from time to time.
    bool watch(const std::string& path) const {
        const std::string folder = path.substr(0, path.rfind('/') + 1);
        return m_nFd != -1 && (inotify_add_watch(m_nFd, folder.c_str(), IN_CREATE) != -1 || errno == ENOENT);
    }

private:
    const int m_nFd;
};

}  // namespace

MainLoop::MainLoop() : m_oLauncher(g_strScriptCmdline) {}

MainLoop::~MainLoop() {
    m_oLauncher.stop();  // first, because it waits for the hook's runs, which belong to what was published
    for (int inputId = INPUT_COUNT - 1; inputId >= 0; --inputId) {
        g_clear_object(&m_aInputs[inputId].m_pFolderMonitor);
        g_clear_object(&m_aInputs[inputId].m_pInputMonitor);
        g_clear_object(&m_aInputs[inputId].m_pInputFile);
    }
    if (m_pMainLoop != nullptr)
        g_main_loop_unref(m_pMainLoop);
}

bool MainLoop::startLauncher() {
    if (m_oLauncher.start())
        return true;
    ORVLOG_FATAL(gs_pAppLogger, "failed to start script launcher");
    return false;
}

bool MainLoop::start() {
    if (!m_oLauncher.hasProcess()) {
        ORVLOG_FATAL(gs_pAppLogger, "script launcher was not started");
        return false;
    }
    m_pMainLoop = g_main_loop_new(nullptr, FALSE);
    addSignals();  // before the work, so that a stop during it is not lost: it is handled once the loop runs
    g_oFeatureProvider.init(currentSeconds());
    for (int inputId = 0; inputId < INPUT_COUNT; ++inputId)
        reloadInput(inputId);
    if (!update(true))
        return false;
    g_timeout_add_seconds(HOURLY_SECONDS, class_callback<MainLoop, &MainLoop::hourly_timeout>::call, this);
    warnIfUnwatchable();
    // A change between the first reading and this point causes no event; the next evaluation finds it by the file's
    // state.
    return watchInput<0>() && watchInput<1>();
}

// warnIfUnwatchable warns once if the kernel refuses to watch an input's folder, because GIO does not say so. The
// daemon runs all the same: its evaluations find the changes, only later. The probe watches all folders
// at the same time, as GIO will, and is closed before GIO begins, because both use the same limits.
void MainLoop::warnIfUnwatchable() {
    const WatchProbe probe;
    for (int inputId = 0; inputId < INPUT_COUNT; ++inputId) {
        const std::string path = g_oFeatureProvider.inputPath(inputId);
        if (!inUse(inputId) || probe.watch(path))
            continue;
        ORVLOG_WARN(gs_pAppLogger, "failed to watch %s, its changes will be noticed late: %s", recordText(path).c_str(),
                    g_strerror(errno));
        return;
    }
}

void MainLoop::addSignals() {
    g_unix_signal_add(SIGINT, class_callback<MainLoop, &MainLoop::terminate>::call, this);
    g_unix_signal_add(SIGTERM, class_callback<MainLoop, &MainLoop::terminate>::call, this);
    g_unix_signal_add(SIGHUP, class_callback<MainLoop, &MainLoop::recheck_all>::call, this);
}

// reloadInput reads an input again and returns whether the list changed. An input that isn't in use never changes it.
bool MainLoop::reloadInput(int inputId) {
    if (!inUse(inputId))
        return false;
    const bool dropped = g_oFeatureProvider.dropInput(inputId);
    const bool loaded = g_oFeatureProvider.loadInput(inputId);
    return dropped || loaded;
}

// watchInput has GIO report the changes of an input; it returns false on failure. The input's number is a template
// argument because the callback has no other place for it.
template <int inputId>
bool MainLoop::watchInput() {
    if (!inUse(inputId))
        return true;
    const std::string path = g_oFeatureProvider.inputPath(inputId);
    Input& input = m_aInputs[inputId];
    input.m_pInputFile = g_file_new_for_path(path.c_str());
    GError* error = nullptr;
    input.m_pInputMonitor = g_file_monitor_file(input.m_pInputFile, G_FILE_MONITOR_NONE, nullptr, &error);
    if (input.m_pInputMonitor == nullptr) {
        ORVLOG_FATAL(gs_pAppLogger, "failed to watch %s: %s", recordText(path).c_str(), error->message);
        g_error_free(error);
        return false;
    }
    g_signal_connect_data(input.m_pInputMonitor, "changed",
                          G_CALLBACK((class_callback<MainLoop, &MainLoop::input_file_changed<inputId>>::call)), this,
                          nullptr, GConnectFlags(0));
    keepFolderAwake(input);
    return true;
}

// keepFolderAwake watches the input's folder too, though nobody listens. After an event that no monitor asked for, GIO
// sleeps for 100 ms, and a file written beside the input and renamed over it would be noticed that late. If this watch
// fails, changes are merely noticed later.
void MainLoop::keepFolderAwake(Input& input) {
    GFile* folder = g_file_get_parent(input.m_pInputFile);
    input.m_pFolderMonitor = g_file_monitor_directory(folder, G_FILE_MONITOR_NONE, nullptr, nullptr);
    g_object_unref(folder);
}

gboolean MainLoop::terminate() {
    if (m_bQuitting)
        return FALSE;
    ORVLOG_INFO(gs_pAppLogger, "terminating on signal");
    m_bQuitting = true;
    g_main_loop_quit(m_pMainLoop);
    return FALSE;  // the source goes away: a second signal of this kind has its default effect
}

gboolean MainLoop::recheck_all() {
    if (m_bQuitting)
        return TRUE;
    ORVLOG_INFO(gs_pAppLogger, "requested to recheck all features");
    bool changed = false;
    for (int inputId = 0; inputId < INPUT_COUNT; ++inputId)
        changed |= reloadInput(inputId);  // each is read, whatever the others brought
    updateOrQuit(changed);
    return TRUE;
}

gboolean MainLoop::hourly_timeout() {
    if (m_bQuitting)
        return TRUE;
    ORVLOG_INFO(gs_pAppLogger, "periodic features check");
    updateOrQuit(false);
    return TRUE;
}

gboolean MainLoop::evaluation_timeout() {
    m_nEvaluationTimer = 0;  // GLib drops the source on the false result
    if (m_bQuitting)
        return FALSE;
    ORVLOG_INFO(gs_pAppLogger, "scheduled features check");
    updateOrQuit(false);
    return FALSE;
}

template <int inputId>
void MainLoop::input_file_changed(GFileMonitor*, GFile* file, GFile*, GFileMonitorEvent event) {
    inputChanged(inputId, file, event);
}

void MainLoop::inputChanged(int inputId, GFile* file, GFileMonitorEvent event) {
    if (m_bQuitting)
        return;
    const bool unmounted = event == G_FILE_MONITOR_EVENT_UNMOUNTED;
    const bool present = event == G_FILE_MONITOR_EVENT_CREATED || event == G_FILE_MONITOR_EVENT_CHANGED;
    if (!present && !unmounted && event != G_FILE_MONITOR_EVENT_DELETED)
        return;
    // A rename in the input's folder is also reported under the other name; that does not change the input. An unmount
    // may be reported of the folder.
    if (!unmounted && !g_file_equal(file, m_aInputs[inputId].m_pInputFile))
        return;
    ORVLOG_INFO(gs_pAppLogger, "features input %s was modified",
                recordText(g_oFeatureProvider.inputPath(inputId)).c_str());
    const bool changed = present ? reloadInput(inputId) : g_oFeatureProvider.dropInput(inputId);
    if (changed)
        updateOrQuit(true);
}

// update publishes the list and runs the hook if the list changed or `force` says that it did; it returns false on
// failure.
bool MainLoop::update(bool force) {
    const int64_t now = currentSeconds();
    const bool changed = g_oFeatureProvider.recheckAll(now);
    if (!changed && !force) {
        log_features(false);
        return true;  // an armed timer stays as it is: the list still changes at its instant
    }
    log_features(true);
    cancelEvaluation();
    int64_t next = 0;
    const bool published = updateFeatures(now, next);
    scheduleEvaluation(now, next);  // kept: a failed publication, which ends the daemon, arms the timer as well
    return published && m_oLauncher.launch();
}

void MainLoop::updateOrQuit(bool force) {
    if (!update(force))
        quit();
}

// quit ends the loop on a failure.
void MainLoop::quit() {
    if (m_bQuitting)
        return;
    ORVLOG_FATAL(gs_pAppLogger, "terminating on failure to update features");
    m_bQuitting = true;
    m_bFailed = true;
    g_main_loop_quit(m_pMainLoop);
}

// scheduleEvaluation arms the one-shot timer for the instant `next`, unless that is 0 or isn't ahead. The timer fires a
// second later, because the clock's fraction of a second was cut off.
void MainLoop::scheduleEvaluation(int64_t now, int64_t next) {
    if (next <= 0 || next - now <= 0)
        return;
    const guint interval =
        static_cast<uint32_t>(next - now) + 1;  // kept: cut to 32 bits; a check too early does no harm
    ORVLOG_INFO(gs_pAppLogger, "features check scheduled in %u seconds", interval);
    m_nEvaluationTimer =
        g_timeout_add_seconds(interval, class_callback<MainLoop, &MainLoop::evaluation_timeout>::call, this);
}

// cancelEvaluation takes the one-shot timer back: the publication that follows has an instant of its own.
void MainLoop::cancelEvaluation() {
    if (m_nEvaluationTimer == 0)
        return;
    g_source_remove(m_nEvaluationTimer);
    m_nEvaluationTimer = 0;
}

// updateFeatures writes the features document and puts it in place; it returns false on failure. `next` becomes the
// instant at which the list changes by itself, even if the file can't be put in place.
bool MainLoop::updateFeatures(int64_t now, int64_t& next) {
    AtomicReplaceFile file(g_strWatchFile);
    std::ofstream stream(file.m_strTemp, std::ios::out | std::ios::trunc);
    if (stream.fail()) {
        ORVLOG_ERROR(gs_pAppLogger, "failed to open %s: %s", recordText(file.m_strTemp).c_str(), g_strerror(errno));
        return false;
    }
    next = g_oFeatureProvider.writeFeatures(now, stream);
    stream.close();  // before the test, so that a full disk counts as a failed write
    if (stream.fail()) {
        ORVLOG_ERROR(gs_pAppLogger, "failed to write %s: %s", recordText(file.m_strTemp).c_str(), g_strerror(errno));
        return false;
    }
    return file.commit();
}

// log_features reports the list as last judged. The macro asks for the names only if the record will be made.
void MainLoop::log_features(bool changed) {
    if (!changed)
        ORVLOG_INFO(gs_pAppLogger, "features list unchanged");
    else
        ORVLOG_INFO(gs_pAppLogger, "features list updated: %s",
                    recordText(join(g_oFeatureProvider.activeFeatureNames(), ", ")).c_str());
}
