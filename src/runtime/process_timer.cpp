#include "runtime/process_timer.h"

#include <sys/resource.h>
#include <sys/time.h>

#include <optional>

namespace {

constexpr int64_t MICROSECONDS_PER_SECOND = 1000000;

int64_t toMicroseconds(const timeval& time) {
    return int64_t{time.tv_sec} * MICROSECONDS_PER_SECOND + int64_t{time.tv_usec};
}

}  // namespace

struct ProcessTimer::Times {
    int64_t system;
    int64_t user;

    static std::optional<Times> sample() {
        rusage usage;
        if (getrusage(RUSAGE_SELF, &usage) != 0)
            return std::nullopt;
        return Times{toMicroseconds(usage.ru_stime), toMicroseconds(usage.ru_utime)};
    }
};

void ProcessTimer::start(bool clear) {
    if (clear)
        m_nElapsed = 0;
    if (const auto now = Times::sample())
        startAt(*now);
}

void ProcessTimer::stop() {
    if (const auto now = Times::sample())
        m_nElapsed += sinceStart(*now);
}

void ProcessTimer::restart() {
    const auto now = Times::sample();
    if (!now)
        return;
    m_nElapsed = sinceStart(*now);
    startAt(*now);
}

int64_t ProcessTimer::sinceStart(const Times& now) const {
    return now.system - m_nSystemStart + now.user - m_nUserStart;
}

void ProcessTimer::startAt(const Times& now) {
    m_nSystemStart = now.system;
    m_nUserStart = now.user;
}
