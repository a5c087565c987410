// jwa.h: keys, signing and verifying for the JSON Web Algorithms of RFC 7518, on OpenSSL's EVP keys.
//
// Signatures have the byte forms of RFC 7518, section 3: raw and of fixed length, with r and s of ECDSA side by side.
//
// All failures are an ORVError. A failed OpenSSL call has the call's name, ": " and the first text of OpenSSL's error
// queue as its detail. Neither keys nor signers are locked; copies of a key may be used from different threads.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "runtime/openssl.h"

namespace jwa {

// Algo is an algorithm of RFC 7518, section 3.1. The RSA ones are RSASSA-PKCS1-v1_5 with 2048 bits.
enum Algo : uint32_t { None, HS256, HS384, HS512, ES256, ES384, ES512, RS256, RS384, RS512 };

// name returns the algorithm's name as it stands in a JOSE header; "none" for what is no algorithm here.
const char* name(Algo algo);

// signatureSize returns the number of bytes of a signature, 0 for what is no algorithm here. Kept: 128 for ES512,
// though a P-521 coordinate takes up to 66 bytes; nearly every ES512 signature fails for that.
size_t signatureSize(Algo algo);

// Key is one algorithm and one reference to an EVP key, null when empty.
class Key {
public:
    // Key makes an empty key.
    Key() = default;
    ~Key();

    // Copies share the EVP key.
    Key(const Key& other);
    Key& operator=(const Key& other);

    // Moving DOES NOT hand a reference over: the target takes the pointer, and the source gives its reference back. Use
    // a copy. Kept for programs built against it; not noexcept, so that containers copy.
    Key(Key&& other);
    Key& operator=(Key&& other);

    // algo returns the algorithm, None for an empty key.
    Algo algo() const { return m_eAlgo; }

    // pkey returns the EVP key, which stays this object's.
    EVP_PKEY* pkey() const { return m_pKey; }

    // reset empties the key.
    void reset();

    // set takes over the caller's reference to `key` without any test.
    void set(Algo algo, EVP_PKEY* key);

    // setHMAC makes an HMAC key of `length` bytes, of which there may be none. On failure the old key stays.
    void setHMAC(Algo algo, const unsigned char* key, size_t length);

    // checkKey throws if the key's type or size doesn't fit its algorithm. The curve of an EC key counts by its size
    // only; a key for None passes.
    void checkKey() const;

    // loadPrivateKey and loadPublicKey read a PEM file: PKCS #8, PKCS #1 or SEC 1 for private, SubjectPublicKeyInfo for
    // public keys. An encrypted file is a failure: no password is asked for.
    //
    // These and the DER loaders store the key before `checkKey`: if that throws, the object holds the new key. On any
    // earlier failure the old key stays.
    void loadPrivateKey(Algo algo, const std::string& path);
    void loadPublicKey(Algo algo, const std::string& path);

    // loadPrivateKeyDER reads `length` bytes of a private key, loadPublicKeyDER of a SubjectPublicKeyInfo.
    void loadPrivateKeyDER(Algo algo, const void* data, int length);
    void loadPublicKeyDER(Algo algo, const void* data, int length);

    // loadPublicKeyByKind reads the first block "PUBLIC KEY" of the PEM text `pem` and takes the algorithm from the
    // key's kind alone: ES256 for P-256, ES384 for P-384, RS256 for RSA of 2048 bits with a public exponent of 3 or
    // more. It is stricter than the other loaders: another curve of the same size, a curve that is written out instead
    // of named, and a key that EVP_PKEY_public_check refuses are failures. On any failure the old key stays.
    void loadPublicKeyByKind(const std::string& pem);

private:
    Algo m_eAlgo = None;
    EVP_PKEY* m_pKey = nullptr;
};

// DigestContext owns the state of a message that is being signed or verified; null when empty.
using DigestContext = OpenSSLHolder<EVP_MD_CTX>;

// Signer signs messages, one after the other, with one key. An error leaves the message as it is: `get` tries to finish
// it again, `update` goes on with it.
class Signer {
public:
    // Signer keeps a copy of the key; nothing is tested yet.
    explicit Signer(const Key& key) : m_oKey(key) {}
    Signer(const Signer&) = delete;
    Signer& operator=(const Signer&) = delete;

    // init prepares for a new message, unless one has begun.
    void init();

    // update adds data to the message; after `get` it begins a new one.
    void update(const void* data, size_t length);

    // get finishes the message and returns its signature, which stays until the next `get` of another message. Called
    // again it returns the same; without any `update` it signs the empty message.
    const std::vector<unsigned char>& get();

private:
    void finishRaw();
    void finishECDSA();

    Key m_oKey;
    DigestContext m_pContext;
    bool m_bInitialised = false;
    bool m_bFinished = false;
    std::vector<unsigned char> m_aSignature;
};

// Verifier checks signatures of messages, one after the other, with one key. An error leaves the message as it is:
// `matches` tries to finish it again, `update` goes on with it.
class Verifier {
public:
    // Verifier keeps a copy of the key; nothing is tested yet.
    explicit Verifier(const Key& key) : m_oKey(key) {}
    Verifier(const Verifier&) = delete;
    Verifier& operator=(const Verifier&) = delete;

    // init prepares for a new message, unless one has begun.
    void init();

    // update adds data to the message; after `matches` it begins a new one.
    void update(const void* data, size_t length);

    // matches finishes the message and tells whether `signature` is its signature. One of the wrong length gives false
    // at once, and the message goes on.
    bool matches(const std::vector<unsigned char>& signature);

private:
    int verifyFinal(const std::vector<unsigned char>& signature);

    Key m_oKey;
    DigestContext m_pContext;
    bool m_bInitialised = false;
};

// sign returns the signature of `length` bytes at `data`.
std::vector<unsigned char> sign(const void* data, size_t length, const Key& key);

// verify tells whether `signature` is the signature of `length` bytes at `data`.
bool verify(const void* data, size_t length, const Key& key, const std::vector<unsigned char>& signature);

}  // namespace jwa
