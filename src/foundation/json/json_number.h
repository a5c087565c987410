// json_number.h: numbers in JSON text, for this folder only.
//
// What counts as a number is what the C library's sscanf takes for "%lg" in the C locale, far wider than JSON's
// grammar; what is written is its "%.16g". Neither depends on the process's locale, and reading takes time in
// proportion to the number, not to the text after it, which sscanf measures first. Pure functions, usable from any
// thread.
#pragma once

#include <string>

// jsonScanNumber reads one number, with white space as isspace knows it before it, from the NUL-terminated `text` into
// `value` and returns the place after it; null, with `value` unchanged, where sscanf converts nothing. It reads no byte
// after the first one that cannot belong to the number.
const char* jsonScanNumber(const char* text, double& value);

// JSON_NUMBER_LENGTH is enough for every number as text.
constexpr int JSON_NUMBER_LENGTH = 24;

// jsonFormatNumber writes `value` with sixteen significant digits, as "%.16g" writes it, to `out`, which has room for
// JSON_NUMBER_LENGTH characters, and returns the place after it. No NUL is written.
char* jsonFormatNumber(char* out, double value);
