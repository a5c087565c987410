// jwa_signature_test.cpp: signing and verifying, held against the openssl command in both directions.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/evp.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

#include "jose/jwa.h"
#include "unit/exact_buffer.h"
#include "unit/jose/jose_fixture.h"
#include "unit/jose/openssl_faults.h"

namespace {

using testing::StartsWith;

static_assert(std::is_same_v<decltype(std::declval<jwa::Signer&>().get()), const Bytes&>);

const std::string NO_TEXT = "error:00000000:lib(0)::reason(0)";
const std::string NO_VERIFYING = "19 No Memory : EVP_DigestVerifyInit: "
                                 "error:03000086:digital envelope routines::initialization error";

Bytes sign(const std::string& message, const jwa::Key& key) {
    const ExactBuffer<char> buffer(message);
    return jwa::sign(buffer.data(), buffer.size(), key);
}

bool verify(const std::string& message, const jwa::Key& key, const Bytes& signature) {
    const ExactBuffer<char> buffer(message);
    return jwa::verify(buffer.data(), buffer.size(), key, signature);
}

// accepts returns whether OpenSSL itself takes a signature in its own form.
bool accepts(EVP_PKEY* key, const EVP_MD* digest, const std::string& message, const Bytes& signature) {
    EVP_MD_CTX* const context = EVP_MD_CTX_new();
    const bool result = EVP_DigestVerifyInit(context, nullptr, digest, nullptr, key) == 1 &&
                        EVP_DigestVerify(context, signature.data(), signature.size(),
                                         reinterpret_cast<const unsigned char*>(message.data()), message.size()) == 1;
    EVP_MD_CTX_free(context);
    ERR_clear_error();
    return result;
}

const std::string MESSAGES[] = {
    "abc", "", std::string("with\0NUL", 8), std::string("\x80\xff\r\n", 4), std::string(100000, 'x'),
};

// The algorithms whose signatures can be made and verified: all but those of HMAC and ES512.
const jwa::Algo USUAL_ALGOS[] = {jwa::ES256, jwa::ES384, jwa::RS256, jwa::RS384, jwa::RS512};

class JwaSignature : public Jose {
protected:
    // toolAccepts has the openssl command verify a signature in OpenSSL's form.
    bool toolAccepts(jwa::Algo algo, const std::string& message, const Bytes& signature) const {
        write("message", message);
        write("signature", asText(signature));
        publicPEM(kindOf(algo));
        const ToolResult result =
            runTool("openssl dgst -" + digestName(algo) + " -verify " + path(kindOf(algo) + ".pub") + " -signature " +
                    path("signature") + " " + path("message"));
        return result.status == 0 && result.output == "Verified OK\n";
    }

    // toolSigns has the openssl command sign, in OpenSSL's form.
    Bytes toolSigns(jwa::Algo algo, const std::string& message) const {
        privatePEM(kindOf(algo));
        write("message", message);
        openssl("dgst -" + digestName(algo) + " -sign " + kindOf(algo) + ".pem -out signature message");
        return asBytes(content("signature"));
    }

    static Bytes toOpenssl(jwa::Algo algo, const Bytes& signature) {
        return isEC(algo) ? derOfRaw(signature) : signature;
    }
    static Bytes fromOpenssl(jwa::Algo algo, const Bytes& signature) {
        return isEC(algo) ? rawOfDER(signature, jwa::signatureSize(algo) / 2) : signature;
    }

    jwa::Key usualKey(jwa::Algo algo) const { return privateKey(algo, kindOf(algo)); }
};

}  // namespace

// --- The openssl command ---

TEST_F(JwaSignature, OpensslCommandVerifiesOurSignatures) {
    for (const jwa::Algo algo : USUAL_ALGOS) {
        const jwa::Key key = usualKey(algo);
        for (const std::string& message : MESSAGES) {
            const Bytes signature = sign(message, key);
            ASSERT_EQ(signature.size(), jwa::signatureSize(algo));
            EXPECT_TRUE(toolAccepts(algo, message, toOpenssl(algo, signature))) << jwa::name(algo);
            EXPECT_FALSE(toolAccepts(algo, message + "x", toOpenssl(algo, signature))) << jwa::name(algo);
        }
    }
}

TEST_F(JwaSignature, VerifiesSignaturesOfTheOpensslCommand) {
    for (const jwa::Algo algo : USUAL_ALGOS) {
        const jwa::Key key = publicKey(algo, kindOf(algo));
        for (const std::string& message : MESSAGES) {
            const Bytes signature = fromOpenssl(algo, toolSigns(algo, message));
            EXPECT_TRUE(verify(message, key, signature)) << jwa::name(algo);
            EXPECT_FALSE(verify(message + "x", key, signature)) << jwa::name(algo);
        }
    }
}

TEST_F(JwaSignature, RSASignaturesEqualThoseOfTheOpensslCommand) {
    for (const jwa::Algo algo : RSA_ALGOS) {
        for (const std::string& message : MESSAGES) {
            EXPECT_EQ(sign(message, usualKey(algo)), toolSigns(algo, message)) << jwa::name(algo);
        }
    }
}

TEST_F(JwaSignature, HMACSignaturesEqualThoseOfTheOpensslCommand) {
    for (const jwa::Algo algo : HMAC_ALGOS) {
        for (const std::string& message : MESSAGES) {
            write("message", message);
            openssl("dgst -" + digestName(algo) + " -mac HMAC -macopt hexkey:00ff6b6579 -binary -out mac message");
            EXPECT_EQ(asText(sign(message, hmacKey(algo, std::string("\0\xffkey", 5)))), content("mac"))
                << jwa::name(algo);
        }
    }
}

// --- The forms of signatures ---

TEST_F(JwaSignature, ES256SignatureOfAbcIs64BytesAndVerifiesWithThePublicPart) {
    const Bytes signature = sign("abc", usualKey(jwa::ES256));
    EXPECT_EQ(signature.size(), 64u);
    EXPECT_TRUE(verify("abc", publicKey(jwa::ES256, "P-256"), signature));
    EXPECT_TRUE(verify("abc", usualKey(jwa::ES256), signature)) << "the private key holds the public part";
}

TEST_F(JwaSignature, RS256SignatureIs256Bytes) {
    EXPECT_EQ(sign("abc", usualKey(jwa::RS256)).size(), 256u);
}

// Of 128 numbers r and s one is short by a byte, on average.
TEST_F(JwaSignature, ShortNumbersArePaddedIn10000RandomSignatures) {
    const struct {
        jwa::Algo algo;
        const EVP_MD* digest;
        int count;
    } rows[] = {{jwa::ES256, EVP_sha256(), 8000}, {jwa::ES384, EVP_sha384(), 2000}};
    for (const auto& row : rows) {
        const jwa::Key key = usualKey(row.algo);
        const size_t half = jwa::signatureSize(row.algo) / 2;
        int shortR = 0;
        int shortS = 0;
        for (int i = 0; i < row.count; i++) {
            const std::string message = std::to_string(i);
            const Bytes signature = jwa::sign(message.data(), message.size(), key);
            ASSERT_EQ(signature.size(), 2 * half);
            shortR += signature[0] == 0;
            shortS += signature[half] == 0;
            ASSERT_TRUE(accepts(key.pkey(), row.digest, message, derOfRaw(signature))) << "signature " << i;
            if (signature[0] == 0 || signature[half] == 0) {
                EXPECT_TRUE(jwa::verify(message.data(), message.size(), key, signature));
            }
        }
        EXPECT_GT(shortR, 0) << jwa::name(row.algo);
        EXPECT_GT(shortS, 0) << jwa::name(row.algo);
    }
}

TEST_F(JwaSignature, NearlyEveryES512SignatureFails) {
    const jwa::Key key = usualKey(jwa::ES512);
    const auto failed = [&] { return failureOf([&] { sign("abc", key); }); };
    const std::string failures[] = {failed(), failed(), failed(), failed()};
    EXPECT_THAT(failures, testing::Contains("17 Unknown System Error : BN_bn2binpad: " + NO_TEXT));
}

TEST_F(JwaSignature, ES512SignatureOf132BytesIsFalse) {
    const Bytes signature = rawOfDER(toolSigns(jwa::ES512, "abc"), 66);
    ASSERT_EQ(signature.size(), 132u);
    EXPECT_FALSE(verify("abc", publicKey(jwa::ES512, "P-521"), signature));
}

// --- What is not a signature ---

TEST_F(JwaSignature, SignatureOf63BytesIsFalseUnderES256) {
    Bytes signature = sign("abc", usualKey(jwa::ES256));
    signature.pop_back();
    EXPECT_FALSE(verify("abc", publicKey(jwa::ES256, "P-256"), signature));
}

TEST_F(JwaSignature, SignatureOfAnyOtherLengthIsFalse) {
    for (const jwa::Algo algo : USUAL_ALGOS) {
        const jwa::Key key = usualKey(algo);
        const Bytes signature = sign("abc", key);
        for (const size_t size : {size_t{0}, size_t{1}, signature.size() / 2, signature.size() - 1,
                                  signature.size() + 1, 2 * signature.size()}) {
            Bytes other = signature;
            other.resize(size);
            EXPECT_FALSE(verify("abc", key, other)) << jwa::name(algo) << " of " << size;
        }
        EXPECT_FALSE(verify("abc", key, toOpenssl(algo, sign("abcd", key)))) << jwa::name(algo);
    }
}

TEST_F(JwaSignature, WrongLengthIsFalseWhateverTheKey) {
    for (int algo = 0; algo <= 10; algo++) {
        jwa::Key key;
        key.set(static_cast<jwa::Algo>(algo), nullptr);
        EXPECT_FALSE(jwa::Verifier(key).matches(Bytes(7)));
    }
    EXPECT_FALSE(jwa::Verifier(hmacKey(jwa::HS256, "k")).matches(Bytes(31)));
}

TEST_F(JwaSignature, EveryChangedByteMakesItFalse) {
    for (const jwa::Algo algo : {jwa::ES256, jwa::ES384, jwa::RS256}) {
        const jwa::Key key = usualKey(algo);
        const Bytes signature = sign("abc", key);
        for (size_t i = 0; i < signature.size(); i += algo == jwa::RS256 ? 5 : 1) {
            Bytes changed = signature;
            changed[i] ^= 1;
            EXPECT_FALSE(verify("abc", key, changed)) << jwa::name(algo) << " at " << i;
        }
        EXPECT_TRUE(verify("abc", key, signature)) << "after all those failures";
    }
}

TEST_F(JwaSignature, NumbersOutsideTheCurvesOrderAreFalse) {
    const jwa::Key key = usualKey(jwa::ES256);
    const Bytes good = sign("abc", key);
    const Bytes zero(32);
    const Bytes ones(32, 0xff);
    Bytes one(32);
    one[31] = 1;
    const Bytes r(good.begin(), good.begin() + 32);
    const Bytes s(good.begin() + 32, good.end());
    // the order of the curve (SEC 2, 2.4.2)
    const std::string orderDigits = "FFFFFFFF00000000FFFFFFFFFFFFFFFFBCE6FAADA7179E84F3B9CAC2FC632551";
    BIGNUM* number = nullptr;
    BN_hex2bn(&number, orderDigits.c_str());
    Bytes order(32);
    ASSERT_EQ(BN_bn2binpad(number, order.data(), 32), 32);
    BN_free(number);
    const auto joined = [](const Bytes& first, const Bytes& second) {
        Bytes result = first;
        result.insert(result.end(), second.begin(), second.end());
        return result;
    };
    ASSERT_TRUE(verify("abc", key, joined(r, s)));
    for (const Bytes& other : {zero, ones, order, one}) {
        EXPECT_FALSE(verify("abc", key, joined(other, s)));
        EXPECT_FALSE(verify("abc", key, joined(r, other)));
        EXPECT_FALSE(verify("abc", key, joined(other, other)));
    }
    EXPECT_FALSE(verify("abc", key, joined(s, r)));
}

TEST_F(JwaSignature, AnotherKeyOrAnotherDigestIsFalse) {
    const Bytes ec = sign("abc", usualKey(jwa::ES256));
    EXPECT_FALSE(verify("abc", publicKey(jwa::ES256, "secp256k1"), ec));
    const Bytes rsa = sign("abc", usualKey(jwa::RS256));
    EXPECT_FALSE(verify("abc", usualKey(jwa::RS384), rsa));
    EXPECT_FALSE(verify("abc", usualKey(jwa::RS512), rsa));
    for (const unsigned char fill : {0x00, 0x01, 0xff}) {
        EXPECT_FALSE(verify("abc", usualKey(jwa::RS256), Bytes(256, fill)));
    }
}

// --- HMAC ---

// The library refuses HMAC keys for verifying, not with -2 but with 0.
TEST_F(JwaSignature, HMACVerifyingFailsInInit) {
    for (const jwa::Algo algo : HMAC_ALGOS) {
        for (const char* secret : {"secret", ""}) {
            const jwa::Key key = hmacKey(algo, secret);
            const Bytes signature = sign("abc", key);
            ASSERT_EQ(signature.size(), jwa::signatureSize(algo));
            polluteErrorQueue();
            EXPECT_EQ(failureOf([&] { verify("abc", key, signature); }), NO_VERIFYING);
            jwa::Verifier verifier(key);
            EXPECT_EQ(failureOf([&] { verifier.init(); }), NO_VERIFYING);
            EXPECT_EQ(failureOf([&] { verifier.matches(signature); }), NO_VERIFYING);
            EXPECT_FALSE(verifier.matches(Bytes(1)));
        }
    }
}

// --- Keys that fit no algorithm ---

TEST_F(JwaSignature, EmptyKeyThrowsUnsupportedAlgorithm) {
    jwa::Signer signer{jwa::Key()};
    const std::string signing = "49 String not valid : Unsupported algorithm for signing";
    EXPECT_EQ(failureOf([&] { signer.init(); }), signing);
    EXPECT_EQ(failureOf([&] { signer.update("abc", 3); }), signing);
    EXPECT_EQ(failureOf([&] { signer.get(); }), signing);
    jwa::Verifier verifier{jwa::Key()};
    const std::string verifying = "49 String not valid : Unsupported algorithm for verifying";
    EXPECT_EQ(failureOf([&] { verifier.init(); }), verifying);
    EXPECT_EQ(failureOf([&] { verifier.update("abc", 3); }), verifying);
    EXPECT_EQ(failureOf([&] { verifier.matches({}); }), verifying) << "no bytes are the right length";
}

TEST_F(JwaSignature, AlgorithmsOutsideTheTableAreUnsupported) {
    for (const uint32_t value : {0u, 10u, 42u, 0xffffffffu}) {
        const jwa::Key key = privateKey(static_cast<jwa::Algo>(value), "P-256");
        EXPECT_EQ(failureOf([&] { sign("abc", key); }), "49 String not valid : Unsupported algorithm for signing");
        EXPECT_EQ(failureOf([&] { verify("abc", key, {}); }),
                  "49 String not valid : Unsupported algorithm for verifying");
    }
}

TEST_F(JwaSignature, NullKeyFailsWithEachAlgorithm) {
    for (int value = 1; value <= 9; value++) {
        jwa::Key key;
        key.set(static_cast<jwa::Algo>(value), nullptr);
        EXPECT_THAT(failureOf([&] { sign("abc", key); }),
                    StartsWith("17 Unknown System Error : EVP_DigestSignInit: error:"));
        const Bytes signature(jwa::signatureSize(key.algo()));
        EXPECT_THAT(failureOf([&] { verify("abc", key, signature); }),
                    StartsWith("19 No Memory : EVP_DigestVerifyInit: error:"));
    }
}

TEST_F(JwaSignature, PublicKeyCannotSign) {
    for (const jwa::Algo algo : USUAL_ALGOS) {
        const jwa::Key key = publicKey(algo, kindOf(algo));
        polluteErrorQueue();
        const std::string failure = failureOf([&] { sign("abc", key); });
        EXPECT_THAT(failure, StartsWith("17 Unknown System Error : EVP_DigestSignFinal: error:")) << jwa::name(algo);
        EXPECT_THAT(failure, testing::Not(testing::HasSubstr("random"))) << "the older error";
    }
}

// Only keys of 2048 bits pass the check; these were never checked.
TEST_F(JwaSignature, LongerRSAKeyFailsAndShorterLeavesZeros) {
    const jwa::Key longer = privateKey(jwa::RS256, "RSA-3072");
    EXPECT_THAT(failureOf([&] { sign("abc", longer); }),
                StartsWith("17 Unknown System Error : EVP_DigestSignFinal: error:"));
    EXPECT_FALSE(verify("abc", longer, Bytes(256)));
    const jwa::Key shorter = privateKey(jwa::RS256, "RSA-1024");
    const Bytes signature = sign("abc", shorter);
    ASSERT_EQ(signature.size(), 256u);
    EXPECT_EQ(Bytes(signature.begin() + 128, signature.end()), Bytes(128));
    EXPECT_TRUE(accepts(shorter.pkey(), EVP_sha256(), "abc", Bytes(signature.begin(), signature.begin() + 128)));
}

TEST_F(JwaSignature, KeysOfAnotherTypeDoNoHarm) {
    const jwa::Key keys[] = {privateKey(jwa::None, "P-256"),    privateKey(jwa::None, "P-521"),
                             privateKey(jwa::None, "RSA-2048"), privateKey(jwa::None, "RSA-PSS"),
                             privateKey(jwa::None, "ed25519"),  hmacKey(jwa::HS256, "secret")};
    for (const jwa::Key& each : keys) {
        for (int value = 1; value <= 9; value++) {
            const jwa::Key key = withAlgo(static_cast<jwa::Algo>(value), each);
            const size_t size = jwa::signatureSize(key.algo());
            failureOf([&] { EXPECT_EQ(sign("abc", key).size(), size); });
            failureOf([&] { EXPECT_FALSE(verify("abc", key, Bytes(size))); });
        }
    }
}

// --- Messages, one after the other ---

TEST_F(JwaSignature, TwoGetsReturnTheSameBytes) {
    jwa::Signer signer(usualKey(jwa::ES256));
    signer.update("abc", 3);
    const Bytes* const address = &signer.get();
    const Bytes first = signer.get();
    const OpensslWatch watch;
    EXPECT_EQ(signer.get(), first);
    EXPECT_EQ(&signer.get(), address);
    EXPECT_EQ(watch.made("EVP_DigestSignInit") + watch.made("EVP_DigestSignFinal"), 0);
}

TEST_F(JwaSignature, UpdateAfterGetSignsTheNewDataOnly) {
    for (const jwa::Algo algo : {jwa::HS256, jwa::ES256, jwa::RS256}) {
        const jwa::Key key = isHMAC(algo) ? hmacKey(algo, "secret") : usualKey(algo);
        jwa::Signer signer(key);
        signer.update("abc", 3);
        const Bytes first = signer.get();
        signer.update("de", 2);
        signer.update("f", 1);
        const Bytes second = signer.get();
        EXPECT_EQ(second.size(), jwa::signatureSize(algo));
        EXPECT_NE(second, first);
        if (isEC(algo)) {
            EXPECT_TRUE(verify("def", key, second));
        } else {
            EXPECT_EQ(second, sign("def", key));
        }
    }
}

TEST_F(JwaSignature, ContextIsMadeOnceForAllMessages) {
    jwa::Signer signer(usualKey(jwa::ES256));
    jwa::Verifier verifier(usualKey(jwa::ES256));
    const OpensslWatch watch;
    for (int i = 0; i < 3; i++) {
        signer.update("abc", 3);
        verifier.update("abc", 3);
        EXPECT_TRUE(verifier.matches(signer.get()));
    }
    EXPECT_EQ(watch.made("EVP_MD_CTX_new"), 2);
    EXPECT_EQ(watch.made("EVP_DigestSignInit"), 3);
    EXPECT_EQ(watch.made("EVP_DigestVerifyInit"), 3);
}

TEST_F(JwaSignature, NothingIsSetUpBeforeItIsNeeded) {
    const jwa::Key key = usualKey(jwa::ES256);
    const OpensslWatch watch;
    const jwa::Signer signer(key);
    const jwa::Verifier verifier(key);
    EXPECT_EQ(watch.made("EVP_PKEY_up_ref"), 2);
    EXPECT_EQ(watch.made("EVP_MD_CTX_new"), 0);
}

TEST_F(JwaSignature, DataComesInAnyPieces) {
    const jwa::Key key = usualKey(jwa::ES384);
    const std::string message = "a message in many pieces";
    jwa::Signer signer(key);
    jwa::Verifier verifier(key);
    for (const char& byte : message) {
        signer.update(&byte, 1);
        signer.update(&byte, 0);
        verifier.update(&byte, 1);
        verifier.update(nullptr, 0);
    }
    EXPECT_TRUE(verify(message, key, signer.get()));
    EXPECT_TRUE(verifier.matches(signer.get()));
}

TEST_F(JwaSignature, InitWithinAMessageChangesNothing) {
    const jwa::Key key = usualKey(jwa::RS256);
    jwa::Signer signer(key);
    signer.init();
    signer.update("a", 1);
    signer.init();
    signer.update("bc", 2);
    EXPECT_EQ(signer.get(), sign("abc", key));
    jwa::Verifier verifier(key);
    verifier.init();
    verifier.update("a", 1);
    verifier.init();
    verifier.update("bc", 2);
    EXPECT_TRUE(verifier.matches(signer.get()));
}

TEST_F(JwaSignature, InitAfterGetBeginsAnEmptyMessage) {
    const jwa::Key key = usualKey(jwa::RS256);
    jwa::Signer signer(key);
    signer.update("abc", 3);
    signer.get();
    signer.init();
    EXPECT_EQ(signer.get(), sign("", key));
}

TEST_F(JwaSignature, WithoutDataTheEmptyMessageIsMeant) {
    for (const jwa::Algo algo : USUAL_ALGOS) {
        const jwa::Key key = usualKey(algo);
        jwa::Signer signer(key);
        EXPECT_TRUE(verify("", key, signer.get()));
        jwa::Verifier verifier(key);
        EXPECT_TRUE(verifier.matches(signer.get()));
        EXPECT_TRUE(jwa::verify(nullptr, 0, key, jwa::sign(nullptr, 0, key)));
    }
}

TEST_F(JwaSignature, UpdateAfterMatchesBeginsANewMessage) {
    const jwa::Key key = usualKey(jwa::ES256);
    const Bytes abc = sign("abc", key);
    const Bytes def = sign("def", key);
    jwa::Verifier verifier(key);
    verifier.update("abc", 3);
    EXPECT_TRUE(verifier.matches(abc));
    verifier.update("def", 3);
    EXPECT_FALSE(verifier.matches(abc));
    verifier.update("def", 3);
    EXPECT_TRUE(verifier.matches(def));
    EXPECT_FALSE(verifier.matches(def)) << "the empty message";
}

TEST_F(JwaSignature, WrongLengthLeavesTheMessageGoingOn) {
    const jwa::Key key = usualKey(jwa::ES256);
    const Bytes abcdef = sign("abcdef", key);
    jwa::Verifier verifier(key);
    verifier.update("abc", 3);
    {
        const OpensslWatch watch;
        EXPECT_FALSE(verifier.matches(Bytes(63)));
        EXPECT_EQ(watch.made("EVP_DigestVerifyFinal"), 0);
    }
    verifier.update("def", 3);
    EXPECT_TRUE(verifier.matches(abcdef));
}

TEST_F(JwaSignature, SignerKeepsItsKeyWhenTheCallersIsReset) {
    jwa::Key key = usualKey(jwa::ES256);
    const jwa::Key copy(key);
    jwa::Signer signer(key);
    jwa::Verifier verifier(key);
    key.reset();
    signer.update("abc", 3);
    verifier.update("abc", 3);
    EXPECT_TRUE(verify("abc", copy, signer.get()));
    EXPECT_TRUE(verifier.matches(signer.get()));
}

TEST_F(JwaSignature, MessageLeftUnfinishedLeaksNothing) {
    const jwa::Key& key = usualKey(jwa::ES256);
    const OpensslWatch watch;
    jwa::Signer(key).update("abc", 3);
    jwa::Verifier(key).update("abc", 3);
    EXPECT_EQ(watch.made("EVP_MD_CTX_new"), 2);
    EXPECT_EQ(watch.made("EVP_MD_CTX_free"), 2);
}

// --- Failing calls ---

namespace {

struct FaultRow {
    jwa::Algo algo;
    const char* function;
    int result;
    int nth;
    const char* failure;  // the code and the text up to the call's name; empty where no failure is due
    const char* call;
};

const FaultRow SIGNING_FAULTS[] = {
    {jwa::ES256, "EVP_MD_CTX_new", 0, 1, "19 No Memory", "EVP_MD_CTX_new"},
    {jwa::RS256, "EVP_DigestSignInit", -2, 1, "49 String not valid", "EVP_DigestSignInit"},
    {jwa::RS256, "EVP_DigestSignInit", 0, 1, "17 Unknown System Error", "EVP_DigestSignInit"},
    {jwa::ES256, "EVP_DigestSignInit", -1, 1, "17 Unknown System Error", "EVP_DigestSignInit"},
    {jwa::HS256, "EVP_DigestSignInit", 2, 1, "17 Unknown System Error", "EVP_DigestSignInit"},
    {jwa::HS256, "EVP_DigestUpdate", 0, 1, "19 No Memory", "EVP_DigestSignUpdate"},
    {jwa::ES256, "EVP_DigestUpdate", 0, 1, "19 No Memory", "EVP_DigestSignUpdate"},
    {jwa::HS256, "EVP_DigestSignFinal", 0, 1, "17 Unknown System Error", "EVP_DigestSignFinal"},
    {jwa::RS256, "EVP_DigestSignFinal", 0, 1, "17 Unknown System Error", "EVP_DigestSignFinal"},
    {jwa::ES256, "EVP_DigestSignFinal", 0, 1, "17 Unknown System Error", "EVP_DigestSignFinal"},
    {jwa::ES256, "EVP_DigestSignFinal", 0, 2, "17 Unknown System Error", "EVP_DigestSignFinal"},
    {jwa::ES256, "d2i_ECDSA_SIG", 0, 1, "17 Unknown System Error", "d2i_ECDSA_SIG"},
    {jwa::ES256, "BN_bn2binpad", -1, 1, "17 Unknown System Error", "BN_bn2binpad"},
    {jwa::ES384, "BN_bn2binpad", -1, 2, "17 Unknown System Error", "BN_bn2binpad"},
};

const FaultRow VERIFYING_FAULTS[] = {
    {jwa::ES256, "EVP_MD_CTX_new", 0, 1, "19 No Memory", "EVP_MD_CTX_new"},
    {jwa::RS256, "EVP_DigestVerifyInit", -2, 1, "49 String not valid", "EVP_DigestVerifyInit"},
    {jwa::RS256, "EVP_DigestVerifyInit", 0, 1, "19 No Memory", "EVP_DigestVerifyInit"},
    {jwa::ES256, "EVP_DigestVerifyInit", -1, 1, "19 No Memory", "EVP_DigestVerifyInit"},
    {jwa::ES256, "EVP_DigestUpdate", 0, 1, "19 No Memory", "EVP_DigestVerifyUpdate"},
    {jwa::ES256, "ECDSA_SIG_new", 0, 1, "19 No Memory", "ECDSA_SIG_new"},
    {jwa::ES256, "BN_bin2bn", 0, 1, "19 No Memory", "BN_bin2bn"},
    {jwa::ES384, "BN_bin2bn", 0, 2, "19 No Memory", "BN_bin2bn"},
    {jwa::ES256, "ECDSA_SIG_set0", 0, 1, "17 Unknown System Error", "ECDSA_SIG_set0"},
    {jwa::ES256, "i2d_ECDSA_SIG", 0, 1, "17 Unknown System Error", "i2d_ECDSA_SIG"},
    {jwa::ES256, "i2d_ECDSA_SIG", -1, 1, "17 Unknown System Error", "i2d_ECDSA_SIG"},
    {jwa::ES256, "i2d_ECDSA_SIG", 5, 2, "17 Unknown System Error", "i2d_ECDSA_SIG"},
    {jwa::ES256, "EVP_DigestVerifyFinal", -1, 1, "17 Unknown System Error", "EVP_DigestVerifyFinal"},
    {jwa::RS256, "EVP_DigestVerifyFinal", -1, 1, "17 Unknown System Error", "EVP_DigestVerifyFinal"},
};

}  // namespace

TEST_F(JwaSignature, EachFailedCallOfSigningHasItsCodeAndName) {
    for (const FaultRow& row : SIGNING_FAULTS) {
        const jwa::Key key = isHMAC(row.algo) ? hmacKey(row.algo, "secret") : usualKey(row.algo);
        polluteErrorQueue();
        jwa::Signer signer(key);
        const OpensslWatch watch(row.function, row.result, row.nth);
        const std::string failure = failureOf([&] {
            signer.update("abc", 3);
            signer.get();
        });
        EXPECT_TRUE(watch.failed()) << row.function;
        EXPECT_EQ(failure, std::string(row.failure) + " : " + row.call + ": " + NO_TEXT);
    }
}

TEST_F(JwaSignature, EachFailedCallOfVerifyingHasItsCodeAndName) {
    for (const FaultRow& row : VERIFYING_FAULTS) {
        const jwa::Key key = usualKey(row.algo);
        const Bytes signature = sign("abc", key);
        polluteErrorQueue();
        jwa::Verifier verifier(key);
        const OpensslWatch watch(row.function, row.result, row.nth);
        const std::string failure = failureOf([&] {
            verifier.update("abc", 3);
            verifier.matches(signature);
        });
        EXPECT_TRUE(watch.failed()) << row.function;
        EXPECT_EQ(failure, std::string(row.failure) + " : " + row.call + ": " + NO_TEXT);
    }
}

// Whoever uses OpenSSL between two calls may leave its errors there.
TEST_F(JwaSignature, ForeignErrorsBetweenTheCallsDoNotReachTheText) {
    const jwa::Key key = usualKey(jwa::ES256);
    const Bytes signature = sign("abc", key);
    const auto failureOfCall = [](const char* function, const std::function<void()>& call) {
        polluteErrorQueue();
        const OpensslWatch watch(function, -1);
        return failureOf(call);
    };
    jwa::Signer signer(key);
    signer.update("a", 1);
    EXPECT_EQ(failureOfCall("EVP_DigestUpdate", [&] { signer.update("bc", 2); }),
              "19 No Memory : EVP_DigestSignUpdate: " + NO_TEXT);
    EXPECT_EQ(failureOfCall("EVP_DigestSignFinal", [&] { signer.get(); }),
              "17 Unknown System Error : EVP_DigestSignFinal: " + NO_TEXT);
    jwa::Verifier verifier(key);
    verifier.update("a", 1);
    EXPECT_EQ(failureOfCall("EVP_DigestUpdate", [&] { verifier.update("bc", 2); }),
              "19 No Memory : EVP_DigestVerifyUpdate: " + NO_TEXT);
    EXPECT_EQ(failureOfCall("EVP_DigestVerifyFinal", [&] { verifier.matches(signature); }),
              "17 Unknown System Error : EVP_DigestVerifyFinal: " + NO_TEXT);
}

TEST_F(JwaSignature, VerifyFinalThatIsNeither0Nor1IsFalse) {
    const jwa::Key key = usualKey(jwa::RS256);
    const Bytes signature = sign("abc", key);
    const OpensslWatch watch("EVP_DigestVerifyFinal", 2);
    EXPECT_FALSE(verify("abc", key, signature));
    EXPECT_TRUE(watch.failed());
}

TEST_F(JwaSignature, EarlierFalseVerificationsDoNotReachTheText) {
    const jwa::Key key = publicKey(jwa::RS256, "RSA-2048");
    const std::string expected = failureOf([&] { sign("abc", key); });
    for (int i = 0; i < 3; i++) {
        EXPECT_FALSE(verify("abc", key, Bytes(256, 1)));
        EXPECT_EQ(failureOf([&] { sign("abc", key); }), expected);
    }
}

// An object is not reset by an error: what was added before belongs to the message that is finished later.
TEST_F(JwaSignature, MessageGoesOnAfterAnErrorOfTheSigner) {
    for (const FaultRow& row : SIGNING_FAULTS) {
        const std::string name = std::string(row.function) + " " + jwa::name(row.algo);
        const jwa::Key key = isHMAC(row.algo) ? hmacKey(row.algo, "secret") : usualKey(row.algo);
        const auto isSignature = [&](const std::string& message, const Bytes& signature) {
            return isEC(row.algo) ? verify(message, key, signature) : sign(message, key) == signature;
        };
        std::string message;
        jwa::Signer again(key);
        jwa::Signer longer(key);
        for (jwa::Signer* signer : {&again, &longer}) {
            const OpensslWatch watch(row.function, row.result, row.nth);
            message = failureOf([&] { signer->update("abc", 3); }) == NO_FAILURE ? "abc" : "";
            if (!message.empty()) {
                EXPECT_NE(failureOf([&] { signer->get(); }), NO_FAILURE) << name;
            }
        }
        EXPECT_TRUE(isSignature(message, again.get())) << name;
        longer.update("def", 3);
        EXPECT_TRUE(isSignature(message + "def", longer.get())) << name;
    }
}

TEST_F(JwaSignature, MessageGoesOnAfterAnErrorOfTheVerifier) {
    for (const FaultRow& row : VERIFYING_FAULTS) {
        const std::string name = std::string(row.function) + " " + jwa::name(row.algo);
        const jwa::Key key = usualKey(row.algo);
        std::string message;
        jwa::Verifier again(key);
        jwa::Verifier longer(key);
        const Bytes signature = sign("abc", key);
        for (jwa::Verifier* verifier : {&again, &longer}) {
            const OpensslWatch watch(row.function, row.result, row.nth);
            message = failureOf([&] { verifier->update("abc", 3); }) == NO_FAILURE ? "abc" : "";
            if (!message.empty()) {
                EXPECT_NE(failureOf([&] { verifier->matches(signature); }), NO_FAILURE) << name;
            }
        }
        EXPECT_TRUE(again.matches(sign(message, key))) << name;
        longer.update("def", 3);
        EXPECT_TRUE(longer.matches(sign(message + "def", key))) << name;
    }
}

TEST_F(JwaSignature, MissingContextIsReportedBeforeTheKeyIsLookedAt) {
    const OpensslWatch watch("EVP_MD_CTX_new");
    EXPECT_THAT(failureOf([] { jwa::Signer(jwa::Key()).init(); }), StartsWith("19 No Memory : EVP_MD_CTX_new"));
}

TEST_F(JwaSignature, SignerThatFailedInInitWorksOnceInitDoes) {
    const jwa::Key key = usualKey(jwa::RS256);
    jwa::Signer signer(key);
    {
        const OpensslWatch watch("EVP_DigestSignInit");
        EXPECT_NE(failureOf([&] { signer.update("abc", 3); }), NO_FAILURE);
    }
    signer.update("abc", 3);
    EXPECT_EQ(signer.get(), sign("abc", key));
}

TEST_F(JwaSignature, SignatureOfTheLastMessageStaysWhenTheNextFailsInInit) {
    const jwa::Key key = usualKey(jwa::RS256);
    jwa::Signer signer(key);
    signer.update("abc", 3);
    const Bytes signature = signer.get();
    {
        const OpensslWatch watch("EVP_DigestSignInit");
        EXPECT_NE(failureOf([&] { signer.update("def", 3); }), NO_FAILURE);
    }
    EXPECT_EQ(signer.get(), signature) << "still finished";
}
