// uri_text.h: what the sources of `URI` share: byte classes of their own (no locale), escapes, normal forms.
// For this folder only.
//
// The uriAppend functions append to a string.
#pragma once

#include <array>
#include <cstring>
#include <limits>
#include <string>
#include <string_view>

#include "foundation/ascii.h"
#include "foundation/uri.h"

// UriBytes is a set of bytes, as a table.
class UriBytes {
public:
    constexpr UriBytes() = default;
    constexpr explicit UriBytes(std::string_view bytes) { add(bytes); }

    constexpr UriBytes& add(std::string_view bytes) {
        for (char c : bytes)
            add(static_cast<unsigned char>(c));
        return *this;
    }

    constexpr UriBytes& addRange(unsigned char first, unsigned char last) {
        for (unsigned byte = first; byte <= last; ++byte)
            add(static_cast<unsigned char>(byte));
        return *this;
    }

    constexpr UriBytes& remove(std::string_view bytes) {
        for (char c : bytes)
            m_aHas[static_cast<unsigned char>(c)] = false;
        return *this;
    }

    constexpr bool has(char c) const { return m_aHas[static_cast<unsigned char>(c)]; }

private:
    constexpr void add(unsigned char byte) { m_aHas[byte] = true; }

    std::array<bool, 256> m_aHas{};
};

// UriEscaping is how each byte is written: as it is, or escaped. It is a table of texts and lengths, so that writing a
// byte takes the same few instructions either way, without a branch.
class UriEscaping {
public:
    // ROOM is how many bytes `write` may touch.
    static constexpr size_t ROOM = 4;

    // UriEscaping escapes all bytes but those in `raw`.
    constexpr explicit UriEscaping(const UriBytes& raw) {
        for (unsigned byte = 0; byte < m_aEntries.size(); ++byte) {
            const char c = static_cast<char>(byte);
            raw.has(c) ? keep(c) : escape(c);
        }
    }

    // keep makes `byte` be written as it is, escape as an escape.
    constexpr void keep(char byte) { entryOf(byte) = {byte, 0, 0, 1}; }
    constexpr void escape(char byte) {
        constexpr const char* digits = "0123456789ABCDEF";
        const auto value = static_cast<unsigned char>(byte);
        entryOf(byte) = {'%', digits[value >> 4], digits[value & 15], 3};
    }

    // write writes `byte` to `out` and returns the place after it.
    char* write(char* out, char byte) const {
        const Entry& entry = m_aEntries[static_cast<unsigned char>(byte)];
        std::memcpy(out, entry.data(), ROOM);
        return out + entry.back();
    }

private:
    using Entry = std::array<char, ROOM>;  // the text and, last, its length

    constexpr Entry& entryOf(char byte) { return m_aEntries[static_cast<unsigned char>(byte)]; }

    std::array<Entry, 256> m_aEntries{};
};

// URI_ALNUM are the ASCII letters and digits, URI_UNRESERVED the unreserved characters (RFC 3986, 2.3).
inline constexpr UriBytes URI_ALNUM = UriBytes().addRange('a', 'z').addRange('A', 'Z').addRange('0', '9');
inline constexpr UriBytes URI_UNRESERVED = UriBytes(URI_ALNUM).add("-._~");

// URI_USER_RAW are the bytes left unescaped in text for people, in any component: all but the bytes below the blank and
// "%".
inline constexpr UriBytes URI_USER_RAW = UriBytes().addRange(' ', 255).remove("%");

// How segments are written: in escaped text, in that of a scheme that keeps "+", in the text for people.
inline constexpr UriBytes URI_PATH_RAW = UriBytes(URI_UNRESERVED).add("!$&'()*,;=:");
inline constexpr UriEscaping URI_PATH_ESCAPING(URI_PATH_RAW);
inline constexpr UriEscaping URI_PATH_ESCAPING_PLUS(UriBytes(URI_PATH_RAW).add("+"));
inline constexpr UriEscaping URI_PATH_USER_ESCAPING(UriBytes(URI_USER_RAW).remove("/?#"));

// URI_STRICT_ESCAPING escapes all but unreserved characters, URI_ALL_ESCAPING these too.
inline constexpr UriEscaping URI_STRICT_ESCAPING(URI_UNRESERVED);
inline constexpr UriEscaping URI_ALL_ESCAPING{UriBytes()};

// URI_USER_ESCAPING is how text for people is written, in any component.
inline constexpr UriEscaping URI_USER_ESCAPING(URI_USER_RAW);

// UriNormalForm is what is left raw in a component's normal form; see `URI::normalizeURIComponent` for the sets.
struct UriNormalForm {
    // decoded bytes are raw, even where they were escaped; bare ones stay raw where they were.
    UriBytes decoded;
    UriBytes bare;

    // runs are the bare bytes that begin no escape.
    UriBytes runs;

    constexpr UriNormalForm(std::string_view decodeSet, std::string_view preserveSet)
        : decoded(UriBytes(URI_UNRESERVED).add(decodeSet)),
          bare(UriBytes(decoded).add(preserveSet)),
          runs(UriBytes(bare).remove("%")) {}
};

// uriDecodeEscape returns the value of the escape whose "%" is at `at`, -1 if two hexadecimal digits do not follow.
constexpr int uriDecodeEscape(std::string_view text, size_t at) {
    if (text.size() - at < 3)
        return -1;
    const int high = ascii::hexValue(text[at + 1]);
    const int low = ascii::hexValue(text[at + 2]);
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

// uriSkip returns the first place from `text` on whose byte is not in `bytes`, which must not hold the terminator.
inline const char* uriSkip(const char* text, const UriBytes& bytes) {
    while (bytes.has(*text))
        ++text;
    return text;
}

// uriAppendUnescaped decodes all escapes; false if a "%" began none (it is copied).
bool uriAppendUnescaped(std::string& out, std::string_view text);

// uriAppendNormalized brings escaped text into a normal form.
void uriAppendNormalized(std::string& out, std::string_view text, const UriNormalForm& form, bool skipPatterns);

// uriHasValidEscapes is `URI::validateEscaping`.
bool uriHasValidEscapes(std::string_view text, bool skipPatterns);
