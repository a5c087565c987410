// unicode_counting.h: the counts that the counting functions of unicode.h return, for its sources only.
//
// Here they are of type size_t and over any kind of input; the conversions size their output with them.
#pragma once

#include <cstddef>

#include "foundation/unicode/unicode_conversion.h"
#include "foundation/unicode/unicode_sequence.h"

namespace unicode {

// The fixed length of a block lets the compiler make vector code of the loops over it. A weight is at most 4, so the
// sum over a block goes into one unit of any width.
constexpr ptrdiff_t COUNT_BLOCK = 32;

template <class Unit, class Weight>
size_t sumOfBlock(const Unit* at, Weight weight) {
    Unit sum = 0;
    for (ptrdiff_t i = 0; i < COUNT_BLOCK; ++i)
        sum = static_cast<Unit>(sum + weight(at[i]));
    return sum;
}

// sumOfUnits adds the weights of all units.
template <class Input, class Weight>
size_t sumOfUnits(Input in, Weight weight) {
    size_t sum = 0;
    while (in.more()) {
        if (in.known() >= COUNT_BLOCK) {
            sum += sumOfBlock(in.at(), weight);
            in.skip(COUNT_BLOCK);
        } else {
            sum += weight(*in.at());
            in.skip(1);
        }
    }
    return sum;
}

template <class Input>
bool isPair(const Input& in) {
    return isHighSurrogate(*in.at()) && isLowSurrogate(in.ahead(1));
}

// sumOfUTF16 adds the weights of the ordinary units, and `pairWeight` for each surrogate pair.
template <class Input, class Weight>
size_t sumOfUTF16(Input in, size_t pairWeight, Weight weight) {
    auto surrogateWeight = [](char16_t unit) { return isSurrogate(unit) ? 1 : 0; };
    size_t sum = 0;
    while (in.more()) {
        if (in.known() >= COUNT_BLOCK && sumOfBlock(in.at(), surrogateWeight) == 0) {
            sum += sumOfBlock(in.at(), weight);
            in.skip(COUNT_BLOCK);
        } else if (!isSurrogate(*in.at())) {
            sum += weight(*in.at());
            in.skip(1);
        } else {
            const bool pair = isPair(in);
            sum += pair ? pairWeight : 0;
            in.skip(pair ? 2 : 1);
        }
    }
    return sum;
}

template <class Input>
size_t countUTF8Words(Input in) {
    return sumOfUnits(in, [](unsigned char byte) { return (isContinuation(byte) ? 0 : 1) + (byte >= 0xF0 ? 1 : 0); });
}

template <class Input>
size_t countUTF8CodePoints(Input in) {
    return sumOfUnits(in, [](unsigned char byte) { return isContinuation(byte) ? 0 : 1; });
}

template <class Input>
size_t countUTF16Bytes(Input in) {
    return sumOfUTF16(in, 4, [](char16_t unit) { return 1 + (unit >= 0x80 ? 1 : 0) + (unit >= 0x800 ? 1 : 0); });
}

template <class Input>
size_t countUTF16CodePoints(Input in) {
    return sumOfUTF16(in, 2, [](char16_t) { return 1; });
}

// ucs4Bytes is the encoded size of a code point, surrogates included, 0 from `end` up.
constexpr unsigned ucs4Bytes(char32_t value, char32_t end) {
    return value >= end ? 0 : 1 + (value >= 0x80 ? 1 : 0) + (value >= 0x800 ? 1 : 0) + (value >= 0x10000 ? 1 : 0);
}

// countUCS4Bytes is the count that callers know, which leaves 0x10FFFF out.
template <class Input>
size_t countUCS4Bytes(Input in) {
    return sumOfUnits(in, [](char32_t value) { return ucs4Bytes(value, 0x10FFFF); });
}

// countUCS4Room is enough for what the conversion writes, 0x10FFFF included.
template <class Input>
size_t countUCS4Room(Input in) {
    return sumOfUnits(in, [](char32_t value) { return ucs4Bytes(value, 0x110000); });
}

template <class Input>
size_t countUCS4Words(Input in) {
    return sumOfUnits(in, [](char32_t value) { return value >= 0x10FFFF ? 0 : 1 + (value >= 0x10000 ? 1 : 0); });
}

}  // namespace unicode
