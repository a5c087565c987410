// The memory of JSON values: blocks that don't overlap, whatever the order of their end and the thread that ends them.
// What is freed twice, too late or never is for the sanitizers to see.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <random>
#include <thread>
#include <vector>

#include "foundation/json/json_pool.h"

namespace {

struct Block {
    void* memory;
    size_t size;
    int mark;
};

Block makeBlock(size_t size, int mark) {
    void* memory = jsonPoolAllocate(size);
    std::memset(memory, mark, size);
    return {memory, size, mark};
}

bool isIntact(const Block& block) {
    const auto* bytes = static_cast<const unsigned char*>(block.memory);
    return std::all_of(bytes, bytes + block.size, [&](unsigned char byte) { return byte == block.mark; });
}

void releaseAll(std::vector<Block>& blocks) {
    for (const Block& block : blocks) {
        EXPECT_TRUE(isIntact(block));
        jsonPoolRelease(block.memory);
    }
    blocks.clear();
}

std::vector<Block> makeBlocks(std::mt19937& random, int count) {
    std::vector<Block> blocks;
    for (int i = 0; i < count; ++i)
        blocks.push_back(makeBlock(1 + random() % 100, i % 251));
    return blocks;
}

}  // namespace

TEST(JsonPool, BlocksAreAlignedAndApart) {
    std::mt19937 random(1);
    std::vector<Block> blocks = makeBlocks(random, 10000);
    for (const Block& block : blocks)
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block.memory) % sizeof(void*), 0U);
    releaseAll(blocks);
}

TEST(JsonPool, BlockLargerThanASlabFits) {
    std::vector<Block> blocks{makeBlock(100000, 1), makeBlock(8, 2)};
    releaseAll(blocks);
}

TEST(JsonPool, BlocksEndInAnyOrder) {
    std::mt19937 random(2);
    for (int round = 0; round < 200; ++round) {
        std::vector<Block> blocks = makeBlocks(random, 300);
        std::shuffle(blocks.begin(), blocks.end(), random);
        releaseAll(blocks);
    }
}

TEST(JsonPool, SurvivorsOutliveTheirNeighbours) {
    std::mt19937 random(3);
    std::vector<Block> survivors;
    for (int round = 0; round < 100; ++round) {
        std::vector<Block> blocks = makeBlocks(random, 300);
        survivors.push_back(blocks[random() % blocks.size()]);
        std::erase_if(blocks, [&](const Block& block) { return block.memory == survivors.back().memory; });
        releaseAll(blocks);
    }
    releaseAll(survivors);
}

TEST(JsonPool, BlocksOutliveTheirThread) {
    std::vector<Block> blocks;
    std::thread([&] {
        std::mt19937 random(4);
        blocks = makeBlocks(random, 1000);
    }).join();
    releaseAll(blocks);
}

TEST(JsonPool, ThreadsReleaseEachOthersBlocks) {
    constexpr int THREADS = 4;
    std::vector<std::vector<Block>> made(THREADS);
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i)
        threads.emplace_back([&made, i] {
            std::mt19937 random(static_cast<unsigned>(i));
            made[static_cast<size_t>(i)] = makeBlocks(random, 5000);
        });
    for (std::thread& thread : threads)
        thread.join();
    threads.clear();
    std::vector<std::vector<Block>> shares(THREADS);  // each share has blocks of every thread
    for (size_t i = 0; i < 5000; ++i)
        for (size_t maker = 0; maker < THREADS; ++maker)
            shares[i % THREADS].push_back(made[maker][i]);
    for (std::vector<Block>& share : shares)
        threads.emplace_back([&share] {
            std::vector<Block> own{makeBlock(16, 7)};
            releaseAll(share);
            releaseAll(own);
        });
    for (std::thread& thread : threads)
        thread.join();
}
