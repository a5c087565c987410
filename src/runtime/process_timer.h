// process_timer.h: a measure of the CPU time that the process used.
#pragma once

#include <cstdint>

// ProcessTimer adds up the user and system CPU time of the whole process, all threads included, in microseconds. It
// doesn't measure wall-clock time. If the times can't be sampled, the timer stays as it was. A timer belongs to one
// thread at a time.
class ProcessTimer {
public:
    // start samples the start times. With `clear` the time counted so far becomes 0, even if sampling fails.
    void start(bool clear);

    // stop adds the CPU time since the start to the time counted. The start stays: a second stop counts from it again.
    void stop();

    // restart replaces the time counted with the CPU time since the start, and samples the start times again.
    void restart();

    // elapsedMicroseconds returns the time counted, 0 at first.
    int64_t elapsedMicroseconds() const { return m_nElapsed; }

private:
    struct Times;
    int64_t sinceStart(const Times& now) const;
    void startAt(const Times& now);

    int64_t m_nSystemStart = 0;
    int64_t m_nUserStart = 0;
    int64_t m_nElapsed = 0;
};
