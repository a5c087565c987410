#include "foundation/json/json_number.h"

#include <locale.h>

#include <array>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string>
#include <system_error>

#include "foundation/ascii.h"

namespace {

// The characters of the C locale, whatever the process's own.

using ascii::isDigit;
using ascii::isLetter;
using ascii::toLower;

bool isHexDigit(char c) {
    return ascii::hexValue(c) >= 0;
}

bool isSign(char c) {
    return c == '+' || c == '-';
}

bool isSpace(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

// EXACT_POWERS are the powers of ten that a double holds exactly.
constexpr double EXACT_POWERS[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,  1e8,  1e9,  1e10, 1e11,
                                   1e12, 1e13, 1e14, 1e15, 1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};
constexpr int MAX_EXACT_POWER = std::size(EXACT_POWERS) - 1;
constexpr std::uint64_t MAX_EXACT_INTEGER = std::uint64_t{1} << 53;
constexpr int MAX_DIGITS = 19;  // so many always fit into 64 bits

// Decimal is a decimal as it is written: digits * 10^exponent. `digits` is right only while `count` is at most
// MAX_DIGITS.
struct Decimal {
    std::uint64_t digits = 0;
    std::ptrdiff_t count = 0;
    std::ptrdiff_t exponent = 0;
};

// scanDigits reads digits into `decimal` and returns where they end.
const char* scanDigits(const char* p, Decimal& decimal) {
    const char* const first = p;
    for (; isDigit(*p); ++p)
        decimal.digits = decimal.digits * 10 + static_cast<unsigned>(*p - '0');
    decimal.count += p - first;
    return p;
}

// scanExponent reads what follows the "e" and returns its end, or null if there are no digits.
const char* scanExponent(const char* p, Decimal& decimal) {
    constexpr int LIMIT = 100000;  // far beyond every double
    const bool negative = *p == '-';
    if (isSign(*p))
        ++p;
    if (!isDigit(*p))
        return nullptr;
    int exponent = 0;
    for (; isDigit(*p); ++p)
        if (exponent < LIMIT)
            exponent = exponent * 10 + (*p - '0');
    decimal.exponent += negative ? -exponent : exponent;
    return p;
}

// isExact returns whether digits and power of ten are exact doubles: then one multiplication or division makes the
// nearest double.
bool isExact(const Decimal& decimal) {
    return decimal.count <= MAX_DIGITS && decimal.digits <= MAX_EXACT_INTEGER &&
           std::abs(decimal.exponent) <= MAX_EXACT_POWER;
}

double exactValue(const Decimal& decimal) {
    const auto digits = static_cast<double>(decimal.digits);
    return decimal.exponent < 0 ? digits / EXACT_POWERS[-decimal.exponent] : digits * EXACT_POWERS[decimal.exponent];
}

// scanPlainDecimal reads what nearly all numbers are, a plain decimal with nothing after it that sscanf might still
// take, and returns its end. Null for everything else, values out of range included.
const char* scanPlainDecimal(const char* text, double& value) {
    const bool negative = *text == '-';
    const char* p = negative ? text + 1 : text;
    if (!isDigit(*p))
        return nullptr;
    Decimal decimal;
    p = scanDigits(p, decimal);
    if (*p == '.') {
        const char* const fraction = p + 1;
        p = scanDigits(fraction, decimal);
        decimal.exponent = fraction - p;
    }
    if (toLower(*p) == 'e' && !(p = scanExponent(p + 1, decimal)))
        return nullptr;
    if (isLetter(*p) || isSign(*p) || *p == '.')
        return nullptr;
    if (isExact(decimal)) {
        const double magnitude = exactValue(decimal);
        value = negative ? -magnitude : magnitude;
        return p;
    }
    const auto [end, error] = std::from_chars(text, p, value);
    return error == std::errc() && end == p ? p : nullptr;
}

// wordEnd returns the position after `word` at `p`, ignoring case, or null.
const char* wordEnd(const char* p, const char* word) {
    for (; *word; ++p, ++word)
        if (toLower(*p) != *word)
            return nullptr;
    return p;
}

// digitsEnd returns the end of the digits, point and exponent that sscanf would accept at `p`. It requires digits
// before an exponent but not in it, and accepts "0x" and a point without any digit.
const char* digitsEnd(const char* p) {
    const bool hex = p[0] == '0' && toLower(p[1]) == 'x';
    if (hex)
        p += 2;
    bool digit = false;
    bool point = false;
    for (;; ++p) {
        if (hex ? isHexDigit(*p) : isDigit(*p))
            digit = true;
        else if (*p == '.' && !point)
            point = true;
        else
            break;
    }
    if (!digit || toLower(*p) != (hex ? 'p' : 'e'))
        return p;
    ++p;
    if (isSign(*p))
        ++p;
    while (isDigit(*p))
        ++p;
    return p;
}

// numberEnd returns the end of what sscanf would collect at `text` for a number, or null where a word breaks off.
const char* numberEnd(const char* text) {
    const char* p = isSign(*text) ? text + 1 : text;
    if (toLower(*p) == 'n')
        return wordEnd(p, "nan");
    if (toLower(*p) != 'i')
        return digitsEnd(p);
    p = wordEnd(p, "inf");
    return p && toLower(*p) == 'i' ? wordEnd(p, "inity") : p;
}

// isBareHexPrefix returns whether the token ends in its "0x": sscanf refuses it, but takes "0x." for zero.
bool isBareHexPrefix(const std::string& token) {
    const char last = token.empty() ? '\0' : token.back();
    return last == 'x' || last == 'X';
}

// convert reads the token as sscanf does: it passes what it collected to strtod, and counts all of it as read if strtod
// can make a number of its beginning.
bool convert(const std::string& token, double& value) {
    static const locale_t C_LOCALE = newlocale(LC_ALL_MASK, "C", nullptr);
    if (isBareHexPrefix(token))
        return false;
    char* end = nullptr;
    const double number = strtod_l(token.c_str(), &end, C_LOCALE);
    if (end == token.c_str())
        return false;
    value = number;
    return true;
}

// Zero and numbers from MIN_FIXED to MAX_WHOLE are printed by hand, at a quarter of the price of std::to_chars with a
// precision, which prints all others. Whole numbers among them are exact integers. The fractions are below 2^52, so
// their binary exponent is -14 to 51, the decimals are 0 to 19 and each shift is 1 to 46 bits; the product stays below
// 2^100. Digits that are rounded up to one place more are seen to be too large and are computed again from the number
// itself, so that nothing is rounded twice.

__extension__ typedef unsigned __int128 Wide;

constexpr int DIGITS = 16;
constexpr std::uint64_t MAX_WHOLE = 10'000'000'000'000'000;  // 10^DIGITS
constexpr double MIN_FIXED = 1e-4;                           // smaller ones are written with an exponent

constexpr std::uint64_t powerOf5(int exponent) {
    return exponent == 0 ? 1 : 5 * powerOf5(exponent - 1);
}

// Digits is sixteen digits of a number, `decimals` of them after the point.
struct Digits {
    std::uint64_t digits;
    int decimals;
};

constexpr int MANTISSA_BITS = 52;
constexpr int BIAS = 1023;

int binaryExponent(double value) {
    return static_cast<int>(std::bit_cast<std::uint64_t>(value) >> MANTISSA_BITS) - BIAS;
}

// decimalExponent returns the greatest n with 10^n <= 2^exponent, for the exponents that occur here (78913 / 2^18 is
// log10 of 2).
int decimalExponent(int exponent) {
    return (exponent * 78913) >> 18;
}

// scaled returns value * 10^decimals, rounded to the nearest integer and to the even one between two. It is exact:
// value is m * 2^e, so the result is m * 5^decimals * 2^(e + decimals), and the last exponent is negative for every
// fraction below 2^53.
std::uint64_t scaled(double value, int decimals) {
    static constexpr std::uint64_t POWERS[] = {
        powerOf5(0),  powerOf5(1),  powerOf5(2),  powerOf5(3),  powerOf5(4),  powerOf5(5),  powerOf5(6),
        powerOf5(7),  powerOf5(8),  powerOf5(9),  powerOf5(10), powerOf5(11), powerOf5(12), powerOf5(13),
        powerOf5(14), powerOf5(15), powerOf5(16), powerOf5(17), powerOf5(18), powerOf5(19), powerOf5(20)};
    constexpr std::uint64_t HIDDEN_BIT = std::uint64_t{1} << MANTISSA_BITS;
    const std::uint64_t mantissa = (std::bit_cast<std::uint64_t>(value) & (HIDDEN_BIT - 1)) | HIDDEN_BIT;
    const int shift = MANTISSA_BITS - binaryExponent(value) - decimals;
    const Wide product = static_cast<Wide>(mantissa) * POWERS[decimals];
    const std::uint64_t half = std::uint64_t{1} << (shift - 1);
    const std::uint64_t rest = static_cast<std::uint64_t>(product) & ((half << 1) - 1);
    const auto whole = static_cast<std::uint64_t>(product >> shift);
    return whole + (rest > half || (rest == half && (whole & 1) != 0) ? 1 : 0);
}

// sixteenDigits returns the digits of `value`, a fraction of at least MIN_FIXED and below 2^53. The first guess at the
// decimals, from the power of two, may be one too many.
Digits sixteenDigits(double value) {
    const int guess = DIGITS - 1 - decimalExponent(binaryExponent(value));
    const std::uint64_t digits = scaled(value, guess);
    return digits < MAX_WHOLE ? Digits{digits, guess} : Digits{scaled(value, guess - 1), guess - 1};
}

constexpr std::uint64_t powerOf10(int exponent) {
    return powerOf5(exponent) << exponent;
}

constexpr auto POWERS_OF_10 = [] {
    std::array<std::uint64_t, 20> powers{};
    for (int exponent = 0; exponent < 20; ++exponent)
        powers[exponent] = powerOf10(exponent);
    return powers;
}();

// dropZeros drops `zeros` zeros at the end of the decimals if they are there. The count is a template argument because
// a division by a constant is far cheaper.
template <int zeros>
void dropZeros(Digits& number) {
    constexpr std::uint64_t POWER = powerOf10(zeros);
    if (number.decimals >= zeros && number.digits % POWER == 0) {
        number.digits /= POWER;
        number.decimals -= zeros;
    }
}

void dropAllZeros(Digits& number) {
    dropZeros<8>(number);
    dropZeros<4>(number);
    dropZeros<2>(number);
    dropZeros<1>(number);
}

// DIGIT_PAIRS are the pairs of digits from 00 to 99 in a row.
constexpr auto DIGIT_PAIRS = [] {
    std::array<char, 200> pairs{};
    for (int i = 0; i < 100; ++i) {
        pairs[2 * i] = static_cast<char>('0' + i / 10);
        pairs[2 * i + 1] = static_cast<char>('0' + i % 10);
    }
    return pairs;
}();

// formatDigits writes the last `count` digits of `digits`, zeros in front included, and returns the place after them.
char* formatDigits(char* out, std::uint64_t digits, int count) {
    char* p = out + count;
    for (; p - out >= 2; digits /= 100) {
        p -= 2;
        std::memcpy(p, &DIGIT_PAIRS[2 * (digits % 100)], 2);
    }
    if (p != out)
        *out = static_cast<char>('0' + digits % 10);
    return out + count;
}

// formatWhole writes a whole number below MAX_WHOLE. Its highest bit tells the number of its digits, or one less.
char* formatWhole(char* out, std::uint64_t number) {
    const int count = decimalExponent(std::bit_width(number | 1) - 1) + 1;
    return formatDigits(out, number, number < POWERS_OF_10[count] ? count : count + 1);
}

char* formatFraction(char* out, double value) {
    Digits number = sixteenDigits(value);
    dropAllZeros(number);
    const std::uint64_t power = POWERS_OF_10[number.decimals];
    out = std::to_chars(out, out + DIGITS, number.digits / power).ptr;
    if (number.decimals == 0)
        return out;
    *out = '.';
    return formatDigits(out + 1, number.digits % power, number.decimals);
}

}  // namespace

const char* jsonScanNumber(const char* text, double& value) {
    if (const char* const end = scanPlainDecimal(text, value))
        return end;
    while (isSpace(*text))
        ++text;
    const char* const end = numberEnd(text);
    return end && convert(std::string(text, end), value) ? end : nullptr;
}

char* jsonFormatNumber(char* out, double value) {
    char* const end = out + JSON_NUMBER_LENGTH;
    const double magnitude = std::abs(value);
    const bool isPlain = magnitude == 0 || (magnitude >= MIN_FIXED && magnitude < static_cast<double>(MAX_WHOLE));
    if (!isPlain)
        return std::to_chars(out, end, value, std::chars_format::general, DIGITS).ptr;
    if (std::signbit(value))
        *out++ = '-';
    const auto whole = static_cast<std::uint64_t>(magnitude);
    return static_cast<double>(whole) == magnitude ? formatWhole(out, whole) : formatFraction(out, magnitude);
}
