#include "agent/daemon_control.h"

#include <glib.h>
#include <libdaemon/daemon.h>
#include <pthread.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <optional>

#include "agent/glib_log_handlers.h"
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

const char* daemonPidFilePath() {
    return "/run/featurewatch/featurewatch.pid";
}

void setPidFile() {
    daemon_pid_file_ident = PROGRAM_NAME;
    daemon_pid_file_proc = daemonPidFilePath;
}

// sendStatus tells the starting command how the start went. A starter that has gone away in the meantime, for it was
// killed or has waited long enough, must not end the daemon by a broken pipe.
int sendStatus(int status) {
    const IgnoredPipeSignal ignored;
    daemon_retval_send(status);
    return status;
}

// prepareFork does what comes before the fork; false after a FATAL record.
bool prepareFork() {
    setPidFile();
    daemon_log_ident = PROGRAM_NAME;
    openlog(PROGRAM_NAME, LOG_PID | LOG_PERROR, LOG_DAEMON);
    set_glib_default_log_handler_to_syslog(false);
    if (daemon_reset_sigs(-1) < 0 || daemon_unblock_sigs(-1) < 0) {
        ORVLOG_FATAL(gs_pAppLogger, "failed to reset and unblock signals: %s", g_strerror(errno));
        return false;
    }
    const pid_t running = daemon_pid_file_is_running();
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

// awaitDaemon gives the exit status of the starting command.
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

// settleDaemon makes the forked child a daemon with a PID file; false after a FATAL record.
bool settleDaemon() {
    closelog();  // else libc would keep the number of a descriptor that is closed below
    openlog(PROGRAM_NAME, LOG_PID, LOG_DAEMON);
    umask(DAEMON_UMASK);
    if (daemon_close_all(-1) < 0) {
        ORVLOG_FATAL(gs_pAppLogger, "failed to close unneeded file descriptors: %s", g_strerror(errno));
        return false;
    }
    pthread_atfork(nullptr, nullptr, daemon_retval_done);  // the status pipe isn't for the launcher and the hook
    if (daemon_pid_file_create() < 0) {
        ORVLOG_FATAL(gs_pAppLogger, "could not create PID file: %s", g_strerror(errno));
        return false;
    }
    atexit([] { daemon_pid_file_remove(); });
    return true;
}

// daemonize forks. The result is the exit status of the process that is done with it: the starting command, or a child
// that failed. The daemon goes on without one.
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

// startLoop brings the loop to its first publication. The launcher comes before the switch, so that the hook keeps the
// rights that the daemon gives up.
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

// killRunning ends the process of the PID file. An empty file reads as process 0, which would be our own process group.
int killRunning() {
    const pid_t running = daemon_pid_file_is_running();
    if (running == 0)
        errno = ESRCH;
    if (running <= 0)
        return -1;
    return daemon_pid_file_kill_wait(SIGTERM, KILL_TIMEOUT_SECONDS);
}

}  // namespace

int watchFeatures() {
    if (g_bDaemonize) {
        const std::optional<int> status = daemonize();
        if (status)
            return *status;
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
    setPidFile();
    if (killRunning() < 0) {
        ORVLOG_FATAL(gs_pAppLogger, "failed to kill daemon: %s", g_strerror(errno));
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
