// UCS-4 and UTF-16 to UTF-8, and the appending of one code point.
//
// There is one loop for both. Sound characters go through convertSound, which sees a stretch of input with enough room
// for all of it; step takes over at bad surrogates, at what is dropped, and near the end of the room.

#include <algorithm>
#include <type_traits>
#include <utility>

#include "foundation/unicode.h"
#include "foundation/unicode/unicode_bulk.h"
#include "foundation/unicode/unicode_conversion.h"
#include "foundation/unicode/unicode_counting.h"
#include "foundation/unicode/unicode_sequence.h"

namespace {

using namespace unicode;

// encodedSize returns the bytes for a code point, 0 for one that is dropped.
int encodedSize(char32_t value) {
    return isSurrogate(value) ? 0 : static_cast<int>(ucs4Bytes(value, 0x110000));
}

template <int... i>
[[gnu::always_inline]] inline void storeBytes(unsigned char* out, uint64_t word, std::integer_sequence<int, i...>) {
    ((out[i] = static_cast<unsigned char>(word >> 8 * i)), ...);
}

// store writes the lowest `n` bytes of `word`, the lowest first, and returns the end.
template <int n>
[[gnu::always_inline]] inline unsigned char* store(unsigned char* out, uint64_t word) {
    storeBytes(out, word, std::make_integer_sequence<int, n>());
    return out + n;
}

// twoBytes, threeBytes and fourBytes return the sequence of a code point of that size, the lead byte lowest.
constexpr uint32_t twoBytes(char32_t value) {
    return 0x80C0 | value >> 6 | (value & 0x3F) << 8;
}
constexpr uint32_t threeBytes(char32_t value) {
    return 0x8080E0 | value >> 12 | (value << 2 & 0x3F00) | (value & 0x3F) << 16;
}
constexpr uint32_t fourBytes(char32_t value) {
    return 0x808080F0 | value >> 18 | (value >> 4 & 0x3F00) | (value << 10 & 0x3F0000) | (value & 0x3F) << 24;
}

unsigned char* writeSequence(unsigned char* out, char32_t value, int size) {
    switch (size) {
    case 1:
        *out++ = static_cast<unsigned char>(value);
        return out;
    case 2:
        return store<2>(out, twoBytes(value));
    case 3:
        return store<3>(out, threeBytes(value));
    case 4:
        return store<4>(out, fourBytes(value));
    default:
        return out;
    }
}

constexpr bool takesThreeBytes(char32_t value) {
    return value >= 0x800 && value < 0x10000 && !isSurrogate(value);
}

template <class Unit>
using EncodePlace = Place<Unit, unsigned char>;

// encodeShort encodes a unit below 0x800. It stores two bytes even where only one counts.
[[gnu::always_inline]] inline unsigned char* encodeShort(unsigned char* out, char32_t value) {
    const uint32_t two = value >= 0x80 ? 1 : 0;
    store<2>(out, value ^ ((value ^ twoBytes(value)) & -two));
    return out + 1 + two;
}

template <class Unit, int... i>
[[gnu::always_inline]] inline unsigned char* encodeEachShort(unsigned char* out, const Unit* at,
                                                             std::integer_sequence<int, i...>) {
    ((out = encodeShort(out, at[i])), ...);
    return out;
}

// encodeShortBlock encodes a block of units below 0x800 without a branch, because in most scripts the next length
// cannot be predicted. The next unit overwrites the byte that does not count; so the last one is left for the next
// block.
template <class Unit>
[[gnu::always_inline]] inline EncodePlace<Unit> encodeShortBlock(EncodePlace<Unit> place) {
    constexpr int count = BLOCK - 1;
    return {place.at + count, encodeEachShort(place.out, place.at, std::make_integer_sequence<int, count>())};
}

// FourUnits holds four units in lanes of 16 bits, the first lowest; `fit` is whether all are below 0x10000.
struct FourUnits {
    uint64_t lanes;
    bool fit;
};

template <class Unit>
[[gnu::always_inline]] inline FourUnits loadUnits(const Unit* at) {
    const uint64_t lanes = at[0] | uint64_t(at[1]) << 16 | uint64_t(at[2]) << 32 | uint64_t(at[3]) << 48;
    return {lanes, sizeof(Unit) == 2 || (at[0] | at[1] | at[2] | at[3]) < 0x10000};
}

// topBitsSet marks, in its highest bit, each lane that has one of its five highest bits set.
constexpr uint64_t topBitsSet(uint64_t lanes) {
    return ((lanes >> 1 & 0x7C007C007C007C00) + 0x7C007C007C007C00) & 0x8000800080008000;
}

// takeThreeBytes returns whether each lane takes three bytes: it is 0x800 or more and not a surrogate.
constexpr bool takeThreeBytes(uint64_t lanes) {
    return (topBitsSet(lanes) & topBitsSet(lanes ^ 0xD800D800D800D800)) == 0x8000800080008000;
}

// encodeThreeByteRun encodes a run of units that take three bytes each; it stops at the first other one.
template <class Unit>
[[gnu::always_inline]] inline EncodePlace<Unit> encodeThreeByteRun(EncodePlace<Unit> place, const Unit* end) {
    while (end - place.at >= 4) {
        const FourUnits four = loadUnits(place.at);
        if (!four.fit || !takeThreeBytes(four.lanes))
            break;
        const uint64_t third = threeBytes(four.lanes >> 32 & 0xFFFF);
        store<8>(place.out,
                 threeBytes(four.lanes & 0xFFFF) | uint64_t(threeBytes(four.lanes >> 16 & 0xFFFF)) << 24 | third << 48);
        store<4>(place.out + 8, third >> 16 | threeBytes(four.lanes >> 48) << 8);
        place = {place.at + 4, place.out + 12};
    }
    while (place.at < end && takesThreeBytes(*place.at))
        place = {place.at + 1, store<3>(place.out, threeBytes(*place.at))};
    return place;
}

// encodeFourByteRun encodes a run of code points from 0x10000 up, which are surrogate pairs in UTF-16; it stops at the
// first thing else. A high surrogate that is the last unit is left.
[[gnu::always_inline]] inline EncodePlace<char16_t> encodeFourByteRun(EncodePlace<char16_t> place,
                                                                      const char16_t* end) {
    while (end - place.at >= 2 && isHighSurrogate(place.at[0]) && isLowSurrogate(place.at[1]))
        place = {place.at + 2, store<4>(place.out, fourBytes(pairValue(place.at[0], place.at[1])))};
    return place;
}

[[gnu::always_inline]] inline EncodePlace<char32_t> encodeFourByteRun(EncodePlace<char32_t> place,
                                                                      const char32_t* end) {
    while (place.at < end && inFourByteRange(*place.at))
        place = {place.at + 1, store<4>(place.out, fourBytes(*place.at))};
    return place;
}

// encodeShortRun encodes units below 0x800 up to the first other one.
template <class Unit>
[[gnu::always_inline]] inline EncodePlace<Unit> encodeShortRun(EncodePlace<Unit> place, const Unit* end) {
    while (end - place.at >= 2 && place.at[1] < 0x800)
        place = {place.at + 1, encodeShort(place.out, *place.at)};
    if (*place.at < 0x80)
        return {place.at + 1, store<1>(place.out, *place.at)};
    return {place.at + 1, store<2>(place.out, twoBytes(*place.at))};
}

// encodeNext encodes what it can at the place, a block or a run, or nothing if the first unit needs a closer look.
template <class Unit>
[[gnu::always_inline]] inline EncodePlace<Unit> encodeNext(EncodePlace<Unit> place, const Unit* end) {
    if (takesThreeBytes(*place.at))
        return encodeThreeByteRun(place, end);
    if (*place.at >= 0x800)
        return encodeFourByteRun(place, end);
    if (end - place.at >= 2 * BLOCK && twoBlocksAreAscii(place.at))
        return copyTwoBlocks(place);
    if (end - place.at >= BLOCK && blockIsBelow<0x800>(place.at))
        return encodeShortBlock(place);
    return encodeShortRun(place, end);
}

// MAX_BYTES is the most that one unit becomes.
template <class Unit>
constexpr int MAX_BYTES = sizeof(Unit) == sizeof(char16_t) ? 3 : 4;

// convertSound encodes up to the first unit that is dropped or needs a closer look. The stretch is cut to what has room
// in any case.
template <class Input>
void convertSound(Input& in, Output<unsigned char>& output) {
    using Unit = std::remove_cvref_t<decltype(*in.at())>;
    const Unit* const end = in.at() + std::min(in.known(), output.left() / MAX_BYTES<Unit>);
    EncodePlace<Unit> place{in.at(), output.at()};
    const Unit* before = nullptr;
    while (place.at < end && place.at != before) {
        before = place.at;
        place = encodeNext(place, end);
    }
    in.skip(place.at - in.at());
    output.wroteTo(place.out);
}

// step encodes or drops the character at `in`. It takes nothing and returns false if the output does not fit.
template <class Input>
bool step(Input& in, Output<unsigned char>& out) {
    char32_t value = *in.at();
    int units = 1;
    if (sizeof(*in.at()) == sizeof(char16_t) && isPair(in)) {
        value = pairValue(value, in.ahead(1));
        units = 2;
    }
    const int size = encodedSize(value);
    if (!out.fits(size))
        return false;
    out.wroteTo(writeSequence(out.at(), value, size));
    in.skip(units);
    return true;
}

template <class InputUnit>
struct Encode {
    using Unit = InputUnit;
    using OutUnit = unsigned char;

    template <class Input>
    static size_t room(Input in) {
        if constexpr (sizeof(Unit) == sizeof(char16_t))
            return countUTF16Bytes(in);
        else
            return countUCS4Room(in);
    }

    template <class Input>
    static void run(Input& in, Output<unsigned char>& out) {
        while (in.more()) {
            convertSound(in, out);
            if (in.more() && !step(in, out))
                return;
        }
    }
};

using From16 = Encode<char16_t>;
using FromUCS4 = Encode<char32_t>;
using Terminated16 = TerminatedInput<char16_t>;
using TerminatedUCS4 = TerminatedInput<char32_t>;
using Counted16 = CountedInput<char16_t>;
using CountedUCS4 = CountedInput<char32_t>;

}  // namespace

int ucs4ToUTF8Z(const char32_t* in, unsigned char* out, bool terminate) {
    return toBuffer<FromUCS4>(TerminatedUCS4(in), out, terminate);
}

void ucs4ToUTF8Z(const char32_t* in, std::string& out) {
    toString<FromUCS4>(TerminatedUCS4(in), out);
}

int ucs4ToUTF8N(const char32_t* in, int count, unsigned char* out, bool terminate) {
    return toBuffer<FromUCS4>(CountedUCS4(in, count), out, terminate);
}

void ucs4ToUTF8N(const char32_t* in, int count, std::string& out) {
    toString<FromUCS4>(CountedUCS4(in, count), out);
}

unsigned char* ucs4ToUTF8AllocZ(const char32_t* in, int* length) {
    return toNewBuffer<FromUCS4>(TerminatedUCS4(in), true, length);
}

unsigned char* ucs4ToUTF8AllocN(const char32_t* in, int count, bool terminate, int* length) {
    return toNewBuffer<FromUCS4>(CountedUCS4(in, count), terminate, length);
}

int ucs4ToUTF8MaxZ(const char32_t*& in, unsigned char* out, int max) {
    return toBoundedZ<FromUCS4>(in, out, max);
}

int ucs4ToUTF8MaxN(const char32_t*& in, int& count, unsigned char* out, int max) {
    return toBoundedN<FromUCS4>(in, count, out, max);
}

int utf16To8Z(const char16_t* in, unsigned char* out, bool terminate) {
    return toBuffer<From16>(Terminated16(in), out, terminate);
}

void utf16To8Z(const char16_t* in, std::string& out) {
    toString<From16>(Terminated16(in), out);
}

int utf16To8N(const char16_t* in, int count, unsigned char* out, bool terminate) {
    return toBuffer<From16>(Counted16(in, count), out, terminate);
}

void utf16To8N(const char16_t* in, int count, std::string& out) {
    toString<From16>(Counted16(in, count), out);
}

unsigned char* utf16To8AllocZ(const char16_t* in, int* length) {
    return toNewBuffer<From16>(Terminated16(in), true, length);
}

unsigned char* utf16To8AllocN(const char16_t* in, int count, int* length) {
    return toNewBuffer<From16>(Counted16(in, count), true, length);
}

int utf16To8MaxZ(const char16_t*& in, unsigned char* out, int max) {
    return toBoundedZ<From16>(in, out, max);
}

int utf16To8MaxN(const char16_t*& in, int& count, unsigned char* out, int max) {
    return toBoundedN<From16>(in, count, out, max);
}

void utf8Append(std::string& out, char32_t codePoint) {
    unsigned char sequence[4];
    const unsigned char* const end = writeSequence(sequence, codePoint, encodedSize(codePoint));
    out.append(reinterpret_cast<const char*>(sequence), static_cast<size_t>(end - sequence));
}

void utf16Append(std::u16string& out, char32_t codePoint) {
    if (codePoint < 0x10000) {
        out += static_cast<char16_t>(codePoint);
    } else if (inFourByteRange(codePoint)) {
        out += highOf(codePoint);
        out += lowOf(codePoint);
    }
}
