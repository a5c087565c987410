// memory_file.h: a file for parsers that take a path.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "fuzz.h"

// MemoryFile is a file in memory that has a path; empty at first.
struct MemoryFile {
    // put replaces the content.
    void put(const std::string& content) const {
        require(ftruncate(fd, 0) == 0);
        require(pwrite(fd, content.data(), content.size(), 0) == static_cast<ssize_t>(content.size()));
    }

    int fd = memfd_create("fuzz", MFD_CLOEXEC);
    std::string path = "/proc/self/fd/" + std::to_string(fd);
};
