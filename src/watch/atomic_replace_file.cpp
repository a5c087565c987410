#include "watch/atomic_replace_file.h"

#include <glib.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "watch/app_logger.h"

AtomicReplaceFile::AtomicReplaceFile(const std::string& path) : m_strTarget(path), m_strTemp(path + ".tmp") {}

AtomicReplaceFile::~AtomicReplaceFile() {
    if (!m_strTemp.empty())
        unlink(m_strTemp.c_str());
}

bool AtomicReplaceFile::commit() {
    if (rename(m_strTemp.c_str(), m_strTarget.c_str()) != 0) {
        ORVLOG_ERROR(gs_pAppLogger, "failed to update features file: %s", g_strerror(errno));
        return false;
    }
    m_strTemp.clear();
    return true;
}
