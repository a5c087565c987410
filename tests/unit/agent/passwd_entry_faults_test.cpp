// passwd_entry_faults_test.cpp: the user database where the system does not say how long an entry may be, or has no
// memory for one.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <optional>

#include "agent/user_switch.h"

namespace {

std::optional<long> gs_longestEntry;

}  // namespace

extern "C" long sysconf(int name) noexcept {
    static auto* const real = reinterpret_cast<decltype(sysconf)*>(dlsym(RTLD_NEXT, "sysconf"));
    return name == _SC_GETPW_R_SIZE_MAX && gs_longestEntry ? *gs_longestEntry : real(name);
}

namespace {

bool findsRoot(std::optional<long> longestEntry) {
    gs_longestEntry = longestEntry;
    passwd* const entry = get_passwd_entry("root");
    gs_longestEntry.reset();
    free(entry);
    return entry != nullptr;
}

TEST(PasswdEntryFaults, NoEntryWithoutItsLength) {
    EXPECT_FALSE(findsRoot(-1));
    EXPECT_TRUE(findsRoot(std::nullopt));
}

TEST(PasswdEntryFaults, NoEntryWithoutMemory) {
    EXPECT_FALSE(findsRoot(LONG_MAX - 4096));
    EXPECT_TRUE(findsRoot(std::nullopt));
}

}  // namespace
