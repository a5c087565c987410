#include "watch/script_launcher.h"

#include <fcntl.h>
#include <glib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fstream>

#include "watch/app_logger.h"

namespace {

constexpr char RUN_BYTE = 'R';
constexpr char QUIT_BYTE = 'Q';
constexpr const char* PROCESS_NAME = "featurewatch-x";

bool writeByte(int fd, char byte) {
    return write(fd, &byte, 1) == 1;
}

void closeFd(int& fd) {
    if (fd != -1)
        close(fd);
    fd = -1;
}

// redirectToNull puts /dev/null on the `count` descriptors from `first` on; if it can't be opened they stay as they
// are.
void redirectToNull(int flags, int first, int count) {
    const int null = open("/dev/null", flags | O_CLOEXEC);
    if (null == -1)
        return;
    for (int fd = first; fd < first + count; ++fd)
        dup2(null, fd);
    close(null);
}

// enlargePipe lets the pipe hold as many packets as an ordinary process may have, so that a slow hook doesn't hold up
// the daemon's write: a packet takes a whole slot, and a pipe has 16 to begin with.
void enlargePipe(int fd) {
    int size = 0;
    std::ifstream("/proc/sys/fs/pipe-max-size") >> size;
    const int current = fcntl(fd, F_GETPIPE_SZ);
    while (current > 0 && size > current && fcntl(fd, F_SETPIPE_SZ, size) == -1)
        size /= 2;
}

}  // namespace

ScriptLauncher::ScriptLauncher(const std::string& cmdline) : m_strCmdline(cmdline) {}

bool ScriptLauncher::start() {
    if (m_strCmdline.empty())
        return true;
    std::signal(SIGCHLD, SIG_DFL);  // if the starter left it ignored, no exit status would ever be told
    int ends[2];
    if (pipe2(ends, O_CLOEXEC | O_DIRECT) == -1) {
        ORVLOG_ERROR(gs_pAppLogger, "failed to create script launcher pipe: %s", g_strerror(errno));
        return false;
    }
    m_nReadFd = ends[0];
    m_nWriteFd = ends[1];
    enlargePipe(m_nWriteFd);
    m_nPid = fork();
    if (m_nPid == -1) {
        ORVLOG_ERROR(gs_pAppLogger, "failed to fork script launcher: %s", g_strerror(errno));
        closePipe();
        return false;
    }
    if (m_nPid == 0)
        becomeLauncher();
    closeFd(m_nReadFd);
    return true;
}

bool ScriptLauncher::launch() {
    if (!hasProcess())
        return true;
    if (!writeByte(m_nWriteFd, RUN_BYTE)) {
        ORVLOG_ERROR(gs_pAppLogger, "failed to signal script launcher: %s", g_strerror(errno));
        return false;
    }
    return true;
}

void ScriptLauncher::stop() {
    if (!hasProcess())
        return;
    int waitFlags = 0;
    if (!writeByte(m_nWriteFd, QUIT_BYTE)) {
        ORVLOG_ERROR(gs_pAppLogger, "failed sending quit to script launcher: %s", g_strerror(errno));
        waitFlags = WNOHANG;
    }
    int status = 0;
    const pid_t ended = waitpid(m_nPid, &status, waitFlags);
    if (ended == -1)
        ORVLOG_ERROR(gs_pAppLogger, "failed to wait for script launcher: %s", g_strerror(errno));
    else if (ended == m_nPid && WIFSIGNALED(status))
        ORVLOG_ERROR(gs_pAppLogger, "script launcher terminated by signal %d", WTERMSIG(status));
    else if (ended == m_nPid && WIFEXITED(status) && WEXITSTATUS(status) != 0)
        ORVLOG_ERROR(gs_pAppLogger, "script launcher exited with status %d", WEXITSTATUS(status));
    closePipe();
    m_nPid = -1;
}

void ScriptLauncher::closePipe() {
    closeFd(m_nReadFd);
    closeFd(m_nWriteFd);
}

// becomeLauncher turns the forked child into the launcher. It never returns into the daemon's code.
void ScriptLauncher::becomeLauncher() {
    closeFd(m_nWriteFd);  // the read end must see an end of file when the daemon dies
    setpgid(0, 0);        // a Ctrl-C in the foreground is for the daemon, which then stops this process in good order
    std::signal(SIGXFSZ, SIG_DFL);  // ignored in the daemon alone: the command gets the default
    redirectToNull(O_RDONLY, STDIN_FILENO, 1);
    redirectToNull(O_WRONLY, STDOUT_FILENO, 2);
    if (prctl(PR_SET_NAME, PROCESS_NAME) == -1)
        ORVLOG_ERROR(gs_pAppLogger, "failed to set script launcher process name: %s", g_strerror(errno));
    exit(main());
}

int ScriptLauncher::main() {
    for (;;) {
        m_aBuffer[0] = '\0';
        const ssize_t length = read(m_nReadFd, m_aBuffer.data(), m_aBuffer.size());
        if (length == -1) {
            ORVLOG_ERROR(gs_pAppLogger, "failed to read from script launcher pipe: %s", g_strerror(errno));
            return 1;
        }
        if (length == 0 || (length == 1 && m_aBuffer[0] == QUIT_BYTE))
            break;
        if (length == 1 && m_aBuffer[0] == RUN_BYTE)
            runCommand();
    }
    ORVLOG_DEBUG(gs_pAppLogger, "stopping script launcher");
    return 0;
}

void ScriptLauncher::runCommand() {
    ORVLOG_DEBUG(gs_pAppLogger, "running script: %s", m_strCmdline.c_str());
    const int status = system(m_strCmdline.c_str());
    if (status == -1)
        ORVLOG_ERROR(gs_pAppLogger, "failed to run script: %s", g_strerror(errno));
    else if (WIFSIGNALED(status))
        ORVLOG_ERROR(gs_pAppLogger, "script terminated by signal %d", WTERMSIG(status));
    else if (WIFEXITED(status) && WEXITSTATUS(status) != 0)
        ORVLOG_ERROR(gs_pAppLogger, "script exited with status %d", WEXITSTATUS(status));
}
