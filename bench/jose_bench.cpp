// Signing and verifying compact JWS texts beside OpenSSL alone and two JOSE libraries, in one run with the same keys.
//
// The payload is a small grant, the header has `alg` and `typ` (libjwt always writes the latter). The candidates:
//
//     EVP          OpenSSL's signature alone: from the signing input to the bytes of RFC 7518 and back, so with the
//                  conversion between DER and r and s side by side for ECDSA. No text is made or read. It is used
//                  in its quickest form, without the copy of the context that OpenSSL else makes at the end.
//     EVPCompact   the same, from header and payload to the compact text and back, but nothing is read as JSON.
//     Ours         jws::sign of a payload of bytes under a header tree; jws::verify into header tree and bytes.
//     OursJSON     the same with a payload tree, which is printed and parsed.
//     Cjose        cjose, with a payload of bytes: to be compared with Ours.
//     Libjwt       libjwt, which knows payload trees only: to be compared with OursJSON. It has no key objects: the PEM
//                  text is read at each call, as its callers have to put up with.
//
// Keys, trees and whatever else a caller would keep are made beforehand. jws::verify takes no HMAC key, as OpenSSL has
// no verifying with one, so HMAC is only signed. Each candidate's result is checked once before it is timed.

#include <benchmark/benchmark.h>
#include <cjose/cjose.h>
#include <jwt.h>
#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/base64.h"
#include "foundation/json.h"
#include "jose/jwa.h"
#include "jose/jws.h"
#include "least_time.h"

namespace {

using Bytes = std::vector<unsigned char>;

constexpr jwa::Algo ALGORITHMS[] = {jwa::HS256, jwa::HS384, jwa::HS512, jwa::ES256,
                                    jwa::ES384, jwa::RS256, jwa::RS384, jwa::RS512};

// Printed as ours prints it, so that candidates with and without a tree sign the same bytes. Only libjwt, which prints
// without blanks, signs a dozen fewer.
constexpr const char* PAYLOAD = R"({ "features": [ { "name": "video-wall", "params": { "outputs": 4 }, )"
                                R"("validUntil": "2027-01-01T00:00:00Z" } ], "serial": "0000abcd" })";

struct Deleter {
    void operator()(BIGNUM* number) const { BN_free(number); }
    void operator()(BIO* bio) const { BIO_free(bio); }
    void operator()(ECDSA_SIG* signature) const { ECDSA_SIG_free(signature); }
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
    void operator()(cjose_jwk_t* key) const { cjose_jwk_release(key); }
    void operator()(cjose_jws_t* text) const { cjose_jws_release(text); }
    void operator()(json_t* header) const { cjose_header_release(header); }
    void operator()(jwt_t* token) const { jwt_free(token); }
    void operator()(char* text) const { free(text); }
};

template <class T>
using Holder = std::unique_ptr<T, Deleter>;

void require(bool good, const char* what) {
    if (!good)
        throw std::runtime_error(what);
}

bool isHMAC(jwa::Algo algo) {
    return algo <= jwa::HS512;
}
bool isECDSA(jwa::Algo algo) {
    return algo >= jwa::ES256 && algo <= jwa::ES512;
}

const unsigned char* bytesOf(std::string_view text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}
std::string_view textOf(const Bytes& bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

// --- Keys, in the form of each candidate ---

constexpr std::string_view HMAC_SECRET = "a secret of sixty-four bytes, as many as SHA-512 gives as result";

// makeKey fills `key`, as keys must not be moved.
void makeKey(jwa::Algo algo, jwa::Key& key) {
    if (isHMAC(algo))
        key.setHMAC(algo, bytesOf(HMAC_SECRET), HMAC_SECRET.size());
    else
        key.set(algo, isECDSA(algo) ? EVP_EC_gen(algo == jwa::ES256 ? "P-256" : "P-384") : EVP_RSA_gen(2048));
    key.checkKey();
}

std::string textOf(BIO* bio) {
    char* data = nullptr;
    const long size = BIO_get_mem_data(bio, &data);
    return std::string(data, static_cast<size_t>(size));
}

std::string privatePEM(EVP_PKEY* key) {
    const Holder<BIO> bio(BIO_new(BIO_s_mem()));
    require(PEM_write_bio_PrivateKey(bio.get(), key, nullptr, nullptr, 0, nullptr, nullptr), "private PEM");
    return textOf(bio.get());
}

std::string publicPEM(EVP_PKEY* key) {
    const Holder<BIO> bio(BIO_new(BIO_s_mem()));
    require(PEM_write_bio_PUBKEY(bio.get(), key), "public PEM");
    return textOf(bio.get());
}

// jwkNumber returns one number of a key as a member of a JWK (RFC 7518, section 6), at least `size` bytes long.
std::string jwkNumber(const char* member, EVP_PKEY* key, const char* parameter, int size) {
    BIGNUM* made = nullptr;
    require(EVP_PKEY_get_bn_param(key, parameter, &made), parameter);
    const Holder<BIGNUM> number(made);
    Bytes bytes(static_cast<size_t>(std::max(size, BN_num_bytes(made))));
    BN_bn2binpad(made, bytes.data(), static_cast<int>(bytes.size()));
    return std::string(",\"") + member + "\":\"" + orv::base64EncodeURLSafe(bytes.data(), bytes.size()) + '"';
}

std::string jwkOf(const jwa::Key& key) {
    if (isHMAC(key.algo()))
        return R"({"kty":"oct","k":")" + orv::base64EncodeURLSafe(bytesOf(HMAC_SECRET), HMAC_SECRET.size()) + "\"}";
    struct Number {
        const char* member;
        const char* parameter;
    };
    static constexpr Number RSA_NUMBERS[] = {
        {"n", OSSL_PKEY_PARAM_RSA_N},          {"e", OSSL_PKEY_PARAM_RSA_E},
        {"d", OSSL_PKEY_PARAM_RSA_D},          {"p", OSSL_PKEY_PARAM_RSA_FACTOR1},
        {"q", OSSL_PKEY_PARAM_RSA_FACTOR2},    {"dp", OSSL_PKEY_PARAM_RSA_EXPONENT1},
        {"dq", OSSL_PKEY_PARAM_RSA_EXPONENT2}, {"qi", OSSL_PKEY_PARAM_RSA_COEFFICIENT1}};
    static constexpr Number EC_NUMBERS[] = {
        {"x", OSSL_PKEY_PARAM_EC_PUB_X}, {"y", OSSL_PKEY_PARAM_EC_PUB_Y}, {"d", OSSL_PKEY_PARAM_PRIV_KEY}};
    std::string jwk;
    if (isECDSA(key.algo())) {
        jwk = std::string(R"({"kty":"EC","crv":")") + (key.algo() == jwa::ES256 ? "P-256" : "P-384") + '"';
        for (const Number& number : EC_NUMBERS)
            jwk += jwkNumber(number.member, key.pkey(), number.parameter, (EVP_PKEY_bits(key.pkey()) + 7) / 8);
    } else {
        jwk = R"({"kty":"RSA")";
        for (const Number& number : RSA_NUMBERS)
            jwk += jwkNumber(number.member, key.pkey(), number.parameter, 1);
    }
    return jwk + '}';
}

// Material is what a caller of one algorithm keeps, for all candidates.
struct Material {
    explicit Material(jwa::Algo wanted);

    jwa::Algo algo;
    const EVP_MD* digest;
    jwa::Key key;
    std::string headerText;
    JSON::root header;
    std::string payloadText = PAYLOAD;
    JSON::root payload;

    // text is the compact text that is verified, with its parts as EVP wants them.
    std::string text;
    std::string signingInput;
    Bytes signature;

    Holder<cjose_jwk_t> cjoseKey;
    Holder<json_t> cjoseHeader;

    Holder<jwt_t> libjwtToken;
    std::string libjwtPublicKey;
};

const EVP_MD* digestOf(jwa::Algo algo) {
    const std::string_view bits = std::string_view(jwa::name(algo)).substr(2);
    return bits == "256" ? EVP_sha256() : bits == "384" ? EVP_sha384() : EVP_sha512();
}

Holder<json_t> makeCjoseHeader(const char* algo) {
    Holder<json_t> header(cjose_header_new(nullptr));
    require(cjose_header_set(header.get(), CJOSE_HDR_ALG, algo, nullptr), "cjose header");
    require(cjose_header_set(header.get(), "typ", "JWT", nullptr), "cjose header");
    return header;
}

Holder<jwt_t> makeLibjwtToken(const jwa::Key& key) {
    const std::string secret = isHMAC(key.algo()) ? std::string(HMAC_SECRET) : privatePEM(key.pkey());
    jwt_t* made = nullptr;
    require(jwt_new(&made) == 0, "jwt_new");
    Holder<jwt_t> token(made);
    require(jwt_set_alg(made, jwt_str_alg(jwa::name(key.algo())), bytesOf(secret), static_cast<int>(secret.size())) ==
                0,
            "jwt_set_alg");
    require(jwt_add_grants_json(made, PAYLOAD) == 0, "jwt_add_grants_json");
    return token;
}

Material::Material(jwa::Algo wanted) : algo(wanted), digest(digestOf(wanted)) {
    makeKey(algo, key);
    headerText = std::string(R"({ "alg": ")") + jwa::name(algo) + R"(", "typ": "JWT" })";
    header = JSON::parse(headerText);
    payload = JSON::parse(payloadText);

    text = jws::sign(header.get(), payloadText, key);
    signingInput = text.substr(0, text.rfind('.'));
    signature = orv::base64DecodeURLSafe(text.data() + signingInput.size(), text.size() - signingInput.size());

    const std::string jwk = jwkOf(key);
    cjoseKey.reset(cjose_jwk_import(jwk.data(), jwk.size(), nullptr));
    require(cjoseKey != nullptr, "cjose_jwk_import");
    cjoseHeader = makeCjoseHeader(jwa::name(algo));

    libjwtToken = makeLibjwtToken(key);
    if (!isHMAC(algo))
        libjwtPublicKey = publicPEM(key.pkey());
}

const Material& materialOf(jwa::Algo algo) {
    static std::map<jwa::Algo, Material> all;
    return all.try_emplace(algo, algo).first->second;
}

// --- OpenSSL alone ---

std::string encodeURLSafe(std::string_view bytes) {
    std::string text(4 * ((bytes.size() + 2) / 3), '\0');
    EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()), bytesOf(bytes), static_cast<int>(bytes.size()));
    std::replace(text.begin(), text.end(), '+', '-');
    std::replace(text.begin(), text.end(), '/', '_');
    text.resize(std::min(text.find('='), text.size()));
    return text;
}

Bytes decodeURLSafe(std::string_view segment) {
    std::string text(segment);
    std::replace(text.begin(), text.end(), '-', '+');
    std::replace(text.begin(), text.end(), '_', '/');
    text.resize((text.size() + 3) / 4 * 4, '=');
    Bytes bytes(3 * (text.size() / 4));
    require(EVP_DecodeBlock(bytes.data(), bytesOf(text), static_cast<int>(text.size())) >= 0, "EVP_DecodeBlock");
    bytes.resize(3 * segment.size() / 4);
    return bytes;
}

Bytes rawOf(const unsigned char* der, size_t size, size_t rawSize) {
    const Holder<ECDSA_SIG> signature(d2i_ECDSA_SIG(nullptr, &der, static_cast<long>(size)));
    const int half = static_cast<int>(rawSize / 2);
    Bytes raw(rawSize);
    BN_bn2binpad(ECDSA_SIG_get0_r(signature.get()), raw.data(), half);
    BN_bn2binpad(ECDSA_SIG_get0_s(signature.get()), raw.data() + half, half);
    return raw;
}

Bytes derOf(const Bytes& raw) {
    const int half = static_cast<int>(raw.size() / 2);
    const Holder<ECDSA_SIG> signature(ECDSA_SIG_new());
    ECDSA_SIG_set0(signature.get(), BN_bin2bn(raw.data(), half, nullptr), BN_bin2bn(raw.data() + half, half, nullptr));
    unsigned char* made = nullptr;
    const int size = i2d_ECDSA_SIG(signature.get(), &made);
    Bytes der(made, made + size);
    OPENSSL_free(made);
    return der;
}

Bytes signEVP(const Material& material, std::string_view input) {
    const Holder<EVP_MD_CTX> context(EVP_MD_CTX_new());
    unsigned char buffer[256];
    size_t size = sizeof buffer;
    require(EVP_DigestSignInit(context.get(), nullptr, material.digest, nullptr, material.key.pkey()) == 1,
            "EVP_DigestSignInit");
    EVP_MD_CTX_set_flags(context.get(), EVP_MD_CTX_FLAG_FINALISE);
    require(EVP_DigestSign(context.get(), buffer, &size, bytesOf(input), input.size()) == 1, "EVP_DigestSign");
    if (isECDSA(material.algo))
        return rawOf(buffer, size, jwa::signatureSize(material.algo));
    return Bytes(buffer, buffer + size);
}

bool verifyEVP(const Material& material, std::string_view input, const Bytes& signature) {
    const Holder<EVP_MD_CTX> context(EVP_MD_CTX_new());
    require(EVP_DigestVerifyInit(context.get(), nullptr, material.digest, nullptr, material.key.pkey()) == 1,
            "EVP_DigestVerifyInit");
    EVP_MD_CTX_set_flags(context.get(), EVP_MD_CTX_FLAG_FINALISE);
    const auto verify = [&](const Bytes& form) {
        return EVP_DigestVerify(context.get(), form.data(), form.size(), bytesOf(input), input.size()) == 1;
    };
    return isECDSA(material.algo) ? verify(derOf(signature)) : verify(signature);
}

// --- Signing: each gives the signature or the compact text ---

Bytes signWithEVP(const Material& material) {
    return signEVP(material, material.signingInput);
}

std::string signWithEVPCompact(const Material& material) {
    std::string text = encodeURLSafe(material.headerText) + '.' + encodeURLSafe(material.payloadText);
    const Bytes signature = signEVP(material, text);
    return text + '.' + encodeURLSafe(textOf(signature));
}

std::string signWithOurs(const Material& material) {
    return jws::sign(material.header.get(), material.payloadText, material.key);
}

std::string signWithOursJSON(const Material& material) {
    return jws::sign(material.header.get(), material.payload.get(), material.key);
}

std::string signWithCjose(const Material& material) {
    const Holder<cjose_jws_t> token(cjose_jws_sign(material.cjoseKey.get(), material.cjoseHeader.get(),
                                                   bytesOf(material.payloadText), material.payloadText.size(),
                                                   nullptr));
    const char* text = nullptr;  // stays the token's
    require(token && cjose_jws_export(token.get(), &text, nullptr), "cjose");
    return text;
}

Holder<char> signWithLibjwt(const Material& material) {
    return Holder<char>(jwt_encode_str(material.libjwtToken.get()));
}

// --- Verifying: each gives the payload, or whether the signature is good ---

bool verifyWithEVP(const Material& material) {
    return verifyEVP(material, material.signingInput, material.signature);
}

Bytes verifyWithEVPCompact(const Material& material) {
    const std::string_view text = material.text;
    const size_t first = text.find('.');
    const size_t second = text.find('.', first + 1);
    benchmark::DoNotOptimize(decodeURLSafe(text.substr(0, first)));
    if (!verifyEVP(material, text.substr(0, second), decodeURLSafe(text.substr(second + 1))))
        return Bytes();
    return decodeURLSafe(text.substr(first + 1, second - first - 1));
}

Bytes verifyWithOurs(const Material& material) {
    JSON::root header;
    Bytes payload;
    jws::verify(material.text, header, payload, material.key);
    return payload;
}

JSON::root verifyWithOursJSON(const Material& material) {
    JSON::root header;
    JSON::root payload;
    return jws::verify(material.text, header, payload, material.key) ? std::move(payload) : nullptr;
}

Bytes verifyWithCjose(const Material& material) {
    const Holder<cjose_jws_t> token(cjose_jws_import(material.text.data(), material.text.size(), nullptr));
    uint8_t* payload = nullptr;  // stays the token's
    size_t size = 0;
    if (!token || !cjose_jws_verify(token.get(), material.cjoseKey.get(), nullptr) ||
        !cjose_jws_get_plaintext(token.get(), &payload, &size, nullptr))
        return Bytes();
    return Bytes(payload, payload + size);
}

Holder<jwt_t> verifyWithLibjwt(const Material& material) {
    jwt_t* token = nullptr;
    jwt_decode(&token, material.text.c_str(), bytesOf(material.libjwtPublicKey),
               static_cast<int>(material.libjwtPublicKey.size()));
    return Holder<jwt_t>(token);
}

// --- Whether they did their work ---

// isGood tells whether a signature is that of the signing input. OpenSSL verifies no HMAC, which is always the same.
bool isGood(const Material& material, std::string_view input, const Bytes& signature) {
    return isHMAC(material.algo) ? signature == signEVP(material, input) : verifyEVP(material, input, signature);
}

bool isSignature(const Material& material, const Bytes& signature) {
    return isGood(material, material.signingInput, signature);
}

bool prints(const JSON::root& tree, const std::string& expected) {
    std::string text;
    if (tree != nullptr)
        tree->stringify(text, -1);
    return text == expected;
}

// isCompact tells whether it is a signed text of header and payload, however their blanks and members are set.
bool isCompact(const Material& material, const char* given) {
    const std::string text = given == nullptr ? "" : given;
    const size_t dot = text.rfind('.');
    return dot != std::string::npos && prints(jws::getJOSEHeader(text), material.headerText) &&
           prints(jws::getPayload(text), material.payloadText) &&
           isGood(material, text.substr(0, dot), decodeURLSafe(text.substr(dot + 1)));
}

bool isCompactText(const Material& material, const std::string& text) {
    return isCompact(material, text.c_str());
}
bool isCompactChars(const Material& material, const Holder<char>& text) {
    return isCompact(material, text.get());
}

bool isTrue(const Material&, bool good) {
    return good;
}

bool isPayload(const Material& material, const Bytes& payload) {
    return textOf(payload) == material.payloadText;
}

bool isPayloadTree(const Material& material, const JSON::root& payload) {
    return prints(payload, material.payloadText);
}

bool isLibjwtPayload(const Material& material, const Holder<jwt_t>& token) {
    if (!token)
        return false;
    const Holder<char> text(jwt_get_grants_json(token.get(), nullptr));
    return text && isPayloadTree(material, JSON::parse(text.get()));
}

// --- Registering ---

template <class Job, class Check>
void add(jwa::Algo algo, const char* what, const char* candidate, Job job, Check check) {
    const std::string name = std::string(what) + '/' + jwa::name(algo) + '/' + candidate;
    benchmark::RegisterBenchmark(name.c_str(), [algo, job, check](benchmark::State& state) {
        const Material& material = materialOf(algo);
        if (!check(material, job(material))) {
            state.SkipWithError("wrong result");
            return;
        }
        for (auto _ : state)
            benchmark::DoNotOptimize(job(material));
    })->Apply(tellLeastTime);
}

void addSigning(jwa::Algo algo) {
    add(algo, "Sign", "EVP", signWithEVP, isSignature);
    add(algo, "Sign", "EVPCompact", signWithEVPCompact, isCompactText);
    add(algo, "Sign", "Ours", signWithOurs, isCompactText);
    add(algo, "Sign", "OursJSON", signWithOursJSON, isCompactText);
    add(algo, "Sign", "Cjose", signWithCjose, isCompactText);
    add(algo, "Sign", "Libjwt", signWithLibjwt, isCompactChars);
}

void addVerifying(jwa::Algo algo) {
    add(algo, "Verify", "EVP", verifyWithEVP, isTrue);
    add(algo, "Verify", "EVPCompact", verifyWithEVPCompact, isPayload);
    add(algo, "Verify", "Ours", verifyWithOurs, isPayload);
    add(algo, "Verify", "OursJSON", verifyWithOursJSON, isPayloadTree);
    add(algo, "Verify", "Cjose", verifyWithCjose, isPayload);
    add(algo, "Verify", "Libjwt", verifyWithLibjwt, isLibjwtPayload);
}

bool addAll() {
    for (const jwa::Algo algo : ALGORITHMS) {
        addSigning(algo);
        if (!isHMAC(algo))
            addVerifying(algo);
    }
    return true;
}

[[maybe_unused]] const bool gs_bAdded = addAll();

}  // namespace

BENCHMARK_MAIN();
