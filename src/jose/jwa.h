// jwa.h: keys, signing and verifying for the JSON Web Algorithms of RFC 7518, on OpenSSL's EVP keys.
//
// Signatures have the byte forms of RFC 7518, section 3: raw and of fixed length, with r and s of ECDSA side by side.
//
// All failures are an ORVError. After a failed OpenSSL call its detail is the call's name, ": " and the first text of
// OpenSSL's error queue. Neither keys nor signers are locked; copies of a key may be used from different threads.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "runtime/openssl.h"

namespace jwa {

// Algo is an algorithm of RFC 7518, section 3.1. The RSA ones are RSASSA-PKCS1-v1_5 with 2048 bits.
enum Algo : uint32_t { None, HS256, HS384, HS512, ES256, ES384, ES512, RS256, RS384, RS512 };

// name returns the algorithm's name as a JOSE header has it; "none" for any value that is not an algorithm here.
const char* name(Algo algo);

// signatureSize returns the number of bytes of a signature, 0 for any value that is not an algorithm here. Kept: 128
// for ES512, although a P-521 coordinate takes up to 66 bytes; nearly every ES512 signature fails because of that.
size_t signatureSize(Algo algo);

// Key is one algorithm and one reference to an EVP key, null when empty.
class Key {
public:
    // Key makes an empty key.
    Key() = default;
    ~Key();

    // Key copies share the EVP key.
    Key(const Key& other);
    Key& operator=(const Key& other);

    // Moving DOES NOT transfer the reference: the target takes the pointer, and the source releases its reference. Use
    // a copy. Kept because programs are built against it; not noexcept, so that containers copy.
    Key(Key&& other);
    Key& operator=(Key&& other);

    // algo returns the algorithm, None for an empty key.
    Algo algo() const { return m_eAlgo; }

    // pkey returns the EVP key, which this object still owns.
    EVP_PKEY* pkey() const { return m_pKey; }

    // reset empties the key.
    void reset();

    // set takes over the caller's reference to `key` without any test.
    void set(Algo algo, EVP_PKEY* key);

    // setHMAC makes an HMAC key of `length` bytes; 0 is allowed. On failure the old key stays.
    void setHMAC(Algo algo, const unsigned char* key, size_t length);

    // checkKey throws if the key's type or size doesn't fit its algorithm. Of an EC key's curve only the size is
    // compared; a key for None passes.
    void checkKey() const;

    // loadPrivateKey and loadPublicKey read a PEM file: PKCS #8, PKCS #1 or SEC 1 for private, SubjectPublicKeyInfo or
    // PKCS #1 for public keys. An encrypted file is a failure; nothing prompts for a password.
    //
    // These and the DER loaders store the key before `checkKey`: if that throws, the object holds the new key. On any
    // earlier failure the old key stays.
    void loadPrivateKey(Algo algo, const std::string& path);
    void loadPublicKey(Algo algo, const std::string& path);

    // loadPrivateKeyDER reads `length` bytes of a private key, loadPublicKeyDER of a SubjectPublicKeyInfo.
    void loadPrivateKeyDER(Algo algo, const void* data, int length);
    void loadPublicKeyDER(Algo algo, const void* data, int length);

    // loadPublicKeyByKind reads the first block of the PEM text `pem` that is a public key (SubjectPublicKeyInfo or
    // PKCS #1) and takes the algorithm from the key's kind alone: ES256 for P-256, ES384 for P-384, RS256 for RSA of
    // 2048 bits with a public exponent of 3 or more. It is stricter than the other loaders: another curve of the same
    // size, a curve that is written out instead of named, and a key that EVP_PKEY_public_check refuses are failures. On
    // any failure the old key stays.
    void loadPublicKeyByKind(const std::string& pem);

private:
    Algo m_eAlgo = None;
    EVP_PKEY* m_pKey = nullptr;
};

// DigestContext owns the state of a message that is being signed or verified; null when empty.
using DigestContext = OpenSSLHolder<EVP_MD_CTX>;

// Signer signs messages, one after the other, with one key. After an error the message is intact: `get` tries to finish
// it again, and `update` continues it.
class Signer {
public:
    // Signer keeps a copy of the key; nothing is tested yet.
    explicit Signer(const Key& key) : m_oKey(key) {}
    Signer(const Signer&) = delete;
    Signer& operator=(const Signer&) = delete;

    // init begins a new message, unless one has begun.
    void init();

    // update adds data to the message; after `get` it begins a new one.
    void update(const void* data, size_t length);

    // get finishes the message and returns its signature, which stays until the next `get` of another message. Called
    // again it returns the same; without any `update` it signs the empty message.
    const std::vector<unsigned char>& get();

private:
    friend std::vector<unsigned char> sign(const void* data, size_t length, const Key& key);

    void finishRaw();
    void finishECDSA();

    Key m_oKey;
    DigestContext m_pContext;
    bool m_bInitialised = false;
    bool m_bFinished = false;
    std::vector<unsigned char> m_aSignature;
};

// Verifier checks signatures of messages, one after the other, with one key. After an error the message is intact:
// `matches` tries to finish it again, and `update` continues it.
class Verifier {
public:
    // Verifier keeps a copy of the key; nothing is tested yet.
    explicit Verifier(const Key& key) : m_oKey(key) {}
    Verifier(const Verifier&) = delete;
    Verifier& operator=(const Verifier&) = delete;

    // init begins a new message, unless one has begun.
    void init();

    // update adds data to the message; after `matches` it begins a new one.
    void update(const void* data, size_t length);

    // matches finishes the message and returns whether `signature` is its signature. A signature of the wrong length
    // returns false at once and does not finish the message.
    bool matches(const std::vector<unsigned char>& signature);

private:
    friend bool verify(const void* data, size_t length, const Key& key, const std::vector<unsigned char>& signature);

    int verifyFinal(const std::vector<unsigned char>& signature);

    Key m_oKey;
    DigestContext m_pContext;
    bool m_bInitialised = false;
};

// sign returns the signature of `length` bytes at `data`.
std::vector<unsigned char> sign(const void* data, size_t length, const Key& key);

// verify returns whether `signature` is the signature of `length` bytes at `data`.
bool verify(const void* data, size_t length, const Key& key, const std::vector<unsigned char>& signature);

}  // namespace jwa
