#include "jose/jwa.h"

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <iterator>

#include "foundation/strfmt.h"
#include "runtime/file_holder.h"
#include "runtime/openssl.h"
#include "runtime/orv_error.h"

namespace jwa {

namespace {

using Digest = const EVP_MD* (*)();

// Algorithm describes one algorithm of RFC 7518. `bits` is 0 where a key may have any size.
struct Algorithm {
    const char* name;
    size_t signatureSize;
    int keyType;
    const char* keyTypeName;
    int bits;
    Digest digest;
};

constexpr Algorithm ALGORITHMS[] = {
    {"none", 0, EVP_PKEY_NONE, "", 0, nullptr},
    {"HS256", 32, EVP_PKEY_HMAC, "HMAC", 0, EVP_sha256},
    {"HS384", 48, EVP_PKEY_HMAC, "HMAC", 0, EVP_sha384},
    {"HS512", 64, EVP_PKEY_HMAC, "HMAC", 0, EVP_sha512},
    {"ES256", 64, EVP_PKEY_EC, "EC", 256, EVP_sha256},
    {"ES384", 96, EVP_PKEY_EC, "EC", 384, EVP_sha384},
    {"ES512", 128, EVP_PKEY_EC, "EC", 521, EVP_sha512},
    {"RS256", 256, EVP_PKEY_RSA, "RSA", 2048, EVP_sha256},
    {"RS384", 256, EVP_PKEY_RSA, "RSA", 2048, EVP_sha384},
    {"RS512", 256, EVP_PKEY_RSA, "RSA", 2048, EVP_sha512},
};

const Algorithm& describe(Algo algo) {
    return ALGORITHMS[algo < std::size(ALGORITHMS) ? algo : None];
}

// opensslError returns an error with the first entry of OpenSSL's queue. Each caller of OpenSSL clears the queue first,
// so that the entry is its own.
ORVError opensslError(ORVError::Errors code, const char* call) {
    return ORVError(code, std::string(call) + ": " + takeOpenSSLError());
}

ORVError notValid(const std::string& detail) {
    return ORVError(ORVError::StringNotValid, detail);
}

// selectDigest returns the digest of the key's algorithm, and throws an error with the detail `failure` if it has none.
const EVP_MD* selectDigest(const Key& key, const char* failure) {
    const Algorithm& algorithm = describe(key.algo());
    if (algorithm.digest == nullptr)
        throw notValid(failure);
    return algorithm.digest();
}

// prepareContext makes the context at its first use and clears the error queue.
void prepareContext(DigestContext& context) {
    ERR_clear_error();
    if (!context)
        context.reset(EVP_MD_CTX_new());
    if (!context)
        throw opensslError(ORVError::NoMemory, "EVP_MD_CTX_new");
}

// finishOnce makes OpenSSL finish the message on the initialised context itself. By default it finishes a copy, which
// is of use only to those who finish the message again after an error.
void finishOnce(const DigestContext& context) {
    EVP_MD_CTX_set_flags(context.get(), EVP_MD_CTX_FLAG_FINALISE);
}

bool isECDSA(const Key& key) {
    return describe(key.algo()).keyType == EVP_PKEY_EC;
}

// noPassword is the callback that supplies no password: without one OpenSSL would prompt on the terminal.
int noPassword(char*, int, int, void*) {
    return -1;
}

using ReadPEM = EVP_PKEY* (*)(FILE*, EVP_PKEY**, pem_password_cb*, void*);

// readPEM reads a key file by `read`, OpenSSL's reader called `call`; the caller owns the key.
EVP_PKEY* readPEM(const std::string& path, ReadPEM read, const char* call) {
    const FileHolder file(fopen(path.c_str(), "re"));
    if (!file)
        throw ORVError::convertPosixError(ORVError::FileNotFound, errno, "cannot open PEM file");
    ERR_clear_error();
    EVP_PKEY* key = read(file.get(), nullptr, noPassword, nullptr);
    if (key == nullptr)
        throw opensslError(ORVError::StringNotValid, call);
    return key;
}

// typeOf returns the key's type as ALGORITHMS has it.
int typeOf(const EVP_PKEY* key) {
    if (key == nullptr)
        return EVP_PKEY_NONE;
    // HMAC keys have no base type, and an HMAC key of length 0 has no type at all.
    return EVP_PKEY_is_a(key, "HMAC") ? EVP_PKEY_HMAC : EVP_PKEY_base_id(key);
}

// parsePublicKey reads the first public key of a PEM text.
OpenSSLHolder<EVP_PKEY> parsePublicKey(const std::string& pem) {
    ERR_clear_error();
    const OpenSSLHolder<BIO> bio(BIO_new_mem_buf(pem.data(), static_cast<int>(std::min<size_t>(pem.size(), INT_MAX))));
    if (!bio)
        throw opensslError(ORVError::NoMemory, "BIO_new_mem_buf");
    OpenSSLHolder<EVP_PKEY> key(PEM_read_bio_PUBKEY(bio.get(), nullptr, noPassword, nullptr));
    if (!key)
        throw opensslError(ORVError::StringNotValid, "PEM_read_bio_PUBKEY");
    return key;
}

// isOnCurve returns whether an EC key names its curve, and names `curve`. RFC 5480, section 2.1.1, forbids writing the
// curve out as parameters, even where they equal a named one.
bool isOnCurve(const EVP_PKEY* key, const char* curve) {
    char name[64] = {};
    int explicitly = 1;
    return EVP_PKEY_get_int_param(key, OSSL_PKEY_PARAM_EC_DECODED_FROM_EXPLICIT_PARAMS, &explicitly) == 1 &&
           explicitly == 0 && EVP_PKEY_get_group_name(key, name, sizeof name, nullptr) == 1 &&
           std::strcmp(name, curve) == 0;
}

// hasSafeExponent returns whether an RSA key's public exponent is 3 or more: with 1 anybody can sign.
bool hasSafeExponent(const EVP_PKEY* key) {
    BIGNUM* exponent = nullptr;
    EVP_PKEY_get_bn_param(key, OSSL_PKEY_PARAM_RSA_E, &exponent);
    const OpenSSLHolder<BIGNUM> owner(exponent);
    return owner && BN_num_bits(exponent) > 1 && !BN_is_word(exponent, 2);
}

// algoOf returns the algorithm that follows from a public key's kind, or None.
Algo algoOf(const EVP_PKEY* key) {
    const int type = typeOf(key);
    if (type == EVP_PKEY_EC && isOnCurve(key, SN_X9_62_prime256v1))
        return ES256;
    if (type == EVP_PKEY_EC && isOnCurve(key, SN_secp384r1))
        return ES384;
    if (type == EVP_PKEY_RSA && EVP_PKEY_bits(key) == describe(RS256).bits && hasSafeExponent(key))
        return RS256;
    return None;
}

// requireSound throws if OpenSSL refuses the values of a public key: a point off its curve, a modulus with a small
// factor.
void requireSound(EVP_PKEY* key) {
    ERR_clear_error();
    const OpenSSLHolder<EVP_PKEY_CTX> context(EVP_PKEY_CTX_new_from_pkey(nullptr, key, nullptr));
    if (!context)
        throw opensslError(ORVError::NoMemory, "EVP_PKEY_CTX_new_from_pkey");
    if (EVP_PKEY_public_check(context.get()) != 1)
        throw opensslError(ORVError::StringNotValid, "EVP_PKEY_public_check");
}

// derOf returns an ECDSA signature, r and s side by side, in OpenSSL's form.
std::vector<unsigned char> derOf(const std::vector<unsigned char>& raw) {
    const int half = static_cast<int>(raw.size() / 2);
    const OpenSSLHolder<ECDSA_SIG> signature(ECDSA_SIG_new());
    if (!signature)
        throw opensslError(ORVError::NoMemory, "ECDSA_SIG_new");
    OpenSSLHolder<BIGNUM> r(BN_bin2bn(raw.data(), half, nullptr));
    OpenSSLHolder<BIGNUM> s(BN_bin2bn(raw.data() + half, half, nullptr));
    if (!r || !s)
        throw opensslError(ORVError::NoMemory, "BN_bin2bn");
    if (ECDSA_SIG_set0(signature.get(), r.get(), s.get()) != 1)
        throw opensslError(ORVError::SystemUnknown, "ECDSA_SIG_set0");
    static_cast<void>(r.release());  // both belong to the signature now
    static_cast<void>(s.release());
    const int length = i2d_ECDSA_SIG(signature.get(), nullptr);
    if (length <= 0)
        throw opensslError(ORVError::SystemUnknown, "i2d_ECDSA_SIG");
    std::vector<unsigned char> der(static_cast<size_t>(length));
    unsigned char* end = der.data();
    if (i2d_ECDSA_SIG(signature.get(), &end) != length)
        throw opensslError(ORVError::SystemUnknown, "i2d_ECDSA_SIG");
    return der;
}

}  // namespace

const char* name(Algo algo) {
    return describe(algo).name;
}

size_t signatureSize(Algo algo) {
    return describe(algo).signatureSize;
}

// --- Key ---

Key::~Key() {
    reset();
}

Key::Key(const Key& other) : m_eAlgo(other.m_eAlgo), m_pKey(other.m_pKey) {
    if (m_pKey != nullptr)
        EVP_PKEY_up_ref(m_pKey);
}

Key& Key::operator=(const Key& other) {
    if (this == &other)
        return *this;
    reset();
    m_eAlgo = other.m_eAlgo;
    m_pKey = other.m_pKey;
    if (m_pKey != nullptr)
        EVP_PKEY_up_ref(m_pKey);
    return *this;
}

// NOLINTNEXTLINE(performance-noexcept-move-constructor): containers must copy
Key::Key(Key&& other) : m_eAlgo(other.m_eAlgo), m_pKey(other.m_pKey) {
    other.reset();
}

// NOLINTNEXTLINE(performance-noexcept-move-constructor): containers must copy
Key& Key::operator=(Key&& other) {
    if (this == &other)
        return *this;
    reset();
    m_eAlgo = other.m_eAlgo;
    m_pKey = other.m_pKey;
    other.reset();
    return *this;
}

void Key::reset() {
    set(None, nullptr);
}

void Key::set(Algo algo, EVP_PKEY* key) {
    EVP_PKEY_free(m_pKey);
    m_eAlgo = algo;
    m_pKey = key;
}

void Key::setHMAC(Algo algo, const unsigned char* key, size_t length) {
    if (describe(algo).keyType != EVP_PKEY_HMAC)
        throw notValid("Algorithm must be HMAC");
    ERR_clear_error();
    // EVP_PKEY_new_mac_key refuses a key of length 0 and takes the length as an int.
    const bool countable = length > 0 && length <= INT_MAX;
    EVP_PKEY* made = countable ? EVP_PKEY_new_mac_key(EVP_PKEY_HMAC, nullptr, key, static_cast<int>(length))
                               : EVP_PKEY_new_raw_private_key(EVP_PKEY_HMAC, nullptr, key, length);
    if (made == nullptr)
        throw opensslError(ORVError::NoMemory, "EVP_PKEY_new_mac_key");
    set(algo, made);
}

void Key::checkKey() const {
    const Algorithm& algorithm = describe(m_eAlgo);
    if (algorithm.keyType == EVP_PKEY_NONE)
        return;
    if (typeOf(m_pKey) != algorithm.keyType)
        throw notValid(strfmt("key type must be %s for: %s", algorithm.keyTypeName, algorithm.name));
    if (algorithm.bits == 0 || EVP_PKEY_bits(m_pKey) == algorithm.bits)
        return;
    if (algorithm.keyType == EVP_PKEY_EC)
        throw notValid(strfmt("Wrong EC key size for: %s", algorithm.name));
    throw notValid(strfmt("RSA key size must be 2048 for: %s", algorithm.name));
}

void Key::loadPrivateKey(Algo algo, const std::string& path) {
    set(algo, readPEM(path, PEM_read_PrivateKey, "PEM_read_PrivateKey"));
    checkKey();
}

void Key::loadPublicKey(Algo algo, const std::string& path) {
    set(algo, readPEM(path, PEM_read_PUBKEY, "PEM_read_PUBKEY"));
    checkKey();
}

void Key::loadPrivateKeyDER(Algo algo, const void* data, int length) {
    const int type = describe(algo).keyType;
    if (type == EVP_PKEY_NONE)
        throw notValid("Unsupported algorithm");
    ERR_clear_error();
    const auto* position = static_cast<const unsigned char*>(data);
    EVP_PKEY* key = d2i_PrivateKey(type, nullptr, &position, std::max(length, 0));
    if (key == nullptr)
        throw opensslError(ORVError::StringNotValid, "d2i_PrivateKey");
    set(algo, key);
    checkKey();
}

void Key::loadPublicKeyDER(Algo algo, const void* data, int length) {
    if (describe(algo).keyType == EVP_PKEY_NONE)
        throw notValid("Unsupported algorithm");
    ERR_clear_error();
    const auto* position = static_cast<const unsigned char*>(data);
    EVP_PKEY* key = d2i_PUBKEY(nullptr, &position, std::max(length, 0));
    if (key == nullptr)
        throw opensslError(ORVError::StringNotValid, "d2i_PUBKEY");
    set(algo, key);
    checkKey();
}

void Key::loadPublicKeyByKind(const std::string& pem) {
    OpenSSLHolder<EVP_PKEY> key = parsePublicKey(pem);
    const Algo algo = algoOf(key.get());
    if (algo == None)
        throw notValid("key must be EC on P-256 or P-384, or RSA of 2048 bits with a public exponent of 3 or more");
    requireSound(key.get());
    set(algo, key.release());
}

// --- Signer ---

void Signer::init() {
    if (m_bInitialised)
        return;
    prepareContext(m_pContext);
    const EVP_MD* digest = selectDigest(m_oKey, "Unsupported algorithm for signing");
    const int result = EVP_DigestSignInit(m_pContext.get(), nullptr, digest, nullptr, m_oKey.pkey());
    if (result != 1)
        throw opensslError(result == -2 ? ORVError::StringNotValid : ORVError::SystemUnknown, "EVP_DigestSignInit");
    m_bInitialised = true;
    m_bFinished = false;
}

void Signer::update(const void* data, size_t length) {
    init();
    ERR_clear_error();
    if (EVP_DigestUpdate(m_pContext.get(), data, length) != 1)
        throw opensslError(ORVError::NoMemory, "EVP_DigestSignUpdate");  // kept: OpenSSL's older name of this call
}

const std::vector<unsigned char>& Signer::get() {
    if (m_bFinished)
        return m_aSignature;
    init();
    ERR_clear_error();
    if (isECDSA(m_oKey))
        finishECDSA();
    else
        finishRaw();
    m_bInitialised = false;
    m_bFinished = true;
    return m_aSignature;
}

void Signer::finishRaw() {
    size_t length = signatureSize(m_oKey.algo());
    m_aSignature.assign(length, 0);
    if (EVP_DigestSignFinal(m_pContext.get(), m_aSignature.data(), &length) != 1)
        throw opensslError(ORVError::SystemUnknown, "EVP_DigestSignFinal");
}

// finishECDSA converts OpenSSL's DER form to r and s, each padded with zeros on the left.
void Signer::finishECDSA() {
    size_t length = 0;
    if (EVP_DigestSignFinal(m_pContext.get(), nullptr, &length) != 1)
        throw opensslError(ORVError::SystemUnknown, "EVP_DigestSignFinal");
    std::vector<unsigned char> der(length);
    if (EVP_DigestSignFinal(m_pContext.get(), der.data(), &length) != 1)
        throw opensslError(ORVError::SystemUnknown, "EVP_DigestSignFinal");
    const unsigned char* position = der.data();
    const OpenSSLHolder<ECDSA_SIG> signature(d2i_ECDSA_SIG(nullptr, &position, static_cast<long>(length)));
    if (!signature)
        throw opensslError(ORVError::SystemUnknown, "d2i_ECDSA_SIG");
    const BIGNUM *r, *s;
    ECDSA_SIG_get0(signature.get(), &r, &s);
    m_aSignature.assign(signatureSize(m_oKey.algo()), 0);
    const int half = static_cast<int>(m_aSignature.size() / 2);
    if (BN_bn2binpad(r, m_aSignature.data(), half) < 0 || BN_bn2binpad(s, m_aSignature.data() + half, half) < 0)
        throw opensslError(ORVError::SystemUnknown, "BN_bn2binpad");
}

// --- Verifier ---

void Verifier::init() {
    if (m_bInitialised)
        return;
    prepareContext(m_pContext);
    const EVP_MD* digest = selectDigest(m_oKey, "Unsupported algorithm for verifying");
    const int result = EVP_DigestVerifyInit(m_pContext.get(), nullptr, digest, nullptr, m_oKey.pkey());
    if (result != 1)
        throw opensslError(result == -2 ? ORVError::StringNotValid : ORVError::NoMemory, "EVP_DigestVerifyInit");
    m_bInitialised = true;
}

void Verifier::update(const void* data, size_t length) {
    init();
    ERR_clear_error();
    if (EVP_DigestUpdate(m_pContext.get(), data, length) != 1)
        throw opensslError(ORVError::NoMemory, "EVP_DigestVerifyUpdate");  // kept: as above
}

bool Verifier::matches(const std::vector<unsigned char>& signature) {
    if (signature.size() != signatureSize(m_oKey.algo()))
        return false;
    init();
    ERR_clear_error();
    const int result = isECDSA(m_oKey) ? verifyFinal(derOf(signature)) : verifyFinal(signature);
    if (result < 0)
        throw opensslError(ORVError::SystemUnknown, "EVP_DigestVerifyFinal");
    m_bInitialised = false;
    return result == 1;
}

int Verifier::verifyFinal(const std::vector<unsigned char>& signature) {
    return EVP_DigestVerifyFinal(m_pContext.get(), signature.data(), signature.size());
}

// --- one call ---

std::vector<unsigned char> sign(const void* data, size_t length, const Key& key) {
    Signer signer(key);
    signer.init();
    finishOnce(signer.m_pContext);
    signer.update(data, length);
    return signer.get();
}

bool verify(const void* data, size_t length, const Key& key, const std::vector<unsigned char>& signature) {
    Verifier verifier(key);
    verifier.init();
    finishOnce(verifier.m_pContext);
    verifier.update(data, length);
    return verifier.matches(signature);
}

}  // namespace jwa
