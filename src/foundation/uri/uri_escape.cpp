// uri_escape.cpp: percent escapes (RFC 3986, 2.1), the forms of a component.
//
// All of it is linear in the text, however many "%" and "[[" that holds: runs are found and copied as a whole, and a
// search for many characters keeps its place.

#include <algorithm>

#include "foundation/uri/uri_region.h"
#include "foundation/uri/uri_text.h"
#include "foundation/uri/uri_write.h"

namespace {

constexpr size_t NONE = std::string::npos;

constexpr UriBytes NO_BYTES;

constexpr std::string_view SMART_DELIMITERS = "#&/:=?@[]";

// SMART_KEEP_ESCAPED are the bytes left escaped in text for people, in any component.
constexpr UriBytes SMART_KEEP_ESCAPED = UriBytes("%").addRange(0, ' ');

// appendAround copies the regions of the text and has `append(piece)` write what lies around them.
template <typename Append>
void appendAround(std::string& out, std::string_view text, Append&& append) {
    uriForEachPiece(text, append, [&](std::string_view region) { out += region; });
}

// runEnd returns the first place from `at` on whose byte is not in `bytes`.
size_t runEnd(std::string_view text, size_t at, const UriBytes& bytes) {
    while (at < text.size() && bytes.has(text[at]))
        ++at;
    return at;
}

// appendWhole writes the text if all its bytes are in `bytes`, as is true of most texts, and returns whether it did.
bool appendWhole(std::string& out, std::string_view text, const UriBytes& bytes) {
    const bool whole = runEnd(text, 0, bytes) == text.size();
    if (whole)
        out += text;
    return whole;
}

// --- escaping --------------------------------------------------------------------------------------------------------

std::string escaped(std::string_view text, const UriEscaping& escaping, bool skipPatterns) {
    return uriWritten(uriRoomEscaped(text),
                      [&](char* out) { return uriWriteEscaped(out, text, escaping, skipPatterns); });
}

// --- unescaping ------------------------------------------------------------------------------------------------------

// appendDecoded decodes the escapes that `percents` finds, except those of bytes in `keep`, which are copied. Returns
// false if a "%" began no escape; it is copied, and what follows is read as any other text.
template <typename Search>
bool appendDecoded(std::string& out, std::string_view text, const UriBytes& keep, Search percents) {
    size_t percent = percents.find(0);
    if (percent == NONE) {
        out += text;
        return true;
    }
    bool valid = true;
    uriAppendWritten(out, text.size(), [&](char* place) {
        size_t copied = 0;
        while (percent != NONE) {
            const int value = uriDecodeEscape(text, percent);
            valid = valid && value >= 0;
            if (value >= 0 && !keep.has(static_cast<char>(value))) {
                place = uriWrite(place, text.substr(copied, percent - copied));
                place = uriWrite(place, static_cast<char>(value));
                copied = percent + 3;
            }
            percent = percents.find(percent + (value < 0 ? 1 : 3));
        }
        return uriWrite(place, text.substr(copied));
    });
    return valid;
}

template <typename Search>
bool allEscapesValid(std::string_view text, Search percents) {
    size_t percent = percents.find(0);
    while (percent != NONE && uriDecodeEscape(text, percent) >= 0)
        percent = percents.find(percent + 3);
    return percent == NONE;
}

// --- normalising -----------------------------------------------------------------------------------------------------

char* writeByte(char* out, char byte, bool raw) {
    return raw ? uriWrite(out, byte) : URI_ALL_ESCAPING.write(out, byte);
}

// writeNormalized writes text without regions in its normal form.
char* writeNormalized(char* out, std::string_view text, const UriNormalForm& form) {
    for (size_t at = 0;;) {
        const size_t end = runEnd(text, at, form.runs);
        out = uriWrite(out, text.substr(at, end - at));
        at = end;
        if (at == text.size())
            return out;
        const int value = text[at] == '%' ? uriDecodeEscape(text, at) : -1;
        if (value >= 0) {
            const char byte = static_cast<char>(value);
            out = writeByte(out, byte, form.decoded.has(byte));
            at += 3;
        } else {
            out = writeByte(out, text[at], form.bare.has(text[at]));
            ++at;
        }
    }
}

}  // namespace

bool uriAppendUnescaped(std::string& out, std::string_view text) {
    return appendDecoded(out, text, NO_BYTES, UriPlainSearch(text, '%'));
}

void uriAppendNormalized(std::string& out, std::string_view text, const UriNormalForm& form, bool skipPatterns) {
    if (appendWhole(out, text, form.runs))
        return;
    if (skipPatterns)
        appendAround(out, text, [&](std::string_view piece) { uriAppendNormalized(out, piece, form, false); });
    else
        uriAppendWritten(out, uriRoomEscaped(text), [&](char* place) { return writeNormalized(place, text, form); });
}

bool uriHasValidEscapes(std::string_view text, bool skipPatterns) {
    return skipPatterns ? allEscapesValid(text, UriPatternSearch(text, '%'))
                        : allEscapesValid(text, UriPlainSearch(text, '%'));
}

size_t URI::findSkipPattern(const std::string& text, char character, size_t start) {
    return UriPatternSearch(text, character).find(start);
}

const char* URI::findSkipPattern(const char* text, char character) {
    const size_t found = UriPatternSearch(text, character).find(0);
    return found == NONE ? nullptr : text + found;
}

std::string URI::escapeURIComponent(const std::string& text, const std::string& keepSet, bool skipPatterns) {
    UriEscaping escaping = URI_STRICT_ESCAPING;
    for (const char c : keepSet)
        escaping.keep(c);
    return escaped(text, escaping, skipPatterns);
}

std::string URI::unescapeURI(const std::string& text, bool* valid, bool skipPatterns) {
    std::string out;
    out.reserve(text.size());
    const bool allValid =
        skipPatterns ? appendDecoded(out, text, NO_BYTES, UriPatternSearch(text, '%')) : uriAppendUnescaped(out, text);
    if (valid != nullptr)
        *valid = allValid;
    return out;
}

std::string URI::smartEscapeURIComponent(const std::string& text, const std::string& escapeSet, bool skipPatterns) {
    UriEscaping escaping = URI_USER_ESCAPING;
    for (const char c : SMART_DELIMITERS) {
        if (escapeSet.find(c) != NONE)
            escaping.escape(c);
    }
    return escaped(text, escaping, skipPatterns);
}

std::string URI::smartUnescapeURIComponent(const std::string& text, const std::string& keepEscapedSet,
                                           bool skipPatterns) {
    const UriBytes keep = UriBytes(SMART_KEEP_ESCAPED).add(keepEscapedSet);
    std::string out;
    out.reserve(text.size());
    const auto decode = [&](std::string_view piece) { appendDecoded(out, piece, keep, UriPlainSearch(piece, '%')); };
    if (skipPatterns)
        appendAround(out, text, decode);
    else
        decode(text);
    return out;
}

std::string URI::normalizeURIComponent(const std::string& text, const std::string& decodeSet,
                                       const std::string& preserveSet, bool skipPatterns) {
    std::string out;
    uriAppendNormalized(out, text, UriNormalForm(decodeSet, preserveSet), skipPatterns);
    return out;
}

bool URI::validateEscaping(const std::string& text, bool skipPatterns) {
    return uriHasValidEscapes(text, skipPatterns);
}
