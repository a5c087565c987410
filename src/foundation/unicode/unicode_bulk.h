// unicode_bulk.h: what the bulk loops of the conversions share, for the sources of unicode.h only.
//
// The bulk loops take blocks of eight units. Their steps are inlined by force and without loops inside: what a step
// costs is a few instructions, and calls or counters would double that.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

namespace unicode {

constexpr ptrdiff_t BLOCK = 8;

// Place is where a bulk conversion has come to. It goes in and out by value, so that it stays in registers.
template <class Unit, class OutUnit>
struct Place {
    const Unit* at;
    OutUnit* out;
};

// loadWord reads the `n`th 64 bits of a block.
template <class Unit>
uint64_t loadWord(const Unit* block, size_t n) {
    uint64_t word;
    std::memcpy(&word, reinterpret_cast<const unsigned char*>(block) + n * sizeof word, sizeof word);
    return word;
}

// unitedWords returns the bitwise or of a block's 64-bit words.
template <class Unit>
uint64_t unitedWords(const Unit* block) {
    uint64_t united = loadWord(block, 0);
    if constexpr (sizeof(Unit) >= 2)
        united |= loadWord(block, 1);
    if constexpr (sizeof(Unit) == 4)
        united |= loadWord(block, 2) | loadWord(block, 3);
    return united;
}

// allBelow returns whether all units of united words are below `limit`, a power of two.
template <char32_t limit, class Unit>
constexpr bool allBelow(uint64_t united) {
    constexpr uint64_t eachUnit = UINT64_MAX / static_cast<Unit>(-1);
    return (united & eachUnit * static_cast<Unit>(~(limit - 1))) == 0;
}

template <char32_t limit, class Unit>
bool blockIsBelow(const Unit* block) {
    return allBelow<limit, Unit>(unitedWords(block));
}

#ifdef __SSE2__

template <class Unit>
__m128i load16(const Unit* at) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
}

template <class OutUnit>
void store16(OutUnit* out, __m128i units) {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), units);
}

inline __m128i load8(const void* at) {
    return _mm_loadl_epi64(static_cast<const __m128i*>(at));
}

// copyAscii copies a block of ASCII.
inline void copyAscii(const unsigned char* in, char16_t* out) {
    store16(out, _mm_unpacklo_epi8(load8(in), _mm_setzero_si128()));
}

inline void copyAscii(const unsigned char* in, char32_t* out) {
    const __m128i zero = _mm_setzero_si128();
    const __m128i words = _mm_unpacklo_epi8(load8(in), zero);
    store16(out, _mm_unpacklo_epi16(words, zero));
    store16(out + 4, _mm_unpackhi_epi16(words, zero));
}

inline void copyAscii(const char16_t* in, unsigned char* out) {
    const __m128i words = load16(in);
    _mm_storel_epi64(reinterpret_cast<__m128i*>(out), _mm_packus_epi16(words, words));
}

inline void copyAscii(const char32_t* in, unsigned char* out) {
    const __m128i words = _mm_packs_epi32(load16(in), load16(in + 4));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(out), _mm_packus_epi16(words, words));
}

#else

// copyAscii copies a block of ASCII. It takes the units into variables of its own, so that the compiler sees that
// nothing overlaps.
template <class Unit, class OutUnit>
void copyAscii(const Unit* in, OutUnit* out) {
    Unit block[BLOCK];
    std::memcpy(block, in, sizeof block);
    for (ptrdiff_t i = 0; i < BLOCK; ++i)
        out[i] = static_cast<OutUnit>(block[i]);
}

#endif

// twoBlocksAreAscii and copyTwoBlocks take ASCII two blocks at a time. Shorter runs of it are common in other scripts,
// where an unpredictable branch costs more than it saves.
template <class Unit>
bool twoBlocksAreAscii(const Unit* blocks) {
    return allBelow<0x80, Unit>(unitedWords(blocks) | unitedWords(blocks + BLOCK));
}

template <class Unit, class OutUnit>
Place<Unit, OutUnit> copyTwoBlocks(Place<Unit, OutUnit> place) {
    copyAscii(place.at, place.out);
    copyAscii(place.at + BLOCK, place.out + BLOCK);
    return {place.at + 2 * BLOCK, place.out + 2 * BLOCK};
}

}  // namespace unicode
