// clock_value_test.cpp: clock value text against tables and a slow model, dates, and tick conversions against 128-bit
// arithmetic.

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <climits>
#include <csignal>
#include <cstddef>
#include <limits>
#include <random>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include "foundation/clock_value.h"
#include "unit/exact_buffer.h"
#include "unit/foundation/clock_print_model.h"
#include "unit/foundation/clock_scan_model.h"
#include "unit/foundation/int128.h"
#include "unit/foundation/tick_model.h"

namespace {

using svg::ClockValue;
using svg::UTCClockValue;
using namespace std::string_literals;

constexpr int64_t MICROSECOND = 1000;
constexpr int64_t MILLISECOND = 1000 * MICROSECOND;
constexpr int64_t SECOND = 1000 * MILLISECOND;
constexpr int64_t MAX = std::numeric_limits<int64_t>::max();
constexpr int64_t MIN = std::numeric_limits<int64_t>::min();

Scan scanClock(const std::string& text) {
    const ExactBuffer<char> buffer(text, true);
    const char* cursor = buffer.data();
    const int64_t value = svg::parseClockValue(cursor);
    return {value, std::string(cursor, buffer.data() + buffer.size())};
}

struct Qword {
    unsigned long value;
    unsigned long scale;
    std::string rest;
};

Qword scanQword(const std::string& text) {
    const ExactBuffer<char> buffer(text, true);
    const char* cursor = buffer.data();
    unsigned long scale = 0;
    const unsigned long value = svg::parseQword(cursor, &scale);
    const std::string rest(cursor, buffer.data() + buffer.size());

    const char* second = buffer.data();
    EXPECT_EQ(svg::parseQword(second, nullptr), value) << "the scale is optional";
    EXPECT_EQ(second, cursor);
    return {value, scale, rest};
}

// Parsed is the outcome of ClockValue::parse; with both flags set its result is whether all text was understood.
struct Parsed {
    bool result;
    ClockValue value;
};

Parsed parsed(const std::string& text, bool acceptZero = true, bool acceptNegative = true) {
    Parsed outcome{};
    outcome.result = outcome.value.parse(text, acceptZero, acceptNegative);
    return outcome;
}

ClockValue resolved(int64_t nanoseconds) {
    ClockValue value;
    value.type = ClockValue::Resolved;
    value.value = nanoseconds;
    return value;
}

ClockValue ofType(ClockValue::Type type) {
    ClockValue value;
    value.type = type;
    value.value = 90 * SECOND;
    return value;
}

long randomLong(std::mt19937_64& random) {
    return static_cast<long>(random()) >> (random() % 64);  // all magnitudes are equally frequent
}

long randomDivisor(std::mt19937_64& random) {
    const long divisor = randomLong(random);
    return divisor ? divisor : 1;
}

// diedOfDivision is a death by SIGFPE, or by the handler of a sanitizer, which reports that signal and exits.
bool diedOfDivision(int status) {
    return (WIFSIGNALED(status) && WTERMSIG(status) == SIGFPE) || (WIFEXITED(status) && WEXITSTATUS(status) != 0);
}

constexpr const char* DIVISION_REPORT = "^$|FPE|Floating point exception";  // the last by an emulator

template <class Call>
void expectDivisionByZeroThrown(Call call) {
    try {
        call();
        FAIL() << "nothing was thrown";
    } catch (const std::overflow_error& error) {
        EXPECT_STREQ(error.what(), "Division by zero.");
    }
}

struct ScanRow {
    std::string text;
    int64_t microseconds;
    std::string rest;
};

// expectScans holds the scanner and its model against the rows.
void expectScans(const std::vector<ScanRow>& rows) {
    for (const ScanRow& row : rows) {
        EXPECT_EQ(scanClock(row.text), (Scan{row.microseconds, row.rest})) << "for '" << row.text << "'";
        EXPECT_EQ(modelScan(row.text), (Scan{row.microseconds, row.rest})) << "model for '" << row.text << "'";
    }
}

}  // namespace

// The fields and their order belong to the interface.
static_assert(offsetof(ClockValue, type) == 0 && sizeof(ClockValue::type) == 4);
static_assert(offsetof(ClockValue, value) == 8 && sizeof(ClockValue) == 16);
static_assert(std::is_same_v<decltype(ClockValue::value), int64_t>);
static_assert(std::is_same_v<decltype(UTCClockValue::value), int64_t> && sizeof(UTCClockValue) == 8);
static_assert(ClockValue::Resolved == 0 && ClockValue::Indefinite == 1);
static_assert(ClockValue::Unresolved == 2 && ClockValue::Media == 3);

// parseQword

TEST(ParseQword, ReadsDigitsUpToTheFirstOtherCharacter) {
    struct {
        const char* text;
        unsigned long value;
        unsigned long scale;
        const char* rest;
    } const rows[] = {
        {"", 0, 1, ""},
        {"0", 0, 10, ""},
        {"7", 7, 10, ""},
        {"0042x", 42, 10000, "x"},
        {"123 4", 123, 1000, " 4"},
        {" 1", 0, 1, " 1"},
        {"-1", 0, 1, "-1"},
        {"+1", 0, 1, "+1"},
        {"1/", 1, 10, "/"},
        {"1:", 1, 10, ":"},
        {"12\xb2", 12, 100, "\xb2"},
        {"0x10", 0, 10, "x10"},
        {"9223372036854775807", 9223372036854775807u, 10000000000000000000u, ""},
        {"9223372036854775808", 9223372036854775808u, 10000000000000000000u, ""},
    };
    for (const auto& row : rows) {
        const Qword qword = scanQword(row.text);
        EXPECT_EQ(qword.value, row.value) << row.text;
        EXPECT_EQ(qword.scale, row.scale) << row.text;
        EXPECT_EQ(qword.rest, row.rest) << row.text;
    }
}

TEST(ParseQword, ValueAndScaleWrapWithoutATest) {
    EXPECT_EQ(scanQword("18446744073709551615").value, ULONG_MAX);
    EXPECT_EQ(scanQword("18446744073709551616").value, 0u);
    EXPECT_EQ(scanQword("18446744073709551658").value, 42u);
    EXPECT_EQ(scanQword("00000000000000000000").scale, 7766279631452241920u);  // 10^20 mod 2^64
    EXPECT_EQ(scanQword(std::string(40, '9')).rest, "");
    EXPECT_EQ(scanQword(std::string(64, '9')).scale, 0u);  // 10^64 is a multiple of 2^64
    EXPECT_EQ(scanQword(std::string(100000, '9')).rest, "");
}

// parseClockValue

TEST(ParseClockValue, NumbersAreSecondsUnlessAUnitFollows) {
    expectScans({
        {"10", 10000000, ""},
        {"10s", 10000000, ""},
        {"10000ms", 10000000, ""},
        {"2min", 120000000, ""},
        {"1h", 3600000000, ""},
        {"0", 0, ""},
        {"007s", 7000000, ""},
    });
}

TEST(ParseClockValue, WhatIsNotExactlyAUnitStaysUnread) {
    expectScans({
        {"5m", 5000000, "m"},
        {"5mi", 5000000, "mi"},
        {"5mins", 300000000, "s"},
        {"5mS", 5000000, "mS"},
        {"5S", 5000000, "S"},
        {"5H", 5000000, "H"},
        {"5MIN", 5000000, "MIN"},
        {"5msec", 5000, "ec"},
        {"5sec", 5000000, "ec"},
        {"5hour", 18000000000, "our"},
        {"5d", 5000000, "d"},
        {"5us", 5000000, "us"},
        {"5 s", 5000000, "s"},
        {"5 ms", 5000000, "ms"},
        {"5s5s", 5000000, "5s"},
    });
}

TEST(ParseClockValue, FractionsAreCutToMicroseconds) {
    expectScans({
        {"0.1667min", 10002000, ""},
        {".5s", 500000, ""},
        {".5", 500000, ""},
        {"1.5h", 5400000000, ""},
        {"5.", 5000000, ""},
        {"5.s", 5000000, ""},
        {"5.ms", 5000, ""},
        {".", 0, ""},
        {".s", 0, ""},
        {"1.5ms", 1500, ""},
        {"1.0005ms", 1000, ""},
        {"1.9999ms", 1999, ""},
        {"0.000001", 1, ""},
        {"0.0000019", 1, ""},
        {"0.0000001", 0, ""},
        {"0.9999999", 999999, ""},
        {"1.9999999999999999999s", 1999999, ""},
        {"1.5.5", 1500000, ".5"},
        {"1..5", 1000000, ".5"},
        {"1.5:30", 1500000, ":30"},
        {"1. 5", 1000000, "5"},
        // the scale is above the unit from here on, and the division of both is cut as well
        {"0.5000000min", 30000000, ""},
        {"0.50000000min", 50000000, ""},
        {"0.500000000h", 1500000000, ""},
        {"0.5000000000h", 2500000000, ""},
    });
}

TEST(ParseClockValue, ClockFormsCountInSixties) {
    expectScans({
        {"1:30", 90000000, ""},
        {"1:02:03.5", 3723500000, ""},
        {"1:", 60000000, ""},
        {"1::", 3600000000, ""},
        {":", 0, ""},
        {":30", 30000000, ""},
        {"::5", 5000000, ""},
        {"1::5", 3605000000, ""},
        {"0:90", 90000000, ""},
        {"100:100:100", 366100000000, ""},
        {"1:2:3:4", 3723000000, ":4"},
        {"1:00.", 60000000, ""},
        {"1:00.x", 60000000, "x"},
        {"1:.5", 60500000, ""},
        {"1:30.25", 90250000, ""},
        {"1:30.2500009", 90250000, ""},
        {"1:00s", 60000000, "s"},
        {"1:00ms", 60000000, "ms"},
        {"1:00.5h", 60500000, "h"},
        {"1:00.5:00", 60500000, ":00"},
        {"1: 30", 60000000, "30"},
        {"1 :30", 1000000, ":30"},
    });
}

TEST(ParseClockValue, ASignMayStandBetweenBlanks) {
    expectScans({
        {"+5", 5000000, ""},
        {"-5", -5000000, ""},
        {"-0", 0, ""},
        {" - 5s ", -5000000, ""},
        {" - 5 s", -5000000, "s"},
        {"\t\n\r +\t\n\r 5ms\t\n\r ", 5000, ""},
        {"-1:30.5", -90500000, ""},
        {"-.5", -500000, ""},
        {"--5", 0, "-5"},
        {"+-5", 0, "-5"},
        {"-", 0, ""},
        {"+ ", 0, ""},
        {"5-", 5000000, "-"},
    });
}

TEST(ParseClockValue, TextWithoutANumberIsZero) {
    expectScans({
        {"", 0, ""},
        {" \t ", 0, ""},
        {"s", 0, ""},
        {"ms", 0, ""},
        {"min", 0, ""},
        {"h ", 0, ""},
        {"m", 0, "m"},
        {"abc", 0, "abc"},
        {"media", 0, "media"},
        {"\xff", 0, "\xff"},
        {"5\xff", 5000000, "\xff"},
    });
}

TEST(ParseClockValue, OtherControlCharactersAreNotWhitespace) {
    expectScans({
        {"\v5", 0, "\v5"},
        {"\f5", 0, "\f5"},
        {"\x01", 0, "\x01"},
        {" \x1f 5", 0, "\x1f 5"},
        {"-\x01"
         "5",
         0,
         "\x01"
         "5"},
        {"5s\v", 5000000, "\v"},
    });
}

TEST(ParseClockValue, EveryControlByteInFrontEndsTheScan) {
    for (int value = 0; value < 33; value++) {
        const std::string text(1, static_cast<char>(value));
        const bool blank = std::string("\t\n\r ").find(text) != std::string::npos;
        EXPECT_EQ(scanClock(text + "5s"), (blank ? Scan{5000000, ""} : Scan{0, text + "5s"})) << value;
        EXPECT_EQ(scanClock("-" + text + "5s"), (blank ? Scan{-5000000, ""} : Scan{0, text + "5s"})) << value;
        EXPECT_EQ(scanClock("5s" + text), (Scan{5000000, blank ? "" : text})) << value;
    }
}

TEST(ParseClockValue, ScansAsTheModelOnRandomTexts) {
    std::mt19937 random(64);
    const std::vector<std::string> pieces = {
        "0", "1",  "5",   "9", "12", "60", "007", "123456", "999999999", "00000000000", "18446744073709551615",
        ".", ".",  ":",   ":", "-",  "+",  " ",   "\t",     "\n",        "\r",          "\v",
        "s", "ms", "min", "h", "m",  "x",  "\x80"};
    for (int round = 0; round < 25000; round++) {
        std::string text;
        for (size_t left = random() % 9; left > 0; left--) {
            text += pieces[random() % pieces.size()];
        }
        ASSERT_EQ(scanClock(text), modelScan(text)) << "round " << round << ": '" << text << "'";
    }
}

TEST(ParseClockValue, ScansAsTheModelOnRandomSentences) {
    std::mt19937 random(65);
    const auto any = [&random](size_t count) {
        std::string digits;
        for (size_t left = random() % count; left > 0; left--) {
            digits += static_cast<char>('0' + random() % 10);
        }
        return digits;
    };
    const char* const signs[] = {"", "", "-", "+", " - "};
    const char* const units[] = {"", "s", "ms", "min", "h", "m", " s", "s "};
    for (int round = 0; round < 25000; round++) {
        std::string text = signs[random() % 5] + any(21);
        for (size_t fields = random() % 4; fields > 1; fields--) {
            text += ":" + any(5);
        }
        text += (random() % 2 ? "." + any(21) : "") + units[random() % 8];
        ASSERT_EQ(scanClock(text), modelScan(text)) << "round " << round << ": '" << text << "'";
    }
}

TEST(ParseClockValue, NumbersBeyondTheirTypeWrap) {
    const std::string forty(40, '9');
    for (const char* unit : {"", "s", "ms", "min", "h"}) {
        EXPECT_EQ(scanClock(forty + unit), modelScan(forty + unit));
        EXPECT_EQ(scanClock("-" + forty + unit), modelScan("-" + forty + unit));
        EXPECT_EQ(scanClock(forty + "." + forty + unit), modelScan(forty + "." + forty + unit));
    }
    EXPECT_EQ(scanClock(forty + ":" + forty + ":" + forty), modelScan(forty + ":" + forty + ":" + forty));
    EXPECT_EQ(scanClock("9223372036854775808ms"), modelScan("9223372036854775808ms"));
    EXPECT_EQ(scanClock("-9223372036854.775808"), (Scan{MIN, ""}));
    EXPECT_EQ(scanClock("9223372036854.775807"), (Scan{MAX, ""}));
}

// From 20 digits on the power of ten does not fit, from 64 on its low 64 bits are 0, which must never divide.
TEST(ParseClockValue, LongFractionsAreCut) {
    for (const size_t digits : {19u, 20u, 21u, 39u, 40u, 63u, 64u, 65u, 100u, 100000u}) {
        const std::string fives = "." + std::string(digits, '5');
        EXPECT_EQ(scanClock("1" + fives), (Scan{1555555, ""})) << digits;
        EXPECT_EQ(scanClock("1" + fives + "s"), (Scan{1555555, ""})) << digits;
        EXPECT_EQ(scanClock("1" + fives + "ms"), (Scan{1555, ""})) << digits;
        EXPECT_EQ(scanClock("1" + fives + "min"), (Scan{93333333, ""})) << digits;
        EXPECT_EQ(scanClock("1:0" + fives), (Scan{60555555, ""})) << digits;
        EXPECT_EQ(scanClock("0." + std::string(digits, '0')), (Scan{0, ""})) << digits;
        EXPECT_EQ(scanClock("0.25" + std::string(digits, '0')), (Scan{250000, ""})) << digits;
    }
}

// ClockValue::parse

TEST(ClockValueParse, TextLeftUnreadIsNotUnderstoodButItsTimeIsStored) {
    struct {
        const char* text;
        bool understood;
        int64_t nanoseconds;
    } const rows[] = {
        {"10", true, 10 * SECOND},
        {"10s", true, 10 * SECOND},
        {"10000ms", true, 10 * SECOND},
        {"0.1667min", true, 10002 * MILLISECOND},
        {".5s", true, 500 * MILLISECOND},
        {"1.5h", true, 5400 * SECOND},
        {"1:30", true, 90 * SECOND},
        {"1:02:03.5", true, 3723500 * MILLISECOND},
        {"1:", true, 60 * SECOND},
        {"1:00s", false, 60 * SECOND},
        {"5m", false, 5 * SECOND},
        {" - 5 s", false, -5 * SECOND},
        {" - 5s ", true, -5 * SECOND},
        {"", true, 0},
        {"x", false, 0},
        {"5 x", false, 5 * SECOND},
    };
    for (const auto& row : rows) {
        const Parsed outcome = parsed(row.text);
        EXPECT_EQ(outcome.result, row.understood) << row.text;
        EXPECT_EQ(outcome.value.type, ClockValue::Resolved) << row.text;
        EXPECT_EQ(outcome.value.value, row.nanoseconds) << row.text;
    }
}

TEST(ClockValueParse, FlagsDecideOnZeroAndNegativeValues) {
    struct {
        const char* text;
        bool acceptZero;
        bool acceptNegative;
        bool result;
    } const rows[] = {
        {"0", false, false, false},     {"0", true, false, true},    {"0", false, true, true},
        {"0", true, true, true},        {"-0", false, false, false}, {"-0", true, false, true},
        {"", false, false, false},      {"", true, false, true},     {"0.0000001", false, false, false},
        {"-5s", false, false, false},   {"-5s", true, false, false}, {"-5s", false, true, true},
        {"-5s", true, true, true},      {"5s", false, false, true},  {"5s", true, false, true},
        {"5s", false, true, true},      {"5s", true, true, true},    {"5m", true, true, false},
        {"0m", true, true, false},      {"-5m", true, true, false},  {"5m", false, false, false},
        {" - 5s ", true, false, false},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(parsed(row.text, row.acceptZero, row.acceptNegative).result, row.result)
            << row.text << " with " << row.acceptZero << row.acceptNegative;
    }
}

TEST(ClockValueParse, WordsAreTakenInEveryMode) {
    for (const bool acceptZero : {false, true}) {
        for (const bool acceptNegative : {false, true}) {
            const Parsed media = parsed("media", acceptZero, acceptNegative);
            EXPECT_TRUE(media.result);
            EXPECT_EQ(media.value.type, ClockValue::Media);
            const Parsed indefinite = parsed("indefinite", acceptZero, acceptNegative);
            EXPECT_TRUE(indefinite.result);
            EXPECT_EQ(indefinite.value.type, ClockValue::Indefinite);
        }
    }
}

TEST(ClockValueParse, WordsAreComparedExactly) {
    for (const std::string text : {"Media", "media ", " media", "medi", "mediaX", "Indefinite", "indefinite ",
                                   " indefinite", "indefinit", "unresolved"}) {
        const Parsed outcome = parsed(text);
        EXPECT_FALSE(outcome.result) << text;
        EXPECT_EQ(outcome.value.type, ClockValue::Resolved) << text;
        EXPECT_EQ(outcome.value.value, 0) << text;
    }
    EXPECT_FALSE(parsed("media\0"s).result);
}

TEST(ClockValueParse, RefusedValueIsKept) {
    ClockValue value = ofType(ClockValue::Media);
    EXPECT_FALSE(value.parse("-5s", true, false));
    EXPECT_EQ(value.type, ClockValue::Resolved);
    EXPECT_EQ(value.value, -5 * SECOND);
    EXPECT_FALSE(value.parse("7 x", true, true));
    EXPECT_EQ(value.value, 7 * SECOND);
    EXPECT_FALSE(value.parse("0", false, false));
    EXPECT_EQ(value.value, 0);
}

TEST(ClockValueParse, TextAfterANulByteRemainsUnread) {
    EXPECT_FALSE(parsed("10\0"s).result);
    EXPECT_FALSE(parsed("10s\0 5"s).result);
    EXPECT_FALSE(parsed("\0"s).result);
    EXPECT_FALSE(parsed("\0"
                        "5s"s)
                     .result);
    EXPECT_EQ(parsed("10s\0 5"s).value.value, 10 * SECOND);
}

TEST(ClockValueParse, ScalingToNanosecondsWraps) {
    const std::string forty(40, '9');
    const Parsed outcome = parsed(forty);
    EXPECT_TRUE(outcome.result);
    EXPECT_EQ(outcome.value.value, wrapped(static_cast<Int128>(modelScan(forty).value) * 1000));
    EXPECT_EQ(parsed("9223372036.854775").value.value, 9223372036854775000);
    EXPECT_EQ(parsed("9223372036.854776").value.value, wrapped(static_cast<Int128>(9223372036854776) * 1000));
    EXPECT_EQ(parsed("-9223372036854.775808").value.value, wrapped(static_cast<Int128>(MIN) * 1000));
}

// ClockValue::unparse

TEST(ClockValueUnparse, EachFormatHasItsDecimals) {
    struct {
        int64_t nanoseconds;
        const char* s;
        const char* ms;
        const char* hms;
        const char* hmsMilliseconds;
        const char* hmsOptional;
    } const rows[] = {
        {0, "0s", "0ms", "0:00:00", "0:00:00.000", "0:00:00"},
        {1500 * MILLISECOND, "1.5s", "1500ms", "0:00:01", "0:00:01.500", "0:00:01.500"},
        {SECOND, "1s", "1000ms", "0:00:01", "0:00:01.000", "0:00:01"},
        {1500 * MICROSECOND, "0.0015s", "1.5ms", "0:00:00", "0:00:00.002", "0:00:00.002"},
        {MICROSECOND, "0.000001s", "0.001ms", "0:00:00", "0:00:00.000", "0:00:00"},
        {999, "0s", "0ms", "0:00:00", "0:00:00.000", "0:00:00"},
        {1999, "0.000001s", "0.001ms", "0:00:00", "0:00:00.000", "0:00:00"},
        {123456789, "0.123456s", "123.456ms", "0:00:00", "0:00:00.123", "0:00:00.123"},
        {100 * MILLISECOND, "0.1s", "100ms", "0:00:00", "0:00:00.100", "0:00:00.100"},
        {10 * SECOND + 10 * MICROSECOND, "10.00001s", "10000.01ms", "0:00:10", "0:00:10.000", "0:00:10"},
        {-90 * SECOND, "-90s", "-90000ms", "-0:01:30", "-0:01:30.000", "-0:01:30"},
        {-1500 * MILLISECOND, "-1.5s", "-1500ms", "-0:00:01", "-0:00:01.500", "-0:00:01.500"},
        {3723 * SECOND, "3723s", "3723000ms", "1:02:03", "1:02:03.000", "1:02:03"},
        {360000 * SECOND, "360000s", "360000000ms", "100:00:00", "100:00:00.000", "100:00:00"},
        // the rounding of the milliseconds and its missing carry
        {499 * MICROSECOND, "0.000499s", "0.499ms", "0:00:00", "0:00:00.000", "0:00:00"},
        {500 * MICROSECOND, "0.0005s", "0.5ms", "0:00:00", "0:00:00.001", "0:00:00.001"},
        {999499 * MICROSECOND, "0.999499s", "999.499ms", "0:00:00", "0:00:00.999", "0:00:00.999"},
        {999600 * MICROSECOND, "0.9996s", "999.6ms", "0:00:00", "0:00:00.1000", "0:00:00.1000"},
        {59 * SECOND + 999500 * MICROSECOND, "59.9995s", "59999.5ms", "0:00:59", "0:00:59.1000", "0:00:59.1000"},
        // the ends of the range
        {MAX, "9223372036.854775s", "9223372036854.775ms", "2562047:47:16", "2562047:47:16.855", "2562047:47:16.855"},
        {MIN, "-9223372036.854775s", "-9223372036854.775ms", "-2562047:47:16", "-2562047:47:16.855",
         "-2562047:47:16.855"},
        {MIN + 1, "-9223372036.854775s", "-9223372036854.775ms", "-2562047:47:16", "-2562047:47:16.855",
         "-2562047:47:16.855"},
    };
    for (const auto& row : rows) {
        const ClockValue value = resolved(row.nanoseconds);
        EXPECT_EQ(value.unparse(""), row.s) << row.nanoseconds;
        EXPECT_EQ(value.unparse("s"), row.s) << row.nanoseconds;
        EXPECT_EQ(value.unparse("ms"), row.ms) << row.nanoseconds;
        EXPECT_EQ(value.unparse("hms"), row.hms) << row.nanoseconds;
        EXPECT_EQ(value.unparse("hms."), row.hmsMilliseconds) << row.nanoseconds;
        EXPECT_EQ(value.unparse("hms..."), row.hmsOptional) << row.nanoseconds;
    }
}

TEST(ClockValueUnparse, NegativeValueBelowAMicrosecondKeepsItsSign) {
    EXPECT_EQ(resolved(-999).unparse("s"), "-0s");
    EXPECT_EQ(resolved(-1).unparse("hms"), "-0:00:00");
}

TEST(ClockValueUnparse, PrintsAsTheModelOnRandomValues) {
    std::mt19937_64 random(66);
    for (int round = 0; round < 10000; round++) {
        int64_t nanoseconds = randomLong(random);
        if (round % 3 == 0) {
            nanoseconds -= nanoseconds % MILLISECOND;  // so that shorter fractions come up
        }
        for (const char* format : {"", "s", "ms", "hms", "hms.", "hms..."}) {
            ASSERT_EQ(resolved(nanoseconds).unparse(format), modelUnparse(nanoseconds, format))
                << nanoseconds << " in '" << format << "'";
        }
    }
}

TEST(ClockValueUnparse, PrintedSecondsAreReadBack) {
    std::mt19937_64 random(67);
    for (int round = 0; round < 20000; round++) {
        const int64_t nanoseconds = randomLong(random) / 1000 * 1000;
        for (const char* format : {"s", "ms"}) {
            const Parsed outcome = parsed(resolved(nanoseconds).unparse(format));
            ASSERT_TRUE(outcome.result) << nanoseconds;
            ASSERT_EQ(outcome.value.value, nanoseconds) << format;
        }
    }
}

TEST(ClockValueUnparse, TypesWithoutATimeHaveOneTextInEveryFormat) {
    for (const char* format : {"", "s", "ms", "hms", "hms.", "hms...", "other"}) {
        EXPECT_EQ(ofType(ClockValue::Indefinite).unparse(format), "indefinite");
        EXPECT_EQ(ofType(ClockValue::Unresolved).unparse(format), "unresolved");
        EXPECT_EQ(ofType(ClockValue::Media).unparse(format), "media");
        for (const int32_t type : {4, 77, -1, INT32_MAX, INT32_MIN}) {
            EXPECT_EQ(ofType(static_cast<ClockValue::Type>(type)).unparse(format), "<invalid value type>");
        }
    }
}

TEST(ClockValueUnparse, UnknownFormatIsTold) {
    for (const std::string format : {"S", "MS", "h", "min", "hm", "hms..", "hms....", "s ", " s", "%s", "m"}) {
        EXPECT_EQ(resolved(SECOND).unparse(format), "<invalid format>") << format;
        EXPECT_EQ(resolved(0).unparse(format), "<invalid format>") << format;
    }
    EXPECT_EQ(resolved(SECOND).unparse("s\0"s), "<invalid format>");
}

TEST(ClockValueUnparse, UnknownFormatStandsInPlaceOfANegativeValue) {
    EXPECT_EQ(resolved(-SECOND).unparse("x"), "<invalid format>");
}

// UTCClockValue

TEST(UTCClockValue, EpochInAllFormats) {
    const UTCClockValue epoch(0);
    EXPECT_EQ(epoch.get_as_iso8601_date(), "1970-01-01T00:00:00Z");
    EXPECT_EQ(epoch.get_as_iso8601_date_with_ms(), "1970-01-01T00:00:00.000Z");
    EXPECT_EQ(epoch.get_as_rfc822_date(), "Thu, 01 Jan 1970 00:00:00 GMT");
}

TEST(UTCClockValue, FormatsKnownInstants) {
    struct {
        int64_t nanoseconds;
        const char* iso;
        const char* isoMilliseconds;
        const char* rfc822;
    } const rows[] = {
        {784111777 * SECOND, "1994-11-06T08:49:37Z", "1994-11-06T08:49:37.000Z", "Sun, 06 Nov 1994 08:49:37 GMT"},
        {951782400 * SECOND, "2000-02-29T00:00:00Z", "2000-02-29T00:00:00.000Z", "Tue, 29 Feb 2000 00:00:00 GMT"},
        {1767225599 * SECOND + 999999999, "2025-12-31T23:59:59Z", "2025-12-31T23:59:59.999Z",
         "Wed, 31 Dec 2025 23:59:59 GMT"},
        {2147483648 * SECOND + MILLISECOND, "2038-01-19T03:14:08Z", "2038-01-19T03:14:08.001Z",
         "Tue, 19 Jan 2038 03:14:08 GMT"},
        {SECOND - 1, "1970-01-01T00:00:00Z", "1970-01-01T00:00:00.999Z", "Thu, 01 Jan 1970 00:00:00 GMT"},
        {999999, "1970-01-01T00:00:00Z", "1970-01-01T00:00:00.000Z", "Thu, 01 Jan 1970 00:00:00 GMT"},
        {-SECOND, "1969-12-31T23:59:59Z", "1969-12-31T23:59:59.000Z", "Wed, 31 Dec 1969 23:59:59 GMT"},
        {-86400 * SECOND, "1969-12-31T00:00:00Z", "1969-12-31T00:00:00.000Z", "Wed, 31 Dec 1969 00:00:00 GMT"},
    };
    for (const auto& row : rows) {
        const UTCClockValue value(row.nanoseconds);
        EXPECT_EQ(value.get_as_iso8601_date(), row.iso);
        EXPECT_EQ(value.get_as_iso8601_date_with_ms(), row.isoMilliseconds);
        EXPECT_EQ(value.get_as_rfc822_date(), row.rfc822);
    }
}

TEST(UTCClockValue, BrokenSecondsBeforeTheEpochAreCutTowardsIt) {
    EXPECT_EQ(UTCClockValue(-1).get_as_iso8601_date(), "1970-01-01T00:00:00Z");
    EXPECT_EQ(UTCClockValue(-1).get_as_iso8601_date_with_ms(), "1970-01-01T00:00:00.000Z");
    EXPECT_EQ(UTCClockValue(-1500 * MILLISECOND).get_as_iso8601_date(), "1969-12-31T23:59:59Z");
    EXPECT_EQ(UTCClockValue(-1500 * MILLISECOND).get_as_iso8601_date_with_ms(), "1969-12-31T23:59:59.-500Z");
}

TEST(UTCClockValue, FormatsTheEndsOfTheRange) {
    EXPECT_EQ(UTCClockValue(MAX).get_as_iso8601_date(), "2262-04-11T23:47:16Z");
    EXPECT_EQ(UTCClockValue(MAX).get_as_iso8601_date_with_ms(), "2262-04-11T23:47:16.854Z");
    EXPECT_EQ(UTCClockValue(MAX).get_as_rfc822_date(), "Fri, 11 Apr 2262 23:47:16 GMT");
    EXPECT_EQ(UTCClockValue(MIN).get_as_iso8601_date(), "1677-09-21T00:12:44Z");
    EXPECT_EQ(UTCClockValue(MIN).get_as_iso8601_date_with_ms(), "1677-09-21T00:12:44.-854Z");
    EXPECT_FALSE(UTCClockValue(MIN).get_as_rfc822_date().empty());
}

TEST(UTCClockValue, FormatsAsTheModelOnRandomInstants) {
    std::mt19937_64 random(68);
    for (int round = 0; round < 20000; round++) {
        const int64_t nanoseconds = randomLong(random);
        const UTCClockValue value(nanoseconds);
        const std::string date = modelDate(nanoseconds / SECOND);
        ASSERT_EQ(value.get_as_iso8601_date(), date + "Z") << nanoseconds;
        char milliseconds[32];
        snprintf(milliseconds, sizeof milliseconds, ".%03dZ", static_cast<int>(nanoseconds / MILLISECOND % 1000));
        ASSERT_EQ(value.get_as_iso8601_date_with_ms(), date + milliseconds) << nanoseconds;
    }
}

// RFC 7231, section 7.1.1.1 has the three forms.
TEST(UTCClockValue, ReadsTheThreeFormsOfHTTPDates) {
    for (const char* text :
         {"Sun, 06 Nov 1994 08:49:37 GMT", "Sunday, 06-Nov-94 08:49:37 GMT", "Sun Nov  6 08:49:37 1994"}) {
        EXPECT_EQ(UTCClockValue::parse_http_date(text).value, 784111777 * SECOND) << text;
    }
    EXPECT_EQ(UTCClockValue::parse_http_date("Tue, 29 Feb 2000 00:00:00 GMT").value, 951782400 * SECOND);
}

TEST(UTCClockValue, TextThatIsNoDateGivesTheEpoch) {
    for (const std::string text :
         {"", " ", "x", "yesterday", "Sun, 32 Nov 1994 08:49:37 GMT", "Sun, 06 Nov 1994 25:49:37 GMT",
          "Sun, 06 Foo 1994 08:49:37 GMT", "Sun, 06 Nov", "1994-11-06T08:49:37Z", "784111777", "\xff\xff\xff\xff"}) {
        EXPECT_EQ(UTCClockValue::parse_http_date(text).value, 0) << text;
    }
    EXPECT_EQ(UTCClockValue::parse_http_date(std::string(100000, 'x')).value, 0);
}

TEST(UTCClockValue, HTTPDateBeyondTheRangeWraps) {
    EXPECT_EQ(UTCClockValue::parse_http_date("Fri, 31 Dec 9999 23:59:59 GMT").value,
              wrapped(static_cast<Int128>(253402300799) * SECOND));
}

TEST(UTCClockValue, PrintedDateIsReadBack) {
    std::mt19937_64 random(69);
    for (int round = 0; round < 5000; round++) {
        const int64_t seconds = static_cast<int64_t>(random() % 4102444800);  // up to the year 2100
        const std::string text = UTCClockValue(seconds * SECOND).get_as_rfc822_date();
        ASSERT_EQ(UTCClockValue::parse_http_date(text).value, seconds * SECOND) << text;
    }
}

// parseInstant

TEST(ParseInstant, ReadsUTCInstants) {
    const struct {
        const char* text;
        int64_t seconds;
    } rows[] = {
        {"1970-01-01T00:00:00Z", 0},           {"1969-12-31T23:59:59Z", -1},
        {"2000-02-29T12:34:56Z", 951827696},   {"2024-02-29T00:00:00Z", 1709164800},
        {"2026-12-31T23:59:59Z", 1798761599},  {"2038-01-19T03:14:08Z", 2147483648},
        {"2100-02-28T23:59:59Z", 4107542399},  {"9999-12-31T23:59:59Z", 253402300799},
        {"1900-01-01T00:00:00Z", -2208988800}, {"0000-01-01T00:00:00Z", -62167219200},
    };
    for (const auto& row : rows)
        EXPECT_EQ(svg::parseInstant(row.text), row.seconds) << row.text;
}

TEST(ParseInstant, AnyOtherFormIsRefused) {
    for (const std::string text : {"",
                                   "Z",
                                   "2026-01-01",
                                   "2026-01-01T00:00:00",
                                   "2026-01-01T00:00:00z",
                                   "2026-01-01t00:00:00Z",
                                   "2026-01-01 00:00:00Z",
                                   "2026-01-01T00:00:00ZZ",
                                   "2026-01-01T00:00:00Z ",
                                   " 2026-01-01T00:00:00Z",
                                   "2026-01-01T00:00:00.0Z",
                                   "2026-01-01T00:00:00+00:00",
                                   "2026-1-01T00:00:00Z",
                                   "2026-01-01T00:0:000Z",
                                   "026-01-01T00:00:00Z",
                                   "02026-01-01T00:00:00Z",
                                   "+026-01-01T00:00:00Z",
                                   "-026-01-01T00:00:00Z",
                                   " 026-01-01T00:00:00Z",
                                   "2026-+1-01T00:00:00Z",
                                   "2026-01--1T00:00:00Z",
                                   "0x26-01-01T00:00:00Z",
                                   "2026/01/01T00:00:00Z",
                                   "20260101T000000Z",
                                   "dddd-dd-ddTdd:dd:ddZ"})
        EXPECT_EQ(svg::parseInstant(text), std::nullopt) << text;
}

TEST(ParseInstant, DaysAndTimesThatDoNotExistAreRefused) {
    for (const std::string text :
         {"2026-00-01T00:00:00Z", "2026-13-01T00:00:00Z", "2026-01-00T00:00:00Z", "2026-01-32T00:00:00Z",
          "2026-04-31T00:00:00Z", "2026-02-29T00:00:00Z", "2100-02-29T00:00:00Z", "2026-01-01T24:00:00Z",
          "2026-01-01T00:60:00Z", "2026-01-01T00:00:61Z", "2026-12-31T23:59:60Z"})
        EXPECT_EQ(svg::parseInstant(text), std::nullopt) << text;
}

TEST(ParseInstant, ReadsWhatIsPrinted) {
    std::mt19937_64 random(70);
    for (int round = 0; round < 20000; round++) {
        const int64_t seconds = randomLong(random) / SECOND;
        const std::string text = UTCClockValue(seconds * SECOND).get_as_iso8601_date();
        ASSERT_EQ(svg::parseInstant(text), seconds) << text;
    }
}

// num_ticks

TEST(NumTicks, CountsNanosecondsCutTowardsZero) {
    EXPECT_EQ(svg::num_ticks(0, 1), 0);
    EXPECT_EQ(svg::num_ticks(1, 1), SECOND);
    EXPECT_EQ(svg::num_ticks(48000, 48000), SECOND);
    EXPECT_EQ(svg::num_ticks(1, 3), 333333333);
    EXPECT_EQ(svg::num_ticks(2, 3), 666666666);
    EXPECT_EQ(svg::num_ticks(-1, 3), -333333333);
    EXPECT_EQ(svg::num_ticks(1, -3), -333333333);
    EXPECT_EQ(svg::num_ticks(-1, -3), 333333333);
    EXPECT_EQ(svg::num_ticks(1, 2000000000), 0);
    EXPECT_EQ(svg::num_ticks(10000000000, 1), MAX);
    EXPECT_EQ(svg::num_ticks(10000000000, -1), MIN);
    EXPECT_EQ(svg::num_ticks(10000000000, 10000000000), SECOND);
    EXPECT_EQ(svg::num_ticks(LONG_MAX, LONG_MAX), SECOND);
    EXPECT_EQ(svg::num_ticks(LONG_MAX, LONG_MIN), -999999999);
}

TEST(NumTicks, IsExactAroundTheLimitOfTheDirectPath) {
    constexpr long LIMIT = 9223372035;
    EXPECT_EQ(svg::num_ticks(LIMIT, 1), 9223372035000000000);
    EXPECT_EQ(svg::num_ticks(LIMIT + 1, 1), 9223372036000000000);
    EXPECT_EQ(svg::num_ticks(LIMIT + 2, 1), MAX);
    EXPECT_EQ(svg::num_ticks(LIMIT + 1, -1), -9223372036000000000);
    EXPECT_EQ(svg::num_ticks(LIMIT + 2, -1), MIN);
    for (long ticks = LIMIT - 50; ticks <= LIMIT + 50; ticks++) {
        for (const long period :
             {1L, 2L, 3L, 7L, 1000L, 48000L, 999999999L, LIMIT, LONG_MAX, -1L, -2L, -3L, LONG_MIN}) {
            EXPECT_EQ(svg::num_ticks(ticks, period), modelWide(static_cast<Int128>(ticks) * SECOND, period))
                << ticks << " / " << period;
        }
    }
}

TEST(NumTicks, ComputesAsTheOracleOnRandomValues) {
    std::mt19937_64 random(70);
    for (int round = 0; round < 100000; round++) {
        const long ticks = randomLong(random);
        const long period = randomDivisor(random);
        const Int128 product = static_cast<Int128>(ticks) * SECOND;
        const int64_t expected = ticks <= 9223372035 ? modelDirect(product, period) : modelWide(product, period);
        ASSERT_EQ(svg::num_ticks(ticks, period), expected) << ticks << " / " << period;
    }
}

TEST(NumTicks, NegativeTicksTakeTheDirectPathAndWrap) {
    EXPECT_EQ(svg::num_ticks(-9223372036, 1), -9223372036000000000);
    EXPECT_EQ(svg::num_ticks(-10000000000, 1), 8446744073709551616);
    EXPECT_EQ(svg::num_ticks(LONG_MIN, 1), 0);
}

// The processor would trap at this division as well, but only a period of zero may end there.
TEST(NumTicks, QuotientOfTwoToThe63WrapsInTheDirectPath) {
    EXPECT_EQ(svg::num_ticks(-(1L << 54), -1), MIN);
    EXPECT_EQ(svg::num_ticks_ppm(-(1L << 54), -1, 0), MIN);
}

TEST(NumTicksDeathTest, ZeroPeriodEndsTheProcessInTheDirectPath) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(static_cast<void>(svg::num_ticks(10, 0)), diedOfDivision, DIVISION_REPORT);
    EXPECT_EXIT(static_cast<void>(svg::num_ticks(-10000000000, 0)), diedOfDivision, DIVISION_REPORT);
    EXPECT_EXIT(static_cast<void>(svg::num_ticks(9223372035, 0)), diedOfDivision, DIVISION_REPORT);
    EXPECT_EXIT(static_cast<void>(svg::num_ticks_ppm(4611686017, 0, 10)), diedOfDivision, DIVISION_REPORT);
}

void divideByZeroWithHandler(void (*handler)(int)) {
    signal(SIGFPE, handler);
    static_cast<void>(svg::num_ticks(10, 0));
}

void divideByZeroWithSignalBlocked() {
    sigset_t error;
    sigemptyset(&error);
    sigaddset(&error, SIGFPE);
    pthread_sigmask(SIG_BLOCK, &error, nullptr);
    static_cast<void>(svg::num_ticks(10, 0));
}

TEST(NumTicksDeathTest, NoDispositionOfTheSignalSavesTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(divideByZeroWithHandler(SIG_IGN), diedOfDivision, DIVISION_REPORT);
    EXPECT_EXIT(divideByZeroWithHandler([](int) {}), diedOfDivision, DIVISION_REPORT);
    EXPECT_EXIT(divideByZeroWithSignalBlocked(), diedOfDivision, DIVISION_REPORT);
}

TEST(NumTicks, ZeroPeriodThrowsInTheWidePath) {
    expectDivisionByZeroThrown([] { svg::num_ticks(10000000000, 0); });
    expectDivisionByZeroThrown([] { svg::num_ticks(9223372036, 0); });
    expectDivisionByZeroThrown([] { svg::num_ticks_ppm(4611686018, 0, 10); });
    expectDivisionByZeroThrown([] { svg::num_ticks_ppm(10000000000, 0, 1000000); });
}

TEST(NumTicksOfFraction, CountsNanosecondsCutTowardsZero) {
    EXPECT_EQ(svg::num_ticks(1, 1, 1), SECOND);
    EXPECT_EQ(svg::num_ticks(30, 1001, 30000), 1001 * MILLISECOND);
    EXPECT_EQ(svg::num_ticks(1, 1, 3), 333333333);
    EXPECT_EQ(svg::num_ticks(-1, 1, 3), -333333333);
    EXPECT_EQ(svg::num_ticks(1, -1, 3), -333333333);
    EXPECT_EQ(svg::num_ticks(1, 1, -3), -333333333);
    EXPECT_EQ(svg::num_ticks(-1, -1, 3), 333333333);
    EXPECT_EQ(svg::num_ticks(-1, -1, -3), -333333333);
}

TEST(NumTicksOfFraction, QuotientOfZeroIsZeroWhateverTheSigns) {
    for (const long sign : {1L, -1L}) {
        EXPECT_EQ(svg::num_ticks(0, sign, 7), 0);
        EXPECT_EQ(svg::num_ticks(sign, 0, -7), 0);
        EXPECT_EQ(svg::num_ticks(sign, 1, 2000000000), 0);
        EXPECT_EQ(svg::num_ticks(sign, 1, -2000000000), 0);
        EXPECT_EQ(svg::num_ticks(sign, 1, LONG_MIN), 0);
    }
}

TEST(NumTicksOfFraction, SaturatesInBothSigns) {
    EXPECT_EQ(svg::num_ticks(9223372036, 1, 1), 9223372036000000000);
    EXPECT_EQ(svg::num_ticks(9223372037, 1, 1), MAX);
    EXPECT_EQ(svg::num_ticks(-9223372036, 1, 1), -9223372036000000000);
    EXPECT_EQ(svg::num_ticks(-9223372037, 1, 1), MIN);
    EXPECT_EQ(svg::num_ticks(LONG_MAX, 1000, 1), MAX);
    EXPECT_EQ(svg::num_ticks(LONG_MAX, -1000, 1), MIN);
    EXPECT_EQ(svg::num_ticks(LONG_MIN, -1000, 1), MAX);
    EXPECT_EQ(svg::num_ticks(LONG_MIN, -1000, -1), MIN);
    EXPECT_EQ(svg::num_ticks(LONG_MIN, 1, 1), MIN);
    // a quotient of 2^63 - 1 and of 2^63, in both signs
    EXPECT_EQ(svg::num_ticks(LONG_MAX, 1, SECOND), MAX);
    EXPECT_EQ(svg::num_ticks(LONG_MAX, -1, SECOND), -MAX);
    EXPECT_EQ(svg::num_ticks(LONG_MIN, 1, SECOND), MIN);
    EXPECT_EQ(svg::num_ticks(LONG_MIN, -1, SECOND), MAX);
}

TEST(NumTicksOfFraction, ZeroDenominatorThrows) {
    expectDivisionByZeroThrown([] { svg::num_ticks(1, 1, 0); });
    expectDivisionByZeroThrown([] { svg::num_ticks(-1, 1, 0); });
    expectDivisionByZeroThrown([] { svg::num_ticks(0, 1, 0); });
    expectDivisionByZeroThrown([] { svg::num_ticks(1, 0, 0); });
    expectDivisionByZeroThrown([] { svg::num_ticks(LONG_MAX, LONG_MAX, 0); });
}

TEST(NumTicksOfFraction, ComputesAsTheOracleOnRandomValues) {
    std::mt19937_64 random(71);
    for (int round = 0; round < 100000; round++) {
        const long ticks = randomLong(random);
        const long numerator = randomLong(random);
        const long denominator = randomDivisor(random);
        ASSERT_EQ(svg::num_ticks(ticks, numerator, denominator), modelFraction(ticks, numerator, denominator))
            << ticks << " * " << numerator << " / " << denominator;
    }
}

TEST(NumTicksOfFraction, ProductWrapsBeyond128Bits) {
    EXPECT_EQ(svg::num_ticks(LONG_MIN, LONG_MIN, 1), 0);  // 2^126 * 10^9 is a multiple of 2^128
    EXPECT_EQ(svg::num_ticks(LONG_MAX, LONG_MAX, LONG_MAX), modelFraction(LONG_MAX, LONG_MAX, LONG_MAX));
    EXPECT_EQ(svg::num_ticks(LONG_MAX, 3, LONG_MAX), 3 * SECOND);
}

TEST(NumTicksPpm, ShortensATickByPartsPerMillion) {
    EXPECT_EQ(svg::num_ticks_ppm(1000, 1000, 10), 999990000);
    EXPECT_EQ(svg::num_ticks_ppm(1000, 1000, 0), SECOND);
    EXPECT_EQ(svg::num_ticks_ppm(1000, 1000, -10), 1000010000);
    EXPECT_EQ(svg::num_ticks_ppm(1000, 1000, 1000000), 0);
    EXPECT_EQ(svg::num_ticks_ppm(1000, 1000, 2000000), -SECOND);
    EXPECT_EQ(svg::num_ticks_ppm(-1000, 1000, 10), -999990000);
    EXPECT_EQ(svg::num_ticks_ppm(1000, -1000, 10), -999990000);
    EXPECT_EQ(svg::num_ticks_ppm(1, 3, 1), 333333000);
    EXPECT_EQ(svg::num_ticks_ppm(0, 3, 1), 0);
    EXPECT_EQ(svg::num_ticks_ppm(1000, 1000, INT_MAX), SECOND - 1000L * INT_MAX);
    EXPECT_EQ(svg::num_ticks_ppm(1000, 1000, INT_MIN), SECOND - 1000L * INT_MIN);
}

TEST(NumTicksPpm, IsExactAroundTheLimitOfTheDirectPath) {
    constexpr long LIMIT = 4611686017;
    EXPECT_EQ(svg::num_ticks_ppm(LIMIT, 1, 0), 4611686017000000000);
    EXPECT_EQ(svg::num_ticks_ppm(LIMIT + 1, 1, 0), 4611686018000000000);
    EXPECT_EQ(svg::num_ticks_ppm(LIMIT, 1, -1000000), 9223372034000000000);
    EXPECT_EQ(svg::num_ticks_ppm(LIMIT + 1, 1, -1000000), 9223372036000000000);
    EXPECT_EQ(svg::num_ticks_ppm(LIMIT + 2, 1, -1000000), MAX);
    EXPECT_EQ(svg::num_ticks_ppm(LIMIT + 2, -1, -1000000), MIN);
    EXPECT_EQ(svg::num_ticks_ppm(LIMIT + 2, 1, 3000000), MIN);
    EXPECT_EQ(svg::num_ticks_ppm(LIMIT + 2, -1, 3000000), MAX);
    EXPECT_EQ(svg::num_ticks_ppm(LIMIT + 2, 1, 1000000), 0);
    for (long ticks = LIMIT - 50; ticks <= LIMIT + 50; ticks++) {
        for (const long period : {1L, 3L, 1000L, 48000L, LIMIT, LONG_MAX, -1L, -7L, LONG_MIN}) {
            for (const int ppm : {0, 1, -1, 10, 999999, 1000000, 1000001, 2000000, -1000000}) {
                const Int128 product = static_cast<Int128>(ticks) * (SECOND - 1000L * ppm);
                EXPECT_EQ(svg::num_ticks_ppm(ticks, period, ppm), modelWide(product, period))
                    << ticks << " / " << period << " at " << ppm;
            }
        }
    }
}

// Above the limit of num_ticks_ppm the wide path must be taken, below it the direct one: a factor of 3 tells them
// apart.
TEST(NumTicksPpm, PathChangesAtItsLimit) {
    constexpr long LIMIT = 4611686017;
    const Int128 factor = 3 * SECOND;
    EXPECT_EQ(svg::num_ticks_ppm(LIMIT, 1, -2000000), wrapped(LIMIT * factor));
    EXPECT_EQ(svg::num_ticks_ppm(LIMIT + 1, 1, -2000000), MAX);
}

TEST(NumTicksPpm, ComputesAsTheOracleOnRandomValues) {
    std::mt19937_64 random(72);
    for (int round = 0; round < 100000; round++) {
        const long ticks = randomLong(random);
        const long period = randomDivisor(random);
        const int ppm = static_cast<int>(static_cast<int32_t>(random()) >> (random() % 32));
        const Int128 product = static_cast<Int128>(ticks) * (SECOND - 1000L * ppm);
        const int64_t expected = ticks <= 4611686017 ? modelDirect(product, period) : modelWide(product, period);
        ASSERT_EQ(svg::num_ticks_ppm(ticks, period, ppm), expected) << ticks << " / " << period << " at " << ppm;
    }
}
