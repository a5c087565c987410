// openssl_faults.cpp: the functions of OpenSSL that the TPM layer calls, replaced so that the fault injector sees
// them.

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/pem.h>

#include "unit/tpm/fault_injector.h"

extern "C" {

EC_KEY* EC_KEY_new_by_curve_name(int curve) {
    return intercept(__func__, EC_KEY_new_by_curve_name, curve);
}

BIGNUM* BN_bin2bn(const unsigned char* bytes, int size, BIGNUM* target) {
    return intercept(__func__, BN_bin2bn, bytes, size, target);
}

int EC_KEY_set_public_key_affine_coordinates(EC_KEY* key, BIGNUM* x, BIGNUM* y) {
    return intercept(__func__, EC_KEY_set_public_key_affine_coordinates, key, x, y);
}

BIO* BIO_new(const BIO_METHOD* type) {
    return intercept(__func__, BIO_new, type);
}

int PEM_write_bio_EC_PUBKEY(BIO* bio, const EC_KEY* key) {
    return intercept(__func__, PEM_write_bio_EC_PUBKEY, bio, key);
}

int i2d_EC_PUBKEY(const EC_KEY* key, unsigned char** buffer) {
    return intercept(__func__, i2d_EC_PUBKEY, key, buffer);
}

ECDSA_SIG* ECDSA_SIG_new() {
    return intercept(__func__, ECDSA_SIG_new);
}

int ECDSA_SIG_set0(ECDSA_SIG* signature, BIGNUM* r, BIGNUM* s) {
    return intercept(__func__, ECDSA_SIG_set0, signature, r, s);
}

int i2d_ECDSA_SIG(const ECDSA_SIG* signature, unsigned char** buffer) {
    return intercept(__func__, i2d_ECDSA_SIG, signature, buffer);
}

}  // extern "C"
