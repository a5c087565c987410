// alloc_faults.h: exhausted memory at will: the nth allocation fails, for every n until none fails any more.
//
// This replaces operator new and delete of the test program that includes it, in its one source.
#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdlib>
#include <functional>
#include <new>

// AllocFaults decides which allocations of this thread fail and counts those made and the living ones.
struct AllocFaults {
    enum Mode { Off, One, AllFollowing };
    Mode mode = Off;
    std::size_t untilFault = 0;
    bool hit = false;
    std::size_t made = 0;
    std::ptrdiff_t living = 0;

    bool fails() {
        if (mode == Off || untilFault-- > 0)
            return false;
        hit = true;
        if (mode == One)
            mode = Off;
        else
            untilFault = 0;
        return true;
    }
};

inline thread_local AllocFaults gs_oAllocFaults;

inline void* allocate(std::size_t size) {
    if (gs_oAllocFaults.fails())
        return nullptr;
    void* const block = std::malloc(size == 0 ? 1 : size);
    if (block != nullptr) {
        ++gs_oAllocFaults.made;
        ++gs_oAllocFaults.living;
    }
    return block;
}

inline void release(void* block) {
    if (block != nullptr)
        --gs_oAllocFaults.living;
    std::free(block);
}

inline void* allocateOrThrow(std::size_t size) {
    void* const block = allocate(size);
    if (block == nullptr)
        throw std::bad_alloc();
    return block;
}

void* operator new(std::size_t size) {
    return allocateOrThrow(size);
}
void* operator new[](std::size_t size) {
    return allocateOrThrow(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return allocate(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return allocate(size);
}
void operator delete(void* block) noexcept {
    release(block);
}
void operator delete[](void* block) noexcept {
    release(block);
}
void operator delete(void* block, std::size_t) noexcept {
    release(block);
}
void operator delete[](void* block, std::size_t) noexcept {
    release(block);
}
void operator delete(void* block, const std::nothrow_t&) noexcept {
    release(block);
}
void operator delete[](void* block, const std::nothrow_t&) noexcept {
    release(block);
}

// failingAt runs `body` with the nth allocation failing (and all after it, in that mode), and returns whether
// std::bad_alloc came out.
inline bool failingAt(std::size_t n, AllocFaults::Mode mode, const std::function<void()>& body) {
    gs_oAllocFaults.hit = false;
    gs_oAllocFaults.untilFault = n;
    gs_oAllocFaults.mode = mode;
    bool thrown = false;
    try {
        body();
    } catch (const std::bad_alloc&) {
        thrown = true;
    }
    gs_oAllocFaults.mode = AllocFaults::Off;
    return thrown;
}

// throwsAtEveryAllocation runs `body` again and again and expects an exception for every fault and no leak. It returns
// the number of faults that were hit.
inline std::size_t throwsAtEveryAllocation(AllocFaults::Mode mode, const std::function<void()>& body) {
    for (std::size_t n = 0;; ++n) {
        const std::ptrdiff_t before = gs_oAllocFaults.living;
        const bool thrown = failingAt(n, mode, body);
        EXPECT_EQ(before, gs_oAllocFaults.living) << "allocation " << n;
        EXPECT_EQ(gs_oAllocFaults.hit, thrown) << "allocation " << n;
        if (!gs_oAllocFaults.hit || testing::Test::HasFailure())
            return n;
    }
}
