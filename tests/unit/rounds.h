// rounds.h: how often a test repeats what it does, and how long it may take: less and longer under an emulator.
#pragma once

#include <algorithm>
#include <cstdlib>

// settingOr1 returns the number that the environment variable `name` holds, or 1.
inline int settingOr1(const char* name) {
    const char* text = std::getenv(name);
    return text ? std::max(1, std::atoi(text)) : 1;
}

// rounds returns `count`, divided by TEST_ROUNDS_DIVISOR if that is set.
inline int rounds(int count) {
    return count / settingOr1("TEST_ROUNDS_DIVISOR");
}

// patience returns `seconds`, multiplied by TEST_SLOWNESS if that is set.
inline unsigned patience(unsigned seconds) {
    return seconds * static_cast<unsigned>(settingOr1("TEST_SLOWNESS"));
}
