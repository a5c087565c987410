// look_cost_test.cpp: how often a look at unchanged inputs takes memory, which no clock is needed for: a list that is
// made again shows here. A program of its own, since it replaces operator new. It runs in the sandbox.

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "unit/alloc_faults.h"
#include "unit/watch/feature_files.h"
#include "watch/feature_provider.h"

namespace {

constexpr int64_t NOW = 1781524800;  // 2026-06-15T12:00:00Z

std::string features(int count) {
    std::string entries;
    for (int i = 0; i < count; ++i)
        entries += (i == 0 ? "" : ",") + std::string(R"({"name":"feature )") + std::to_string(i) + "\"}";
    return entries;
}

// blocksOfALook returns how many blocks a look takes after the list of so many features was judged.
std::size_t blocksOfALook(int count) {
    putInstalled(features(count));
    FeatureProvider provider;
    provider.init(NOW);
    EXPECT_TRUE(provider.recheckAll(NOW));
    EXPECT_EQ(provider.activeFeatureNames().size(), static_cast<std::size_t>(count));
    const std::size_t before = gs_oAllocFaults.made;
    EXPECT_FALSE(provider.recheckAll(NOW + 1));
    const std::size_t made = gs_oAllocFaults.made - before;
    removeFeatureFiles();
    return made;
}

}  // namespace

TEST(LookCost, LookAtUnchangedInputsDoesNotDependOnTheNumberOfFeatures) {
    EXPECT_EQ(blocksOfALook(1000), blocksOfALook(1));
}
