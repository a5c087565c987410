// uri_text.h: what the sources of `URI` share: byte classes of their own (no locale), escapes, regions, path text. For
// this folder only.
#pragma once

#include <array>
#include <limits>
#include <string>
#include <string_view>

#include "foundation/uri.h"

// uriIsAlpha, uriIsDigit and uriIsAlnum tell whether `c` is an ASCII letter, an ASCII digit, either.
constexpr bool uriIsAlpha(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

constexpr bool uriIsDigit(char c) {
    return c >= '0' && c <= '9';
}

constexpr bool uriIsAlnum(char c) {
    return uriIsAlpha(c) || uriIsDigit(c);
}

// uriToLower gives the small letter of an ASCII capital, any other byte as it is.
constexpr char uriToLower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// URI_HEX_VALUES holds the value of each byte as a hexadecimal digit, -1 for those that are none.
inline constexpr std::array<signed char, 256> URI_HEX_VALUES = [] {
    std::array<signed char, 256> values{};
    values.fill(-1);
    for (unsigned char value = 0; value < 16; ++value) {
        values[static_cast<unsigned char>("0123456789abcdef"[value])] = static_cast<signed char>(value);
        values[static_cast<unsigned char>("0123456789ABCDEF"[value])] = static_cast<signed char>(value);
    }
    return values;
}();

// uriHexValue gives the value of a hexadecimal digit of either case, -1 for any other byte.
constexpr int uriHexValue(char c) {
    return URI_HEX_VALUES[static_cast<unsigned char>(c)];
}

// uriDecodeEscape gives the value of the escape whose "%" stands at `at`, -1 if two hexadecimal digits don't follow.
constexpr int uriDecodeEscape(std::string_view text, size_t at) {
    if (text.size() - at < 3)
        return -1;
    const int high = uriHexValue(text[at + 1]);
    const int low = uriHexValue(text[at + 2]);
    return high < 0 || low < 0 ? -1 : high * 16 + low;
}

// uriCompareText orders by bytes, then by length: the difference of the lengths, clamped to an int.
inline int uriCompareText(std::string_view a, std::string_view b) {
    const int order = a.substr(0, b.size()).compare(b.substr(0, a.size()));
    if (order != 0)
        return order;
    constexpr size_t limit = std::numeric_limits<int>::max();
    if (a.size() >= b.size())
        return a.size() - b.size() > limit ? std::numeric_limits<int>::max() : static_cast<int>(a.size() - b.size());
    return b.size() - a.size() > limit ? std::numeric_limits<int>::min() : -static_cast<int>(b.size() - a.size());
}

// uriAppendUnescaped decodes all escapes of `text` behind `out`; false if a "%" began none (it is copied).
bool uriAppendUnescaped(std::string& out, std::string_view text);

// uriForEachPiece cuts `text` at its regions "[[" ... "]]", which are taken from the left: `plain` gets the text
// before, between and behind them, never empty, `region` gets the regions with their brackets. In the order of the
// text.
template <typename Plain, typename Region>
void uriForEachPiece(std::string_view text, Plain&& plain, Region&& region) {
    size_t at = 0;
    for (size_t opening = text.find("[["); opening != text.npos; opening = text.find("[[", at)) {
        const size_t closing = text.find("]]", opening + 2);
        if (closing == text.npos)
            break;
        if (opening > at)
            plain(text.substr(at, opening - at));
        at = closing + 2;
        region(text.substr(opening, at - opening));
    }
    if (at < text.size())
        plain(text.substr(at));
}

// uriPrintPath gives the text of a path; `appendSegment(out, segment)` writes each segment.
template <typename AppendSegment>
std::string uriPrintPath(const URI::Path& path, AppendSegment&& appendSegment) {
    if (path.segments.empty())
        return path.absolute ? "/" : path.trailingSlash ? "./" : "";
    size_t length = path.segments.size() + 1;
    for (const std::string& segment : path.segments)
        length += segment.size();

    std::string out;
    out.reserve(length);
    bool separate = path.absolute;
    for (const std::string& segment : path.segments) {
        if (separate)
            out += '/';
        separate = true;
        appendSegment(out, segment);
    }
    if (path.trailingSlash)
        out += '/';
    return out;
}
