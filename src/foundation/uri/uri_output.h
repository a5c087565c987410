// uri_output.h: text on its way to a string, for the sources of `URI` only.
//
// A URI is printed in many small pieces. They gather in a block on the stack, so that each costs little more than its
// bytes, and most texts reach the string as one piece.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>

#include "foundation/uri/uri_region.h"
#include "foundation/uri/uri_text.h"

// UriOutput appends to a string. `flush` hands over what still waits in the block; it comes last.
class UriOutput {
public:
    explicit UriOutput(std::string& out) : m_strOut(out) {}

    UriOutput(const UriOutput&) = delete;
    UriOutput& operator=(const UriOutput&) = delete;

    void put(char byte) {
        *room(1) = byte;
        ++m_pNext;
    }

    void put(std::string_view text) {
        if (text.size() > BLOCK) {
            flush();
            m_strOut += text;
            return;
        }
        m_pNext = std::copy(text.begin(), text.end(), room(text.size()));
    }

    // putEscape writes a byte as an escape.
    void putEscape(char byte) { m_pNext = URI_ALL_ESCAPING.write(room(UriEscaping::ROOM), byte); }

    // putEscaped writes a text with the bytes escaped that `escaping` says, with `skipPatterns` outside regions only.
    void putEscaped(std::string_view text, const UriEscaping& escaping, bool skipPatterns = false) {
        if (skipPatterns) {
            uriForEachPiece(
                text, [&](std::string_view piece) { putEscaped(piece, escaping); },
                [this](std::string_view region) { put(region); });
            return;
        }
        constexpr size_t most = BLOCK / UriEscaping::ROOM;
        for (; text.size() > most; text.remove_prefix(most))
            putPart(text.substr(0, most), escaping);
        putPart(text, escaping);
    }

    void flush() {
        m_strOut.append(m_aBlock, m_pNext);
        m_pNext = m_aBlock;
    }

private:
    static constexpr size_t BLOCK = 4096;

    void putPart(std::string_view part, const UriEscaping& escaping) {
        char* next = room(UriEscaping::ROOM * part.size());
        for (const char byte : part)
            next = escaping.write(next, byte);
        m_pNext = next;
    }

    // room returns a place for `count` bytes, at most BLOCK.
    char* room(size_t count) {
        if (static_cast<size_t>(m_aBlock + BLOCK - m_pNext) < count)
            flush();
        return m_pNext;
    }

    std::string& m_strOut;
    char m_aBlock[BLOCK];
    char* m_pNext = m_aBlock;
};
