// feature_provider_test.cpp: the device's feature list, on the real path of its input.
//
// It runs in the sandbox, where /etc/orvanta is empty and its own.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <limits>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "unit/record_collector.h"
#include "unit/rounds.h"
#include "unit/watch/feature_files.h"
#include "unit/watch/feature_list_model.h"
#include "watch/clock.h"
#include "watch/feature_provider.h"

namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

const std::string CPUINFO = "/run/sandbox/cpuinfo";

// NOW is the moment at which most tests look: 2026-06-15T12:00:00Z.
constexpr int64_t NOW = 1781524800;

// Sandbox keeps these tests from touching a machine's own files.
class Sandbox : public testing::Environment {
public:
    void SetUp() override {
        ASSERT_TRUE(fs::exists(CPUINFO)) << "not in the sandbox: run this program with scripts/sandbox";
        ASSERT_FALSE(fs::exists(INSTALLED)) << INSTALLED << " is there already";
    }
};

[[maybe_unused]] const testing::Environment* const gs_pSandbox = testing::AddGlobalTestEnvironment(new Sandbox);

class FeatureProviderTest : public testing::Test {
protected:
    // A hang is a failure: SIGALRM ends the program.
    FeatureProviderTest() {
        alarm(patience(110));
        m_oProvider.init(NOW);
    }
    ~FeatureProviderTest() override {
        alarm(0);
        removeFeatureFiles();
    }

    // replace renames a new file over the input, so that it is another one for sure.
    static void replace(const std::string& entries) {
        TempFolder::writeTo(INSTALLED + ".new", R"({"features":[)" + entries + "]}");
        fs::rename(INSTALLED + ".new", INSTALLED);
    }

    bool load(const std::string& entries) {
        putInstalled(entries);
        return m_oProvider.loadInput(0);
    }

    std::string document(int64_t now = NOW) const {
        std::ostringstream stream;
        m_oProvider.writeFeatures(now, stream);
        return stream.str();
    }

    int64_t next(int64_t now) const {
        std::ostringstream stream;
        return m_oProvider.writeFeatures(now, stream);
    }

    // namesAt returns the names in the document for `now`.
    Lines namesAt(int64_t now) const {
        Lines result;
        const JSON::root root = JSON::parse(document(now));
        for (const JSON::root& entry : root->get("features")->values()) {
            result.push_back(entry->get("name")->toString());
        }
        return result;
    }

    FeatureProvider m_oProvider;
};

// --- Inputs

TEST_F(FeatureProviderTest, InputsAreTheInstalledAndTheGrantedFeatures) {
    EXPECT_EQ(m_oProvider.inputPath(0), "/etc/orvanta/features.json");
    EXPECT_EQ(m_oProvider.inputPath(1), "/var/lib/orvanta/features.jws");
}

TEST_F(FeatureProviderTest, MissingGrantNeverChangesTheList) {
    load(R"({"name":"a"})");
    RecordCollector collector;
    EXPECT_FALSE(m_oProvider.loadInput(1));
    EXPECT_FALSE(m_oProvider.dropInput(1));
    EXPECT_FALSE(m_oProvider.recheckAll(NOW));
    EXPECT_THAT(m_oProvider.activeFeatureNames(), ElementsAre("a"));
    EXPECT_THAT(collector.lines(), IsEmpty());
}

TEST_F(FeatureProviderTest, InitEmptiesTheList) {
    EXPECT_TRUE(load(R"({"name":"a"})"));
    m_oProvider.init(NOW);
    EXPECT_THAT(m_oProvider.activeFeatureNames(), IsEmpty());
    EXPECT_THAT(namesAt(NOW), IsEmpty());
    EXPECT_TRUE(m_oProvider.loadInput(0));
}

TEST_F(FeatureProviderTest, SerialNumberIsThatOfTheDevice) {
    RecordCollector collector;
    TempFolder::writeTo(INSTALLED, R"({"serial":"00001234","features":[{"name":"a"}]})");
    EXPECT_FALSE(m_oProvider.loadInput(0));
    EXPECT_THAT(collector.lines(), SizeIs(1));
    TempFolder::writeTo(INSTALLED, R"({"serial":"0000abcd","features":[{"name":"a"}]})");
    EXPECT_TRUE(m_oProvider.loadInput(0));
    EXPECT_THAT(m_oProvider.activeFeatureNames(), ElementsAre("a"));
    EXPECT_THAT(collector.lines(), SizeIs(1));
}

// --- The document

TEST_F(FeatureProviderTest, EmptyListIsADocumentToo) {
    EXPECT_EQ(document(), "{\n\t\"checkDate\": \"2026-06-15T12:00:00Z\",\n\t\"features\": [ ]\n}\n");
    EXPECT_EQ(next(NOW), 0);
    EXPECT_THAT(m_oProvider.activeFeatureNames(), IsEmpty());
}

TEST_F(FeatureProviderTest, DocumentIsWrittenByteForByte) {
    load(R"({"name":"video-wall","validFrom":"2026-01-01T00:00:00Z","validUntil":"2027-01-01T00:00:00Z",)"
         R"("params":{"outputs":4,"modes":["a","b"],"none":{}},"note":"ignored"},{"name":"audio"})");
    EXPECT_EQ(document(), "{\n"
                          "\t\"checkDate\": \"2026-06-15T12:00:00Z\",\n"
                          "\t\"features\": [\n"
                          "\t\t{\n"
                          "\t\t\t\"name\": \"audio\",\n"
                          "\t\t\t\"source\": \"installed\"\n"
                          "\t\t},\n"
                          "\t\t{\n"
                          "\t\t\t\"name\": \"video-wall\",\n"
                          "\t\t\t\"params\": {\n"
                          "\t\t\t\t\"modes\": [\n"
                          "\t\t\t\t\t\"a\",\n"
                          "\t\t\t\t\t\"b\"\n"
                          "\t\t\t\t],\n"
                          "\t\t\t\t\"none\": { },\n"
                          "\t\t\t\t\"outputs\": 4\n"
                          "\t\t\t},\n"
                          "\t\t\t\"source\": \"installed\",\n"
                          "\t\t\t\"validFrom\": \"2026-01-01T00:00:00Z\",\n"
                          "\t\t\t\"validUntil\": \"2027-01-01T00:00:00Z\"\n"
                          "\t\t}\n"
                          "\t]\n"
                          "}\n");
}

TEST_F(FeatureProviderTest, CheckDateIsTheMomentAsked) {
    EXPECT_THAT(document(0), HasSubstr("\"checkDate\": \"1970-01-01T00:00:00Z\""));
    EXPECT_THAT(document(1), HasSubstr("\"checkDate\": \"1970-01-01T00:00:01Z\""));
    EXPECT_THAT(document(4102444799), HasSubstr("\"checkDate\": \"2099-12-31T23:59:59Z\""));
}

TEST_F(FeatureProviderTest, DocumentFollowsWhatTheStreamHolds) {
    std::ostringstream stream;
    stream << "before";
    m_oProvider.writeFeatures(NOW, stream);
    EXPECT_EQ(stream.str(), "before" + document());
}

TEST_F(FeatureProviderTest, FailedStreamIsNotAFaultOfTheList) {
    load(window("a", NOW - 1, NOW + 5));
    std::ostringstream stream;
    stream.setstate(std::ios::badbit);
    EXPECT_EQ(m_oProvider.writeFeatures(NOW, stream), NOW + 5);
    EXPECT_EQ(stream.str(), "");
}

TEST_F(FeatureProviderTest, WritingChangesNothing) {
    load(window("a", -1, NOW + 100) + "," + window("b", NOW - 10, NOW));
    const Lines names = m_oProvider.activeFeatureNames();
    document(NOW - 5);
    document(NOW + 5);
    EXPECT_EQ(m_oProvider.activeFeatureNames(), names);
}

// --- One entry per name, in byte order

TEST_F(FeatureProviderTest, NamesAreInByteOrder) {
    load(R"({"name":"\u00e4"},{"name":"aa"},{"name":"a"},{"name":"Z"},{"name":"\u20ac"},{"name":"a b"},{"name":"a!"},)"
         R"({"name":"10"},{"name":"9"},{"name":" "})");
    const Lines expected = {" ", "10", "9", "Z", "a", "a b", "a!", "aa", "\xC3\xA4", "\xE2\x82\xAC"};
    EXPECT_EQ(namesAt(NOW), expected);
    EXPECT_EQ(m_oProvider.activeFeatureNames(), expected);
}

TEST_F(FeatureProviderTest, FirstActiveEntryOfANameIsListed) {
    load(window("a", NOW + 10, NOW + 20, R"({"n":1})") + "," + window("a", NOW - 10, NOW + 15, R"({"n":2})") + "," +
         window("a", -1, -1, R"({"n":3})"));
    const auto shown = [&](int64_t now) {
        const JSON::root root = JSON::parse(document(now));
        const JSON* features = root->get("features");
        return features->size() == 1 ? features->at(0)->get("params")->get("n")->toString() : "";
    };
    EXPECT_EQ(shown(NOW - 11), "3");
    EXPECT_EQ(shown(NOW - 10), "2");
    EXPECT_EQ(shown(NOW + 9), "2");
    EXPECT_EQ(shown(NOW + 10), "1");
    EXPECT_EQ(shown(NOW + 19), "1");
    EXPECT_EQ(shown(NOW + 20), "3");
}

TEST_F(FeatureProviderTest, FeatureIsActiveFromItsBeginToJustBeforeItsEnd) {
    load(window("a", NOW, NOW + 10) + "," + window("empty", NOW, NOW) + "," + window("reversed", NOW + 5, NOW - 5));
    EXPECT_THAT(namesAt(NOW - 1), IsEmpty());
    EXPECT_THAT(namesAt(NOW), ElementsAre("a"));
    EXPECT_THAT(namesAt(NOW + 9), ElementsAre("a"));
    EXPECT_THAT(namesAt(NOW + 10), IsEmpty());
    EXPECT_EQ(next(NOW + 10), 0);
}

// --- Faults of the input

TEST_F(FeatureProviderTest, BrokenEntriesAreLeftOutWithOneWarningEach) {
    RecordCollector collector;
    EXPECT_TRUE(load(R"({"name":"a"},{"name":""},{"name":"b","params":{"x":1e999}},{"name":"c"})"));
    EXPECT_THAT(m_oProvider.activeFeatureNames(), ElementsAre("a", "c"));
    ASSERT_THAT(collector.lines(), SizeIs(2));
    for (const std::string& line : collector.lines()) {
        EXPECT_THAT(line, StartsWith("WARN "));
        EXPECT_THAT(line, HasSubstr(INSTALLED));
    }
    EXPECT_THAT(collector.lines()[0], HasSubstr("1"));
    EXPECT_THAT(collector.lines()[1], HasSubstr("2"));
}

TEST_F(FeatureProviderTest, AfterTwentyWarningsOfOneReadingTheRestIsCounted) {
    const auto wrong = [](int count) {
        std::string entries = R"({"name":"a"})";
        for (int i = 0; i < count; ++i)
            entries += ",0";
        return entries;
    };
    RecordCollector collector;
    EXPECT_TRUE(load(wrong(20)));
    ASSERT_THAT(collector.lines(), SizeIs(20));
    EXPECT_EQ(collector.lines()[19], "WARN " + INSTALLED + ": left out feature 20: it is no object");
    collector.clear();
    load(wrong(21));
    ASSERT_THAT(collector.lines(), SizeIs(21));
    EXPECT_EQ(collector.lines()[20], "WARN " + INSTALLED + ": left out 1 more");
    collector.clear();
    load(wrong(400'000));
    ASSERT_THAT(collector.lines(), SizeIs(21));
    EXPECT_EQ(collector.lines()[20], "WARN " + INSTALLED + ": left out 399980 more");
    EXPECT_THAT(m_oProvider.activeFeatureNames(), ElementsAre("a"));
}

// FileRow makes something at the input's path that can't be used.
struct FileRow {
    const char* what;
    std::function<void()> make;
};

TEST_F(FeatureProviderTest, UnusableFileCountsAsEmptyWithOneErrorHoweverOftenItIsRechecked) {
    const FileRow rows[] = {
        {"too large", [] { putInstalled(R"({"name":"b"})" + std::string(1024 * 1024, ' ')); }},
        {"broken", [] { TempFolder::writeTo(INSTALLED, R"({"features":[{"name":"b"}])"); }},
        {"no object", [] { TempFolder::writeTo(INSTALLED, "[]"); }},
        {"no list", [] { TempFolder::writeTo(INSTALLED, R"({"features":{}})"); }},
        {"other serial", [] { TempFolder::writeTo(INSTALLED, R"({"features":[{"name":"b"}],"serial":"x"})"); }},
        {"directory", [] { fs::create_directory(INSTALLED); }},
        {"FIFO", [] { ASSERT_EQ(mkfifo(INSTALLED.c_str(), 0600), 0); }},
        {"read fault", [] { fs::create_symlink("/proc/self/mem", INSTALLED); }},
    };
    for (const FileRow& row : rows) {
        SCOPED_TRACE(row.what);
        putInstalled(R"({"name":"a"})");
        EXPECT_TRUE(m_oProvider.loadInput(0));
        RecordCollector collector;
        fs::remove_all(INSTALLED);
        row.make();
        EXPECT_TRUE(m_oProvider.loadInput(0));
        EXPECT_THAT(m_oProvider.activeFeatureNames(), IsEmpty());
        if (std::string("read fault") != row.what) {  // that one's modification time is always the present
            EXPECT_FALSE(m_oProvider.recheckAll(NOW));
            EXPECT_FALSE(m_oProvider.recheckAll(NOW));
        }
        ASSERT_THAT(collector.lines(), SizeIs(1));
        EXPECT_THAT(collector.lines()[0], StartsWith("ERROR "));
        EXPECT_THAT(collector.lines()[0], HasSubstr(INSTALLED));
        fs::remove_all(INSTALLED);
    }
}

TEST_F(FeatureProviderTest, MissingFileIsSilent) {
    RecordCollector collector;
    EXPECT_FALSE(m_oProvider.loadInput(0));
    EXPECT_FALSE(m_oProvider.dropInput(0));
    EXPECT_FALSE(m_oProvider.recheckAll(NOW));
    EXPECT_THAT(collector.lines(), IsEmpty());
}

// --- "The list changed"

// ChangeRow is an old and a new content, and whether loading the new one changes the list.
struct ChangeRow {
    const char* what;
    std::string before;
    std::string after;
    bool changed;
};

// FAR lies above the present moment of every run, PAST and LONG_AGO below.
constexpr int64_t FAR = 7258118400;  // 2200-01-01T00:00:00Z
constexpr int64_t PAST = 1577836800;
constexpr int64_t LONG_AGO = 946684800;

TEST_F(FeatureProviderTest, LoadingReturnsWhetherTheListOrItsNextInstantChanged) {
    const std::string a = R"({"name":"a"})";
    const std::string b = R"({"name":"b"})";
    const ChangeRow rows[] = {
        {"nothing", "", "", false},
        {"first feature", "", a, true},
        {"the same", a, a, false},
        {"one more", a, a + "," + b, true},
        {"one less", a + "," + b, a, true},
        {"another name", a, b, true},
        {"last one gone", a, "", true},
        {"whitespace", a, " { \"name\" :\"a\" } ", false},
        {"order in the file", a + "," + b, b + "," + a, false},
        {"unknown member", a, R"({"name":"a","x":1})", false},
        {"params new", a, R"({"name":"a","params":{}})", true},
        {"params gone", R"({"name":"a","params":{}})", a, true},
        {"params other", R"({"name":"a","params":{"x":1}})", R"({"name":"a","params":{"x":2}})", true},
        {"params in another order", R"({"name":"a","params":{"x":1,"y":2}})", R"({"name":"a","params":{"y":2,"x":1}})",
         false},
        {"number written otherwise", R"({"name":"a","params":{"x":10}})", R"({"name":"a","params":{"x":1e1}})", false},
        {"member of an active feature", window("a", LONG_AGO, -1), window("a", PAST, -1), true},
        {"end of an active feature", window("a", -1, FAR), window("a", -1, FAR + 1), true},
        {"repetition after the first", a, a + R"(,{"name":"a","params":{}})", false},
        {"repetition before the first", a, R"({"name":"a","params":{}},)" + a, true},
        {"broken entry", a, a + ",5", false},
        {"past feature", a, a + "," + window("b", LONG_AGO, PAST), false},
        {"empty window to come", a, a + "," + window("b", FAR, FAR), false},
        {"reversed window to come", a, a + "," + window("b", FAR + 9, FAR), false},
        {"future feature", a, a + "," + window("b", FAR, -1), true},
        {"future feature alone", "", window("b", FAR, -1), true},
        {"future feature moved", window("b", FAR, -1), window("b", FAR + 1, -1), true},
        {"future feature gone", window("b", FAR, -1), "", true},
        {"another future feature at the same instant", window("b", FAR, -1), window("c", FAR, -1), false},
        {"a later future feature", window("b", FAR, -1), window("b", FAR, -1) + "," + window("c", FAR + 5, -1), false},
        {"an earlier future feature", window("b", FAR, -1), window("b", FAR, -1) + "," + window("c", FAR - 5, -1),
         true},
        {"future entry of a name that stays hidden", a, a + "," + window("a", FAR, -1), false},
        {"future entry that will take a name over", a, window("a", FAR, -1) + "," + a, true},
    };
    for (const ChangeRow& row : rows) {
        SCOPED_TRACE(row.what);
        fs::remove_all(INSTALLED);
        m_oProvider.init(NOW);
        load(row.before);
        EXPECT_FALSE(m_oProvider.loadInput(0));
        EXPECT_EQ(load(row.after), row.changed);
        EXPECT_FALSE(m_oProvider.loadInput(0));
        EXPECT_FALSE(m_oProvider.recheckAll(currentSeconds()));
    }
}

TEST_F(FeatureProviderTest, RecheckJudgesForTheMomentGiven) {
    load(window("a", 100, 200) + "," + window("b", 150, -1));
    EXPECT_THAT(m_oProvider.activeFeatureNames(), ElementsAre("b")) << "judged for the present";
    EXPECT_TRUE(m_oProvider.recheckAll(99));
    EXPECT_THAT(m_oProvider.activeFeatureNames(), IsEmpty());
    EXPECT_FALSE(m_oProvider.recheckAll(50)) << "still none, and the next is still 100";
    EXPECT_TRUE(m_oProvider.recheckAll(100));
    EXPECT_THAT(m_oProvider.activeFeatureNames(), ElementsAre("a"));
    EXPECT_FALSE(m_oProvider.recheckAll(149));
    EXPECT_TRUE(m_oProvider.recheckAll(150));
    EXPECT_THAT(m_oProvider.activeFeatureNames(), ElementsAre("a", "b"));
    EXPECT_FALSE(m_oProvider.recheckAll(199));
    EXPECT_TRUE(m_oProvider.recheckAll(200));
    EXPECT_THAT(m_oProvider.activeFeatureNames(), ElementsAre("b"));
    EXPECT_FALSE(m_oProvider.recheckAll(1'000'000));
}

TEST_F(FeatureProviderTest, RecheckReportsAChangeIfOnlyTheNextInstantIsAnother) {
    // the same list at 10 and at 40, but the next changes are at 20 and at 50
    load(window("a", 20, 30) + "," + window("a", 50, 60));
    m_oProvider.recheckAll(10);
    EXPECT_TRUE(m_oProvider.recheckAll(40));
    EXPECT_FALSE(m_oProvider.recheckAll(41));
    EXPECT_TRUE(m_oProvider.recheckAll(61));
    EXPECT_FALSE(m_oProvider.recheckAll(62));
}

// --- dropInput

TEST_F(FeatureProviderTest, DropWithTheFileGoneJudges) {
    load(R"({"name":"a"})");
    fs::remove(INSTALLED);
    EXPECT_TRUE(m_oProvider.dropInput(0));
    EXPECT_THAT(m_oProvider.activeFeatureNames(), IsEmpty());
    EXPECT_THAT(namesAt(NOW), IsEmpty());
    EXPECT_FALSE(m_oProvider.dropInput(0));
    EXPECT_FALSE(m_oProvider.recheckAll(currentSeconds()));
}

TEST_F(FeatureProviderTest, DropOfAFutureFeatureWithTheFileGoneIsAChange) {
    load(window("a", FAR, -1));
    fs::remove(INSTALLED);
    EXPECT_TRUE(m_oProvider.dropInput(0));
    EXPECT_EQ(next(NOW), 0);
}

TEST_F(FeatureProviderTest, DropOfWhatWasNotShownWithTheFileGoneIsNoChange) {
    load(window("a", LONG_AGO, PAST));
    fs::remove(INSTALLED);
    EXPECT_FALSE(m_oProvider.dropInput(0));
}

TEST_F(FeatureProviderTest, DropWithTheFileStillThereJudgesNothing) {
    load(R"({"name":"a"})");
    EXPECT_FALSE(m_oProvider.dropInput(0));
    EXPECT_THAT(m_oProvider.activeFeatureNames(), ElementsAre("a"));
    EXPECT_FALSE(m_oProvider.loadInput(0)) << "the list is the one judged before the drop";
    EXPECT_THAT(namesAt(NOW), ElementsAre("a"));
}

TEST_F(FeatureProviderTest, DropForgetsTheContent) {
    load(R"({"name":"a"})");
    m_oProvider.dropInput(0);
    EXPECT_THAT(namesAt(NOW), IsEmpty());
}

TEST_F(FeatureProviderTest, RenameOverTheFileIsOneChange) {
    load(R"({"name":"a"})");
    replace(R"({"name":"b"})");
    EXPECT_FALSE(m_oProvider.dropInput(0));
    EXPECT_THAT(m_oProvider.activeFeatureNames(), ElementsAre("a"));
    EXPECT_TRUE(m_oProvider.loadInput(0));
    EXPECT_THAT(m_oProvider.activeFeatureNames(), ElementsAre("b"));
}

TEST_F(FeatureProviderTest, RecheckReadsADroppedFileThatIsStillThere) {
    load(R"({"name":"a"})");
    EXPECT_FALSE(m_oProvider.dropInput(0));
    EXPECT_FALSE(m_oProvider.recheckAll(currentSeconds())) << "the same list as before the drop";
    EXPECT_THAT(namesAt(NOW), ElementsAre("a"));
}

TEST_F(FeatureProviderTest, RecheckNoticesThatADroppedFileWentAway) {
    load(R"({"name":"a"})");
    EXPECT_FALSE(m_oProvider.dropInput(0));
    fs::remove(INSTALLED);
    EXPECT_TRUE(m_oProvider.recheckAll(currentSeconds()));
    EXPECT_THAT(m_oProvider.activeFeatureNames(), IsEmpty());
}

TEST_F(FeatureProviderTest, FileThatBecameUnusableIsStillThere) {
    load(R"({"name":"a"})");
    fs::remove(INSTALLED);
    fs::create_directory(INSTALLED);
    EXPECT_FALSE(m_oProvider.dropInput(0));
    EXPECT_THAT(m_oProvider.activeFeatureNames(), ElementsAre("a"));
}

// --- Two inputs: an event of one between the two events of a rename over the other

TEST_F(FeatureProviderTest, DroppedInputThatIsStillThereIsReadAgainWhenTheOtherIsLoaded) {
    putGrant(R"({"name":"granted"})");
    load(R"({"name":"installed"})");
    EXPECT_TRUE(m_oProvider.loadInput(1));
    EXPECT_FALSE(m_oProvider.dropInput(1));
    EXPECT_FALSE(m_oProvider.dropInput(0));
    EXPECT_FALSE(m_oProvider.loadInput(0)) << "both files hold what they held";
    EXPECT_THAT(m_oProvider.activeFeatureNames(), ElementsAre("granted", "installed"));
    EXPECT_FALSE(m_oProvider.recheckAll(currentSeconds()));
}

TEST_F(FeatureProviderTest, DroppedInputThatIsStillThereIsReadAgainWhenTheFileOfTheOtherIsGone) {
    load(R"({"name":"installed"})");
    EXPECT_FALSE(m_oProvider.dropInput(0));
    EXPECT_FALSE(m_oProvider.dropInput(1)) << "there never was a grant";
    EXPECT_THAT(m_oProvider.activeFeatureNames(), ElementsAre("installed"));
    EXPECT_FALSE(m_oProvider.recheckAll(currentSeconds()));
}

TEST_F(FeatureProviderTest, NewContentOfADroppedInputIsTakenByWhoeverJudgesFirst) {
    load(R"({"name":"old"})");
    replace(R"({"name":"new"})");
    EXPECT_FALSE(m_oProvider.dropInput(0));
    EXPECT_TRUE(m_oProvider.loadInput(1));
    EXPECT_THAT(m_oProvider.activeFeatureNames(), ElementsAre("new"));
    EXPECT_FALSE(m_oProvider.loadInput(0)) << "the second event of the rename brings nothing more";
}

TEST_F(FeatureProviderTest, InputThatWasNeverReadIsNotReadWithTheOther) {
    TempFolder::writeTo(INSTALLED, "bad");
    RecordCollector collector;
    m_oProvider.dropInput(1);
    m_oProvider.loadInput(1);
    EXPECT_THAT(collector.lines(), IsEmpty());
    m_oProvider.loadInput(0);
    EXPECT_THAT(collector.lines(), SizeIs(1));
    m_oProvider.loadInput(1);
    EXPECT_THAT(collector.lines(), SizeIs(1));
}

// --- recheckAll reads again

TEST_F(FeatureProviderTest, RecheckReadsAFileThatAppearedAndNoticesOneThatWent) {
    EXPECT_FALSE(m_oProvider.recheckAll(NOW));
    putInstalled(R"({"name":"a"})");
    EXPECT_TRUE(m_oProvider.recheckAll(NOW));
    EXPECT_THAT(m_oProvider.activeFeatureNames(), ElementsAre("a"));
    EXPECT_FALSE(m_oProvider.recheckAll(NOW));
    fs::remove(INSTALLED);
    EXPECT_TRUE(m_oProvider.recheckAll(NOW));
    EXPECT_THAT(m_oProvider.activeFeatureNames(), IsEmpty());
    EXPECT_FALSE(m_oProvider.recheckAll(NOW));
}

TEST_F(FeatureProviderTest, RecheckReadsAReplacedFile) {
    load(R"({"name":"a"})");
    replace(R"({"name":"b"})");
    EXPECT_TRUE(m_oProvider.recheckAll(NOW));
    EXPECT_THAT(m_oProvider.activeFeatureNames(), ElementsAre("b"));
    EXPECT_FALSE(m_oProvider.recheckAll(NOW));
}

void setModified(int64_t seconds) {
    const timespec times[2] = {{seconds, 0}, {seconds, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, INSTALLED.c_str(), times, 0), 0);
}

TEST_F(FeatureProviderTest, RecheckReadsNoFileThatKeptItsInodeSizeAndModificationTime) {
    putInstalled(R"({"name":"a"})");
    setModified(1000);
    EXPECT_TRUE(m_oProvider.loadInput(0));
    putInstalled(R"({"name":"b"})");
    setModified(1000);
    EXPECT_FALSE(m_oProvider.recheckAll(NOW));
    EXPECT_THAT(m_oProvider.activeFeatureNames(), ElementsAre("a"));
    setModified(1001);
    EXPECT_TRUE(m_oProvider.recheckAll(NOW));
    EXPECT_THAT(m_oProvider.activeFeatureNames(), ElementsAre("b"));
    putInstalled(R"({"name":"cc"})");
    setModified(1001);
    EXPECT_TRUE(m_oProvider.recheckAll(NOW)) << "another size";
    EXPECT_THAT(m_oProvider.activeFeatureNames(), ElementsAre("cc"));
}

TEST_F(FeatureProviderTest, LoadInputAlwaysReads) {
    putInstalled(R"({"name":"a"})");
    setModified(1000);
    EXPECT_TRUE(m_oProvider.loadInput(0));
    putInstalled(R"({"name":"b"})");
    setModified(1000);
    EXPECT_TRUE(m_oProvider.loadInput(0));
    EXPECT_THAT(m_oProvider.activeFeatureNames(), ElementsAre("b"));
}

TEST_F(FeatureProviderTest, FileWithTheSameFeaturesIsReadAgainButIsNoChange) {
    load(R"({"name":"a"})");
    replace(R"( {"name":"a"})");
    EXPECT_FALSE(m_oProvider.recheckAll(NOW));
    setModified(4000);
    EXPECT_FALSE(m_oProvider.recheckAll(NOW));
}

// --- The next instant

// NextRow is a list, a moment and the next instant at which the list shown then changes.
struct NextRow {
    const char* what;
    std::string entries;
    int64_t now;
    int64_t next;
};

TEST_F(FeatureProviderTest, NextInstantIsTheFirstChangeOfTheListShown) {
    const NextRow rows[] = {
        {"no windows", window("a", -1, -1), 100, 0},
        {"begin to come", window("a", 100, -1), 99, 100},
        {"begin is now", window("a", 100, -1), 100, 0},
        {"begin passed", window("a", 100, -1), 101, 0},
        {"end to come", window("a", -1, 100), 99, 100},
        {"end is now", window("a", -1, 100), 100, 0},
        {"begin before end", window("a", 100, 200), 50, 100},
        {"end after begin", window("a", 100, 200), 100, 200},
        {"empty window", window("a", 100, 100), 50, 0},
        {"reversed window", window("a", 200, 100), 50, 0},
        {"reversed window, between its bounds", window("a", 200, 100), 150, 0},
        {"the smaller of two", window("a", 300, -1) + "," + window("b", 200, -1), 50, 200},
        {"hidden entry begins", window("a", -1, -1) + "," + window("a", 100, -1), 50, 0},
        {"hidden entry ends", window("a", -1, -1) + "," + window("a", -1, 100), 50, 0},
        {"hidden entry comes to light", window("a", -1, 200) + "," + window("a", 100, -1), 50, 200},
        {"hidden entry ends before it comes to light", window("a", -1, 200) + "," + window("a", 100, 150), 50, 200},
        {"first entry takes over", window("a", 100, 200) + "," + window("a", -1, -1), 50, 100},
        {"second entry takes over", window("a", 100, 200) + "," + window("a", -1, -1), 100, 200},
        {"hand-over with other members", window("a", -1, 100) + "," + window("a", 100, -1), 50, 100},
        {"third entry after two", window("a", -1, 200) + "," + window("a", -1, 300) + "," + window("a", 50, 400), 60,
         200},
        {"same bounds twice", window("a", 100, 200) + "," + window("a", 100, 200), 150, 200},
        {"one name hidden, another not", window("a", -1, -1) + "," + window("a", 100, 200) + "," + window("b", 150, -1),
         50, 150},
    };
    for (const NextRow& row : rows) {
        SCOPED_TRACE(row.what);
        load(row.entries);
        EXPECT_EQ(next(row.now), row.next);
    }
}

TEST_F(FeatureProviderTest, NextInstantBeyondTheYear2262) {
    load(R"({"name":"a","validUntil":"9999-12-31T23:59:59Z"})");
    EXPECT_EQ(next(NOW), 253402300799);
}

TEST_F(FeatureProviderTest, AgreesWithBruteForceOnRandomLists) {
    std::mt19937 random(20260615);
    for (int list = 0; list < 4000 && !HasFailure(); list++) {
        const FeatureListModel model = randomModel(random);
        SCOPED_TRACE(model.input());
        load(model.input());
        std::optional<std::pair<std::string, int64_t>> judged;
        for (int moment = 0; moment < 5; moment++) {
            const auto now = static_cast<int64_t>(random() % 16);
            SCOPED_TRACE(now);
            const FeatureListModel::List expected = model.listAt(now);
            const int64_t expectedNext = model.next(now);
            std::ostringstream stream;
            EXPECT_EQ(m_oProvider.writeFeatures(now, stream), expectedNext);
            EXPECT_EQ(stream.str(), FeatureListModel::documentOf(now, expected));
            const bool changed = m_oProvider.recheckAll(now);
            const std::pair<std::string, int64_t> judgement(FeatureListModel::show(expected), expectedNext);
            if (judged) {
                EXPECT_EQ(changed, *judged != judgement);
            }
            judged = judgement;
            Lines names;
            for (const auto& [name, entry] : expected) {
                names.push_back(name);
            }
            EXPECT_EQ(m_oProvider.activeFeatureNames(), names);
        }
    }
}

// --- Many entries

TEST_F(FeatureProviderTest, TenThousandFeatures) {
    std::string entries;
    for (int i = 9999; i >= 0; i--) {
        entries += (entries.empty() ? "" : ",") + window(strfmt("f%04d", i), NOW - 20000 + 2 * i, -1);
    }
    EXPECT_TRUE(load(entries));
    EXPECT_THAT(namesAt(NOW + 1), SizeIs(10000));
    EXPECT_THAT(namesAt(NOW - 10001), SizeIs(5000));
    EXPECT_EQ(next(NOW - 10001), NOW - 10000);
    EXPECT_FALSE(m_oProvider.loadInput(0));
}

TEST_F(FeatureProviderTest, TenThousandEntriesOfOneName) {
    std::string oneAfterAnother;
    std::string hidden = window("x", -1, -1);
    std::string ends;
    for (int i = 0; i < 10000; i++) {
        const char* comma = i ? "," : "";
        oneAfterAnother += comma + window("x", NOW + i, NOW + i + 1);
        hidden += "," + window("x", NOW + i, NOW + i + 5);
        ends += comma + window("x", -1, NOW + 10000 - i);
    }
    load(oneAfterAnother);
    EXPECT_EQ(next(NOW - 1), NOW);
    EXPECT_EQ(next(NOW + 5000), NOW + 5001);
    EXPECT_EQ(next(NOW + 10000), 0);
    load(hidden);
    EXPECT_EQ(next(NOW - 1), 0);
    EXPECT_THAT(namesAt(NOW), ElementsAre("x"));
    load(ends);
    EXPECT_EQ(next(NOW), NOW + 10000);
    EXPECT_FALSE(m_oProvider.loadInput(0));
}

}  // namespace
