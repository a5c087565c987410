#include "agent/user_switch.h"

#include <glib.h>
#include <grp.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <memory>

namespace {

using PasswdHolder = std::unique_ptr<passwd, void (*)(void*)>;

// reportFailure returns the result of a failed switch.
int reportFailure(const char* user, const char* reason) {
    g_log(nullptr, G_LOG_LEVEL_CRITICAL, "failed switching to user '%s': %s", user, reason);
    return -1;
}

// keepCapabilities returns false, with errno, if the process flag could not be set.
bool keepCapabilities(bool keep) {
    return prctl(PR_SET_KEEPCAPS, keep ? 1 : 0) == 0;
}

// switchIds changes the groups before the user id: after that the process may no longer change them.
bool switchIds(const passwd& entry) {
    return initgroups(entry.pw_name, entry.pw_gid) == 0 && setgid(entry.pw_gid) == 0 && setuid(entry.pw_uid) == 0;
}

}  // namespace

int daemon_user_switch(const char* user, int flags) {
    g_return_val_if_fail(user != nullptr, -1);
    const bool keep = (flags & DAEMON_USER_KEEP_CAPABILITIES) != 0;
    if (keep && !keepCapabilities(true)) {
        const int error = errno;
        g_log(nullptr, G_LOG_LEVEL_CRITICAL, "failed to keep capabilities");
        return reportFailure(user, g_strerror(error));
    }
    const PasswdHolder entry(get_passwd_entry(user), free);
    if (entry == nullptr)
        return reportFailure(user, "no such user");
    if (!switchIds(*entry))
        return reportFailure(user, g_strerror(errno));
    g_log(nullptr, G_LOG_LEVEL_DEBUG, "switched to user '%s' and its groups", user);
    if (keep && !keepCapabilities(false)) {
        const int error = errno;
        g_log(nullptr, G_LOG_LEVEL_CRITICAL, "failed to reset the 'keep capabilities' process flag");
        return reportFailure(user, g_strerror(error));
    }
    return 0;
}

struct passwd* get_passwd_entry(const char* name) {
    g_return_val_if_fail(name != nullptr, nullptr);
    const long textSize = sysconf(_SC_GETPW_R_SIZE_MAX);
    if (textSize < 0)
        return nullptr;
    PasswdHolder entry(static_cast<passwd*>(malloc(sizeof(passwd) + static_cast<size_t>(textSize))), free);
    if (entry == nullptr)
        return nullptr;
    passwd* found = nullptr;
    char* text = reinterpret_cast<char*>(entry.get() + 1);
    const int error = getpwnam_r(name, entry.get(), text, static_cast<size_t>(textSize), &found);
    if (error != 0)
        return nullptr;
    if (found == nullptr) {
        errno = ESRCH;
        return nullptr;
    }
    return entry.release();
}
