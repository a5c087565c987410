// Tests of very deep documents: reading, printing, copying and destroying them takes memory but no stack. Each runs in
// a thread whose stack holds a few thousand plain calls at most, so that one frame per level overruns it.
#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <cstddef>
#include <functional>
#include <iterator>
#include <memory>
#include <ostream>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "foundation/json.h"
#include "unit/rounds.h"

namespace {

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || __has_feature(memory_sanitizer)
#define JSON_DEPTH_SANITIZED
#endif
#elif defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define JSON_DEPTH_SANITIZED
#endif

// Sanitizers multiply time and memory, but also the frames: fewer levels overrun the stack there just as surely.
#ifdef JSON_DEPTH_SANITIZED
const std::size_t Deepest = rounds(300000);
const std::size_t Deep = rounds(30000);
#else
const std::size_t Deepest = rounds(2000000);
const std::size_t Deep = rounds(200000);
#endif
constexpr std::size_t SmallStack = 128 * 1024;

// onSmallStack runs `body` in a thread with a small stack. Its assertions count as usual.
void onSmallStack(const std::function<void()>& body) {
    pthread_attr_t attributes;
    ASSERT_EQ(0, pthread_attr_init(&attributes));
    ASSERT_EQ(0, pthread_attr_setstacksize(&attributes, SmallStack));
    pthread_t thread;
    const auto run = [](void* argument) -> void* {
        (*static_cast<const std::function<void()>*>(argument))();
        return nullptr;
    };
    ASSERT_EQ(0, pthread_create(&thread, &attributes, run, const_cast<std::function<void()>*>(&body)));
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
}

std::string repeated(const std::string& piece, std::size_t count) {
    std::string out;
    out.reserve(piece.size() * count);
    while (count-- > 0)
        out += piece;
    return out;
}

// Shape makes deep text: `open` and `close` once per level, `core` in the middle, in the single-line layout.
struct Shape {
    const char* name;
    const char* open;
    const char* core;
    const char* close;

    std::string text(std::size_t depth) const { return repeated(open, depth) + core + repeated(close, depth); }
};

void PrintTo(const Shape& shape, std::ostream* out) {
    *out << shape.name;
}

const Shape Shapes[] = {
    {"Arrays", "[ ", "[ ]", " ]"},
    {"Objects", "{ \"k\": ", "{ }", " }"},
    {"Mixed", "[ { \"k\": ", "null", " } ]"},
    {"ElementsBefore", "[ 1, [ ], ", "true", " ]"},
    {"ElementsBehind", "[ ", "1", ", [ 2 ], { } ]"},
    {"MembersBefore", "{ \"a\": [ ], \"k\": ", "\"x\"", " }"},
    {"MembersBehind", "{ \"k\": ", "0", ", \"l\": [ [ 1 ] ], \"m\": 2 }"},
};

std::string oneLine(const JSON& value) {
    std::string out;
    value.stringify(out, -1);
    return out;
}

JSON::root deepValue(std::size_t depth = Deep) {
    return JSON::parse(Shapes[0].text(depth));
}

// depthOf counts the levels of containers below `value`, going down through first elements and members.
std::size_t depthOf(const JSON& value) {
    std::size_t depth = 0;
    for (const JSON* current = &value; !current->empty(); ++depth)
        current = current->size() > 0 && current->type == 5 ? current->at(0) : current->keys().begin()->second.get();
    return depth;
}

class DeepShape : public testing::TestWithParam<Shape> {};

INSTANTIATE_TEST_SUITE_P(JSON, DeepShape, testing::ValuesIn(Shapes), [](const auto& test) { return test.param.name; });

}  // namespace

TEST_P(DeepShape, IsReadPrintedCopiedAndDestroyed) {
    onSmallStack([] {
        const std::string text = GetParam().text(Deep);
        JSON::root document = JSON::parse(text);
        ASSERT_NE(nullptr, document);
        EXPECT_TRUE(text == oneLine(*document));
        JSON::root copy = document->dup();
        document.reset();
        EXPECT_TRUE(text == oneLine(*copy));
    });
}

TEST_P(DeepShape, IsPrintedOverManyLines) {
    onSmallStack([] {
        constexpr std::size_t Depth = 1500;
        const JSON::root document = JSON::parse(GetParam().text(Depth));
        ASSERT_NE(nullptr, document);
        std::string out;
        document->stringify(out, 0);
        const JSON::root again = JSON::parse(out);
        ASSERT_NE(nullptr, again);
        EXPECT_TRUE(GetParam().text(Depth) == oneLine(*again));
    });
}

TEST_P(DeepShape, FailureInTheMiddleReleasesAll) {
    onSmallStack([] {
        const Shape& shape = GetParam();
        EXPECT_EQ(nullptr, JSON::parse(repeated(shape.open, Deep) + "x" + repeated(shape.close, Deep)));
    });
}

TEST_P(DeepShape, FailureAtTheEndReleasesAll) {
    onSmallStack([] {
        std::string text = GetParam().text(Deep);
        text.back() = '?';
        EXPECT_EQ(nullptr, JSON::parse(text));
        EXPECT_EQ(nullptr, JSON::parse(GetParam().text(Deep) + "?"));
    });
}

TEST_P(DeepShape, TextCutOffInTheMiddleReleasesAll) {
    onSmallStack([] {
        const std::string text = repeated(GetParam().open, Deep);
        EXPECT_EQ(nullptr, JSON::parse(text));
        const char* cursor = text.c_str();
        EXPECT_EQ(nullptr, JSON::json_parse(cursor));
    });
}

TEST(JSONDepth, MillionsOfArrays) {
    onSmallStack([] {
        const Shape shape = {"", "[", "[]", "]"};
        JSON::root document = JSON::parse(shape.text(Deepest));
        ASSERT_NE(nullptr, document);
        EXPECT_EQ(Deepest, depthOf(*document));
        {
            std::string out = oneLine(*document);
            EXPECT_EQ(4 * Deepest + 3, out.size());
            EXPECT_EQ(Deepest + 1, static_cast<std::size_t>(std::count(out.begin(), out.end(), '[')));
        }
        const JSON::root copy = document->dup();
        document.reset();
        EXPECT_EQ(Deepest, depthOf(*copy));
    });
}

TEST(JSONDepth, MillionsOfObjects) {
    onSmallStack([] {
        const Shape shape = {"", "{\"k\":", "{}", "}"};
        const JSON::root document = JSON::parse(shape.text(Deepest));
        ASSERT_NE(nullptr, document);
        EXPECT_EQ(Deepest, depthOf(*document));
    });
}

// Built from the inside out, so that only printing, copying and destroying are at work.
TEST(JSONDepth, DocumentBuiltByHand) {
    onSmallStack([] {
        JSON::root document = JSON::Null();
        for (std::size_t level = 0; level < Deep; ++level) {
            JSON::root outer = level % 3 ? JSON::Array() : JSON::Object();
            if (level % 3) {
                outer->push(std::move(document));
                outer->push(JSON::Array());
            } else {
                outer->set("k", std::move(document));
            }
            document = std::move(outer);
        }
        EXPECT_TRUE(oneLine(*document) == oneLine(*document->dup()));
    });
}

TEST(JSONDepth, HolesInADeepDocument) {
    onSmallStack([] {
        JSON::root document = JSON::Array();
        for (std::size_t level = 0; level < Deep; ++level) {
            JSON::root outer = JSON::Array();
            outer->push(JSON::Null());
            outer->push(std::move(document));
            outer->push(JSON::Null());
            outer->move(std::size_t{0});
            outer->move(std::size_t{2});
            document = std::move(outer);
        }
        const JSON::root copy = document->dup();
        EXPECT_EQ(Deep, depthOf(*copy));
    });
}

// A tree without order: whichever way the walk turns first, the other branches wait in memory and not on the stack.
TEST(JSONDepth, RandomBushes) {
    std::mt19937_64 random(52);
    onSmallStack([&random] {
        std::vector<JSON::root> parts;
        for (int index = 0; index < 64; ++index)
            parts.push_back(JSON::Array());
        for (std::size_t step = 0; step < Deep; ++step) {
            JSON::root& slot = parts[random() % 8];
            JSON::root outer = random() % 2 ? JSON::Array() : JSON::Object();
            const bool array = outer->type == 5;
            for (std::size_t before = random() % 3; before > 0; --before)
                array ? outer->push(JSON::Number(1)) : outer->set("b" + std::to_string(before), JSON::Array());
            array ? outer->push(std::move(slot)) : outer->set("c", std::move(slot));
            JSON::root& other = parts[random() % parts.size()];
            if (other && other->size() < 8 && other->type == 5 && random() % 4 == 0)
                array ? outer->push(std::exchange(other, JSON::Array()))
                      : outer->set("d", std::exchange(other, JSON::Array()));
            slot = std::move(outer);
        }
        const JSON::root all = JSON::Array();
        for (JSON::root& part : parts)
            all->push(std::move(part));
        const std::string text = oneLine(*all);
        EXPECT_TRUE(text == oneLine(*all->dup()));
        const JSON::root again = JSON::parse(text);
        ASSERT_NE(nullptr, again);
        EXPECT_TRUE(text == oneLine(*again));
    });
}

// ---- Deep values let go in every other way

TEST(JSONDepth, ReplacedAndUnsetMembers) {
    onSmallStack([] {
        const JSON::root object = JSON::Object();
        object->set("a", deepValue());
        object->set("a", JSON::Null());
        object->set("a", deepValue());
        object->unset("a");
        object->set("a", deepValue());
        object->move(std::string("a")).reset();
        EXPECT_TRUE(object->empty());
    });
}

TEST(JSONDepth, LastOfEqualKeysReplacesADeepOne) {
    onSmallStack([] {
        const JSON::root object = JSON::parse("{\"a\":" + Shapes[2].text(Deep) + ",\"a\":1}");
        ASSERT_NE(nullptr, object);
        EXPECT_EQ("{ \"a\": 1 }", oneLine(*object));
    });
}

TEST(JSONDepth, ReplacedAndRemovedElements) {
    onSmallStack([] {
        const JSON::root array = JSON::Array();
        for (int count = 0; count < 4; ++count)
            array->push(deepValue(Deep / 2));
        array->rootOf(std::size_t{0}) = JSON::Null();
        array->move(std::size_t{1}).reset();
        array->values().pop_back();
        array->values().clear();
        EXPECT_TRUE(array->empty());
    });
}

TEST(JSONDepth, ReversedAndAppendedElements) {
    onSmallStack([] {
        const JSON::root array = JSON::Array();
        array->push(JSON::Number(1));
        JSON::root more = JSON::Array();
        more->push(deepValue());
        more->push(JSON::Number(2));
        array->push_all(std::move(more));
        JSON::root single = JSON::parse(Shapes[1].text(Deep));
        array->push_all(std::move(single));
        array->reverse();
        ASSERT_EQ(4u, array->size());
        EXPECT_EQ(Deep, depthOf(*array->at(0)));
        EXPECT_EQ(Deep, depthOf(*array->at(2)));
        EXPECT_EQ("[object Object],2,[object Array],1", array->join(","));
    });
}

TEST(JSONDepth, InnerHalfTakenOutOutlivesTheOuterHalf) {
    onSmallStack([] {
        JSON::root document = deepValue();
        JSON* current = document.get();
        for (std::size_t level = 1; level < Deep / 2; ++level)
            current = current->at(0);
        const JSON::root inner = current->move(std::size_t{0});
        document.reset();
        EXPECT_EQ(Deep - Deep / 2, depthOf(*inner));
    });
}

TEST(JSONDepth, ContainersOnTheStackAndInPlainVectors) {
    onSmallStack([] {
        JSONArray array;
        array.push(deepValue());
        JSONObject object;
        object.set("a", deepValue());
        object.each().clear();
        object.set("b", deepValue());
        std::vector<JSON::root> values;
        values.push_back(deepValue());
        EXPECT_EQ(1u, object.size());
    });
}
