#include "jose/jws.h"

#include <exception>
#include <optional>
#include <string_view>
#include <utility>

#include "foundation/base64.h"
#include "runtime/orv_error.h"

namespace jws {

namespace {

// Segments are the parts of a compact text. Further dots are in the signature, whose decoder drops them.
struct Segments {
    std::string_view header;
    std::string_view payload;
    std::string_view signature;

    // signingInput is what is signed: header, dot and payload.
    std::string_view signingInput;
};

// split returns the segments, or nothing if one is missing or the last is empty.
std::optional<Segments> split(std::string_view text) {
    const size_t first = text.find('.');
    if (first == std::string_view::npos || first + 1 == text.size())
        return std::nullopt;
    const size_t second = text.find('.', first + 1);
    if (second == std::string_view::npos || second + 1 == text.size())
        return std::nullopt;
    return Segments{text.substr(0, first), text.substr(first + 1, second - first - 1), text.substr(second + 1),
                    text.substr(0, second)};
}

std::vector<unsigned char> decode(std::string_view segment) {
    return orv::base64DecodeURLSafe(segment.data(), segment.size());
}

std::string decodeText(std::string_view segment) {
    return orv::base64DecodeURLSafeUTF8(segment.data(), segment.size());
}

// namesOtherAlgorithm returns whether the header has an `alg` that isn't the key's.
bool namesOtherAlgorithm(const JSON& header, const jwa::Key& key) {
    const JSON* alg = header.get("alg");
    return alg != nullptr && alg->toString() != jwa::name(key.algo());
}

bool isSigned(const Segments& segments, const jwa::Key& key) {
    const std::vector<unsigned char> signature = decode(segments.signature);
    try {
        return jwa::verify(segments.signingInput.data(), segments.signingInput.size(), key, signature);
    } catch (const std::exception&) {
        return false;
    }
}

// verifyText is the common core of the three forms of `verify`; it stores the payload's segment in `payload`.
bool verifyText(const std::string& text, JSON::root& header, std::string_view& payload, const jwa::Key& key) {
    const std::optional<Segments> segments = split(text);
    if (!segments)
        return false;
    header = JSON::parse(decodeText(segments->header));
    if (!isObject(header.get()) || namesOtherAlgorithm(*header, key))
        return false;
    payload = segments->payload;
    return isSigned(*segments, key);
}

std::string singleLine(const JSON& value) {
    std::string text;
    value.stringify(text, -1);
    return text;
}

const unsigned char* bytesOf(const std::string& text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}

}  // namespace

std::string sign(const JSON* header, const unsigned char* payload, size_t length, const jwa::Key& key) {
    if (namesOtherAlgorithm(*header, key))
        throw ORVError(ORVError::StringNotValid, "alg name in JOSE header does not match key algorithm");
    const std::string headerText = singleLine(*header);
    std::string text = orv::base64EncodeURLSafe(bytesOf(headerText), headerText.size());
    text += '.';
    text += orv::base64EncodeURLSafe(payload, length);
    const std::vector<unsigned char> signature = jwa::sign(text.data(), text.size(), key);
    text += '.';
    text += orv::base64EncodeURLSafe(signature.data(), signature.size());
    return text;
}

std::string sign(const JSON* header, const std::string& payload, const jwa::Key& key) {
    return sign(header, bytesOf(payload), payload.size(), key);
}

std::string sign(const JSON* header, const std::vector<unsigned char>& payload, const jwa::Key& key) {
    return sign(header, payload.data(), payload.size(), key);
}

std::string sign(const JSON* header, const JSON* payload, const jwa::Key& key) {
    return sign(header, singleLine(*payload), key);
}

bool verify(const std::string& text, JSON::root& header, std::vector<unsigned char>& payload, const jwa::Key& key) {
    std::string_view segment;
    if (!verifyText(text, header, segment, key))
        return false;
    payload = decode(segment);
    return true;
}

bool verify(const std::string& text, JSON::root& header, std::string& payload, const jwa::Key& key) {
    std::string_view segment;
    if (!verifyText(text, header, segment, key))
        return false;
    payload = decodeText(segment);
    return true;
}

bool verify(const std::string& text, JSON::root& header, JSON::root& payload, const jwa::Key& key) {
    std::string content;
    if (!verify(text, header, content, key))
        return false;
    payload = JSON::parse(content);
    return isObject(payload.get());
}

JSON::root getJOSEHeader(const std::string& text) {
    const size_t dot = text.find('.');
    if (dot == std::string::npos || dot + 1 == text.size())
        return nullptr;
    JSON::root header = JSON::parse(decodeText(std::string_view(text).substr(0, dot)));
    return isObject(header.get()) ? std::move(header) : nullptr;
}

JSON::root getPayload(const std::string& text) {
    const std::optional<Segments> segments = split(text);
    return segments ? JSON::parse(decodeText(segments->payload)) : nullptr;
}

}  // namespace jws
