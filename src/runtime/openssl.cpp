#include "runtime/openssl.h"

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/crypto.h>
#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/evp.h>

void OpenSSLDeleter::operator()(BIGNUM* number) const noexcept {
    BN_free(number);
}

void OpenSSLDeleter::operator()(BIO* bio) const noexcept {
    BIO_free_all(bio);
}

void OpenSSLDeleter::operator()(ECDSA_SIG* signature) const noexcept {
    ECDSA_SIG_free(signature);
}

void OpenSSLDeleter::operator()(EC_KEY* key) const noexcept {
    EC_KEY_free(key);
}

void OpenSSLDeleter::operator()(EVP_MD_CTX* context) const noexcept {
    EVP_MD_CTX_free(context);
}

void OpenSSLDeleter::operator()(EVP_PKEY* key) const noexcept {
    EVP_PKEY_free(key);
}

void OpenSSLDeleter::operator()(EVP_PKEY_CTX* context) const noexcept {
    EVP_PKEY_CTX_free(context);
}

void OpenSSLDeleter::operator()(unsigned char* buffer) const noexcept {
    OPENSSL_free(buffer);
}

std::string takeOpenSSLError() {
    char text[256] = {};
    ERR_error_string_n(ERR_get_error(), text, sizeof text);
    return text;
}
