#include "agent/daemon_control.h"

#include <glib.h>
#include <libdaemon/daemon.h>
#include <pthread.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <optional>

#include "agent/glib_log_handlers.h"
#include "agent/pid_file.h"
#include "agent/pipe_signal.h"
#include "agent/user_switch.h"
#include "watch/app_logger.h"
#include "watch/main_loop.h"
#include "watch/program.h"

namespace {

constexpr const char* PROGRAM_NAME = "featurewatch";
constexpr const char* DAEMON_USER = "featurewatch";
constexpr mode_t DAEMON_UMASK = 022;
constexpr int STATUS_TIMEOUT_SECONDS = 10;
constexpr int KILL_TIMEOUT_SECONDS = 5;

// sendStatus reports to the starting command how the start went, and returns `status`. A starter that was killed or has
// waited long enough is gone by now; the broken pipe must not end the daemon.
int sendStatus(int status) {
    const IgnoredPipeSignal ignored;
    daemon_retval_send(status);
    return status;
}

// ignoreSizeSignal makes a file size limit a failed write like any other. By default the signal for it ends the process
// without a record.
void ignoreSizeSignal() {
    std::signal(SIGXFSZ, SIG_IGN);
}

// prepareFork does what comes before the fork. Returns false after a FATAL record.
bool prepareFork() {
    usePidFile();
    daemon_log_ident = PROGRAM_NAME;
    openlog(PROGRAM_NAME, LOG_PID | LOG_PERROR, LOG_DAEMON);
    set_glib_default_log_handler_to_syslog(false);
    if (daemon_reset_sigs(-1) < 0 || daemon_unblock_sigs(-1) < 0) {
        ORVLOG_FATAL(gs_pAppLogger, "failed to reset and unblock signals: %s", g_strerror(errno));
        return false;
    }
    ignoreSizeSignal();
    if (!removeForeignPidFile())
        return false;
    const pid_t running = runningDaemon();
    if (running >= 0) {
        ORVLOG_FATAL(gs_pAppLogger, "daemon already running with PID %u", static_cast<unsigned>(running));
        return false;
    }
    if (daemon_retval_init() < 0) {
        ORVLOG_FATAL(gs_pAppLogger, "failed to initialize for forking");
        return false;
    }
    return true;
}

// awaitDaemon returns the exit status of the starting command.
int awaitDaemon() {
    const int status = daemon_retval_wait(STATUS_TIMEOUT_SECONDS);
    if (status == -1) {
        ORVLOG_FATAL(gs_pAppLogger, "failed to receive status from forked daemon");
        return EXIT_FAILURE;
    }
    if (status != 0)
        ORVLOG_FATAL(gs_pAppLogger, "forked daemon failed (%d)", status);
    return status;
}

// settleDaemon makes the forked child a daemon with a PID file. Returns false after a FATAL record.
bool settleDaemon() {
    closelog();  // otherwise libc would keep the number of a descriptor that is closed below
    openlog(PROGRAM_NAME, LOG_PID, LOG_DAEMON);
    umask(DAEMON_UMASK);
    if (daemon_close_all(-1) < 0) {
        ORVLOG_FATAL(gs_pAppLogger, "failed to close unneeded file descriptors: %s", g_strerror(errno));
        return false;
    }
    pthread_atfork(nullptr, nullptr, daemon_retval_done);  // the status pipe isn't for the launcher and the hook
    if (!createPidFile()) {
        ORVLOG_FATAL(gs_pAppLogger, "could not create PID file: %s", g_strerror(errno));
        return false;
    }
    return true;
}

// daemonize forks. Returns an exit status in a process that has nothing more to do: the starting command, or a child
// that failed. The daemon gets none and goes on.
std::optional<int> daemonize() {
    if (!prepareFork())
        return EXIT_FAILURE;
    const pid_t child = daemon_fork();
    if (child < 0) {
        ORVLOG_FATAL(gs_pAppLogger, "failed to fork: %s", g_strerror(errno));
        return EXIT_FAILURE;
    }
    if (child > 0)
        return awaitDaemon();
    if (!settleDaemon())
        return sendStatus(EXIT_FAILURE);
    return std::nullopt;
}

// startLoop brings the loop to its first publication. The launcher is made before the switch, so that the hook keeps
// the rights that the daemon gives up.
bool startLoop(MainLoop& loop) {
    if (!loop.startLauncher())
        return false;
    if (g_bSwitchUser && daemon_user_switch(DAEMON_USER, 0) != 0)
        return false;
    if (!loop.start()) {
        ORVLOG_FATAL(gs_pAppLogger, "failed to write initial status");
        return false;
    }
    return true;
}

}  // namespace

int watchFeatures() {
    if (g_bDaemonize) {
        const std::optional<int> status = daemonize();
        if (status)
            return *status;
    } else {
        ignoreSizeSignal();
    }
    MainLoop loop;
    if (!startLoop(loop))
        return g_bDaemonize ? sendStatus(EXIT_FAILURE) : EXIT_FAILURE;
    if (g_bDaemonize)
        sendStatus(EXIT_SUCCESS);
    ORVLOG_INFO(gs_pAppLogger, "%s started with PID %d", PROGRAM_NAME, static_cast<int>(getpid()));
    g_main_loop_run(loop.m_pMainLoop);
    return loop.m_bFailed ? EXIT_FAILURE : EXIT_SUCCESS;
}

int killDaemon() {
    usePidFile();
    if (!stopRunningDaemon(KILL_TIMEOUT_SECONDS)) {
        ORVLOG_FATAL(gs_pAppLogger, "failed to kill daemon: %s", g_strerror(errno));
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
