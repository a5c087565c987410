// user_switch.h: giving up the starting user's rights.
//
// daemon_user_switch reports failures through g_log without a domain; get_passwd_entry reports only a null name.
#pragma once

struct passwd;

// DAEMON_USER_KEEP_CAPABILITIES in the flags of daemon_user_switch keeps the process's capabilities over the switch.
constexpr int DAEMON_USER_KEEP_CAPABILITIES = 1;

// daemon_user_switch makes the process run as `user`, with that user's group and supplementary groups. Returns 0, or -1
// on failure, after which the process may have switched in part. It must be called while the process has one thread.
int daemon_user_switch(const char* user, int flags);

// get_passwd_entry returns the entry of the user `name` and its strings in one block, which the caller releases with
// `free`; null on failure, with errno ESRCH if there is no such user.
struct passwd* get_passwd_entry(const char* name);
