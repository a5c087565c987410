#include "runtime/fd_io.h"

#include <sys/types.h>
#include <unistd.h>

#include <cerrno>

int write_full(int descriptor, const void* data, unsigned long length, unsigned long* written) {
    const auto* bytes = static_cast<const unsigned char*>(data);
    unsigned long done = 0;
    ssize_t moved = 0;
    do {
        moved = write(descriptor, bytes + done, length - done);
        if (moved > 0)
            done += static_cast<unsigned long>(moved);
    } while (moved < 0 ? errno == EINTR : done < length);
    if (written != nullptr)
        *written = done;
    return moved < 0 ? -1 : 0;
}

int read_full(int descriptor, void* buffer, unsigned long length, unsigned long* count) {
    auto* bytes = static_cast<unsigned char*>(buffer);
    unsigned long done = 0;
    ssize_t moved = 0;
    do {
        moved = read(descriptor, bytes + done, length - done);
        if (moved > 0)
            done += static_cast<unsigned long>(moved);
    } while (moved < 0 ? errno == EINTR : moved > 0 && done < length);  // moved 0: the end of the file
    if (count != nullptr)
        *count = done;
    return moved < 0 ? -1 : 0;
}
