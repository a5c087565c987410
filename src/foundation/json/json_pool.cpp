#include "foundation/json/json_pool.h"

#include <sys/single_threaded.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <new>

namespace {

// Slab is the head of a slab; the values follow, each after a Link.
struct Slab {
    // users starts as OWNER and loses one with each value destroyed. When the owning thread is done with the slab, it
    // takes OWNER away and adds the number of values made: what is left is the number that live.
    static constexpr std::int64_t OWNER = std::int64_t{1} << 40;
    std::atomic<std::int64_t> users{OWNER};

    // drop lowers `users` and returns what is left. A program without a second thread is spared the locked access.
    std::int64_t drop(std::int64_t count) {
        if (!__libc_single_threaded)
            return users.fetch_sub(count, std::memory_order_acq_rel) - count;
        const std::int64_t left = users.load(std::memory_order_relaxed) - count;
        users.store(left, std::memory_order_relaxed);
        return left;
    }
};

// Link is directly before each value and leads to its slab.
struct Link {
    Slab* slab;
};

// Pool is the slab from which a thread cuts its next value. It is never destroyed, so that values may be made and
// destroyed during the program's exit; PoolEnd gives its slab up at the thread's end.
class Pool {
public:
    constexpr Pool() = default;

    void* allocate(std::size_t size);
    void release(void* value);
    void leaveSlab();

private:
    static constexpr std::size_t SMALL_SLAB = 1000;  // glibc's heap keeps such blocks at hand and merges none for them
    static constexpr std::size_t LARGE_SLAB = 4000;  // so much one long-lived value may hold back
    static constexpr int SMALL_SLABS = 64;           // as many serve a small document

    void newSlab(std::size_t needed);

    Slab* m_pSlab = nullptr;
    char* m_pNext = nullptr;
    char* m_pEnd = nullptr;
    std::int64_t m_nMade = 0;
    int m_nSlabs = 0;  // made since this thread's last slab was empty
};

constinit thread_local Pool gs_oPool;

struct PoolEnd {
    void arm() {}
    ~PoolEnd() { gs_oPool.leaveSlab(); }
};

thread_local PoolEnd gs_oPoolEnd;

void Pool::leaveSlab() {
    if (m_pSlab != nullptr && m_pSlab->drop(Slab::OWNER - m_nMade) == 0)
        ::operator delete(m_pSlab);
    m_pSlab = nullptr;
    m_pNext = m_pEnd = nullptr;
}

void Pool::newSlab(std::size_t needed) {
    gs_oPoolEnd.arm();
    const std::size_t usual = m_nSlabs < SMALL_SLABS ? SMALL_SLAB : LARGE_SLAB;
    const std::size_t size = std::max(usual, sizeof(Slab) + needed);
    void* const memory = ::operator new(size);
    leaveSlab();
    m_pSlab = new (memory) Slab;
    m_pNext = static_cast<char*>(memory) + sizeof(Slab);
    m_pEnd = static_cast<char*>(memory) + size;
    m_nMade = 0;
    m_nSlabs = std::min(m_nSlabs + 1, SMALL_SLABS);
}

void* Pool::allocate(std::size_t size) {
    constexpr std::size_t ALIGNMENT = sizeof(Link);
    const std::size_t needed = sizeof(Link) + (size + ALIGNMENT - 1) / ALIGNMENT * ALIGNMENT;
    if (static_cast<std::size_t>(m_pEnd - m_pNext) < needed)
        newSlab(needed);
    char* const value = m_pNext + sizeof(Link);
    new (m_pNext) Link{m_pSlab};
    m_pNext += needed;
    ++m_nMade;
    return value;
}

// release frees a slab with its last value, the thread's own too; then the next one is small again.
void Pool::release(void* value) {
    Slab* const slab = static_cast<Link*>(value)[-1].slab;
    const std::int64_t left = slab->drop(1);
    if (left == 0) {
        ::operator delete(slab);
    } else if (slab == m_pSlab && left == Slab::OWNER - m_nMade) {
        leaveSlab();
        m_nSlabs = 0;
    }
}

}  // namespace

void* jsonPoolAllocate(std::size_t size) {
    return gs_oPool.allocate(size);
}

void jsonPoolRelease(void* value) {
    gs_oPool.release(value);
}
