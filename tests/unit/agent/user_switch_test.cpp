// user_switch_test.cpp: giving up the starting user's rights.
//
// It runs in the sandbox, where the user "featurewatch" exists. Each switch happens in a child process. This file
// replaces the calls that a switch is made of: they are listed in their order, and each can be made to fail or, for a
// look at the order alone, be left out.

#include <dlfcn.h>
#include <fcntl.h>
#include <gio/gio.h>
#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "agent/user_switch.h"
#include "foundation/strfmt.h"
#include "unit/own_process.h"
#include "unit/record_collector.h"

namespace {

// Calls is what the replaced calls do and were asked.
struct Calls {
    bool replaced = false;  // the calls are listed and not made
    std::string failing;    // the call that fails, as it is listed
    int error = 0;          // with this errno value
    int lookupResult = 0;   // what getpwnam_r gives, if not 0
    std::vector<std::string> list;

    bool fails(const std::string& call) {
        list.push_back(call);
        if (call != failing) {
            return false;
        }
        errno = error;
        return true;
    }
};

Calls gs_oCalls;

template <class Function>
Function* realCall(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" int initgroups(const char* user, gid_t group) {
    if (!gs_oCalls.replaced) {
        return realCall<int(const char*, gid_t)>("initgroups")(user, group);
    }
    return gs_oCalls.fails(strfmt("initgroups %s %u", user, group)) ? -1 : 0;
}

extern "C" int setgid(gid_t group) noexcept {
    if (!gs_oCalls.replaced) {
        return realCall<int(gid_t)>("setgid")(group);
    }
    return gs_oCalls.fails(strfmt("setgid %u", group)) ? -1 : 0;
}

extern "C" int setuid(uid_t user) noexcept {
    if (!gs_oCalls.replaced) {
        return realCall<int(uid_t)>("setuid")(user);
    }
    return gs_oCalls.fails(strfmt("setuid %u", user)) ? -1 : 0;
}

extern "C" int prctl(int option, ...) noexcept {
    va_list arguments;
    va_start(arguments, option);
    unsigned long values[4];
    for (unsigned long& value : values) {
        value = va_arg(arguments, unsigned long);
    }
    va_end(arguments);
    if (option == PR_SET_KEEPCAPS && gs_oCalls.replaced) {
        return gs_oCalls.fails(strfmt("keepcaps %d", static_cast<int>(values[0]))) ? -1 : 0;
    }
    return realCall<int(int, ...)>("prctl")(option, values[0], values[1], values[2], values[3]);
}

extern "C" int getpwnam_r(const char* name, passwd* entry, char* buffer, size_t size, passwd** result) {
    if (gs_oCalls.lookupResult) {
        *result = nullptr;
        return gs_oCalls.lookupResult;
    }
    using Lookup = int(const char*, passwd*, char*, size_t, passwd**);
    return realCall<Lookup>("getpwnam_r")(name, entry, buffer, size, result);
}

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

const char* const USER = "featurewatch";

// GLibLog collects GLib's messages as "LEVEL text", with "[domain] " in front if there is one.
class GLibLog {
public:
    GLibLog() { g_log_set_default_handler(keep, this); }
    ~GLibLog() { g_log_set_default_handler(g_log_default_handler, nullptr); }

    Lines lines;

private:
    static void keep(const char* domain, GLogLevelFlags level, const char* message, void* self) {
        const bool debug = (level & G_LOG_LEVEL_MASK) == G_LOG_LEVEL_DEBUG;
        const bool critical = (level & G_LOG_LEVEL_MASK) == G_LOG_LEVEL_CRITICAL;
        const std::string name = debug ? "DEBUG" : critical ? "CRITICAL" : "OTHER";
        const std::string origin = domain ? "[" + std::string(domain) + "] " : "";
        static_cast<GLibLog*>(self)->lines.push_back(origin + name + " " + message);
    }
};

class UserSwitchTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(std::filesystem::exists("/run/sandbox")) << "run this program with scripts/sandbox";
    }
    ~UserSwitchTest() override { gs_oCalls = {}; }

    // hasUser returns whether this namespace has the user to switch to.
    static bool hasUser() {
        std::ifstream map("/proc/self/uid_map");
        const passwd* entry = getpwnam(USER);
        unsigned long first = 0;
        unsigned long outside = 0;
        unsigned long count = 0;
        while (entry && map >> first >> outside >> count) {
            if (entry->pw_uid >= first && entry->pw_uid - first < count) {
                return true;
            }
        }
        return false;
    }

    // report runs `body` in a child and returns its lines.
    static Lines report(const std::function<Lines()>& body) {
        const TempFolder folder;
        const int file = open((folder / "report").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        const pid_t child = startedProcess(fork());
        if (child == 0) {
            for (const std::string& line : body()) {
                dprintf(file, "%s\n", line.c_str());
            }
            _exit(0);
        }
        close(file);
        EXPECT_EQ(awaitChild(child), 0);
        std::istringstream stream(TempFolder::contentOf(folder / "report"));
        Lines lines;
        for (std::string line; std::getline(stream, line);) {
            lines.push_back(line);
        }
        return lines;
    }

    // identity returns who this process is.
    static std::string identity() {
        uid_t users[3];
        gid_t groups[3];
        EXPECT_EQ(getresuid(&users[0], &users[1], &users[2]), 0);
        EXPECT_EQ(getresgid(&groups[0], &groups[1], &groups[2]), 0);
        std::string text =
            strfmt("uid %u %u %u gid %u %u %u groups", users[0], users[1], users[2], groups[0], groups[1], groups[2]);
        std::vector<gid_t> all(100);
        all.resize(static_cast<size_t>(std::max(0, getgroups(static_cast<int>(all.size()), all.data()))));
        std::sort(all.begin(), all.end());
        for (const gid_t group : all) {
            text += strfmt(" %u", group);
        }
        return text;
    }

    // statusLine returns a field of this process's status.
    static std::string statusLine(const std::string& key) {
        std::ifstream status("/proc/self/status");
        for (std::string line; std::getline(status, line);) {
            if (line.starts_with(key + ":")) {
                return line;
            }
        }
        return "";
    }

    // switchTo switches and returns the result, GLib's messages and who the process is then.
    static Lines switchTo(const char* user, int flags) {
        GLibLog log;
        const int result = daemon_user_switch(user, flags);
        Lines lines = log.lines;
        lines.insert(lines.begin(), strfmt("%d", result));
        lines.push_back(identity());
        return lines;
    }

    // expectedIdentity is that of the user after a switch.
    static std::string expectedIdentity() {
        const passwd* entry = getpwnam(USER);
        const group* orvanta = getgrnam("orvanta");
        EXPECT_TRUE(entry && orvanta);
        const gid_t gid = entry->pw_gid;
        const uid_t uid = entry->pw_uid;
        return strfmt("uid %u %u %u gid %u %u %u groups %u %u", uid, uid, uid, gid, gid, gid,
                      std::min(gid, orvanta->gr_gid), std::max(gid, orvanta->gr_gid));
    }
};

// --- get_passwd_entry

TEST_F(UserSwitchTest, EntryIsOneBlockThatTheCallerFrees) {
    GLibLog log;
    passwd* entry = get_passwd_entry(USER);
    ASSERT_NE(entry, nullptr);
    const passwd* known = getpwnam(USER);
    ASSERT_NE(known, nullptr);
    EXPECT_STREQ(entry->pw_name, USER);
    EXPECT_EQ(entry->pw_uid, known->pw_uid);
    EXPECT_EQ(entry->pw_gid, known->pw_gid);
    EXPECT_STREQ(entry->pw_dir, known->pw_dir);
    EXPECT_STREQ(entry->pw_shell, known->pw_shell);
    const char* begin = reinterpret_cast<const char*>(entry + 1);
    const char* end = begin + sysconf(_SC_GETPW_R_SIZE_MAX);
    for (const char* text : {entry->pw_name, entry->pw_passwd, entry->pw_gecos, entry->pw_dir, entry->pw_shell}) {
        EXPECT_TRUE(text >= begin && text < end) << text;
    }
    free(entry);
    EXPECT_THAT(log.lines, IsEmpty());
}

TEST_F(UserSwitchTest, EntryOfAnUnknownUserIsNullWithEsrch) {
    GLibLog log;
    for (const char* name : {"no-such-user", ""}) {
        errno = 0;
        EXPECT_EQ(get_passwd_entry(name), nullptr);
        EXPECT_EQ(errno, ESRCH);
    }
    EXPECT_THAT(log.lines, IsEmpty());
}

TEST_F(UserSwitchTest, EntryOfNoNameIsNullWithGLibsWarning) {
    GLibLog log;
    EXPECT_EQ(get_passwd_entry(nullptr), nullptr);
    ASSERT_THAT(log.lines, SizeIs(1));
    EXPECT_THAT(log.lines[0], HasSubstr("CRITICAL "));
    EXPECT_THAT(log.lines[0], HasSubstr("get_passwd_entry"));
    EXPECT_THAT(log.lines[0], HasSubstr("assertion 'name"));
}

TEST_F(UserSwitchTest, FailedLookUpReturnsNull) {
    gs_oCalls.lookupResult = ERANGE;
    EXPECT_EQ(get_passwd_entry(USER), nullptr);
}

// --- The order of the calls

TEST_F(UserSwitchTest, GroupsChangeBeforeTheGroupAndTheGroupBeforeTheUser) {
    const passwd* entry = getpwnam(USER);
    ASSERT_NE(entry, nullptr);
    const std::string groups = strfmt("initgroups %s %u", USER, entry->pw_gid);
    const std::string group = strfmt("setgid %u", entry->pw_gid);
    const std::string user = strfmt("setuid %u", entry->pw_uid);
    GLibLog log;
    gs_oCalls.replaced = true;
    EXPECT_EQ(daemon_user_switch(USER, 0), 0);
    EXPECT_THAT(gs_oCalls.list, ElementsAre(groups, group, user));
    gs_oCalls.list.clear();
    EXPECT_EQ(daemon_user_switch(USER, DAEMON_USER_KEEP_CAPABILITIES), 0);
    EXPECT_THAT(gs_oCalls.list, ElementsAre("keepcaps 1", groups, group, user, "keepcaps 0"));
    gs_oCalls.list.clear();
    EXPECT_EQ(daemon_user_switch(USER, ~1), 0) << "only bit 0 counts";
    EXPECT_THAT(gs_oCalls.list, ElementsAre(groups, group, user));
    EXPECT_EQ(log.lines, Lines(3, "DEBUG switched to user 'featurewatch' and its groups"));
}

// FailingRow is the number of the call that fails, among the five, and what is told then.
struct FailingRow {
    size_t failing;
    int error;
    Lines messages;
};

TEST_F(UserSwitchTest, FirstFailureEndsTheSwitch) {
    const passwd* entry = getpwnam(USER);
    ASSERT_NE(entry, nullptr);
    const Lines calls = {"keepcaps 1", strfmt("initgroups %s %u", USER, entry->pw_gid),
                         strfmt("setgid %u", entry->pw_gid), strfmt("setuid %u", entry->pw_uid), "keepcaps 0"};
    const std::string refused = "CRITICAL failed switching to user 'featurewatch': Operation not permitted";
    const std::string again = "CRITICAL failed switching to user 'featurewatch': Resource temporarily unavailable";
    const FailingRow rows[] = {
        {0, EPERM, {"CRITICAL failed to keep capabilities", refused}},
        {1, EPERM, {refused}},
        {2, EPERM, {refused}},
        {3, EAGAIN, {again}},
        {4,
         EPERM,
         {"DEBUG switched to user 'featurewatch' and its groups",
          "CRITICAL failed to reset the 'keep capabilities' process flag", refused}},
    };
    for (const FailingRow& row : rows) {
        SCOPED_TRACE(calls[row.failing]);
        gs_oCalls = {true, calls[row.failing], row.error, 0, {}};
        GLibLog log;
        EXPECT_EQ(daemon_user_switch(USER, DAEMON_USER_KEEP_CAPABILITIES), -1);
        EXPECT_EQ(gs_oCalls.list, Lines(calls.begin(), calls.begin() + static_cast<ptrdiff_t>(row.failing) + 1));
        EXPECT_EQ(log.lines, row.messages);
    }
}

TEST_F(UserSwitchTest, FailedLookUpIsNoSuchUser) {
    gs_oCalls.replaced = true;
    gs_oCalls.lookupResult = EIO;
    GLibLog log;
    EXPECT_EQ(daemon_user_switch(USER, 0), -1);
    EXPECT_EQ(log.lines, Lines{"CRITICAL failed switching to user 'featurewatch': no such user"});
    EXPECT_THAT(gs_oCalls.list, IsEmpty());
}

TEST_F(UserSwitchTest, NoUserIsAFailedPrecondition) {
    gs_oCalls.replaced = true;
    for (const int flags : {0, DAEMON_USER_KEEP_CAPABILITIES}) {
        GLibLog log;
        EXPECT_EQ(daemon_user_switch(nullptr, flags), -1);
        ASSERT_THAT(log.lines, SizeIs(1));
        EXPECT_THAT(log.lines[0], HasSubstr("CRITICAL "));
        EXPECT_THAT(log.lines[0], HasSubstr("daemon_user_switch"));
        EXPECT_THAT(log.lines[0], HasSubstr("assertion 'user"));
        EXPECT_THAT(gs_oCalls.list, IsEmpty());
    }
}

// --- Real switches

TEST_F(UserSwitchTest, SwitchGivesTheUsersIdsAndGroups) {
    if (!hasUser()) {
        GTEST_SKIP() << "only one user exists in this namespace";
    }
    EXPECT_THAT(report([] { return switchTo(USER, 0); }),
                ElementsAre("0", "DEBUG switched to user 'featurewatch' and its groups", expectedIdentity()));
}

TEST_F(UserSwitchTest, SwitchGivesUpAllCapabilities) {
    if (!hasUser()) {
        GTEST_SKIP() << "only one user exists in this namespace";
    }
    EXPECT_THAT(
        report([] {
            switchTo(USER, 0);
            return Lines{statusLine("CapPrm"), statusLine("CapEff"), setuid(0) == 0 ? "root again" : "for good"};
        }),
        ElementsAre("CapPrm:\t0000000000000000", "CapEff:\t0000000000000000", "for good"));
}

TEST_F(UserSwitchTest, SwitchCanKeepTheCapabilities) {
    if (!hasUser()) {
        GTEST_SKIP() << "only one user exists in this namespace";
    }
    const std::string before = statusLine("CapPrm");
    EXPECT_THAT(report([] {
                    Lines lines = switchTo(USER, DAEMON_USER_KEEP_CAPABILITIES);
                    lines.push_back(statusLine("CapPrm"));
                    lines.push_back(strfmt("keepcaps %d", prctl(PR_GET_KEEPCAPS, 0, 0, 0, 0)));
                    return lines;
                }),
                ElementsAre("0", "DEBUG switched to user 'featurewatch' and its groups", expectedIdentity(), before,
                            "keepcaps 0"));
}

TEST_F(UserSwitchTest, UnknownUserIsLoggedAndNothingIsSwitched) {
    EXPECT_THAT(report([] { return switchTo("no-such-user", 0); }),
                ElementsAre("-1", "CRITICAL failed switching to user 'no-such-user': no such user", identity()));
}

TEST_F(UserSwitchTest, OrdinaryUserFailsAtTheGroups) {
    if (!hasUser()) {
        GTEST_SKIP() << "only one user exists in this namespace";
    }
    EXPECT_THAT(report([] {
                    switchTo(USER, 0);
                    return switchTo(USER, 0);
                }),
                ElementsAre("-1", "CRITICAL failed switching to user 'featurewatch': Operation not permitted",
                            expectedIdentity()));
}

}  // namespace
