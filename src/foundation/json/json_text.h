// json_text.h: the bytes of JSON text that reader and writer look at alike, for this folder only.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#elif defined(__ARM_NEON)
#include <arm_neon.h>
#endif

// jsonIsWhitespace returns whether `c` is one of the four bytes that JSON counts as whitespace.
inline bool jsonIsWhitespace(char c) {
    return c == ' ' || c == '\n' || c == '\t' || c == '\r';
}

// jsonWhitespaceEnd returns the first byte from `text` on that is not whitespace, the text's NUL at the latest. Blanks
// before `end` are passed over eight at a time, because documents for people are mostly indentation; an `end` not above
// `text` only makes it slower.
inline const char* jsonWhitespaceEnd(const char* text, const char* end) {
    while (jsonIsWhitespace(*text)) {
        ++text;
        while (end - text >= 8 && std::memcmp(text, "        ", 8) == 0)
            text += 8;
    }
    return text;
}

// jsonIsPlain returns whether `c` stands for itself inside a JSON string: not a quote, not a backslash, not below 32.
inline bool jsonIsPlain(char c) {
    return static_cast<unsigned char>(c) >= ' ' && c != '"' && c != '\\';
}

// jsonPlainPrefix returns how many of the JSON_BLOCK bytes at `text` are plain before the first that is not.
#if defined(__SSE2__)
constexpr int JSON_BLOCK = 16;

inline int jsonPlainPrefix(const char* text) {
    const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text));
    const __m128i control = _mm_cmpeq_epi8(_mm_min_epu8(bytes, _mm_set1_epi8(' ' - 1)), bytes);
    const __m128i quote = _mm_cmpeq_epi8(bytes, _mm_set1_epi8('"'));
    const __m128i backslash = _mm_cmpeq_epi8(bytes, _mm_set1_epi8('\\'));
    const int found = _mm_movemask_epi8(_mm_or_si128(control, _mm_or_si128(quote, backslash)));
    return std::countr_zero(static_cast<unsigned>(found) | 1U << JSON_BLOCK);
}
#elif defined(__ARM_NEON)
constexpr int JSON_BLOCK = 16;

inline int jsonPlainPrefix(const char* text) {
    const uint8x16_t bytes = vld1q_u8(reinterpret_cast<const uint8_t*>(text));
    const uint8x16_t control = vcltq_u8(bytes, vdupq_n_u8(' '));
    const uint8x16_t quote = vceqq_u8(bytes, vdupq_n_u8('"'));
    const uint8x16_t backslash = vceqq_u8(bytes, vdupq_n_u8('\\'));
    const uint8x16_t found = vorrq_u8(control, vorrq_u8(quote, backslash));
    // Half of each byte remains, so that the sixteen fit into one register.
    const uint8x8_t halves = vshrn_n_u16(vreinterpretq_u16_u8(found), 4);
    return std::countr_zero(vget_lane_u64(vreinterpret_u64_u8(halves), 0)) / 4;
}
#else
constexpr int JSON_BLOCK = 8;

inline int jsonPlainPrefix(const char* text) {
    int count = 0;
    while (count < JSON_BLOCK && jsonIsPlain(text[count]))
        ++count;
    return count;
}
#endif

// jsonPlainRunEnd returns the first byte from `text` on that is not plain. The text must hold such a byte, its NUL at
// the latest. Bytes before `end` may be read in blocks; an `end` not above `text` sets no limit, it only makes the
// search slower.
inline const char* jsonPlainRunEnd(const char* text, const char* end) {
    while (end - text >= JSON_BLOCK) {
        const int plain = jsonPlainPrefix(text);
        text += plain;
        if (plain < JSON_BLOCK)
            return text;
    }
    while (jsonIsPlain(*text))
        ++text;
    return text;
}

// jsonIsPlainWord returns whether the eight bytes of `word` are plain. A byte below a limit borrows when the limit is
// taken from it, and a byte that equals a character is below 1 once that was crossed out.
constexpr bool jsonIsPlainWord(std::uint64_t word) {
    constexpr std::uint64_t each = 0x0101010101010101;
    const auto below = [](std::uint64_t bytes, unsigned char limit) {
        return (bytes - each * limit) & ~bytes & each * 0x80;
    };
    return (below(word, ' ') | below(word ^ each * '"', 1) | below(word ^ each * '\\', 1)) == 0;
}

// jsonCopyEnds copies a text of one to two times the size of a Word, as its first and its last Word, and returns
// whether it is plain.
template <class Word>
bool jsonCopyEnds(char* out, const char* text, std::size_t count) {
    Word first;
    Word last;
    std::memcpy(&first, text, sizeof first);
    std::memcpy(&last, text + count - sizeof last, sizeof last);
    std::memcpy(out, &first, sizeof first);
    std::memcpy(out + count - sizeof last, &last, sizeof last);
    if constexpr (sizeof(Word) == 8)
        return jsonIsPlainWord(first) && jsonIsPlainWord(last);
    else
        return jsonIsPlainWord(first | std::uint64_t{last} << 32);
}

// jsonCopyPlain copies `count` bytes and returns whether all are plain; if not, what it wrote means nothing. It looks
// at the bytes on their way: just written ones would have to be waited for.
inline bool jsonCopyPlain(char* out, const char* text, std::size_t count) {
    if (count < 4) {
        bool plain = true;
        for (std::size_t i = 0; i < count; ++i) {
            out[i] = text[i];
            plain = plain && jsonIsPlain(text[i]);
        }
        return plain;
    }
    if (count < 8)
        return jsonCopyEnds<std::uint32_t>(out, text, count);
    if (count <= 16)
        return jsonCopyEnds<std::uint64_t>(out, text, count);
    const std::size_t last = count - JSON_BLOCK;
    std::memcpy(out + last, text + last, JSON_BLOCK);
    bool plain = jsonPlainPrefix(text + last) == JSON_BLOCK;
    for (std::size_t i = 0; i < last && plain; i += JSON_BLOCK) {
        std::memcpy(out + i, text + i, JSON_BLOCK);
        plain = jsonPlainPrefix(text + i) == JSON_BLOCK;
    }
    return plain;
}
