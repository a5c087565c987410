// heap_peak.h: how much of the heap a piece of work holds at its peak, in a program's one source that includes this: it
// replaces operator new and delete. A block counts with all that the heap spends on it, its head included.
#pragma once

#include <malloc.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <new>

// HeapPeak counts while it lives; there may be one at a time, in a program of one thread.
class HeapPeak {
public:
    HeapPeak() { ms_pCurrent = this; }
    HeapPeak(const HeapPeak&) = delete;
    HeapPeak& operator=(const HeapPeak&) = delete;
    ~HeapPeak() { ms_pCurrent = nullptr; }

    // bytes returns the most that was held at once.
    std::ptrdiff_t bytes() const { return m_nPeak; }

    static void* take(std::size_t size) {
        void* const block = std::malloc(size);
        if (block == nullptr)
            throw std::bad_alloc();
        if (ms_pCurrent != nullptr)
            ms_pCurrent->change(costOf(block));
        return block;
    }

    static void give(void* block) {
        if (ms_pCurrent != nullptr)
            ms_pCurrent->change(-costOf(block));
        std::free(block);
    }

private:
    static std::ptrdiff_t costOf(void* block) {
        return block == nullptr ? 0 : static_cast<std::ptrdiff_t>(malloc_usable_size(block) + sizeof(std::size_t));
    }

    void change(std::ptrdiff_t bytes) {
        m_nHeld += bytes;
        m_nPeak = std::max(m_nPeak, m_nHeld);
    }

    static inline HeapPeak* ms_pCurrent = nullptr;
    std::ptrdiff_t m_nHeld = 0;
    std::ptrdiff_t m_nPeak = 0;
};

void* operator new(std::size_t size) {
    return HeapPeak::take(size);
}
void operator delete(void* block) noexcept {
    HeapPeak::give(block);
}
void operator delete(void* block, std::size_t) noexcept {
    HeapPeak::give(block);
}
