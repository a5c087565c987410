#include "foundation/string_utils.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <limits>
#include <utility>

#include "foundation/ascii.h"

namespace {

using CharacterFacet = std::ctype<char>;

const CharacterFacet& facetOf(const std::locale& locale) {
    return std::use_facet<CharacterFacet>(locale);
}

bool isSpaceByte(char byte) {
    return static_cast<unsigned char>(byte) <= 32;
}

template <class Fold>
bool equalsFolded(const std::string& left, const std::string& right, Fold fold) {
    return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                      [&](char a, char b) { return fold(a) == fold(b); });
}

// leadingSpace returns the number of leading whitespace bytes.
size_t leadingSpace(const std::string& text) {
    return static_cast<size_t>(std::find_if_not(text.begin(), text.end(), isSpaceByte) - text.begin());
}

// trimmedEnd returns the length of `text` without its trailing whitespace.
size_t trimmedEnd(const std::string& text) {
    return static_cast<size_t>(text.rend() - std::find_if_not(text.rbegin(), text.rend(), isSpaceByte));
}

bool beginsCodePoint(char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0) != 0x80;
}

// positionOfCodePoint returns where the code point number `max`, counted from 0, begins; npos if there is none before
// the first NUL.
size_t positionOfCodePoint(const std::string& text, int max) {
    int64_t count = 0;
    for (size_t position = 0; position < text.size() && text[position] != '\0'; ++position) {
        if (!beginsCodePoint(text[position]))
            continue;
        if (count == max)
            return position;
        ++count;
    }
    return std::string::npos;
}

// forEachPiece hands the pieces of `text` to `add` from left to right.
template <class Add>
void forEachPiece(const std::string& text, char separator, bool trimPieces, Add add) {
    if (text.empty())
        return;
    size_t begin = 0;
    size_t end;
    do {
        end = text.find(separator, begin);
        std::string piece = text.substr(begin, end - begin);
        add(trimPieces ? trim(piece) : std::move(piece));
        begin = end + 1;
    } while (end != std::string::npos);
}

// splitToBack replaces `pieces` by those of `text`, which are collected aside, because `text` may be an element of
// `pieces`.
template <class Sequence>
void splitToBack(const std::string& text, Sequence& pieces, char separator, bool trimPieces) {
    Sequence collected;
    forEachPiece(text, separator, trimPieces, [&](std::string piece) { collected.push_back(std::move(piece)); });
    pieces = std::move(collected);
}

template <class Sequence>
std::string joinSequence(const Sequence& pieces, const std::string& separator) {
    size_t needed = 0;
    for (const std::string& piece : pieces)
        needed += piece.size() + separator.size();
    std::string text;
    text.reserve(needed);
    for (auto piece = pieces.begin(); piece != pieces.end(); ++piece) {
        if (piece != pieces.begin())
            text += separator;
        text += *piece;
    }
    return text;
}

// isNormalPositiveFloat returns whether a float holds `value` as a normal positive number. It is written so that a NaN
// is outside.
bool isNormalPositiveFloat(double value) {
    return value >= std::numeric_limits<float>::min() && value <= std::numeric_limits<float>::max();
}

}  // namespace

std::string toupper(const std::string& text, const std::locale& locale) {
    std::string folded = text;
    facetOf(locale).toupper(folded.data(), folded.data() + folded.size());
    return folded;
}

std::string tolower(const std::string& text, const std::locale& locale) {
    std::string folded = text;
    facetOf(locale).tolower(folded.data(), folded.data() + folded.size());
    return folded;
}

bool equalsUpCase(const std::string& left, const std::string& right, const std::locale& locale) {
    const CharacterFacet& facet = facetOf(locale);
    return equalsFolded(left, right, [&](char byte) { return facet.toupper(byte); });
}

bool equalsLowCase(const std::string& left, const std::string& right, const std::locale& locale) {
    const CharacterFacet& facet = facetOf(locale);
    return equalsFolded(left, right, [&](char byte) { return facet.tolower(byte); });
}

StringCompareNoCase::StringCompareNoCase(const std::locale& locale) : m_pCtype(&facetOf(locale)) {}

bool StringCompareNoCase::operator()(const std::string& left, const std::string& right) const {
    return std::lexicographical_compare(left.begin(), left.end(), right.begin(), right.end(), [this](char a, char b) {
        return static_cast<unsigned char>(m_pCtype->tolower(a)) < static_cast<unsigned char>(m_pCtype->tolower(b));
    });
}

bool isWhiteSpace(const std::string& text) {
    return std::all_of(text.begin(), text.end(), isSpaceByte);
}

std::string trim(const std::string& text) {
    const size_t begin = leadingSpace(text);
    return begin == text.size() ? std::string() : text.substr(begin, trimmedEnd(text) - begin);
}

std::string trimNL(const std::string& text) {
    const size_t content = leadingSpace(text);
    if (content == text.size())
        return std::string();
    const size_t lastBreak = text.substr(0, content).find_last_of("\r\n");
    const size_t begin = lastBreak == std::string::npos ? 0 : lastBreak + 1;
    return text.substr(begin, trimmedEnd(text) - begin);
}

std::string trimAndStrip(const std::string& text) {
    std::string stripped;
    stripped.reserve(text.size());
    bool afterSpace = false;
    for (const char byte : text) {
        if (isSpaceByte(byte)) {
            afterSpace = true;
            continue;
        }
        if (afterSpace && !stripped.empty())
            stripped += ' ';
        stripped += byte;
        afterSpace = false;
    }
    return stripped;
}

std::string truncateUTF8(const std::string& text, int max, const char* suffix) {
    const size_t cut = positionOfCodePoint(text, max);
    if (cut == std::string::npos)
        return text;
    return text.substr(0, cut) + (suffix ? suffix : "");
}

std::string truncateUTF8(std::string&& text, int max, const char* suffix) {
    const size_t cut = positionOfCodePoint(text, max);
    if (cut != std::string::npos)
        text.replace(cut, std::string::npos, suffix ? suffix : "");
    return std::move(text);
}

void split(const std::string& text, std::vector<std::string>& pieces, char separator, bool trimPieces) {
    splitToBack(text, pieces, separator, trimPieces);
}

void split(const std::string& text, std::list<std::string>& pieces, char separator, bool trimPieces) {
    splitToBack(text, pieces, separator, trimPieces);
}

void split(const std::string& text, std::set<std::string>& pieces, char separator, bool trimPieces) {
    std::set<std::string> collected;
    forEachPiece(text, separator, trimPieces, [&](std::string piece) { collected.insert(std::move(piece)); });
    pieces = std::move(collected);
}

void split(const std::string& text, std::forward_list<std::string>& pieces, char separator, bool trimPieces) {
    std::forward_list<std::string> collected;
    forEachPiece(text, separator, trimPieces, [&](std::string piece) { collected.push_front(std::move(piece)); });
    pieces = std::move(collected);
}

std::string join(const std::vector<std::string>& pieces, const std::string& separator) {
    return joinSequence(pieces, separator);
}

std::string join(const std::list<std::string>& pieces, const std::string& separator) {
    return joinSequence(pieces, separator);
}

std::string join(const std::forward_list<std::string>& pieces, const std::string& separator) {
    return joinSequence(pieces, separator);
}

std::vector<unsigned char> fromBase16(const std::string& digits) {
    if (digits.size() % 2 != 0)
        return {};
    std::vector<unsigned char> bytes;
    bytes.reserve(digits.size() / 2);
    for (size_t position = 0; position < digits.size(); position += 2) {
        const int high = ascii::hexValue(digits[position]);
        const int low = ascii::hexValue(digits[position + 1]);
        if (high < 0 || low < 0)
            return {};
        bytes.push_back(static_cast<unsigned char>(high * 16 + low));
    }
    return bytes;
}

bool from_string(const std::string& text, double& value) {
    char* end = nullptr;
    value = std::strtod(text.c_str(), &end);
    if (end != text.c_str() && *end == '\0')
        return true;
    value = 0.0;
    return false;
}

bool from_string(const std::string& text, float& value) {
    value = 0.0F;
    double wide = 0.0;
    if (!from_string(text, wide) || !isNormalPositiveFloat(wide))
        return false;
    value = static_cast<float>(wide);
    return true;
}

bool cryptProtect(const std::string& plain, std::string& sealed) {
    sealed = plain;
    return true;
}

bool cryptUnprotect(const std::string& sealed, std::string& plain) {
    plain = sealed;
    return true;
}

bool cryptGenRandomPSK(unsigned /*length*/, std::string& key) {
    key.clear();
    return false;
}
