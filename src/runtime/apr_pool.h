// apr_pool.h: the lifetime of the APR library, and its memory pools.
//
// Counting is atomic, but starting the library is not: the first instance must be made before any thread is.
// `APRInitializer::ms_APRInitializer` ensures that. A pool belongs to one thread at a time.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

struct apr_pool_t;

// APRInitializer keeps the APR library running: the first instance starts it, the last one to be destroyed ends it.
// While it runs, its global allocator returns free memory above 128 KiB to the system. If the library doesn't start,
// the process aborts. APR has a count of its own, so other users of the library are not disturbed.
class APRInitializer {
public:
    // APRInitializer counts one more user and starts the library for the first one.
    APRInitializer();
    APRInitializer(const APRInitializer&) = delete;
    APRInitializer& operator=(const APRInitializer&) = delete;
    virtual ~APRInitializer();

    // ms_APRInitializer starts the library before `main` and holds it until the process exits.
    static APRInitializer ms_APRInitializer;

private:
    static std::atomic<uint32_t> ms_refCount;
};

// APRPool owns a memory pool or borrows one, and keeps the library running. A borrowed pool must outlive it, and a pool
// is destroyed with its parent. A pool of its own has a tag that shows in APR's debugging output: "N-name", where N
// counts the pools tagged so far, or "N-<no name>". A borrower has no tag.
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

    // operator= borrows the other's pool. Kept: a pool that was owned is not destroyed; it lives until its parent is
    // destroyed, with what was allocated from it.
    APRPool& operator=(const APRPool& other);

    ~APRPool() override;

    // get returns the pool, which is null only if memory was exhausted when the pool was made.
    apr_pool_t* get() const { return m_pPool; }

    // tag returns the tag; it is empty if the object never owned a pool, and an assignment leaves it as it was.
    const std::string& tag() const { return m_strTag; }

private:
    void borrowOrMake(apr_pool_t* parent, const char* name);
    void make(apr_pool_t* parent, const char* name);

    static std::atomic<uint32_t> ms_uPoolIdx;

    apr_pool_t* m_pPool = nullptr;
    bool m_bOwned = true;
    std::string m_strTag;
};
