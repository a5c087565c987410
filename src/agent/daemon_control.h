// daemon_control.h: from the command line to a running watch loop and back.
//
// The daemon is forked through libdaemon: a status pipe reports to the starting command how the start really went, a
// PID file keeps a second daemon from starting and says whom to stop. Both functions run a whole mode on the main
// thread; their results are exit statuses.
#pragma once

// watchFeatures runs the watch mode. In the foreground (`g_bDaemonize` is false), and in the daemon, it returns when
// the loop has ended. In the starting command it returns as soon as the daemon has reported its status: 0 means that
// the features document exists.
int watchFeatures();

// killDaemon ends a running daemon and waits up to five seconds for its end. A failure is logged at FATAL level.
int killDaemon();
