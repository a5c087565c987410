// UTF-8 to UTF-16 and to UCS-4.
//
// There is one loop for both. Sound characters go through convertSound, which sees a stretch of input with enough room
// for all of it; step knows the whole table of what to do with anything, and takes over where convertSound stops.

#include <algorithm>
#include <utility>

#include "foundation/unicode.h"
#include "foundation/unicode/unicode_bulk.h"
#include "foundation/unicode/unicode_conversion.h"
#include "foundation/unicode/unicode_counting.h"
#include "foundation/unicode/unicode_sequence.h"

namespace {

using namespace unicode;

enum class CutOff { Replace, Keep };

// WIDE_UNITS is what a lead byte from 0xF0 up takes in the output.
template <class OutUnit>
constexpr int WIDE_UNITS = sizeof(OutUnit) == sizeof(char16_t) ? 2 : 1;

template <class OutUnit>
OutUnit* writeWide(OutUnit* out, char32_t value) {
    if constexpr (WIDE_UNITS<OutUnit> == 2) {
        *out++ = highOf(value);
        *out++ = lowOf(value);
    } else {
        *out++ = value;
    }
    return out;
}

// ShortForms marks, in the highest bit of each byte, what kind of byte a block of eight has there.
struct ShortForms {
    uint64_t leads;  // lead bytes 110xxxxx
    uint64_t continuations;
    uint64_t faults;  // whatever is neither ASCII nor a sound two-byte character
};

[[gnu::always_inline]] inline ShortForms findShortForms(uint64_t word) {
    constexpr uint64_t highBits = 0x8080808080808080;
    const uint64_t leads = word & word << 1 & highBits;
    const uint64_t continuations = word & ~(word << 1) & highBits;
    const uint64_t longForms = leads & word << 2;
    const uint64_t misplaced = continuations ^ leads << 8;
    const uint64_t tooSmall = leads & ~((word & 0x1E1E1E1E1E1E1E1E) + 0x7F7F7F7F7F7F7F7F);
    return {leads, continuations, longForms | misplaced | tooSmall};
}

// storeCounted stores the value of each byte (`high` times 64 plus `low`) at `out`, and moves past it if the byte's
// highest bit in `counts` is set.
template <class OutUnit, int... i>
[[gnu::always_inline]] inline OutUnit* storeCounted(OutUnit* out, uint64_t high, uint64_t low, uint64_t counts,
                                                    std::integer_sequence<int, i...>) {
    ((*out = static_cast<OutUnit>((high >> 8 * i & 0xFF) << 6 | (low >> 8 * i & 0xFF)),
      out += counts >> (8 * i + 7) & 1),
     ...);
    return out;
}

// convertShortForms converts a block of ASCII and two-byte characters without a branch, because in most scripts the
// next length cannot be predicted. A value is made for each byte; that of a lead byte is overwritten by the next one. A
// lead byte at the end is left for the next block; there must be a byte after it, so that it makes a unit in any case.
template <class OutUnit>
[[gnu::always_inline]] inline Place<unsigned char, OutUnit> convertShortForms(Place<unsigned char, OutUnit> place,
                                                                              uint64_t word, ShortForms forms) {
    const uint64_t leadBits = (forms.leads >> 7) * 0x1F;
    const uint64_t high = (word & leadBits) << 8;
    const uint64_t low = word & ~forms.continuations;
    return {place.at + BLOCK - (forms.leads >> 63),
            storeCounted(place.out, high, low, ~forms.leads, std::make_integer_sequence<int, BLOCK>())};
}

// convertLongForms converts a run of three-byte and four-byte characters; it stops at the first thing else, or when
// fewer than four bytes are left.
template <class OutUnit>
[[gnu::always_inline]] inline Place<unsigned char, OutUnit> convertLongForms(Place<unsigned char, OutUnit> place,
                                                                             const unsigned char* end) {
    while (end - place.at >= 4) {
        const uint32_t word = loadFour(place.at);
        if (isThreeBytes(word) && threeByteValue(word) >= 0x800) {
            *place.out = static_cast<OutUnit>(threeByteValue(word));
            place = {place.at + 3, place.out + 1};
        } else if (isFourBytes(word) && inFourByteRange(fourByteValue(word))) {
            place = {place.at + 4, writeWide(place.out, fourByteValue(word))};
        } else {
            break;
        }
    }
    return place;
}

// convertShort converts one ASCII or two-byte character if it is sound; else it leaves the place as it is.
template <class OutUnit>
[[gnu::always_inline]] inline Place<unsigned char, OutUnit> convertShort(Place<unsigned char, OutUnit> place) {
    const uint32_t word = loadFour(place.at);
    if ((word & 0x80) == 0) {
        *place.out = static_cast<OutUnit>(word & 0x7F);
        return {place.at + 1, place.out + 1};
    }
    if (isTwoBytes(word) && twoByteValue(word) >= 0x80) {
        *place.out = static_cast<OutUnit>(twoByteValue(word));
        return {place.at + 2, place.out + 1};
    }
    return place;
}

// convertBlock converts what it can of the eight bytes at the place and of a run that starts with them, at least one
// character if it is sound.
template <class OutUnit>
[[gnu::always_inline]] inline Place<unsigned char, OutUnit> convertBlock(Place<unsigned char, OutUnit> place,
                                                                         const unsigned char* end) {
    if (*place.at >= 0xE0)
        return convertLongForms(place, end);
    if (end - place.at >= 2 * BLOCK && twoBlocksAreAscii(place.at))
        return copyTwoBlocks(place);
    const uint64_t word = loadEight(place.at);
    const ShortForms forms = findShortForms(word);
    if (forms.faults == 0)
        return convertShortForms(place, word, forms);
    return convertShort(place);
}

// convertSound converts sound characters up to the first bad one or the last bytes of a stretch. No character makes
// more units than it has bytes. The stretch is cut to the room once, and the loops need not check the room.
template <class Input, class OutUnit>
void convertSound(Input& in, Output<OutUnit>& output) {
    const unsigned char* const end = in.at() + std::min(in.known(), output.left());
    Place<unsigned char, OutUnit> place{in.at(), output.at()};
    const unsigned char* before = nullptr;
    while (end - place.at > BLOCK && place.at != before) {
        before = place.at;
        place = convertBlock(place, end);
    }
    while (end - place.at >= 4 && place.at != before) {
        before = place.at;
        place = *place.at >= 0xE0 ? convertLongForms(place, end) : convertShort(place);
    }
    in.skip(place.at - in.at());
    output.wroteTo(place.out);
}

// isCutOff returns whether the sequence at `in` is sound as far as it goes and goes to the end of the input.
bool isCutOff(const CountedInput<unsigned char>& in) {
    const unsigned char lead = *in.at();
    const int length = lead < 0xC0 || lead >= 0xF8 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    int n = 1;
    while (n < length && isContinuation(in.ahead(n)))
        ++n;
    return n < length && n == in.known();
}

// stepNarrow takes what a lead byte from 0xC0 to 0xEF starts, which is one unit in any case.
template <class Input, class OutUnit>
void stepNarrow(Input& in, Output<OutUnit>& out, uint32_t word) {
    if (isTwoBytes(word)) {
        out.put(twoByteValue(word) >= 0x80 ? twoByteValue(word) : U'?');
        in.skip(2);
    } else if (isThreeBytes(word)) {
        out.put(threeByteValue(word) >= 0x800 ? threeByteValue(word) : U'?');
        in.skip(3);
    } else {
        out.put(U'?');
        in.skip(1);
    }
}

// stepWide takes what a lead byte from 0xF0 up starts.
template <class Input, class OutUnit>
void stepWide(Input& in, Output<OutUnit>& out, uint32_t word) {
    if (isFourBytes(word) && inFourByteRange(fourByteValue(word)))
        out.wroteTo(writeWide(out.at(), fourByteValue(word)));
    else
        out.wroteTo(std::fill_n(out.at(), WIDE_UNITS<OutUnit>, OutUnit('?')));
    in.skip(isFourBytes(word) ? 4 : 1);
}

// step converts the character at `in`, whatever it is. It takes nothing and returns false if it has to stop before it.
template <CutOff onCutOff, class Input, class OutUnit>
bool step(Input& in, Output<OutUnit>& out) {
    const unsigned char lead = *in.at();
    if (isContinuation(lead)) {
        in.skip(1);
        return true;
    }
    if (!out.fits(lead < 0xF0 ? 1 : WIDE_UNITS<OutUnit>))
        return false;
    if constexpr (onCutOff == CutOff::Keep) {
        if (isCutOff(in))
            return false;
    }
    if (lead < 0x80) {
        out.put(lead);
        in.skip(1);
    } else if (lead < 0xF0) {
        stepNarrow(in, out, peekSequence(in));
    } else {
        stepWide(in, out, peekSequence(in));
    }
    return true;
}

template <class OutputUnit, CutOff onCutOff = CutOff::Replace>
struct Decode {
    using Unit = unsigned char;
    using OutUnit = OutputUnit;

    template <class Input>
    static size_t room(Input in) {
        return WIDE_UNITS<OutUnit> == 2 ? countUTF8Words(in) : countUTF8CodePoints(in);
    }

    template <class Input>
    static void run(Input& in, Output<OutUnit>& out) {
        while (in.more()) {
            convertSound(in, out);
            if (in.more() && !step<onCutOff>(in, out))
                return;
        }
    }
};

using To16 = Decode<char16_t>;
using To16Waiting = Decode<char16_t, CutOff::Keep>;
using ToUCS4 = Decode<char32_t>;
using Terminated = TerminatedInput<unsigned char>;
using Counted = CountedInput<unsigned char>;

}  // namespace

int utf8To16Z(const unsigned char* in, char16_t* out, bool terminate) {
    return toBuffer<To16>(Terminated(in), out, terminate);
}

void utf8To16Z(const unsigned char* in, std::u16string& out) {
    toString<To16>(Terminated(in), out);
}

int utf8To16N(const unsigned char* in, int count, char16_t* out, bool terminate) {
    return toBuffer<To16>(Counted(in, count), out, terminate);
}

void utf8To16N(const unsigned char* in, int count, std::u16string& out) {
    toString<To16>(Counted(in, count), out);
}

char16_t* utf8To16AllocZ(const unsigned char* in, int* length) {
    return toNewBuffer<To16>(Terminated(in), true, length);
}

char16_t* utf8To16AllocN(const unsigned char* in, int count, int* length) {
    return toNewBuffer<To16>(Counted(in, count), true, length);
}

int utf8To16MaxZ(const unsigned char*& in, char16_t* out, int max) {
    return toBoundedZ<To16>(in, out, max);
}

int utf8To16MaxN(const unsigned char*& in, int& count, char16_t* out, int max) {
    return toBoundedN<To16>(in, count, out, max);
}

int utf8To16MaxNW(const unsigned char*& in, int& count, char16_t* out, int max) {
    return toBoundedN<To16Waiting>(in, count, out, max);
}

int utf8ToUCS4Z(const unsigned char* in, char32_t* out, bool terminate) {
    return toBuffer<ToUCS4>(Terminated(in), out, terminate);
}

void utf8ToUCS4Z(const unsigned char* in, std::u32string& out) {
    toString<ToUCS4>(Terminated(in), out);
}

int utf8ToUCS4N(const unsigned char* in, int count, char32_t* out, bool terminate) {
    return toBuffer<ToUCS4>(Counted(in, count), out, terminate);
}

char32_t* utf8ToUCS4AllocZ(const unsigned char* in, int* length) {
    return toNewBuffer<ToUCS4>(Terminated(in), true, length);
}

char32_t* utf8ToUCS4AllocN(const unsigned char* in, int count, bool terminate, int* length) {
    return toNewBuffer<ToUCS4>(Counted(in, count), terminate, length);
}

int utf8ToUCS4MaxZ(const unsigned char*& in, char32_t* out, int max) {
    return toBoundedZ<ToUCS4>(in, out, max);
}
