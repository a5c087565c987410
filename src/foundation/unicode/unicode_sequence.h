// unicode_sequence.h: the multi-byte sequences of UTF-8 and the surrogates of UTF-16, for the sources of unicode.h
// only.
//
// A sequence is looked at as one 32-bit word of four bytes, the lead byte lowest. Bytes after the end of the input are
// 0 there: a zero continues nothing, so that no question about the end is left, and one mask shows whether a form is
// complete.
#pragma once

#include <cstdint>

#include "foundation/unicode.h"

namespace unicode {

constexpr bool isContinuation(unsigned char byte) {
    return (byte & 0xC0) == 0x80;
}

// pairValue returns the code point of a surrogate pair; highOf and lowOf return the units of a code point from 0x10000
// up.
constexpr char32_t pairValue(char32_t high, char32_t low) {
    return ((high & 0x3FF) << 10 | (low & 0x3FF)) + 0x10000;
}
constexpr char16_t highOf(char32_t value) {
    return static_cast<char16_t>((value - 0x10000) >> 10 | 0xD800);
}
constexpr char16_t lowOf(char32_t value) {
    return static_cast<char16_t>((value & 0x3FF) | 0xDC00);
}

// isTwoBytes, isThreeBytes and isFourBytes return whether the word starts with that form, complete. The value may be
// too small for it.
constexpr bool isTwoBytes(uint32_t word) {
    return (word & 0xC0E0) == 0x80C0;
}
constexpr bool isThreeBytes(uint32_t word) {
    return (word & 0xC0C0F0) == 0x8080E0;
}
constexpr bool isFourBytes(uint32_t word) {
    return (word & 0xC0C0C0F8) == 0x808080F0;
}

constexpr char32_t twoByteValue(uint32_t word) {
    return (word & 0x1F) << 6 | (word >> 8 & 0x3F);
}
constexpr char32_t threeByteValue(uint32_t word) {
    return (word & 0xF) << 12 | (word >> 2 & 0xFC0) | (word >> 16 & 0x3F);
}
constexpr char32_t fourByteValue(uint32_t word) {
    return (word & 0x7) << 18 | (word << 4 & 0x3F000) | (word >> 10 & 0xFC0) | (word >> 24 & 0x3F);
}

// inFourByteRange returns whether a four-byte form is right for `value`.
constexpr bool inFourByteRange(char32_t value) {
    return value - 0x10000 < 0x100000;
}

// loadFour reads four bytes as such a word.
inline uint32_t loadFour(const unsigned char* at) {
    return at[0] | uint32_t(at[1]) << 8 | uint32_t(at[2]) << 16 | uint32_t(at[3]) << 24;
}

// loadEight reads eight bytes, the first lowest.
inline uint64_t loadEight(const unsigned char* at) {
    return loadFour(at) | uint64_t(loadFour(at + 4)) << 32;
}

// peekSequence returns the word at the place of `in`, reading no byte after the first that continues nothing.
template <class Input>
uint32_t peekSequence(const Input& in) {
    if (in.known() >= 4)
        return loadFour(in.at());
    uint32_t word = *in.at();
    if (word < 0x80)
        return word;  // may be the terminator, after which nothing may be read
    for (int n = 1; n < 4; ++n) {
        const unsigned char byte = in.ahead(n);
        if (!isContinuation(byte))
            break;
        word |= uint32_t(byte) << 8 * n;
    }
    return word;
}

}  // namespace unicode
