// Tests of the JSON serialiser: both layouts, every escape, and numbers against the C library's own "%.16g".
#include <gtest/gtest.h>

#include <bit>
#include <cstdint>
#include <cstdio>
#include <iterator>
#include <limits>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "foundation/json.h"
#include "unit/exact_buffer.h"

using namespace std::string_literals;

namespace {

std::string printed(const JSON& value, int indent) {
    std::string out;
    value.stringify(out, indent);
    return out;
}

std::string escaped(std::string_view text) {
    const ExactBuffer<char> buffer(text, true);
    std::string out;
    JSON::escapeString(out, buffer.data());
    return out;
}

std::string withSixteenDigits(double number) {
    char text[64];
    std::snprintf(text, sizeof text, "%.16g", number);
    return text;
}

JSON::root parsed(const std::string& text) {
    JSON::root value = JSON::parse(text);
    EXPECT_NE(nullptr, value) << text;
    return value ? std::move(value) : JSON::Null();
}

}  // namespace

// ---- Tabs

TEST(JSONIndent, AppendsThatManyTabs) {
    std::string out = "x";
    JSON::indent(out, 0);
    EXPECT_EQ("x", out);
    JSON::indent(out, 1);
    EXPECT_EQ("x\t", out);
    JSON::indent(out, 3);
    EXPECT_EQ("x\t\t\t\t", out);
    JSON::indent(out, 5000);
    EXPECT_EQ("x" + std::string(5004, '\t'), out);
}

// ---- Scalars

TEST(JSONPrint, ScalarsIgnoreTheIndent) {
    for (int indent : {-2147483647 - 1, -2, -1, 0, 1, 7}) {
        EXPECT_EQ("null", printed(*JSON::Null(), indent));
        EXPECT_EQ("true", printed(*JSON::Boolean(true), indent));
        EXPECT_EQ("false", printed(*JSON::Boolean(false), indent));
        EXPECT_EQ("12.5", printed(*JSON::Number(12.5), indent));
        EXPECT_EQ("\"a\"", printed(*JSON::String("a"), indent));
    }
}

TEST(JSONPrint, AppendsToWhatIsThere) {
    const JSON::root document = parsed(R"({"a":[1,"x",null,true,{}]})");
    for (int indent : {-1, 0, 2})
        for (const JSON* value : std::vector<const JSON*>{document.get(), document->get("a"), document->get("a")->at(0),
                                                          document->get("a")->at(1), document->get("a")->at(2),
                                                          document->get("a")->at(3), document->get("a")->at(4)}) {
            std::string out = "before ";
            value->stringify(out, indent);
            EXPECT_EQ("before " + printed(*value, indent), out);
        }
}

// ---- Numbers

TEST(JSONPrintNumber, HundredATenthAndAHugeOne) {
    EXPECT_EQ("100", printed(*JSON::Number(100), 0));
    EXPECT_EQ("0.1", printed(*JSON::Number(0.1), 0));
    EXPECT_EQ("1e+300", printed(*JSON::Number(1e300), 0));
}

TEST(JSONPrintNumber, SixteenSignificantDigits) {
    const std::pair<double, const char*> rows[] = {
        {0.0, "0"},
        {-0.0, "-0"},
        {-1, "-1"},
        {9999999999999998.0, "9999999999999998"},
        {1234567890123456.0, "1234567890123456"},
        {1e15, "1000000000000000"},
        {1e16, "1e+16"},
        {12345678901234567.0, "1.234567890123457e+16"},
        {1.0 / 3.0, "0.3333333333333333"},
        {2.0 / 3.0, "0.6666666666666666"},
        {0.1 + 0.2, "0.3"},
        {0.0001, "0.0001"},
        {0.00001, "1e-05"},
        {std::numeric_limits<double>::max(), "1.797693134862316e+308"},
        {std::numeric_limits<double>::min(), "2.225073858507201e-308"},
        {std::numeric_limits<double>::denorm_min(), "4.940656458412465e-324"},
    };
    for (const auto& [number, expected] : rows) {
        EXPECT_EQ(expected, printed(*JSON::Number(number), -1));
        EXPECT_EQ(expected, JSON::Number(number)->toString());
    }
}

TEST(JSONPrintNumber, NotANumberAndInfinitiesAreNotFiltered) {
    const double infinity = std::numeric_limits<double>::infinity();
    const double negativeNaN = std::bit_cast<double>(std::uint64_t{0xFFF8000000000000});
    const std::pair<double, const char*> rows[] = {
        {double{JSON::NaN}, "nan"}, {negativeNaN, "-nan"}, {infinity, "inf"}, {-infinity, "-inf"}};
    for (const auto& [number, expected] : rows) {
        EXPECT_EQ(expected, printed(*JSON::Number(number), 0));
        EXPECT_EQ(expected, JSON::Number(number)->toString());
        EXPECT_EQ(withSixteenDigits(number), printed(*JSON::Number(number), 0));
    }
}

TEST(JSONPrintNumber, EqualsTheLibrarysTextForRandomBitPatterns) {
    std::mt19937_64 random(20240611);
    for (int count = 0; count < 100000; ++count) {
        const std::uint64_t bits = random();
        const double number = std::bit_cast<double>(bits);
        ASSERT_EQ(withSixteenDigits(number), printed(*JSON::Number(number), -1)) << std::hex << bits;
    }
}

TEST(JSONPrintNumber, EqualsTheLibrarysTextForNumbersOfDailyUse) {
    std::mt19937_64 random(7);
    for (int count = 0; count < 50000; ++count) {
        const double whole = static_cast<double>(static_cast<std::int64_t>(random()) >> (random() % 64));
        const double divisors[] = {1, 10, 100, 1000, 8, 3, 7};
        const double number = whole / divisors[random() % std::size(divisors)];
        ASSERT_EQ(withSixteenDigits(number), JSON::Number(number)->toString());
    }
}

// ---- Strings

TEST(JSONEscape, EscapesQuoteBackslashAndControlBytesOnly) {
    for (int byte = 1; byte < 256; ++byte) {
        char expected[16];
        std::snprintf(expected, sizeof expected, byte < 32 ? "\"\\u%04X\"" : "\"%c\"", byte);
        std::string text = expected;
        const std::pair<int, const char*> named[] = {{34, R"("\"")"}, {92, R"("\\")"}, {8, R"("\b")"}, {12, R"("\f")"},
                                                     {10, R"("\n")"}, {13, R"("\r")"}, {9, R"("\t")"}};
        for (const auto& [code, form] : named)
            if (code == byte)
                text = form;
        EXPECT_EQ(text, escaped(std::string(1, static_cast<char>(byte)))) << byte;
    }
}

TEST(JSONEscape, ByteThirtyOneInUpperCaseHexadecimalAndDeleteRaw) {
    EXPECT_EQ(R"("\u001F")", escaped("\x1F"));
    EXPECT_EQ("\"\x7F\"", escaped("\x7F"));
    EXPECT_EQ(R"("\u001F")", printed(*JSON::String("\x1F"), 0));
    EXPECT_EQ("\"\x7F\"", printed(*JSON::String("\x7F"), 0));
}

TEST(JSONEscape, SlashAndHighBytesGoOutUnchanged) {
    EXPECT_EQ("\"/\xC3\xA4\x80\xFF\"", escaped("/\xC3\xA4\x80\xFF"));
}

TEST(JSONEscape, EscapedSlashIsWrittenBackWithoutTheBackslash) {
    EXPECT_EQ(R"("a/b")", printed(*parsed(R"("a\/b")"), 0));
}

// Short strings are looked at in words of several sizes, the last of which overlaps the one before.
TEST(JSONEscape, EveryByteCountsAtEveryPlaceOfAShortString) {
    for (std::size_t length = 1; length <= 70; ++length) {
        for (std::size_t place = 0; place < length; ++place) {
            const std::string before(place, '!');
            const std::string after(length - place - 1, '\x80');
            for (const auto& [raw, written] : {std::pair{'"', "\\\""},
                                               {'\\', "\\\\"},
                                               {'\x1F', "\\u001F"},
                                               {'\x01', "\\u0001"},
                                               {' ', " "},
                                               {'#', "#"},
                                               {'\xFF', "\xFF"}})
                EXPECT_EQ('"' + before + written + after + '"', escaped(before + raw + after)) << length;
        }
    }
}

TEST(JSONEscape, RunsBetweenEscapes) {
    EXPECT_EQ("\"\"", escaped(""));
    EXPECT_EQ(R"("\"\"")", escaped("\"\""));
    EXPECT_EQ(R"("\nabc")", escaped("\nabc"));
    EXPECT_EQ(R"("abc\n")", escaped("abc\n"));
    EXPECT_EQ(R"("ab\"\\cd\u0001\u0002ef")", escaped("ab\"\\cd\x01\x02"
                                                     "ef"));
    const std::string run(100000, 'x');
    EXPECT_EQ("\"" + run + "\\t" + run + "\"", escaped(run + "\t" + run));
}

// Short texts, long ones and those that meet the end of the printer's block take different ways.
TEST(JSONEscape, QuoteAtAnyPlaceOfATextOfAnyLengthIsEscaped) {
    for (const std::size_t length : {1, 7, 8, 15, 16, 17, 31, 32, 33, 255, 256, 257, 300}) {
        for (std::size_t place = 0; place < length; ++place) {
            std::string text(length, 'x');
            text[place] = '"';
            const std::string inside = std::string(place, 'x') + "\\\"" + std::string(length - place - 1, 'x');
            EXPECT_EQ("\"" + inside + "\"", printed(*JSON::String(text), -1)) << length << " " << place;
        }
    }
}

TEST(JSONEscape, TextsOfAnyLengthInARowAreWhole) {
    for (std::size_t length = 0; length <= 300; ++length) {
        JSONArray array;
        std::string expected;
        for (int count = 0; count < 40; ++count) {
            array.push(JSON::String(std::string(length, 'y')));
            expected += (count == 0 ? "[ \"" : ", \"") + std::string(length, 'y') + "\"";
        }
        EXPECT_EQ(expected + " ]", printed(array, -1)) << length;
    }
}

TEST(JSONEscape, EndsAtTheFirstNUL) {
    EXPECT_EQ("\"ab\"", escaped("ab\0cd"s));
}

TEST(JSONEscape, AppendsToWhatIsThere) {
    std::string out = "key ";
    JSON::escapeString(out, "a");
    JSON::escapeString(out, "b");
    EXPECT_EQ("key \"a\"\"b\"", out);
}

TEST(JSONPrintString, IsCutAtAnEmbeddedNUL) {
    EXPECT_EQ("\"ab\"", printed(*JSON::String("ab\0cd"s), 0));
    EXPECT_EQ("\"\"", printed(*JSON::String("\0x"s), -1));
}

TEST(JSONPrintString, KeysAreEscapedAndCutLikeStrings) {
    const JSON::root object = JSON::Object();
    object->set("", JSON::Number(0));
    object->set("a\0b"s, JSON::Number(1));
    object->set("q\"\n\x1F\x80", JSON::Number(2));
    EXPECT_EQ("{ \"\": 0, \"a\": 1, \"q\\\"\\n\\u001F\x80\": 2 }", printed(*object, -1));
    EXPECT_EQ("{\n\t\"\": 0,\n\t\"a\": 1,\n\t\"q\\\"\\n\\u001F\x80\": 2\n}", printed(*object, 0));
}

// ---- Containers

TEST(JSONPrintContainer, EmptyOnesLookTheSameAtEveryIndent) {
    for (int indent : {-2147483647 - 1, -5, -1, 0, 1, 9}) {
        EXPECT_EQ("[ ]", printed(*JSON::Array(), indent));
        EXPECT_EQ("{ }", printed(*JSON::Object(), indent));
    }
}

TEST(JSONPrintContainer, TheWorkedExample) {
    const JSON::root document = parsed(R"({"b":{},"a":[1,2]})");
    EXPECT_EQ("{\n\t\"a\": [\n\t\t1,\n\t\t2\n\t],\n\t\"b\": { }\n}", printed(*document, 0));
    EXPECT_EQ(R"({ "a": [ 1, 2 ], "b": { } })", printed(*document, -1));
}

TEST(JSONPrintContainer, OneElementEach) {
    EXPECT_EQ("[ 1 ]", printed(*parsed("[1]"), -1));
    EXPECT_EQ("[\n\t1\n]", printed(*parsed("[1]"), 0));
    EXPECT_EQ("{ \"a\": 1 }", printed(*parsed(R"({"a":1})"), -1));
    EXPECT_EQ("{\n\t\"a\": 1\n}", printed(*parsed(R"({"a":1})"), 0));
}

TEST(JSONPrintContainer, EveryNegativeIndentIsTheSingleLine) {
    const JSON::root document = parsed(R"([1,[2,{"a":[3,{}]}],[]])");
    const std::string expected = R"([ 1, [ 2, { "a": [ 3, { } ] } ], [ ] ])";
    for (int indent : {-1, -2, -100, -2147483647 - 1})
        EXPECT_EQ(expected, printed(*document, indent));
}

TEST(JSONPrintContainer, NestedOnesIndentFurther) {
    EXPECT_EQ("[\n"
              "\t[\n"
              "\t\t1\n"
              "\t],\n"
              "\t[ ],\n"
              "\t{\n"
              "\t\t\"a\": {\n"
              "\t\t\t\"b\": [\n"
              "\t\t\t\tnull,\n"
              "\t\t\t\ttrue\n"
              "\t\t\t]\n"
              "\t\t},\n"
              "\t\t\"c\": \"x\"\n"
              "\t}\n"
              "]",
              printed(*parsed(R"([[1],[],{"a":{"b":[null,true]},"c":"x"}])"), 0));
}

TEST(JSONPrintContainer, StartsAtTheGivenDepth) {
    EXPECT_EQ("[\n\t\t\t\t1,\n\t\t\t\t{\n\t\t\t\t\t\"a\": 2\n\t\t\t\t}\n\t\t\t]",
              printed(*parsed(R"([1,{"a":2}])"), 3));
    EXPECT_EQ("{\n\t\t\"a\": [\n\t\t\t1\n\t\t]\n\t}", printed(*parsed(R"({"a":[1]})"), 1));
}

TEST(JSONPrintContainer, MembersComeInByteOrderNotInTheOrderOfInsertion) {
    EXPECT_EQ(R"({ "a": 2, "b": 1 })", printed(*parsed(R"({"b":1,"a":2})"), -1));
    EXPECT_EQ("{ \"0\": 4, \"Z\": 1, \"a\": 2, \"aa\": 3, \"\xC3\xA4\": 5 }",
              printed(*parsed("{\"\xC3\xA4\":5,\"aa\":3,\"a\":2,\"Z\":1,\"0\":4}"), -1));
}

TEST(JSONPrintContainer, PrintingChangesNothing) {
    const JSON::root document = parsed(R"({"a":[1,{"b":[]}]})");
    const std::string first = printed(*document, 0);
    EXPECT_EQ(first, printed(*document, 0));
    EXPECT_EQ(R"({ "a": [ 1, { "b": [ ] } ] })", printed(*document, -1));
}
