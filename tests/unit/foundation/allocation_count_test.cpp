// allocation_count_test.cpp: how often reading and printing take memory, which no clock is needed for: a copy too many
// or a list that grows element by element shows here. A program of its own, since it replaces operator new.

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "foundation/json.h"
#include "foundation/uri.h"
#include "unit/alloc_faults.h"

namespace {

// allocations returns how many blocks `work` takes.
std::size_t allocations(const std::function<void()>& work) {
    const std::size_t before = gs_oAllocFaults.made;
    work();
    return gs_oAllocFaults.made - before;
}

// Values are cut from slabs, under a sanitizer each has a block of its own.
const bool VALUES_HAVE_BLOCKS = allocations([] {
                                    for (int i = 0; i < 100; ++i)
                                        JSON::Null();
                                }) == 100;

constexpr int ENTRIES = 100;

// Each entry has 5 members, 8 values, a list, and a key and a text that fit into no short string.
constexpr const char* ENTRY =
    R"({"name":"a","id":1,"outputs":[1,2],"enabled":true,"a key longer than most":"a text longer than most"})";

std::string document() {
    std::string text = "[";
    for (int i = 0; i < ENTRIES; ++i)
        text += (i == 0 ? "" : ",") + std::string(ENTRY);
    return text + "]";
}

void expectCost(std::size_t expected, const std::function<void()>& work) {
    work();  // what is made once only
    EXPECT_EQ(expected, allocations(work));
}

}  // namespace

// Per entry 5 members, a list, a long key and a long text; besides, slabs and lists that grow.
TEST(AllocationCount, ParsingTakesABlockForEachMemberListAndLongText) {
    const std::string text = document();
    const std::size_t blocks = allocations([&] { EXPECT_NE(nullptr, JSON::parse(text)); });
    const std::size_t values = VALUES_HAVE_BLOCKS ? ENTRIES * 8 + 1 : ENTRIES / 2;
    EXPECT_LE(blocks, ENTRIES * 8 + values + 20);
}

TEST(AllocationCount, ParsingATextTakesNoBlockForItsEscapes) {
    const std::string plain = "\"" + std::string(2000, 'a') + "\"";
    const std::string escaped = "\"" + std::string(1990, 'a') + "\\n\\u00e4\"";
    const std::size_t blocks = allocations([&] { EXPECT_NE(nullptr, JSON::parse(plain)); });
    EXPECT_LE(allocations([&] { EXPECT_NE(nullptr, JSON::parse(escaped)); }), blocks + 1);
}

TEST(AllocationCount, PrintingTakesTheTextAndTheListOfOpenContainers) {
    const JSON::root entry = JSON::parse(ENTRY);
    expectCost(3, [&] {
        std::string text;
        entry->stringify(text, -1);
    });
}

// The text of 15 kB grows twice after its first block of 4 kB.
TEST(AllocationCount, PrintingALongDocumentTakesFewMore) {
    const JSON::root tree = JSON::parse(document());
    expectCost(6, [&] {
        std::string text;
        tree->stringify(text, -1);
    });
}

TEST(AllocationCount, DestroyingTakesNone) {
    JSON::root tree = JSON::parse(document());
    EXPECT_EQ(0U, allocations([&] { tree.reset(); }));
}

// The list of segments, and what fits into no short string: here host and query.
TEST(AllocationCount, ParsingAURITakesItsSegmentsAndLongTexts) {
    const std::string text = "https://media.example.com/library/shows/caf%C3%A9/index.html?page=1&order=newest#top";
    expectCost(3, [&] { EXPECT_FALSE(URI::fromString(text).path.segments.empty()); });
}

TEST(AllocationCount, PrintingAURITakesTheText) {
    const URI uri = URI::fromString("https://media.example.com/library/shows/caf%C3%A9/index.html?page=1#top");
    expectCost(1, [&] { EXPECT_FALSE(uri.toString().empty()); });
    expectCost(1, [&] { EXPECT_FALSE(uri.path.toEscapedURIPath().empty()); });
}
