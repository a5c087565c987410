#include "agent/attestation_context.h"

#include <fstream>

#include "foundation/base64.h"
#include "watch/program.h"

namespace {

bool isObject(const JSON& value) {
    return value.type == JSON::ObjectType;
}

// takeBytes decodes a member that is present; false unless it is a text that gives at least one byte.
bool takeBytes(const JSON* member, std::vector<unsigned char>& field) {
    const std::string* text = jsonText(member);
    if (text == nullptr)
        return false;
    field = orv::base64Decode(text->data(), text->size());
    return !field.empty();
}

// takeOptionalBytes is takeBytes for a member that may be absent.
bool takeOptionalBytes(const JSON* member, std::vector<unsigned char>& field) {
    field.clear();
    return member == nullptr || takeBytes(member, field);
}

bool takeOptionalText(const JSON* member, std::string& field) {
    field.clear();
    if (member == nullptr)
        return true;
    const std::string* text = jsonText(member);
    if (text == nullptr)
        return false;
    field = *text;
    return true;
}

// takeKey takes both areas of the attestation key or none.
bool takeKey(const JSON& ak, AttestationContext& context) {
    const JSON* pub = ak.get("pubTpm2B");
    const JSON* priv = ak.get("privTpm2B");
    if ((pub == nullptr) != (priv == nullptr))
        return false;
    return takeOptionalBytes(pub, context.akPub) && takeOptionalBytes(priv, context.akPriv);
}

}  // namespace

bool AttestationContext::parseFile(const std::string& path) {
    const JSON::root root = parseJSONFile(path);
    if (root == nullptr)
        return false;
    if (parse(root))
        return true;
    ORVLOG_ERROR(gs_pAppLogger, "incomplete or invalida data in %s",
                 path.c_str());  // kept: readers of the log know it so
    return false;
}

bool AttestationContext::parse(const std::unique_ptr<JSON>& root) {
    if (root == nullptr || !isObject(*root))
        return false;
    if (!takeOptionalText(root->get("cbData"), cbData) || !takeOptionalBytes(root->get("nonce"), nonce))
        return false;
    const JSON* tpm2 = root->get("tpm2");
    if (tpm2 == nullptr)
        return true;
    if (!isObject(*tpm2))
        return false;
    const JSON* ak = tpm2->get("ak");
    if (ak == nullptr)
        return true;
    if (!isObject(*ak))
        return false;
    return takeKey(*ak, *this) && takeOptionalBytes(ak->get("actChall"), akActChall);
}

std::string readFile(const std::string& path) {
    std::ifstream input(path, std::ios::in | std::ios::binary);
    if (!input) {
        ORVLOG_ERROR(gs_pAppLogger, "failed to open %s", path.c_str());
        return std::string();
    }
    std::string content;
    char block[16384];
    while (input) {
        input.read(block, sizeof block);
        content.append(block, static_cast<size_t>(input.gcount()));
    }
    if (input.bad()) {  // the end of the file sets the fail bit alone
        ORVLOG_ERROR(gs_pAppLogger, "failed reading from %s", path.c_str());
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
        ORVLOG_ERROR(gs_pAppLogger, "failed parsing %s as JSON", path.c_str());
    return root;
}
