#include "runtime/fd_io.h"

#include <sys/types.h>
#include <unistd.h>

#include <cerrno>

namespace {

// transferFull repeats `call`, which moves bytes from an offset on, until `length` is used up, a failure ends it or,
// with `zeroEnds`, a call moves nothing.
template <class Call>
int transferFull(Call call, unsigned long length, unsigned long* count, bool zeroEnds) {
    unsigned long done = 0;
    ssize_t moved = 0;
    bool again = true;
    while (again) {
        moved = call(done, length - done);
        if (moved > 0)
            done += static_cast<unsigned long>(moved);
        again = moved < 0 ? errno == EINTR : done < length && (moved > 0 || !zeroEnds);
    }
    if (count != nullptr)
        *count = done;
    return moved < 0 ? -1 : 0;
}

}  // namespace

int write_full(int descriptor, const void* data, unsigned long length, unsigned long* written) {
    const auto* bytes = static_cast<const unsigned char*>(data);
    const auto call = [=](unsigned long offset, unsigned long rest) { return write(descriptor, bytes + offset, rest); };
    return transferFull(call, length, written, false);
}

int read_full(int descriptor, void* buffer, unsigned long length, unsigned long* count) {
    auto* bytes = static_cast<unsigned char*>(buffer);
    const auto call = [=](unsigned long offset, unsigned long rest) { return read(descriptor, bytes + offset, rest); };
    return transferFull(call, length, count, true);
}
