#include "agent/attestation_context.h"

#include <fstream>

#include "foundation/base64.h"
#include "watch/app_logger.h"
#include "watch/record_text.h"

namespace {

std::vector<unsigned char> decoded(const std::string& text) {
    return orv::base64Decode(text.data(), text.size());
}

// takeOptionalText stores a member that may be absent. Returns false, without a change, if one is present that is not a
// text.
bool takeOptionalText(const JSON* member, std::string& field) {
    const std::string* text = jsonText(member);
    if (member != nullptr && text == nullptr)
        return false;
    field = text == nullptr ? "" : *text;
    return true;
}

// takeOptionalBytes stores what such a member decodes to. Returns false also if a present one decodes to nothing.
bool takeOptionalBytes(const JSON* member, std::vector<unsigned char>& field) {
    std::string text;
    if (!takeOptionalText(member, text))
        return false;
    field = decoded(text);
    return member == nullptr || !field.empty();
}

// takeKey stores both areas of the attestation key, or clears both if both are absent. Both types are checked before
// anything is decoded.
bool takeKey(const JSON& ak, AttestationContext& context) {
    const JSON* pub = ak.get("pubTpm2B");
    const JSON* priv = ak.get("privTpm2B");
    if ((pub == nullptr) != (priv == nullptr))
        return false;
    std::string pubText;
    std::string privText;
    if (!takeOptionalText(pub, pubText) || !takeOptionalText(priv, privText))
        return false;
    context.akPub = decoded(pubText);
    context.akPriv = decoded(privText);
    return pub == nullptr || (!context.akPub.empty() && !context.akPriv.empty());
}

}  // namespace

bool AttestationContext::parseFile(const std::string& path) {
    const JSON::root root = parseJSONFile(path);
    if (root == nullptr)
        return false;
    if (parse(root))
        return true;
    // kept: "invalida", filters of the appliance's log look for this text
    ORVLOG_ERROR(gs_pAppLogger, "incomplete or invalida data in %s", recordText(path).c_str());
    return false;
}

bool AttestationContext::parse(const std::unique_ptr<JSON>& root) {
    if (!isObject(root.get()))
        return false;
    if (!takeOptionalText(root->get("cbData"), cbData) || !takeOptionalBytes(root->get("nonce"), nonce))
        return false;
    const JSON* tpm2 = root->get("tpm2");
    if (tpm2 == nullptr)
        return true;
    if (!isObject(tpm2))
        return false;
    const JSON* ak = tpm2->get("ak");
    if (ak == nullptr)
        return true;
    if (!isObject(ak))
        return false;
    return takeKey(*ak, *this) && takeOptionalBytes(ak->get("actChall"), akActChall);
}

std::string readFile(const std::string& path) {
    std::ifstream input(path, std::ios::in | std::ios::binary);
    if (!input) {
        ORVLOG_ERROR(gs_pAppLogger, "failed to open %s", recordText(path).c_str());
        return std::string();
    }
    std::string content;
    char block[16384];
    while (input) {
        input.read(block, sizeof block);
        content.append(block, static_cast<size_t>(input.gcount()));
    }
    if (input.bad()) {  // the end of the file sets only the fail bit
        ORVLOG_ERROR(gs_pAppLogger, "failed reading from %s", recordText(path).c_str());
        return std::string();
    }
    return content;
}

JSON::root parseJSONFile(const std::string& path) {
    const std::string content = readFile(path);
    if (content.empty())
        return nullptr;
    JSON::root root = JSON::parse(content);
    if (root == nullptr)
        ORVLOG_ERROR(gs_pAppLogger, "failed parsing %s as JSON", recordText(path).c_str());
    return root;
}
