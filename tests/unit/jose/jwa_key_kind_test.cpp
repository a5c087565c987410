// jwa_key_kind_test.cpp: public keys whose kind alone decides on the algorithm, and the ones that are refused.

#include <gtest/gtest.h>
#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <openssl/pem.h>

#include <string>

#include "jose/jwa.h"
#include "runtime/openssl.h"
#include "unit/jose/jose_fixture.h"

namespace {

const std::string OTHER_KIND =
    "49 String not valid : key must be EC on P-256 or P-384, or RSA of 2048 bits with a public exponent of 3 or more";
const std::string NOT_READ = "49 String not valid : PEM_read_bio_PUBKEY: error:";
const std::string NOT_SOUND = "49 String not valid : EVP_PKEY_public_check: error:";

class JwaKeyByKind : public Jose {
protected:
    std::string publicText(const std::string& kind) const { return TempFolder::contentOf(publicPEM(kind)); }

    // loaded returns the algorithm that `pem` is loaded for, by its name.
    static std::string loaded(const std::string& pem) {
        jwa::Key key;
        key.loadPublicKeyByKind(pem);
        return jwa::name(key.algo());
    }

    // refusal returns how `pem` fails, and expects that neither an empty nor a filled key is touched.
    static std::string refusal(const std::string& pem) {
        jwa::Key empty;
        const std::string failure = failureOf([&] { empty.loadPublicKeyByKind(pem); });
        EXPECT_EQ(empty.algo(), jwa::None);
        EXPECT_EQ(empty.pkey(), nullptr);
        jwa::Key filled = hmacKey(jwa::HS256, "secret");
        EVP_PKEY* const before = filled.pkey();
        EXPECT_EQ(failureOf([&] { filled.loadPublicKeyByKind(pem); }), failure);
        EXPECT_EQ(filled.algo(), jwa::HS256);
        EXPECT_EQ(filled.pkey(), before);
        return failure;
    }

    // rsaText returns the PEM text of an RSA key with the modulus of a sound one, less `lower`, and any exponent.
    std::string rsaText(BN_ULONG exponent, BN_ULONG lower = 0) const {
        BIGNUM* modulus = nullptr;
        EXPECT_EQ(EVP_PKEY_get_bn_param(publicKey(jwa::RS256, "RSA-2048").pkey(), OSSL_PKEY_PARAM_RSA_N, &modulus), 1);
        const OpenSSLHolder<BIGNUM> n(modulus);
        const OpenSSLHolder<BIGNUM> e(BN_new());
        EXPECT_EQ(BN_sub_word(n.get(), lower), 1);
        EXPECT_EQ(BN_set_word(e.get(), exponent), 1);
        OSSL_PARAM_BLD* const builder = OSSL_PARAM_BLD_new();
        OSSL_PARAM_BLD_push_BN(builder, OSSL_PKEY_PARAM_RSA_N, n.get());
        OSSL_PARAM_BLD_push_BN(builder, OSSL_PKEY_PARAM_RSA_E, e.get());
        OSSL_PARAM* const parameters = OSSL_PARAM_BLD_to_param(builder);
        const OpenSSLHolder<EVP_PKEY_CTX> context(EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr));
        EVP_PKEY* made = nullptr;
        EXPECT_EQ(EVP_PKEY_fromdata_init(context.get()), 1);
        EXPECT_EQ(EVP_PKEY_fromdata(context.get(), &made, EVP_PKEY_PUBLIC_KEY, parameters), 1);
        OSSL_PARAM_free(parameters);
        OSSL_PARAM_BLD_free(builder);
        return textOf(OpenSSLHolder<EVP_PKEY>(made));
    }

private:
    static std::string textOf(const OpenSSLHolder<EVP_PKEY>& key) {
        const OpenSSLHolder<BIO> bio(BIO_new(BIO_s_mem()));
        EXPECT_EQ(PEM_write_bio_PUBKEY(bio.get(), key.get()), 1);
        char* data = nullptr;
        const long length = BIO_get_mem_data(bio.get(), &data);
        return std::string(data, static_cast<size_t>(length));
    }
};

bool startsWith(const std::string& text, const std::string& start) {
    return text.compare(0, start.size(), start) == 0;
}

TEST_F(JwaKeyByKind, KindDecidesOnTheAlgorithm) {
    EXPECT_EQ(loaded(publicText("P-256")), "ES256");
    EXPECT_EQ(loaded(publicText("P-384")), "ES384");
    EXPECT_EQ(loaded(publicText("RSA-2048")), "RS256");
    EXPECT_EQ(loaded(rsaText(3)), "RS256");
}

TEST_F(JwaKeyByKind, LoadedKeyVerifiesWhatItsPrivatePartSigned) {
    for (const jwa::Algo algo : {jwa::ES256, jwa::ES384, jwa::RS256}) {
        const std::string kind = kindOf(algo);
        jwa::Key key;
        key.loadPublicKeyByKind(publicText(kind));
        EXPECT_TRUE(jwa::verify("abc", 3, key, jwa::sign("abc", 3, privateKey(algo, kind)))) << kind;
    }
}

TEST_F(JwaKeyByKind, OtherKindsAreRefused) {
    for (const char* kind : {"P-521", "P-224", "RSA-1024", "RSA-2047", "RSA-3072", "RSA-PSS", "ed25519"})
        EXPECT_EQ(refusal(publicText(kind)), OTHER_KIND) << kind;
}

TEST_F(JwaKeyByKind, OtherCurvesOfTheSameSizeAreRefused) {
    for (const char* curve : {"secp256k1", "brainpoolP256r1", "brainpoolP256t1", "brainpoolP384r1"}) {
        openssl(std::string("ecparam -genkey -noout -name ") + curve + " -out key");
        openssl("pkey -in key -pubout -out other");
        EXPECT_EQ(refusal(content("other")), OTHER_KIND) << curve;
    }
}

TEST_F(JwaKeyByKind, CurveThatIsWrittenOutIsRefused) {
    for (const char* kind : {"P-256", "P-384"}) {
        openssl("pkey -pubin -in " + publicPEM(kind) + " -pubout -ec_param_enc explicit -out explicit");
        EXPECT_EQ(refusal(content("explicit")), OTHER_KIND) << kind;
    }
}

TEST_F(JwaKeyByKind, SmallPublicExponentsAreRefused) {
    for (const BN_ULONG exponent : {0, 1, 2})
        EXPECT_EQ(refusal(rsaText(exponent)), OTHER_KIND) << exponent;
}

TEST_F(JwaKeyByKind, KeysThatAreWrongInThemselvesAreRefused) {
    EXPECT_PRED2(startsWith, refusal(rsaText(4)), NOT_SOUND) << "an even exponent";
    EXPECT_PRED2(startsWith, refusal(rsaText(65537, 1)), NOT_SOUND) << "an even modulus";
}

TEST_F(JwaKeyByKind, PointOffTheCurveIsRefused) {
    openssl("pkey -pubin -in " + publicPEM("P-256") + " -pubout -outform DER -out der");
    std::string der = content("der");
    der.back() = static_cast<char>(der.back() ^ 1);
    write("der", der);
    openssl("base64 -in der -out base64");
    const std::string failure =
        refusal("-----BEGIN PUBLIC KEY-----\n" + content("base64") + "-----END PUBLIC KEY-----\n");
    EXPECT_PRED2(startsWith, failure, NOT_READ);
}

TEST_F(JwaKeyByKind, TextWithoutAPublicKeyIsRefused) {
    const std::string key = publicText("P-256");
    const std::string texts[] = {"",
                                 "\n",
                                 "no PEM",
                                 key.substr(0, key.size() / 2),
                                 key.substr(key.find('\n') + 1),
                                 TempFolder::contentOf(privatePEM("P-256")),
                                 "-----BEGIN PUBLIC KEY-----\n-----END PUBLIC KEY-----\n",
                                 "-----BEGIN PUBLIC KEY-----\nAAAA\n-----END PUBLIC KEY-----\n"};
    for (const std::string& text : texts)
        EXPECT_PRED2(startsWith, refusal(text), NOT_READ) << text;
}

TEST_F(JwaKeyByKind, RSAKeyMayBeInItsOlderForm) {
    openssl("rsa -in " + privatePEM("RSA-2048") + " -RSAPublicKey_out -out pkcs1");
    EXPECT_EQ(loaded(content("pkcs1")), "RS256");
}

TEST_F(JwaKeyByKind, OtherTextsAndBlocksMayComeFirst) {
    const std::string text = "a note\n" + TempFolder::contentOf(privatePEM("RSA-2048")) + publicText("P-384");
    EXPECT_EQ(loaded(text), "ES384");
}

TEST_F(JwaKeyByKind, EncryptedBlockFailsWithoutAPrompt) {
    std::string text = publicText("P-256");
    text.insert(text.find('\n') + 1,
                "Proc-Type: 4,ENCRYPTED\nDEK-Info: AES-128-CBC,00000000000000000000000000000000\n\n");
    EXPECT_PRED2(startsWith, refusal(text), NOT_READ);
}

TEST_F(JwaKeyByKind, EarlierErrorsDoNotReachTheText) {
    polluteErrorQueue();
    EXPECT_EQ(refusal(""), "49 String not valid : PEM_read_bio_PUBKEY: error:1E08010C:DECODER routines::unsupported");
    const std::string unsound = refusal(rsaText(4));
    polluteErrorQueue();
    EXPECT_EQ(refusal(rsaText(4)), unsound);
}

}  // namespace
