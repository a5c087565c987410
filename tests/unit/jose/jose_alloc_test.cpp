// jose_alloc_test.cpp: keys and tokens under exhausted memory: each operation throws std::bad_alloc or returns what its
// header says, and leaves nothing. A program of its own, since it replaces operator new.

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "foundation/json.h"
#include "jose/jwa.h"
#include "jose/jws.h"
#include "unit/alloc_faults.h"
#include "unit/jose/jose_fixture.h"

namespace {

class ExhaustedJose : public Jose, public testing::WithParamInterface<AllocFaults::Mode> {
protected:
    // expectThrows expects std::bad_alloc for every allocation of `body`, of which there is at least one.
    static void expectThrows(const std::function<void()>& body) {
        body();
        EXPECT_LT(0u, throwsAtEveryAllocation(GetParam(), body));
    }

    // expectNeverTrue expects that `verify` throws std::bad_alloc or is false while an allocation fails, and true then.
    static void expectNeverTrue(const std::function<bool()>& verify) {
        for (size_t n = 0;; ++n) {
            const std::ptrdiff_t before = gs_oAllocFaults.living;
            bool verified = false;
            const bool thrown = failingAt(n, GetParam(), [&] { verified = verify(); });
            EXPECT_EQ(before, gs_oAllocFaults.living) << "allocation " << n;
            EXPECT_EQ(verified, !gs_oAllocFaults.hit) << "allocation " << n;
            EXPECT_FALSE(thrown && verified);
            if (!gs_oAllocFaults.hit || HasFailure()) {
                EXPECT_LT(0u, n);
                return;
            }
        }
    }

    // expectLoads expects of each failing allocation, if there is any, that std::bad_alloc comes out and the old key
    // stays, or that the new one is there.
    static void expectLoads(const std::function<void(jwa::Key&)>& load, jwa::Algo algo) {
        for (size_t n = 0;; ++n) {
            SCOPED_TRACE("allocation " + std::to_string(n));
            const std::ptrdiff_t before = gs_oAllocFaults.living;
            {
                jwa::Key key = hmacKey(jwa::HS512, "secret");
                EVP_PKEY* const old = key.pkey();
                const bool thrown = failingAt(n, GetParam(), [&] { load(key); });
                EXPECT_EQ(thrown, gs_oAllocFaults.hit);
                EXPECT_EQ(key.pkey() == old, thrown);
                EXPECT_EQ(key.algo(), thrown ? jwa::HS512 : algo);
                EXPECT_NO_THROW(key.checkKey());
            }
            EXPECT_EQ(before, gs_oAllocFaults.living);
            if (!gs_oAllocFaults.hit || HasFailure())
                return;
        }
    }

    const std::string m_strMessage = std::string(300, 'm');
};

INSTANTIATE_TEST_SUITE_P(Jose, ExhaustedJose, testing::Values(AllocFaults::One, AllocFaults::AllFollowing),
                         [](const auto& test) { return test.param == AllocFaults::One ? "OneFault" : "AllFromThere"; });

TEST_P(ExhaustedJose, SigningThrows) {
    const jwa::Key hmac = hmacKey(jwa::HS256, "secret");
    expectThrows([&] { jwa::sign(m_strMessage.data(), m_strMessage.size(), hmac); });
    for (const jwa::Algo algo : {jwa::ES256, jwa::RS256}) {
        const jwa::Key key = privateKey(algo, kindOf(algo));
        expectThrows([&] { jwa::sign(m_strMessage.data(), m_strMessage.size(), key); });
    }
}

TEST_P(ExhaustedJose, SignerFinishesTheMessageAfterAFailure) {
    const jwa::Key key = privateKey(jwa::ES256, "P-256");
    const jwa::Key publicPart = publicKey(jwa::ES256, "P-256");
    bool failed = true;
    for (size_t n = 0; failed; ++n) {
        jwa::Signer signer(key);
        signer.update("abc", 3);
        failed = failingAt(n, GetParam(), [&] { signer.get(); });
        EXPECT_EQ(gs_oAllocFaults.hit, failed) << "allocation " << n;
        EXPECT_TRUE(failed || n > 0) << "no allocation was made";
        EXPECT_TRUE(jwa::verify("abc", 3, publicPart, signer.get())) << "allocation " << n;
    }
}

TEST_P(ExhaustedJose, VerifyingThrowsOnceMemoryIsNeeded) {
    const Bytes signature = jwa::sign("abc", 3, privateKey(jwa::ES256, "P-256"));
    const jwa::Key key = publicKey(jwa::ES256, "P-256");
    expectThrows([&] { EXPECT_TRUE(jwa::verify("abc", 3, key, signature)); });
}

TEST_P(ExhaustedJose, FailedLoadingThrowsAndKeepsTheKey) {
    const std::string text = "a text without a key";
    jwa::Key key = hmacKey(jwa::HS256, "secret");
    EVP_PKEY* const before = key.pkey();
    expectThrows([&] { EXPECT_NE(failureOf([&] { key.loadPublicKeyByKind(text); }), NO_FAILURE); });
    expectThrows([&] { EXPECT_NE(failureOf([&] { key.loadPublicKey(jwa::ES256, path("missing")); }), NO_FAILURE); });
    EXPECT_EQ(key.pkey(), before);
}

// A key's file is read by OpenSSL, whose memory is its own; what is loaded by the key's kind passes through ours.
TEST_P(ExhaustedJose, SuccessfulLoadingThrowsOrLoads) {
    for (const jwa::Algo algo : {jwa::ES256, jwa::ES384, jwa::RS256}) {
        const std::string pem = TempFolder::contentOf(publicPEM(kindOf(algo)));
        const std::string path = privatePEM(kindOf(algo));
        const std::string publicPath = publicPEM(kindOf(algo));
        const std::string der = converted("pkey -outform DER", kindOf(algo));
        expectLoads([&](jwa::Key& key) { key.loadPublicKeyByKind(pem); }, algo);
        expectLoads([&](jwa::Key& key) { key.loadPublicKey(algo, publicPath); }, algo);
        expectLoads([&](jwa::Key& key) { key.loadPrivateKey(algo, path); }, algo);
        const auto size = static_cast<int>(der.size());
        expectLoads([&](jwa::Key& key) { key.loadPrivateKeyDER(algo, der.data(), size); }, algo);
    }
    const Bytes secret(100, 's');
    expectLoads([&](jwa::Key& key) { key.setHMAC(jwa::HS256, secret.data(), secret.size()); }, jwa::HS256);
}

TEST_P(ExhaustedJose, CopiesOfAKeyNeedNoMemory) {
    const jwa::Key key = hmacKey(jwa::HS256, "secret");
    EXPECT_FALSE(failingAt(0, GetParam(), [&] {
        jwa::Key copy(key);
        copy = key;
        copy.reset();
    }));
    EXPECT_FALSE(gs_oAllocFaults.hit);
}

TEST_P(ExhaustedJose, TokensThrowOnSigning) {
    const JSON::root header = JSON::parse(R"({"alg":"ES256","typ":"a type that fits into no short string"})");
    const jwa::Key key = privateKey(jwa::ES256, "P-256");
    expectThrows([&] { jws::sign(header.get(), m_strMessage, key); });
    expectThrows([&] { jws::sign(header.get(), header.get(), key); });
}

TEST_P(ExhaustedJose, TokensAreNeverTrueWithoutMemory) {
    const JSON::root header = JSON::parse(R"({"alg":"ES256"})");
    const std::string token = jws::sign(header.get(), header.get(), privateKey(jwa::ES256, "P-256"));
    const jwa::Key key = publicKey(jwa::ES256, "P-256");
    expectNeverTrue([&] {
        JSON::root found;
        std::string payload;
        return jws::verify(token, found, payload, key);
    });
    expectNeverTrue([&] {
        JSON::root found;
        JSON::root payload;
        return jws::verify(token, found, payload, key);
    });
    expectThrows([&] { EXPECT_NE(jws::getJOSEHeader(token), nullptr); });
    expectThrows([&] { EXPECT_NE(jws::getPayload(token), nullptr); });
}

}  // namespace
