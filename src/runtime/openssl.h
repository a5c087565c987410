// openssl.h: what every caller of OpenSSL needs: its error queue as text, and the owner of its objects.
//
// The types are declared only, so that OpenSSL's headers reach only those who use them.
#pragma once

#include <memory>
#include <string>

using BIGNUM = struct bignum_st;
using BIO = struct bio_st;
using ECDSA_SIG = struct ECDSA_SIG_st;
using EC_KEY = struct ec_key_st;
using EVP_MD_CTX = struct evp_md_ctx_st;
using EVP_PKEY = struct evp_pkey_st;
using EVP_PKEY_CTX = struct evp_pkey_ctx_st;

// OpenSSLDeleter releases an object by the function that OpenSSL has for its type; bytes are a buffer that OpenSSL
// allocated.
struct OpenSSLDeleter {
    void operator()(BIGNUM* number) const noexcept;
    void operator()(BIO* bio) const noexcept;
    void operator()(ECDSA_SIG* signature) const noexcept;
    void operator()(EC_KEY* key) const noexcept;
    void operator()(EVP_MD_CTX* context) const noexcept;
    void operator()(EVP_PKEY* key) const noexcept;
    void operator()(EVP_PKEY_CTX* context) const noexcept;
    void operator()(unsigned char* buffer) const noexcept;
};

// OpenSSLHolder owns an object of OpenSSL; null when empty.
template <class T>
using OpenSSLHolder = std::unique_ptr<T, OpenSSLDeleter>;

// takeOpenSSLError removes the first entry from the calling thread's error queue and returns OpenSSL's text of it. An
// empty queue has a text too, that of error 0. Whoever reports an error clears the queue before the call that may fail,
// so that the first entry is this call's.
std::string takeOpenSSLError();
