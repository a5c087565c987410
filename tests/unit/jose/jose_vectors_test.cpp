// jose_vectors_test.cpp: keys and signatures of RFC 7515, RFC 7520, RFC 6979 and RFC 4231, and tokens that went through
// the openssl command.

#include <gtest/gtest.h>
#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "foundation/base64.h"
#include "foundation/json.h"
#include "foundation/string_utils.h"
#include "jose/jwa.h"
#include "jose/jws.h"
#include "unit/jose/jose_fixture.h"

namespace {

std::string vectorText(const std::string& name) {
    const std::string text = TempFolder::contentOf(std::string(JOSE_VECTORS) + "/" + name);
    if (text.empty())
        throw std::runtime_error("vector " + name + " is missing");
    return text;
}

JSON::root vectorJSON(const std::string& name) {
    JSON::root value = JSON::parse(vectorText(name));
    if (!value)
        throw std::runtime_error("vector " + name + " is not JSON");
    return value;
}

std::string member(const JSON& object, const std::string& key) {
    const std::string* text = jsonText(object.get(key));
    return text ? *text : throw std::runtime_error("no member " + key);
}

Bytes decoded(const std::string& text) {
    return orv::base64DecodeURLSafe(text.data(), text.size());
}

std::string encoded(const Bytes& bytes) {
    return orv::base64EncodeURLSafe(bytes.data(), bytes.size());
}

// --- A JSON Web Key (RFC 7518, section 6) as an EVP key, by OpenSSL alone ---

struct ParamDeleter {
    void operator()(OSSL_PARAM* params) const { OSSL_PARAM_free(params); }
    void operator()(OSSL_PARAM_BLD* builder) const { OSSL_PARAM_BLD_free(builder); }
    void operator()(EVP_PKEY_CTX* context) const { EVP_PKEY_CTX_free(context); }
    void operator()(BIGNUM* number) const { BN_clear_free(number); }
};

class KeyBuilder {
public:
    void number(const char* name, const Bytes& bytes) {
        m_aNumbers.emplace_back(BN_bin2bn(bytes.data(), static_cast<int>(bytes.size()), nullptr));
        OSSL_PARAM_BLD_push_BN(m_pBuilder.get(), name, m_aNumbers.back().get());
    }
    void octets(const char* name, const Bytes& bytes) {
        OSSL_PARAM_BLD_push_octet_string(m_pBuilder.get(), name, bytes.data(), bytes.size());
    }
    void text(const char* name, const char* value) {
        OSSL_PARAM_BLD_push_utf8_string(m_pBuilder.get(), name, value, 0);
    }

    PkeyHolder key(const char* type, bool isPrivate) {
        const std::unique_ptr<OSSL_PARAM, ParamDeleter> params(OSSL_PARAM_BLD_to_param(m_pBuilder.get()));
        const std::unique_ptr<EVP_PKEY_CTX, ParamDeleter> context(EVP_PKEY_CTX_new_from_name(nullptr, type, nullptr));
        EVP_PKEY* key = nullptr;
        EVP_PKEY_fromdata_init(context.get());
        EVP_PKEY_fromdata(context.get(), &key, isPrivate ? EVP_PKEY_KEYPAIR : EVP_PKEY_PUBLIC_KEY, params.get());
        return key ? PkeyHolder(key) : throw std::runtime_error("OpenSSL takes no such key");
    }

private:
    std::unique_ptr<OSSL_PARAM_BLD, ParamDeleter> m_pBuilder{OSSL_PARAM_BLD_new()};
    std::vector<std::unique_ptr<BIGNUM, ParamDeleter>> m_aNumbers;
};

PkeyHolder rsaKey(const JSON& jwk, bool isPrivate) {
    const struct {
        const char* name;
        const char* member;
    } parts[] = {{OSSL_PKEY_PARAM_RSA_N, "n"},          {OSSL_PKEY_PARAM_RSA_E, "e"},
                 {OSSL_PKEY_PARAM_RSA_D, "d"},          {OSSL_PKEY_PARAM_RSA_FACTOR1, "p"},
                 {OSSL_PKEY_PARAM_RSA_FACTOR2, "q"},    {OSSL_PKEY_PARAM_RSA_EXPONENT1, "dp"},
                 {OSSL_PKEY_PARAM_RSA_EXPONENT2, "dq"}, {OSSL_PKEY_PARAM_RSA_COEFFICIENT1, "qi"}};
    KeyBuilder builder;
    for (size_t i = 0; i < (isPrivate ? std::size(parts) : 2); i++)
        builder.number(parts[i].name, decoded(member(jwk, parts[i].member)));
    return builder.key("RSA", isPrivate);
}

PkeyHolder ecKey(const std::string& curve, const Bytes& x, const Bytes& y, const Bytes& d) {
    Bytes point = {4};
    point.insert(point.end(), x.begin(), x.end());
    point.insert(point.end(), y.begin(), y.end());
    KeyBuilder builder;
    builder.text(OSSL_PKEY_PARAM_GROUP_NAME, curve.c_str());
    builder.octets(OSSL_PKEY_PARAM_PUB_KEY, point);
    if (!d.empty())
        builder.number(OSSL_PKEY_PARAM_PRIV_KEY, d);
    return builder.key("EC", !d.empty());
}

PkeyHolder keyOf(const JSON& jwk, bool isPrivate) {
    if (member(jwk, "kty") == "RSA")
        return rsaKey(jwk, isPrivate);
    return ecKey(member(jwk, "crv"), decoded(member(jwk, "x")), decoded(member(jwk, "y")),
                 isPrivate ? decoded(member(jwk, "d")) : Bytes());
}

std::string derOf(const PkeyHolder& key, bool isPrivate) {
    unsigned char* buffer = nullptr;
    const int size = isPrivate ? i2d_PrivateKey(key.get(), &buffer) : i2d_PUBKEY(key.get(), &buffer);
    const std::string der(reinterpret_cast<const char*>(buffer), static_cast<size_t>(std::max(size, 0)));
    OPENSSL_free(buffer);
    return der;
}

jwa::Key loadedPrivate(jwa::Algo algo, const PkeyHolder& key) {
    const std::string der = derOf(key, true);
    jwa::Key result;
    result.loadPrivateKeyDER(algo, der.data(), static_cast<int>(der.size()));
    return jwa::Key(std::as_const(result));
}

jwa::Key loadedPublic(jwa::Algo algo, const PkeyHolder& key) {
    const std::string der = derOf(key, false);
    jwa::Key result;
    result.loadPublicKeyDER(algo, der.data(), static_cast<int>(der.size()));
    return jwa::Key(std::as_const(result));
}

// --- Tokens ---

struct Token {
    explicit Token(const std::string& name)
        : jwk(vectorJSON(name + ".jwk")), text(trim(vectorText(name + ".jws"))), dot(text.rfind('.')) {}

    std::string signingInput() const { return text.substr(0, dot); }
    Bytes signature() const { return decoded(text.substr(dot + 1)); }
    std::string header() const { return asText(decoded(text.substr(0, text.find('.')))); }
    std::string payload() const {
        const size_t begin = text.find('.') + 1;
        return asText(decoded(text.substr(begin, dot - begin)));
    }

    JSON::root jwk;
    std::string text;
    size_t dot;
};

struct VectorRow {
    const char* name;
    jwa::Algo algo;
    size_t size;  // of the signature
};

const VectorRow VECTORS[] = {
    {"rfc7515_a1", jwa::HS256, 32},  {"rfc7515_a2", jwa::RS256, 256},  {"rfc7515_a3", jwa::ES256, 64},
    {"rfc7515_a4", jwa::ES512, 132}, {"rfc7520_4_1", jwa::RS256, 256}, {"rfc7520_4_3", jwa::ES512, 132},
    {"rfc7520_4_4", jwa::HS256, 32}, {"es512_short", jwa::ES512, 128},
};

const std::string RFC7515_PAYLOAD =
    "{\"iss\":\"joe\",\r\n \"exp\":1300819380,\r\n \"http://example.com/is_root\":true}";
const std::string RFC7520_PAYLOAD =
    "It\xe2\x80\x99s a dangerous business, Frodo, going out your door. You step onto the "
    "road, and if you don't keep your feet, there\xe2\x80\x99s no knowing where you might "
    "be swept off to.";

class JoseVectors : public Jose {
protected:
    // toolVerifies has the openssl command verify a raw signature.
    bool toolVerifies(const PkeyHolder& key, jwa::Algo algo, const std::string& message, const Bytes& signature) const {
        write("public.der", derOf(key, false));
        write("message", message);
        write("signature", asText(isEC(algo) ? derOfRaw(signature) : signature));
        const ToolResult result = runTool("openssl dgst -" + digestName(algo) + " -verify " + path("public.der") +
                                          " -keyform DER -signature " + path("signature") + " " + path("message"));
        return result.status == 0 && result.output == "Verified OK\n";
    }

    std::string toolHMAC(jwa::Algo algo, const std::string& keyDigits, const std::string& message) const {
        write("message", message);
        openssl("dgst -" + digestName(algo) + " -mac HMAC -macopt hexkey:" + keyDigits + " -binary -out mac message");
        return content("mac");
    }

    // toolToken makes a token with the openssl command's signature; the header has just the algorithm.
    std::string toolToken(jwa::Algo algo, const std::string& payload) const {
        const std::string input =
            encoded(asBytes(std::string(R"({"alg":")") + jwa::name(algo) + "\"}")) + "." + encoded(asBytes(payload));
        privatePEM(kindOf(algo));
        write("message", input);
        openssl("dgst -" + digestName(algo) + " -sign " + kindOf(algo) + ".pem -out signature message");
        const Bytes signature = asBytes(content("signature"));
        return input + "." + encoded(isEC(algo) ? rawOfDER(signature, jwa::signatureSize(algo) / 2) : signature);
    }
};

std::string hexDigits(const Bytes& bytes) {
    std::string digits;
    for (const unsigned char byte : bytes) {
        digits += "0123456789abcdef"[byte >> 4];
        digits += "0123456789abcdef"[byte & 15];
    }
    return digits;
}

}  // namespace

// A typing error in a vector must not make another test look right.
TEST_F(JoseVectors, OpensslCommandAcceptsEachToken) {
    for (const VectorRow& row : VECTORS) {
        const Token token(row.name);
        ASSERT_EQ(token.signature().size(), row.size) << row.name;
        if (isHMAC(row.algo)) {
            EXPECT_EQ(toolHMAC(row.algo, hexDigits(decoded(member(*token.jwk, "k"))), token.signingInput()),
                      asText(token.signature()))
                << row.name;
        } else {
            EXPECT_TRUE(toolVerifies(keyOf(*token.jwk, false), row.algo, token.signingInput(), token.signature()))
                << row.name;
        }
    }
}

TEST_F(JoseVectors, HeadersAndPayloadsAreThoseOfTheRFCs) {
    const struct {
        const char* name;
        const char* header;
        std::string payload;
    } rows[] = {
        {"rfc7515_a1", "{\"typ\":\"JWT\",\r\n \"alg\":\"HS256\"}", RFC7515_PAYLOAD},
        {"rfc7515_a2", R"({"alg":"RS256"})", RFC7515_PAYLOAD},
        {"rfc7515_a3", R"({"alg":"ES256"})", RFC7515_PAYLOAD},
        {"rfc7515_a4", R"({"alg":"ES512"})", "Payload"},
        {"rfc7520_4_1", R"({"alg":"RS256","kid":"bilbo.baggins@hobbiton.example"})", RFC7520_PAYLOAD},
        {"rfc7520_4_3", R"({"alg":"ES512","kid":"bilbo.baggins@hobbiton.example"})", RFC7520_PAYLOAD},
        {"rfc7520_4_4", R"({"alg":"HS256","kid":"018c0ae5-4d9b-471b-bfd6-eef314bc7037"})", RFC7520_PAYLOAD},
    };
    for (const auto& row : rows) {
        const Token token(row.name);
        EXPECT_EQ(token.header(), row.header);
        EXPECT_EQ(token.payload(), row.payload);
        const JSON::root header = jws::getJOSEHeader(token.text);
        ASSERT_NE(header, nullptr) << row.name;
        EXPECT_NE(std::string(row.header).find(header->get("alg")->toString()), std::string::npos);
        EXPECT_EQ(jws::getPayload(token.text) != nullptr, row.payload == RFC7515_PAYLOAD) << row.name;
    }
}

TEST_F(JoseVectors, TokensOfRSAAndES256Verify) {
    for (const char* name : {"rfc7515_a2", "rfc7515_a3", "rfc7520_4_1"}) {
        const Token token(name);
        const jwa::Algo algo = member(*token.jwk, "kty") == "RSA" ? jwa::RS256 : jwa::ES256;
        const jwa::Key key = loadedPublic(algo, keyOf(*token.jwk, false));
        JSON::root header;
        std::string payload;
        EXPECT_TRUE(jws::verify(token.text, header, payload, key)) << name;
        EXPECT_EQ(payload, token.payload());
        ASSERT_NE(header, nullptr);
        EXPECT_EQ(header->get("alg")->toString(), jwa::name(algo));
        EXPECT_TRUE(jwa::verify(token.signingInput().data(), token.dot, key, token.signature()));
        EXPECT_TRUE(jws::verify(token.text, header, payload, loadedPrivate(algo, keyOf(*token.jwk, true))));
    }
}

TEST_F(JoseVectors, PEMFilesOfTheKeysLoadToo) {
    const Token token("rfc7515_a3");
    FILE* file = fopen(path("public").c_str(), "w");
    PEM_write_PUBKEY(file, keyOf(*token.jwk, false).get());
    fclose(file);
    jwa::Key key;
    key.loadPublicKey(jwa::ES256, path("public"));
    JSON::root header;
    JSON::root payload;
    EXPECT_TRUE(jws::verify(token.text, header, payload, key));
    EXPECT_EQ(payload->get("iss")->toString(), "joe");
}

TEST_F(JoseVectors, SignaturesOfRSAAndHMACAreReproduced) {
    for (const VectorRow& row : VECTORS) {
        if (isEC(row.algo))
            continue;
        const Token token(row.name);
        const jwa::Key key = isHMAC(row.algo) ? hmacKey(row.algo, asText(decoded(member(*token.jwk, "k"))))
                                              : loadedPrivate(row.algo, keyOf(*token.jwk, true));
        EXPECT_EQ(jwa::sign(token.signingInput().data(), token.dot, key), token.signature()) << row.name;
    }
}

TEST_F(JoseVectors, HMACTokensAreNotVerified) {
    for (const char* name : {"rfc7515_a1", "rfc7520_4_4"}) {
        const Token token(name);
        JSON::root header;
        std::string payload = "untouched";
        EXPECT_FALSE(
            jws::verify(token.text, header, payload, hmacKey(jwa::HS256, asText(decoded(member(*token.jwk, "k"))))));
        EXPECT_NE(header, nullptr);
        EXPECT_EQ(payload, "untouched");
    }
}

TEST_F(JoseVectors, ES512TokensOf132BytesAreFalse) {
    for (const char* name : {"rfc7515_a4", "rfc7520_4_3"}) {
        const Token token(name);
        const jwa::Key key = loadedPublic(jwa::ES512, keyOf(*token.jwk, false));
        JSON::root header;
        std::string payload = "untouched";
        EXPECT_FALSE(jws::verify(token.text, header, payload, key)) << name;
        EXPECT_EQ(payload, "untouched");
        EXPECT_EQ(header->get("alg")->toString(), "ES512");
    }
}

TEST_F(JoseVectors, ES512TokenOf128BytesVerifies) {
    const Token token("es512_short");
    JSON::root header;
    JSON::root payload;
    const jwa::Key key = loadedPublic(jwa::ES512, keyOf(*token.jwk, false));
    EXPECT_TRUE(jws::verify(token.text, header, payload, key));
    EXPECT_NE(payload->get("short"), nullptr);
    std::string changed = token.text;
    changed.back() = changed.back() == 'A' ? 'Q' : 'A';
    EXPECT_FALSE(jws::verify(changed, header, payload, key));
}

TEST_F(JoseVectors, EveryTokenFailsUnderEveryOtherKey) {
    for (const VectorRow& row : VECTORS) {
        const Token token(row.name);
        for (const VectorRow& other : VECTORS) {
            if (isHMAC(other.algo) || std::string(other.name) == row.name)
                continue;
            const jwa::Key key = loadedPublic(other.algo, keyOf(*Token(other.name).jwk, false));
            JSON::root header;
            std::string payload;
            EXPECT_FALSE(jws::verify(token.text, header, payload, key)) << row.name << " under " << other.name;
        }
    }
}

TEST_F(JoseVectors, ES256TokenIsSignedAgainWithItsKey) {
    const Token token("rfc7515_a3");
    const jwa::Key key = loadedPrivate(jwa::ES256, keyOf(*token.jwk, true));
    const std::string text = jws::sign(JSON::parse(token.header()).get(), token.payload(), key);
    const size_t dot = text.rfind('.');
    EXPECT_TRUE(toolVerifies(keyOf(*token.jwk, false), jwa::ES256, text.substr(0, dot), decoded(text.substr(dot + 1))));
    EXPECT_NE(text, token.text) << "ECDSA is random";
}

// --- RFC 6979 and RFC 4231 ---

TEST_F(JoseVectors, SignaturesOfRFC6979Verify) {
    const JSON::root list = vectorJSON("rfc6979.json");
    ASSERT_EQ(list->size(), 4u);
    for (const JSON::root& row : list->values()) {
        const jwa::Algo algo = member(*row, "alg") == "ES256" ? jwa::ES256 : jwa::ES384;
        const auto bytes = [&](const char* key) { return fromBase16(member(*row, key)); };
        const PkeyHolder key = ecKey(member(*row, "crv"), bytes("x"), bytes("y"), bytes("d"));
        Bytes signature = bytes("r");
        const Bytes s = bytes("s");
        signature.insert(signature.end(), s.begin(), s.end());
        const std::string message = member(*row, "message");
        ASSERT_TRUE(toolVerifies(key, algo, message, signature)) << "a typing error in the vector";
        EXPECT_TRUE(jwa::verify(message.data(), message.size(), loadedPublic(algo, key), signature));
        EXPECT_FALSE(jwa::verify(message.data(), message.size() - 1, loadedPublic(algo, key), signature));
        const Bytes ours = jwa::sign(message.data(), message.size(), loadedPrivate(algo, key));
        EXPECT_TRUE(toolVerifies(key, algo, message, ours));
    }
}

TEST_F(JoseVectors, ValuesOfRFC4231AreReproduced) {
    const JSON::root list = vectorJSON("rfc4231.json");
    ASSERT_EQ(list->size(), 6u);
    for (const JSON::root& row : list->values()) {
        const std::string data = asText(fromBase16(member(*row, "data")));
        for (const jwa::Algo algo : HMAC_ALGOS) {
            const std::string expected = member(*row, jwa::name(algo));
            EXPECT_EQ(hexDigits(asBytes(toolHMAC(algo, member(*row, "key"), data))), expected);
            const jwa::Key key = hmacKey(algo, asText(fromBase16(member(*row, "key"))));
            EXPECT_EQ(hexDigits(jwa::sign(data.data(), data.size(), key)), expected) << member(*row, "section");
        }
    }
}

// --- Tokens of the openssl command, and ours held against it ---

TEST_F(JoseVectors, TokensOfTheOpensslCommandVerify) {
    const std::string payload = "{\"a\":\"\xc3\xa4\"}";
    for (const jwa::Algo algo : {jwa::ES256, jwa::ES384, jwa::RS256, jwa::RS384, jwa::RS512}) {
        const std::string token = toolToken(algo, payload);
        const jwa::Key key = publicKey(algo, kindOf(algo));
        JSON::root header;
        std::string text;
        Bytes bytes;
        JSON::root value;
        EXPECT_TRUE(jws::verify(token, header, text, key)) << jwa::name(algo);
        EXPECT_EQ(text, payload);
        EXPECT_TRUE(jws::verify(token, header, bytes, key));
        EXPECT_EQ(asText(bytes), payload);
        EXPECT_TRUE(jws::verify(token, header, value, key));
        EXPECT_EQ(value->get("a")->toString(), "\xc3\xa4");
    }
}

TEST_F(JoseVectors, OpensslCommandVerifiesOurTokens) {
    const std::string payload("bytes\0\xff\r\n", 9);
    for (const jwa::Algo algo : {jwa::ES256, jwa::ES384, jwa::RS256, jwa::RS384, jwa::RS512}) {
        const jwa::Key key = privateKey(algo, kindOf(algo));
        const JSON::root header = JSON::Object();
        header->set("alg", JSON::String(jwa::name(algo)));
        const std::string token = jws::sign(header.get(), payload, key);
        const size_t dot = token.rfind('.');
        const PkeyHolder holder(newReference(key));
        EXPECT_TRUE(toolVerifies(holder, algo, token.substr(0, dot), decoded(token.substr(dot + 1))))
            << jwa::name(algo);
        EXPECT_FALSE(toolVerifies(holder, algo, token.substr(0, dot - 1), decoded(token.substr(dot + 1))));
    }
}
