// uri_region.h: texts with regions "[[" ... "]]" that are passed over, for this folder only.
#pragma once

#include <cstddef>
#include <string_view>

// uriForEachPiece cuts `text` at its regions "[[" ... "]]", which are taken from the left, and goes through it in
// order: `plain` gets the text before, between and after them, never empty, `region` gets the regions with their
// brackets.
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

// UriPatternSearch finds a character outside regions, again and again in one text. It remembers the last "]]" found, so
// the starts must not decrease.
class UriPatternSearch {
public:
    UriPatternSearch(std::string_view text, char character) : m_strText(text), m_cCharacter(character) {}

    // find returns the character's first place from `start` on and before `limit`, or npos.
    size_t find(size_t start, size_t limit = std::string_view::npos) {
        const std::string_view text = m_strText.substr(0, limit);
        size_t found = text.find(m_cCharacter, start);
        while (found != std::string_view::npos) {
            const size_t opening = text.substr(0, found).find("[[", start);
            if (opening == std::string_view::npos)
                return found;
            const size_t closing = closingFrom(opening + 2);
            if (closing == std::string_view::npos || closing < found)
                return found;
            start = closing + 2;
            found = text.find(m_cCharacter, start);
        }
        return std::string_view::npos;
    }

private:
    size_t closingFrom(size_t start) {
        if (m_nClosing != std::string_view::npos && m_nClosing < start)
            m_nClosing = m_strText.find("]]", start);
        return m_nClosing;
    }

    std::string_view m_strText;
    char m_cCharacter;
    size_t m_nClosing = 0;
};

// UriPlainSearch finds a character wherever it is, with the interface of UriPatternSearch.
class UriPlainSearch {
public:
    UriPlainSearch(std::string_view text, char character) : m_strText(text), m_cCharacter(character) {}

    size_t find(size_t start, size_t limit = std::string_view::npos) const {
        // Escapes come in rows, one for each byte of a character.
        if (start < limit && start < m_strText.size() && m_strText[start] == m_cCharacter)
            return start;
        return m_strText.substr(0, limit).find(m_cCharacter, start);
    }

private:
    std::string_view m_strText;
    char m_cCharacter;
};
