// Tests of the JSON values: class by class which operations do something and which answer emptily, who owns what, and
// the containers' own operations.
#include <gtest/gtest.h>

#include <atomic>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "foundation/json.h"

using namespace std::string_literals;

namespace {

constexpr std::uint64_t QuietNaN = 0x7FF8000000000000;

std::uint64_t bitsOf(double number) {
    return std::bit_cast<std::uint64_t>(number);
}

std::string oneLine(const JSON& value) {
    std::string out;
    value.stringify(out, -1);
    return out;
}

JSON::root arrayOfNumbers(const std::vector<double>& numbers) {
    JSON::root array = JSON::Array();
    for (double number : numbers)
        array->push(JSON::Number(number));
    return array;
}

JSON::root objectOf(const std::vector<std::pair<std::string, double>>& members) {
    JSON::root object = JSON::Object();
    for (const auto& [key, number] : members)
        object->set(key, JSON::Number(number));
    return object;
}

// Class names one of the six value classes and makes a sample of it that is not empty.
struct Class {
    const char* name;
    int type;
    JSON::root (*make)();
    const char* text;
};

void PrintTo(const Class& sample, std::ostream* out) {
    *out << sample.name;
}

const Class Null = {"Null", 0, [] { return JSON::Null(); }, "null"};
const Class Boolean = {"Boolean", 1, [] { return JSON::Boolean(true); }, "true"};
const Class Number = {"Number", 2, [] { return JSON::Number(2.5); }, "2.5"};
const Class String = {"String", 3, [] { return JSON::String("abc"); }, "abc"};
const Class Object = {"Object", 4, [] { return objectOf({{"a", 1}, {"b", 2}}); }, "[object Object]"};
const Class Array = {"Array", 5, [] { return arrayOfNumbers({1, 2, 3}); }, "[object Array]"};

std::string nameOf(const testing::TestParamInfo<Class>& info) {
    return info.param.name;
}

// The shared empties, by way of a null value: every other class must hand out the very same.
struct Empties {
    JSON::root null = JSON::Null();
    const JSON& constant = *null;
};

class EveryClass : public testing::TestWithParam<Class> {
protected:
    JSON::root m_pValue = GetParam().make();
    const JSON& m_oConstant = *m_pValue;
};
class NotAnArray : public EveryClass {};
class NotAnObject : public EveryClass {};
class NotAContainer : public EveryClass {};

INSTANTIATE_TEST_SUITE_P(JSON, EveryClass, testing::Values(Null, Boolean, Number, String, Object, Array), nameOf);
INSTANTIATE_TEST_SUITE_P(JSON, NotAnArray, testing::Values(Null, Boolean, Number, String, Object), nameOf);
INSTANTIATE_TEST_SUITE_P(JSON, NotAnObject, testing::Values(Null, Boolean, Number, String, Array), nameOf);
INSTANTIATE_TEST_SUITE_P(JSON, NotAContainer, testing::Values(Null, Boolean, Number, String), nameOf);

}  // namespace

// ---- Kinds of a value that may be missing

TEST_P(EveryClass, IsObjectHoldsForObjectsOnly) {
    EXPECT_EQ(isObject(m_pValue.get()), m_pValue->type == JSON::ObjectType);
}

TEST_P(EveryClass, JSONTextIsTheOwnTextOfStringsOnly) {
    const std::string* const text = jsonText(m_pValue.get());
    const bool isString = m_pValue->type == JSON::StringType;
    EXPECT_EQ(text, isString ? static_cast<const JSONString*>(m_pValue.get()) : nullptr);
}

TEST(JSONKind, NullPointerIsOfNoKind) {
    EXPECT_FALSE(isObject(nullptr));
    EXPECT_EQ(jsonText(nullptr), nullptr);
}

// ---- Shape of the classes

TEST(JSONShape, ValueIsAbstractAndDestroyedThroughItsBase) {
    EXPECT_TRUE(std::is_abstract_v<JSON>);
    EXPECT_TRUE(std::has_virtual_destructor_v<JSON>);
    EXPECT_TRUE((std::is_same_v<JSON::root, std::unique_ptr<JSON>>));
}

TEST(JSONShape, TypeIsTheOnlyFieldBesidesTheVirtualTable) {
    EXPECT_TRUE((std::is_same_v<std::remove_const_t<decltype(JSON::type)>, std::int32_t>));
    EXPECT_EQ(2 * sizeof(void*), sizeof(JSON));
    EXPECT_EQ(sizeof(JSON), sizeof(JSONNull));
}

TEST(JSONShape, StringObjectAndArrayAreTheirContainersToo) {
    EXPECT_TRUE((std::is_convertible_v<JSONString*, std::string*>));
    EXPECT_TRUE((std::is_convertible_v<JSONObject*, std::map<std::string, JSON::root>*>));
    EXPECT_TRUE((std::is_convertible_v<JSONArray*, std::vector<JSON::root>*>));
}

TEST(JSONShape, NaNIsTheQuietNaN) {
    EXPECT_EQ(QuietNaN, bitsOf(JSON::NaN));
}

TEST_P(EveryClass, HasItsType) {
    EXPECT_EQ(GetParam().type, m_pValue->type);
}

TEST(JSONShape, FactoriesMakeTheConcreteClasses) {
    EXPECT_NE(nullptr, dynamic_cast<JSONNull*>(JSON::Null().get()));
    EXPECT_NE(nullptr, dynamic_cast<JSONBoolean*>(JSON::Boolean(false).get()));
    EXPECT_NE(nullptr, dynamic_cast<JSONNumber*>(JSON::Number(0).get()));
    EXPECT_NE(nullptr, dynamic_cast<JSONString*>(JSON::String("").get()));
    EXPECT_NE(nullptr, dynamic_cast<JSONArray*>(JSON::Array().get()));
    EXPECT_NE(nullptr, dynamic_cast<JSONObject*>(JSON::Object().get()));
}

TEST(JSONShape, FactoriesOfContainersGiveEmptyOnes) {
    EXPECT_TRUE(JSON::Array()->values().empty());
    EXPECT_TRUE(JSON::Object()->keys().empty());
}

TEST(JSONShape, StringFactoryKeepsEveryByte) {
    std::string everyByte;
    for (int byte = 0; byte < 256; ++byte)
        everyByte += static_cast<char>(byte);
    EXPECT_EQ(everyByte, JSON::String(everyByte)->toString());
    EXPECT_EQ(everyByte, static_cast<std::string&>(dynamic_cast<JSONString&>(*JSON::String(everyByte))));
}

TEST(JSONShape, StringFactoryCopiesAlsoFromAnExpiringText) {
    std::string text = "a text too long to live within the string object itself";
    const JSON::root value = JSON::String(std::move(text));
    const std::string& kept = text;
    EXPECT_EQ("a text too long to live within the string object itself", kept);
    EXPECT_EQ(kept, value->toString());
}

// ---- Truth, number and text

TEST(JSONTruth, EachClassHasItsOwn) {
    EXPECT_FALSE(static_cast<bool>(*JSON::Null()));
    EXPECT_TRUE(static_cast<bool>(*JSON::Boolean(true)));
    EXPECT_FALSE(static_cast<bool>(*JSON::Boolean(false)));
    EXPECT_TRUE(static_cast<bool>(*JSON::String("false")));
    EXPECT_TRUE(static_cast<bool>(*JSON::String("\0"s)));
    EXPECT_TRUE(static_cast<bool>(*arrayOfNumbers({0})));
    EXPECT_TRUE(static_cast<bool>(*objectOf({{"a", 0}})));
}

TEST(JSONTruth, EmptyArrayAndEmptyObjectAreTrue) {
    EXPECT_TRUE(static_cast<bool>(*JSON::Array()));
    EXPECT_TRUE(static_cast<bool>(*JSON::Object()));
}

TEST(JSONTruth, EmptyStringIsFalse) {
    EXPECT_FALSE(static_cast<bool>(*JSON::String("")));
}

TEST(JSONTruth, NumberIsTrueUnlessZeroOrNaN) {
    using Limits = std::numeric_limits<double>;
    for (double number : {1.0, -1.0, Limits::denorm_min(), -Limits::denorm_min(), Limits::infinity(), 1e300})
        EXPECT_TRUE(static_cast<bool>(*JSON::Number(number))) << number;
    for (double number : {0.0, -0.0, double{JSON::NaN}, -double{JSON::NaN}, Limits::signaling_NaN()})
        EXPECT_FALSE(static_cast<bool>(*JSON::Number(number))) << number;
}

TEST(JSONNumberOf, NullIsZeroAndBooleansAreZeroAndOne) {
    EXPECT_EQ(bitsOf(0.0), bitsOf(static_cast<double>(*JSON::Null())));
    EXPECT_EQ(1.0, static_cast<double>(*JSON::Boolean(true)));
    EXPECT_EQ(bitsOf(0.0), bitsOf(static_cast<double>(*JSON::Boolean(false))));
}

TEST(JSONNumberOf, NumberIsItsValueBitForBit) {
    for (std::uint64_t bits : {std::uint64_t{0}, std::uint64_t{1} << 63, std::uint64_t{1}, bitsOf(-12.75),
                               bitsOf(std::numeric_limits<double>::infinity()), std::uint64_t{0xFFF8000000000123}})
        EXPECT_EQ(bits, bitsOf(static_cast<double>(*JSON::Number(std::bit_cast<double>(bits)))));
}

TEST(JSONNumberOf, ContainersGiveTheQuietNaN) {
    EXPECT_EQ(QuietNaN, bitsOf(static_cast<double>(*arrayOfNumbers({7}))));
    EXPECT_EQ(QuietNaN, bitsOf(static_cast<double>(*JSON::Array())));
    EXPECT_EQ(QuietNaN, bitsOf(static_cast<double>(*objectOf({{"a", 7}}))));
}

TEST_P(EveryClass, ToStringGivesThePlainText) {
    EXPECT_EQ(GetParam().text, m_oConstant.toString());
}

TEST(JSONToString, TheOtherTruthValueAndEmptyContainers) {
    EXPECT_EQ("false", JSON::Boolean(false)->toString());
    EXPECT_EQ("[object Array]", JSON::Array()->toString());
    EXPECT_EQ("[object Object]", JSON::Object()->toString());
}

TEST(JSONToString, StringIsCopiedWithoutQuotesOrEscapes) {
    EXPECT_EQ("\"\\\n\0\x80z"s, JSON::String("\"\\\n\0\x80z"s)->toString());
}

TEST(JSONToString, NumberIsTheTextThatStringifyWrites) {
    for (double number : {0.1, 100.0, 1e300, -0.0, 1.0 / 3.0, double{JSON::NaN}})
        EXPECT_EQ(oneLine(*JSON::Number(number)), JSON::Number(number)->toString());
}

// ---- Answers of a value that has no use for the operation

TEST_P(NotAnObject, GetGivesNull) {
    EXPECT_EQ(nullptr, m_pValue->get("a"));
    EXPECT_EQ(nullptr, m_oConstant.get("a"));
    EXPECT_EQ(nullptr, m_oConstant.get(""));
}

TEST_P(NotAnObject, SetGivesNullAndLeavesTheArgumentToTheCaller) {
    JSON::root argument = JSON::String("mine");
    JSON* const raw = argument.get();
    EXPECT_EQ(nullptr, m_pValue->set("a", std::move(argument)));
    EXPECT_EQ(raw, argument.get());
    EXPECT_EQ("mine", argument->toString());
    EXPECT_EQ(oneLine(*GetParam().make()), oneLine(*m_pValue));
}

TEST_P(NotAnObject, UnsetDoesNothing) {
    m_pValue->unset("a");
    EXPECT_EQ(oneLine(*GetParam().make()), oneLine(*m_pValue));
}

TEST_P(NotAnObject, MoveByKeyGivesNull) {
    EXPECT_EQ(nullptr, m_pValue->move("a"s));
    EXPECT_EQ(oneLine(*GetParam().make()), oneLine(*m_pValue));
}

TEST_P(NotAnObject, KeysAndEachGiveTheSharedEmptyMap) {
    Empties empties;
    EXPECT_EQ(&empties.constant.keys(), &m_oConstant.keys());
    EXPECT_EQ(&empties.constant.keys(), &m_pValue->each());
    EXPECT_EQ(&empties.constant.keys(), &m_oConstant.each());
    EXPECT_TRUE(m_pValue->each().empty());
}

TEST_P(NotAnArray, AtGivesNull) {
    EXPECT_EQ(nullptr, m_pValue->at(0));
    EXPECT_EQ(nullptr, m_oConstant.at(0));
    EXPECT_EQ(nullptr, m_oConstant.at(1000));
}

TEST_P(NotAnArray, MoveByIndexGivesNull) {
    EXPECT_EQ(nullptr, m_pValue->move(std::size_t{0}));
    EXPECT_EQ(oneLine(*GetParam().make()), oneLine(*m_pValue));
}

TEST_P(NotAnArray, PushGivesNullAndLeavesTheArgumentToTheCaller) {
    JSON::root argument = JSON::String("mine");
    JSON* const raw = argument.get();
    EXPECT_EQ(nullptr, m_pValue->push(std::move(argument)));
    EXPECT_EQ(raw, argument.get());
    EXPECT_EQ("mine", argument->toString());
    EXPECT_EQ(oneLine(*GetParam().make()), oneLine(*m_pValue));
}

TEST_P(NotAnArray, PushAllLeavesTheArgumentToTheCaller) {
    JSON::root argument = arrayOfNumbers({4, 5});
    JSON* const raw = argument.get();
    m_pValue->push_all(std::move(argument));
    EXPECT_EQ(raw, argument.get());
    EXPECT_EQ("[ 4, 5 ]", oneLine(*argument));
    EXPECT_EQ(oneLine(*GetParam().make()), oneLine(*m_pValue));
}

TEST_P(NotAnArray, ReverseDoesNothing) {
    m_pValue->reverse();
    EXPECT_EQ(oneLine(*GetParam().make()), oneLine(*m_pValue));
}

TEST_P(NotAnArray, ValuesGiveTheSharedEmptyVector) {
    Empties empties;
    EXPECT_EQ(&empties.constant.values(), &m_pValue->values());
    EXPECT_EQ(&empties.constant.values(), &m_oConstant.values());
    EXPECT_TRUE(m_pValue->values().empty());
}

TEST_P(NotAnArray, JoinGivesTheEmptyString) {
    EXPECT_EQ("", m_oConstant.join(","));
}

TEST_P(NotAnArray, RootOfIndexIsTheSharedNullSlot) {
    Empties empties;
    EXPECT_EQ(&empties.null->rootOf(std::size_t{0}), &m_pValue->rootOf(std::size_t{0}));
    EXPECT_EQ(&empties.null->rootOf(std::size_t{0}), &m_pValue->rootOf(std::size_t{7}));
    EXPECT_EQ(nullptr, m_pValue->rootOf(std::size_t{0}));
}

TEST_P(EveryClass, RootOfKeyIsTheSharedNullSlotAlsoOnObjects) {
    Empties empties;
    EXPECT_EQ(&empties.null->rootOf(std::size_t{0}), &m_pValue->rootOf("a"s));
    EXPECT_EQ(nullptr, m_pValue->rootOf("a"s));
}

TEST_P(NotAContainer, SizeIsZeroAndEmptyIsTrue) {
    EXPECT_EQ(0u, m_oConstant.size());
    EXPECT_TRUE(m_oConstant.empty());
}

TEST(JSONString, SizeIsZeroAndEmptyIsTrueThoughItHoldsThreeBytes) {
    JSONString value("abc");
    EXPECT_EQ(0u, value.size());
    EXPECT_TRUE(value.empty());
    EXPECT_EQ(3u, static_cast<std::string&>(value).size());
    EXPECT_FALSE(static_cast<std::string&>(value).empty());
}

TEST(JSONDefaults, SharedEmptiesStayEmptyAfterEveryOperation) {
    for (const Class& sample : {Null, Boolean, Number, String, Array, Object}) {
        const JSON::root value = sample.make();
        JSON::root argument = JSON::Null();
        value->set("a", std::move(argument));
        value->unset("a");
        argument = JSON::Null();
        value->push(std::move(argument));
        argument = JSON::Null();
        value->push_all(std::move(argument));
        value->reverse();
        value->move("a"s);
    }
    Empties empties;
    EXPECT_TRUE(empties.constant.keys().empty());
    EXPECT_TRUE(empties.constant.values().empty());
    EXPECT_EQ(nullptr, empties.null->rootOf("a"s));
}

// ---- Arrays

TEST(JSONArray, SizeCountsElementsAndEmptyTellsNone) {
    const JSON::root array = JSON::Array();
    EXPECT_EQ(0u, array->size());
    EXPECT_TRUE(array->empty());
    array->push(JSON::Null());
    array->push(JSON::Null());
    EXPECT_EQ(2u, array->size());
    EXPECT_FALSE(array->empty());
}

TEST(JSONArray, PushAppendsAndReturnsThePointerThatItWasGiven) {
    const JSON::root array = arrayOfNumbers({1});
    JSON::root value = JSON::String("new");
    JSON* const raw = value.get();
    EXPECT_EQ(raw, array->push(std::move(value)));
    EXPECT_EQ(nullptr, value);
    EXPECT_EQ(raw, array->at(1));
    EXPECT_EQ("[ 1, \"new\" ]", oneLine(*array));
}

TEST(JSONArray, AtGivesTheElementWithoutGivingItUp) {
    const JSON::root array = arrayOfNumbers({10, 20, 30});
    const JSON& constant = *array;
    for (std::size_t index = 0; index < 3; ++index) {
        EXPECT_EQ(10.0 * static_cast<double>(index + 1), static_cast<double>(*array->at(index)));
        EXPECT_EQ(array->at(index), constant.at(index));
    }
    EXPECT_EQ(3u, array->size());
}

TEST(JSONArray, MoveTakesTheElementAndLeavesAnEmptySlot) {
    const JSON::root array = arrayOfNumbers({1, 2, 3});
    JSON* const raw = array->at(1);
    const JSON::root taken = array->move(std::size_t{1});
    EXPECT_EQ(raw, taken.get());
    EXPECT_EQ(3u, array->size());
    EXPECT_FALSE(array->empty());
    EXPECT_EQ(nullptr, array->at(1));
    EXPECT_EQ(3.0, static_cast<double>(*array->at(2)));
    EXPECT_EQ(nullptr, array->move(std::size_t{1}));
}

TEST(JSONArray, TakenElementOutlivesTheArray) {
    JSON::root array = JSON::Array();
    array->push(arrayOfNumbers({1, 2}));
    const JSON::root taken = array->move(std::size_t{0});
    array.reset();
    EXPECT_EQ("[ 1, 2 ]", oneLine(*taken));
}

TEST(JSONArray, RootOfIndexIsTheSlotItself) {
    const JSON::root array = arrayOfNumbers({1, 2});
    EXPECT_EQ(array->at(1), array->rootOf(std::size_t{1}).get());
    array->rootOf(std::size_t{1}) = JSON::String("stored");
    EXPECT_EQ("[ 1, \"stored\" ]", oneLine(*array));
    EXPECT_EQ(&array->values()[1], &array->rootOf(std::size_t{1}));
}

TEST(JSONArray, PushAllMovesTheElementsOfAnArrayInOrder) {
    const JSON::root array = arrayOfNumbers({1, 2});
    JSON::root more = arrayOfNumbers({3, 4, 5});
    const std::vector<JSON*> elements = {more->at(0), more->at(1), more->at(2)};
    array->push_all(std::move(more));
    EXPECT_EQ(nullptr, more);
    EXPECT_EQ("[ 1, 2, 3, 4, 5 ]", oneLine(*array));
    EXPECT_EQ(elements, (std::vector<JSON*>{array->at(2), array->at(3), array->at(4)}));
}

TEST(JSONArray, PushAllOfAnEmptyArrayAddsNothing) {
    const JSON::root array = arrayOfNumbers({1});
    JSON::root more = JSON::Array();
    array->push_all(std::move(more));
    EXPECT_EQ(nullptr, more);
    EXPECT_EQ("[ 1 ]", oneLine(*array));
}

TEST(JSONArray, PushAllIsNotRecursive) {
    const JSON::root array = JSON::Array();
    JSON::root more = JSON::Array();
    more->push(arrayOfNumbers({1, 2}));
    array->push_all(std::move(more));
    EXPECT_EQ("[ [ 1, 2 ] ]", oneLine(*array));
}

TEST_P(NotAnArray, IsAppendedAsOneElementByPushAll) {
    const JSON::root array = arrayOfNumbers({1});
    JSON* const raw = m_pValue.get();
    array->push_all(std::move(m_pValue));
    EXPECT_EQ(nullptr, m_pValue);
    ASSERT_EQ(2u, array->size());
    EXPECT_EQ(raw, array->at(1));
    EXPECT_EQ(oneLine(*GetParam().make()), oneLine(*array->at(1)));
}

TEST(JSONArray, ReverseSwapsFromBothEnds) {
    const std::pair<std::vector<double>, const char*> rows[] = {{{}, "[ ]"},
                                                                {{1}, "[ 1 ]"},
                                                                {{1, 2}, "[ 2, 1 ]"},
                                                                {{1, 2, 3}, "[ 3, 2, 1 ]"},
                                                                {{1, 2, 3, 4}, "[ 4, 3, 2, 1 ]"}};
    for (const auto& [numbers, expected] : rows) {
        const JSON::root array = arrayOfNumbers(numbers);
        array->reverse();
        EXPECT_EQ(expected, oneLine(*array));
    }
}

TEST(JSONArray, ReverseMovesSlotsAndCopiesNothing) {
    const JSON::root array = arrayOfNumbers({1, 2, 3});
    const std::vector<JSON*> elements = {array->at(2), array->at(1), array->at(0)};
    array->move(std::size_t{1});
    array->reverse();
    EXPECT_EQ(elements[0], array->at(0));
    EXPECT_EQ(nullptr, array->at(1));
    EXPECT_EQ(elements[2], array->at(2));
}

TEST(JSONArray, ValuesAreTheRealContainer) {
    const JSON::root array = arrayOfNumbers({1, 2});
    const JSON& constant = *array;
    EXPECT_EQ(static_cast<JSON::Vector*>(&dynamic_cast<JSONArray&>(*array)), &array->values());
    EXPECT_EQ(&array->values(), &constant.values());
    array->values().push_back(JSON::Boolean(true));
    EXPECT_EQ("[ 1, 2, true ]", oneLine(*array));
}

TEST(JSONArray, JoinPutsTheSeparatorBetweenThePlainTexts) {
    const JSON::root array = JSON::parse(R"(["a\nb", 1.5, true, null, "", [1, 2], {"k": 1}])");
    ASSERT_NE(nullptr, array);
    EXPECT_EQ("a\nb, 1.5, true, null, , [object Array], [object Object]", array->join(", "));
}

TEST(JSONArray, JoinOfFewElements) {
    EXPECT_EQ("", JSON::Array()->join(","));
    EXPECT_EQ("1", arrayOfNumbers({1})->join(","));
    EXPECT_EQ("123", arrayOfNumbers({1, 2, 3})->join(""));
    EXPECT_EQ("1\0"s + "2", arrayOfNumbers({1, 2})->join("\0"s));
}

TEST(JSONArray, JoinKeepsNULBytesOfItsStrings) {
    const JSON::root array = JSON::Array();
    array->push(JSON::String("a\0b"s));
    array->push(JSON::String("c"));
    EXPECT_EQ("a\0b-c"s, array->join("-"));
}

// ---- Objects

TEST(JSONObject, SizeCountsMembersAndEmptyTellsNone) {
    const JSON::root object = JSON::Object();
    EXPECT_EQ(0u, object->size());
    EXPECT_TRUE(object->empty());
    object->set("a", JSON::Null());
    object->set("b", JSON::Null());
    EXPECT_EQ(2u, object->size());
    EXPECT_FALSE(object->empty());
}

TEST(JSONObject, GetGivesTheValueOfTheKeyOrNull) {
    const JSON::root object = objectOf({{"a", 1}, {"b", 2}});
    const JSON& constant = *object;
    EXPECT_EQ(2.0, static_cast<double>(*object->get("b")));
    EXPECT_EQ(object->get("b"), constant.get("b"));
    EXPECT_EQ(nullptr, object->get("c"));
    EXPECT_EQ(nullptr, constant.get("c"));
    EXPECT_EQ(nullptr, constant.get(""));
    EXPECT_EQ(2u, object->size());
}

TEST(JSONObject, SetInsertsAndReturnsTheStoredValue) {
    const JSON::root object = JSON::Object();
    JSON::root value = JSON::Number(1);
    JSON* const raw = value.get();
    EXPECT_EQ(raw, object->set("a", std::move(value)));
    EXPECT_EQ(nullptr, value);
    EXPECT_EQ(raw, object->get("a"));
}

TEST(JSONObject, SetReplacesThePreviousValue) {
    const JSON::root object = objectOf({{"a", 1}, {"b", 2}});
    JSON::root value = arrayOfNumbers({3});
    JSON* const raw = value.get();
    EXPECT_EQ(raw, object->set("a", std::move(value)));
    EXPECT_EQ("{ \"a\": [ 3 ], \"b\": 2 }", oneLine(*object));
}

TEST(JSONObject, UnsetErasesAndIsSilentOtherwise) {
    const JSON::root object = objectOf({{"a", 1}, {"b", 2}});
    object->unset("a");
    EXPECT_EQ("{ \"b\": 2 }", oneLine(*object));
    object->unset("a");
    object->unset("");
    EXPECT_EQ("{ \"b\": 2 }", oneLine(*object));
}

TEST(JSONObject, MoveTakesTheValueAndErasesTheMember) {
    JSON::root object = objectOf({{"a", 1}, {"b", 2}});
    JSON* const raw = object->get("a");
    const JSON::root taken = object->move("a"s);
    EXPECT_EQ(raw, taken.get());
    EXPECT_EQ(1u, object->size());
    EXPECT_EQ(0u, object->keys().count("a"));
    object.reset();
    EXPECT_EQ(1.0, static_cast<double>(*taken));
}

TEST(JSONObject, MoveOfAnAbsentKeyGivesNull) {
    const JSON::root object = objectOf({{"a", 1}});
    EXPECT_EQ(nullptr, object->move("b"s));
    EXPECT_EQ("{ \"a\": 1 }", oneLine(*object));
}

TEST(JSONObject, RootOfItsOwnKeyIsTheSharedNullSlot) {
    const JSON::root object = objectOf({{"a", 1}});
    Empties empties;
    EXPECT_EQ(&empties.null->rootOf("x"s), &object->rootOf("a"s));
    EXPECT_EQ(nullptr, object->rootOf("a"s));
}

TEST(JSONObject, KeysAndEachAreTheRealContainer) {
    const JSON::root object = objectOf({{"b", 1}, {"a", 2}});
    const JSON& constant = *object;
    EXPECT_EQ(static_cast<JSON::Map*>(&dynamic_cast<JSONObject&>(*object)), &object->each());
    EXPECT_EQ(&object->each(), &constant.each());
    EXPECT_EQ(&object->each(), &constant.keys());
    object->each()["c"] = JSON::Boolean(true);
    EXPECT_EQ("{ \"a\": 2, \"b\": 1, \"c\": true }", oneLine(*object));
}

TEST(JSONObject, KeysAreOrderedByBytesAndTheShorterFirst) {
    const std::vector<std::string> ordered = {
        "",    "\0"s, "\0\0"s, "\x01", "A",    "Z",    "a",        "a\0"s,         "a\0b"s,
        "aA",  "aa",  "a\x80", "b",    "\x7F", "\x80", "\xC3\xA4", "\xEF\xBF\xBD", "\xF0\x9F\x98\x80",
        "\xFF"};
    const JSON::root object = JSON::Object();
    for (std::size_t step = 0; step < ordered.size(); ++step)
        object->set(ordered[step * 7 % ordered.size()], JSON::Null());
    std::vector<std::string> found;
    for (const auto& member : object->keys())
        found.push_back(member.first);
    EXPECT_EQ(ordered, found);
}

TEST(JSONObject, KeysWithNULBytesAreKeysOfTheirOwn) {
    const JSON::root object = JSON::Object();
    object->set("a", JSON::Number(1));
    object->set("a\0"s, JSON::Number(2));
    object->set("a\0b"s, JSON::Number(3));
    EXPECT_EQ(3u, object->size());
    EXPECT_EQ(2.0, static_cast<double>(*object->get("a\0"s)));
    object->unset("a\0"s);
    EXPECT_EQ(1.0, static_cast<double>(*object->get("a")));
    EXPECT_EQ(3.0, static_cast<double>(*object->move("a\0b"s)));
}

// ---- Copies

TEST_P(EveryClass, DupIsAnEqualValueOfTheSameClass) {
    const JSON::root copy = m_oConstant.dup();
    ASSERT_NE(nullptr, copy);
    EXPECT_NE(m_pValue.get(), copy.get());
    EXPECT_EQ(m_pValue->type, copy->type);
    EXPECT_EQ(oneLine(*m_pValue), oneLine(*copy));
}

TEST(JSONDup, CopyIsDeepAndOutlivesTheOriginal) {
    const std::string text = R"({ "a": [ 1, { "b": [ "x", null ] }, [ ] ], "c": { }, "d": true })";
    JSON::root original = JSON::parse(text);
    ASSERT_NE(nullptr, original);
    const JSON::root copy = original->dup();
    EXPECT_NE(original->get("a"), copy->get("a"));
    EXPECT_NE(original->get("a")->at(1)->get("b")->at(0), copy->get("a")->at(1)->get("b")->at(0));
    original->get("a")->at(1)->get("b")->push(JSON::Null());
    EXPECT_EQ(text, oneLine(*copy));
    original.reset();
    EXPECT_EQ(text, oneLine(*copy));
}

TEST(JSONDup, KeepsEveryByteAndEveryBit) {
    EXPECT_EQ("a\0\xFF"s, JSON::String("a\0\xFF"s)->dup()->toString());
    for (std::uint64_t bits : {std::uint64_t{1} << 63, std::uint64_t{0xFFF8000000000123}, std::uint64_t{1}})
        EXPECT_EQ(bits, bitsOf(static_cast<double>(*JSON::Number(std::bit_cast<double>(bits))->dup())));
    EXPECT_EQ("false", JSON::Boolean(false)->dup()->toString());
}

TEST(JSONDup, ArrayReservesTheOldSize) {
    const JSON::root array = JSON::Array();
    for (int count = 0; count < 33; ++count)
        array->push(JSON::Null());
    array->move(std::size_t{4});
    const JSON::root copy = array->dup();
    EXPECT_EQ(32u, copy->size());
    EXPECT_LE(33u, copy->values().capacity());
}

TEST(JSONDup, HolesOfAnArrayCloseUp) {
    const JSON::root array = arrayOfNumbers({1, 2, 3, 4, 5});
    for (std::size_t index : {0u, 2u, 4u})
        array->move(index);
    const JSON::root copy = array->dup();
    EXPECT_EQ("[ 2, 4 ]", oneLine(*copy));
    EXPECT_EQ(5u, array->size());
}

TEST(JSONDup, ArrayOfHolesOnlyBecomesEmpty) {
    const JSON::root array = arrayOfNumbers({1, 2});
    array->move(std::size_t{0});
    array->move(std::size_t{1});
    EXPECT_EQ("[ ]", oneLine(*array->dup()));
}

TEST(JSONDup, MembersWithoutValueAreLeftOut) {
    const JSON::root object = objectOf({{"a", 1}, {"b", 2}, {"c", 3}});
    object->each()["a"].reset();
    object->each()["c"].reset();
    EXPECT_EQ(nullptr, object->get("a"));
    EXPECT_EQ("{ \"b\": 2 }", oneLine(*object->dup()));
    EXPECT_EQ(3u, object->size());
}

TEST(JSONDup, HolesBelowTheTopAreLeftOutToo) {
    const JSON::root document = JSON::parse(R"({"list": [1, {"x": 1, "y": 2}, [3, 4]]})");
    ASSERT_NE(nullptr, document);
    JSON* const list = document->get("list");
    list->at(1)->each()["x"].reset();
    list->at(2)->move(std::size_t{1});
    list->move(std::size_t{0});
    EXPECT_EQ(R"({ "list": [ { "y": 2 }, [ 3 ] ] })", oneLine(*document->dup()));
}

// ---- Destruction

TEST(JSONDestruction, DocumentsWithHolesAreDestroyed) {
    const JSON::root array = arrayOfNumbers({1, 2});
    array->move(std::size_t{0});
    array->push(objectOf({{"a", 1}}));
    array->at(2)->each()["a"].reset();
    EXPECT_EQ(3u, array->size());
}

TEST(JSONDestruction, ValuesOnTheStackDestroyWhatTheyHold) {
    JSONObject object;
    object.set("list", arrayOfNumbers({1, 2, 3}));
    JSONArray array;
    array.push(objectOf({{"a", 1}}));
    EXPECT_EQ("[ { \"a\": 1 } ]", oneLine(array));
    EXPECT_EQ("{ \"list\": [ 1, 2, 3 ] }", oneLine(object));
}

// ---- Threads and lifetimes: a document may be made on one thread and let go on another, one after the other

namespace {

const char* const Sample = R"({ "a": [ 1, { "b": [ "x", null, true ] }, [ ] ], "c": { } })";

// Exchange passes documents between threads.
class Exchange {
public:
    // swap leaves `mine` here and gives what the thread before left.
    JSON::root swap(JSON::root mine) {
        const std::lock_guard<std::mutex> lock(m_oMutex);
        std::swap(m_pLeft, mine);
        return mine;
    }

private:
    std::mutex m_oMutex;
    JSON::root m_pLeft = JSON::parse(Sample);
};

// A document of program life time and one of thread life time, both empty at first: they are let go after all else.
JSON::root gs_pAtExit;
thread_local JSON::root gs_pAtThreadExit;

}  // namespace

TEST(JSONThreads, DocumentOutlivesTheThreadThatMadeIt) {
    JSON::root document;
    std::thread([&document] { document = JSON::parse(Sample); }).join();
    ASSERT_NE(nullptr, document);
    document->get("a")->push(JSON::Number(2));
    document->get("a")->values().pop_back();
    EXPECT_EQ(Sample, oneLine(*document));
}

TEST(JSONThreads, DocumentIsLetGoOnAnotherThread) {
    JSON::root document = JSON::parse(Sample);
    const JSON::root copy = document->dup();
    std::thread([&document] { document.reset(); }).join();
    EXPECT_EQ(Sample, oneLine(*copy));
}

TEST(JSONThreads, DocumentsOfSeveralThreadsDoNotDisturbEachOther) {
    Exchange exchange;
    std::atomic<int> wrong = 0;
    std::vector<std::thread> threads;
    for (int index = 0; index < 4; ++index)
        threads.emplace_back([&exchange, &wrong] {
            for (int round = 0; round < 500; ++round) {
                const JSON::root document = exchange.swap(JSON::parse(Sample));
                const JSON::root copy = document->dup();
                document->get("a")->move(std::size_t{1});
                wrong += oneLine(*copy) != Sample;
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(0, wrong);
}

TEST(JSONThreads, DocumentOfTheProgramsLifeTimeIsLetGoAtExit) {
    const auto leave = [] {
        gs_pAtExit = JSON::parse(Sample);
        gs_pAtThreadExit = JSON::parse(Sample);
        static const JSON::root later = JSON::parse(Sample);
        std::exit(oneLine(*gs_pAtExit) == oneLine(*later) ? 0 : 1);
    };
    EXPECT_EXIT(leave(), testing::ExitedWithCode(0), "");
}
