// jwa_key_kind_faults_test.cpp: a public key that cannot be judged because OpenSSL has no memory.

#include <gtest/gtest.h>
#include <openssl/bio.h>

#include <string>

#include "jose/jwa.h"
#include "unit/jose/jose_fixture.h"
#include "unit/jose/openssl_faults.h"

extern "C" {

BIO* BIO_new_mem_buf(const void* bytes, int length) {
    return OpensslWatch::intercept(__func__, BIO_new_mem_buf, bytes, length);
}

EVP_PKEY_CTX* EVP_PKEY_CTX_new_from_pkey(OSSL_LIB_CTX* library, EVP_PKEY* key, const char* properties) {
    return OpensslWatch::intercept(__func__, EVP_PKEY_CTX_new_from_pkey, library, key, properties);
}

}  // extern "C"

namespace {

class JwaKeyByKindFaults : public Jose {
protected:
    // expectNoMemory expects that loading a good key fails with this call, that a filled key keeps what it has, and
    // that the next loading succeeds.
    void expectNoMemory(const std::string& call) const {
        const std::string pem = TempFolder::contentOf(publicPEM("P-256"));
        jwa::Key key = hmacKey(jwa::HS256, "secret");
        EVP_PKEY* const before = key.pkey();
        {
            const OpensslWatch watch(call);
            EXPECT_EQ(failureOf([&] { key.loadPublicKeyByKind(pem); }),
                      "19 No Memory : " + call + ": error:00000000:lib(0)::reason(0)");
            EXPECT_TRUE(watch.failed());
        }
        EXPECT_EQ(key.algo(), jwa::HS256);
        EXPECT_EQ(key.pkey(), before);
        key.loadPublicKeyByKind(pem);
        EXPECT_EQ(key.algo(), jwa::ES256);
    }
};

TEST_F(JwaKeyByKindFaults, TextThatFindsNoMemoryLeavesTheKey) {
    expectNoMemory("BIO_new_mem_buf");
}

TEST_F(JwaKeyByKindFaults, CheckThatFindsNoMemoryLeavesTheKey) {
    expectNoMemory("EVP_PKEY_CTX_new_from_pkey");
}

}  // namespace
