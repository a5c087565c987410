// version_string_test.cpp: versions and collections of them, foundation/version_string.h.

#include <gtest/gtest.h>

#include <algorithm>
#include <list>
#include <map>
#include <random>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "foundation/version_string.h"

namespace {

using namespace std::string_literals;

using Numbers = std::vector<uint32_t>;

VersionString version(const std::string& text) {
    return VersionString(text);
}
VersionStringCollection collection(const std::string& text) {
    return VersionStringCollection(text);
}

// ---- Parsing and printing ----

TEST(VersionString, IsAPlainValue) {
    EXPECT_FALSE(std::is_polymorphic_v<VersionString>);
    EXPECT_EQ(sizeof(Numbers), sizeof(VersionString)) << "the components are all there is";
    EXPECT_TRUE((std::is_same_v<Numbers, decltype(VersionString::components)>));
}

TEST(VersionString, TakesACopyOfNumbers) {
    Numbers numbers = {1, 2, 3};
    const VersionString made(numbers);
    numbers[0] = 9;
    EXPECT_EQ(Numbers({1, 2, 3}), made.components);
    EXPECT_EQ(Numbers(), VersionString(Numbers()).components);
}

TEST(VersionString, ReadsRunsOfDigits) {
    const struct {
        std::string text;
        Numbers expected;
    } rows[] = {
        {"", {}},
        {"1", {1}},
        {"1.2.3", {1, 2, 3}},
        {"v2.0-rc1", {0, 2, 0, 1}},  // begins with a non-digit
        {"1.", {1}},                 // nothing behind the separator
        {"1..2", {1, 2}},            // one separator of any length
        {"1 , - x 2", {1, 2}},
        {".1", {0, 1}},
        {".", {0}},
        {"beta", {0}},
        {"-1", {0, 1}},
        {" 1", {0, 1}},
        {"007.08", {7, 8}},
        {"0.0.0", {0, 0, 0}},
        {"1.2\0.3"s, {1, 2, 3}},
        {"1\xC3\xA9\x32", {1, 2}},
        {"1/2:3", {1, 2, 3}},  // the neighbours of the digits
        {"4294967295", {4294967295u}},
        {"4294967296", {0}},  // wraps at 32 bits
        {"4294967299.1", {3, 1}},
        {"99999999999999999999", {1661992959u}},  // 10^20 - 1 modulo 2^32
    };
    for (const auto& row : rows)
        EXPECT_EQ(row.expected, version(row.text).components) << testing::PrintToString(row.text);
}

TEST(VersionString, ReadsLongTexts) {
    std::string text;
    Numbers expected;
    for (uint32_t i = 0; i < 5000; ++i) {
        text += std::to_string(i) + ".";
        expected.push_back(i);
    }
    EXPECT_EQ(expected, version(text).components);
    EXPECT_EQ(text.substr(0, text.size() - 1), VersionString(expected).toString());
}

TEST(VersionString, PrintsTheComponentsJoinedByDots) {
    EXPECT_EQ("", VersionString(Numbers()).toString());
    EXPECT_EQ("0", VersionString(Numbers{0}).toString());
    EXPECT_EQ("1.2.3", VersionString(Numbers{1, 2, 3}).toString());
    EXPECT_EQ("4294967295.0", VersionString(Numbers{4294967295u, 0}).toString());
    EXPECT_EQ("0.2.0.1", version("v2.0-rc1").toString());
}

// ---- Ordering ----

TEST(VersionString, OrdersByTheFirstDifferenceAndThenByLength) {
    const char* const ascending[] = {"",      "0",   "0.1",  "1", "1.0", "1.2",        "1.2.0",     "1.2.0.0",
                                     "1.2.1", "1.9", "1.10", "2", "10",  "2147483648", "4294967295"};
    for (size_t left = 0; left < std::size(ascending); ++left) {
        for (size_t right = 0; right < std::size(ascending); ++right)
            EXPECT_EQ(left < right, version(ascending[left]) < version(ascending[right]))
                << ascending[left] << " < " << ascending[right];
    }
}

TEST(VersionString, OrderingIsTheLexicographicOne) {
    std::mt19937 random(61103);
    auto numbers = [&] {
        Numbers made(random() % 5);
        for (uint32_t& number : made)
            number = random() % 3 == 0 ? random() : random() % 2;
        return made;
    };
    for (int i = 0; i < 100000 && !HasFailure(); ++i) {
        const Numbers left = numbers(), right = numbers();
        const bool expected = std::lexicographical_compare(left.begin(), left.end(), right.begin(), right.end());
        EXPECT_EQ(expected, VersionString(left) < VersionString(right))
            << testing::PrintToString(left) << testing::PrintToString(right);
    }
}

TEST(VersionString, ComparesWithTheMemberOfItsMajorNumberOrTheHighest) {
    const struct {
        const char* version;
        const char* collection;
        bool bLess;
        const char* member;
    } rows[] = {
        {"1.0", "", false, ""},           {"1.0", "1.5,2.0", true, "1.5"},
        {"1.5", "1.5,2.0", false, "1.5"}, {"1.6", "1.5,2.0", false, "1.5"},
        {"1", "1.5,2.0", true, "1.5"},    {"2.0", "1.5,2.0", false, "2.0"},
        {"2", "1.5,2.0", true, "2.0"},    {"3.0", "1.5,2.0", false, "2.0"},  // no such major number: the last
        {"0.9", "1.5,2.0", true, "2.0"},  {"2.9", "1.5,3.1", true, "3.1"},
        {"1.5", "2.0,1.4", false, "1.4"},                         // sorted when made
        {"1.5", "1.6,1.4", false, "1.4"},                         // the first of that major number
        {"0", ",1", true, "1"},                                   // a member without components has no major number
        {"2", ",1", false, "1"},          {"1", ",", false, ""},  // the last member is one without components
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.bLess, version(row.version) < collection(row.collection))
            << row.version << " in " << row.collection;
        EXPECT_EQ(row.member, collection(row.collection).toString(version(row.version)))
            << row.version << " in " << row.collection;
    }
}

// ---- Collections ----

TEST(VersionStringCollection, CopiesAndSortsAList) {
    std::list<VersionString> versions = {version("2.0"), version("1.10"), version("1.9"), version("10")};
    const VersionStringCollection made(versions);
    versions.front() = version("99");
    EXPECT_EQ("1.9,1.10,2.0,10", made.toString());
    EXPECT_EQ("", VersionStringCollection(std::list<VersionString>()).toString());
}

TEST(VersionStringCollection, ReadsTextBetweenCommas) {
    const struct {
        const char* text;
        const char* expected;
    } rows[] = {
        {"", ""},
        {"1.2", "1.2"},
        {"3.0,1.5", "1.5,3.0"},
        {"1.2,1.2.0,1.1", "1.1,1.2,1.2.0"},
        {"1.0,1.0", "1.0,1.0"},
        {"2.0,,1.0", ",1.0,2.0"},  // an empty piece is a version without components, the lowest of all
        {",", ","},
        {"1.0,", ",1.0"},
        {"2.0, 1.0", "0.1.0,2.0"},  // not trimmed: the blank is a non-digit in front
        {"2.0 ,1.0", "1.0,2.0"},
        {"v1,2", "0.1,2"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(row.expected, collection(row.text).toString()) << row.text;
}

// ---- Merging ----

TEST(VersionStringCollection, TakesTheHigherVersionOfEachMajorNumber) {
    const struct {
        const char* here;
        const char* other;
        const char* expected;
    } rows[] = {
        {"1.5,3.0", "2.0,3.1", "1.5,2.0,3.1"},
        {"", "", ""},
        {"", "1.0,2.0", "1.0,2.0"},  // empty here: a copy of all
        {"", "1.0,1.5", "1.0,1.5"},  // even of what it should not hold
        {"1.0,2.0", "", "1.0,2.0"},  // empty other: no change
        {"1.0", "1.0", "1.0"},
        {"1.0", "1.0.0", "1.0.0"},  // the longer one is the higher
        {"1.0.0", "1.0", "1.0.0"},
        {"1.9", "1.10", "1.10"},
        {"1.10", "1.9", "1.10"},
        {"1.0", "2.0,3.0", "1.0,2.0,3.0"},  // the rest is appended
        {"3.0", "1.0,2.0", "1.0,2.0,3.0"},  // inserted in front
        {"2.0,4.0", "1.0,3.0,5.0", "1.0,2.0,3.0,4.0,5.0"},
        {"1.0,2.0,3.0", "2.5", "1.0,2.5,3.0"},
        {"1.0,3.0", "1.1,2.0,3.0.1", "1.1,2.0,3.0.1"},
        {"2.0", "1.0,1.5", "1.5,2.0"},      // the walk stands on what it inserted
        {"0.5", "1.0,1.5", "0.5,1.0,1.5"},  // the rest is appended as it is
        {"1.0,1.5", "1.6", "1.6,1.5"},      // each member is met once
        {"0.1,4294967295.1", "2147483648.0", "0.1,2147483648.0,4294967295.1"},
    };
    for (const auto& row : rows) {
        VersionStringCollection here = collection(row.here);
        const VersionStringCollection other = collection(row.other);
        here.takeMaxOf(other);
        EXPECT_EQ(row.expected, here.toString()) << row.here << " and " << row.other;
        EXPECT_EQ(row.other, other.toString());
    }
}

TEST(VersionStringCollection, MergedWithItselfStaysTheSame) {
    VersionStringCollection versions = collection("1.5,2.0,7.1.1");
    versions.takeMaxOf(versions);
    EXPECT_EQ("1.5,2.0,7.1.1", versions.toString());
    VersionStringCollection empty;
    empty.takeMaxOf(empty);
    EXPECT_EQ("", empty.toString());
}

// Members without components can come from text; they may not disturb the others.
TEST(VersionStringCollection, MergesBesideMembersWithoutComponents) {
    for (const auto& [hereText, otherText] : std::vector<std::pair<const char*, const char*>>{
             {",1.0", "1.5"}, {"1.5", ",1.0"}, {",1.0", ",1.5"}, {"1.5", ","}}) {
        VersionStringCollection here = collection(hereText);
        here.takeMaxOf(collection(otherText));
        EXPECT_EQ("1.5", here.toString(version("1"))) << hereText << " and " << otherText;
    }
}

using Model = std::map<uint32_t, Numbers>;

VersionStringCollection collectionOf(const Model& model) {
    std::list<VersionString> versions;
    for (const auto& [major, numbers] : model)
        versions.push_back(VersionString(numbers));
    return VersionStringCollection(versions);
}

TEST(VersionStringCollection, RandomMergesHoldTheMaximaAndStaySorted) {
    std::mt19937 random(61104);
    auto make = [&random] {
        Model model;
        for (size_t i = random() % 6; i > 0; --i) {
            const uint32_t major = random() % 8;
            model[major] = {major};
            for (size_t more = random() % 3; more > 0; --more)
                model[major].push_back(random() % 3);
        }
        return model;
    };
    for (int i = 0; i < 20000 && !HasFailure(); ++i) {
        const Model left = make(), right = make();
        Model expected = left;
        for (const auto& [major, numbers] : right)
            expected[major] = std::max(expected[major], numbers);
        VersionStringCollection merged = collectionOf(left);
        merged.takeMaxOf(collectionOf(right));
        EXPECT_EQ(collectionOf(expected).toString(), merged.toString())
            << collectionOf(left).toString() << " and " << collectionOf(right).toString();
    }
}

}  // namespace
