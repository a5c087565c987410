// uri_escape.cpp: percent escapes (RFC 3986, 2.1), the forms of a component, regions, query strings.
//
// All of it is linear in the text, however many "%" and "[[" that holds: runs are found and copied as a whole, and who
// looks for many characters keeps its place.

#include <algorithm>

#include "foundation/uri/uri_text.h"

namespace {

constexpr size_t NONE = std::string::npos;

constexpr UriBytes NO_BYTES;

constexpr std::string_view SMART_DELIMITERS = "#&/:=?@[]";

// What people read escaped whatever the place.
constexpr UriBytes SMART_KEEP_ESCAPED = UriBytes("%").addRange(0, ' ');

// --- regions ---------------------------------------------------------------------------------------------------------

// PatternSearch finds a character outside regions, again and again in one text. It remembers the last "]]" found, so
// the starts must not decrease.
class PatternSearch {
public:
    PatternSearch(std::string_view text, char character) : m_strText(text), m_cCharacter(character) {}

    // find gives the character's first place from `start` on and before `limit`, NONE if there is none.
    size_t find(size_t start, size_t limit = NONE) {
        const std::string_view text = m_strText.substr(0, limit);
        size_t found = text.find(m_cCharacter, start);
        while (found != NONE) {
            const size_t opening = text.substr(0, found).find("[[", start);
            if (opening == NONE)
                return found;
            const size_t closing = closingFrom(opening + 2);
            if (closing == NONE || closing < found)
                return found;
            start = closing + 2;
            found = text.find(m_cCharacter, start);
        }
        return NONE;
    }

private:
    size_t closingFrom(size_t start) {
        if (m_nClosing != NONE && m_nClosing < start)
            m_nClosing = m_strText.find("]]", start);
        return m_nClosing;
    }

    std::string_view m_strText;
    char m_cCharacter;
    size_t m_nClosing = 0;
};

// PlainSearch is the same without regions.
class PlainSearch {
public:
    PlainSearch(std::string_view text, char character) : m_strText(text), m_cCharacter(character) {}

    size_t find(size_t start, size_t limit = NONE) const {
        // Escapes come in rows, one for each byte of a character.
        if (start < limit && start < m_strText.size() && m_strText[start] == m_cCharacter)
            return start;
        return m_strText.substr(0, limit).find(m_cCharacter, start);
    }

private:
    std::string_view m_strText;
    char m_cCharacter;
};

// appendAround has `append(out, piece)` write the text; with `skipPatterns` only what lies around the regions.
template <typename Append>
void appendAround(std::string& out, std::string_view text, bool skipPatterns, Append&& append) {
    if (!skipPatterns) {
        append(out, text);
        return;
    }
    uriForEachPiece(
        text, [&](std::string_view piece) { append(out, piece); }, [&](std::string_view region) { out += region; });
}

// Appender appends bytes to a text in blocks: what comes byte by byte costs a store each. `flush` comes last.
class Appender {
public:
    explicit Appender(std::string& out) : m_strOut(out) {}

    void put(std::string_view run) {
        if (run.size() > BLOCK - m_nUsed)
            flush();
        if (run.size() > BLOCK) {
            m_strOut += run;
            return;
        }
        std::copy(run.begin(), run.end(), m_aBlock + m_nUsed);
        m_nUsed += run.size();
    }

    void put(char byte) {
        if (m_nUsed == BLOCK)
            flush();
        m_aBlock[m_nUsed++] = byte;
    }

    void putEscape(char c) {
        constexpr const char* digits = "0123456789ABCDEF";
        if (BLOCK - m_nUsed < 3)
            flush();
        const auto byte = static_cast<unsigned char>(c);
        m_aBlock[m_nUsed++] = '%';
        m_aBlock[m_nUsed++] = digits[byte >> 4];
        m_aBlock[m_nUsed++] = digits[byte & 15];
    }

    void flush() {
        m_strOut.append(m_aBlock, m_nUsed);
        m_nUsed = 0;
    }

private:
    static constexpr size_t BLOCK = 256;

    std::string& m_strOut;
    size_t m_nUsed = 0;
    char m_aBlock[BLOCK];
};

// runEnd gives the first place from `at` on whose byte is not in `bytes`.
size_t runEnd(std::string_view text, size_t at, const UriBytes& bytes) {
    while (at < text.size() && bytes.has(text[at]))
        ++at;
    return at;
}

// appendWhole writes the text if all its bytes are in `bytes`, as those of most texts are that are to be changed.
bool appendWhole(std::string& out, std::string_view text, const UriBytes& bytes) {
    const bool whole = runEnd(text, 0, bytes) == text.size();
    if (whole)
        out += text;
    return whole;
}

// --- escaping --------------------------------------------------------------------------------------------------------

void appendEscaped(std::string& out, std::string_view text, const UriBytes& keep) {
    Appender appender(out);
    for (size_t at = 0; at < text.size();) {
        const size_t end = runEnd(text, at, keep);
        appender.put(text.substr(at, end - at));
        for (at = end; at < text.size() && !keep.has(text[at]); ++at)
            appender.putEscape(text[at]);
    }
    appender.flush();
}

std::string escaped(std::string_view text, const UriBytes& keep, bool skipPatterns) {
    std::string out;
    out.reserve(text.size());
    uriAppendEscaped(out, text, keep, skipPatterns);
    return out;
}

// smartRaw gives what stays raw for people if `escapeSet` is to be escaped, of which only delimiters count.
UriBytes smartRaw(const std::string& escapeSet) {
    UriBytes raw = URI_USER_RAW;
    for (char c : SMART_DELIMITERS) {
        if (escapeSet.find(c) != NONE)
            raw.remove(std::string_view(&c, 1));
    }
    return raw;
}

// --- unescaping ------------------------------------------------------------------------------------------------------

// appendDecoded decodes the escapes that `percents` finds, but for bytes in `keep`, whose escapes stay as they are.
// False if a "%" began no escape; it is copied, and what follows is looked at for itself.
template <typename Search>
bool appendDecoded(std::string& out, std::string_view text, const UriBytes& keep, Search percents) {
    size_t percent = percents.find(0);
    if (percent == NONE) {
        out += text;
        return true;
    }
    Appender appender(out);
    bool valid = true;
    size_t copied = 0;
    while (percent != NONE) {
        const int value = uriDecodeEscape(text, percent);
        valid = valid && value >= 0;
        if (value >= 0 && !keep.has(static_cast<char>(value))) {
            appender.put(text.substr(copied, percent - copied));
            appender.put(static_cast<char>(value));
            copied = percent + 3;
        }
        percent = percents.find(percent + (value < 0 ? 1 : 3));
    }
    appender.put(text.substr(copied));
    appender.flush();
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

void putByte(Appender& appender, char byte, bool raw) {
    if (raw)
        appender.put(byte);
    else
        appender.putEscape(byte);
}

void appendNormalized(std::string& out, std::string_view text, const UriNormalForm& form) {
    Appender appender(out);
    for (size_t at = 0; at < text.size();) {
        const size_t end = runEnd(text, at, form.runs);
        appender.put(text.substr(at, end - at));
        at = end;
        if (at == text.size())
            break;
        const int value = text[at] == '%' ? uriDecodeEscape(text, at) : -1;
        if (value >= 0) {
            const char byte = static_cast<char>(value);
            putByte(appender, byte, form.decoded.has(byte));
            at += 3;
        } else {
            putByte(appender, text[at], form.bare.has(text[at]));
            ++at;
        }
    }
    appender.flush();
}

std::string normalized(std::string_view text, const UriNormalForm& form, bool skipPatterns) {
    std::string out;
    uriAppendNormalized(out, text, form, skipPatterns);
    return out;
}

// --- query strings ---------------------------------------------------------------------------------------------------

std::string unescaped(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    uriAppendUnescaped(out, text);
    return out;
}

// splitItems keeps every item, also an empty one.
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

void uriAppendEscaped(std::string& out, std::string_view text, const UriBytes& keep, bool skipPatterns) {
    if (appendWhole(out, text, keep))
        return;
    appendAround(out, text, skipPatterns,
                 [&](std::string& to, std::string_view piece) { appendEscaped(to, piece, keep); });
}

bool uriAppendUnescaped(std::string& out, std::string_view text) {
    return appendDecoded(out, text, NO_BYTES, PlainSearch(text, '%'));
}

void uriAppendNormalized(std::string& out, std::string_view text, const UriNormalForm& form, bool skipPatterns) {
    if (appendWhole(out, text, form.runs))
        return;
    out.reserve(out.size() + text.size());
    appendAround(out, text, skipPatterns,
                 [&](std::string& to, std::string_view piece) { appendNormalized(to, piece, form); });
}

bool uriHasValidEscapes(std::string_view text, bool skipPatterns) {
    return skipPatterns ? allEscapesValid(text, PatternSearch(text, '%'))
                        : allEscapesValid(text, PlainSearch(text, '%'));
}

size_t URI::findSkipPattern(const std::string& text, char character, size_t start) {
    return PatternSearch(text, character).find(start);
}

const char* URI::findSkipPattern(const char* text, char character) {
    const size_t found = PatternSearch(text, character).find(0);
    return found == NONE ? nullptr : text + found;
}

std::string URI::escapeURIComponent(const std::string& text, const std::string& keepSet, bool skipPatterns) {
    return escaped(text, UriBytes(URI_UNRESERVED).add(keepSet), skipPatterns);
}

std::string URI::unescapeURI(const std::string& text, bool* valid, bool skipPatterns) {
    std::string out;
    out.reserve(text.size());
    const bool allValid =
        skipPatterns ? appendDecoded(out, text, NO_BYTES, PatternSearch(text, '%')) : uriAppendUnescaped(out, text);
    if (valid != nullptr)
        *valid = allValid;
    return out;
}

std::string URI::smartEscapeURIComponent(const std::string& text, const std::string& escapeSet, bool skipPatterns) {
    return escaped(text, smartRaw(escapeSet), skipPatterns);
}

std::string URI::smartUnescapeURIComponent(const std::string& text, const std::string& keepEscapedSet,
                                           bool skipPatterns) {
    const UriBytes keep = UriBytes(SMART_KEEP_ESCAPED).add(keepEscapedSet);
    std::string out;
    out.reserve(text.size());
    appendAround(out, text, skipPatterns, [&](std::string& to, std::string_view piece) {
        appendDecoded(to, piece, keep, PlainSearch(piece, '%'));
    });
    return out;
}

std::string URI::normalizeURIComponent(const std::string& text, const std::string& decodeSet,
                                       const std::string& preserveSet, bool skipPatterns) {
    return normalized(text, UriNormalForm(decodeSet, preserveSet), skipPatterns);
}

bool URI::validateEscaping(const std::string& text, bool skipPatterns) {
    return uriHasValidEscapes(text, skipPatterns);
}

void URI::splitQueryString(const std::string& text, Query& items, bool skipPatterns) {
    items.clear();
    if (skipPatterns)
        splitItems<PatternSearch>(text, items);
    else
        splitItems<PlainSearch>(text, items);
}

URI::Query URI::queryString() const {
    return strictItems(query, unescaped);
}

URI::Query URI::queryStringCanonical() const {
    const UriNormalForm form("", "");
    return strictItems(query, [&](std::string_view text) { return normalized(text, form, false); });
}

std::string URI::makeQueryString(const Query& items, bool skipPatterns) {
    std::string out;
    for (const auto& [key, value] : items) {
        if (!out.empty())
            out += '&';
        uriAppendEscaped(out, key, URI_UNRESERVED, skipPatterns);
        out += '=';
        uriAppendEscaped(out, value, URI_UNRESERVED, skipPatterns);
    }
    return out;
}

void URI::setQuery(const Query& items, bool skipPatterns) {
    query = makeQueryString(items, skipPatterns);
}
