// base64.h: bytes to base64 text and back, RFC 4648 sections 4 (standard alphabet) and 5 (URL-safe alphabet).
//
// The encoders write one line without breaks: the standard form is padded with "=", the URL-safe form is not padded.
//
// The decoders never fail. A byte outside the alphabet does not exist for them, wherever it is: line breaks, blanks,
// "=", NUL bytes and any other character are dropped and what is left is decoded. So padding is neither required nor
// checked, the unused low bits of a last letter are thrown away untested, and a single left-over letter counts for
// nothing. Kept: callers pass text as it was delivered and judge the bytes, not the text. The standard decoders
// therefore drop "-" and "_", and the URL-safe ones "+" and "/": text of the other alphabet that holds them is decoded
// to other bytes, and nothing reports it.
//
// All of them work on exactly `length` bytes; the pointer may be null if `length` is 0. The result is allocated once at
// its final size; decoding a long text takes one more buffer of the size of the text, which is gone when the function
// returns. Only exhausted memory throws (std::bad_alloc, or std::length_error for a length that no result can have),
// and nothing is left behind then.
//
// Pure functions without state, usable from any thread.

#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace orv {

// base64Encode returns the `length` bytes at `data` in the standard alphabet, padded to 4 * ((length + 2) / 3)
// characters. No bytes give an empty string.
std::string base64Encode(const unsigned char* data, size_t length);

// base64EncodeURLSafe returns the `length` bytes at `data` in the URL-safe alphabet without padding, as the parts of a
// JOSE compact form are written. No bytes give an empty string.
std::string base64EncodeURLSafe(const unsigned char* data, size_t length);

// base64Decode decodes the `length` characters at `text` from the standard alphabet and returns the bytes. No letters
// give an empty vector.
std::vector<unsigned char> base64Decode(const char* text, size_t length);

// base64DecodeUTF8 decodes like `base64Decode` but returns the bytes in a string. Despite its name it does not check
// that they are UTF-8, and converts nothing.
std::string base64DecodeUTF8(const char* text, size_t length);

// base64DecodeURLSafe decodes the `length` characters at `text` from the URL-safe alphabet and returns the bytes. No
// letters give an empty vector.
std::vector<unsigned char> base64DecodeURLSafe(const char* text, size_t length);

// base64DecodeURLSafeUTF8 decodes like `base64DecodeURLSafe` but returns the bytes in a string. Despite its name it
// does not check that they are UTF-8, and converts nothing.
std::string base64DecodeURLSafeUTF8(const char* text, size_t length);

}  // namespace orv
