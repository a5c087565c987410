#include "watch/grant.h"

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>

#include <memory>
#include <utility>

#include "foundation/json.h"
#include "jose/jws.h"
#include "runtime/orv_error.h"

namespace {

constexpr SizeLimit KEY_LIMIT = {64 * 1024, "64 KiB"};
constexpr int RSA_BITS = 2048;
constexpr BN_ULONG LEAST_RSA_EXPONENT = 3;  // with 1 the signature is the message itself, and anybody can make one

struct OpenSSLDeleter {
    void operator()(BIO* stream) const noexcept { BIO_free(stream); }
    void operator()(BIGNUM* number) const noexcept { BN_free(number); }
    void operator()(EVP_PKEY* key) const noexcept { EVP_PKEY_free(key); }
    void operator()(EVP_PKEY_CTX* context) const noexcept { EVP_PKEY_CTX_free(context); }
};

template <class T>
using Holder = std::unique_ptr<T, OpenSSLDeleter>;

// noPassword is what OpenSSL calls instead of asking the terminal.
int noPassword(char*, int, int, void*) {
    return -1;
}

// parseKey returns the first public key in a PEM text, or null.
Holder<EVP_PKEY> parseKey(const std::string& pem) {
    const Holder<BIO> stream(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
    return Holder<EVP_PKEY>(stream ? PEM_read_bio_PUBKEY(stream.get(), nullptr, noPassword, nullptr) : nullptr);
}

// textOf returns a text parameter of a key; empty if it has none of that name.
std::string textOf(const EVP_PKEY* key, const char* name) {
    char text[64] = {};
    return EVP_PKEY_get_utf8_string_param(key, name, text, sizeof text, nullptr) == 1 ? text : "";
}

// hasSafeExponent returns whether an RSA key's public exponent is large enough.
bool hasSafeExponent(const EVP_PKEY* key) {
    BIGNUM* number = nullptr;
    EVP_PKEY_get_bn_param(key, OSSL_PKEY_PARAM_RSA_E, &number);
    const Holder<BIGNUM> exponent(number);
    const Holder<BIGNUM> least(BN_new());
    return exponent && least && BN_set_word(least.get(), LEAST_RSA_EXPONENT) == 1 &&
           BN_cmp(exponent.get(), least.get()) >= 0;
}

// algorithmFor returns the algorithm that the kind of a key decides on, None if grants are not signed with that kind.
jwa::Algo algorithmFor(const EVP_PKEY* key) {
    if (EVP_PKEY_is_a(key, "RSA"))
        return EVP_PKEY_get_bits(key) == RSA_BITS && hasSafeExponent(key) ? jwa::RS256 : jwa::None;
    if (!EVP_PKEY_is_a(key, "EC") || textOf(key, OSSL_PKEY_PARAM_EC_ENCODING) != OSSL_PKEY_EC_ENCODING_GROUP)
        return jwa::None;
    const std::string curve = textOf(key, OSSL_PKEY_PARAM_GROUP_NAME);
    if (curve == SN_X9_62_prime256v1)
        return jwa::ES256;
    return curve == SN_secp384r1 ? jwa::ES384 : jwa::None;
}

// isSound returns whether OpenSSL finds the key's numbers to be a public key.
bool isSound(EVP_PKEY* key) {
    const Holder<EVP_PKEY_CTX> context(EVP_PKEY_CTX_new_from_pkey(nullptr, key, nullptr));
    return context && EVP_PKEY_public_check(context.get()) == 1;
}

// takeKey makes the key of a PEM text the one to verify with, or returns why it cannot be used.
std::optional<std::string> takeKey(const std::string& pem, jwa::Key& key) {
    ERR_clear_error();
    Holder<EVP_PKEY> found = parseKey(pem);
    if (!found)
        return "there is no public key in it";
    const jwa::Algo algorithm = algorithmFor(found.get());
    if (algorithm == jwa::None)
        return "it is of no kind that grants are signed with";
    if (!isSound(found.get()))
        return "it is not a sound key";
    key.set(algorithm, found.release());
    return std::nullopt;
}

}  // namespace

std::optional<Refusal> openGrant(std::string& text, const std::string& keyPath) {
    using Kind = Refusal::Kind;
    const auto unusableKey = [&keyPath](Kind kind, const std::string& reason) {
        return Refusal{kind, "the key " + keyPath + " can't be used: " + reason};
    };
    std::string pem;
    if (const std::optional<Refusal> refusal = readWholeFile(keyPath, KEY_LIMIT, pem))
        return unusableKey(refusal->kind == Kind::MayPass ? Kind::MayPass : Kind::Unfit, refusal->reason);
    jwa::Key key;
    if (const std::optional<std::string> reason = takeKey(pem, key))
        return unusableKey(Kind::Unfit, *reason);
    JSON::root header;
    std::string payload;
    if (!jws::verify(text, header, payload, key))
        return Refusal{Kind::Unfit, "its signature is not good under the key " + keyPath};
    // RFC 7515, section 4.1.11: a header that marks members as critical is for those who know them; we know none.
    if (header->get("crit") != nullptr)
        return Refusal{Kind::Unfit, "its header has critical members"};
    text = std::move(payload);
    return std::nullopt;
}
