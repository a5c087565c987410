// whole_file_faults_test.cpp: a file that opens, but finds no memory for its stream.

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <iterator>
#include <optional>
#include <string>

#include "unit/record_collector.h"
#include "watch/whole_file.h"

namespace {

bool gs_bNoMemory = false;

}  // namespace

extern "C" FILE* fdopen(int fd, const char* mode) noexcept {
    static auto* const real = reinterpret_cast<decltype(fdopen)*>(dlsym(RTLD_NEXT, "fdopen"));
    if (!gs_bNoMemory)
        return real(fd, mode);
    errno = ENOMEM;
    return nullptr;
}

namespace {

std::ptrdiff_t openDescriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), std::filesystem::directory_iterator());
}

TEST(WholeFileFaults, StreamThatFindsNoMemoryMayPassAndClosesTheFile) {
    const TempFolder folder;
    const std::string path = folder.write("file", "content");
    const SizeLimit limit = {1024, "1 KiB"};
    const std::ptrdiff_t before = openDescriptors();
    std::string content;
    gs_bNoMemory = true;
    const std::optional<Refusal> refusal = readWholeFile(path, limit, content);
    gs_bNoMemory = false;
    ASSERT_TRUE(refusal);
    EXPECT_EQ(refusal->kind, Refusal::Kind::MayPass);
    EXPECT_NE(refusal->reason.find("Cannot allocate memory"), std::string::npos) << refusal->reason;
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_FALSE(readWholeFile(path, limit, content));
    EXPECT_EQ(content, "content");
}

}  // namespace
