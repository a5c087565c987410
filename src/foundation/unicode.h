// unicode.h: conversions between UTF-8 and UTF-16 and between UTF-8 and UCS-4, with sizes, stepping and validity (RFC
// 3629 and RFC 2781 for the forms).
//
// UTF-8 is held in unsigned bytes (as text in a std::string), UTF-16 in 16-bit units of host order, UCS-4 in 32-bit
// code points. Nothing here fails on bad input: it is repaired, and each direction has its own way of doing so,
// described with it. The replacement unit is "?" (63); U+FFFD is never made. Only the Alloc forms can fail, and the
// string forms throw std::length_error at the limit of the string.
//
// The names:
//   Z      The input ends at a zero unit, which is not converted. The pointer must not be null.
//   N      The input has `count` units; a zero among them is a character like any other. A count of 0 or less is the
//          empty text, and then the pointer may be null.
//   Max    At most `max` units are written to `out`, and no terminator. `in` is moved past what was consumed, in the
//          N form `count` becomes what remains. The conversion stops before a character that does not fit; one that
//          makes no output always fits. Call again with the same variables for the rest. Room for one whole character
//          (two UTF-16 units, four UTF-8 bytes, one code point) is needed to be sure of progress.
//   Alloc  The result is a new buffer from malloc, which the caller releases with free; null when memory is exhausted
//          or the size is beyond an int. `*length` becomes the units in it without the terminator (0 with a null
//          result); `length` may be null.
//
// Forms with a buffer and the flag `terminate` need a buffer of the counted size (see Counting), one unit more with the
// flag true, which writes a zero unit after the output. They return the units written without that zero. Forms with a
// string replace its content, and beyond the string's own memory allocate nothing. Sizes are in units of the type at
// hand; a size beyond an int is returned as the largest int.
//
// No state is held: every function may be called from any thread.
#pragma once

#include <string>

// ---- Surrogates ----

// isHighSurrogate and isLowSurrogate return whether `unit` is the first or second unit of a pair in UTF-16,
// isSurrogate whether it is either.
constexpr bool isHighSurrogate(char32_t unit) {
    return (unit & 0xFFFFFC00) == 0xD800;
}
constexpr bool isLowSurrogate(char32_t unit) {
    return (unit & 0xFFFFFC00) == 0xDC00;
}
constexpr bool isSurrogate(char32_t unit) {
    return (unit & 0xFFFFF800) == 0xD800;
}

// ---- UCS-4 to UTF-8 ----
//
// Code points in the surrogate range (0xD800 to 0xDFFF) and those of 0x110000 or above are dropped without replacement.
// 0x10FFFF is encoded in four bytes as it should be, though ucs4NumBytesZ and ucs4NumBytesN count 0 for it: a buffer
// sized with them needs four bytes more for each. The Alloc and string forms see to that themselves.

// ucs4ToUTF8Z writes the code points at `in` to the buffer `out` as UTF-8 and returns the bytes written.
int ucs4ToUTF8Z(const char32_t* in, unsigned char* out, bool terminate);

// ucs4ToUTF8Z replaces `out` with the code points at `in` as UTF-8.
void ucs4ToUTF8Z(const char32_t* in, std::string& out);

// ucs4ToUTF8N writes `count` code points at `in` to the buffer `out` as UTF-8 and returns the bytes written.
int ucs4ToUTF8N(const char32_t* in, int count, unsigned char* out, bool terminate);

// ucs4ToUTF8N replaces `out` with `count` code points at `in` as UTF-8.
void ucs4ToUTF8N(const char32_t* in, int count, std::string& out);

// ucs4ToUTF8AllocZ returns the code points at `in` as UTF-8 in a new buffer, always terminated.
unsigned char* ucs4ToUTF8AllocZ(const char32_t* in, int* length);

// ucs4ToUTF8AllocN returns `count` code points at `in` as UTF-8 in a new buffer, terminated if `terminate`.
unsigned char* ucs4ToUTF8AllocN(const char32_t* in, int count, bool terminate, int* length);

// ucs4ToUTF8MaxZ writes at most `max` bytes of UTF-8 for the code points at `in`, moves `in` on and returns the bytes
// written.
int ucs4ToUTF8MaxZ(const char32_t*& in, unsigned char* out, int max);

// ucs4ToUTF8MaxN is ucs4ToUTF8MaxZ for `count` code points; `count` becomes what remains.
int ucs4ToUTF8MaxN(const char32_t*& in, int& count, unsigned char* out, int max);

// ---- UTF-16 to UTF-8 ----
//
// A high surrogate followed by a low one makes one character of four bytes. A high surrogate at the end of the input or
// followed by anything else is dropped, and so is a low one that follows none: bad surrogates vanish, they are never
// replaced.

// utf16To8Z writes the UTF-16 text at `in` to the buffer `out` as UTF-8 and returns the bytes written.
int utf16To8Z(const char16_t* in, unsigned char* out, bool terminate);

// utf16To8Z replaces `out` with the UTF-16 text at `in` as UTF-8.
void utf16To8Z(const char16_t* in, std::string& out);

// utf16To8N writes `count` units at `in` to the buffer `out` as UTF-8 and returns the bytes written.
int utf16To8N(const char16_t* in, int count, unsigned char* out, bool terminate);

// utf16To8N replaces `out` with `count` units at `in` as UTF-8.
void utf16To8N(const char16_t* in, int count, std::string& out);

// utf16To8AllocZ returns the UTF-16 text at `in` as UTF-8 in a new buffer, always terminated.
unsigned char* utf16To8AllocZ(const char16_t* in, int* length);

// utf16To8AllocN returns `count` units at `in` as UTF-8 in a new buffer, always terminated.
unsigned char* utf16To8AllocN(const char16_t* in, int count, int* length);

// utf16To8MaxZ writes at most `max` bytes of UTF-8 for the text at `in`, moves `in` on and returns the bytes written.
int utf16To8MaxZ(const char16_t*& in, unsigned char* out, int max);

// utf16To8MaxN is utf16To8MaxZ for `count` units; `count` becomes what remains. A high surrogate that is the last unit
// is dropped: who converts in pieces must not cut between the units of a pair.
int utf16To8MaxN(const char16_t*& in, int& count, unsigned char* out, int max);

// ---- UTF-8 to UTF-16 ----
//
// Each step looks at one lead byte:
//   below 0x80     That unit.
//   0x80 to 0xBF   A continuation byte that continues nothing: skipped, becomes nothing.
//   110xxxxx       With its continuation byte the value, or one "?" if it is below 0x80. Without: one "?" for the lead
//                  byte alone.
//   1110xxxx       With its two continuation bytes the value, or one "?" if it is below 0x800; a surrogate value passes
//                  as that unit. Without: one "?" for the lead byte alone.
//   11110xxx       With its three continuation bytes a surrogate pair, or two "?" if the value is outside 0x10000 to
//                  0x10FFFF. Without: two "?" for the lead byte alone.
//   from 0xF8 up   Two "?" for that byte.
// Where the lead byte alone is replaced, the next step begins at the byte after it. The Max forms leave a lead byte
// from 0xF0 up where it is when fewer than two units are free, whatever follows it.

// utf8To16Z writes the UTF-8 text at `in` to the buffer `out` as UTF-16 and returns the units written.
int utf8To16Z(const unsigned char* in, char16_t* out, bool terminate);

// utf8To16Z replaces `out` with the UTF-8 text at `in` as UTF-16.
void utf8To16Z(const unsigned char* in, std::u16string& out);

// utf8To16N writes `count` bytes of UTF-8 at `in` to the buffer `out` as UTF-16 and returns the units written.
int utf8To16N(const unsigned char* in, int count, char16_t* out, bool terminate);

// utf8To16N replaces `out` with `count` bytes of UTF-8 at `in` as UTF-16.
void utf8To16N(const unsigned char* in, int count, std::u16string& out);

// utf8To16AllocZ returns the UTF-8 text at `in` as UTF-16 in a new buffer, always terminated.
char16_t* utf8To16AllocZ(const unsigned char* in, int* length);

// utf8To16AllocN returns `count` bytes of UTF-8 at `in` as UTF-16 in a new buffer, always terminated.
char16_t* utf8To16AllocN(const unsigned char* in, int count, int* length);

// utf8To16MaxZ writes at most `max` units of UTF-16 for the text at `in`, moves `in` on and returns the units written.
int utf8To16MaxZ(const unsigned char*& in, char16_t* out, int max);

// utf8To16MaxN is utf8To16MaxZ for `count` bytes; `count` becomes what remains. A sequence cut off by the end of the
// input is replaced like any other bad one.
int utf8To16MaxN(const unsigned char*& in, int& count, char16_t* out, int max);

// utf8To16MaxNW is utf8To16MaxN for input that arrives in blocks: at a sequence that is sound so far and cut off by the
// end of the input it stops, with `in` on the lead byte and those bytes in `count`, so that the caller can add the next
// block after them. Sequences that are wrong for any other reason are replaced.
int utf8To16MaxNW(const unsigned char*& in, int& count, char16_t* out, int max);

// ---- UTF-8 to UCS-4 ----
//
// As from UTF-8 to UTF-16, except that a four-byte sequence makes one code point, and whatever is replaced one "?".

// utf8ToUCS4Z writes the UTF-8 text at `in` to the buffer `out` as code points and returns their number.
int utf8ToUCS4Z(const unsigned char* in, char32_t* out, bool terminate);

// utf8ToUCS4Z replaces `out` with the UTF-8 text at `in` as code points.
void utf8ToUCS4Z(const unsigned char* in, std::u32string& out);

// utf8ToUCS4N writes `count` bytes of UTF-8 at `in` to the buffer `out` as code points and returns their number.
int utf8ToUCS4N(const unsigned char* in, int count, char32_t* out, bool terminate);

// utf8ToUCS4AllocZ returns the UTF-8 text at `in` as code points in a new buffer, always terminated.
char32_t* utf8ToUCS4AllocZ(const unsigned char* in, int* length);

// utf8ToUCS4AllocN returns `count` bytes of UTF-8 at `in` as code points in a new buffer, terminated if `terminate`.
char32_t* utf8ToUCS4AllocN(const unsigned char* in, int count, bool terminate, int* length);

// utf8ToUCS4MaxZ writes at most `max` code points for the text at `in`, moves `in` on and returns the code points
// written.
int utf8ToUCS4MaxZ(const unsigned char*& in, char32_t* out, int max);

// ---- Appending one code point ----

// utf8Append appends the UTF-8 form of `codePoint` to `out`; nothing for a surrogate or a value of 0x110000 or above.
void utf8Append(std::string& out, char32_t codePoint);

// utf16Append appends the UTF-16 form of `codePoint` to `out`: one unit below 0x10000, surrogates included, a pair
// below 0x110000, nothing for larger values.
void utf16Append(std::u16string& out, char32_t codePoint);

// ---- Counting ----
//
// The counts serve for buffer sizes and do not validate. The terminator is not counted.

// utf8NumWordsZ counts the UTF-16 units to provide for UTF-8 text: for each byte outside 0x80 to 0xBF 1, or 2 if it is
// 0xF0 or above.
int utf8NumWordsZ(const unsigned char* in);

// utf8NumWordsN is utf8NumWordsZ for `count` bytes.
int utf8NumWordsN(const unsigned char* in, int count);

// utf16NumBytesZ counts the UTF-8 bytes of UTF-16 text: 1 below 0x80, 2 below 0x800, 4 for a surrogate pair, 0 for a
// lone surrogate, 3 otherwise.
int utf16NumBytesZ(const char16_t* in);

// utf16NumBytesN is utf16NumBytesZ for `count` units.
int utf16NumBytesN(const char16_t* in, int count);

// ucs4NumBytesZ counts the UTF-8 bytes of code points: 1 below 0x80, 2 below 0x800, 3 up to 0xFFFF with the surrogates,
// 4 below 0x10FFFF, 0 from 0x10FFFF up. That 0x10FFFF counts 0 is kept: callers depend on the numbers.
int ucs4NumBytesZ(const char32_t* in);

// ucs4NumBytesN is ucs4NumBytesZ for `count` code points.
int ucs4NumBytesN(const char32_t* in, int count);

// ucs4NumWordsZ counts the UTF-16 units of code points: 1 below 0x10000, 2 below 0x10FFFF, 0 from 0x10FFFF up (kept as
// in ucs4NumBytesZ).
int ucs4NumWordsZ(const char32_t* in);

// ucs4NumWordsN is ucs4NumWordsZ for `count` code points.
int ucs4NumWordsN(const char32_t* in, int count);

// utf8NumCodePointsZ counts the bytes of UTF-8 text that are not of the form 10xxxxxx: its characters, and the UCS-4
// units to provide for it.
int utf8NumCodePointsZ(const unsigned char* in);

// utf8NumCodePointsN is utf8NumCodePointsZ for `count` bytes.
int utf8NumCodePointsN(const unsigned char* in, int count);

// utf16NumCodePointsZ counts 1 for each ordinary unit of UTF-16 text, 0 for a lone surrogate and 2 for a surrogate
// pair. The 2 is kept: callers depend on the numbers.
int utf16NumCodePointsZ(const char16_t* in);

// utf16NumCodePointsN is utf16NumCodePointsZ for `count` units.
int utf16NumCodePointsN(const char16_t* in, int count);

// ---- Stepping through terminated text ----

// utf8Next moves `in` to the next character: one byte on, then over all continuation bytes. At the terminator it stays.
void utf8Next(const unsigned char*& in);

// utf8Peek returns the code point at `in`, with an encoded surrogate as it is. It returns 0 at the terminator and for
// what is not a character: a continuation byte missing, a value below 0x80, 0x800 or 0x10000 for its two, three or four
// bytes, a value above 0x10FFFF, a stray continuation byte, a lead byte from 0xF8 up.
char32_t utf8Peek(const unsigned char* in);

// utf16Peek returns the unit at `in`, 0 for a lone surrogate, and for a surrogate pair a value other than 0 that only
// marks it as sound: ((high << 10 & 0xFFFC00) | (low & 0x3FFF)) + 0x10000 is not the code point of the pair. Kept:
// callers depend on it.
char32_t utf16Peek(const char16_t* in);

// ---- Validity ----

// isValidUTF8Z returns whether the UTF-8 text at `in` has no lead byte with a continuation byte missing, no value below
// 0x80, 0x800 or 0x10000 for its two, three or four bytes, no value above 0x10FFFF and no byte from 0xF8 up. Encoded
// surrogates and stray continuation bytes pass; the empty text is valid.
bool isValidUTF8Z(const unsigned char* in);

// isValidUTF8N is isValidUTF8Z for `count` bytes; a sequence cut off by their end is invalid.
bool isValidUTF8N(const unsigned char* in, int count);

// isStrictUTF8N returns whether `count` bytes at `in` are well-formed UTF-8 (RFC 3629): beyond what isValidUTF8N
// checks, it refuses stray continuation bytes and encoded surrogates, as other readers of UTF-8 do.
bool isStrictUTF8N(const unsigned char* in, int count);
