#include "watch/whole_file.h"

#include <fcntl.h>
#include <glib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "runtime/file_holder.h"

namespace {

// openForReading returns an open stream, or null with errno. It never blocks, not even on a FIFO.
FileHolder openForReading(const std::string& path) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    FILE* file = fd == -1 ? nullptr : fdopen(fd, "rb");
    if (file == nullptr && fd != -1)
        close(fd);
    return FileHolder(file);
}

// systemFault returns the refusal for a call that failed with `error`.
Refusal systemFault(int error) {
    return {error == ENOENT ? Refusal::Kind::Absent : Refusal::Kind::MayPass, g_strerror(error)};
}

}  // namespace

std::optional<Refusal> readWholeFile(const std::string& path, const SizeLimit& limit, std::string& content) {
    const FileHolder file = openForReading(path);
    if (file == nullptr)
        return systemFault(errno);
    struct stat status {};
    if (fstat(fileno(file.get()), &status) != 0)
        return systemFault(errno);
    if (!S_ISREG(status.st_mode))
        return Refusal::unfit("it is not a regular file");
    if (status.st_size > limit.bytes)
        return Refusal::unfit(std::string("it is larger than ") + limit.name);
    content.resize(static_cast<size_t>(status.st_size));
    content.resize(fread(content.data(), 1, content.size(), file.get()));
    if (ferror(file.get()))
        return systemFault(errno);
    return std::nullopt;
}
