// main_loop.h: the daemon proper.
#pragma once

#include <gio/gio.h>

#include <array>
#include <cstdint>

#include "watch/feature_provider.h"
#include "watch/script_launcher.h"

// MainLoop reacts to what can change the device's features: SIGHUP, which asks for a full recheck, a change of an input
// file, the moment at which the list changes by itself, and an hourly evaluation as the safety net. Each leads to one
// step: ask the feature provider whether the list changed, and if so publish the document and run the hook. SIGINT and
// SIGTERM end the loop.
//
// Life cycle: constructed on the stack of the watch mode, `startLauncher`, switch of the user, `start`, `m_pMainLoop`
// run with g_main_loop_run, destroyed. The destructor waits for the hook's pending runs. A stop that was asked for is
// never taken back: GLib may still deliver queued events then, and every handler does nothing.
//
// All handlers run on the thread that runs the loop, one after the other: no locks. Failures are logged.
class MainLoop {
public:
    MainLoop();
    MainLoop(const MainLoop&) = delete;
    MainLoop& operator=(const MainLoop&) = delete;
    ~MainLoop();

    // startLauncher forks the hook's launcher; it returns false on failure. It must come before the user switch (the
    // hook keeps the starting user's rights) and before `start` (the first signal source starts a thread of GLib's).
    bool startLauncher();

    // start publishes the first document, runs the hook and begins to watch; it returns false on failure. Kept: it
    // needs the launcher's process, so the daemon doesn't start without a hook command.
    bool start();

private:
    bool m_bQuitting = false;

public:
    // m_bFailed is true once the loop has stopped on a failure.
    bool m_bFailed = false;

    // m_pMainLoop is the loop to run, owned by this object; null before `start`.
    GMainLoop* m_pMainLoop = nullptr;

private:
    struct Input {
        GFile* m_pInputFile = nullptr;
        GFileMonitor* m_pInputMonitor = nullptr;
        GFileMonitor* m_pFolderMonitor = nullptr;
    };

    gboolean terminate();
    gboolean recheck_all();
    gboolean hourly_timeout();
    gboolean evaluation_timeout();
    template <int inputId>
    void input_file_changed(GFileMonitor* monitor, GFile* file, GFile* other, GFileMonitorEvent event);

    void addSignals();
    void warnIfUnwatchable();
    template <int inputId>
    bool watchInput();
    void keepFolderAwake(Input& input);
    void inputChanged(int inputId, GFile* file, GFileMonitorEvent event);
    bool reloadInput(int inputId);

    bool update(bool force);
    void updateOrQuit(bool force);
    void quit();
    void scheduleEvaluation(int64_t now, int64_t next);
    void cancelEvaluation();
    bool updateFeatures(int64_t now, int64_t& next);
    void log_features(bool changed);

    std::array<Input, FeatureProvider::INPUT_COUNT> m_aInputs;
    guint m_nEvaluationTimer = 0;
    ScriptLauncher m_oLauncher;
};
