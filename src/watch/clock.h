// clock.h: the present moment as the watch loop counts it.
#pragma once

#include <chrono>
#include <cstdint>

// currentSeconds returns the present moment in whole seconds since the Unix epoch, cut, not rounded.
inline int64_t currentSeconds() {
    using namespace std::chrono;
    return duration_cast<seconds>(system_clock::now().time_since_epoch()).count();
}
