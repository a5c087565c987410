#include "watch/main_loop.h"

#include <glib-unix.h>

#include <cerrno>
#include <csignal>
#include <fstream>

#include "foundation/string_utils.h"
#include "watch/app_logger.h"
#include "watch/atomic_replace_file.h"
#include "watch/class_callback.h"
#include "watch/clock.h"
#include "watch/program.h"

namespace {

constexpr int INPUT_COUNT = 2;
constexpr guint HOURLY_SECONDS = 3600;

bool inUse(int inputId) {
    return !g_oFeatureProvider.inputPath(inputId).empty();
}

}  // namespace

MainLoop::MainLoop() : m_oLauncher(g_strScriptCmdline) {}

MainLoop::~MainLoop() {
    m_oLauncher.stop();
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
    addSignals();
    g_oFeatureProvider.init(currentSeconds());
    for (int inputId = 0; inputId < INPUT_COUNT; ++inputId)
        reloadInput(inputId);
    if (!update(true))
        return false;
    g_timeout_add_seconds(HOURLY_SECONDS, class_callback<MainLoop, &MainLoop::hourly_timeout>::call, this);
    return watchInput<0>() && watchInput<1>();
}

void MainLoop::addSignals() {
    g_unix_signal_add(SIGINT, class_callback<MainLoop, &MainLoop::terminate>::call, this);
    g_unix_signal_add(SIGTERM, class_callback<MainLoop, &MainLoop::terminate>::call, this);
    g_unix_signal_add(SIGHUP, class_callback<MainLoop, &MainLoop::recheck_all>::call, this);
}

// reloadInput reads an input anew and tells whether the list changed. An input that isn't in use never changes it.
bool MainLoop::reloadInput(int inputId) {
    if (!inUse(inputId))
        return false;
    const bool dropped = g_oFeatureProvider.dropInput(inputId);
    const bool loaded = g_oFeatureProvider.loadInput(inputId);
    return dropped || loaded;
}

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
        ORVLOG_FATAL(gs_pAppLogger, "failed to watch %s: %s", path.c_str(), error->message);
        g_error_free(error);
        return false;
    }
    g_signal_connect_data(input.m_pInputMonitor, "changed",
                          G_CALLBACK((class_callback<MainLoop, &MainLoop::input_file_changed<inputId>>::call)), this,
                          nullptr, GConnectFlags(0));
    keepFolderAwake(input);
    return true;
}

// keepFolderAwake watches the input's folder too, though nobody listens. After an event that no monitor asked for GIO
// sleeps for 100 ms, and a file written beside the input and renamed over it would be noticed that late. If it fails,
// it is only slow.
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
    return FALSE;
}

gboolean MainLoop::recheck_all() {
    if (m_bQuitting)
        return TRUE;
    ORVLOG_INFO(gs_pAppLogger, "requested to recheck all features");
    bool changed = false;
    for (int inputId = 0; inputId < INPUT_COUNT; ++inputId)
        changed |= reloadInput(inputId);
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
    // A rename in the input's folder is told under the other name as well, which is no change of the input. An unmount
    // may be told of the folder.
    if (!unmounted && !g_file_equal(file, m_aInputs[inputId].m_pInputFile))
        return;
    ORVLOG_INFO(gs_pAppLogger, "features input %s was modified", g_oFeatureProvider.inputPath(inputId).c_str());
    const bool changed = present ? reloadInput(inputId) : g_oFeatureProvider.dropInput(inputId);
    if (changed)
        updateOrQuit(true);
}

bool MainLoop::update(bool force) {
    const int64_t now = currentSeconds();
    const bool changed = g_oFeatureProvider.recheckAll(now);
    if (!changed && !force) {
        log_features(false);
        return true;
    }
    log_features(true);
    cancelEvaluation();
    int64_t next = 0;
    const bool published = updateFeatures(now, next);
    scheduleEvaluation(now, next);
    return published && m_oLauncher.launch();
}

void MainLoop::updateOrQuit(bool force) {
    if (!update(force))
        quit();
}

void MainLoop::quit() {
    if (m_bQuitting)
        return;
    ORVLOG_FATAL(gs_pAppLogger, "terminating on failure to update features");
    m_bQuitting = true;
    m_bFailed = true;
    g_main_loop_quit(m_pMainLoop);
}

// scheduleEvaluation arms the one-shot timer for the instant `next`; 0, or an instant that isn't ahead, arms none.
void MainLoop::scheduleEvaluation(int64_t now, int64_t next) {
    if (next <= 0 || next - now <= 0)
        return;
    const guint interval = static_cast<uint32_t>(next - now) + 1;
    ORVLOG_INFO(gs_pAppLogger, "features check scheduled in %u seconds", interval);
    m_nEvaluationTimer =
        g_timeout_add_seconds(interval, class_callback<MainLoop, &MainLoop::evaluation_timeout>::call, this);
}

void MainLoop::cancelEvaluation() {
    if (m_nEvaluationTimer == 0)
        return;
    g_source_remove(m_nEvaluationTimer);
    m_nEvaluationTimer = 0;
}

bool MainLoop::updateFeatures(int64_t now, int64_t& next) {
    AtomicReplaceFile file(g_strWatchFile);
    std::ofstream stream(file.m_strTemp, std::ios::out | std::ios::trunc);
    if (stream.fail()) {
        ORVLOG_ERROR(gs_pAppLogger, "failed to open %s: %s", file.m_strTemp.c_str(), g_strerror(errno));
        return false;
    }
    next = g_oFeatureProvider.writeFeatures(now, stream);
    stream.close();  // before the test, so that a full disk counts as a failed write
    if (stream.fail()) {
        ORVLOG_ERROR(gs_pAppLogger, "failed to write %s: %s", file.m_strTemp.c_str(), g_strerror(errno));
        return false;
    }
    return file.commit();
}

void MainLoop::log_features(bool changed) {
    if (!changed)
        ORVLOG_INFO(gs_pAppLogger, "features list unchanged");
    else
        ORVLOG_INFO(gs_pAppLogger, "features list updated: %s",
                    join(g_oFeatureProvider.activeFeatureNames(), ", ").c_str());
}
