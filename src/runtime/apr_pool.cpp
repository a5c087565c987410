#include "runtime/apr_pool.h"

#include <apr_allocator.h>
#include <apr_general.h>
#include <apr_pools.h>
#include <apr_strings.h>

#include <cstdlib>

#include "foundation/strfmt.h"

namespace {

constexpr apr_size_t MAX_FREE_BYTES = 0x20000;

// boundGlobalAllocator bounds the memory kept by the allocator that all pools share. Only a pool leads to it.
void boundGlobalAllocator() {
    apr_pool_t* pool = nullptr;
    if (apr_pool_create_ex(&pool, nullptr, nullptr, nullptr) != APR_SUCCESS)
        abort();
    apr_allocator_max_free_set(apr_pool_allocator_get(pool), MAX_FREE_BYTES);
    apr_pool_destroy(pool);
}

void startLibrary() {
    if (apr_initialize() != APR_SUCCESS)
        abort();
    boundGlobalAllocator();
}

}  // namespace

std::atomic<uint32_t> APRInitializer::ms_refCount{0};
APRInitializer APRInitializer::ms_APRInitializer;
std::atomic<uint32_t> APRPool::ms_uPoolIdx{0};

APRInitializer::APRInitializer() {
    if (ms_refCount == 0)
        startLibrary();
    ++ms_refCount;
}

APRInitializer::~APRInitializer() {
    if (--ms_refCount == 0)
        apr_terminate();
}

APRPool::APRPool(apr_pool_t* parent, const char* name) {
    borrowOrMake(parent, name);
}

APRPool::APRPool(const APRPool* parent, const char* name) {
    borrowOrMake(parent != nullptr ? parent->m_pPool : nullptr, name);
}

APRPool::APRPool(const char* name) {
    make(nullptr, name);
}

APRPool::APRPool(const APRPool& parent, const char* name) : APRPool(&parent, name) {}

APRPool& APRPool::operator=(const APRPool& other) {
    if (this == &other)
        return *this;
    // The pool may outlive this object, so its tag moves to memory of its own. A borrowed one belongs to somebody else.
    if (m_bOwned && m_pPool != nullptr)
        apr_pool_tag(m_pPool, apr_pstrdup(m_pPool, m_strTag.c_str()));
    m_pPool = other.m_pPool;
    m_bOwned = false;
    return *this;
}

APRPool::~APRPool() {
    if (m_bOwned && m_pPool != nullptr)
        apr_pool_destroy(m_pPool);
}

void APRPool::borrowOrMake(apr_pool_t* parent, const char* name) {
    if (parent == nullptr || name != nullptr) {
        make(parent, name);
        return;
    }
    m_pPool = parent;
    m_bOwned = false;
}

void APRPool::make(apr_pool_t* parent, const char* name) {
    m_strTag = strfmt("%u-%s", ms_uPoolIdx++, name != nullptr ? name : "<no name>");
    apr_pool_create_ex(&m_pPool, parent, nullptr, nullptr);
    if (m_pPool != nullptr)
        apr_pool_tag(m_pPool, m_strTag.c_str());
}
