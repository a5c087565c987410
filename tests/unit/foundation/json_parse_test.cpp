// Tests of the JSON parser: the grammar with its tolerances, where the cursor stops, numbers against the C library's
// own sscanf, and random texts against a second, naive reader.
#include <gtest/gtest.h>
#include <unistd.h>

#include <bit>
#include <cctype>
#include <clocale>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "foundation/json.h"
#include "unit/exact_buffer.h"
#include "unit/foundation/json_parse_model.h"

using namespace std::string_literals;
using namespace std::string_view_literals;

namespace {

using Random = std::mt19937_64;

std::string oneLine(const JSON& value) {
    std::string out;
    value.stringify(out, -1);
    return out;
}

std::string canonical(const JSON& value) {
    std::string out;
    switch (value.type) {
    case 0:
        return "n";
    case 1:
        return value ? "b1" : "b0";
    case 2:
        return canonicalNumber(static_cast<double>(value));
    case 3:
        return canonicalString(value.toString());
    case 4:
        for (const auto& [key, member] : value.keys())
            out += canonicalString(key) + canonical(*member);
        return "{" + out + "}";
    default:
        for (const JSON::root& element : value.values())
            out += canonical(*element);
        return "[" + out + "]";
    }
}

// readPrefix runs json_parse on an exact copy of `text`, its terminator being the block's last byte.
Outcome readPrefix(std::string_view text) {
    const ExactBuffer<char> buffer(text, true);
    const char* cursor = buffer.data();
    const JSON::root value = JSON::json_parse(cursor);
    Outcome outcome;
    if (value)
        outcome.document = canonical(*value);
    outcome.moved = cursor - buffer.data();
    return outcome;
}

// exactString returns a string whose terminator is the last byte of a heap block.
std::string exactString(std::string_view text) {
    std::string exact(text.begin(), text.end());
    exact.shrink_to_fit();
    return exact;
}

std::optional<std::string> readWhole(std::string_view text) {
    const auto exact = std::make_unique<const std::string>(exactString(text));
    const JSON::root value = JSON::parse(*exact);
    return value ? std::optional(canonical(*value)) : std::nullopt;
}

std::string shown(std::string_view text) {
    std::string out;
    for (const char letter : text) {
        char escaped[8];
        std::snprintf(escaped, sizeof escaped, letter >= 32 && letter < 127 ? "%c" : "\\x%02x",
                      static_cast<unsigned>(static_cast<unsigned char>(letter)));
        out += escaped;
    }
    return out;
}

// accepts checks that the whole text parses and prints as `expected` on one line.
void accepts(std::string_view text, const std::string& expected) {
    const JSON::root value = JSON::parse(exactString(text));
    ASSERT_NE(nullptr, value) << shown(text);
    EXPECT_EQ(expected, oneLine(*value)) << shown(text);
}

void refuses(std::string_view text) {
    const JSON::root value = JSON::parse(exactString(text));
    EXPECT_EQ(nullptr, value) << shown(text) << " gave " << oneLine(*value);
}

// stringOf returns the bytes of the string that the JSON text stands for.
std::optional<std::string> stringOf(std::string_view text) {
    const JSON::root value = JSON::parse(exactString(text));
    return value && value->type == 3 ? std::optional(value->toString()) : std::nullopt;
}

}  // namespace

// ---- Whole texts

TEST(JSONParse, ReadsEachKindOfValue) {
    accepts("null", "null");
    accepts("true", "true");
    accepts("false", "false");
    accepts("12", "12");
    accepts(R"("a")", R"("a")");
    accepts("[1,2]", "[ 1, 2 ]");
    accepts(R"({"a":1})", R"({ "a": 1 })");
}

TEST(JSONParse, EachKindOfValueHasItsType) {
    const std::pair<const char*, int> rows[] = {{"null", 0}, {"true", 1}, {"1", 2}, {"\"\"", 3}, {"{}", 4}, {"[]", 5}};
    for (const auto& [text, type] : rows)
        EXPECT_EQ(type, JSON::parse(text)->type) << text;
}

TEST(JSONParse, WhitespaceOnlyOrEmptyTextIsNull) {
    for (const char* text : {"", " ", "\t", "\n", "\r", " \t\r\n \n"})
        refuses(text);
}

TEST(JSONParse, WhitespaceMayStandBetweenAllTokens) {
    accepts(" \t\r\nnull\n\r\t ", "null");
    accepts(" [ 1\t,\r2\n, [ ] , { } ] ", "[ 1, 2, [ ], { } ]");
    accepts("\n{\t\"a\"\r:\n1 , \"b\" :\t[ ]\n}\r", R"({ "a": 1, "b": [ ] })");
}

TEST(JSONParse, OnlyFourBytesAreWhitespace) {
    for (int byte = 1; byte < 256; ++byte) {
        const std::string letter(1, static_cast<char>(byte));
        const bool white = byte == 9 || byte == 10 || byte == 13 || byte == 32;
        EXPECT_EQ(white, readWhole(letter + "null").has_value()) << byte;
        EXPECT_EQ(white, readWhole("null" + letter).has_value()) << byte;
        EXPECT_EQ(white, readWhole("[" + letter + "]").has_value() && !std::isdigit(byte)) << byte;
        EXPECT_EQ(white, readWhole("[null" + letter + ",null]").has_value()) << byte;
        EXPECT_EQ(white, readWhole("{" + letter + "\"a\"" + letter + ":" + letter + "null" + letter + "}").has_value())
            << byte;
    }
}

TEST(JSONParse, AnythingAfterTheValueIsAFailure) {
    for (const char* text : {"null x", "nullx", "truefalse", "1 2", "\"a\"b", "[]]", "{}}", "[],", "null,", "12px"})
        refuses(text);
}

TEST(JSONParse, EmbeddedNULEndsTheText) {
    accepts("null\0garbage"s, "null");
    accepts("[1] \0]"s, "[ 1 ]");
    accepts("12\0"s + "34", "12");
    refuses("\0null"s);
    refuses("nu\0ll"s);
    refuses("\"a\0b\""s);
    refuses("[1\0]"s);
    refuses("{\"a\":\0"
            "1}"s);
}

// ---- Letters

TEST(JSONParseWord, FollowingByteIsNotExamined) {
    const std::pair<const char*, int> rows[] = {
        {"nullx", 4}, {"truex", 4}, {"falsex", 5}, {"nullnull", 4}, {"true1", 4}};
    for (const auto& [text, length] : rows) {
        const Outcome outcome = readPrefix(text);
        EXPECT_TRUE(outcome.document) << text;
        EXPECT_EQ(length, outcome.moved) << text;
    }
}

TEST(JSONParseWord, AnyDifferenceFailsWithoutMovingTheCursor) {
    for (const char* text : {"n", "nu", "nul", "nulL", "Null", "NULL", "t", "tru", "trUe", "True", "f", "fals", "falsE",
                             "nil", "nan", "inf", "undefined"}) {
        const Outcome outcome = readPrefix(text);
        EXPECT_FALSE(outcome.document) << text;
        EXPECT_EQ(0, outcome.moved) << text;
    }
}

TEST(JSONParseWord, FailureLeavesTheCursorAfterTheWhitespace) {
    for (const char* token : {"nul", "x", "", "+1", ".5", "-", "]", "}", ",", ":", "\\"}) {
        const Outcome outcome = readPrefix(" \t\r\n"s + token);
        EXPECT_FALSE(outcome.document) << token;
        EXPECT_EQ(4, outcome.moved) << token;
    }
}

TEST(JSONParse, EveryFirstByteThatSelectsNoBranchFails) {
    for (int byte = 0; byte < 256; ++byte) {
        const std::string text(1, static_cast<char>(byte));
        const bool alone = std::isdigit(byte) || byte == '[' || byte == '{';  // the brackets: cut off, but tolerated
        EXPECT_EQ(alone, readPrefix(text).document.has_value()) << byte;
    }
}

// ---- Numbers

TEST(JSONParseNumber, TokensWiderThanTheGrammar) {
    accepts("007", "7");
    accepts("1.", "1");
    accepts("0x10", "16");
    accepts("-inf", "-inf");
    accepts("-nan", "-nan");
    accepts("-.5", "-0.5");
    accepts("-0", "-0");
    accepts("0X1.8P1", "3");
    accepts("-Infinity", "-inf");
    accepts("[1.,-0x2]", "[ 1, -2 ]");
}

TEST(JSONParseNumber, FirstByteMustBeADigitOrMinus) {
    for (const char* text : {"+1", ".5", "inf", "nan", "Infinity", "NaN", "e5", "x10"})
        refuses(text);
}

// Expected values and lengths as glibc's sscanf gives them.
TEST(JSONParseNumber, ValueAndCursor) {
    const struct {
        const char* text;
        std::optional<double> value;
        int moved;
    } rows[] = {
        {"0", 0.0, 1},
        {"-1", -1.0, 2},
        {"12.5e1x", 125.0, 6},
        {"1e5", 1e5, 3},
        {"1E+5", 1e5, 4},
        {"1e-2", 0.01, 4},
        {"1e", 1.0, 2},
        {"1e+", 1.0, 3},
        {"1.e", 1.0, 3},
        {"1e5.5", 1e5, 3},
        {"1.2.3", 1.2, 3},
        {"1-2", 1.0, 1},
        {"1,5", 1.0, 1},
        {"1 5", 1.0, 1},
        {"0x1p", 1.0, 4},
        {"0x1p+", 1.0, 5},
        {"0x.p1", 0.0, 3},
        {"0x1p-4z", 0.0625, 6},
        {"0xfFg", 255.0, 4},
        {"0x", std::nullopt, 0},
        {"0xg", std::nullopt, 0},
        {"-0x", std::nullopt, 0},
        {"-", std::nullopt, 0},
        {"--1", std::nullopt, 0},
        {"-+1", std::nullopt, 0},
        {"- 1", std::nullopt, 0},
        {"-.", std::nullopt, 0},
        {"-i", std::nullopt, 0},
        {"-in", std::nullopt, 0},
        {"-infi", std::nullopt, 0},
        {"-infinit", std::nullopt, 0},
        {"-na", std::nullopt, 0},
        {"-inf", -HUGE_VAL, 4},
        {"-INFINITYx", -HUGE_VAL, 9},
        {"1e400", HUGE_VAL, 5},
        {"-1e400", -HUGE_VAL, 6},
        {"1e-400", 0.0, 6},
        {"0x1p2000", HUGE_VAL, 8},
        {"0x1p-1074", 4.9406564584124654e-324, 9},
        {"4.9406564584124654e-324", 4.9406564584124654e-324, 23},
        {"1.7976931348623157e308", 1.7976931348623157e308, 22},
        {"1e99999999999999999999", HUGE_VAL, 22},
        {"1e-99999999999999999999", 0.0, 23},
        {"0e99999999999999999999", 0.0, 22},
        {"9007199254740993", 9007199254740992.0, 16},
    };
    for (const auto& row : rows) {
        const Outcome outcome = readPrefix(row.text);
        ASSERT_EQ(row.value.has_value(), outcome.document.has_value()) << row.text;
        if (row.value) {
            EXPECT_EQ(canonicalNumber(*row.value), *outcome.document) << row.text;
        }
        EXPECT_EQ(row.moved, outcome.moved) << row.text;
    }
}

TEST(JSONParseNumber, NotANumberStopsBeforeItsParentheses) {
    const Outcome outcome = readPrefix("-nan(1)");
    ASSERT_TRUE(outcome.document);
    EXPECT_EQ(4, outcome.moved);
    EXPECT_TRUE(std::signbit(static_cast<double>(*JSON::parse("-nan"))));
}

namespace {

void equalsSscanf(const std::string& text) {
    const Outcome expected = scanned(text);
    const Outcome found = readPrefix(text);
    ASSERT_EQ(expected.document, found.document) << text;
    ASSERT_EQ(expected.moved, found.moved) << text;
}

std::string pick(Random& random, std::initializer_list<std::string_view> pieces) {
    return std::string(pieces.begin()[random() % pieces.size()]);
}

std::string digits(Random& random, std::size_t most, std::string_view alphabet = "0123456789") {
    std::string out;
    for (std::size_t count = random() % (most + 1); count > 0; --count)
        out += alphabet[random() % alphabet.size()];
    return out;
}

// numberLike puts pieces of numbers together, mostly in an order that makes sense.
std::string numberLike(Random& random) {
    const bool hex = random() % 3 == 0;
    const std::string_view alphabet = hex ? "0123456789abcdefABCDEF" : "0123456789";
    std::string out = pick(random, {"", "-", "-", "0", "-0"});
    out += hex ? pick(random, {"0x", "0X", "x"}) : "";
    out += digits(random, 20, alphabet) + pick(random, {"", ".", ".", ".."}) + digits(random, 20, alphabet);
    out += pick(random, {"", "e", "E", "p", "P", "e+", "e-", "p-", "P+", "e--", "ep"}) + digits(random, 4);
    return (out.empty() || !(std::isdigit(out[0]) || out[0] == '-') ? "0" : "") + out +
           pick(random, {"", "", " ", "x", ",", "."});
}

}  // namespace

TEST(JSONParseNumber, EqualsSscanfOnRandomLetters) {
    constexpr std::string_view Alphabet = "0123456789012345678900--+..eEpPxXinfatyINFATY()_ ";
    Random random(310);
    for (int count = 0; count < 150000; ++count) {
        std::string text = random() % 2 ? "-" : std::string(1, static_cast<char>('0' + random() % 10));
        for (std::size_t left = random() % 12; left > 0; --left)
            text += Alphabet[random() % Alphabet.size()];
        ASSERT_NO_FATAL_FAILURE(equalsSscanf(text));
    }
}

TEST(JSONParseNumber, EqualsSscanfOnNumberLikeTexts) {
    Random random(311);
    for (int count = 0; count < 150000; ++count)
        ASSERT_NO_FATAL_FAILURE(equalsSscanf(numberLike(random)));
}

TEST(JSONParseNumber, EqualsSscanfOnPrefixesOfInfinityAndNaN) {
    Random random(312);
    for (int count = 0; count < 20000; ++count) {
        std::string word =
            pick(random, {"infinity", "INFINITY", "nan", "NAN", "nan(", "nan()", "nan(12)", "nan(a_9)", "inf"});
        word.resize(random() % (word.size() + 1));
        for (char& letter : word)
            if (random() % 8 == 0)
                letter = static_cast<char>(letter ^ 32);
        ASSERT_NO_FATAL_FAILURE(equalsSscanf("-" + word + pick(random, {"", "x", "(1)", " ", "y", "0", "."})));
    }
}

TEST(JSONParseNumber, EqualsSscanfOnRandomDoublesInManyDigits) {
    Random random(313);
    for (int count = 0; count < 30000; ++count) {
        const double number = std::bit_cast<double>(random());
        char text[512];
        if (random() % 4 == 0)
            std::snprintf(text, sizeof text, "%a", number);
        else
            std::snprintf(text, sizeof text, "%.*g", static_cast<int>(1 + random() % 40), number);
        if (text[0] == '-' || std::isdigit(text[0])) {
            ASSERT_NO_FATAL_FAILURE(equalsSscanf(text));
        }
    }
}

TEST(JSONParseNumber, EqualsSscanfHalfwayBetweenTwoDoubles) {
    Random random(314);
    for (int count = 0; count < 3000; ++count) {
        const std::uint64_t mantissa = (std::uint64_t{1} << 53) + 2 * (random() >> 12) + 1;
        const int exponent = static_cast<int>(random() % 200);
        char text[2048];
        std::snprintf(text, sizeof text, "%.0Lf", std::ldexp(static_cast<long double>(mantissa), exponent));
        const std::string halfway = text;
        for (const std::string& near : {halfway, halfway + ".0", halfway + "." + std::string(40, '0') + "1"})
            ASSERT_NO_FATAL_FAILURE(equalsSscanf(near));
    }
}

TEST(JSONParseNumber, EqualsSscanfOnVeryLongTokens) {
    for (const std::size_t length : {100u, 2000u, 100000u}) {
        const std::string zeros(length, '0');
        const std::string nines(length, '9');
        for (const std::string& text :
             {"1" + zeros, "0." + zeros + "1", nines, "0." + nines, zeros + "7", "-" + nines + "." + nines,
              "0." + zeros + "1e" + std::to_string(length), "1" + zeros + "e-" + std::to_string(length),
              "0x" + zeros + "1", "0x1" + zeros + "p-" + std::to_string(4 * length),
              "0x." + zeros + "8p" + std::to_string(4 * length), "1e" + zeros + "5", "1e" + nines, "1e-" + nines,
              "0x1p" + nines, "0x1p-" + zeros + "3", nines + "e", "0x" + std::string(length, 'f') + "p+",
              "-0." + zeros + "x"})
            ASSERT_NO_FATAL_FAILURE(equalsSscanf(text));
    }
}

TEST(JSONParseNumber, EveryTruncationStaysWithinTheText) {
    for (const std::string whole : {"-123.456e+789", "-0x1f.8p-12", "-infinity", "-nan(123)", "0X.FP+1"})
        for (std::size_t length = 1; length <= whole.size(); ++length)
            ASSERT_NO_FATAL_FAILURE(equalsSscanf(whole.substr(0, length)));
}

// A number costs what its own bytes cost. Were the text after it measured or copied each time, both would take hours.
TEST(JSONParseNumber, CostDoesNotGrowWithTheTextAfterIt) {
    constexpr std::size_t Count = 2000000;
    std::string text = "[";
    for (std::size_t index = 0; index < Count; ++index)
        text += "1234567.5,";
    text.back() = ']';
    const JSON::root array = JSON::parse(text);
    ASSERT_NE(nullptr, array);
    EXPECT_EQ(Count, array->size());
}

TEST(JSONParseNumber, CostOfOneValueDoesNotGrowWithTheTextAfterIt) {
    constexpr std::size_t Count = 1000000;
    std::string text;
    for (std::size_t index = 0; index < Count; ++index)
        text += "1234567.5 ";
    const char* cursor = text.c_str();
    std::size_t found = 0;
    while (JSON::json_parse(cursor))
        ++found;
    EXPECT_EQ(Count, found);
    EXPECT_EQ(text.c_str() + text.size(), cursor);
}

// ---- A string as a number

TEST(JSONStringAsNumber, TakesOneNumberBetweenWhitespace) {
    const struct {
        std::string text;
        std::optional<double> value;
    } rows[] = {
        {"", 0.0},
        {"12", 12.0},
        {"  12\t\r\n ", 12.0},
        {"12px", std::nullopt},
        {"12 px", std::nullopt},
        {"12 13", std::nullopt},
        {" ", std::nullopt},
        {"px", std::nullopt},
        {"+1", 1.0},
        {".5", 0.5},
        {"inf", HUGE_VAL},
        {"-infinity ", -HUGE_VAL},
        {"infi", std::nullopt},
        {"0x10", 16.0},
        {"1e", 1.0},
        {"0x", std::nullopt},
        {"-0", -0.0},
        {"12\v", std::nullopt},
        {"12\f", std::nullopt},
        {"12\x01", std::nullopt},
        {"12\0px"s, 12.0},
        {"12 \0px"s, 12.0},
        {"\0"s, std::nullopt},
        {"\0"
         "12"s,
         std::nullopt},
        {"1\0"
         "2"s,
         1.0},
    };
    for (const auto& row : rows) {
        const double found = static_cast<double>(*JSON::String(row.text));
        EXPECT_EQ(canonicalNumber(row.value.value_or(JSON::NaN)), canonicalNumber(found)) << shown(row.text);
    }
}

TEST(JSONStringAsNumber, EqualsSscanfWithOnlyWhitespaceAfter) {
    Random random(315);
    for (int count = 0; count < 60000; ++count) {
        std::string text =
            pick(random, {"", "", " ", "\t\n", "\v", "\f\r", "+", "."}) +
            (random() % 4 ? numberLike(random) : pick(random, {"inf", "nan", "infinity", "+nan", "nan(1)"})) +
            pick(random, {"", "", " ", "\r\n", "\t ", "\v", " x", "\f", " \1"});
        const Outcome outcome = scanned(text);
        const bool taken =
            outcome.document && text.find_first_not_of(" \t\r\n", static_cast<std::size_t>(outcome.moved)) == text.npos;
        ASSERT_EQ(taken ? *outcome.document : canonicalNumber(JSON::NaN),
                  canonicalNumber(static_cast<double>(*JSON::String(text))))
            << shown(text);
    }
}

// ---- Locale

namespace {

// CommaLocale is a process locale whose decimal point is a comma: the C library's own numeric category, its points
// replaced, in a folder of the test's own. It is in force while the object lives.
class CommaLocale {
public:
    CommaLocale() {
        const std::string name = "comma";
        std::filesystem::create_directories(m_oFolder / name);
        std::ifstream original("/usr/lib/locale/C.utf8/LC_NUMERIC", std::ios::binary);
        std::string bytes((std::istreambuf_iterator<char>(original)), std::istreambuf_iterator<char>());
        for (char& byte : bytes)
            byte = byte == '.' ? ',' : byte;
        std::ofstream(m_oFolder / name / "LC_NUMERIC", std::ios::binary) << bytes;
        setenv("LOCPATH", m_oFolder.c_str(), 1);
        m_bSet = std::setlocale(LC_NUMERIC, name.c_str()) != nullptr;
    }

    ~CommaLocale() {
        std::setlocale(LC_NUMERIC, "C");
        unsetenv("LOCPATH");
        std::filesystem::remove_all(m_oFolder);
    }

    CommaLocale(const CommaLocale&) = delete;
    CommaLocale& operator=(const CommaLocale&) = delete;

    // inForce returns whether the C library really writes a comma now.
    bool inForce() const {
        char text[16];
        std::snprintf(text, sizeof text, "%g", 0.5);
        return m_bSet && text == "0,5"s;
    }

private:
    std::filesystem::path m_oFolder =
        std::filesystem::path(testing::TempDir()) / ("json_locale_" + std::to_string(getpid()));
    bool m_bSet = false;
};

}  // namespace

TEST(JSONLocale, NumbersAreReadAndWrittenWithAPointEverywhere) {
    const CommaLocale locale;
    ASSERT_TRUE(locale.inForce());
    accepts("1.5", "1.5");
    accepts("[1,5]", "[ 1, 5 ]");
    accepts("0x1.8p1", "3");
    EXPECT_EQ(1, readPrefix("1,5").moved);
    EXPECT_EQ("1.5", JSON::Number(1.5)->toString());
    EXPECT_EQ("1.797693134862316e+308", JSON::Number(1.7976931348623157e308)->toString());
    EXPECT_EQ(canonicalNumber(1.5), canonicalNumber(static_cast<double>(*JSON::String("1.5"))));
    EXPECT_EQ(canonicalNumber(JSON::NaN), canonicalNumber(static_cast<double>(*JSON::String("1,5"))));
    const std::string manyDigits = "1." + std::string(1000, '3');
    EXPECT_EQ(static_cast<std::ptrdiff_t>(manyDigits.size()), readPrefix(manyDigits).moved);
}

// ---- Strings

TEST(JSONParseString, PlainBytesPassUnchanged) {
    EXPECT_EQ("", stringOf(R"("")"));
    EXPECT_EQ("a b/'", stringOf(R"("a b/'")"));
    for (int byte = 32; byte < 256; ++byte) {
        const std::string text = "x" + std::string(1, static_cast<char>(byte)) + "y";
        if (byte != '"' && byte != '\\') {
            EXPECT_EQ(text, stringOf("\"" + text + "\"")) << byte;
        }
    }
}

TEST(JSONParseString, RawControlBytesFail) {
    for (int byte = 0; byte < 32; ++byte)
        refuses("\"x" + std::string(1, static_cast<char>(byte)) + "y\"");
}

TEST(JSONParseString, RawLineFeedOrTabFailsAnEscapedOneSucceeds) {
    refuses("\"a\nb\"");
    refuses("\"a\tb\"");
    EXPECT_EQ("a\nb\tc", stringOf(R"("a\nb\tc")"));
}

TEST(JSONParseString, EscapesOfOneLetter) {
    EXPECT_EQ("\"/\\\b\f\n\r\t", stringOf(R"("\"\/\\\b\f\n\r\t")"));
    const std::string known = "\"/\\bfnrt";
    for (int byte = 0; byte < 256; ++byte) {
        const char letter = static_cast<char>(byte);
        if (known.find(letter) == known.npos)
            refuses("\"\\" + std::string(1, letter) + "\"");
    }
}

TEST(JSONParseString, UnterminatedTextFails) {
    for (const char* text : {"\"", "\"a", "\"a\\", "\"a\\\"", "\"\\u", "\"\\u0", "\"\\u00", "\"\\u004", "\"\\u0041",
                             "\"\\uD83D", "\"\\uD83D\\", "\"\\uD83D\\u", "\"\\uD83D\\uDE0", "\"\\uD83D\\uDE00"}) {
        refuses(text);
        EXPECT_FALSE(readPrefix(text).document) << text;
    }
}

TEST(JSONParseString, UnicodeEscapes) {
    const std::pair<const char*, std::string> rows[] = {
        {R"("\u0041")", "A"},
        {R"("\u0001\u001f\u007F")", "\x01\x1F\x7F"},
        {R"("\u0080")", "\xC2\x80"},
        {R"("\u00e4\u00E4")", "\xC3\xA4\xC3\xA4"},
        {R"("\u07FF")", "\xDF\xBF"},
        {R"("\u0800")", "\xE0\xA0\x80"},
        {R"("\u20aC")", "\xE2\x82\xAC"},
        {R"("\uD7FF")", "\xED\x9F\xBF"},
        {R"("\uE000")", "\xEE\x80\x80"},
        {R"("\uFFFF")", "\xEF\xBF\xBF"},
        {R"("\u00412")", "A2"},
        {R"("x\u0041y\u0042z")", "xAyBz"},
    };
    for (const auto& [text, expected] : rows)
        EXPECT_EQ(expected, stringOf(text)) << text;
}

TEST(JSONParseString, UnicodeEscapeNeedsFourHexadecimalDigits) {
    for (const char* text :
         {R"("\u")", R"("\u1")", R"("\u12")", R"("\u123")", R"("\u123g")", R"("\u 123")", R"("\ug123")", R"("\u-123")",
          R"("\u+123")", R"("\u0x12")", R"("\U0041")", R"("\u12\u0034")"})
        refuses(text);
}

TEST(JSONParseString, UnitZeroFailsTheWholeParse) {
    for (const char* text :
         {R"("\u0000")", R"("a\u0000b")", R"(["a", "\u0000"])", R"({"\u0000":1})", R"({"a\u0000":1})"})
        refuses(text);
}

TEST(JSONParseString, SurrogatePairGivesFourBytes) {
    EXPECT_EQ("\xF0\x9F\x98\x80", stringOf(R"("\uD83D\uDE00")"));
    EXPECT_EQ("\xF0\x90\x80\x80", stringOf(R"("\uD800\uDC00")"));
    EXPECT_EQ("\xF4\x8F\xBF\xBF", stringOf(R"("\udbff\udfff")"));
    EXPECT_EQ("a\xF0\x9F\x98\x80z", stringOf(R"("a\uD83D\uDE00z")"));
}

TEST(JSONParseString, LoneHighSurrogateGivesAQuestionMark) {
    EXPECT_EQ("?", stringOf(R"("\uD83D")"));
    EXPECT_EQ("?x", stringOf(R"("\uD83Dx")"));
    EXPECT_EQ("?\n", stringOf(R"("\uD83D\n")"));
    EXPECT_EQ("?\\", stringOf(R"("\uD83D\\")"));
    EXPECT_EQ("?uDE00", stringOf(R"("\uD83DuDE00")"));
    EXPECT_EQ("? \xC3\xA4", stringOf(R"("\uD83D \u00e4")"));
}

TEST(JSONParseString, HighSurrogateBeforeABrokenEscapeFailsAtThatEscape) {
    refuses(R"("\uD83D\u12")");
    refuses(R"("\uD83D\uDE0g")");
    refuses(R"("\uD83D\x")");
}

TEST(JSONParseString, LoneLowSurrogateVanishes) {
    EXPECT_EQ("", stringOf(R"("\uDE00")"));
    EXPECT_EQ("ab", stringOf(R"("a\uDC00\uDFFFb")"));
    EXPECT_EQ("\xF0\x9F\x98\x80", stringOf(R"("\uD83D\uDE00\uDE00")"));
}

TEST(JSONParseString, HighSurrogateBeforeAnotherUnitVanishes) {
    EXPECT_EQ("A", stringOf(R"("\uD83D\u0041")"));
    EXPECT_EQ("\xE2\x82\xAC", stringOf(R"("\uD83D\u20AC")"));
}

// The second unit is used up with the first, so it cannot begin a pair of its own.
TEST(JSONParseString, TwoHighSurrogatesAreUsedUpTogether) {
    EXPECT_EQ("", stringOf(R"("\uD83D\uD83D")"));
    EXPECT_EQ("", stringOf(R"("\uD83D\uD83D\uDE00")"));
    EXPECT_EQ("\xF0\x9F\x98\x80", stringOf(R"("\uD83D\uD83D\uD83D\uDE00")"));
}

// The one way for a NUL byte into a parsed string: as the second unit, which is not looked at.
TEST(JSONParseString, SecondUnitOfZeroIsNotTested) {
    EXPECT_EQ("a\0b"s, stringOf(R"("a\uD83D\u0000b")"));
}

TEST(JSONParseString, CursorStopsAfterTheClosingQuote) {
    const std::pair<const char*, int> rows[] = {{R"("")", 2}, {R"("a"b)", 3}, {R"("\u0041""x")", 8}, {R"( "\"" )", 5}};
    for (const auto& [text, moved] : rows)
        EXPECT_EQ(moved, readPrefix(text).moved) << text;
}

TEST(JSONParseString, LongRuns) {
    const std::string run(100000, 'x');
    EXPECT_EQ(run + "\n" + run, stringOf("\"" + run + "\\n" + run + "\""));
}

// ---- Arrays

TEST(JSONParseArray, ReadsElementsInOrder) {
    accepts("[]", "[ ]");
    accepts("[ \t\r\n]", "[ ]");
    accepts("[1]", "[ 1 ]");
    accepts("[1,2,3]", "[ 1, 2, 3 ]");
    accepts("[[],[[]],{}]", "[ [ ], [ [ ] ], { } ]");
}

TEST(JSONParseArray, AnythingButCommasBetweenValuesFails) {
    for (const char* text : {"[1,]", "[,]", "[,1]", "[1,,2]", "[1 2]", "[1", "[1 ", "[1, ", "[1,\n", "[1}", "[}", "]",
                             "[x]", "[1,x]", "[\"a]", "[nul]", "[1:2]", "[1;2]"})
        refuses(text);
}

TEST(JSONParseArray, CommaBeforeTheBracketFails) {
    refuses("[1,]");
    EXPECT_FALSE(readPrefix("[1,]").document);
}

TEST(JSONParseArray, CutAfterTheBracketIsEmptyAndTheCursorOnePastTheTerminator) {
    for (const char* text : {"[", "[ ", "[\t\r\n ", "  ["}) {
        const Outcome outcome = readPrefix(text);
        EXPECT_EQ("[]", outcome.document) << shown(text);
        EXPECT_EQ(static_cast<std::ptrdiff_t>(std::strlen(text)) + 1, outcome.moved) << shown(text);
        accepts(text, "[ ]");
    }
}

TEST(JSONParseArray, CutAfterACommaKeepsWhatWasRead) {
    const std::pair<const char*, const char*> rows[] = {{"[1,", "[ 1 ]"},
                                                        {"[1, 2,", "[ 1, 2 ]"},
                                                        {"[ [ ] ,", "[ [ ] ]"},
                                                        {"[\"a\",", "[ \"a\" ]"},
                                                        {"[null,true,", "[ null, true ]"}};
    for (const auto& [text, expected] : rows) {
        EXPECT_EQ(static_cast<std::ptrdiff_t>(std::strlen(text)) + 1, readPrefix(text).moved) << text;
        accepts(text, expected);
    }
}

TEST(JSONParseArray, CutAfterACommaAndABlankFails) {
    for (const char* text : {"[1, ", "[1,\t", "[1,\n", "[1,\r"}) {
        refuses(text);
        EXPECT_FALSE(readPrefix(text).document) << shown(text);
    }
}

TEST(JSONParse, FailureNeverLeavesTheCursorBeyondTheTerminator) {
    for (const std::string_view text :
         {"[[", "[{", "{\"a\":[", "{\"a\":{", "[1,[2,", "[[1,", "[", "{\"a\":1,", "[1 ", ""}) {
        const ExactBuffer<char> buffer(text, true);
        const char* cursor = buffer.data();
        const bool failed = JSON::json_parse(cursor) == nullptr;
        EXPECT_LE(cursor, buffer.data() + text.size() + (failed ? 0 : 1)) << text;
    }
}

TEST(JSONParseArray, CursorStopsAfterTheBracket) {
    EXPECT_EQ(2, readPrefix("[] ").moved);
    EXPECT_EQ(8, readPrefix(" [ 1,2 ], 3").moved);
}

// ---- Objects

TEST(JSONParseObject, ReadsMembersOfEveryKind) {
    accepts("{}", "{ }");
    accepts("{ \t\r\n}", "{ }");
    accepts(R"({"a":1})", R"({ "a": 1 })");
    accepts(R"({"a":{"b":[{}]},"c":null})", R"({ "a": { "b": [ { } ] }, "c": null })");
}

TEST(JSONParseObject, AnythingButKeyColonValueFails) {
    for (const char* text : {R"({"a":1,})",
                             R"({,})",
                             R"({"a"})",
                             R"({"a":})",
                             R"({"a":1)",
                             R"({"a":1 )",
                             R"({"a":)",
                             R"({"a")",
                             R"({"a)",
                             R"({")",
                             R"({"a":1 "b":2})",
                             R"({"a":1,,"b":2})",
                             R"({a:1})",
                             R"({1:2})",
                             R"({null:1})",
                             R"({"a"=1})",
                             R"({"a"::1})",
                             R"({"a":x})",
                             R"({"a":1])",
                             R"({])",
                             R"({"a\q":1})",
                             R"({"a":1,x})",
                             R"({"a":1,"b"})",
                             R"({"a":1,"b":})",
                             "}"})
        refuses(text);
}

TEST(JSONParseObject, CommaBeforeTheBraceFails) {
    refuses(R"({"a":1,})");
    EXPECT_FALSE(readPrefix(R"({"a":1,})").document);
}

TEST(JSONParseObject, MembersComeInByteOrder) {
    accepts(R"({"b":1,"a":2})", R"({ "a": 2, "b": 1 })");
}

TEST(JSONParseObject, EmptyKeyIsRefused) {
    refuses(R"({"":1})");
    refuses(R"({"a":1,"":2})");
}

TEST(JSONParseObject, KeyOfALoneLowSurrogateIsEmptyAndRefused) {
    refuses(R"({"\uDE00":1})");
    accepts(R"({"\uD83D":1})", R"({ "?": 1 })");
}

TEST(JSONParseObject, KeysTakeEscapesLikeStrings) {
    accepts(R"({"\u0041\n\uD83D\uDE00":1})", "{ \"A\\n\xF0\x9F\x98\x80\": 1 }");
}

TEST(JSONParseObject, LastOfEqualKeysWins) {
    accepts(R"({"a":1,"a":2})", R"({ "a": 2 })");
    accepts(R"({"a":[1,[2]],"b":0,"a":{"x":1},"\u0061":3})", R"({ "a": 3, "b": 0 })");
}

TEST(JSONParseObject, FailureAfterEqualKeysFailsTheObject) {
    refuses(R"({"a":[1,2],"a":[3,x]})");
}

TEST(JSONParseObject, CutAfterTheBraceIsEmptyAndTheCursorOnePastTheTerminator) {
    for (const char* text : {"{", "{ ", "{\t\r\n ", "  {"}) {
        const Outcome outcome = readPrefix(text);
        EXPECT_EQ("{}", outcome.document) << shown(text);
        EXPECT_EQ(static_cast<std::ptrdiff_t>(std::strlen(text)) + 1, outcome.moved) << shown(text);
        accepts(text, "{ }");
    }
}

TEST(JSONParseObject, CutAfterACommaKeepsWhatWasRead) {
    const std::pair<const char*, const char*> rows[] = {{R"({"a":1,)", R"({ "a": 1 })"},
                                                        {R"({"b":[1] , "a":2,)", R"({ "a": 2, "b": [ 1 ] })"}};
    for (const auto& [text, expected] : rows) {
        EXPECT_EQ(static_cast<std::ptrdiff_t>(std::strlen(text)) + 1, readPrefix(text).moved) << text;
        accepts(text, expected);
    }
}

TEST(JSONParseObject, CutAfterACommaAndABlankFails) {
    for (const char* text : {"{\"a\":1, ", "{\"a\":1,\t", "{\"a\":1,\n"}) {
        refuses(text);
        EXPECT_FALSE(readPrefix(text).document) << shown(text);
    }
}

TEST(JSONParseObject, CursorStopsAfterTheBrace) {
    EXPECT_EQ(2, readPrefix("{} ").moved);
    EXPECT_EQ(10, readPrefix(R"( { "a":1 }, 3)").moved);
}

// ---- After the terminator

// In the system's own strings, a byte after an embedded NUL counts as it stands once the cursor has passed that NUL.
TEST(JSONParseTruncated, CheckReadsOnAfterAnEmbeddedNUL) {
    accepts("[1,\0"s, "[ 1 ]");
    accepts("[1,\0\0x"s, "[ 1 ]");
    accepts("[1,\0 \t\r\n"s, "[ 1 ]");
    accepts("[1,\0 \0x"s, "[ 1 ]");
    accepts("{\0 "s, "{ }");
    refuses("[1,\0x"s);
    refuses("[1,\0 x"s);
    refuses("[\0]"s);
    refuses("{\"a\":1,\0}"s);
}

TEST(JSONParseTruncated, OuterContainerGoesOnAfterAnEmbeddedNUL) {
    accepts("[[1,\0]"s, "[ [ 1 ] ]");
    accepts("[[\0,2]"s, "[ [ ], 2 ]");
    accepts("{\"a\":[ \0, \"b\":{\0}"s, R"({ "a": [ ], "b": { } })");
    accepts("[[1,\0,"s, "[ [ 1 ] ]");
    accepts("[[[1,\0,\0]"s, "[ [ [ 1 ] ] ]");
    refuses("[[1,\0"s);
    refuses("[[1,\0\0]"s);
}

TEST(JSONParseTruncated, OuterContainerFindsNothingAfterTheText) {
    for (const char* text : {"[[", "[[1,", "[{", "{\"a\":[", "{\"a\":{", "{\"a\":[1,", "[1,[", "[[[[", "[{\"a\":1,"}) {
        refuses(text);
        EXPECT_FALSE(readPrefix(text).document) << text;
    }
}

// Bytes that an earlier, longer content left behind the string's end are no part of the text.
TEST(JSONParseTruncated, LeftoversAfterTheStringsEndCountAsNUL) {
    for (const std::size_t padding : {0u, 100u}) {
        const auto cut = [padding](const std::string& text, std::size_t length) {
            std::string longer = std::string(padding, ' ') + text;
            longer.resize(padding + length);
            return JSON::parse(longer);
        };
        EXPECT_NE(nullptr, cut("[1,?x", 3));
        EXPECT_NE(nullptr, cut("[?x", 1));
        EXPECT_NE(nullptr, cut("{?x", 1));
        EXPECT_NE(nullptr, cut("{\"a\":1,?x", 7));
        EXPECT_EQ(nullptr, cut("[[1,?]", 4));
        EXPECT_EQ(nullptr, cut("[[?]", 2));
        EXPECT_EQ(nullptr, cut("{\"a\":{?}", 6));
    }
}

// On plain C text nothing is known of what lies after the terminator, so it is not looked at.
TEST(JSONParseTruncated, CTextEndsAtItsTerminator) {
    EXPECT_FALSE(readPrefix("[[1,\0]"s).document);
    EXPECT_FALSE(readPrefix("[[\0]"s).document);
    EXPECT_FALSE(readPrefix("[[1,\0,2]"s).document);
    EXPECT_FALSE(readPrefix("{\"a\":[\0}"s).document);
    const Outcome outcome = readPrefix("[1,\0]"s);
    EXPECT_EQ("[" + canonicalNumber(1) + "]", outcome.document);
    EXPECT_EQ(4, outcome.moved);
}

TEST(JSONParse, ReadsSeveralValuesFromOneText) {
    const ExactBuffer<char> buffer("1 \"two\" [3]{}nulltrue", true);
    const char* cursor = buffer.data();
    std::string found;
    while (const JSON::root value = JSON::json_parse(cursor))
        found += oneLine(*value) + ";";
    EXPECT_EQ("1;\"two\";[ 3 ];{ };null;true;", found);
    EXPECT_EQ(buffer.data() + buffer.size(), cursor);
}

// ---- A second reader

namespace {

// readsAlike compares both entrances of the parser with the naive reader. The whole text is given as it is; json_parse
// gets it as C text, which its first NUL ends.
void readsAlike(const std::string& text) {
    ASSERT_EQ(NaiveReader(text).whole(), readWhole(text)) << shown(text);
    const std::string cText = text.c_str();
    NaiveReader naive(cText);
    const std::optional<std::string> expected = naive.value();
    const Outcome found = readPrefix(cText);
    ASSERT_EQ(expected, found.document) << shown(cText);
    if (expected) {
        ASSERT_EQ(naive.position(), static_cast<std::size_t>(found.moved)) << shown(cText);
    }
}

std::string randomBytes(Random& random, std::size_t most, bool withNUL) {
    std::string out;
    for (std::size_t left = random() % (most + 1); left > 0; --left)
        out += static_cast<char>(random() % 3 ? 32 + random() % 95 : withNUL ? random() % 256 : 1 + random() % 255);
    return out;
}

double randomShortNumber(Random& random) {
    const std::string text = std::to_string(static_cast<std::int64_t>(random()) % 1000000000000000) + "e" +
                             std::to_string(static_cast<int>(random() % 580) - 300);
    return std::strtod(text.c_str(), nullptr);
}

JSON::root randomTree(Random& random, int depth) {
    switch (random() % (depth > 0 ? 8 : 5)) {
    case 0:
        return JSON::Null();
    case 1:
        return JSON::Boolean(random() % 2 == 0);
    case 2:
        return JSON::Number(randomShortNumber(random));
    case 3:
        return JSON::Number(static_cast<double>(static_cast<int>(random() % 2000) - 1000));
    case 4:
        return JSON::String(randomBytes(random, 20, false));
    case 5:
    case 6: {
        JSON::root array = JSON::Array();
        for (std::size_t left = random() % 5; left > 0; --left)
            array->push(randomTree(random, depth - 1));
        return array;
    }
    default: {
        JSON::root object = JSON::Object();
        for (std::size_t left = random() % 5; left > 0; --left)
            object->set("k" + randomBytes(random, 4, false), randomTree(random, depth - 1));
        return object;
    }
    }
}

std::string printed(const JSON& value, int indent) {
    std::string out;
    value.stringify(out, indent);
    return out;
}

// mutated changes a few places of `text`: bytes replaced, inserted, removed, or the end cut off.
std::string mutated(std::string text, Random& random) {
    constexpr std::string_view Interesting = "\0\0[]{},:\"\\u/ \t\n-+.eE0129xnafltrDdp\x1F\x7F\x80\xFF"sv;
    for (std::size_t left = 1 + random() % 3; left > 0; --left) {
        const std::size_t place = random() % (text.size() + 1);
        const std::string letter(1, random() % 8 ? Interesting[random() % Interesting.size()]
                                                 : static_cast<char>(random()));
        switch (random() % 5) {
        case 0:
            text.insert(place, letter);
            break;
        case 1:
            text.resize(place);
            break;
        case 2:
            text.erase(place, 1 + random() % 3);
            break;
        default:
            if (place < text.size())
                text.replace(place, 1, letter);
        }
    }
    return text;
}

}  // namespace

TEST(JSONParseRandom, NaiveReaderKnowsTheLanguage) {
    EXPECT_EQ("[n]", NaiveReader("[null,").whole());
    EXPECT_EQ("{s1:ab1}", NaiveReader(R"( { "a" : true } )").whole());
    EXPECT_EQ("s5:?\n\xE2\x82\xAC", NaiveReader(R"("\uD83D\n\u20ac")").whole());
    EXPECT_FALSE(NaiveReader("[1, ").whole());
    EXPECT_FALSE(NaiveReader(R"({"":1})").whole());
}

TEST(JSONParseRandom, PrintedTreesParseBackEqualInBothLayouts) {
    Random random(400);
    for (int count = 0; count < 20000; ++count) {
        const JSON::root tree = randomTree(random, 4);
        const std::string expected = canonical(*tree);
        for (const int indent : {-1, 0}) {
            const std::string text = printed(*tree, indent);
            ASSERT_EQ(expected, readWhole(text)) << shown(text);
        }
        ASSERT_EQ(expected, canonical(*tree->dup()));
    }
}

TEST(JSONParseRandom, RandomBytesReadAlike) {
    Random random(401);
    for (int count = 0; count < 100000; ++count)
        ASSERT_NO_FATAL_FAILURE(readsAlike(randomBytes(random, 24, true)));
}

TEST(JSONParseRandom, RandomTokensReadAlike) {
    Random random(402);
    for (int count = 0; count < 100000; ++count) {
        std::string text;
        for (std::size_t left = random() % 12; left > 0; --left)
            text += pick(random,
                         {"[",    "[",    "]",     "{", "}",  ",",    ":",  "\"a\"", "\"b\":",  "\"\"", "1",  "-2.5e3",
                          "null", "true", "false", " ", "\n", "\0"sv, "\"", "\\",    "{\"a\":", "[1,",  "0x", "-"});
        ASSERT_NO_FATAL_FAILURE(readsAlike(text));
    }
}

TEST(JSONParseRandom, RandomStringTokensReadAlike) {
    Random random(403);
    for (int count = 0; count < 60000; ++count) {
        std::string text = "\"";
        for (std::size_t left = random() % 6; left > 0; --left)
            text += pick(random, {"a",        "bc",    "\\u0041", "\\u00e4", "\\uD83D", "\\uDE00", "\\uDBFF", "\\uDC00",
                                  "\\uffff",  "\\u12", "\\n",     "\\/",     "\\\\",    "\\\"",    "u",       "\\",
                                  "\xC3\xA4", "\x80",  "\\x",     "\t",      "\\u0800", "\\ud7fF"});
        ASSERT_NO_FATAL_FAILURE(readsAlike(text + pick(random, {"\"", "\"", "\"", "", "\"x"})));
    }
}

TEST(JSONParseRandom, MutatedDocumentsReadAlike) {
    Random random(404);
    for (int count = 0; count < 60000; ++count) {
        const JSON::root tree = randomTree(random, 3);
        const std::string text = printed(*tree, random() % 2 ? -1 : 0);
        ASSERT_NO_FATAL_FAILURE(readsAlike(mutated(text, random)));
    }
}
