// string_utils_test.cpp: the byte-based text helpers of foundation/string_utils.h.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <type_traits>
#include <utility>
#include <vector>

#include "foundation/string_utils.h"
#include "unit/foundation/whitespace_model.h"

namespace {

using namespace std::string_literals;

// ---- Case ----

// LatinFacet maps a few bytes in its own way: 0xE9 and 0xC9 are a pair, 0xB5 has an upper form but is no lower form of
// it.
class LatinFacet : public std::ctype<char> {
protected:
    char do_toupper(char c) const override {
        return c == '\xE9' ? '\xC9' : c == '\xB5' ? 'M' : std::ctype<char>::do_toupper(c);
    }
    char do_tolower(char c) const override { return c == '\xC9' ? '\xE9' : std::ctype<char>::do_tolower(c); }
    const char* do_toupper(char* begin, const char* end) const override {
        for (; begin != end; ++begin)
            *begin = do_toupper(*begin);
        return end;
    }
    const char* do_tolower(char* begin, const char* end) const override {
        for (; begin != end; ++begin)
            *begin = do_tolower(*begin);
        return end;
    }
};

const std::locale CLASSIC = std::locale::classic();
const std::locale LATIN(std::locale::classic(), new LatinFacet);

TEST(StringCase, ConvertsByteByByteThroughTheFacet) {
    EXPECT_EQ("", toupper("", CLASSIC));
    EXPECT_EQ("", tolower("", CLASSIC));
    EXPECT_EQ("AZAZ09[`{", toupper("azAZ09[`{", CLASSIC));
    EXPECT_EQ("azaz09[`{", tolower("azAZ09[`{", CLASSIC));
    EXPECT_EQ("A\0B"s, toupper("a\0b"s, CLASSIC));
    EXPECT_EQ("a\0b"s, tolower("A\0B"s, CLASSIC));
    EXPECT_EQ("\xC3\xA9", toupper("\xC3\xA9", CLASSIC));  // bytes of UTF-8 are left alone
    EXPECT_EQ("\xC3\x89", tolower("\xC3\x89", CLASSIC));
    EXPECT_EQ("X\xC9\xC9M", toupper("x\xE9\xC9\xB5", LATIN));
    EXPECT_EQ("x\xE9\xE9\xB5", tolower("X\xE9\xC9\xB5", LATIN));
}

TEST(StringCase, ComparesAfterConvertingBothSides) {
    const struct {
        std::string left, right;
        const std::locale& locale;
        bool bUp, bLow;
    } rows[] = {
        {"", "", CLASSIC, true, true},           {"Content-Type", "cONTENT-tYPE", CLASSIC, true, true},
        {"abc", "abd", CLASSIC, false, false},   {"abc", "ab", CLASSIC, false, false},
        {"ab", "abc", CLASSIC, false, false},    {"", "a", CLASSIC, false, false},
        {"a\0B"s, "A\0b"s, CLASSIC, true, true}, {"a\0b"s, "a\0c"s, CLASSIC, false, false},
        {"[", "{", CLASSIC, false, false},  // 32 apart but no letters
        {"\xE9", "\xC9", CLASSIC, false, false}, {"\xE9", "\xC9", LATIN, true, true},
        {"\xB5", "m", LATIN, true, false},  // equal in upper case only
        {"M", "\xB5", LATIN, true, false},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.bUp, equalsUpCase(row.left, row.right, row.locale)) << row.left << " and " << row.right;
        EXPECT_EQ(row.bLow, equalsLowCase(row.left, row.right, row.locale)) << row.left << " and " << row.right;
    }
}

TEST(StringCase, ComparisonObjectIsMadeFromALocale) {
    EXPECT_TRUE((std::is_constructible_v<StringCompareNoCase, const std::locale&>));
    const StringCompareNoCase compare(CLASSIC);
    EXPECT_FALSE(compare("Word", "wORD"));
    EXPECT_TRUE(compare("abc", "ABD"));
    EXPECT_FALSE(compare("ABD", "abc"));
}

// ---- Whitespace ----

TEST(StringWhitespace, IsAByteOf32OrBelow) {
    for (int byte = 0; byte < 256; ++byte) {
        const std::string text(1, static_cast<char>(byte));
        EXPECT_EQ(byte <= 32, isWhiteSpace(text)) << byte;
        EXPECT_EQ(byte <= 32 ? "" : text, trim(text)) << byte;
        EXPECT_EQ(byte <= 32 ? "" : text, trimNL(text)) << byte;
        EXPECT_EQ(byte <= 32 ? "" : text, trimAndStrip(text)) << byte;
    }
    EXPECT_TRUE(isWhiteSpace(""));
    EXPECT_TRUE(isWhiteSpace(" \t\r\n\0\x1F "s));
    EXPECT_FALSE(isWhiteSpace("   x"));
    EXPECT_FALSE(isWhiteSpace("x   "));
    EXPECT_FALSE(isWhiteSpace(" \xA0 "));
}

TEST(StringWhitespace, TrimCutsBothEnds) {
    const struct {
        std::string text, expected;
    } rows[] = {
        {"", ""},
        {"   ", ""},
        {"\t\r\n\0"s, ""},
        {"a", "a"},
        {"  a b  ", "a b"},
        {"a  ", "a"},
        {"  a", "a"},
        {"\0a\0b\0"s, "a\0b"s},
        {"\x01\x1F\x7F\x1F\x01", "\x7F"},
        {" \xC3\xA9 ", "\xC3\xA9"},
        {"\x80 \xFF", "\x80 \xFF"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(row.expected, trim(row.text)) << testing::PrintToString(row.text);
}

TEST(StringWhitespace, TrimNLCutsBlankLinesInFrontButKeepsTheIndentation) {
    const struct {
        std::string text, expected;
    } rows[] = {
        {"", ""},
        {"  \n \r\n ", ""},
        {"word", "word"},
        {"  word  ", "  word"},  // no line end in front: nothing is cut there
        {"\t\0word"s, "\t\0word"s},
        {"\n  word   ", "  word"},  // a blank line, two blanks and a word, then spaces
        {"   \n  word   ", "  word"},
        {"\nword", "word"},
        {"\rword", "word"},
        {"\r\n\tword\r\n", "\tword"},
        {" \r \n \r word", " word"},  // behind the last of either
        {" \n \r \n  word", "  word"},
        {"\n \0 word"s, " \0 word"s},
        {"  one\n\n  two\n", "  one\n\n  two"},  // line ends further in stay
        {"\n\n  one\n  two  ", "  one\n  two"},
        {"\n \xC2\xA0x", " \xC2\xA0x"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(row.expected, trimNL(row.text)) << testing::PrintToString(row.text);
}

TEST(StringWhitespace, TrimAndStripLeavesSingleBlanks) {
    const struct {
        std::string text, expected;
    } rows[] = {
        {"", ""},
        {" \t\n", ""},
        {"a", "a"},
        {"a b", "a b"},
        {"a\tb", "a b"},
        {"one\t\n two \r\n\r\nthree", "one two three"},
        {"  one  two  ", "one two"},
        {"\n\none", "one"},
        {"one\0\0two\0"s, "one two"},
        {"\xC3\xA9 \x85\xA0 x", "\xC3\xA9 \x85\xA0 x"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(row.expected, trimAndStrip(row.text)) << testing::PrintToString(row.text);
}

TEST(StringWhitespace, RandomTextFollowsTheModels) {
    static const std::string BYTES = "ab \t\r\n\0\x1F\x21\x7F\x80\xA0\xFF  \n"s;
    std::mt19937 random(61101);
    for (int i = 0; i < 100000 && !HasFailure(); ++i) {
        std::string text(random() % 14, ' ');
        for (char& byte : text)
            byte = BYTES[random() % BYTES.size()];
        const std::string trace = testing::PrintToString(text);
        EXPECT_EQ(modelTrim(text), trim(text)) << trace;
        EXPECT_EQ(modelTrimNL(text), trimNL(text)) << trace;
        EXPECT_EQ(modelTrimAndStrip(text), trimAndStrip(text)) << trace;
        EXPECT_EQ(modelTrim(text).empty(), isWhiteSpace(text)) << trace;
    }
}

// ---- truncateUTF8 ----

TEST(TruncateUTF8, LimitsTheCodePoints) {
    const struct {
        std::string text;
        int max;
        const char* suffix;
        std::string expected;
    } rows[] = {
        {"", 0, "...", ""},
        {"", 5, "...", ""},
        {"abc", 2, "...", "ab..."},
        {"ab", 2, "...", "ab"},  // just fits: no suffix
        {"abc", 3, "...", "abc"},
        {"abc", 100, "...", "abc"},
        {"abc", std::numeric_limits<int>::max(), "...", "abc"},
        {"abc", 2, nullptr, "ab"},
        {"abc", 2, "", "ab"},
        {"abc", 0, "...", "..."},  // only the suffix
        {"abc", 0, nullptr, ""},
        {"\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80", 1, "+", "\xC3\xA9+"},
        {"\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80", 2, "+", "\xC3\xA9\xE2\x82\xAC+"},
        {"\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80", 3, "+", "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"},
        {"abc", 2, "\xE2\x80\xA6", "ab\xE2\x80\xA6"},
        {"abc", 2, "a long suffix is not counted", "aba long suffix is not counted"},
        {"a\x80\x80\x80z", 1, "+", "a\x80\x80\x80+"},  // stray continuation bytes are not counted
        {"\xFF\xFE\xC3z", 2, "+", "\xFF\xFE+"},        // bad lead bytes are
        {"ab\0cdefgh"s, 2, "+", "ab\0cdefgh"s},        // the first NUL ends the count
        {"ab\0cdefgh"s, 5, "+", "ab\0cdefgh"s},
        {"ab\0cdefgh"s, 1, "+", "a+"},
        {"\0abc"s, 0, "+", "\0abc"s},
        {"abc", -1, "...", "abc"},  // the count never gets there
        {"abc", std::numeric_limits<int>::min(), "...", "abc"},
        {"", -1, "...", ""},
    };
    for (const auto& row : rows) {
        const std::string constant = row.text;
        std::string moved = row.text;
        EXPECT_EQ(row.expected, truncateUTF8(constant, row.max, row.suffix))
            << testing::PrintToString(row.text) << row.max;
        EXPECT_EQ(row.expected, truncateUTF8(std::move(moved), row.max, row.suffix))
            << testing::PrintToString(row.text) << row.max;
        EXPECT_EQ(row.text, constant);
    }
}

TEST(TruncateUTF8, LongTextsAndBothFormsAgree) {
    std::string text;
    for (int i = 0; i < 500; ++i)
        text += "\xE2\x82\xAC";
    for (int max : {0, 1, 7, 499, 500, 501}) {
        const std::string expected = max >= 500 ? text : text.substr(0, static_cast<size_t>(max) * 3) + "...";
        EXPECT_EQ(expected, truncateUTF8(text, max, "..."));
        EXPECT_EQ(expected, truncateUTF8(std::string(text), max, "..."));
    }
}

TEST(TruncateUTF8, SuffixMayLieInTheText) {
    std::string text = "a text of more than fifteen bytes";
    EXPECT_EQ("a teen bytes", truncateUTF8(text, 3, text.c_str() + 24));
    EXPECT_EQ("a teen bytes", truncateUTF8(std::move(text), 3, text.c_str() + 24));
}

TEST(TruncateUTF8, MovedTextKeepsItsBuffer) {
    for (int max : {10, 100}) {
        std::string text(60, 'x');
        const char* const buffer = text.data();
        EXPECT_EQ(buffer, truncateUTF8(std::move(text), max, "...").data()) << max;
    }
}

// ---- split and join ----

using Pieces = std::vector<std::string>;

template <class Container>
Pieces splitInto(const std::string& text, char separator, bool trimPieces) {
    Container pieces = {"old", "content"};
    split(text, pieces, separator, trimPieces);
    return Pieces(pieces.begin(), pieces.end());
}

TEST(Split, CutsAtEverySeparatorAndKeepsEmptyPieces) {
    const struct {
        std::string text;
        char separator;
        bool bTrim;
        Pieces expected;
    } rows[] = {
        {"", ',', false, {}},
        {"", ',', true, {}},
        {"a", ',', false, {"a"}},
        {",", ',', false, {"", ""}},
        {",,", ',', false, {"", "", ""}},
        {"a,,b,", ',', false, {"a", "", "b", ""}},
        {",a", ',', false, {"", "a"}},
        {"b,a,b", ',', false, {"b", "a", "b"}},
        {" a , b ", ',', false, {" a ", " b "}},
        {" a , b ", ',', true, {"a", "b"}},
        {"  ", ',', true, {""}},
        {" , \t,x", ',', true, {"", "", "x"}},  // pieces that become empty stay
        {"a b  c", ' ', false, {"a", "b", "", "c"}},
        {"a b  c", ' ', true, {"a", "b", "", "c"}},
        {"a\0b\0"s, '\0', false, {"a", "b", ""}},
        {"a\0,b"s, ',', false, {"a\0"s, "b"}},
        {"x\xFFy", '\xFF', false, {"x", "y"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.text));
        const Pieces reversed(row.expected.rbegin(), row.expected.rend());
        const std::set<std::string> sorted(row.expected.begin(), row.expected.end());
        EXPECT_EQ(row.expected, splitInto<std::vector<std::string>>(row.text, row.separator, row.bTrim));
        EXPECT_EQ(row.expected, splitInto<std::list<std::string>>(row.text, row.separator, row.bTrim));
        EXPECT_EQ(reversed, splitInto<std::forward_list<std::string>>(row.text, row.separator, row.bTrim));
        EXPECT_EQ(Pieces(sorted.begin(), sorted.end()),
                  splitInto<std::set<std::string>>(row.text, row.separator, row.bTrim));
    }
}

TEST(Split, DoesNotTrimUnlessAsked) {
    std::vector<std::string> pieces;
    split(" a ", pieces, ',');
    EXPECT_EQ(Pieces{" a "}, pieces);
}

template <class Container>
Pieces splitItsOwnPiece() {
    Container pieces = {"one text of many bytes,another text of many bytes"};
    split(*pieces.begin(), pieces, ',');
    return Pieces(pieces.begin(), pieces.end());
}

TEST(Split, TextMayBeAPieceOfTheContainer) {
    const Pieces expected = {"one text of many bytes", "another text of many bytes"};
    const Pieces reversed(expected.rbegin(), expected.rend());
    EXPECT_EQ(expected, splitItsOwnPiece<std::vector<std::string>>());
    EXPECT_EQ(expected, splitItsOwnPiece<std::list<std::string>>());
    EXPECT_EQ(reversed, splitItsOwnPiece<std::forward_list<std::string>>());
    EXPECT_EQ(reversed, splitItsOwnPiece<std::set<std::string>>());
}

TEST(Join, WritesTheSeparatorBetweenThePieces) {
    const struct {
        Pieces pieces;
        std::string separator, expected;
    } rows[] = {
        {{}, ", ", ""},
        {{""}, "", ""},
        {{"", ""}, "", ""},
        {{"a"}, ", ", "a"},
        {{""}, ", ", ""},
        {{"a", "b", "c"}, ", ", "a, b, c"},
        {{"a", "b"}, "", "ab"},
        {{"", ""}, ",", ","},
        {{"a", "", "b", ""}, ",", "a,,b,"},
        {{"a\0b"s, "c"}, "\0"s, "a\0b\0c"s},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.expected);
        EXPECT_EQ(row.expected, join(row.pieces, row.separator));
        EXPECT_EQ(row.expected, join(std::list<std::string>(row.pieces.begin(), row.pieces.end()), row.separator));
        EXPECT_EQ(row.expected,
                  join(std::forward_list<std::string>(row.pieces.begin(), row.pieces.end()), row.separator));
    }
}

// A string that grew piece by piece would have doubled its capacity beyond what is needed.
TEST(Join, ReservesNoMoreThanIsNeeded) {
    const Pieces pieces(110, "ten bytes.");
    const std::string text = join(pieces, ", ");
    EXPECT_EQ(110u * 12 - 2, text.size());
    EXPECT_LE(text.capacity(), 110u * 12);
    EXPECT_LE(join(std::list<std::string>(pieces.begin(), pieces.end()), ", ").capacity(), 110u * 12);
    EXPECT_LE(join(std::forward_list<std::string>(pieces.begin(), pieces.end()), ", ").capacity(), 110u * 12);
}

TEST(SplitAndJoin, UndoEachOther) {
    std::mt19937 random(61102);
    for (int i = 0; i < 100000 && !HasFailure(); ++i) {
        std::string text(1 + random() % 10, ' ');
        for (char& byte : text)
            byte = ",,ab\0 \xFF"[random() % 7];
        std::vector<std::string> pieces;
        split(text, pieces, ',', false);
        EXPECT_EQ(text, join(pieces, ",")) << testing::PrintToString(text);
        EXPECT_EQ(std::count(text.begin(), text.end(), ',') + 1, static_cast<long>(pieces.size()));
    }
}

// ---- Numbers ----

using ByteVector = std::vector<unsigned char>;

TEST(FromBase16, ReadsPairsOfDigits) {
    EXPECT_EQ(ByteVector({0xAB, 0xCD}), fromBase16("ABcd"));
    EXPECT_EQ(ByteVector({0x00}), fromBase16("00"));
    EXPECT_EQ(ByteVector({0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF}), fromBase16("0123456789abCDef"));
    for (const std::string& bad :
         {""s, "A"s, "ABc"s, "0g"s, "g0"s, "00 "s, " 0"s, "0x"s, "-1"s, "+1"s, "00\0\0"s, "0\0"s, "00zz00"s})
        EXPECT_EQ(ByteVector(), fromBase16(bad)) << testing::PrintToString(bad);
}

TEST(FromBase16, EveryPairOfBytesIsJudgedByItsDigits) {
    const std::string lower = "0123456789abcdef", upper = "0123456789ABCDEF";
    auto digit = [&](int byte) {
        const size_t found = std::min(lower.find(static_cast<char>(byte)), upper.find(static_cast<char>(byte)));
        return found == std::string::npos ? -1 : static_cast<int>(found);
    };
    for (int high = 0; high < 256; ++high) {
        for (int low = 0; low < 256; ++low) {
            ByteVector expected;
            if (digit(high) >= 0 && digit(low) >= 0)
                expected = {0x5A, static_cast<unsigned char>(digit(high) * 16 + digit(low))};
            ASSERT_EQ(expected, fromBase16({'5', 'a', static_cast<char>(high), static_cast<char>(low)}))
                << high << ' ' << low;
        }
    }
}

TEST(FromString, DoubleTakesTheWholeTextOrNothing) {
    const double infinity = std::numeric_limits<double>::infinity();
    const struct {
        std::string text;
        bool bGood;
        double expected;
    } rows[] = {
        {"0", true, 0},     {"1.5", true, 1.5},        {"-2e3", true, -2000},     {"+7", true, 7},
        {".5", true, 0.5},  {"5.", true, 5},           {"0x10", true, 16},        {" 1", true, 1},
        {"\t\n1", true, 1}, {"1e400", true, infinity}, {"-inf", true, -infinity}, {"", false, 0},
        {" ", false, 0},    {"1 ", false, 0},          {"1.5x", false, 0},        {"abc", false, 0},
        {"1,5", false, 0},  {"1e", false, 0},          {"-", false, 0},           {"1 2", false, 0},
        {"\0"s, false, 0},  {"1\0x"s, true, 1},  // the C string counts
    };
    for (const auto& row : rows) {
        double value = 99;
        EXPECT_EQ(row.bGood, from_string(row.text, value)) << testing::PrintToString(row.text);
        EXPECT_EQ(row.expected, value) << testing::PrintToString(row.text);
    }
    double notANumber = 0;
    EXPECT_TRUE(from_string("nan", notANumber));
    EXPECT_TRUE(std::isnan(notANumber));
}

TEST(FromString, FloatTakesOnlyNormalPositiveNumbers) {
    const struct {
        std::string text;
        bool bGood;
        float expected;
    } rows[] = {
        {"1.5", true, 1.5f},
        {" 1", true, 1.0f},
        {"3.4028234663852886e38", true, std::numeric_limits<float>::max()},
        {"3.4028234663852887e38", true, std::numeric_limits<float>::max()},  // the same double
        {"3.402823466385290e38", false, 0},
        {"1e39", false, 0},
        {"inf", false, 0},
        {"1.1754943508222875e-38", true, std::numeric_limits<float>::min()},
        {"1.1754943508222870e-38", false, 0},
        {"1e-40", false, 0},
        {"0", false, 0},
        {"0.0", false, 0},
        {"-0", false, 0},
        {"-1", false, 0},
        {"-3e38", false, 0},
        {"-inf", false, 0},
        {"nan", false, 0},
        {"", false, 0},
        {"1.5 ", false, 0},
        {"x", false, 0},
    };
    for (const auto& row : rows) {
        float value = 99;
        EXPECT_EQ(row.bGood, from_string(row.text, value)) << row.text;
        EXPECT_EQ(row.expected, value) << row.text;
    }
}

// ---- Data protection ----

TEST(DataProtection, PassesDataUnchanged) {
    for (const std::string& data : {""s, "secret"s, "\0\xFF binary \0"s, std::string(5000, 'x')}) {
        std::string sealed = "old", plain = "old";
        EXPECT_TRUE(cryptProtect(data, sealed));
        EXPECT_EQ(data, sealed);
        EXPECT_TRUE(cryptUnprotect(sealed, plain));
        EXPECT_EQ(data, plain);
    }
}

TEST(DataProtection, InputMayBeTheOutput) {
    std::string data = "a text of more than fifteen bytes";
    EXPECT_TRUE(cryptProtect(data, data));
    EXPECT_TRUE(cryptUnprotect(data, data));
    EXPECT_EQ("a text of more than fifteen bytes", data);
}

TEST(DataProtection, NoKeyIsEverMade) {
    for (unsigned length : {0u, 1u, 32u, std::numeric_limits<unsigned>::max()}) {
        std::string key = "old key";
        EXPECT_FALSE(cryptGenRandomPSK(length, key));
        EXPECT_EQ("", key);
    }
}

}  // namespace
