// Tests of JSON under exhausted memory: the nth allocation fails, for every n until none fails any more. Each time the
// allocator's exception must come out and nothing may stay behind. A program of its own, since it replaces operator
// new.
#include <gtest/gtest.h>
#include <pthread.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <new>
#include <string>
#include <thread>
#include <utility>

#include "foundation/json.h"
#include "unit/alloc_faults.h"

namespace {

const char* const Document =
    "{\"a long key that does not fit into the string object\": [1, 2, {\"k\": [[], {}, null]}, true],"
    " \"b\": \"a long text that does not fit \\u00e4 into the string \\uD83D\\uDE00 object either\","
    " \"c\": {\"d\": {\"e\": {\"f\": [[[[[\"x\"]]]]]}}}, \"c\": -12.5e3}";

std::string oneLine(const JSON& value) {
    std::string out;
    value.stringify(out, -1);
    return out;
}

class Exhausted : public testing::TestWithParam<AllocFaults::Mode> {};

INSTANTIATE_TEST_SUITE_P(JSON, Exhausted, testing::Values(AllocFaults::One, AllocFaults::AllFollowing),
                         [](const auto& test) { return test.param == AllocFaults::One ? "OneFault" : "AllFromThere"; });

}  // namespace

TEST(ExhaustedHarness, FailsTheAllocationThatIsDue) {
    std::size_t made = 0;
    const auto body = [&made] {
        made = 0;
        for (; made < 3; ++made)
            ::operator delete(::operator new(sizeof(int)));  // the pair of expressions may be left out by a compiler
    };
    EXPECT_TRUE(failingAt(1, AllocFaults::One, body));
    EXPECT_EQ(1u, made);
    EXPECT_FALSE(failingAt(3, AllocFaults::One, body));
    EXPECT_EQ(3u, made);
}

TEST(ExhaustedHarness, CountsTheLivingBlocks) {
    const std::ptrdiff_t before = gs_oAllocFaults.living;
    JSON::root value = JSON::Null();
    EXPECT_EQ(before + 1, gs_oAllocFaults.living);
    value.reset();
    EXPECT_EQ(before, gs_oAllocFaults.living);
}

TEST_P(Exhausted, ParseThrowsAndReleasesWhatWasBuilt) {
    const std::string text = Document;
    EXPECT_LT(20u, throwsAtEveryAllocation(GetParam(), [&text] { EXPECT_NE(nullptr, JSON::parse(text)); }));
}

TEST_P(Exhausted, ParseOfBadTextThrowsAndReleasesWhatWasBuilt) {
    const std::string text = std::string(Document).substr(0, 150) + "?";
    EXPECT_LT(10u, throwsAtEveryAllocation(GetParam(), [&text] { EXPECT_EQ(nullptr, JSON::parse(text)); }));
}

TEST_P(Exhausted, ParseOfOneValueThrowsAndReleasesWhatWasBuilt) {
    for (const char* text :
         {"null", "true", "1.5", "\"a long text that does not fit into the string object\"", "[]", "{}",
          "[[[[[[[[[[[[[[[[1]]]]]]]]]]]]]]]]", "{\"a\":{\"a\":{\"a\":{\"a\":{\"a\":{\"a\":1}}}}}}",
          "[1,2,3,4,5,6,7,8,9,", "{\"a\":1,\"a\":[2],\"a\":[3],"})
        EXPECT_LE(1u, throwsAtEveryAllocation(GetParam(),
                                              [text] {
                                                  const char* cursor = text;
                                                  EXPECT_NE(nullptr, JSON::json_parse(cursor));
                                              }))
            << text;
}

TEST_P(Exhausted, DupThrowsAndReleasesWhatWasCopied) {
    const JSON::root document = JSON::parse(Document);
    ASSERT_NE(nullptr, document);
    const std::string text = oneLine(*document);
    EXPECT_LT(8u, throwsAtEveryAllocation(GetParam(), [&document] { EXPECT_NE(nullptr, document->dup()); }));
    EXPECT_EQ(text, oneLine(*document));
}

TEST_P(Exhausted, StringifyThrowsAndChangesNothing) {
    const JSON::root document = JSON::parse(Document);
    ASSERT_NE(nullptr, document);
    const std::string text = oneLine(*document);
    for (const int indent : {-1, 0})
        EXPECT_LE(1u, throwsAtEveryAllocation(GetParam(), [&document, indent] {
                      std::string out;
                      document->stringify(out, indent);
                  }));
    EXPECT_EQ(text, oneLine(*document));
}

TEST_P(Exhausted, FactoriesThrow) {
    const std::string text = "a long text that does not fit into the string object";
    const std::function<void()> factories[] = {[] { JSON::Null(); },    [] { JSON::Boolean(true); },
                                               [] { JSON::Number(1); }, [] { JSON::Array(); },
                                               [] { JSON::Object(); },  [&] { JSON::String(text); }};
    for (const std::function<void()>& factory : factories)
        EXPECT_LE(1u, throwsAtEveryAllocation(GetParam(), factory));
}

// Whether the argument of a failed call went down with it or stayed with the caller, it must not leak, and the
// container must be as before.
TEST_P(Exhausted, StoringThrowsAndKeepsTheContainer) {
    EXPECT_LE(2u, throwsAtEveryAllocation(GetParam(), [] {
                  JSON::root array = JSON::Array();
                  JSON::root value = JSON::Null();
                  for (std::size_t count = 0; count < 9; ++count) {
                      EXPECT_EQ(count, array->size());
                      array->push(std::move(value));
                      value = JSON::Null();
                  }
              }));
    EXPECT_LE(2u, throwsAtEveryAllocation(GetParam(), [] {
                  const JSON::root object = JSON::Object();
                  object->set("a long key that does not fit into the string object", JSON::Array());
                  object->set("a", JSON::Null());
                  object->set("a", JSON::Array());
              }));
    EXPECT_LE(2u, throwsAtEveryAllocation(GetParam(), [] {
                  const JSON::root array = JSON::Array();
                  array->push(JSON::Null());
                  JSON::root more = JSON::Array();
                  for (int count = 0; count < 5; ++count)
                      more->push(JSON::Array());
                  array->push_all(std::move(more));
              }));
}

TEST(ExhaustedStore, FailedPushLeavesTheElementsInPlace) {
    const JSON::root array = JSON::Array();
    array->push(JSON::Number(1));
    array->values().shrink_to_fit();
    JSON::root value = JSON::Number(2);
    EXPECT_TRUE(failingAt(0, AllocFaults::One, [&] { array->push(std::move(value)); }));
    EXPECT_EQ("[ 1 ]", oneLine(*array));
}

TEST(ExhaustedStore, FailedSetLeavesTheMembersInPlace) {
    const JSON::root object = JSON::Object();
    object->set("a", JSON::Number(1));
    const std::string key = "b";
    JSON::root value = JSON::Number(2);
    EXPECT_TRUE(failingAt(0, AllocFaults::One, [&] { object->set(key, std::move(value)); }));
    EXPECT_EQ("{ \"a\": 1 }", oneLine(*object));
}

// ---- Letting go needs no memory

TEST(ExhaustedDestruction, NeedsNoMemory) {
    const std::string texts[] = {Document, "[]", "{}", "[[[],[[]],{}],[{\"a\":[{}]}]]",
                                 "{\"a\":{\"b\":[{\"c\":{}}],\"d\":[[]]}}"};
    for (const std::string& text : texts) {
        const std::ptrdiff_t before = gs_oAllocFaults.living;
        JSON::root document = JSON::parse(text);
        ASSERT_NE(nullptr, document);
        EXPECT_FALSE(failingAt(0, AllocFaults::AllFollowing, [&document] { document.reset(); })) << text;
        EXPECT_EQ(before, gs_oAllocFaults.living) << text;
    }
}

TEST(ExhaustedDestruction, OfMembersAndElementsNeedsNoMemory) {
    const JSON::root object = JSON::parse(R"({"a":[[1],{"b":[2]}],"c":{"d":[]},"e":[[3],[4]]})");
    ASSERT_NE(nullptr, object);
    const std::string a = "a";
    const std::string c = "c";
    EXPECT_FALSE(failingAt(0, AllocFaults::AllFollowing, [&] {
        object->unset(a);
        object->move(c);
        object->get("e")->reverse();
        object->get("e")->move(std::size_t{0});
        object->get("e")->values().clear();
    }));
    EXPECT_EQ("{ \"e\": [ ] }", oneLine(*object));
}

namespace {

// The hardest place: a deep document goes, on a small stack, and there is no memory for a list of what is left to do.
void* destroyDeepDocuments(void*) {
    constexpr std::size_t Depth = 50000;
    const std::pair<const char*, const char*> levels[] = {
        {"[", "]"}, {"{\"k\":", "}"}, {"[[],{},", ",1]"}, {"{\"a\":[[]],\"k\":[", "],\"z\":{}}"}};
    for (const auto& [open, close] : levels) {
        std::string text;
        for (std::size_t level = 0; level < Depth; ++level)
            text += open;
        text += "1";
        for (std::size_t level = 0; level < Depth; ++level)
            text += close;
        JSON::root document = JSON::parse(text);
        EXPECT_NE(nullptr, document) << open;
        EXPECT_FALSE(failingAt(0, AllocFaults::AllFollowing, [&document] { document.reset(); })) << open;
        EXPECT_FALSE(gs_oAllocFaults.hit) << open;
    }
    return nullptr;
}

}  // namespace

TEST(ExhaustedDestruction, OfDeepDocumentsNeedsNeitherMemoryNorStack) {
    pthread_attr_t attributes;
    ASSERT_EQ(0, pthread_attr_init(&attributes));
    ASSERT_EQ(0, pthread_attr_setstacksize(&attributes, 128 * 1024));
    pthread_t thread;
    ASSERT_EQ(0, pthread_create(&thread, &attributes, destroyDeepDocuments, nullptr));
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
}

namespace {

// LivingAtEnd tells how many blocks are living when its thread's objects have gone. It is to be the thread's first.
struct LivingAtEnd {
    std::ptrdiff_t* result = nullptr;

    ~LivingAtEnd() {
        if (result != nullptr)
            *result = gs_oAllocFaults.living;
    }
};

thread_local LivingAtEnd gs_oLivingAtEnd;
thread_local JSON::root gs_pOfThreadsLifeTime;

std::ptrdiff_t livingAfterThreadWith(const char* text) {
    std::ptrdiff_t living = -1;
    std::thread([&living, text] {
        gs_oLivingAtEnd.result = &living;
        const std::ptrdiff_t before = gs_oAllocFaults.living;
        gs_pOfThreadsLifeTime = JSON::parse(text);
        EXPECT_LT(before, gs_oAllocFaults.living);
    }).join();
    return living;
}

}  // namespace

TEST(JSONThreads, DocumentOfAThreadsLifeTimeIsLetGoAtItsEnd) {
    const std::ptrdiff_t living = livingAfterThreadWith(Document);
    EXPECT_LE(living, 0);  // what a thread starts with was counted by the one that made it
    EXPECT_EQ(livingAfterThreadWith("null"), living);
}
