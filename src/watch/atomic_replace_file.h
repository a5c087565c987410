// atomic_replace_file.h: publishing a file so that a reader sees the old or the new one and never half of one.
#pragma once

#include <string>

// AtomicReplaceFile is one replacement of the file at a path. The caller writes the new content to `m_strTemp`, which
// is in the same directory, so that the rename of `commit` can't cross file systems. Without a commit the destructor
// removes the temporary file, and the old file stays as it was. If the process is killed, the temporary file stays; the
// next replacement overwrites it. Nothing is synced to disk.
class AtomicReplaceFile {
public:
    // AtomicReplaceFile prepares the replacement of the file at `path`; no file is touched yet.
    explicit AtomicReplaceFile(const std::string& path);
    AtomicReplaceFile(const AtomicReplaceFile&) = delete;
    AtomicReplaceFile& operator=(const AtomicReplaceFile&) = delete;
    ~AtomicReplaceFile();

    // commit renames the temporary file to the target. On a failure, which it logs, it returns false and
    // the target stays.
    bool commit();

    // m_strTarget is the path to replace.
    std::string m_strTarget;

    // m_strTemp is the path to write to; empty once committed.
    std::string m_strTemp;
};
