// openssl_faults.h: replaces functions of OpenSSL in the one test program that includes this file, so that a test can
// count their calls and let one fail. Without an OpensslWatch they behave as usual.
#pragma once

#include <dlfcn.h>
#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/evp.h>

#include <map>
#include <string>
#include <type_traits>
#include <utility>

// OpensslWatch counts the calls that are made during its life. A call that OpenSSL makes while it works on one of them
// is its own affair.
class OpensslWatch {
public:
    // OpensslWatch makes the `nth` call of `function` return `result` (a function that returns a pointer: null) without
    // being done.
    explicit OpensslWatch(std::string function = "", int result = 0, int nth = 1)
        : m_strFailing(std::move(function)), m_nResult(result), m_nNth(nth) {
        ms_pCurrent = this;
    }
    OpensslWatch(const OpensslWatch&) = delete;
    OpensslWatch& operator=(const OpensslWatch&) = delete;
    ~OpensslWatch() { ms_pCurrent = nullptr; }

    // made returns how often `function` was called.
    int made(const std::string& function) const {
        const auto found = m_aMade.find(function);
        return found == m_aMade.end() ? 0 : found->second;
    }

    // failed returns whether the call that was to fail was made.
    bool failed() const { return m_bFailed; }

    template <class Result, class... Arguments>
    static Result intercept(const char* name, Result (*)(Arguments...), std::type_identity_t<Arguments>... arguments) {
        auto* const real = reinterpret_cast<Result (*)(Arguments...)>(dlsym(RTLD_NEXT, name));
        if (!ms_pCurrent || ms_nDepth > 0)
            return real(arguments...);
        const bool fails = ms_pCurrent->enter(name);
        const Depth depth;
        if constexpr (std::is_pointer_v<Result>)
            return fails ? nullptr : real(arguments...);
        else if constexpr (!std::is_void_v<Result>)
            return fails ? static_cast<Result>(ms_pCurrent->m_nResult) : real(arguments...);
        else
            real(arguments...);
    }

private:
    struct Depth {
        Depth() { ++ms_nDepth; }
        ~Depth() { --ms_nDepth; }
    };

    bool enter(const std::string& name) {
        const bool fails = ++m_aMade[name] == m_nNth && name == m_strFailing;
        m_bFailed = m_bFailed || fails;
        return fails;
    }

    static inline OpensslWatch* ms_pCurrent = nullptr;
    static inline int ms_nDepth = 0;

    std::string m_strFailing;
    int m_nResult;
    int m_nNth;
    bool m_bFailed = false;
    std::map<std::string, int> m_aMade;
};

extern "C" {

int EVP_PKEY_up_ref(EVP_PKEY* key) {
    return OpensslWatch::intercept(__func__, EVP_PKEY_up_ref, key);
}

void EVP_PKEY_free(EVP_PKEY* key) {
    OpensslWatch::intercept(__func__, EVP_PKEY_free, key);
}

EVP_PKEY* EVP_PKEY_new_mac_key(int type, ENGINE* engine, const unsigned char* bytes, int length) {
    return OpensslWatch::intercept(__func__, EVP_PKEY_new_mac_key, type, engine, bytes, length);
}

EVP_PKEY* EVP_PKEY_new_raw_private_key(int type, ENGINE* engine, const unsigned char* bytes, size_t length) {
    return OpensslWatch::intercept(__func__, EVP_PKEY_new_raw_private_key, type, engine, bytes, length);
}

EVP_MD_CTX* EVP_MD_CTX_new() {
    return OpensslWatch::intercept(__func__, EVP_MD_CTX_new);
}
void EVP_MD_CTX_free(EVP_MD_CTX* context) {
    OpensslWatch::intercept(__func__, EVP_MD_CTX_free, context);
}

int EVP_DigestSignInit(EVP_MD_CTX* context, EVP_PKEY_CTX** keyContext, const EVP_MD* digest, ENGINE* engine,
                       EVP_PKEY* key) {
    return OpensslWatch::intercept(__func__, EVP_DigestSignInit, context, keyContext, digest, engine, key);
}

int EVP_DigestVerifyInit(EVP_MD_CTX* context, EVP_PKEY_CTX** keyContext, const EVP_MD* digest, ENGINE* engine,
                         EVP_PKEY* key) {
    return OpensslWatch::intercept(__func__, EVP_DigestVerifyInit, context, keyContext, digest, engine, key);
}

int EVP_DigestUpdate(EVP_MD_CTX* context, const void* data, size_t length) {
    return OpensslWatch::intercept(__func__, EVP_DigestUpdate, context, data, length);
}

int EVP_DigestSignUpdate(EVP_MD_CTX* context, const void* data, size_t length) {
    return OpensslWatch::intercept(__func__, EVP_DigestSignUpdate, context, data, length);
}

int EVP_DigestVerifyUpdate(EVP_MD_CTX* context, const void* data, size_t length) {
    return OpensslWatch::intercept(__func__, EVP_DigestVerifyUpdate, context, data, length);
}

int EVP_DigestSignFinal(EVP_MD_CTX* context, unsigned char* signature, size_t* length) {
    return OpensslWatch::intercept(__func__, EVP_DigestSignFinal, context, signature, length);
}

int EVP_DigestVerifyFinal(EVP_MD_CTX* context, const unsigned char* signature, size_t length) {
    return OpensslWatch::intercept(__func__, EVP_DigestVerifyFinal, context, signature, length);
}

ECDSA_SIG* d2i_ECDSA_SIG(ECDSA_SIG** signature, const unsigned char** der, long length) {
    return OpensslWatch::intercept(__func__, d2i_ECDSA_SIG, signature, der, length);
}

int BN_bn2binpad(const BIGNUM* number, unsigned char* bytes, int length) {
    return OpensslWatch::intercept(__func__, BN_bn2binpad, number, bytes, length);
}

ECDSA_SIG* ECDSA_SIG_new() {
    return OpensslWatch::intercept(__func__, ECDSA_SIG_new);
}

BIGNUM* BN_bin2bn(const unsigned char* bytes, int length, BIGNUM* target) {
    return OpensslWatch::intercept(__func__, BN_bin2bn, bytes, length, target);
}

int ECDSA_SIG_set0(ECDSA_SIG* signature, BIGNUM* r, BIGNUM* s) {
    return OpensslWatch::intercept(__func__, ECDSA_SIG_set0, signature, r, s);
}

int i2d_ECDSA_SIG(const ECDSA_SIG* signature, unsigned char** der) {
    return OpensslWatch::intercept(__func__, i2d_ECDSA_SIG, signature, der);
}

}  // extern "C"
