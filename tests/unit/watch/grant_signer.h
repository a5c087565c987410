// grant_signer.h: keys, signatures and grants for tests, made by OpenSSL alone so that they are a second opinion on our
// own code.
#pragma once

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

namespace signer {

inline const std::string ALPHABET = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";

// PAYLOAD is that of a good grant.
inline const std::string PAYLOAD = R"({"serial":"0000abcd","features":[{"name":"a"}]})";

template <class T, void (*FREE)(T*)>
struct Deleter {
    void operator()(T* object) const noexcept { FREE(object); }
};
using Key = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY, EVP_PKEY_free>>;
using Context = std::unique_ptr<EVP_MD_CTX, Deleter<EVP_MD_CTX, EVP_MD_CTX_free>>;
using Signature = std::unique_ptr<ECDSA_SIG, Deleter<ECDSA_SIG, ECDSA_SIG_free>>;

// Kind is an algorithm for grants.
struct Kind {
    const char* name;
    const EVP_MD* (*digest)();
    int half;  // the bytes of r and of s; 0 for RSA
};
inline constexpr Kind ES256 = {"ES256", EVP_sha256, 32};
inline constexpr Kind ES384 = {"ES384", EVP_sha384, 48};
inline constexpr Kind RS256 = {"RS256", EVP_sha256, 0};
inline constexpr Kind KINDS[] = {ES256, ES384, RS256};

inline Key makeKey(const std::string& type) {
    if (type.starts_with("RSA-"))
        return Key(EVP_RSA_gen(static_cast<unsigned>(std::stoi(type.substr(4)))));
    return Key(type == "ED25519" ? EVP_PKEY_Q_keygen(nullptr, nullptr, type.c_str()) : EVP_EC_gen(type.c_str()));
}

// keyOf returns the key of this type and number, which is made once.
inline EVP_PKEY* keyOf(const std::string& type, int number = 0) {
    static std::map<std::pair<std::string, int>, Key> keys;
    Key& key = keys[{type, number}];
    if (!key)
        key = makeKey(type);
    if (!key)
        throw std::runtime_error("no key of type " + type);
    return key.get();
}

// publicRSA returns a public key of this RSA key's modulus, with `exponent` in place of its own.
inline Key publicRSA(EVP_PKEY* key, unsigned exponent) {
    BIGNUM* modulus = nullptr;
    EVP_PKEY_get_bn_param(key, OSSL_PKEY_PARAM_RSA_N, &modulus);
    OSSL_PARAM_BLD* builder = OSSL_PARAM_BLD_new();
    OSSL_PARAM_BLD_push_BN(builder, OSSL_PKEY_PARAM_RSA_N, modulus);
    OSSL_PARAM_BLD_push_uint(builder, OSSL_PKEY_PARAM_RSA_E, exponent);
    OSSL_PARAM* parameters = OSSL_PARAM_BLD_to_param(builder);
    EVP_PKEY_CTX* context = EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr);
    EVP_PKEY* made = nullptr;
    const bool good =
        EVP_PKEY_fromdata_init(context) == 1 && EVP_PKEY_fromdata(context, &made, EVP_PKEY_PUBLIC_KEY, parameters) == 1;
    EVP_PKEY_CTX_free(context);
    OSSL_PARAM_free(parameters);
    OSSL_PARAM_BLD_free(builder);
    BN_free(modulus);
    if (!good)
        throw std::runtime_error("OpenSSL makes no RSA key of these numbers");
    return Key(made);
}

// explicitEC returns a new key of this curve that spells the curve out by its parameters.
inline Key explicitEC(const char* curve) {
    Key key(EVP_EC_gen(curve));
    EVP_PKEY_set_utf8_string_param(key.get(), OSSL_PKEY_PARAM_EC_ENCODING, OSSL_PKEY_EC_ENCODING_EXPLICIT);
    return key;
}

inline const char* typeOf(const Kind& kind) {
    return kind.half == 0 ? "RSA-2048" : kind.half == 32 ? "P-256" : "P-384";
}

inline std::string pemOf(const std::function<int(FILE*)>& write) {
    char* text = nullptr;
    size_t size = 0;
    FILE* const stream = open_memstream(&text, &size);
    const int result = write(stream);
    fclose(stream);
    const std::string pem(text, size);
    free(text);
    if (result != 1)
        throw std::runtime_error("OpenSSL writes no PEM");
    return pem;
}

inline std::string publicPEM(EVP_PKEY* key) {
    return pemOf([key](FILE* stream) { return PEM_write_PUBKEY(stream, key); });
}

// privatePEM is encrypted if there is a password.
inline std::string privatePEM(EVP_PKEY* key, const std::string& password = "") {
    const EVP_CIPHER* cipher = password.empty() ? nullptr : EVP_aes_128_cbc();
    const auto* bytes = reinterpret_cast<const unsigned char*>(password.data());
    return pemOf([&](FILE* stream) {
        return PEM_write_PrivateKey(stream, key, cipher, bytes, static_cast<int>(password.size()), nullptr, nullptr);
    });
}

// base64url returns `bytes` as RFC 7515 writes them.
inline std::string base64url(const std::string& bytes) {
    std::string text;
    unsigned bits = 0;
    int count = 0;
    for (const char byte : bytes) {
        bits = bits << 8 | static_cast<unsigned char>(byte);
        for (count += 8; count >= 6; count -= 6)
            text += ALPHABET[bits >> (count - 6) & 63];
    }
    return count == 0 ? text : text + ALPHABET[bits << (6 - count) & 63];
}

// plainSignature returns OpenSSL's own form, DER where it is ECDSA.
inline std::string plainSignature(EVP_PKEY* key, const EVP_MD* digest, const std::string& text) {
    const Context context(EVP_MD_CTX_new());
    const auto* data = reinterpret_cast<const unsigned char*>(text.data());
    std::string signature(1024, '\0');
    size_t size = signature.size();
    if (EVP_DigestSignInit(context.get(), nullptr, digest, nullptr, key) != 1 ||
        EVP_DigestSign(context.get(), reinterpret_cast<unsigned char*>(signature.data()), &size, data, text.size()) !=
            1)
        throw std::runtime_error("OpenSSL does not sign");
    signature.resize(size);
    return signature;
}

// signatureOf returns the signature as it stands in a grant.
inline std::string signatureOf(const Kind& kind, EVP_PKEY* key, const std::string& text) {
    const std::string plain = plainSignature(key, kind.digest(), text);
    if (kind.half == 0)
        return plain;
    const auto* der = reinterpret_cast<const unsigned char*>(plain.data());
    const Signature signature(d2i_ECDSA_SIG(nullptr, &der, static_cast<long>(plain.size())));
    std::string raw(static_cast<size_t>(kind.half) * 2, '\0');
    auto* out = reinterpret_cast<unsigned char*>(raw.data());
    BN_bn2binpad(ECDSA_SIG_get0_r(signature.get()), out, kind.half);
    BN_bn2binpad(ECDSA_SIG_get0_s(signature.get()), out + kind.half, kind.half);
    return raw;
}

inline std::string headerOf(const std::string& algorithm) {
    return R"({"alg":")" + algorithm + R"("})";
}

inline std::string signingInput(const std::string& header, const std::string& payload) {
    return base64url(header) + "." + base64url(payload);
}

// grantBy signs `payload` under `header` with this key.
inline std::string grantBy(EVP_PKEY* key, const Kind& kind, const std::string& header, const std::string& payload) {
    const std::string text = signingInput(header, payload);
    return text + "." + base64url(signatureOf(kind, key, text));
}

// grant signs with the first key of that kind.
inline std::string grant(const Kind& kind, const std::string& header, const std::string& payload) {
    return grantBy(keyOf(typeOf(kind)), kind, header, payload);
}

inline std::string grant(const Kind& kind, const std::string& payload) {
    return grant(kind, headerOf(kind.name), payload);
}

inline std::string grant(const std::string& payload) {
    return grant(ES256, payload);
}

}  // namespace signer
