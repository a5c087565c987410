// file_holder.h: the owner of an open stream of the C library.
#pragma once

#include <cstdio>
#include <memory>

// FileCloser closes a stream. What closing reports is lost, so it is only for streams that are read.
struct FileCloser {
    void operator()(FILE* file) const noexcept { fclose(file); }
};

// FileHolder owns a stream; null when empty.
using FileHolder = std::unique_ptr<FILE, FileCloser>;
