// whole_file.h: reading a small file whole, or saying why not.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

// Refusal is the reason why a file is not used.
struct Refusal {
    // Kind separates what the caller treats differently: no file at the path, a fault of the system that may pass by
    // itself, and a file that stays unfit until somebody changes it.
    enum class Kind { Absent, MayPass, Unfit };

    Kind kind;
    std::string reason;

    // unfit returns a refusal of the last kind.
    static Refusal unfit(const std::string& reason) { return {Kind::Unfit, reason}; }
};

// SizeLimit is a number of bytes and how records write it.
struct SizeLimit {
    off_t bytes;
    const char* name;
};

// readWholeFile puts the content of the regular file at `path`, of at most `limit` bytes, into `content`, or returns
// why it cannot. Any other kind of file is refused and never waited for.
std::optional<Refusal> readWholeFile(const std::string& path, const SizeLimit& limit, std::string& content);
