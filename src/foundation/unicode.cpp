// Counting, stepping and validity; the conversions are in unicode_encode.cpp and unicode_decode.cpp.
#include "foundation/unicode.h"

#include "foundation/unicode/unicode_conversion.h"
#include "foundation/unicode/unicode_counting.h"
#include "foundation/unicode/unicode_sequence.h"

namespace {

using namespace unicode;

using TerminatedUTF8 = TerminatedInput<unsigned char>;
using TerminatedUTF16 = TerminatedInput<char16_t>;
using TerminatedUCS4 = TerminatedInput<char32_t>;
using CountedUTF8 = CountedInput<unsigned char>;
using CountedUTF16 = CountedInput<char16_t>;
using CountedUCS4 = CountedInput<char32_t>;

// soundLength returns the bytes of the sound sequence that starts with `word`, 0 if there is none. A stray continuation
// byte is not one; an encoded surrogate is.
int soundLength(uint32_t word) {
    if ((word & 0x80) == 0)
        return 1;
    if (isTwoBytes(word) && twoByteValue(word) >= 0x80)
        return 2;
    if (isThreeBytes(word) && threeByteValue(word) >= 0x800)
        return 3;
    if (isFourBytes(word) && inFourByteRange(fourByteValue(word)))
        return 4;
    return 0;
}

// lenientLength is soundLength, but takes a stray continuation byte as well.
int lenientLength(uint32_t word) {
    return isContinuation(word & 0xFF) ? 1 : soundLength(word);
}

// strictLength is soundLength, but refuses an encoded surrogate as well.
int strictLength(uint32_t word) {
    const int length = soundLength(word);
    return length == 3 && isSurrogate(threeByteValue(word)) ? 0 : length;
}

// consistsOf returns whether `in` is made of sequences for which `lengthOf` returns a length.
template <class Input, class LengthOf>
bool consistsOf(Input in, LengthOf lengthOf) {
    while (in.more()) {
        const int length = lengthOf(peekSequence(in));
        if (length == 0)
            return false;
        in.skip(length);
    }
    return true;
}

}  // namespace

int utf8NumWordsZ(const unsigned char* in) {
    return toInt(countUTF8Words(TerminatedUTF8(in)));
}
int utf8NumWordsN(const unsigned char* in, int count) {
    return toInt(countUTF8Words(CountedUTF8(in, count)));
}

int utf16NumBytesZ(const char16_t* in) {
    return toInt(countUTF16Bytes(TerminatedUTF16(in)));
}
int utf16NumBytesN(const char16_t* in, int count) {
    return toInt(countUTF16Bytes(CountedUTF16(in, count)));
}

int ucs4NumBytesZ(const char32_t* in) {
    return toInt(countUCS4Bytes(TerminatedUCS4(in)));
}
int ucs4NumBytesN(const char32_t* in, int count) {
    return toInt(countUCS4Bytes(CountedUCS4(in, count)));
}

int ucs4NumWordsZ(const char32_t* in) {
    return toInt(countUCS4Words(TerminatedUCS4(in)));
}
int ucs4NumWordsN(const char32_t* in, int count) {
    return toInt(countUCS4Words(CountedUCS4(in, count)));
}

int utf8NumCodePointsZ(const unsigned char* in) {
    return toInt(countUTF8CodePoints(TerminatedUTF8(in)));
}
int utf8NumCodePointsN(const unsigned char* in, int count) {
    return toInt(countUTF8CodePoints(CountedUTF8(in, count)));
}

int utf16NumCodePointsZ(const char16_t* in) {
    return toInt(countUTF16CodePoints(TerminatedUTF16(in)));
}
int utf16NumCodePointsN(const char16_t* in, int count) {
    return toInt(countUTF16CodePoints(CountedUTF16(in, count)));
}

void utf8Next(const unsigned char*& in) {
    if (*in == 0)
        return;
    do
        ++in;
    while (isContinuation(*in));
}

char32_t utf8Peek(const unsigned char* in) {
    const uint32_t word = peekSequence(TerminatedUTF8(in));
    switch (soundLength(word)) {
    case 1:
        return word & 0x7F;
    case 2:
        return twoByteValue(word);
    case 3:
        return threeByteValue(word);
    case 4:
        return fourByteValue(word);
    default:
        return 0;
    }
}

char32_t utf16Peek(const char16_t* in) {
    if (!isSurrogate(*in))
        return *in;
    if (!isPair(TerminatedUTF16(in)))
        return 0;
    // Only a mark of a sound pair, see the header.
    const char32_t high = in[0];
    const char32_t low = in[1];
    return ((high << 10 & 0xFFFC00) | (low & 0x3FFF)) + 0x10000;
}

bool isValidUTF8Z(const unsigned char* in) {
    return consistsOf(TerminatedUTF8(in), lenientLength);
}
bool isValidUTF8N(const unsigned char* in, int count) {
    return consistsOf(CountedUTF8(in, count), lenientLength);
}
bool isStrictUTF8N(const unsigned char* in, int count) {
    return consistsOf(CountedUTF8(in, count), strictLength);
}
