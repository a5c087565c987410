// jws.h: signed documents in the compact serialisation of RFC 7515, section 3.1:
//
//     base64url(JOSE header) . base64url(payload) . base64url(signature)
//
// The caller's key alone decides the algorithm, which is never taken from the text. A header's `alg`, if there is one,
// must be that algorithm. Pure functions, usable from any thread.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "foundation/json.h"
#include "jose/jwa.h"

namespace jws {

// sign returns the compact text of a payload under `header`, which must not be null. The header is written unchanged,
// on one line; a member `alg` must be the name of the key's algorithm, and a missing one is not added. A JSON payload
// is signed as its text on one line. Failures throw an ORVError: a different `alg`, and those of jwa::sign.
std::string sign(const JSON* header, const unsigned char* payload, size_t length, const jwa::Key& key);
std::string sign(const JSON* header, const std::string& payload, const jwa::Key& key);
std::string sign(const JSON* header, const std::vector<unsigned char>& payload, const jwa::Key& key);
std::string sign(const JSON* header, const JSON* payload, const jwa::Key& key);

// verify returns whether `text` is a compact text whose signature is good under `key` and whose header has no `alg` or
// that of the key. Only exhausted memory throws.
//
// `text` must not belong to the old `header`, which is replaced as soon as the new one was parsed, even if the
// signature is bad; it becomes null if the header is not JSON. `payload` is replaced if the signature is good, and left
// as it was otherwise. With a JSON payload the result is true only for an object; any other value is stored
// nevertheless.
bool verify(const std::string& text, JSON::root& header, std::vector<unsigned char>& payload, const jwa::Key& key);
bool verify(const std::string& text, JSON::root& header, std::string& payload, const jwa::Key& key);
bool verify(const std::string& text, JSON::root& header, JSON::root& payload, const jwa::Key& key);

// getJOSEHeader returns the header of a compact text, null unless it is an object. Nothing is verified.
JSON::root getJOSEHeader(const std::string& text);

// getPayload returns the payload of a compact text, null unless it is JSON. Nothing is verified.
JSON::root getPayload(const std::string& text);

}  // namespace jws
