// uri_query.cpp: query strings: taking them apart into keys and values, and putting them together.

#include <algorithm>
#include <string>
#include <string_view>

#include "foundation/uri/uri_region.h"
#include "foundation/uri/uri_text.h"
#include "foundation/uri/uri_write.h"

namespace {

std::string unescaped(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    uriAppendUnescaped(out, text);
    return out;
}

std::string canonical(std::string_view text) {
    constexpr UriNormalForm form("", "");
    std::string out;
    uriAppendNormalized(out, text, form, false);
    return out;
}

// splitItems keeps every item, even an empty one; of two with one key the last counts.
template <typename Search>
void splitItems(std::string_view text, URI::Query& items) {
    Search ampersands(text, '&');
    Search equals(text, '=');
    size_t at = 0;
    size_t end = 0;
    do {
        end = std::min(ampersands.find(at), text.size());
        const size_t keyEnd = std::min(equals.find(at, end), end);
        const size_t value = std::min(keyEnd + 1, end);
        items[unescaped(text.substr(at, keyEnd - at))] = unescaped(text.substr(value, end - value));
        at = end + 1;
    } while (end < text.size());
}

// strictItems leaves items without a key out; of two with one key the first counts. `convert` makes key and value.
template <typename Convert>
URI::Query strictItems(std::string_view text, Convert&& convert) {
    URI::Query items;
    for (size_t at = 0; at < text.size();) {
        const size_t end = std::min(text.find('&', at), text.size());
        const std::string_view item = text.substr(at, end - at);
        at = end + 1;
        const size_t keyEnd = std::min(item.find('='), item.size());
        if (keyEnd == 0)
            continue;
        const std::string_view value = item.substr(std::min(keyEnd + 1, item.size()));
        items.emplace(convert(item.substr(0, keyEnd)), convert(value));
    }
    return items;
}

}  // namespace

void URI::splitQueryString(const std::string& text, Query& items, bool skipPatterns) {
    items.clear();
    if (skipPatterns)
        splitItems<UriPatternSearch>(text, items);
    else
        splitItems<UriPlainSearch>(text, items);
}

URI::Query URI::queryString() const {
    return strictItems(query, unescaped);
}

URI::Query URI::queryStringCanonical() const {
    return strictItems(query, canonical);
}

std::string URI::makeQueryString(const Query& items, bool skipPatterns) {
    size_t room = 0;
    for (const auto& [key, value] : items)
        room += uriRoomEscaped(key) + uriRoomEscaped(value) + 2;
    return uriWritten(room, [&](char* out) {
        std::string_view separator = "";
        for (const auto& [key, value] : items) {
            out = uriWrite(out, separator);
            separator = "&";
            out = uriWriteEscaped(out, key, URI_STRICT_ESCAPING, skipPatterns);
            out = uriWrite(out, '=');
            out = uriWriteEscaped(out, value, URI_STRICT_ESCAPING, skipPatterns);
        }
        return out;
    });
}

void URI::setQuery(const Query& items, bool skipPatterns) {
    query = makeQueryString(items, skipPatterns);
}
