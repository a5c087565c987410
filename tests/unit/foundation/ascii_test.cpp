// ascii_test.cpp: foundation/ascii.h over all bytes, against the functions of the C library in its own locale.

#include <gtest/gtest.h>

#include <cctype>
#include <string>

#include "foundation/ascii.h"

namespace {

// allBytes returns each byte once, in order.
std::string allBytes() {
    std::string bytes;
    for (int byte = 0; byte < 256; ++byte)
        bytes += static_cast<char>(byte);
    return bytes;
}

int unsignedOf(char c) {
    return static_cast<unsigned char>(c);
}

}  // namespace

TEST(Ascii, KindsAreThoseOfTheCLocale) {
    for (const char c : allBytes()) {
        EXPECT_EQ(ascii::isDigit(c), std::isdigit(unsignedOf(c)) != 0) << unsignedOf(c);
        EXPECT_EQ(ascii::isLetter(c), std::isalpha(unsignedOf(c)) != 0) << unsignedOf(c);
        EXPECT_EQ(ascii::hexValue(c) >= 0, std::isxdigit(unsignedOf(c)) != 0) << unsignedOf(c);
    }
}

TEST(Ascii, OnlyCapitalsAreLowered) {
    for (const char c : allBytes())
        EXPECT_EQ(ascii::toLower(c), static_cast<char>(std::tolower(unsignedOf(c)))) << unsignedOf(c);
}

TEST(Ascii, HexadecimalDigitsOfBothCasesHaveTheirValue) {
    for (int value = 0; value < 16; ++value) {
        EXPECT_EQ(ascii::hexValue("0123456789abcdef"[value]), value);
        EXPECT_EQ(ascii::hexValue("0123456789ABCDEF"[value]), value);
    }
    EXPECT_EQ(ascii::hexValue('g'), -1);
    EXPECT_EQ(ascii::hexValue('\xFF'), -1);
}
