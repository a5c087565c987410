// child_status.h: code that may end its process, run in a child.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include "unit/own_process.h"

// childStatus runs `body` in a child process and returns how that ended: 0 if `body` returned. Standard error is lost.
template <class Body>
int childStatus(Body body) {
    const pid_t child = startedProcess(fork());
    if (child == 0) {
        dup2(open("/dev/null", O_WRONLY), STDERR_FILENO);
        body();
        _exit(0);
    }
    return awaitChild(child);
}
