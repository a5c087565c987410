// uri_data.cpp: data URIs (RFC 2397): parsing with the check of the media type, making. `URI::toString` prints them.

#include <algorithm>
#include <cstring>
#include <string_view>

#include "foundation/base64.h"
#include "foundation/uri/uri_text.h"

namespace {

constexpr std::string_view DEFAULT_MIME_TYPE = "text/plain;charset=US-ASCII";
constexpr std::string_view BASE64_MARK = ";base64";
constexpr std::string_view SEPARATORS = "()<>@,;:\\\"/[]?=";

bool isTokenCharacter(char c) {
    return c > ' ' && static_cast<unsigned char>(c) < 0x80 && SEPARATORS.find(c) == SEPARATORS.npos;
}

bool isToken(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), isTokenCharacter);
}

bool isType(std::string_view text) {
    const size_t slash = text.find('/');
    return slash != text.npos && isToken(text.substr(0, slash)) && isToken(text.substr(slash + 1));
}

bool isQuoted(std::string_view text) {
    return text.size() >= 2 && text.starts_with('"') && text.ends_with('"');
}

// isQuotedContent returns whether the text may be between two quotes: quotes only in pairs, no byte above ASCII.
bool isQuotedContent(std::string_view text) {
    for (size_t i = 0; i < text.size(); ++i) {
        if (static_cast<unsigned char>(text[i]) >= 0x80)
            return false;
        if (text[i] == '"' && !text.substr(++i).starts_with('"'))
            return false;
    }
    return true;
}

bool isParameterValue(std::string_view text) {
    return isQuoted(text) ? isQuotedContent(text.substr(1, text.size() - 2)) : isToken(text);
}

bool isParameter(std::string_view text) {
    const size_t equals = text.find('=');
    return equals != text.npos && isToken(text.substr(0, equals)) && isParameterValue(text.substr(equals + 1));
}

// isMimeType returns whether `text` is a type with its parameters. A semicolon cuts, even between quotes.
bool isMimeType(std::string_view text) {
    const std::string_view type = text.substr(0, text.find(';'));
    if (!isType(type))
        return false;
    for (text.remove_prefix(type.size()); !text.empty();) {
        text.remove_prefix(1);
        const std::string_view parameter = text.substr(0, text.find(';'));
        if (!isParameter(parameter))
            return false;
        text.remove_prefix(parameter.size());
    }
    return true;
}

// parseMimeType decodes the media type into `mimeType`, which must be empty, and checks it; an empty media type passes.
// Kept: "/jpg" becomes "image/jpeg" (docs/uris.md).
bool parseMimeType(std::string_view escaped, std::string& mimeType) {
    if (!uriAppendUnescaped(mimeType, escaped))
        return false;
    if (mimeType == "/jpg")
        mimeType = "image/jpeg";
    return mimeType.empty() || isMimeType(mimeType);
}

std::vector<unsigned char> bytesOf(const std::string& text) {
    return {text.begin(), text.end()};
}

}  // namespace

URI::Data::Data(std::vector<unsigned char>&& content, std::string&& type)
    : mimeType(type.empty() ? std::string(DEFAULT_MIME_TYPE) : std::move(type)), bytes(std::move(content)) {}

bool URI::parseFromDataURI(const char* text) {
    const char* comma = std::strchr(text, ',');
    if (comma == nullptr)
        return false;
    std::string_view metadata(text, static_cast<size_t>(comma - text));
    const bool isBase64 = metadata.ends_with(BASE64_MARK);
    if (isBase64)
        metadata.remove_suffix(BASE64_MARK.size());

    std::string mimeType;
    if (!parseMimeType(metadata, mimeType))
        return false;
    std::string content;
    if (!uriAppendUnescaped(content, comma + 1))
        return false;
    data = std::make_shared<Data>(isBase64 ? orv::base64Decode(content.data(), content.size()) : bytesOf(content),
                                  std::move(mimeType));
    return true;
}

URI URI::fromData(const std::shared_ptr<const Data>& data) {
    URI uri;
    uri.origin.scheme = "data";
    uri.data = data;
    return uri;
}

URI URI::fromData(std::vector<unsigned char>&& bytes, std::string&& mimeType) {
    return fromData(std::make_shared<const Data>(std::move(bytes), std::move(mimeType)));
}

URI URI::fromData(const std::string& bytes, const std::string& mimeType) {
    return fromData(bytesOf(bytes), std::string(mimeType));
}
