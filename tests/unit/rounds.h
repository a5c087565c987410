// rounds.h: how often a test repeats what it does with random values.
#pragma once

#include <algorithm>
#include <cstdlib>

// rounds returns `count`, or what is left of it where every round takes long: an emulator's caller sets
// TEST_ROUNDS_DIVISOR to what the count is divided by.
inline int rounds(int count) {
    const char* divisor = std::getenv("TEST_ROUNDS_DIVISOR");
    return divisor ? count / std::max(1, std::atoi(divisor)) : count;
}
