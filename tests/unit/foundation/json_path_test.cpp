// Tests of dotted paths: reading, taking out, making slots and storing, each by its rules, on misses and at any depth,
// and all of them at random beside a small model.
#include <gtest/gtest.h>
#include <time.h>

#include <algorithm>
#include <cstddef>
#include <functional>
#include <iterator>
#include <memory>
#include <new>
#include <random>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "foundation/json.h"
#include "unit/foundation/json_path_model.h"

using namespace std::string_literals;

namespace {

std::string oneLine(const JSON& value) {
    std::string out;
    value.stringify(out, -1);
    return out;
}

JSON::root parsed(const std::string& text) {
    JSON::root value = JSON::parse(text);
    EXPECT_NE(nullptr, value) << text;
    return value;
}

// A path that leads nowhere, and why.
struct Miss {
    const char* document;
    std::string path;
    const char* why;
};

const Miss Misses[] = {
    {"{\"a\":[{\"b\":1}]}", "a.1.b", "index behind the end"},
    {"{\"a\":[{\"b\":1}]}", "a.b", "a key on an array"},
    {"{\"a\":[{\"b\":1}]}", "a.0.b.c", "a key on a number"},
    {"{\"a\":[{\"b\":1}]}", "a.0.b.0", "an index on a number"},
    {"{\"a\":[{\"b\":1}]}", "a.0.c", "absent key"},
    {"{\"a\":[{\"b\":1}]}", "b", "absent key, first segment"},
    {"{\"a\":[{\"b\":1}]}", "b.0.b", "absent key with more behind"},
    {"{\"a\":[{\"b\":1}]}", "A", "keys are compared as bytes"},
    {"{\"a\":[{\"b\":1}]}", "0", "an index on an object"},
    {"{\"a\":[{\"b\":1}]}", "", "the empty path on an object"},
    {"{\"a\":[{\"b\":1}]}", ".a", "a leading dot on an object"},
    {"{\"a\":[{\"b\":1}]}", "a.0.", "a final dot on an object"},
    {"{\"a\":1}", "a.", "a final dot on a number"},
    {"{\"a\":{\"b\":1}}", "a..b", "a doubled dot on an object"},
    {"{\"a.b\":1}", "a.b", "a key with a dot"},
    {"{\"5\":1}", "5", "a key of digits"},
    {"{\"a\":{\"007\":1}}", "a.007", "a key of digits further down"},
    {"{\"a b\":1}", "a", "part of a key"},
    {"[]", "", "the empty path on an empty array"},
    {"[]", "0", "an empty array"},
    {"[[]]", ".", "an empty array inside"},
    {"[1,2,3]", "3", "index at the end"},
    {"[1,2,3]", "003", "index at the end, with zeros"},
    {"[1,2,3]", "-1", "a sign makes a key"},
    {"[1,2,3]", "+1", "a sign makes a key"},
    {"[1,2,3]", " 1", "a blank makes a key"},
    {"[1,2,3]", "1 ", "a blank makes a key"},
    {"[1,2,3]", "0x1", "a letter makes a key"},
    {"[1,2,3]", "1e0", "a letter makes a key"},
    {"[1,2,3]", "/", "the byte before 0"},
    {"[1,2,3]", ":", "the byte behind 9"},
    {"[1,2,3]", "\xd9\xa1", "a digit of another script"},
    {"[1,2,3]", "1\0"s, "a NUL byte makes a key"},
    {"[1,2,3]", "\0"s, "a NUL byte is no empty segment"},
    {"[1,2,3]", "4294967296", "2^32"},
    {"[1,2,3]", "4294967297", "2^32 + 1"},
    {"[1,2,3]", "2147483648", "2^31"},
    {"[1,2,3]", "9223372036854775806", "the largest long but one"},
    {"[1,2,3]", "9223372036854775807", "the largest long"},
    {"[1,2,3]", "9223372036854775808", "one more"},
    {"[1,2,3]", "18446744073709551615", "2^64 - 1"},
    {"[1,2,3]", "18446744073709551616", "2^64"},
    {"[1,2,3]", "18446744073709551617", "2^64 + 1"},
    {"[1,2,3]", std::string(1000, '9'), "a thousand digits"},
    {"[[1],[2]]", "18446744073709551616.0", "2^64 on the way"},
    {"null", "a", "null has no members"},
    {"null", "", "null has no elements"},
    {"true", "a", "a boolean has no members"},
    {"1", "0", "a number has no elements"},
    {"\"abc\"", "0", "a string has no elements"},
    {"\"abc\"", "", "nor a first one"},
    {"\"abc\"", "a", "nor members"},
};

// A path that leads to a number.
struct Hit {
    const char* document;
    std::string path;
    double number;
    const char* why;
};

const Hit Hits[] = {
    {"{\"a\":[{\"b\":7}]}", "a.0.b", 7, "keys and indices"},
    {"{\"a\":7}", "a", 7, "one key"},
    {"{\"a\":{\"b\":{\"c\":7}}}", "a.b.c", 7, "keys"},
    {"[7]", "", 7, "the empty path is element 0"},
    {"[[7]]", ".", 7, "a dot alone is element 0 of element 0"},
    {"[[[7]]]", "..", 7, "two dots"},
    {"[{\"a\":7}]", ".a", 7, "a leading dot"},
    {"{\"a\":[7]}", "a.", 7, "a final dot"},
    {"{\"a\":[{\"b\":7}]}", "a..b", 7, "a doubled dot"},
    {"{\"a\":[[{\"b\":7}]]}", "a...b", 7, "a tripled dot"},
    {"[1,2,7]", "2", 7, "index"},
    {"[0,1,2,3,4,5,6,70]", "007", 70, "zeros in front"},
    {"[0,1,2,3,4,5,6,7,80,9,10]", "08", 80, "decimal, not octal"},
    {"[0,1,2,3,4,5,6,7,8,9,100]", "010", 100, "decimal, not octal"},
    {"[1,7]", "0000000000000000000000000000000000000001", 7, "more digits than a long has"},
    {"{\"-1\":7}", "-1", 7, "a key with a sign"},
    {"{\"1a\":7}", "1a", 7, "a key that begins with a digit"},
    {"{\"a1\":7}", "a1", 7, "a key that ends with a digit"},
    {"{\" \":7}", " ", 7, "a blank as key"},
    {"{\"a b/c[0]\":7}", "a b/c[0]", 7, "no other separator"},
    {"{\"a\\\\\":{\"b\":7}}", "a\\.b", 7, "no escape"},
    {"{\"\xc3\xa4\":7}", "\xc3\xa4", 7, "any bytes"},
    {"{\"\xff\":7}", "\xff", 7, "any bytes"},
    {"{\"\xd9\xa1\":7}", "\xd9\xa1", 7, "a digit of another script is a key"},
};

// Traced counts the living values of its class.
class Traced final : public JSON {
public:
    explicit Traced(int& alive) : JSON(NullType), m_nAlive(alive) { ++m_nAlive; }
    ~Traced() override { --m_nAlive; }

    using JSON::operator double;

    explicit operator bool() const override { return false; }
    std::string toString() const override { return "traced"; }
    void stringify(std::string& out, int) const override { out += "traced"; }
    root dup() const override { return nullptr; }

private:
    int& m_nAlive;
};

// Impostor answers like a container, but its tag says that it is none.
class Impostor final : public JSON {
public:
    Impostor() : JSON(NumberType), m_pInside(Number(1)) {}

    using JSON::rootOf;
    using JSON::operator double;

    explicit operator bool() const override { return true; }
    std::string toString() const override { return "impostor"; }
    void stringify(std::string& out, int) const override { out += "impostor"; }
    root dup() const override { return nullptr; }
    JSON* get(const std::string&) override { return m_pInside.get(); }
    const JSON* get(const std::string&) const override { return m_pInside.get(); }
    std::size_t size() const override { return 1; }
    JSON* at(std::size_t) override { return m_pInside.get(); }
    const JSON* at(std::size_t) const override { return m_pInside.get(); }
    root& rootOf(std::size_t) override { return m_pInside; }

private:
    root m_pInside;
};

// bothReadings reads a path in the document as one that may change and as a constant one: both give the same value.
const JSON* bothReadings(JSON& document, const std::string& path) {
    JSON* found = document.getPath(path);
    EXPECT_EQ(found, std::as_const(document).getPath(path)) << path;
    return found;
}

}  // namespace

static_assert(std::is_same_v<decltype(std::declval<JSON&>().getPath(std::string())), JSON*>);
static_assert(std::is_same_v<decltype(std::declval<const JSON&>().getPath(std::string())), const JSON*>);
static_assert(std::is_same_v<decltype(std::declval<JSON&>().movePath(std::string())), JSON::root>);
static_assert(std::is_same_v<decltype(JSON::getPathPtr(nullptr, std::string())), JSON::root*>);

// ---- getPath

TEST(JSONGetPath, LeadsToTheValue) {
    for (const Hit& hit : Hits) {
        const JSON::root document = parsed(hit.document);
        const JSON* found = bothReadings(*document, hit.path);
        ASSERT_NE(nullptr, found) << hit.document << " " << hit.path << ": " << hit.why;
        EXPECT_EQ(hit.number, static_cast<double>(*found)) << hit.document << " " << hit.path << ": " << hit.why;
        EXPECT_EQ(oneLine(*parsed(hit.document)), oneLine(*document)) << "reading changes nothing";
    }
}

TEST(JSONGetPath, MissGivesNullAndChangesNothing) {
    for (const Miss& miss : Misses) {
        const JSON::root document = parsed(miss.document);
        EXPECT_EQ(nullptr, bothReadings(*document, miss.path)) << miss.document << " " << miss.path << ": " << miss.why;
        EXPECT_EQ(oneLine(*parsed(miss.document)), oneLine(*document)) << miss.why;
    }
}

TEST(JSONGetPath, ReachesNumberAfterKeyIndexKey) {
    const JSON::root document = parsed("{\"a\":[{\"b\":1}]}");
    ASSERT_NE(nullptr, document->getPath("a.0.b"));
    EXPECT_EQ(1, static_cast<double>(*document->getPath("a.0.b")));
    EXPECT_EQ(nullptr, document->getPath("a.1.b"));
    EXPECT_EQ(nullptr, document->getPath("a.b"));
    EXPECT_EQ(nullptr, document->getPath("a.0.b.c"));
}

TEST(JSONGetPath, EmptyPathIsElement0OfAnArrayAndNothingInAnObject) {
    const JSON::root array = parsed("[4,5]");
    EXPECT_EQ(array->at(0), array->getPath(""));
    EXPECT_EQ(nullptr, parsed("{\"a\":1}")->getPath(""));
}

TEST(JSONGetPath, FinalDotLooksForElement0Inside) {
    const JSON::root document = parsed("{\"a\":[4],\"b\":{\"c\":1}}");
    EXPECT_EQ(document->get("a")->at(0), document->getPath("a."));
    EXPECT_EQ(nullptr, document->getPath("b."));
}

TEST(JSONGetPath, ZerosInFrontOfAnIndexDoNotCount) {
    const JSON::root array = parsed("[0,1,2,3,4,5,6,7]");
    EXPECT_EQ(array->at(7), array->getPath("007"));
}

TEST(JSONGetPath, KeyOfDigitsIsOutOfReach) {
    EXPECT_EQ(nullptr, parsed("{\"5\":1}")->getPath("5"));
}

TEST(JSONGetPath, EmptyKeyIsOutOfReach) {
    const JSON::root object = JSON::Object();
    object->set("", JSON::Number(1));
    EXPECT_EQ(nullptr, object->getPath(""));
}

TEST(JSONGetPath, NulByteBelongsToTheKey) {
    const JSON::root object = JSON::Object();
    const JSON* inside = object->set("a\0b"s, JSON::Object())->set("\0"s, JSON::Number(1));
    EXPECT_EQ(inside, bothReadings(*object, "a\0b.\0"s));
    EXPECT_EQ(nullptr, bothReadings(*object, "a"));
    EXPECT_EQ(nullptr, bothReadings(*object, "a\0c"s));
}

TEST(JSONGetPath, ReturnsTheValueItselfOfAnyClass) {
    const JSON::root document = parsed("{\"a\":[null,true,1,\"x\",{},[]]}");
    const JSON& array = *document->get("a");
    EXPECT_EQ(&array, bothReadings(*document, "a"));
    for (std::size_t index = 0; index < array.size(); ++index)
        EXPECT_EQ(array.at(index), bothReadings(*document, "a." + std::to_string(index)));
}

TEST(JSONGetPath, EmptySlotGivesNullOnTheWayAndAtTheEnd) {
    JSONArray array;
    array.push(nullptr);
    array.push(JSON::Number(1));
    JSONObject object;
    object.set("hole", nullptr);
    for (const char* path : {"0", "", "0.0", "0.a"})
        EXPECT_EQ(nullptr, bothReadings(array, path)) << path;
    for (const char* path : {"hole", "hole.0", "hole.", "hole.a"})
        EXPECT_EQ(nullptr, bothReadings(object, path)) << path;
    EXPECT_EQ(array.at(1), bothReadings(array, "1"));
}

TEST(JSONGetPath, GoesByTheTypeTag) {
    Impostor impostor;
    for (const char* path : {"a", "0", ""}) {
        EXPECT_EQ(nullptr, bothReadings(impostor, path)) << path;
        EXPECT_EQ(nullptr, impostor.movePath(path)) << path;
    }
}

TEST(JSONGetPath, LongKeyIsOneSegment) {
    const std::string key(1000000, 'k');
    const JSON::root object = JSON::Object();
    const JSON* inside = object->set(key, JSON::Array())->push(JSON::Number(1));
    EXPECT_EQ(inside, bothReadings(*object, key + ".0"));
    EXPECT_EQ(nullptr, bothReadings(*object, key + "k.0"));
}

// ---- movePath

TEST(JSONMovePath, TakesTheValueOut) {
    for (const Hit& hit : Hits) {
        const JSON::root document = parsed(hit.document);
        const JSON* value = document->getPath(hit.path);
        const JSON::root taken = document->movePath(hit.path);
        ASSERT_NE(nullptr, taken) << hit.document << " " << hit.path << ": " << hit.why;
        EXPECT_EQ(value, taken.get()) << "the value itself, no copy";
        EXPECT_EQ(hit.number, static_cast<double>(*taken)) << hit.document << " " << hit.path << ": " << hit.why;
        EXPECT_EQ(nullptr, document->getPath(hit.path));
    }
}

TEST(JSONMovePath, MissGivesNullAndLeavesTheDocumentAsItWas) {
    for (const Miss& miss : Misses) {
        const JSON::root document = parsed(miss.document);
        EXPECT_EQ(nullptr, document->movePath(miss.path)) << miss.document << " " << miss.path << ": " << miss.why;
        EXPECT_EQ(oneLine(*parsed(miss.document)), oneLine(*document)) << miss.why;
    }
}

TEST(JSONMovePath, ObjectKeepsTheKeyWithoutAValue) {
    const JSON::root object = parsed("{\"a\":1}");
    const JSON::root taken = object->movePath("a");
    ASSERT_NE(nullptr, taken);
    EXPECT_EQ(1, static_cast<double>(*taken));
    EXPECT_EQ(1u, object->size());
    ASSERT_EQ(1u, object->keys().count("a"));
    EXPECT_EQ(nullptr, object->keys().at("a"));
}

TEST(JSONMovePath, ArrayKeepsItsSize) {
    const JSON::root document = parsed("{\"a\":[1,2,3]}");
    EXPECT_EQ(2, static_cast<double>(*document->movePath("a.1")));
    const JSON& array = *document->get("a");
    ASSERT_EQ(3u, array.size());
    EXPECT_EQ(1, static_cast<double>(*array.at(0)));
    EXPECT_EQ(nullptr, array.at(1));
    EXPECT_EQ(3, static_cast<double>(*array.at(2)));
}

TEST(JSONMovePath, SecondTimeFindsTheHole) {
    const JSON::root document = parsed("{\"a\":[1]}");
    EXPECT_NE(nullptr, document->movePath("a.0"));
    EXPECT_EQ(nullptr, document->movePath("a.0"));
    EXPECT_EQ(1u, document->get("a")->size());
    EXPECT_NE(nullptr, document->movePath("a"));
    EXPECT_EQ(nullptr, document->movePath("a"));
    EXPECT_EQ(1u, document->size());
}

TEST(JSONMovePath, AbsentKeyIsNotMade) {
    const JSON::root object = parsed("{\"a\":1}");
    EXPECT_EQ(nullptr, object->movePath("b"));
    EXPECT_EQ(nullptr, object->movePath("b.c"));
    EXPECT_EQ(1u, object->size());
}

TEST(JSONMovePath, SubtreeOutlivesTheDocument) {
    JSON::root document = parsed("{\"a\":{\"b\":[1,{\"c\":\"x\"}]}}");
    const JSON::root taken = document->movePath("a.b");
    document.reset();
    EXPECT_EQ("[ 1, { \"c\": \"x\" } ]", oneLine(*taken));
}

TEST(JSONMovePath, HoleMayBeFilledAgain) {
    JSON::root document = parsed("{\"a\":[1,2]}");
    document->movePath("a.1");
    JSON::setPath(&document, "a.1", JSON::Number(3));
    EXPECT_EQ("{ \"a\": [ 1, 3 ] }", oneLine(*document));
}

// ---- getPathPtr

TEST(JSONGetPathPtr, GivesTheSlotOfAnExistingElement) {
    JSON::root document = parsed("{\"a\":[1,{\"b\":2}]}");
    JSON& array = *document->get("a");
    EXPECT_EQ(&array.rootOf(std::size_t{0}), JSON::getPathPtr(&document, "a.0"));
    EXPECT_EQ(&array.rootOf(std::size_t{0}), JSON::getPathPtr(&document, "a."));
    EXPECT_EQ(&array.rootOf(std::size_t{1}), JSON::getPathPtr(&document, "a.001"));
    EXPECT_EQ(&array.at(1)->each().at("b"), JSON::getPathPtr(&document, "a.1.b"));
    EXPECT_EQ(&document->each().at("a"), JSON::getPathPtr(&document, "a"));
    EXPECT_EQ("{ \"a\": [ 1, { \"b\": 2 } ] }", oneLine(*document));
}

TEST(JSONGetPathPtr, InsertsTheLastKeyWithoutAValue) {
    JSON::root document = parsed("{\"a\":1}");
    JSON::root* slot = JSON::getPathPtr(&document, "b");
    ASSERT_NE(nullptr, slot);
    EXPECT_EQ(nullptr, *slot);
    EXPECT_EQ(2u, document->size());
    EXPECT_EQ(&document->each().at("b"), slot);
}

TEST(JSONGetPathPtr, LastIndexNeverGrowsTheArray) {
    JSON::root document = parsed("[1,2]");
    EXPECT_EQ(&document->rootOf(std::size_t{1}), JSON::getPathPtr(&document, "1"));
    EXPECT_EQ(2u, document->size());
}

TEST(JSONGetPathPtr, IndexOnTheWayGrowsTheArrayWithNulls) {
    JSON::root document = parsed("[1]");
    JSON::root* slot = JSON::getPathPtr(&document, "3.b");
    ASSERT_EQ(4u, document->size());
    EXPECT_EQ(1, static_cast<double>(*document->at(0)));
    for (std::size_t index : {1u, 2u}) {
        ASSERT_NE(nullptr, document->at(index));
        EXPECT_EQ(JSON::NullType, document->at(index)->type);
    }
    ASSERT_EQ(JSON::ObjectType, document->at(3)->type);
    EXPECT_EQ(&document->at(3)->each().at("b"), slot);
    EXPECT_EQ(nullptr, *slot);
}

TEST(JSONGetPathPtr, IndexAtTheEndGrowsByOne) {
    JSON::root document = parsed("[1]");
    JSON::getPathPtr(&document, "1.b");
    ASSERT_EQ(2u, document->size());
    EXPECT_EQ(JSON::ObjectType, document->at(1)->type);
}

TEST(JSONGetPathPtr, OldHolesAreNotFilled) {
    JSON::root document = JSON::Array();
    document->push(nullptr);
    document->push(nullptr);
    JSON::getPathPtr(&document, "3.b");
    ASSERT_EQ(4u, document->size());
    EXPECT_EQ(nullptr, document->at(0));
    EXPECT_EQ(nullptr, document->at(1));
    ASSERT_NE(nullptr, document->at(2));
    EXPECT_EQ(JSON::NullType, document->at(2)->type);
}

TEST(JSONGetPathPtr, HoleOnTheWayBecomesAContainer) {
    JSON::root document = JSON::Array();
    document->push(nullptr);
    *JSON::getPathPtr(&document, "0.b") = JSON::Number(1);
    EXPECT_EQ("[ { \"b\": 1 } ]", oneLine(*document));
    document->movePath("0");
    *JSON::getPathPtr(&document, "0.1.b") = JSON::Number(2);
    EXPECT_EQ("[ [ null, { \"b\": 2 } ] ]", oneLine(*document));
}

TEST(JSONGetPathPtr, ContainersOfTheRightKindStayWhereTheyAre) {
    JSON::root document = parsed("{\"a\":[{\"b\":1,\"c\":2}],\"d\":3}");
    const JSON* const values[] = {document.get(), document->getPath("a"), document->getPath("a.0"),
                                  document->getPath("a.0.c")};
    *JSON::getPathPtr(&document, "a.0.b") = JSON::Number(4);
    EXPECT_EQ(values[0], document.get());
    EXPECT_EQ(values[1], document->getPath("a"));
    EXPECT_EQ(values[2], document->getPath("a.0"));
    EXPECT_EQ(values[3], document->getPath("a.0.c"));
    EXPECT_EQ("{ \"a\": [ { \"b\": 4, \"c\": 2 } ], \"d\": 3 }", oneLine(*document));
}

TEST(JSONGetPathPtr, ValueInTheWayIsDestroyed) {
    for (const char* path : {"a", "a.b", "0.b"}) {
        int alive = 0;
        JSON::root document = std::make_unique<Traced>(alive);
        ASSERT_EQ(1, alive);
        JSON::getPathPtr(&document, path);
        EXPECT_EQ(0, alive) << path;
        EXPECT_EQ(path[0] == '0' ? JSON::ArrayType : JSON::ObjectType, document->type) << path;
    }
}

TEST(JSONGetPathPtr, ContainerOfTheOtherKindIsDestroyed) {
    int alive = 0;
    JSON::root document = JSON::Object();
    document->set("a", JSON::Array())->push(std::make_unique<Traced>(alive));
    JSON::getPathPtr(&document, "a.b");
    EXPECT_EQ(0, alive);
    document->getPath("a")->set("c", std::make_unique<Traced>(alive));
    JSON::getPathPtr(&document, "a.0.b");
    EXPECT_EQ(0, alive);
    ASSERT_EQ(JSON::ArrayType, document->getPath("a")->type);
    EXPECT_EQ(1u, document->getPath("a")->size());
}

// ---- setPath

TEST(JSONSetPath, StoresAndMakesWhatIsMissing) {
    const struct {
        const char* before;  // null for none
        const char* path;
        const char* after;
        const char* why;
    } rows[] = {
        {nullptr, "a", "{ \"a\": 7 }", "a key on nothing"},
        {nullptr, "a.b", "{ \"a\": { \"b\": 7 } }", "two keys on nothing"},
        {nullptr, "a.2.b", "{ \"a\": [ null, null, { \"b\": 7 } ] }", "an index on the way"},
        {nullptr, "a.0.b", "{ \"a\": [ { \"b\": 7 } ] }", "index 0 on the way"},
        {nullptr, "a..b", "{ \"a\": [ { \"b\": 7 } ] }", "a doubled dot on the way"},
        {nullptr, ".b", "[ { \"b\": 7 } ]", "a leading dot"},
        {nullptr, "1.1.b", "[ null, [ null, { \"b\": 7 } ] ]", "two indices on the way"},
        {nullptr, "a.01.b", "{ \"a\": [ null, { \"b\": 7 } ] }", "zeros in front"},
        {nullptr, "-1", "{ \"-1\": 7 }", "a sign makes a key"},
        {nullptr, "1a.b", "{ \"1a\": { \"b\": 7 } }", "a letter makes a key"},
        {"{\"a\":5}", "a.b", "{ \"a\": { \"b\": 7 } }", "a number in the way"},
        {"{\"a\":\"x\"}", "a.1.b", "{ \"a\": [ null, { \"b\": 7 } ] }", "a string in the way"},
        {"{\"a\":[1,2]}", "a.b", "{ \"a\": { \"b\": 7 } }", "an array in the way"},
        {"{\"a\":{\"b\":1}}", "a.0.b", "{ \"a\": [ { \"b\": 7 } ] }", "an object in the way"},
        {"[1,2]", "a", "{ \"a\": 7 }", "another root in the way"},
        {"{\"5\":1}", "0.a", "[ { \"a\": 7 } ]", "digits demand an array"},
        {"null", "a", "{ \"a\": 7 }", "null in the way"},
        {"{\"a\":1,\"b\":2}", "a", "{ \"a\": 7, \"b\": 2 }", "a value replaced"},
        {"{\"a\":1}", "b", "{ \"a\": 1, \"b\": 7 }", "a value added"},
        {"[1,2,3]", "1", "[ 1, 7, 3 ]", "an element replaced"},
        {"[1,2]", "", "[ 7, 2 ]", "the empty path is element 0"},
        {"{\"a\":[1]}", "a.", "{ \"a\": [ 7 ] }", "a final dot is element 0"},
        {"[[1],[2]]", "1.0", "[ [ 1 ], [ 7 ] ]", "an element further down"},
        {"[1]", "0.a", "[ { \"a\": 7 } ]", "an element in the way"},
    };
    for (const auto& row : rows) {
        JSON::root document = row.before == nullptr ? nullptr : parsed(row.before);
        JSON::root value = JSON::Number(7);
        const JSON* stored = value.get();
        JSON::setPath(&document, row.path, std::move(value));
        EXPECT_EQ(nullptr, value) << "taken from the caller";
        ASSERT_NE(nullptr, document) << row.path << ": " << row.why;
        EXPECT_EQ(row.after, oneLine(*document)) << row.path << ": " << row.why;
        EXPECT_EQ(stored, document->getPath(row.path)) << row.path << ": " << row.why;
    }
}

TEST(JSONSetPath, TwoKeysOnNothingMakeTwoObjects) {
    JSON::root document;
    JSON::setPath(&document, "a.b", JSON::String("v"));
    EXPECT_EQ("{ \"a\": { \"b\": \"v\" } }", oneLine(*document));
}

TEST(JSONSetPath, IndexOnTheWayMakesAnArrayOfThree) {
    JSON::root document;
    JSON::setPath(&document, "a.2.b", JSON::String("v"));
    const JSON* array = document->get("a");
    ASSERT_EQ(3u, array->size());
    EXPECT_EQ(JSON::NullType, array->at(0)->type);
    EXPECT_EQ(JSON::NullType, array->at(1)->type);
    EXPECT_EQ("v", array->at(2)->get("b")->toString());
}

TEST(JSONSetPath, NumberInTheWayBecomesAnObject) {
    JSON::root document = parsed("{\"a\":5}");
    JSON::setPath(&document, "a.b", JSON::Boolean(true));
    EXPECT_EQ("{ \"a\": { \"b\": true } }", oneLine(*document));
}

TEST(JSONSetPath, DestroysWhatWasInTheSlot) {
    int alive = 0;
    JSON::root document = JSON::Object();
    document->set("a", std::make_unique<Traced>(alive));
    document->set("b", JSON::Array())->push(std::make_unique<Traced>(alive));
    ASSERT_EQ(2, alive);
    JSON::setPath(&document, "a", JSON::Null());
    EXPECT_EQ(1, alive);
    JSON::setPath(&document, "b.0", JSON::Null());
    EXPECT_EQ(0, alive);
}

TEST(JSONSetPath, NoValueLeavesAHole) {
    JSON::root document = parsed("{\"a\":[1]}");
    JSON::setPath(&document, "a.0", nullptr);
    EXPECT_EQ(1u, document->get("a")->size());
    EXPECT_EQ(nullptr, document->getPath("a.0"));
    JSON::setPath(&document, "b", nullptr);
    EXPECT_EQ(1u, document->keys().count("b"));
}

TEST(JSONSetPath, WholeSubtreesAreStored) {
    JSON::root document;
    JSON::setPath(&document, "a.b", parsed("{\"c\":[1,{\"d\":2}]}"));
    EXPECT_EQ(2, static_cast<double>(*document->getPath("a.b.c.1.d")));
}

TEST(JSONSetPath, ValueMayComeFromTheSameDocument) {
    JSON::root document = parsed("{\"a\":{\"b\":1}}");
    JSON::setPath(&document, "a.0.c", document->movePath("a"));
    EXPECT_EQ("{ \"a\": [ { \"c\": { \"b\": 1 } } ] }", oneLine(*document));
}

TEST(JSONSetPath, SlotOfAnInnerValueServesAsRoot) {
    JSON::root document = parsed("[1,{\"a\":2}]");
    JSON::setPath(&document->rootOf(std::size_t{1}), "b.c", JSON::Number(3));
    EXPECT_EQ("[ 1, { \"a\": 2, \"b\": { \"c\": 3 } } ]", oneLine(*document));
}

TEST(JSONSetPath, NulByteBelongsToTheKey) {
    JSON::root document;
    JSON::setPath(&document, "1\0.\0"s, JSON::Number(1));
    ASSERT_EQ(1u, document->keys().count("1\0"s));
    EXPECT_EQ(1u, document->get("1\0"s)->keys().count("\0"s));
}

// An array of that many slots fits into no memory; the elements that are there stay.
TEST(JSONSetPath, IndexTooLargeForMemoryRaisesExhaustedMemory) {
    for (const char* index : {"9223372036854775806", "9223372036854775807", "9223372036854775808",
                              "18446744073709551615", "18446744073709551616", "99999999999999999999999999999"}) {
        JSON::root document = parsed("{\"a\":[1,[2]],\"b\":3}");
        JSON::root value = JSON::Number(7);
        EXPECT_THROW(JSON::setPath(&document, "a."s + index + ".b", std::move(value)), std::bad_alloc) << index;
        EXPECT_NE(nullptr, value) << "stays with the caller";
        EXPECT_EQ("{ \"a\": [ 1, [ 2 ] ], \"b\": 3 }", oneLine(*document)) << index;
    }
}

// ---- Depth

namespace {

constexpr std::size_t Levels = 100000;

std::string pathOf(const std::string& segment, std::size_t count) {
    std::string path = segment;
    for (std::size_t level = 1; level < count; ++level)
        path += "." + segment;
    return path;
}

JSON::root nestedArrays(std::size_t levels) {
    JSON::root document = JSON::Number(7);
    while (levels-- > 0) {
        JSON::root outer = JSON::Array();
        outer->push(std::move(document));
        document = std::move(outer);
    }
    return document;
}

double processorSeconds() {
    timespec now = {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

double leastSeconds(const std::function<void()>& job) {
    double least = 1e9;
    for (int round = 0; round < 3; ++round) {
        const double start = processorSeconds();
        job();
        least = std::min(least, processorSeconds() - start);
    }
    return least;
}

// stepByStep is the walk that one long path must not cost much more than: a path of one segment per level.
void stepByStep(const JSON& document, std::size_t levels) {
    const JSON* current = &document;
    for (std::size_t level = 0; level < levels; ++level)
        current = current->getPath("0");
    ASSERT_NE(nullptr, current);
}

// Looking at the rest of the path at every level takes hundreds of times as long as the steps.
constexpr double Slack = 20;

}  // namespace

TEST(JSONPathDepth, ReadingCostsOneWalk) {
    const JSON::root document = nestedArrays(Levels);
    const std::string path = pathOf("0", Levels);
    const double steps = leastSeconds([&] { stepByStep(*document, Levels); });
    EXPECT_LT(leastSeconds([&] { ASSERT_NE(nullptr, document->getPath(path)); }), Slack * steps);
}

TEST(JSONPathDepth, FindingTheSlotCostsOneWalk) {
    JSON::root document = nestedArrays(Levels);
    const std::string path = pathOf("0", Levels);
    const double steps = leastSeconds([&] { stepByStep(*document, Levels); });
    EXPECT_LT(leastSeconds([&] { ASSERT_NE(nullptr, *JSON::getPathPtr(&document, path)); }), Slack * steps);
}

TEST(JSONPathDepth, TakingOutCostsOneWalk) {
    const JSON::root document = nestedArrays(Levels);
    const std::string path = pathOf("0", Levels);
    const double steps = leastSeconds([&] { stepByStep(*document, Levels); });
    ASSERT_NE(nullptr, document->movePath(path));
    EXPECT_LT(leastSeconds([&] { ASSERT_EQ(nullptr, document->movePath(path)); }), Slack * steps);
}

// One stack frame per level would overrun the stack.
TEST(JSONPathDepth, MillionLevelsTakeNoStack) {
    constexpr std::size_t Million = 1000000;
    const std::string path = pathOf("k", Million);
    JSON::root document;
    JSON::setPath(&document, path, JSON::Number(7));
    const JSON* value = document->getPath(path);
    ASSERT_NE(nullptr, value);
    EXPECT_EQ(7, static_cast<double>(*value));
    EXPECT_EQ(nullptr, document->getPath(path + ".k"));
    EXPECT_EQ(value, document->movePath(path).get());
    EXPECT_EQ(nullptr, document->getPath(path));
}

TEST(JSONPathDepth, DocumentMadeByOnePathReadsBack) {
    constexpr std::size_t Pairs = 10000;
    std::string text;
    for (std::size_t pair = 0; pair < Pairs; ++pair)
        text += "{ \"k\": [ null, ";
    text += "{ \"end\": 7 }";
    for (std::size_t pair = 0; pair < Pairs; ++pair)
        text += " ] }";
    JSON::root document;
    JSON::setPath(&document, pathOf("k.1", Pairs) + ".end", JSON::Number(7));
    EXPECT_TRUE(text == oneLine(*document));
}

TEST(JSONPathDepth, PathLongerThanTheDocumentIsAMiss) {
    const JSON::root document = nestedArrays(20000);
    EXPECT_NE(nullptr, document->getPath(std::string(19999, '.')));
    EXPECT_EQ(nullptr, document->getPath(std::string(20000, '.')));
    EXPECT_EQ(nullptr, document->getPath(std::string(10000000, '.')));
    EXPECT_EQ(nullptr, document->movePath(std::string(10000000, '.')));
    EXPECT_NE(nullptr, document->getPath(std::string(19999, '.')));
}

TEST(JSONPathDepth, FarIndexFillsTheSlotsBetween) {
    constexpr std::size_t Far = 100000;
    JSON::root document = parsed("[1]");
    JSON::setPath(&document, std::to_string(Far) + ".a", JSON::Number(7));
    ASSERT_EQ(Far + 1, document->size());
    for (std::size_t index = 1; index < Far; ++index)
        ASSERT_TRUE(document->at(index) != nullptr && document->at(index)->type == JSON::NullType) << index;
    EXPECT_EQ(7, static_cast<double>(*document->at(Far)->get("a")));
}

// ---- At random, beside a model

namespace {

// describe writes a document with its holes as its model does: equal texts are equal documents.
std::string describe(const JSON* value) {
    if (value == nullptr)
        return "-";
    std::string out;
    if (value->type == JSON::ArrayType) {
        for (const JSON::root& element : value->values())
            out += describe(element.get()) + ",";
        return "[" + out + "]";
    }
    if (value->type == JSON::ObjectType) {
        for (const auto& [key, member] : value->keys())
            out += key + ":" + describe(member.get()) + ",";
        return "{" + out + "}";
    }
    return value->toString();
}

using Segments = JSONPathModel::Segments;

Segments randomSegments(std::mt19937& random) {
    static const char* const Choice[] = {"a", "b", "-1", "1x", "", "0", "1", "2", "03", "000"};
    Segments segments(1 + random() % 5);
    for (std::string& segment : segments)
        segment = Choice[random() % std::size(Choice)];
    return segments;
}

std::string joined(const Segments& segments) {
    std::string path = segments[0];
    for (std::size_t place = 1; place < segments.size(); ++place)
        path += "." + segments[place];
    return path;
}

// Beside holds a document and its model and does everything to both.
class Beside {
public:
    explicit Beside(unsigned seed) : m_oRandom(seed) {}

    void step() {
        const Segments segments = randomSegments(m_oRandom);
        switch (m_oRandom() % 4) {
        case 0:
            take(segments);
            break;
        case 1:
            read(segments);
            break;
        default:
            store(segments);
        }
        ASSERT_EQ(m_oModel.describe(), describe(m_pDocument.get())) << joined(segments);
    }

    int hits() const { return m_nHits; }
    int misses() const { return m_nMisses; }
    int stored() const { return m_nStored; }
    int taken() const { return m_nTaken; }

private:
    void read(const Segments& segments) {
        if (m_pDocument == nullptr)
            return;
        bool throughHole;
        const JSONPathModel* expected = m_oModel.find(segments, throughHole);
        const JSON* found = bothReadings(*m_pDocument, joined(segments));
        const bool hit = expected != nullptr && expected->kind != JSONPathModel::Hole;
        ASSERT_EQ(hit ? expected->describe() : "-", describe(found)) << joined(segments);
        ++(hit ? m_nHits : m_nMisses);
    }

    void take(const Segments& segments) {
        bool throughHole;
        JSONPathModel* expected = m_oModel.find(segments, throughHole);
        if (m_pDocument == nullptr || throughHole)
            return;
        const JSON* before = m_pDocument->getPath(joined(segments));
        const JSON::root value = m_pDocument->movePath(joined(segments));
        ASSERT_EQ(before, value.get()) << joined(segments);
        ASSERT_EQ(expected == nullptr ? "-" : expected->describe(), describe(value.get())) << joined(segments);
        if (expected != nullptr)
            *expected = JSONPathModel();
        m_nTaken += value != nullptr;
    }

    void store(const Segments& segments) {
        JSONPathModel copy = m_oModel;
        JSONPathModel* slot = copy.slotFor(segments);
        if (slot == nullptr)
            return;
        *slot = JSONPathModel();
        slot->kind = JSONPathModel::Plain;
        slot->number = ++m_nStored;
        m_oModel = std::move(copy);
        JSON::root value = JSON::Number(m_nStored);
        const JSON* stored = value.get();
        JSON::setPath(&m_pDocument, joined(segments), std::move(value));
        ASSERT_EQ(stored, m_pDocument->getPath(joined(segments))) << joined(segments);
    }

    std::mt19937 m_oRandom;
    JSON::root m_pDocument;
    JSONPathModel m_oModel;
    int m_nHits = 0;
    int m_nMisses = 0;
    int m_nStored = 0;
    int m_nTaken = 0;
};

}  // namespace

TEST(JSONPathAtRandom, DoesWhatTheModelDoes) {
    int hits = 0;
    int misses = 0;
    int stored = 0;
    int taken = 0;
    for (unsigned seed = 1; seed <= 200; ++seed) {
        Beside beside(seed);
        for (int step = 0; step < 100; ++step) {
            ASSERT_NO_FATAL_FAILURE(beside.step()) << "seed " << seed << ", step " << step;
            ASSERT_FALSE(testing::Test::HasFailure()) << "seed " << seed << ", step " << step;
        }
        hits += beside.hits();
        misses += beside.misses();
        stored += beside.stored();
        taken += beside.taken();
    }
    for (int count : {hits, misses, stored, taken})
        EXPECT_GT(count, 100) << "the choice of paths leaves something untried";
}
