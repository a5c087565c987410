#include "watch/grant.h"

#include <utility>

#include "foundation/json.h"
#include "jose/jws.h"
#include "runtime/orv_error.h"
#include "watch/record_text.h"

namespace {

constexpr SizeLimit KEY_LIMIT = {64 * 1024, "64 KiB"};

// loadKey reads the public key from the PEM file at `path`, or returns why it cannot be used. `key` is an output
// parameter because keys must not be moved. A missing key is not a fault that passes by itself.
std::optional<Refusal> loadKey(const std::string& path, jwa::Key& key) {
    const std::string whatFails = "the key " + recordText(path) + " can't be used: ";
    std::string pem;
    if (const std::optional<Refusal> refusal = readWholeFile(path, KEY_LIMIT, pem)) {
        const bool mayPass = refusal->kind == Refusal::Kind::MayPass;
        return Refusal{mayPass ? Refusal::Kind::MayPass : Refusal::Kind::Unfit, whatFails + refusal->reason};
    }
    try {
        key.loadPublicKeyByKind(pem);
        return std::nullopt;
    } catch (const ORVError& error) {
        return Refusal::unfit(whatFails + error.what());
    }
}

}  // namespace

std::optional<Refusal> openGrant(std::string& text, const std::string& keyPath) {
    jwa::Key key;
    if (std::optional<Refusal> refusal = loadKey(keyPath, key))
        return refusal;
    JSON::root header;
    std::string payload;
    if (!jws::verify(text, header, payload, key))
        return Refusal::unfit("its signature is not good under the key " + recordText(keyPath));
    // RFC 7515, section 4.1.11: a header with critical members is only for those who know them all. We know none.
    if (header->get("crit") != nullptr)
        return Refusal::unfit("its header has critical members");
    text = std::move(payload);
    return std::nullopt;
}
