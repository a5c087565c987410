// json_pool.h: the memory of JSON values, for json.cpp only.
//
// A document is many small values that come and go together. They are cut from slabs, one behind the other; a slab goes
// back to the heap as a whole when its last value is gone. Reading and destroying a large document is nearly twice as
// fast as with one heap block per value. The first slab is small and each further one larger, up to a limit, so that a
// few values cost little; a slab stays as long as one value of it lives.
//
// Values may be destroyed on any thread. A thread without values keeps no slab beyond its end, and none at all if it
// destroyed them itself. Under a sanitizer each value has a heap block of its own, so that the sanitizer sees its
// bounds and its life.
#pragma once

#include <sys/single_threaded.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <new>

// The head of a slab.
struct JSONSlab {
    // users starts as OWNER and loses one with each value destroyed. When the owning thread is done with the slab, it
    // takes OWNER away and adds the number of values made: what is left is the number that live.
    static constexpr std::int64_t OWNER = std::int64_t{1} << 40;
    std::atomic<std::int64_t> users{OWNER};

    // drop lowers `users` and returns what is left. A program that has no second thread is spared the locked access.
    std::int64_t drop(std::int64_t count) {
        if (!__libc_single_threaded)
            return users.fetch_sub(count, std::memory_order_acq_rel) - count;
        const std::int64_t left = users.load(std::memory_order_relaxed) - count;
        users.store(left, std::memory_order_relaxed);
        return left;
    }
};

// What stands directly before each value: its slab.
using JSONSlabLink = JSONSlab*;

// The slab from which a thread cuts its next value. Nothing needs to be done at its end, so it may be used by values
// that are made or destroyed during the program's exit.
class JSONPool {
public:
    constexpr JSONPool() = default;

    void* allocate(std::size_t size);
    void release(void* value);
    void leaveSlab();

private:
    static constexpr std::size_t MIN_SLAB = 1000;  // small enough for the heap's own cache of free blocks
    static constexpr std::size_t MAX_SLAB = 32000;

    void newSlab();

    JSONSlab* m_pSlab = nullptr;
    char* m_pNext = nullptr;
    char* m_pEnd = nullptr;
    std::int64_t m_nMade = 0;
    std::size_t m_nSlabSize = MIN_SLAB;  // of the next slab
};

inline constinit thread_local JSONPool gs_oJSONPool;

// Gives up the thread's slab at the thread's end.
struct JSONPoolEnd {
    void arm() {}
    ~JSONPoolEnd() { gs_oJSONPool.leaveSlab(); }
};

inline thread_local JSONPoolEnd gs_oJSONPoolEnd;

inline void JSONPool::leaveSlab() {
    if (m_pSlab && m_pSlab->drop(JSONSlab::OWNER - m_nMade) == 0)
        ::operator delete(m_pSlab);
    m_pSlab = nullptr;
    m_pNext = m_pEnd = nullptr;
}

[[gnu::noinline]] inline void JSONPool::newSlab() {
    gs_oJSONPoolEnd.arm();
    void* const memory = ::operator new(m_nSlabSize);
    leaveSlab();
    m_pSlab = new (memory) JSONSlab;
    m_pNext = static_cast<char*>(memory) + sizeof(JSONSlab);
    m_pEnd = static_cast<char*>(memory) + m_nSlabSize;
    m_nMade = 0;
    m_nSlabSize = std::min(2 * m_nSlabSize, MAX_SLAB);
}

inline void* JSONPool::allocate(std::size_t size) {
    const std::size_t needed = sizeof(JSONSlabLink) + size;
    if (static_cast<std::size_t>(m_pEnd - m_pNext) < needed)
        newSlab();
    char* const value = m_pNext + sizeof(JSONSlabLink);
    new (m_pNext) JSONSlabLink(m_pSlab);
    m_pNext += needed;
    ++m_nMade;
    return value;
}

// The thread's own slab goes too when it holds no value any more, and the next one is small again.
inline void JSONPool::release(void* value) {
    JSONSlab* const slab = static_cast<JSONSlabLink*>(value)[-1];
    const std::int64_t left = slab->drop(1);
    if (left == 0) {
        ::operator delete(slab);
    } else if (slab == m_pSlab && left == JSONSlab::OWNER - m_nMade) {
        leaveSlab();
        m_nSlabSize = MIN_SLAB;
    }
}
