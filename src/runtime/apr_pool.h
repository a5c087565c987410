// apr_pool.h: the lifetime of the APR library, and its memory pools.
//
// Counting is atomic, but the first start of the library is not: the first instance must be made before any thread is.
// `APRInitializer::ms_APRInitializer` sees to that. A pool belongs to one thread at a time.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

struct apr_pool_t;

// APRInitializer keeps the APR library going: the first instance starts it, the last one to go ends it. While it runs,
// its global allocator gives memory above 128 KiB back to the system instead of keeping it. If the library doesn't
// start, the process aborts. APR counts for itself too, so other users of the library are not disturbed.
class APRInitializer {
public:
    // APRInitializer counts one more user and starts the library if there was none.
    APRInitializer();
    APRInitializer(const APRInitializer&) = delete;
    APRInitializer& operator=(const APRInitializer&) = delete;
    virtual ~APRInitializer();

    // ms_APRInitializer starts the library before `main` and holds it until the process exits.
    static APRInitializer ms_APRInitializer;

private:
    static std::atomic<uint32_t> ms_refCount;
};

// APRPool owns a memory pool or borrows one; it keeps the library going. A borrowed pool must outlive it, and a pool
// dies with its parent. A pool of its own carries a tag for APR's debugging aids: "N-name", where N counts the pools
// tagged so far, or "N-<no name>". A borrower has none.
class APRPool : private APRInitializer {
public:
    // APRPool borrows `parent` if there is one and no name is given, or makes a new pool below it. Without a parent the
    // new pool is a root pool.
    APRPool(apr_pool_t* parent, const char* name);
    APRPool(const APRPool* parent, const char* name);

    // APRPool makes a root pool; `name` may be null.
    explicit APRPool(const char* name);

    // APRPool borrows `parent`'s pool, or makes a new one below it if a name is given. A copy thus only borrows.
    APRPool(const APRPool& parent, const char* name = nullptr);

    // operator= borrows the other's pool from now on. Kept: a pool that was owned is not destroyed; it lives until its
    // parent goes, with what was allocated from it.
    APRPool& operator=(const APRPool& other);

    ~APRPool() override;

    // get returns the pool. It is null only if memory was exhausted when the pool was made.
    apr_pool_t* get() const { return m_pPool; }

    // tag returns the tag, empty for one that only ever borrowed; an assignment leaves it as it was.
    const std::string& tag() const { return m_strTag; }

private:
    void borrowOrMake(apr_pool_t* parent, const char* name);
    void make(apr_pool_t* parent, const char* name);

    static std::atomic<uint32_t> ms_uPoolIdx;

    apr_pool_t* m_pPool = nullptr;
    bool m_bOwned = true;
    std::string m_strTag;
};
