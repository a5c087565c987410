// device_report.h: the JSON document that shows an outside party who the device is and what its TPM vouches for.
//
//     { "altSerial": { "boardSerial", "chassisSerial", "systemSerial", "userSerial" },   as far as known
//       "cbData": "echoed text",                                                         if the context's is not empty
//       "serial": "the device's serial number",
//       "tpm2": { "ak": { "actResp", "privTpm2B", "pubTpm2B" },                          actResp answers a challenge
//                 "ekEccNistP256PubTpm2B",
//                 "tallyCounter": { "att", "sig", "val" } } }                            att and sig certify val
//
// The members of `tpm2` are base64 (RFC 4648, section 4) of the TPM's wire forms, except `sig` (ECDSA in DER),
// `actResp` (the secret's bytes) and the number `val`. `val` loses low digits above 2^53; the attestation covers the
// exact value.
#pragma once

class TPM2Attestor;

// printDeviceInfo prints the device report on standard output, in one piece, and a newline.
//
// `attestationFile` is the path of the attestation context file, or null; with one the counter is certified for the
// context's nonce, without one it is only read. `tpm` is opened if it is not open yet, and stays open. Returns false,
// after a record of the reason and without a byte printed, if the context is unusable (an empty file has no record of
// its own), the device's identifiers cannot be read or the TPM fails; false also if the report could not be written.
bool printDeviceInfo(const char* attestationFile, TPM2Attestor* tpm);
