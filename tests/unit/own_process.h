// own_process.h: processes that a test makes, and signals to them.
//
// To kill and waitpid a pid of -1, fork's failure, means every process: neither may ever be called with it.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <stdexcept>
#include <string>
#include <system_error>

// startedProcess returns `pid`, the result of a fork, and throws std::system_error if there is no process.
inline pid_t startedProcess(pid_t pid) {
    if (pid == -1)
        throw std::system_error(errno, std::generic_category(), "fork");
    return pid;
}

// requireProcess throws std::invalid_argument unless `pid` can be that of a process which a test started.
inline void requireProcess(pid_t pid) {
    if (pid < 2)
        throw std::invalid_argument("no process of a test: " + std::to_string(pid));
}

// sendSignal sends the signal `number` to the process `pid` and returns what kill does.
inline int sendSignal(pid_t pid, int number) {
    requireProcess(pid);
    return kill(pid, number);
}

// awaitChild waits for the end of the child `pid` and returns its status, as waitpid reports it.
inline int awaitChild(pid_t pid) {
    requireProcess(pid);
    int status = -1;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    return status;
}
