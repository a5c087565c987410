// grant.h: what makes a text a grant: the key that the appliance trusts, and that key's signature.
//
// A grant is a JWS in compact form (RFC 7515, section 3.1). The key's kind alone decides on the algorithm, whatever the
// header says: NIST P-256 ES256, NIST P-384 ES384, RSA of 2048 bits with a public exponent of 3 or more RS256. No other
// key is taken, not even another curve of the same size, nor one of these curves spelt out by its parameters.
#pragma once

#include <optional>
#include <string>

#include "watch/whole_file.h"

// openGrant replaces `text`, a grant, with its payload, or returns why the grant cannot be trusted; `text` is as it was
// then. The public key is read from the PEM file at `keyPath`, a regular file of at most 64 KiB.
std::optional<Refusal> openGrant(std::string& text, const std::string& keyPath);
