// program.h: the program-wide objects.
//
// All are made by static initialisation in one order, which program.cpp shows, and destroyed at exit in the reverse
// one. They belong to the main thread. The command line sets the settings before a mode runs, and no mode changes them;
// the feature provider is what the modes work with.
#pragma once

#include <string>

#include "watch/feature_provider.h"

// DEFAULT_WATCH_FILE is the path of the features document unless the command line gives another.
extern const char* const DEFAULT_WATCH_FILE;

// g_strWatchFile is the path of the features document.
extern std::string g_strWatchFile;

// g_strScriptCmdline is the hook's command line; empty when there is no hook.
extern std::string g_strScriptCmdline;

// g_oFeatureProvider owns the device's feature list.
extern FeatureProvider g_oFeatureProvider;

// g_bDaemonize tells whether watch mode forks a daemon or stays in the foreground.
extern bool g_bDaemonize;

// g_bSwitchUser tells whether watch mode gives up the starting user's rights.
extern bool g_bSwitchUser;
