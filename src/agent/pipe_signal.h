// pipe_signal.h: for places where a reader that went away must not end the process.
//
// Elsewhere SIGPIPE keeps its default effect: a program whose output nobody reads ends.
#pragma once

#include <csignal>

// IgnoredPipeSignal ignores SIGPIPE as long as it lives: a write to a broken pipe fails with EPIPE instead. Only one
// thread may use it at a time, because the disposition belongs to the process.
class IgnoredPipeSignal {
public:
    IgnoredPipeSignal() : m_pPrevious(std::signal(SIGPIPE, SIG_IGN)) {}
    IgnoredPipeSignal(const IgnoredPipeSignal&) = delete;
    IgnoredPipeSignal& operator=(const IgnoredPipeSignal&) = delete;
    ~IgnoredPipeSignal() { std::signal(SIGPIPE, m_pPrevious); }

private:
    void (*m_pPrevious)(int);
};
