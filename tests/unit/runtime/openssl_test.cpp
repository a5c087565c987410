// openssl_test.cpp: each holder gives OpenSSL back all that its object consists of, and each error is taken once. A
// program of its own, since it gives OpenSSL an allocator that counts.

#include <gtest/gtest.h>
#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/crypto.h>
#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/evp.h>

#include <cstdlib>
#include <functional>

#include "runtime/openssl.h"

namespace {

long gs_nBlocks = 0;  // that OpenSSL holds

void* allocate(size_t size, const char*, int) {
    ++gs_nBlocks;
    return std::malloc(size);
}

void* reallocate(void* block, size_t size, const char*, int) {
    gs_nBlocks += block == nullptr ? 1 : 0;
    return std::realloc(block, size);
}

void release(void* block, const char*, int) {
    gs_nBlocks -= block == nullptr ? 0 : 1;
    std::free(block);
}

// OpenSSL takes an allocator only before it has made anything.
const bool COUNTED = CRYPTO_set_mem_functions(allocate, reallocate, release) == 1;

// expectReleased makes an object twice, as OpenSSL keeps a few things once it has made the first of a kind.
template <class T>
void expectReleased(const std::function<T*()>& make) {
    ASSERT_TRUE(COUNTED);
    OpenSSLHolder<T>(make()).reset();
    const long before = gs_nBlocks;
    OpenSSLHolder<T> holder(make());
    ASSERT_NE(holder, nullptr);
    EXPECT_GT(gs_nBlocks, before);
    holder.reset();
    EXPECT_EQ(gs_nBlocks, before);
}

TEST(OpenSSLHolder, GivesEachObjectBack) {
    expectReleased<BIGNUM>(BN_new);
    expectReleased<BIO>([] { return BIO_push(BIO_new(BIO_f_base64()), BIO_new(BIO_s_mem())); });
    expectReleased<ECDSA_SIG>(ECDSA_SIG_new);
    expectReleased<EC_KEY>([] { return EC_KEY_new_by_curve_name(NID_X9_62_prime256v1); });
    expectReleased<EVP_MD_CTX>(EVP_MD_CTX_new);
    expectReleased<EVP_PKEY>(EVP_PKEY_new);
    expectReleased<EVP_PKEY_CTX>([] { return EVP_PKEY_CTX_new_id(EVP_PKEY_EC, nullptr); });
    expectReleased<unsigned char>([] { return static_cast<unsigned char*>(OPENSSL_malloc(16)); });
}

TEST(TakeOpenSSLError, TakesTheFirstAndLeavesTheOthers) {
    ERR_clear_error();
    ERR_raise(ERR_LIB_BN, BN_R_DIV_BY_ZERO);
    ERR_raise(ERR_LIB_BN, BN_R_NO_INVERSE);
    EXPECT_EQ(takeOpenSSLError(), "error:01800067:bignum routines::div by zero");
    EXPECT_EQ(takeOpenSSLError(), "error:0180006C:bignum routines::no inverse");
    EXPECT_EQ(takeOpenSSLError(), "error:00000000:lib(0)::reason(0)");
}

}  // namespace
