// ascii.h: the kinds of single ASCII bytes, whatever the locale: digits, letters, hexadecimal digits.
//
// A byte from 128 up is of no kind. Pure functions, usable from any thread and at compile time.
#pragma once

#include <array>

namespace ascii {

// isDigit returns whether `c` is one of "0" to "9".
constexpr bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

// toLower returns the small letter of a capital, any other byte as it is.
constexpr char toLower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// isLetter returns whether `c` is a letter of either case.
constexpr bool isLetter(char c) {
    return toLower(c) >= 'a' && toLower(c) <= 'z';
}

// HEX_VALUES holds the value of each byte as a hexadecimal digit, -1 for a byte that is not one.
inline constexpr std::array<signed char, 256> HEX_VALUES = [] {
    std::array<signed char, 256> values{};
    values.fill(-1);
    for (unsigned char value = 0; value < 16; ++value) {
        values[static_cast<unsigned char>("0123456789abcdef"[value])] = static_cast<signed char>(value);
        values[static_cast<unsigned char>("0123456789ABCDEF"[value])] = static_cast<signed char>(value);
    }
    return values;
}();

// hexValue returns the value of a hexadecimal digit of either case, -1 for any other byte.
constexpr int hexValue(char c) {
    return HEX_VALUES[static_cast<unsigned char>(c)];
}

}  // namespace ascii
