#include "agent/pid_file.h"

#include <fcntl.h>
#include <glib.h>
#include <libdaemon/daemon.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <string_view>

#include "watch/app_logger.h"

namespace {

constexpr uid_t ROOT = 0;
constexpr const char* PID_FILE_IDENTITY = "featurewatch";

// gs_oOwnFile is what this process made. The launcher, forked from it, inherits the value.
struct stat gs_oOwnFile = {};

// pidFilePath has the form in which libdaemon asks for the path.
const char* pidFilePath() {
    return "/run/featurewatch/featurewatch.pid";
}

// Descriptor closes the file when it goes.
struct Descriptor {
    explicit Descriptor(int fd) : m_nFd(fd) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() {
        if (m_nFd != -1)
            close(m_nFd);
    }

    const int m_nFd;
};

// openPidFile opens the file only to look at it: nothing there can hold this up.
int openPidFile() {
    return open(pidFilePath(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
}

// readProcessId returns the number at the beginning of the file; 0 if there is none.
pid_t readProcessId(int fd) {
    std::array<char, 32> text;
    const ssize_t length = read(fd, text.data(), text.size());
    pid_t pid = 0;
    if (length > 0)
        std::from_chars(text.data(), text.data() + length, pid);
    return pid;
}

// isLocked returns whether somebody holds a lock that libdaemon would wait for.
bool isLocked(int fd) {
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    return fcntl(fd, F_GETLK, &lock) != 0 || lock.l_type != F_UNLCK;
}

// runsAs returns whether the process lives and has `user` as its real user id. The owner of its folder in /proc doesn't
// show that: it is root once the process has changed its user.
bool runsAs(pid_t pid, uid_t user) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string word; status >> word;) {
        uid_t real = 0;
        if (word == "Uid:")
            return status >> real && real == user;
    }
    return false;
}

// namesProcessOf returns whether a file of `user` names a process of that user, who can harm nobody else by it.
bool namesProcessOf(uid_t user) {
    const Descriptor file(openPidFile());
    if (file.m_nFd == -1 || isLocked(file.m_nFd))
        return false;
    const pid_t pid = readProcessId(file.m_nFd);
    return pid > 0 && runsAs(pid, user);
}

// whyForeign returns why a file with this status must not be believed, or null.
const char* whyForeign(const struct stat& status) {
    if (!S_ISREG(status.st_mode))
        return "not a regular file";
    if (status.st_nlink != 1)
        return "a file with several names";
    if (status.st_uid != ROOT && status.st_uid != geteuid() && !namesProcessOf(status.st_uid))
        return "another user's";
    return nullptr;
}

// takeRightsOf makes root act as the file's owner. The owner can change the file at any moment; after this call only
// that user's own processes can be signalled.
bool takeRightsOf(uid_t owner) {
    return geteuid() != ROOT || owner == ROOT || setresuid(owner, owner, owner) == 0;
}

// isSameFile compares the time of writing too, because a file system may use a number again at once.
bool isSameFile(const struct stat& one, const struct stat& other) {
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino && one.st_mtim.tv_sec == other.st_mtim.tv_sec &&
           one.st_mtim.tv_nsec == other.st_mtim.tv_nsec;
}

// removeOwnPidFile spares the file of another daemon: this process may be a launcher that outlived its own. It does not
// read the file, which the daemon, having given up root's rights, may not.
void removeOwnPidFile() {
    struct stat status = {};
    if (lstat(pidFilePath(), &status) == 0 && isSameFile(status, gs_oOwnFile))
        daemon_pid_file_remove();
}

}  // namespace

void usePidFile() {
    daemon_pid_file_ident = PID_FILE_IDENTITY;
    daemon_pid_file_proc = pidFilePath;
}

bool removeForeignPidFile() {
    struct stat status = {};
    if (lstat(pidFilePath(), &status) != 0)
        return true;
    const char* reason = whyForeign(status);
    if (reason == nullptr)
        return true;
    if (remove(pidFilePath()) != 0) {
        ORVLOG_FATAL(gs_pAppLogger, "failed to remove PID file %s, which is %s: %s", pidFilePath(), reason,
                     g_strerror(errno));
        return false;
    }
    ORVLOG_WARN(gs_pAppLogger, "removed PID file %s, which was %s", pidFilePath(), reason);
    return true;
}

pid_t runningDaemon() {
    errno = 0;
    const pid_t running = daemon_pid_file_is_running();
    if (running >= 0)
        return running;
    if (errno == 0) {  // a negative number, which libdaemon takes for a process group that lives
        unlink(pidFilePath());
        errno = EINVAL;
    }
    return -1;
}

bool createPidFile() {
    if (daemon_pid_file_create() < 0)
        return false;
    if (lstat(pidFilePath(), &gs_oOwnFile) != 0 || chmod(pidFilePath(), S_IRUSR | S_IWUSR) != 0) {
        const int error = errno;
        daemon_pid_file_remove();
        errno = error;
        return false;
    }
    atexit(removeOwnPidFile);
    return true;
}

bool stopRunningDaemon(int seconds) {
    struct stat status = {};
    if (lstat(pidFilePath(), &status) != 0)
        return false;
    if (whyForeign(status) != nullptr) {
        errno = EPERM;
        return false;
    }
    if (!takeRightsOf(status.st_uid))
        return false;
    const pid_t running = runningDaemon();
    if (running == 0)
        errno = ESRCH;  // it would mean our own process group
    return running > 0 && daemon_pid_file_kill_wait(SIGTERM, seconds) >= 0;
}
