// logging_child.h: logging set up in a child process, for tests to look at what it leaves.
//
// This replaces libc's syslog for the test program that includes it, in its one source: what would go there is kept,
// and nothing reaches the machine's own log.
#pragma once

#include <fcntl.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <string>

#include "foundation/strfmt.h"
#include "runtime/orvlog.h"
#include "unit/own_process.h"
#include "unit/record_collector.h"

inline int gs_nSyslog = -1;

inline void keepSyslog(int priority, const char* format, va_list arguments) {
    if (gs_nSyslog != -1)
        dprintf(gs_nSyslog, "<%d>%s", priority, strvfmt(format, arguments).c_str());
}

extern "C" void syslog(int priority, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    keepSyslog(priority, format, arguments);
    va_end(arguments);
}

extern "C" void __syslog_chk(int priority, int, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    keepSyslog(priority, format, arguments);
    va_end(arguments);
}

// Outcome is what a child process left.
struct Outcome {
    int status = -1;
    std::string output;
    std::string error;
    std::string syslog;
};

inline void redirect(int fd, const std::string& path) {
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    dup2(file, fd);
    close(file);
}

// inChild runs `body` in a child process. An exception that leaves it makes the status 99.
template <class Body>
Outcome inChild(Body body) {
    const TempFolder result;
    fflush(nullptr);
    const pid_t child = startedProcess(fork());
    if (child == 0) {
        redirect(STDOUT_FILENO, result / "output");
        redirect(STDERR_FILENO, result / "error");
        gs_nSyslog = open((result / "syslog").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
        try {
            body();
        } catch (...) {
            _exit(99);
        }
        fflush(nullptr);
        _exit(0);
    }
    const int status = awaitChild(child);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, TempFolder::contentOf(result / "output"),
            TempFolder::contentOf(result / "error"), TempFolder::contentOf(result / "syslog")};
}

inline log4cxx::LoggerPtr testLogger() {
    return orvlog::getLogger("orv.test");
}

// logAllLevels makes one record at each level, the text being the level's name in lower case.
inline void logAllLevels(const log4cxx::LoggerPtr& logger) {
    ORVLOG_DEBUG(logger, "debug");
    ORVLOG_INFO(logger, "info");
    ORVLOG_WARN(logger, "warn");
    ORVLOG_ERROR(logger, "error");
    ORVLOG_FATAL(logger, "fatal");
}
