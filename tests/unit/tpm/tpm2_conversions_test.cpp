// tpm2_conversions_test.cpp: TPM structures as OpenSSL objects, and their byte forms. No TPM takes part.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <tss2/tss2_tpm2_types.h>

#include <algorithm>
#include <functional>
#include <string>
#include <type_traits>
#include <vector>

#include "tpm/tpm2_attestor.h"
#include "unit/record_collector.h"
#include "unit/tpm/tpm_fixture.h"

namespace {

using testing::StartsWith;

// The base point of the curve (SEC 2, 2.4.2), which is the public key of the private key 1.
const std::string BASE_X = "6b17d1f2e12c4247f8bce6e563a440f277037d812deb33a0f4a13945d898c296";
const std::string BASE_Y = "4fe342e2fe1a7f9b8ee7eb4a7c0f9e162bce33576b315ececbb6406837bf51f5";

// SubjectPublicKeyInfo of a P-256 key up to the point (RFC 5480, 2).
const std::string SPKI_HEAD = "3059301306072a8648ce3d020106082a8648ce3d03010703420004";

const std::string BASE_PEM = "-----BEGIN PUBLIC KEY-----\n"
                             "MFkwEwYHKoZIzj0CAQYIKoZIzj0DAQcDQgAEaxfR8uEsQkf4vOblY6RA8ncDfYEt\n"
                             "6zOg9KE5RdiYwpZP40Li/hp/m47n60p8D54WK84zV2sxXs7LtkBoN79R9Q==\n"
                             "-----END PUBLIC KEY-----\n";

TPM2B_ECC_PARAMETER parameter(const std::string& digits) {
    const Bytes bytes = fromHex(digits);
    TPM2B_ECC_PARAMETER result{};
    result.size = static_cast<UINT16>(bytes.size());
    std::copy(bytes.begin(), bytes.end(), result.buffer);
    // what lies after the size must not matter
    std::fill(result.buffer + bytes.size(), std::end(result.buffer), static_cast<BYTE>(0xee));
    return result;
}

TPMT_PUBLIC eccKey(const std::string& x = BASE_X, const std::string& y = BASE_Y) {
    TPMT_PUBLIC result{};
    result.type = TPM2_ALG_ECC;
    result.parameters.eccDetail.curveID = TPM2_ECC_NIST_P256;
    result.unique.ecc.x = parameter(x);
    result.unique.ecc.y = parameter(y);
    return result;
}

TPMT_SIGNATURE ecdsa(const std::string& r, const std::string& s) {
    TPMT_SIGNATURE result{};
    result.sigAlg = TPM2_ALG_ECDSA;
    result.signature.ecdsa.hash = TPM2_ALG_SHA256;
    result.signature.ecdsa.signatureR = parameter(r);
    result.signature.ecdsa.signatureS = parameter(s);
    return result;
}

// errorText is OpenSSL's text of an error code.
std::string errorText(unsigned long code) {
    char text[256];
    ERR_error_string_n(code, text, sizeof(text));
    return text;
}

// Conversions has no error queued from elsewhere, and two errors appear in the queue with each injected failure.
class Conversions : public testing::Test {
protected:
    Conversions() { ERR_clear_error(); }

    // fail makes a call fail as OpenSSL would, and returns the text of the innermost error.
    static std::string fail(const std::string& function, int code = 0, int call = 1) {
        g_oFaults.fail(function, static_cast<uint32_t>(code), call);
        g_oFaults.before(function, [call, seen = 0]() mutable {
            if (++seen == call) {
                ERR_raise(ERR_LIB_BN, ERR_R_MALLOC_FAILURE);
                ERR_raise(ERR_LIB_EC, ERR_R_INTERNAL_ERROR);
            }
        });
        return errorText(ERR_PACK(ERR_LIB_BN, 0, ERR_R_MALLOC_FAILURE));
    }

    Lines lines() const { return m_oRecords.lines(); }

    RecordCollector m_oRecords{"orv.tally"};
    FaultsOff m_oFaultsOff;
};

// --- eccPubkeyToOssl

TEST_F(Conversions, EccKeyBecomesOpensslKey) {
    const TPMT_PUBLIC publicArea = eccKey();
    const EC_KEY_UPtr key = TPM2Attestor::eccPubkeyToOssl(&publicArea);
    ASSERT_TRUE(key);
    EXPECT_EQ(EC_GROUP_get_curve_name(EC_KEY_get0_group(key.get())), NID_X9_62_prime256v1);
    EXPECT_EQ(EC_KEY_check_key(key.get()), 1);
    EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(Conversions, RsaKeyIsRefusedBeforeAnyOpensslCall) {
    TPMT_PUBLIC publicArea = eccKey();
    publicArea.type = TPM2_ALG_RSA;
    EXPECT_FALSE(TPM2Attestor::eccPubkeyToOssl(&publicArea));
    EXPECT_THAT(lines(), ElementsAre("ERROR conversion to ECC key DER failed: input data is not an ECC key"));
    EXPECT_THAT(g_oFaults.calls(), IsEmpty());
}

TEST_F(Conversions, OtherCurvesAreRefused) {
    for (const TPM2_ECC_CURVE curve : {TPM2_ECC_NONE, TPM2_ECC_NIST_P192, TPM2_ECC_NIST_P224, TPM2_ECC_NIST_P384,
                                       TPM2_ECC_NIST_P521, TPM2_ECC_BN_P256, TPM2_ECC_SM2_P256}) {
        m_oRecords.clear();
        TPMT_PUBLIC publicArea = eccKey();
        publicArea.parameters.eccDetail.curveID = curve;
        EXPECT_FALSE(TPM2Attestor::eccPubkeyToOssl(&publicArea));
        EXPECT_THAT(lines(), ElementsAre("ERROR conversion to ECC key DER failed: unknown curve ID")) << curve;
    }
    EXPECT_THAT(g_oFaults.calls(), IsEmpty());
}

TEST_F(Conversions, TypeIsTestedBeforeCurve) {
    TPMT_PUBLIC publicArea{};
    EXPECT_FALSE(TPM2Attestor::eccPubkeyToOssl(&publicArea));
    EXPECT_THAT(lines(), ElementsAre("ERROR conversion to ECC key DER failed: input data is not an ECC key"));
}

// opensslRefusal is the first error of OpenSSL when it gets these coordinates.
std::string opensslRefusal(const TPMT_PUBLIC& publicArea) {
    const Unseen unseen;
    ERR_clear_error();
    EC_KEY* const key = EC_KEY_new_by_curve_name(NID_X9_62_prime256v1);
    BIGNUM* const x = BN_bin2bn(publicArea.unique.ecc.x.buffer, publicArea.unique.ecc.x.size, nullptr);
    BIGNUM* const y = BN_bin2bn(publicArea.unique.ecc.y.buffer, publicArea.unique.ecc.y.size, nullptr);
    EXPECT_NE(EC_KEY_set_public_key_affine_coordinates(key, x, y), 1);
    const std::string result = errorText(ERR_get_error());
    BN_free(x);
    BN_free(y);
    EC_KEY_free(key);
    ERR_clear_error();
    return result;
}

TEST_F(Conversions, PointThatIsNotOnTheCurveIsRefused) {
    const struct {
        const char* what;
        TPMT_PUBLIC publicArea;
    } ROWS[] = {
        {"y changed", eccKey(BASE_X, BASE_Y.substr(0, 62) + "f6")},
        {"x and y swapped", eccKey(BASE_Y, BASE_X)},
        {"both empty, which is the number 0", eccKey("", "")},
        {"y empty", eccKey(BASE_X, "")},
        {"as long as the structure allows", eccKey(std::string(256, 'f'), std::string(256, 'f'))},
        {"x beyond the field", eccKey(std::string(64, 'f'), BASE_Y)},
    };
    for (const auto& row : ROWS) {
        m_oRecords.clear();
        const std::string reason = opensslRefusal(row.publicArea);
        EXPECT_FALSE(TPM2Attestor::eccPubkeyToOssl(&row.publicArea)) << row.what;
        EXPECT_THAT(lines(), ElementsAre("ERROR failed to set the public part of ECC key: " + reason)) << row.what;
    }
}

TEST_F(Conversions, CoordinatesHaveTheirOwnSizes) {
    // The public keys of the private keys 379 and 43: the one's x and the other's y begin with a zero byte.
    const std::string x379 = "5543894af3d00ed7d740abdbd75c96b06877b787db5f70eea78b90a8d7c00a";
    const std::string y379 = "bb4c85a3d8ea29efaafa24406912dd84d5b14dc32bf656ef6c6bd58a5d943f92";
    const std::string x43 = "986ae2506f1ff104d04230861d8f4b498f4bc4c6d009b30f7544dc129b82d28d";
    const std::string y43 = "3cccc0a6460e0ae328a4d97d3c7b61d86fc6289c189f2525110c441bb07e97";
    const struct {
        std::string x;
        std::string y;
        std::string point;
    } ROWS[] = {
        {x379, y379, "00" + x379 + y379},
        {"00" + x379, y379, "00" + x379 + y379},
        {x43, y43, x43 + "00" + y43},
        {x43, "0000" + y43, x43 + "00" + y43},
        {"0000" + BASE_X, "00" + BASE_Y, BASE_X + BASE_Y},
    };
    for (const auto& row : ROWS) {
        const TPMT_PUBLIC publicArea = eccKey(row.x, row.y);
        EXPECT_EQ(hex(TPM2Attestor::toDER(TPM2Attestor::eccPubkeyToOssl(&publicArea))), SPKI_HEAD + row.point);
    }
    EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(Conversions, EachFailedOpensslCallOfAKeyIsRecorded) {
    const struct {
        const char* function;
        int call;
        const char* record;
    } ROWS[] = {
        {"EC_KEY_new_by_curve_name", 1, "failed to create new ECC key by curve ID: "},
        {"BN_bin2bn", 1, "failed to create new ECC key points: "},
        {"BN_bin2bn", 2, "failed to create new ECC key points: "},
        {"EC_KEY_set_public_key_affine_coordinates", 1, "failed to set the public part of ECC key: "},
    };
    const TPMT_PUBLIC publicArea = eccKey();
    for (const auto& row : ROWS) {
        m_oRecords.clear();
        g_oFaults.reset();
        const std::string reason = fail(row.function, 0, row.call);
        EXPECT_FALSE(TPM2Attestor::eccPubkeyToOssl(&publicArea));
        EXPECT_THAT(lines(), ElementsAre("ERROR " + (row.record + reason))) << row.function << row.call;
    }
}

// --- toPEM, toDER of a key

TEST_F(Conversions, KeyBecomesAPemBlock) {
    const TPMT_PUBLIC publicArea = eccKey();
    EXPECT_EQ(TPM2Attestor::toPEM(TPM2Attestor::eccPubkeyToOssl(&publicArea)), BASE_PEM);
    EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(Conversions, KeyBecomesDer) {
    const TPMT_PUBLIC publicArea = eccKey();
    EXPECT_EQ(hex(TPM2Attestor::toDER(TPM2Attestor::eccPubkeyToOssl(&publicArea))), SPKI_HEAD + BASE_X + BASE_Y);
    EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(Conversions, OpensslToolReadsBothForms) {
    const TempFolder folder;
    const TPMT_PUBLIC publicArea = eccKey();
    const EC_KEY_UPtr key = TPM2Attestor::eccPubkeyToOssl(&publicArea);
    folder.write("key.pem", TPM2Attestor::toPEM(key));
    folder.write("key.der", asText(TPM2Attestor::toDER(key)));
    EXPECT_EQ(tool("openssl pkey -pubin -in " + folder / "key.pem"), BASE_PEM);
    EXPECT_EQ(tool("openssl pkey -pubin -inform DER -in " + folder / "key.der"), BASE_PEM);
}

TEST_F(Conversions, NullKeyAsPemEndsInOpenssl) {
    EXPECT_EQ(TPM2Attestor::toPEM(EC_KEY_UPtr()), "");
    EXPECT_THAT(lines(), ElementsAre(StartsWith("ERROR failed to write ECC public key to PEM memory buffer: error:")));
    EXPECT_EQ(g_oFaults.made("PEM_write_bio_EC_PUBKEY"), 1U);
}

TEST_F(Conversions, NullKeyAsDerIsEmptyWithoutRecord) {
    EXPECT_EQ(TPM2Attestor::toDER(EC_KEY_UPtr()), Bytes());
    EXPECT_THAT(lines(), IsEmpty());
    EXPECT_THAT(g_oFaults.calls(), IsEmpty());
}

TEST_F(Conversions, EachFailedOpensslCallOfPemIsRecorded) {
    const struct {
        const char* function;
        int code;
        const char* record;
    } ROWS[] = {
        {"BIO_new", 0, "failed to create PEM memory buffer: "},
        {"PEM_write_bio_EC_PUBKEY", 0, "failed to write ECC public key to PEM memory buffer: "},
        {"PEM_write_bio_EC_PUBKEY", -1, "failed to write ECC public key to PEM memory buffer: "},
    };
    const TPMT_PUBLIC publicArea = eccKey();
    const EC_KEY_UPtr key = TPM2Attestor::eccPubkeyToOssl(&publicArea);
    for (const auto& row : ROWS) {
        m_oRecords.clear();
        g_oFaults.reset();
        const std::string reason = fail(row.function, row.code);
        EXPECT_EQ(TPM2Attestor::toPEM(key), "");
        EXPECT_THAT(lines(), ElementsAre("ERROR " + (row.record + reason))) << row.function << row.code;
    }
}

TEST_F(Conversions, FailedOpensslCallOfKeyDerIsRecorded) {
    const TPMT_PUBLIC publicArea = eccKey();
    const EC_KEY_UPtr key = TPM2Attestor::eccPubkeyToOssl(&publicArea);
    const std::string reason = fail("i2d_EC_PUBKEY", -1);
    EXPECT_EQ(TPM2Attestor::toDER(key), Bytes());
    EXPECT_THAT(lines(), ElementsAre("ERROR failed to serialize ECC public key to DER: " + reason));
}

// --- ecdsaToOssl, toDER of a signature

TEST_F(Conversions, SignatureBecomesDer) {
    const std::string large(64, 'f');
    const struct {
        const char* what;
        std::string r;
        std::string s;
        std::string der;
    } ROWS[] = {
        {"short numbers", "01", "02", "3006020101020102"},
        {"a top bit gets a zero byte in front", "80", "7f", "300702020080" + std::string("02017f")},
        {"leading zero bytes go", "00000001", "0002", "3006020101020102"},
        {"empty is the number 0", "", "", "3006020100020100"},
        {"as the TPM returns them", large, BASE_X, "3045022100" + large + "0220" + BASE_X},
    };
    for (const auto& row : ROWS) {
        const TPMT_SIGNATURE signature = ecdsa(row.r, row.s);
        const ECDSA_SIG_UPtr converted = TPM2Attestor::ecdsaToOssl(&signature);
        ASSERT_TRUE(converted) << row.what;
        EXPECT_EQ(hex(TPM2Attestor::toDER(converted)), row.der) << row.what;
    }
    EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(Conversions, HashOfTheSignatureDoesNotMatter) {
    for (const TPMI_ALG_HASH hash : {TPM2_ALG_SHA1, TPM2_ALG_SHA384, TPM2_ALG_NULL}) {
        TPMT_SIGNATURE signature = ecdsa("01", "02");
        signature.signature.ecdsa.hash = hash;
        EXPECT_TRUE(TPM2Attestor::ecdsaToOssl(&signature)) << hash;
    }
    EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(Conversions, SignatureOfAnotherSchemeIsRefused) {
    for (const TPMI_ALG_SIG_SCHEME scheme : {TPM2_ALG_RSASSA, TPM2_ALG_RSAPSS, TPM2_ALG_ECDAA, TPM2_ALG_SM2,
                                             TPM2_ALG_ECSCHNORR, TPM2_ALG_HMAC, TPM2_ALG_NULL}) {
        m_oRecords.clear();
        TPMT_SIGNATURE signature = ecdsa("01", "02");
        signature.sigAlg = scheme;
        EXPECT_FALSE(TPM2Attestor::ecdsaToOssl(&signature));
        EXPECT_THAT(lines(),
                    ElementsAre("ERROR conversion to ECDSA signature failed: input data is not an ECDSA signature"))
            << scheme;
    }
    EXPECT_THAT(g_oFaults.calls(), IsEmpty());
}

TEST_F(Conversions, EachFailedOpensslCallOfASignatureIsRecorded) {
    const struct {
        const char* function;
        int call;
        const char* record;
    } ROWS[] = {
        {"ECDSA_SIG_new", 1, "failed to create new ECDS signature: "},
        {"BN_bin2bn", 1, "failed to create new ECDSA signature points: "},
        {"BN_bin2bn", 2, "failed to create new ECDSA signature points: "},
        {"ECDSA_SIG_set0", 1, "failed to set the ECDSA signature points: "},
    };
    const TPMT_SIGNATURE signature = ecdsa("01", "02");
    for (const auto& row : ROWS) {
        m_oRecords.clear();
        g_oFaults.reset();
        const std::string reason = fail(row.function, 0, row.call);
        EXPECT_FALSE(TPM2Attestor::ecdsaToOssl(&signature));
        EXPECT_THAT(lines(), ElementsAre("ERROR " + (row.record + reason))) << row.function << row.call;
    }
}

TEST_F(Conversions, NullSignatureAsDerIsEmptyWithoutRecord) {
    EXPECT_EQ(TPM2Attestor::toDER(ECDSA_SIG_UPtr()), Bytes());
    EXPECT_THAT(lines(), IsEmpty());
    EXPECT_THAT(g_oFaults.calls(), IsEmpty());
}

TEST_F(Conversions, EachFailedOpensslCallOfSignatureDerIsRecorded) {
    const TPMT_SIGNATURE signature = ecdsa("01", "02");
    const ECDSA_SIG_UPtr converted = TPM2Attestor::ecdsaToOssl(&signature);
    for (const int call : {1, 2}) {
        for (const int code : {0, -1}) {
            m_oRecords.clear();
            g_oFaults.reset();
            const std::string reason = fail("i2d_ECDSA_SIG", code, call);
            EXPECT_EQ(TPM2Attestor::toDER(converted), Bytes());
            EXPECT_THAT(lines(), ElementsAre("ERROR failed to serialize ECDSA signature to DER: " + reason))
                << call << code;
        }
    }
}

// --- all five

TEST_F(Conversions, ErrorThatOtherCodeLeftIsNotReported) {
    const TPMT_PUBLIC publicArea = eccKey();
    const TPMT_SIGNATURE signature = ecdsa("01", "02");
    const EC_KEY_UPtr key = TPM2Attestor::eccPubkeyToOssl(&publicArea);
    const ECDSA_SIG_UPtr converted = TPM2Attestor::ecdsaToOssl(&signature);
    const struct {
        const char* function;
        int code;
        const char* record;
        std::function<void()> convert;
    } ROWS[] = {
        {"EC_KEY_new_by_curve_name", 0, "failed to create new ECC key by curve ID: ",
         [&] { EXPECT_FALSE(TPM2Attestor::eccPubkeyToOssl(&publicArea)); }},
        {"BIO_new", 0, "failed to create PEM memory buffer: ", [&] { EXPECT_EQ(TPM2Attestor::toPEM(key), ""); }},
        {"i2d_EC_PUBKEY", -1,
         "failed to serialize ECC public key to DER: ", [&] { EXPECT_EQ(TPM2Attestor::toDER(key), Bytes()); }},
        {"ECDSA_SIG_new", 0,
         "failed to create new ECDS signature: ", [&] { EXPECT_FALSE(TPM2Attestor::ecdsaToOssl(&signature)); }},
        {"i2d_ECDSA_SIG", -1,
         "failed to serialize ECDSA signature to DER: ", [&] { EXPECT_EQ(TPM2Attestor::toDER(converted), Bytes()); }},
    };
    for (const auto& row : ROWS) {
        m_oRecords.clear();
        g_oFaults.reset();
        ERR_clear_error();
        ERR_raise(ERR_LIB_RSA, ERR_R_INTERNAL_ERROR);
        const std::string reason = fail(row.function, row.code);
        row.convert();
        EXPECT_THAT(lines(), ElementsAre("ERROR " + (row.record + reason))) << row.function;
    }
}

// --- holders

TEST(OpensslHolders, AreMoveOnlyAndNullWhenEmpty) {
    static_assert(!std::is_copy_constructible_v<EC_KEY_UPtr> && std::is_nothrow_move_constructible_v<EC_KEY_UPtr>);
    static_assert(!std::is_copy_constructible_v<ECDSA_SIG_UPtr> &&
                  std::is_nothrow_move_constructible_v<ECDSA_SIG_UPtr>);
    EXPECT_EQ(EC_KEY_UPtr().get(), nullptr);
    EXPECT_EQ(ECDSA_SIG_UPtr().get(), nullptr);
}

}  // namespace
