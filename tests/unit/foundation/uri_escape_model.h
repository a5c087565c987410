// uri_escape_model.h: the escaping of URIs. Every rule is one step after the other, and every search begins again.
#pragma once

#include <algorithm>
#include <cstddef>
#include <functional>
#include <string>

#include "foundation/uri.h"

inline constexpr size_t NO_POSITION = std::string::npos;

inline bool holds(const std::string& set, char c) {
    return set.find(c) != NO_POSITION;
}

inline bool isUnreserved(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || holds("-._~", c);
}

inline std::string escapeWith(const char* digits, char c) {
    const auto byte = static_cast<unsigned char>(c);
    return {'%', digits[byte / 16], digits[byte % 16]};
}
inline std::string escaped(char c) {
    return escapeWith("0123456789ABCDEF", c);
}
inline std::string escapedInLowerCase(char c) {
    return escapeWith("0123456789abcdef", c);
}

inline int digitValue(char c) {
    const size_t position = std::string("0123456789abcdefABCDEF").find(c);
    return position == NO_POSITION ? -1 : static_cast<int>(position < 16 ? position : position - 6);
}

// escapeAt returns the byte that the escape at `i` encodes, or -1 if there is no valid one.
inline int escapeAt(const std::string& text, size_t i) {
    if (text[i] != '%' || text.size() - i < 3 || digitValue(text[i + 1]) < 0 || digitValue(text[i + 2]) < 0)
        return -1;
    return digitValue(text[i + 1]) * 16 + digitValue(text[i + 2]);
}

// regionAt returns the length of the region that begins at `i`, 0 if none does.
inline size_t regionAt(const std::string& text, size_t i, bool skipPatterns) {
    if (!skipPatterns || text.compare(i, 2, "[[") != 0)
        return 0;
    const size_t close = text.find("]]", i + 2);
    return close == NO_POSITION ? 0 : close + 2 - i;
}

inline size_t modelFind(const std::string& text, char character, size_t start) {
    size_t found = text.find(character, start);
    while (found != NO_POSITION) {
        const size_t open = text.find("[[", start);
        if (open == NO_POSITION || open >= found)
            return found;
        const size_t close = text.find("]]", open + 2);
        if (close == NO_POSITION || close < found)
            return found;
        start = close + 2;
        found = text.find(character, start);
    }
    return NO_POSITION;
}

inline size_t modelFind(const std::string& text, char character, size_t start, bool skipPatterns) {
    return skipPatterns ? modelFind(text, character, start) : text.find(character, start);
}

inline std::string modelUnescape(const std::string& text, bool& valid, bool skipPatterns) {
    valid = true;
    std::string result;
    for (size_t i = 0;;) {
        const size_t percent = modelFind(text, '%', i, skipPatterns);
        if (percent == NO_POSITION)
            return result + text.substr(i);
        result += text.substr(i, percent - i);
        const int byte = escapeAt(text, percent);
        valid = valid && byte >= 0;
        result += byte >= 0 ? static_cast<char>(byte) : '%';
        i = percent + (byte >= 0 ? 3 : 1);
    }
}

inline std::string modelUnescape(const std::string& text) {
    bool valid;
    return modelUnescape(text, valid, false);
}

inline bool modelValidate(const std::string& text, bool skipPatterns) {
    for (size_t i = 0;; i += 3) {
        i = modelFind(text, '%', i, skipPatterns);
        if (i == NO_POSITION)
            return true;
        if (escapeAt(text, i) < 0)
            return false;
    }
}

// walk copies regions and hands every other place to `step`, which writes to the result and returns how far to go on.
inline std::string walk(const std::string& text, bool skipPatterns,
                        const std::function<size_t(size_t, std::string&)>& step) {
    std::string result;
    for (size_t i = 0; i < text.size();) {
        if (const size_t region = regionAt(text, i, skipPatterns)) {
            result += text.substr(i, region);
            i += region;
        } else
            i += step(i, result);
    }
    return result;
}

inline std::string modelEscape(const std::string& text, const std::string& keepSet, bool skipPatterns) {
    return walk(text, skipPatterns, [&](size_t i, std::string& result) {
        result += isUnreserved(text[i]) || holds(keepSet, text[i]) ? std::string(1, text[i]) : escaped(text[i]);
        return 1;
    });
}

inline std::string modelSmartEscape(const std::string& text, const std::string& escapeSet, bool skipPatterns) {
    return walk(text, skipPatterns, [&](size_t i, std::string& result) {
        const char c = text[i];
        const bool bControl = static_cast<unsigned char>(c) < 32;
        const bool bEscape = bControl || c == '%' || (holds("#&/:=?@[]", c) && holds(escapeSet, c));
        result += bEscape ? escaped(c) : std::string(1, c);
        return 1;
    });
}

inline std::string modelSmartUnescape(const std::string& text, const std::string& keepEscapedSet) {
    return walk(text, false, [&](size_t i, std::string& result) -> size_t {
        const int byte = escapeAt(text, i);
        if (byte < 0) {
            result += text[i];
            return 1;
        }
        const bool bKeep = byte < 33 || byte == '%' || holds(keepEscapedSet, static_cast<char>(byte));
        result += bKeep ? text.substr(i, 3) : std::string(1, static_cast<char>(byte));
        return 3;
    });
}

inline std::string modelSmartUnescape(const std::string& text, const std::string& keepEscapedSet, bool skipPatterns) {
    std::string result;
    for (size_t i = 0;;) {
        const size_t open = skipPatterns ? text.find("[[", i) : NO_POSITION;
        const size_t close = open == NO_POSITION ? NO_POSITION : text.find("]]", open + 2);
        if (close == NO_POSITION)
            return result + modelSmartUnescape(text.substr(i), keepEscapedSet);
        result += modelSmartUnescape(text.substr(i, open - i), keepEscapedSet);
        result += text.substr(open, close + 2 - open);
        i = close + 2;
    }
}

struct NormalSets {
    std::string decode, preserve;
};

inline std::string modelNormalize(const std::string& text, const NormalSets& sets, bool skipPatterns) {
    return walk(text, skipPatterns, [&](size_t i, std::string& result) -> size_t {
        const int byte = escapeAt(text, i);
        const char c = byte < 0 ? text[i] : static_cast<char>(byte);
        const bool bRaw = isUnreserved(c) || holds(sets.decode, c) || (byte < 0 && holds(sets.preserve, c));
        result += bRaw ? std::string(1, c) : escaped(c);
        return byte < 0 ? 1 : 3;
    });
}

inline URI::Query modelSplit(const std::string& text, bool skipPatterns) {
    URI::Query items;
    for (size_t i = 0;;) {
        const size_t equals = modelFind(text, '=', i, skipPatterns);
        const size_t ampersand = modelFind(text, '&', i, skipPatterns);
        const size_t end = std::min(ampersand, text.size());
        const bool bValue = equals < end;
        const std::string key = text.substr(i, (bValue ? equals : end) - i);
        items[modelUnescape(key)] = bValue ? modelUnescape(text.substr(equals + 1, end - equals - 1)) : "";
        if (ampersand == NO_POSITION)
            return items;
        i = ampersand + 1;
    }
}

inline URI::Query modelQuery(const std::string& text, const std::function<std::string(const std::string&)>& decode) {
    URI::Query items;
    for (size_t i = 0; i < text.size();) {
        const size_t end = std::min(text.find('&', i), text.size());
        const std::string item = text.substr(i, end - i);
        const size_t equals = item.find('=');
        if (!item.empty() && equals != 0)
            items.emplace(decode(item.substr(0, equals)), equals == NO_POSITION ? "" : decode(item.substr(equals + 1)));
        i = end + 1;
    }
    return items;
}
