// atomic_replace_file_test.cpp: the two names, the rename, and the removal of what wasn't committed.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <stdexcept>
#include <string>
#include <type_traits>

#include "unit/record_collector.h"
#include "watch/atomic_replace_file.h"

namespace {

namespace fs = std::filesystem;

static_assert(!std::is_copy_constructible_v<AtomicReplaceFile> && !std::is_copy_assignable_v<AtomicReplaceFile>);

TEST(AtomicReplaceFile, TemporaryFileLiesBesideTheTarget) {
    const AtomicReplaceFile file("/run/featurewatch/tally-features.json");
    EXPECT_EQ(file.m_strTarget, "/run/featurewatch/tally-features.json");
    EXPECT_EQ(file.m_strTemp, "/run/featurewatch/tally-features.json.tmp");
}

TEST(AtomicReplaceFile, HoldsTheTargetBeforeTheTemporaryName) {
    const AtomicReplaceFile file("x");
    EXPECT_LT(static_cast<const void*>(&file.m_strTarget), static_cast<const void*>(&file.m_strTemp));
}

TEST(AtomicReplaceFile, ConstructionTouchesNoFile) {
    const TempFolder folder;
    folder.write("features", "old");
    folder.write("features.tmp", "stale");
    AtomicReplaceFile file(folder / "features");
    EXPECT_EQ(TempFolder::contentOf(folder / "features"), "old");
    EXPECT_EQ(TempFolder::contentOf(folder / "features.tmp"), "stale");
}

TEST(AtomicReplaceFile, CommitReplacesTheTarget) {
    RecordCollector collector;
    const TempFolder folder;
    folder.write("features", "old");
    AtomicReplaceFile file(folder / "features");
    TempFolder::writeTo(file.m_strTemp, "new");
    EXPECT_EQ(TempFolder::contentOf(folder / "features"), "old");
    EXPECT_TRUE(file.commit());
    EXPECT_EQ(TempFolder::contentOf(folder / "features"), "new");
    EXPECT_FALSE(fs::exists(folder / "features.tmp"));
    EXPECT_EQ(file.m_strTemp, "");
    EXPECT_EQ(file.m_strTarget, folder / "features");
    EXPECT_EQ(collector.lines(), Lines{});
}

TEST(AtomicReplaceFile, CommitMakesAMissingTarget) {
    const TempFolder folder;
    AtomicReplaceFile file(folder / "features");
    TempFolder::writeTo(file.m_strTemp, "new");
    EXPECT_TRUE(file.commit());
    EXPECT_EQ(TempFolder::contentOf(folder / "features"), "new");
}

TEST(AtomicReplaceFile, DestructorLeavesWhatWasCommitted) {
    const TempFolder folder;
    {
        AtomicReplaceFile file(folder / "features");
        TempFolder::writeTo(file.m_strTemp, "new");
        EXPECT_TRUE(file.commit());
        folder.write("features.tmp", "of another writer");
    }
    EXPECT_EQ(TempFolder::contentOf(folder / "features"), "new");
    EXPECT_EQ(TempFolder::contentOf(folder / "features.tmp"), "of another writer");
}

TEST(AtomicReplaceFile, DestructorRemovesWhatWasNotCommitted) {
    const TempFolder folder;
    folder.write("features", "old");
    {
        AtomicReplaceFile file(folder / "features");
        TempFolder::writeTo(file.m_strTemp, "half");
    }
    EXPECT_EQ(TempFolder::contentOf(folder / "features"), "old");
    EXPECT_FALSE(fs::exists(folder / "features.tmp"));
}

TEST(AtomicReplaceFile, ExceptionRemovesTheTemporaryFile) {
    const TempFolder folder;
    const auto fail = [&] {
        AtomicReplaceFile file(folder / "features");
        TempFolder::writeTo(file.m_strTemp, "half");
        throw std::runtime_error("while writing");
    };
    EXPECT_THROW(fail(), std::runtime_error);
    EXPECT_TRUE(fs::is_empty(folder.path()));
}

TEST(AtomicReplaceFile, DestructorWithoutATemporaryFileIsSilent) {
    RecordCollector collector;
    const TempFolder folder;
    { AtomicReplaceFile file(folder / "features"); }
    EXPECT_EQ(collector.lines(), Lines{});
    EXPECT_TRUE(fs::is_empty(folder.path()));
}

TEST(AtomicReplaceFile, ReadOnlyTargetInAWritableFolderIsReplaced) {
    const TempFolder folder;
    folder.write("features", "old");
    ASSERT_EQ(chmod((folder / "features").c_str(), 0444), 0);
    AtomicReplaceFile file(folder / "features");
    TempFolder::writeTo(file.m_strTemp, "new");
    EXPECT_TRUE(file.commit());
    EXPECT_EQ(TempFolder::contentOf(folder / "features"), "new");
}

TEST(AtomicReplaceFile, LinkIsReplacedAndNotWhatItPointsTo) {
    const TempFolder folder;
    folder.write("elsewhere", "kept");
    fs::create_symlink("elsewhere", folder / "features");
    AtomicReplaceFile file(folder / "features");
    TempFolder::writeTo(file.m_strTemp, "new");
    EXPECT_TRUE(file.commit());
    EXPECT_EQ(TempFolder::contentOf(folder / "elsewhere"), "kept");
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(folder / "features")));
}

TEST(AtomicReplaceFile, TargetThatIsADirectoryIsReportedAndTheTemporaryFileRemoved) {
    RecordCollector collector;
    const TempFolder folder;
    fs::create_directory(folder / "features");
    {
        AtomicReplaceFile file(folder / "features");
        TempFolder::writeTo(file.m_strTemp, "new");
        EXPECT_FALSE(file.commit());
        EXPECT_EQ(file.m_strTemp, folder / "features.tmp");
        EXPECT_EQ(collector.lines(), Lines{"ERROR failed to update features file: Is a directory"});
    }
    EXPECT_TRUE(fs::is_directory(folder / "features"));
    EXPECT_FALSE(fs::exists(folder / "features.tmp"));
}

TEST(AtomicReplaceFile, MissingTemporaryFileIsReportedAndTheTargetStays) {
    RecordCollector collector;
    const TempFolder folder;
    folder.write("features", "old");
    {
        AtomicReplaceFile file(folder / "features");
        EXPECT_FALSE(file.commit());
    }
    EXPECT_EQ(collector.lines(), Lines{"ERROR failed to update features file: No such file or directory"});
    EXPECT_EQ(TempFolder::contentOf(folder / "features"), "old");
}

TEST(AtomicReplaceFile, CommitCanBeTriedAgainAfterAFailure) {
    RecordCollector collector;
    const TempFolder folder;
    AtomicReplaceFile file(folder / "features");
    EXPECT_FALSE(file.commit());
    TempFolder::writeTo(file.m_strTemp, "new");
    EXPECT_TRUE(file.commit());
    EXPECT_EQ(TempFolder::contentOf(folder / "features"), "new");
}

}  // namespace
