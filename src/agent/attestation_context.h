// attestation_context.h: the file that says what the device report has to answer to.
//
// A JSON object. Each member is optional, but `pubTpm2B` and `privTpm2B` come together. Other members are ignored:
//
//     { "cbData": "text to echo", "nonce": "base64",
//       "tpm2": { "ak": { "pubTpm2B": "base64", "privTpm2B": "base64", "actChall": "base64" } } }
//
// Only the shape is checked here. A member that is present must have its type and, except for the text `cbData`, must
// decode to at least one byte; null counts as present. Failures are logged, except for an empty file, which fails
// without a record.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "foundation/json.h"

// AttestationContext is one such file in binary form. An empty field means that the member was absent; `cbData` alone
// may also be present and empty. After a successful parse `akPub` and `akPriv` are both empty or both not.
struct AttestationContext {
    // cbData is an opaque text that the report echoes, up to a NUL byte.
    std::string cbData;

    // nonce is what the certification of the counter is bound to.
    std::vector<unsigned char> nonce;

    // akPub and akPriv are the marshalled public and private area of an attestation key that was issued before.
    std::vector<unsigned char> akPub;
    std::vector<unsigned char> akPriv;

    // akActChall is a credential challenge for that key.
    std::vector<unsigned char> akActChall;

    // parseFile reads and checks the file at `path`. Returns false on any failure.
    bool parseFile(const std::string& path);

    // parse checks a document and stores its members. Returns false at the first wrong one; the fields set so far keep
    // their new values. Nothing is logged.
    bool parse(const std::unique_ptr<JSON>& root);
};

// readFile returns the bytes of the file at `path`, however many; empty on any failure, which is logged.
std::string readFile(const std::string& path);

// parseJSONFile returns the document in the file at `path`, or null on any failure. All failures are logged except an
// empty file.
JSON::root parseJSONFile(const std::string& path);
