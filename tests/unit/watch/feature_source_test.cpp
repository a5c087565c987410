// feature_source_test.cpp: one input file: what is taken from it, what is left out with a record, when it counts as
// another.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <limits>
#include <set>
#include <string>
#include <vector>

#include "unit/record_collector.h"
#include "unit/rounds.h"
#include "unit/watch/device_serial.h"
#include "watch/feature_source.h"

namespace {

namespace fs = std::filesystem;
using testing::ContainsRegex;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;

constexpr int64_t ALWAYS = std::numeric_limits<int64_t>::min();
constexpr int64_t NEVER = std::numeric_limits<int64_t>::max();
constexpr size_t LIMIT = 1024 * 1024;

// SECRET is part of every content that must not reach a record.
const std::string SECRET = "SeCrEt";

class FeatureSourceTest : public testing::Test {
protected:
    // A hang is a failure: SIGALRM ends the program.
    FeatureSourceTest() : m_oSource(path(), "installed") {
        alarm(patience(60));
        setSerial("0000abcd");
    }
    ~FeatureSourceTest() override {
        alarm(0);
        clearSerial();
    }

    std::string path() const { return m_oFolder / "features.json"; }

    void load(const std::string& document) {
        m_oFolder.write("features.json", document);
        m_oSource.load();
    }

    // loadEntry loads a file with one entry, of which `entry` is the text.
    void loadEntry(const std::string& entry) { load(R"({"features":[)" + entry + "]}"); }

    Lines names() const {
        Lines result;
        for (const Feature& feature : m_oSource.features()) {
            result.push_back(feature.name);
        }
        return result;
    }

    // entry returns the only feature as the document would show it, but on one line.
    std::string entry() const {
        std::string text;
        if (m_oSource.features().size() == 1) {
            JSON::parse(m_oSource.features()[0].text)->stringify(text, -1);
        }
        return text;
    }

    // reasonOf returns the reason of the only record: what it says besides the path.
    std::string reasonOf(const RecordCollector& collector, const std::string& level) const {
        EXPECT_THAT(collector.lines(), SizeIs(1));
        if (collector.lines().size() != 1) {
            return "";
        }
        const std::string line = collector.lines()[0];
        EXPECT_THAT(line, StartsWith(level + " "));
        EXPECT_THAT(line, Not(HasSubstr(SECRET)));
        return withoutPath(line);
    }

    // withoutPath takes the file's path, which must be there, out of a record.
    std::string withoutPath(std::string line) const {
        const size_t at = line.find(path());
        EXPECT_NE(at, std::string::npos) << line;
        return at == std::string::npos ? line : line.erase(at, path().size());
    }

    TempFolder m_oFolder;
    FeatureSource m_oSource;
};

// --- Feature

TEST(Feature, IsActiveFromItsBeginToJustBeforeItsEnd) {
    Feature feature;
    feature.validFrom = 10;
    feature.validUntil = 20;
    EXPECT_FALSE(feature.isActive(9));
    EXPECT_TRUE(feature.isActive(10));
    EXPECT_TRUE(feature.isActive(19));
    EXPECT_FALSE(feature.isActive(20));
}

TEST(Feature, IsAlwaysActiveWithoutAWindow) {
    const Feature feature;
    for (const int64_t now : {ALWAYS, int64_t{-1}, int64_t{0}, int64_t{1'800'000'000}, NEVER - 1}) {
        EXPECT_TRUE(feature.isActive(now));
        EXPECT_FALSE(feature.startsAfter(now));
    }
    EXPECT_FALSE(feature.ends());
}

TEST(Feature, EmptyWindowIsNeverActiveAndNeverStarts) {
    for (const int64_t until : {10, 9}) {
        Feature feature;
        feature.validFrom = 10;
        feature.validUntil = until;
        for (const int64_t now : {8, 9, 10, 11}) {
            EXPECT_FALSE(feature.isActive(now));
            EXPECT_FALSE(feature.startsAfter(now));
        }
    }
}

TEST(Feature, StartsAfterAnInstantBeforeItsBegin) {
    Feature feature;
    feature.validFrom = 10;
    EXPECT_TRUE(feature.startsAfter(9));
    EXPECT_FALSE(feature.startsAfter(10));
    EXPECT_FALSE(feature.ends());
    feature.validUntil = 20;
    EXPECT_TRUE(feature.ends());
}

// --- Entries

// EntryRow is an entry of the file and what becomes of it.
struct EntryRow {
    const char* text;
    const char* entry;
    int64_t validFrom;
    int64_t validUntil;
};

TEST_F(FeatureSourceTest, TakesWellFormedEntries) {
    const EntryRow rows[] = {
        {R"({"name":"a"})", R"({ "name": "a", "source": "installed" })", ALWAYS, NEVER},
        {R"({"name":" "})", R"({ "name": " ", "source": "installed" })", ALWAYS, NEVER},
        {R"({"name":"gr\u00fcn \"x\"\n"})", "{ \"name\": \"gr\xC3\xBCn \\\"x\\\"\\n\", \"source\": \"installed\" }",
         ALWAYS, NEVER},
        {R"({"name":"a","validFrom":"2026-01-01T00:00:00Z"})",
         R"({ "name": "a", "source": "installed", "validFrom": "2026-01-01T00:00:00Z" })", 1767225600, NEVER},
        {R"({"name":"a","validUntil":"2027-01-01T00:00:00Z"})",
         R"({ "name": "a", "source": "installed", "validUntil": "2027-01-01T00:00:00Z" })", ALWAYS, 1798761600},
        {R"({"validUntil":"1970-01-01T00:00:01Z","validFrom":"1970-01-01T00:00:00Z","params":{},"name":"a"})",
         R"({ "name": "a", "params": { }, "source": "installed", "validFrom": "1970-01-01T00:00:00Z", )"
         R"("validUntil": "1970-01-01T00:00:01Z" })",
         0, 1},
        // params is handed on as it is, whatever its members are called
        {R"({"name":"a","params":{"outputs":4,"z":[1,null,true,{"name":5}],"b":"\u20ac","source":"x","n":-0.5e-3}})",
         "{ \"name\": \"a\", \"params\": { \"b\": \"\xE2\x82\xAC\", \"n\": -0.0005, \"outputs\": 4, \"source\": \"x\", "
         "\"z\": [ 1, null, true, { \"name\": 5 } ] }, \"source\": \"installed\" }",
         ALWAYS, NEVER},
        // unknown members, also those that an entry of the document has, are ignored whatever they hold
        {R"({"name":"a","other":1e999,"source":"mine","Name":5,"serial":7,"validfrom":"x","param":[]})",
         R"({ "name": "a", "source": "installed" })", ALWAYS, NEVER},
        // an empty window is not a fault: the feature is just never active
        {R"({"name":"a","validFrom":"2026-01-01T00:00:01Z","validUntil":"2026-01-01T00:00:00Z"})",
         R"({ "name": "a", "source": "installed", "validFrom": "2026-01-01T00:00:01Z", )"
         R"("validUntil": "2026-01-01T00:00:00Z" })",
         1767225601, 1767225600},
        // of equal members the last counts
        {R"({"name":5,"name":"a"})", R"({ "name": "a", "source": "installed" })", ALWAYS, NEVER},
    };
    for (const EntryRow& row : rows) {
        SCOPED_TRACE(row.text);
        RecordCollector collector;
        loadEntry(row.text);
        EXPECT_EQ(entry(), row.entry);
        ASSERT_THAT(m_oSource.features(), SizeIs(1));
        EXPECT_EQ(m_oSource.features()[0].validFrom, row.validFrom);
        EXPECT_EQ(m_oSource.features()[0].validUntil, row.validUntil);
        EXPECT_THAT(collector.lines(), IsEmpty());
    }
}

// InstantRow is a text in the form of the document's checkDate, and its seconds since the epoch.
struct InstantRow {
    const char* text;
    int64_t seconds;
};

TEST_F(FeatureSourceTest, ReadsInstants) {
    const InstantRow rows[] = {
        {"1970-01-01T00:00:00Z", 0},           {"1969-12-31T23:59:59Z", -1},
        {"2000-02-29T12:34:56Z", 951827696},   {"2024-02-29T00:00:00Z", 1709164800},
        {"2026-12-31T23:59:59Z", 1798761599},  {"2038-01-19T03:14:08Z", 2147483648},
        {"2100-02-28T23:59:59Z", 4107542399},  {"9999-12-31T23:59:59Z", 253402300799},
        {"1900-01-01T00:00:00Z", -2208988800},
    };
    for (const InstantRow& row : rows) {
        SCOPED_TRACE(row.text);
        RecordCollector collector;
        loadEntry(R"({"name":"a","validFrom":")" + std::string(row.text) + R"("})");
        EXPECT_THAT(collector.lines(), IsEmpty());
        ASSERT_THAT(m_oSource.features(), SizeIs(1));
        EXPECT_EQ(m_oSource.features()[0].validFrom, row.seconds);
    }
}

// BAD_INSTANTS are JSON values that are not an instant in exactly the form of checkDate.
const char* const BAD_INSTANTS[] = {
    R"("")",
    R"("SeCrEt")",
    R"("2026-01-01")",
    R"("2026-01-01T00:00:00")",
    R"("2026-01-01T00:00:00z")",
    R"("2026-01-01t00:00:00Z")",
    R"("2026-01-01 00:00:00Z")",
    R"("2026-01-01T00:00:00ZZ")",
    R"("2026-01-01T00:00:00Z ")",
    R"(" 2026-01-01T00:00:00Z")",
    R"("2026-01-01T00:00:00Z\n")",
    R"("2026-01-01T00:00:00.0Z")",
    R"("2026-01-01T00:00:00+00:00")",
    R"("2026-01-01T00:00Z")",
    R"("2026-1-01T00:00:00Z")",
    R"("2026-01-1T00:00:00Z")",
    R"("2026-01-01T0:00:00Z")",
    R"("2026-01-01T00:0:000Z")",
    R"("2026-01-01T00:00:0Z")",
    R"("026-01-01T00:00:00Z")",
    R"("02026-01-01T00:00:00Z")",
    R"("+026-01-01T00:00:00Z")",
    R"("-026-01-01T00:00:00Z")",
    R"(" 026-01-01T00:00:00Z")",
    R"("2026-+1-01T00:00:00Z")",
    R"("2026- 1-01T00:00:00Z")",
    R"("2026-01--1T00:00:00Z")",
    R"("2026/01/01T00:00:00Z")",
    R"("2026-01-01T00.00.00Z")",
    R"("20260101T000000Z")",
    R"("2026-00-01T00:00:00Z")",
    R"("2026-13-01T00:00:00Z")",
    R"("2026-01-00T00:00:00Z")",
    R"("2026-01-32T00:00:00Z")",
    R"("2026-04-31T00:00:00Z")",
    R"("2026-02-29T00:00:00Z")",
    R"("2100-02-29T00:00:00Z")",
    R"("2026-02-30T00:00:00Z")",
    R"("2026-01-01T24:00:00Z")",
    R"("2026-01-01T00:60:00Z")",
    R"("2026-01-01T00:00:61Z")",
    R"("2026-12-31T23:59:60Z")",
    R"("0x26-01-01T00:00:00Z")",
    R"("2026-01-01T00:00:00\u005a0")",
    "1767225600",
    "null",
    "true",
    "{}",
    R"(["2026-01-01T00:00:00Z"])",
};

TEST_F(FeatureSourceTest, LeavesEntriesWithBadInstantsOut) {
    for (const std::string member : {"validFrom", "validUntil"}) {
        for (const char* instant : BAD_INSTANTS) {
            SCOPED_TRACE(member + " " + instant);
            RecordCollector collector;
            loadEntry(R"({"name":"a",")" + member + R"(":)" + instant + "}");
            EXPECT_THAT(names(), IsEmpty());
            EXPECT_THAT(reasonOf(collector, "WARN"), HasSubstr("0"));
        }
    }
}

// BROKEN_ENTRIES break the form in other ways.
const char* const BROKEN_ENTRIES[] = {
    "null",
    "true",
    "5",
    R"("SeCrEt")",
    R"([{"name":"SeCrEt"}])",
    "{}",
    R"({"Name":"SeCrEt"})",
    R"({"name":""})",
    R"({"name":null})",
    R"({"name":5})",
    R"({"name":["SeCrEt"]})",
    R"({"name":{"SeCrEt":1}})",
    R"({"name":"a","params":null})",
    R"({"name":"a","params":[]})",
    R"({"name":"a","params":["SeCrEt"]})",
    R"({"name":"a","params":"SeCrEt"})",
    R"({"name":"a","params":1})",
    R"({"name":"a","params":false})",
    // numbers that no JSON document can hold
    R"({"name":"a","params":{"SeCrEt":1e999}})",
    R"({"name":"a","params":{"x":-1e999}})",
    R"({"name":"a","params":{"x":[1,[2,{"y":1e400}]],"z":1}})",
    // a good window doesn't make up for it, nor good members for one bad instant
    R"({"validFrom":"2026-01-01T00:00:00Z","params":{}})",
    R"({"name":"a","validFrom":"2026-01-01T00:00:00Z","validUntil":"SeCrEt","params":{}})",
};

TEST_F(FeatureSourceTest, LeavesBrokenEntriesOut) {
    for (const char* text : BROKEN_ENTRIES) {
        SCOPED_TRACE(text);
        RecordCollector collector;
        loadEntry(text);
        EXPECT_THAT(names(), IsEmpty());
        EXPECT_THAT(reasonOf(collector, "WARN"), HasSubstr("0"));
    }
}

TEST_F(FeatureSourceTest, OneWarningForEachBrokenEntryNamesItsIndexAndTheOthersAreTaken) {
    RecordCollector collector;
    load(R"({"features":[{"name":"a"},{"name":""},{"name":"b"},17,{"name":"a"},{"name":"c","params":[],)"
         R"("validFrom":"x"},{"name":"d"}]})");
    EXPECT_THAT(names(), ElementsAre("a", "b", "a", "d"));
    const Lines lines = collector.lines();
    ASSERT_THAT(lines, SizeIs(3));
    const char* const indices[] = {"1", "3", "5"};
    for (size_t i = 0; i < 3; i++) {
        EXPECT_THAT(lines[i], StartsWith("WARN "));
        EXPECT_THAT(withoutPath(lines[i]), ContainsRegex("[^0-9]" + std::string(indices[i]) + "([^0-9]|$)"));
    }
}

TEST_F(FeatureSourceTest, EachFaultOfAnEntryHasItsOwnReason) {
    std::set<std::string> reasons;
    for (const char* text : {"5", R"({"name":""})", R"({"name":"a","validFrom":1})", R"({"name":"a","validUntil":1})",
                             R"({"name":"a","params":1})", R"({"name":"a","params":{"x":1e999}})"}) {
        RecordCollector collector;
        loadEntry(text);
        reasons.insert(reasonOf(collector, "WARN"));
    }
    EXPECT_THAT(reasons, SizeIs(6));
}

TEST_F(FeatureSourceTest, EmptyListIsNotAFault) {
    RecordCollector collector;
    load(R"({"features":[]})");
    EXPECT_THAT(names(), IsEmpty());
    EXPECT_THAT(collector.lines(), IsEmpty());
}

TEST_F(FeatureSourceTest, UnknownMembersOfTheFileAreIgnored) {
    RecordCollector collector;
    load(R"({"version":7,"features":[{"name":"a"}],"zzz":[1e999],"Serial":"other"})");
    EXPECT_THAT(names(), ElementsAre("a"));
    EXPECT_THAT(collector.lines(), IsEmpty());
}

TEST_F(FeatureSourceTest, LabelIsTheSourceOfEachFeature) {
    const std::string file = m_oFolder.write("other.json", R"({"features":[{"name":"a"}]})");
    FeatureSource source(file, "granted");
    source.load();
    ASSERT_THAT(source.features(), SizeIs(1));
    EXPECT_EQ(JSON::parse(source.features()[0].text)->get("source")->toString(), "granted");
}

TEST_F(FeatureSourceTest, TenThousandFeatures) {
    std::string text;
    for (int i = 0; i < 10000; i++) {
        text += (i ? "," : "") + strfmt(R"({"name":"feature-%d","params":{"n":%d}})", i, i);
    }
    loadEntry(text);
    ASSERT_THAT(m_oSource.features(), SizeIs(10000));
    EXPECT_EQ(m_oSource.features()[9999].name, "feature-9999");
}

// nested returns `depth` objects around a value.
std::string nested(int depth, const std::string& value) {
    std::string text;
    for (int i = 0; i < depth; i++) {
        text += R"({"a":)";
    }
    return text + value + std::string(static_cast<size_t>(depth), '}');
}

// printed returns the same in the form in which it is printed on one line.
std::string printed(int depth, const std::string& value) {
    std::string text;
    std::string tail;
    for (int i = 0; i < depth; i++) {
        text += R"({ "a": )";
        tail += " }";
    }
    return text + value + tail;
}

TEST_F(FeatureSourceTest, ParamsMayNest100Deep) {
    RecordCollector collector;
    for (const char* value : {"1", "null", "{ }", "[ ]"}) {
        loadEntry(R"({"name":"deep","params":)" + nested(100, value) + "}");
        EXPECT_THAT(names(), ElementsAre("deep"));
        EXPECT_EQ(entry(), R"({ "name": "deep", "params": )" + printed(100, value) + R"(, "source": "installed" })");
    }
    EXPECT_THAT(collector.lines(), IsEmpty());
}

TEST_F(FeatureSourceTest, ParamsThatNestDeeperAreLeftOut) {
    for (const std::string& params :
         {nested(101, "1"), nested(101, "{}"), nested(100, "[1]"), nested(99, "[[1]]"), nested(99, "[[[]]]"),
          nested(150000, "1"), R"({"a":)" + std::string(400000, '[') + std::string(400000, ']') + "}",
          nested(100000, "1e999")}) {
        SCOPED_TRACE(params.substr(0, 200));
        RecordCollector collector;
        loadEntry(R"({"name":"deep","params":)" + params + R"(},{"name":"other"})");
        EXPECT_THAT(names(), ElementsAre("other"));
        reasonOf(collector, "WARN");
    }
}

TEST_F(FeatureSourceTest, UnknownMembersMayNestAsDeepAsTheyLike) {
    RecordCollector collector;
    loadEntry(R"({"name":"a","x":)" + nested(100000, "1") + "}");
    EXPECT_THAT(names(), ElementsAre("a"));
    EXPECT_THAT(collector.lines(), IsEmpty());
}

// --- Serial number

TEST_F(FeatureSourceTest, SerialOfThisDeviceIsTaken) {
    RecordCollector collector;
    load(R"({"serial":"0000abcd","features":[{"name":"a"}]})");
    EXPECT_THAT(names(), ElementsAre("a"));
    EXPECT_THAT(collector.lines(), IsEmpty());
}

TEST_F(FeatureSourceTest, SerialIsNotNeededEvenOnADeviceWithoutOne) {
    clearSerial();
    RecordCollector collector;
    load(R"({"features":[{"name":"a"}]})");
    EXPECT_THAT(names(), ElementsAre("a"));
    EXPECT_THAT(collector.lines(), IsEmpty());
}

TEST_F(FeatureSourceTest, AnyOtherSerialMakesTheFileUnusable) {
    for (const char* serial : {R"("SeCrEt")", R"("")", R"("0000ABCD")", R"("0000abcd ")", R"("0000abc")", "null", "1",
                               R"(["0000abcd"])", "true"}) {
        SCOPED_TRACE(serial);
        load(R"({"features":[{"name":"old"}]})");
        RecordCollector collector;
        load(R"({"features":[{"name":"a"},{"name":""}],"serial":)" + std::string(serial) + "}");
        EXPECT_THAT(names(), IsEmpty());
        reasonOf(collector, "ERROR");
    }
}

TEST_F(FeatureSourceTest, DeviceWithoutASerialTakesNoFileThatGivesOne) {
    clearSerial();
    for (const char* serial : {R"("0000abcd")", R"("[not defined]")", R"("")"}) {
        SCOPED_TRACE(serial);
        RecordCollector collector;
        load(R"({"features":[{"name":"a"}],"serial":)" + std::string(serial) + "}");
        EXPECT_THAT(names(), IsEmpty());
        reasonOf(collector, "ERROR");
    }
}

TEST_F(FeatureSourceTest, SerialNumberIsNotLogged) {
    setSerial("device-SeCrEt");
    RecordCollector collector;
    load(R"({"features":[],"serial":"file-SeCrEt"})");
    reasonOf(collector, "ERROR");
}

// --- Files that can't be used

// UNUSABLE_DOCUMENTS are not an object with a list of features.
const char* const UNUSABLE_DOCUMENTS[] = {
    "",
    " \n",
    "SeCrEt",
    "\xEF\xBB\xBF{\"features\":[]}",
    R"({"features":[{"name":"SeCrEt"}])",
    R"({"features":[{"name":"SeCrEt"}]}})",
    R"({"features":[{"name":"SeCrEt"}],})",
    R"({"features":[{"name":"SeCrEt\u0000"}]})",
    "{'features':[]}",
    "[]",
    R"([{"name":"SeCrEt"}])",
    R"("SeCrEt")",
    "null",
    "5",
    "{}",
    R"({"Features":[]})",
    R"({"features":null})",
    R"({"features":{"name":"SeCrEt"}})",
    R"({"features":"SeCrEt"})",
    R"({"features":1})",
    R"({"serial":"0000abcd"})",
};

TEST_F(FeatureSourceTest, UnusableDocumentCountsAsEmptyWithOneError) {
    for (const char* document : UNUSABLE_DOCUMENTS) {
        SCOPED_TRACE(document);
        load(R"({"features":[{"name":"old"}]})");
        RecordCollector collector;
        load(document);
        EXPECT_THAT(names(), IsEmpty());
        reasonOf(collector, "ERROR");
        EXPECT_FALSE(m_oSource.fileChanged()) << "it was read";
    }
}

TEST_F(FeatureSourceTest, OneMebibyteIsTheLimit) {
    const std::string document = R"({"features":[{"name":"a"}]})";
    RecordCollector collector;
    load(document + std::string(LIMIT - document.size(), ' '));
    EXPECT_THAT(names(), ElementsAre("a"));
    EXPECT_THAT(collector.lines(), IsEmpty());
    load(document + std::string(LIMIT + 1 - document.size(), ' '));
    EXPECT_THAT(names(), IsEmpty());
    reasonOf(collector, "ERROR");
}

TEST_F(FeatureSourceTest, HugeFileCountsAsEmpty) {
    m_oFolder.write("features.json", R"({"features":[{"name":"a"}]})");
    fs::resize_file(path(), uintmax_t{1} << 40);  // a hole takes no space
    RecordCollector collector;
    m_oSource.load();
    EXPECT_THAT(names(), IsEmpty());
    reasonOf(collector, "ERROR");
}

TEST_F(FeatureSourceTest, MissingFileIsSilent) {
    RecordCollector collector;
    m_oSource.load();
    EXPECT_THAT(names(), IsEmpty());
    EXPECT_FALSE(m_oSource.fileExists());
    FeatureSource nowhere(m_oFolder / "no folder/features.json", "installed");
    nowhere.load();
    EXPECT_THAT(nowhere.features(), IsEmpty());
    fs::create_symlink("gone", path());
    m_oSource.load();
    EXPECT_THAT(collector.lines(), IsEmpty());
}

TEST_F(FeatureSourceTest, FileThatWentAwayHasNoFeatures) {
    load(R"({"features":[{"name":"a"}]})");
    fs::remove(path());
    RecordCollector collector;
    m_oSource.load();
    EXPECT_THAT(names(), IsEmpty());
    EXPECT_THAT(collector.lines(), IsEmpty());
}

TEST_F(FeatureSourceTest, DirectoryCountsAsEmptyWithOneError) {
    fs::create_directory(path());
    RecordCollector collector;
    m_oSource.load();
    EXPECT_THAT(names(), IsEmpty());
    reasonOf(collector, "ERROR");
    EXPECT_TRUE(m_oSource.fileExists());
    EXPECT_FALSE(m_oSource.fileChanged());
}

TEST_F(FeatureSourceTest, FifoDoesNotBlockAndCountsAsEmptyWithOneError) {
    ASSERT_EQ(mkfifo(path().c_str(), 0600), 0);
    RecordCollector collector;
    m_oSource.load();
    EXPECT_THAT(names(), IsEmpty());
    reasonOf(collector, "ERROR");
}

TEST_F(FeatureSourceTest, FifoWithAWriterDoesNotBlockEither) {
    ASSERT_EQ(mkfifo(path().c_str(), 0600), 0);
    const int writer = open(path().c_str(), O_RDWR);
    ASSERT_NE(writer, -1);
    RecordCollector collector;
    m_oSource.load();
    close(writer);
    EXPECT_THAT(names(), IsEmpty());
    reasonOf(collector, "ERROR");
}

TEST_F(FeatureSourceTest, LoopOfLinksCountsAsEmptyWithOneError) {
    fs::create_symlink("features.json", path());
    RecordCollector collector;
    m_oSource.load();
    EXPECT_THAT(names(), IsEmpty());
    reasonOf(collector, "ERROR");
}

TEST_F(FeatureSourceTest, FaultWhileReadingCountsAsEmptyWithOneError) {
    fs::create_symlink("/proc/self/mem", path());  // a read at its beginning fails
    RecordCollector collector;
    m_oSource.load();
    EXPECT_THAT(names(), IsEmpty());
    reasonOf(collector, "ERROR");
}

TEST_F(FeatureSourceTest, UnreadableFileCountsAsEmptyWithOneError) {
    m_oFolder.write("features.json", R"({"features":[{"name":"a"}]})");
    chmod(path().c_str(), 0);
    chmod(m_oFolder.path().c_str(), 0755);
    RecordCollector collector;
    const bool privileged = geteuid() == 0;
    if (privileged && seteuid(65534) != 0) {
        GTEST_SKIP() << "only one user exists here, and it reads every file";
    }
    m_oSource.load();
    if (privileged) {
        ASSERT_EQ(seteuid(0), 0);
    }
    EXPECT_THAT(names(), IsEmpty());
    reasonOf(collector, "ERROR");
}

TEST_F(FeatureSourceTest, LinkToAFileIsFollowed) {
    m_oFolder.write("real.json", R"({"features":[{"name":"a"}]})");
    fs::create_symlink("real.json", path());
    m_oSource.load();
    EXPECT_THAT(names(), ElementsAre("a"));
    m_oFolder.write("real.json", R"({"features":[{"name":"a"},{"name":"b"}]})");
    EXPECT_TRUE(m_oSource.fileChanged());
}

// --- Loading, dropping, looking for changes

TEST_F(FeatureSourceTest, LoadReplacesWhatWasRead) {
    load(R"({"features":[{"name":"a"},{"name":"b"}]})");
    load(R"({"features":[{"name":"c"}]})");
    EXPECT_THAT(names(), ElementsAre("c"));
}

TEST_F(FeatureSourceTest, DropForgetsAllFeatures) {
    load(R"({"features":[{"name":"a"}]})");
    m_oSource.drop();
    EXPECT_THAT(names(), IsEmpty());
    EXPECT_EQ(m_oSource.path(), path());
    m_oSource.load();
    EXPECT_THAT(names(), ElementsAre("a"));
}

TEST_F(FeatureSourceTest, EmptyPathIsNotInUse) {
    RecordCollector collector;
    FeatureSource source("", "granted");
    source.load();
    EXPECT_EQ(source.path(), "");
    EXPECT_THAT(source.features(), IsEmpty());
    EXPECT_FALSE(source.fileExists());
    EXPECT_FALSE(source.fileChanged());
    source.drop();
    EXPECT_FALSE(source.fileChanged());
    EXPECT_THAT(collector.lines(), IsEmpty());
}

TEST_F(FeatureSourceTest, FileBelowAFileDoesNotExist) {
    const FeatureSource source(m_oFolder.write("file", "") + "/features.json", "installed");
    EXPECT_FALSE(source.fileExists());
}

TEST_F(FeatureSourceTest, FileIsAnotherOneWhenItAppearsAndWhenItGoes) {
    EXPECT_FALSE(m_oSource.fileChanged()) << "absent, never read";
    m_oFolder.write("features.json", R"({"features":[]})");
    EXPECT_TRUE(m_oSource.fileChanged());
    EXPECT_TRUE(m_oSource.fileExists());
    m_oSource.load();
    EXPECT_FALSE(m_oSource.fileChanged());
    fs::remove(path());
    EXPECT_TRUE(m_oSource.fileChanged());
    EXPECT_FALSE(m_oSource.fileExists());
    m_oSource.load();
    EXPECT_FALSE(m_oSource.fileChanged());
}

TEST_F(FeatureSourceTest, DroppedFileThatIsStillThereCountsAsAnother) {
    load(R"({"features":[]})");
    m_oSource.drop();
    EXPECT_TRUE(m_oSource.fileChanged());
    fs::remove(path());
    EXPECT_FALSE(m_oSource.fileChanged());
}

// setModified sets a file's modification time.
void setModified(const std::string& path, int64_t seconds, int64_t nanoseconds) {
    const timespec times[2] = {{0, UTIME_OMIT}, {seconds, nanoseconds}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

TEST_F(FeatureSourceTest, AnotherSizeOrModificationTimeMeansAnotherFile) {
    m_oFolder.write("features.json", R"({"features":[{"name":"a"}]})");
    setModified(path(), 1000, 5);
    m_oSource.load();
    EXPECT_FALSE(m_oSource.fileChanged());
    setModified(path(), 1000, 6);
    EXPECT_TRUE(m_oSource.fileChanged()) << "one nanosecond";
    setModified(path(), 999, 5);
    EXPECT_TRUE(m_oSource.fileChanged()) << "the past";
    setModified(path(), 1000, 5);
    EXPECT_FALSE(m_oSource.fileChanged());
    m_oFolder.write("features.json", R"({"features":[{"name":"aa"}]})");
    setModified(path(), 1000, 5);
    EXPECT_TRUE(m_oSource.fileChanged()) << "one byte more";
    m_oFolder.write("features.json", R"({"features":[{"name":"b"}]})");
    setModified(path(), 1000, 5);
    EXPECT_FALSE(m_oSource.fileChanged()) << "same inode, size and time: the content isn't looked at";
    EXPECT_THAT(names(), ElementsAre("a"));
}

TEST_F(FeatureSourceTest, AnotherInodeMeansAnotherFile) {
    load(R"({"features":[{"name":"a"}]})");
    const std::string other = m_oFolder.write("other.json", R"({"features":[{"name":"b"}]})");
    struct stat state {};
    ASSERT_EQ(stat(path().c_str(), &state), 0);
    setModified(other, state.st_mtim.tv_sec, state.st_mtim.tv_nsec);
    fs::rename(other, path());
    EXPECT_TRUE(m_oSource.fileChanged());
    m_oSource.load();
    EXPECT_THAT(names(), ElementsAre("b"));
    EXPECT_FALSE(m_oSource.fileChanged());
}

}  // namespace
