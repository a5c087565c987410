// device_report.h: the JSON document that tells an outside party who the device is and what its TPM vouches for.
//
//     { "altSerial": { "boardSerial", "chassisSerial", "systemSerial", "userSerial" },   as far as known
//       "cbData": "echoed text",                                                         if the context has one
//       "serial": "the device's serial number",
//       "tpm2": { "ak": { "actResp", "privTpm2B", "pubTpm2B" },                          actResp answers a challenge
//                 "ekEccNistP256PubTpm2B",
//                 "tallyCounter": { "att", "sig", "val" } } }                            att and sig certify val
//
// All in `tpm2` is base64 (RFC 4648, section 4) of the TPM's own wire forms, but for the number `val`, which loses low
// digits above 2^53; the attestation covers the exact value.
#pragma once

class TPM2Attestor;

// printDeviceInfo prints the device report on standard output, in one piece, and a newline.
//
// `attestationFile` is the path of the attestation context file, or null if there is none; with one the counter is
// certified for the context's nonce, without one it is only read. `tpm` is opened if it isn't open yet, and stays open.
// The result is false, after a record of the reason and without a byte printed, when the context is unusable, the
// device's identifiers can't be read or the TPM fails; false as well when the report could not be written.
bool printDeviceInfo(const char* attestationFile, TPM2Attestor* tpm);
