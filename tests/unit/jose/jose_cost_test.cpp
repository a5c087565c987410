// jose_cost_test.cpp: how often signing and verifying take memory, ours and OpenSSL's. A program of its own, since it
// replaces operator new and gives OpenSSL an allocator that counts.

#include <gtest/gtest.h>
#include <openssl/crypto.h>

#include <functional>
#include <string>

#include "foundation/json.h"
#include "jose/jwa.h"
#include "jose/jws.h"
#include "unit/alloc_faults.h"
#include "unit/jose/jose_fixture.h"

namespace {

size_t gs_nByOpenSSL = 0;

void* allocateForOpenSSL(size_t size, const char*, int) {
    ++gs_nByOpenSSL;
    return std::malloc(size);
}

void* reallocateForOpenSSL(void* block, size_t size, const char*, int) {
    ++gs_nByOpenSSL;
    return std::realloc(block, size);
}

void releaseForOpenSSL(void* block, const char*, int) {
    std::free(block);
}

// OpenSSL takes an allocator only before it has made anything.
const bool COUNTED = CRYPTO_set_mem_functions(allocateForOpenSSL, reallocateForOpenSSL, releaseForOpenSSL) == 1;

// byOpenSSL returns how many blocks OpenSSL takes for `work`, once it has made what it keeps.
size_t byOpenSSL(const std::function<void()>& work) {
    work();
    const size_t before = gs_nByOpenSSL;
    work();
    return gs_nByOpenSSL - before;
}

class JoseCost : public Jose {
protected:
    void SetUp() override {
        Jose::SetUp();
        ASSERT_TRUE(COUNTED);
    }

    const Bytes m_aMessage = Bytes(300, 'm');
};

// A signer keeps its message intact in case of an error, by a copy of OpenSSL's context; one call needs none.
TEST_F(JoseCost, OneCallSignsWithoutACopyOfTheContext) {
    for (const jwa::Key& key : {hmacKey(jwa::HS256, "secret"), privateKey(jwa::ES256, "P-256")}) {
        const size_t oneCall = byOpenSSL([&] { jwa::sign(m_aMessage.data(), m_aMessage.size(), key); });
        const size_t signer = byOpenSSL([&] {
            jwa::Signer each(key);
            each.update(m_aMessage.data(), m_aMessage.size());
            each.get();
        });
        EXPECT_LT(oneCall, signer) << jwa::name(key.algo());
    }
}

TEST_F(JoseCost, OneCallVerifiesWithoutACopyOfTheContext) {
    const Bytes signature = jwa::sign(m_aMessage.data(), m_aMessage.size(), privateKey(jwa::ES256, "P-256"));
    const jwa::Key key = publicKey(jwa::ES256, "P-256");
    const size_t oneCall =
        byOpenSSL([&] { EXPECT_TRUE(jwa::verify(m_aMessage.data(), m_aMessage.size(), key, signature)); });
    const size_t verifier = byOpenSSL([&] {
        jwa::Verifier each(key);
        each.update(m_aMessage.data(), m_aMessage.size());
        EXPECT_TRUE(each.matches(signature));
    });
    EXPECT_LT(oneCall, verifier);
}

// The printed header and its list of open containers, the three segments, the text that takes them up as it grows, the
// signature and its copy.
TEST_F(JoseCost, SigningATextTakesFewBlocks) {
    const JSON::root header = JSON::parse(R"({"alg":"HS256"})");
    const jwa::Key key = hmacKey(jwa::HS256, "secret");
    jws::sign(header.get(), m_aMessage, key);
    const size_t before = gs_oAllocFaults.made;
    jws::sign(header.get(), m_aMessage, key);
    EXPECT_LE(gs_oAllocFaults.made - before, 10U);
}

}  // namespace
