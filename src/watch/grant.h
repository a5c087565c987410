// grant.h: what makes a text a grant: the key that the appliance trusts, and that key's signature.
//
// A grant is a JWS in compact form (RFC 7515, section 3.1). The key's kind alone decides the algorithm: NIST P-256
// ES256, NIST P-384 ES384, RSA of 2048 bits with a public exponent of 3 or more RS256. A header that names another one
// is refused. Every other key is refused: another curve of the same size, a curve written out as parameters, a key
// with unsound values.
#pragma once

#include <optional>
#include <string>

#include "watch/whole_file.h"

// openGrant replaces `text`, a grant, with its payload, or leaves `text` as it is and returns why the grant cannot be
// trusted. The public key is read from the PEM file at `keyPath`, a regular file of at most 64 KiB.
std::optional<Refusal> openGrant(std::string& text, const std::string& keyPath);
