// unicode_count_test.cpp: counting, appending, stepping and validity of foundation/unicode.h, and the memory that the
// converters take for what they counted.

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <memory>
#include <new>
#include <random>
#include <string>
#include <vector>

#include "foundation/unicode.h"
#include "unit/exact_buffer.h"
#include "unit/rounds.h"

namespace {

volatile size_t gs_nAllocations = 0;  // volatile: an optimiser may take it that new changes no variable

void* countedAllocation(size_t size) {
    gs_nAllocations = gs_nAllocations + 1;
    return std::malloc(std::max<size_t>(size, 1));
}

}  // namespace

// The operators are not inlined: seeing through only one of a pair, the compiler would warn of malloc with delete.
[[gnu::noinline]] void* operator new(size_t size) {
    if (void* block = countedAllocation(size))
        return block;
    throw std::bad_alloc();
}

[[gnu::noinline]] void* operator new(size_t size, const std::nothrow_t&) noexcept {
    return countedAllocation(size);
}
[[gnu::noinline]] void operator delete(void* block) noexcept {
    std::free(block);
}
[[gnu::noinline]] void operator delete(void* block, size_t) noexcept {
    std::free(block);
}
[[gnu::noinline]] void operator delete(void* block, const std::nothrow_t&) noexcept {
    std::free(block);
}

namespace {

using namespace std::string_literals;

using Bytes = std::basic_string<unsigned char>;

Bytes bytes(const std::string& text) {
    return Bytes(text.begin(), text.end());
}

// checkCount calls both forms of a count on exact buffers; a text with a zero has no Z form.
template <class Unit, class CountZ, class CountN>
void checkCount(CountZ countZ, CountN countN, const std::basic_string<Unit>& text, int expected, const char* why) {
    EXPECT_EQ(expected, countN(ExactBuffer<Unit>(text).data(), static_cast<int>(text.size())))
        << why << testing::PrintToString(text);
    if (text.find(Unit(0)) == std::basic_string<Unit>::npos) {
        EXPECT_EQ(expected, countZ(ExactBuffer<Unit>(text, true).data())) << why << testing::PrintToString(text);
    }
}

// ---- Counting ----

struct Utf8Counts {
    std::string text;
    int words;
    int codePoints;
    const char* why;
};

TEST(UnicodeCount, Utf8ByLeadBytesOnly) {
    const Utf8Counts rows[] = {
        {"", 0, 0, "empty"},
        {"abc\x7F", 4, 4, "ASCII"},
        {"\x80\xBF", 0, 0, "continuation bytes"},
        {"\xC3\xA9", 1, 1, "two bytes"},
        {"\xE2\x82\xAC", 1, 1, "three bytes"},
        {"\xF0\x9F\x98\x80", 2, 1, "four bytes"},
        {"\xC0", 1, 1, "not validated"},
        {"\xC0\x80", 1, 1, "not validated"},
        {"\xEF", 1, 1, "last lead byte of one unit"},
        {"\xF0", 2, 1, "first lead byte of two units"},
        {"\xF8\xFF", 4, 2, "0xF8 and 0xFF count as lead bytes"},
        {"a\0b"s, 3, 3, "zero in counted text"},
    };
    for (const Utf8Counts& row : rows) {
        checkCount(utf8NumWordsZ, utf8NumWordsN, bytes(row.text), row.words, row.why);
        checkCount(utf8NumCodePointsZ, utf8NumCodePointsN, bytes(row.text), row.codePoints, row.why);
    }
}

struct Utf16Counts {
    std::u16string text;
    int bytes;
    int codePoints;
    const char* why;
};

TEST(UnicodeCount, Utf16CountsPairsAndSkipsLoneSurrogates) {
    const Utf16Counts rows[] = {
        {u"", 0, 0, "empty"},
        {u"abc\u007F", 4, 4, "one byte each"},
        {u"\u0080\u07FF", 4, 2, "two bytes each"},
        {u"\u0800\uFFFF", 6, 2, "three bytes each"},
        {{0xD7FF, 0xE000}, 6, 2, "neighbours of the surrogates"},
        {{0xD83D, 0xDE00}, 4, 2, "a pair counts two code points"},
        {{0xD800, 0xDC00, 0xDBFF, 0xDFFF}, 8, 4, "first and last pair"},
        {{0xD800}, 0, 0, "lone high surrogate at the end"},
        {{'a', 0xDBFF}, 1, 1, "lone high surrogate at the end"},
        {{0xD800, 'a'}, 1, 1, "lone high surrogate, the next unit counts"},
        {{0xD800, 0xD800, 0xDC00}, 4, 2, "lone high surrogate before a pair"},
        {{0xDC00, 'a', 0xDFFF}, 1, 1, "lone low surrogates"},
        {{0xDC00, 0xD800}, 0, 0, "wrong order"},
        {{'a', 0, 'b'}, 3, 3, "zero in counted text"},
        {{0xD800, 0, 0xDC00}, 1, 1, "zero between the halves"},
    };
    for (const Utf16Counts& row : rows) {
        checkCount(utf16NumBytesZ, utf16NumBytesN, row.text, row.bytes, row.why);
        checkCount(utf16NumCodePointsZ, utf16NumCodePointsN, row.text, row.codePoints, row.why);
    }
}

struct Ucs4Counts {
    std::u32string text;
    int bytes;
    int words;
    const char* why;
};

TEST(UnicodeCount, Ucs4CountsSurrogatesButNotTheLastCodePoint) {
    const Ucs4Counts rows[] = {
        {U"", 0, 0, "empty"},
        {{1, 0x7F}, 2, 2, "one byte"},
        {{0x80, 0x7FF}, 4, 2, "two bytes"},
        {{0x800, 0xFFFF}, 6, 2, "three bytes"},
        {{0xD800, 0xDFFF}, 6, 2, "surrogates count though they are not encoded"},
        {{0x10000, 0x10FFFE}, 8, 4, "four bytes"},
        {{0x10FFFF}, 0, 0, "the last code point counts nothing though it is encoded"},
        {{'a', 0x10FFFF, 'b'}, 2, 2, "the same between others"},
        {{0x110000, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF}, 0, 0, "too large"},
        {{'a', 0, 'b'}, 3, 3, "zero in counted text"},
    };
    for (const Ucs4Counts& row : rows) {
        checkCount(ucs4NumBytesZ, ucs4NumBytesN, row.text, row.bytes, row.why);
        checkCount(ucs4NumWordsZ, ucs4NumWordsN, row.text, row.words, row.why);
    }
}

TEST(UnicodeCount, CountOfZeroOrLessGivesZero) {
    const Bytes utf8 = bytes("ab");
    const std::u16string utf16 = u"ab";
    const std::u32string ucs4 = U"ab";
    for (int count : {0, -1, std::numeric_limits<int>::min()}) {
        EXPECT_EQ(0, utf8NumWordsN(utf8.data(), count));
        EXPECT_EQ(0, utf8NumCodePointsN(utf8.data(), count));
        EXPECT_EQ(0, utf16NumBytesN(utf16.data(), count));
        EXPECT_EQ(0, utf16NumCodePointsN(utf16.data(), count));
        EXPECT_EQ(0, ucs4NumBytesN(ucs4.data(), count));
        EXPECT_EQ(0, ucs4NumWordsN(ucs4.data(), count));
    }
}

// randomOf returns up to 12 units, mostly from `edges`.
template <class Unit>
std::basic_string<Unit> randomOf(std::mt19937& random, const std::basic_string<Unit>& edges, bool zeros) {
    std::basic_string<Unit> text(random() % 13, Unit('a'));
    for (Unit& unit : text)
        unit = zeros && random() % 10 == 0 ? Unit(0) : edges[random() % edges.size()];
    return text;
}

const int RANDOM_CASES = rounds(100000);
const std::u16string UTF16_EDGES = {'a',    0x80,   0x7FF,  0x800,  0xD7FF, 0xD800, 0xDBFF,
                                    0xDC00, 0xDFFF, 0xE000, 0xFFFF, 0xD83D, 0xDE00};
const std::u32string UCS4_EDGES = {'a',    0x80,    0x7FF,    0x800,    0xD800,   0xDFFF,
                                   0xFFFF, 0x10000, 0x10FFFE, 0x10FFFF, 0x110000, 0xFFFFFFFF};
const Bytes UTF8_EDGES =
    bytes("a\x7F\x80\x8F\x90\x9F\xA0\xBF\x80\x90\xBF\xC0\xC2\xDF\xE0\xE1\xED\xEF\xF0\xF1\xF4\xF5\xF8\xFF");

// Each lead byte gives as many units as it counts, good or replaced, so the counts are exact.
TEST(UnicodeCount, Utf8CountsEqualTheLengthsOfTheConverters) {
    std::mt19937 random(11);
    for (int i = 0; i < RANDOM_CASES && !HasFailure(); ++i) {
        const Bytes text = randomOf(random, UTF8_EDGES, i % 2 == 0);
        const ExactBuffer<unsigned char> buffer(text);
        const int count = static_cast<int>(text.size());
        char16_t utf16[32];
        char32_t ucs4[32];
        const int words = utf8To16N(buffer.data(), count, utf16, false);
        const int codePoints = utf8ToUCS4N(buffer.data(), count, ucs4, false);
        checkCount(utf8NumWordsZ, utf8NumWordsN, text, words, "words of ");
        checkCount(utf8NumCodePointsZ, utf8NumCodePointsN, text, codePoints, "code points of ");
    }
}

TEST(UnicodeCount, Utf16BytesEqualTheLengthOfTheConverter) {
    std::mt19937 random(12);
    for (int i = 0; i < RANDOM_CASES && !HasFailure(); ++i) {
        const std::u16string text = randomOf(random, UTF16_EDGES, i % 2 == 0);
        unsigned char utf8[64];
        const int expected = utf16To8N(ExactBuffer<char16_t>(text).data(), static_cast<int>(text.size()), utf8, false);
        checkCount(utf16NumBytesZ, utf16NumBytesN, text, expected, "bytes of ");
    }
}

TEST(UnicodeCount, Ucs4BytesDifferFromTheConverterBySurrogatesAndTheLastCodePoint) {
    std::mt19937 random(13);
    for (int i = 0; i < RANDOM_CASES && !HasFailure(); ++i) {
        const std::u32string text = randomOf(random, UCS4_EDGES, i % 2 == 0);
        unsigned char utf8[64];
        int expected = ucs4ToUTF8N(ExactBuffer<char32_t>(text).data(), static_cast<int>(text.size()), utf8, false);
        for (char32_t cp : text)
            expected += cp >= 0xD800 && cp <= 0xDFFF ? 3 : cp == 0x10FFFF ? -4 : 0;
        checkCount(ucs4NumBytesZ, ucs4NumBytesN, text, expected, "bytes of ");
    }
}

// ---- Appending ----

TEST(UnicodeAppend, AppendsTheEncodingOrNothing) {
    const struct {
        char32_t codePoint;
        std::string utf8;
        std::u16string utf16;
    } rows[] = {
        {0, "\0"s, u"\0"s},
        {0x41, "A", u"A"},
        {0x7F, "\x7F", u"\u007F"},
        {0x80, "\xC2\x80", u"\u0080"},
        {0x7FF, "\xDF\xBF", u"\u07FF"},
        {0x800, "\xE0\xA0\x80", u"\u0800"},
        {0xD7FF, "\xED\x9F\xBF", u"\uD7FF"},
        {0xD800, "", {0xD800}},  // dropped in UTF-8, passed in UTF-16
        {0xDFFF, "", {0xDFFF}},
        {0xE000, "\xEE\x80\x80", u"\uE000"},
        {0xFFFF, "\xEF\xBF\xBF", u"\uFFFF"},
        {0x10000, "\xF0\x90\x80\x80", {0xD800, 0xDC00}},
        {0x1F600, "\xF0\x9F\x98\x80", {0xD83D, 0xDE00}},
        {0x10FFFF, "\xF4\x8F\xBF\xBF", {0xDBFF, 0xDFFF}},
        {0x110000, "", u""},
        {0x7FFFFFFF, "", u""},
        {0x80000041, "", u""},
        {0xFFFFFFFF, "", u""},
    };
    for (const auto& row : rows) {
        std::string utf8 = "old";
        std::u16string utf16 = u"old";
        utf8Append(utf8, row.codePoint);
        utf16Append(utf16, row.codePoint);
        EXPECT_EQ("old" + row.utf8, utf8) << std::hex << static_cast<uint32_t>(row.codePoint);
        EXPECT_EQ(u"old" + row.utf16, utf16) << std::hex << static_cast<uint32_t>(row.codePoint);
    }
}

TEST(UnicodeAppend, EveryCodePointEqualsTheConverter) {
    for (char32_t cp = 1; cp < 0x110010 && !HasFailure(); ++cp) {
        const char32_t text[] = {cp, 0};
        std::string appended, converted;
        utf8Append(appended, cp);
        ucs4ToUTF8Z(text, converted);
        EXPECT_EQ(converted, appended) << static_cast<uint32_t>(cp);
        std::u16string utf16;
        utf16Append(utf16, cp);
        std::string back;
        utf16To8Z(utf16.c_str(), back);
        EXPECT_EQ(converted, back) << static_cast<uint32_t>(cp);
    }
}

// ---- Stepping ----

TEST(UnicodeStep, Utf8NextGoesOverContinuationBytesAndStopsAtTheZero) {
    const struct {
        std::string text;
        std::vector<int> stops;
    } rows[] = {
        {"", {0, 0}},
        {"ab", {1, 2, 2}},
        {"\xC3\xA9z", {2, 3, 3}},
        {"\xE2\x82\xAC\xF0\x9F\x98\x80", {3, 7, 7}},
        {"\x80", {1, 1}},
        {"\x80\x80\x80z", {3, 4}},              // from a stray byte on
        {"a\x80\xBFz", {3, 4}},                 // whatever the first byte is
        {"\xC3\x80\x80\x80\x80\x80z", {6, 7}},  // more than belong to it
        {"\xF0z", {1, 2}},                      // fewer than belong to it
        {"\xE2\x82", {2, 2}},                   // cut off
        {"\xFF\xFE", {1, 2, 2}},
    };
    for (const auto& row : rows) {
        const ExactBuffer<unsigned char> buffer(bytes(row.text), true);
        const unsigned char* in = buffer.data();
        for (int stop : row.stops) {
            utf8Next(in);
            EXPECT_EQ(stop, in - buffer.data()) << testing::PrintToString(row.text);
        }
    }
}

TEST(UnicodeStep, Utf8PeekGivesTheFirstCharacterOrZero) {
    const struct {
        std::string text;
        uint32_t expected;
    } rows[] = {
        {"", 0},
        {"A", 'A'},
        {"\x7F", 0x7F},
        {"\x80", 0},
        {"\xBF\x41", 0},
        {"\xC2\x80", 0x80},
        {"\xDF\xBF", 0x7FF},
        {"\xDF\xBF\x80", 0x7FF},
        {"\xC3", 0},
        {"\xC3\x41", 0},
        {"\xC0\x80", 0},
        {"\xC1\xBF", 0},
        {"\xE0\xA0\x80", 0x800},
        {"\xE2\x82\xAC", 0x20AC},
        {"\xEF\xBF\xBF", 0xFFFF},
        {"\xED\xA0\x80", 0xD800},  // an encoded surrogate is returned
        {"\xED\xBF\xBF", 0xDFFF},
        {"\xE2", 0},
        {"\xE2\x82", 0},
        {"\xE2\x41\x80", 0},
        {"\xE2\x82\x41", 0},
        {"\xE0\x9F\xBF", 0},
        {"\xF0\x90\x80\x80", 0x10000},
        {"\xF0\x9F\x98\x80", 0x1F600},
        {"\xF4\x8F\xBF\xBF", 0x10FFFF},
        {"\xF4\x90\x80\x80", 0},
        {"\xF7\xBF\xBF\xBF", 0},
        {"\xF0\x8F\xBF\xBF", 0},
        {"\xF0", 0},
        {"\xF0\x9F", 0},
        {"\xF0\x9F\x98", 0},
        {"\xF0\x41\x98\x80", 0},
        {"\xF0\x9F\x41\x80", 0},
        {"\xF0\x9F\x98\x41", 0},
        {"\xF8\x88\x80\x80\x80", 0},
        {"\xFF", 0},
    };
    for (const auto& row : rows) {
        const ExactBuffer<unsigned char> buffer(bytes(row.text), true);
        EXPECT_EQ(row.expected, static_cast<uint32_t>(utf8Peek(buffer.data()))) << testing::PrintToString(row.text);
    }
}

TEST(UnicodeStep, Utf8PeekReadsBackEveryCodePoint) {
    for (char32_t cp = 0; cp <= 0x10FFFF && !HasFailure(); ++cp) {
        std::string text;
        utf8Append(text, cp);
        const char32_t expected = text.empty() ? 0 : cp;  // surrogates are not encoded
        EXPECT_EQ(expected, utf8Peek(reinterpret_cast<const unsigned char*>(text.c_str())));
    }
}

TEST(UnicodeStep, Utf16PeekMarksAPairWithAValueThatIsNotItsCodePoint) {
    const struct {
        std::u16string text;
        uint32_t expected;
    } rows[] = {
        {u"", 0},
        {u"A", 'A'},
        {u"\uFFFF", 0xFFFF},
        {{0xD7FF}, 0xD7FF},
        {{0xE000}, 0xE000},
        {{0xD800}, 0},
        {{0xDBFF, 'a'}, 0},
        {{0xD800, 0xD800}, 0},
        {{0xDC00}, 0},
        {{0xDFFF, 0xDC00}, 0},
        {{0xD800, 0xDC00}, 0x611C00},  // 0x600000 | 0x1C00, plus 0x10000
        {{0xD83D, 0xDE00}, 0x61FE00},  // 0x60F400 | 0x1E00, plus 0x10000
        {{0xDBFF, 0xDFFF}, 0x70FFFF},  // 0x6FFC00 | 0x1FFF, plus 0x10000
    };
    for (const auto& row : rows) {
        const ExactBuffer<char16_t> buffer(row.text, true);
        EXPECT_EQ(row.expected, static_cast<uint32_t>(utf16Peek(buffer.data()))) << testing::PrintToString(row.text);
    }
}

TEST(UnicodeStep, Utf16PeekIsNeverZeroForAPair) {
    for (uint32_t high = 0xD800; high <= 0xDBFF; ++high) {
        for (uint32_t low = 0xDC00; low <= 0xDFFF; low += 31) {
            const char16_t text[] = {static_cast<char16_t>(high), static_cast<char16_t>(low), 0};
            ASSERT_EQ((((high << 10) & 0xFFFC00) | (low & 0x3FFF)) + 0x10000, static_cast<uint32_t>(utf16Peek(text)));
        }
    }
}

// ---- Validity ----

// checkValid holds both forms against `expected`.
void checkValid(const std::string& text, bool expected, const char* why) {
    EXPECT_EQ(expected, isValidUTF8N(ExactBuffer<unsigned char>(bytes(text)).data(), static_cast<int>(text.size())))
        << why << testing::PrintToString(text);
    if (text.find('\0') == std::string::npos) {
        EXPECT_EQ(expected, isValidUTF8Z(ExactBuffer<unsigned char>(bytes(text), true).data()))
            << why << testing::PrintToString(text);
    }
}

TEST(UnicodeValid, FindsBadFormsButPassesSurrogatesAndStrayBytes) {
    const struct {
        std::string text;
        bool bValid;
        const char* why;
    } rows[] = {
        {"", true, "empty"},
        {"abc\x7F", true, "ASCII"},
        {"\x80", true, "stray continuation byte passes"},
        {"a\xBF\x80z", true, "stray continuation bytes pass"},
        {"\xC3\xA9\xA9", true, "one continuation byte too many passes"},
        {"\xC2\x80\xDF\xBF", true, "ends of two bytes"},
        {"\xC0\x80", false, "overlong"},
        {"\xC1\xBF", false, "overlong"},
        {"\xC3", false, "cut off"},
        {"\xC3\x41", false, "continuation byte missing"},
        {"\xC3\xC3\xA9", false, "continuation byte missing"},
        {"\xE0\xA0\x80\xEF\xBF\xBF", true, "ends of three bytes"},
        {"\xE0\x9F\xBF", false, "overlong"},
        {"\xE2", false, "cut off"},
        {"\xE2\x82", false, "cut off"},
        {"\xE2\x41\x82", false, "second byte wrong"},
        {"\xE2\x82\x41", false, "third byte wrong"},
        {"\xED\xA0\x80\xED\xBF\xBF", true, "encoded surrogates pass"},
        {"\xF0\x90\x80\x80\xF4\x8F\xBF\xBF", true, "ends of four bytes"},
        {"\xF0\x8F\xBF\xBF", false, "overlong"},
        {"\xF4\x90\x80\x80", false, "above 0x10FFFF"},
        {"\xF7\xBF\xBF\xBF", false, "above 0x10FFFF"},
        {"\xF0", false, "cut off"},
        {"\xF0\x9F", false, "cut off"},
        {"\xF0\x9F\x98", false, "cut off"},
        {"\xF0\x41\x98\x80", false, "second byte wrong"},
        {"\xF0\x9F\x41\x80", false, "third byte wrong"},
        {"\xF0\x9F\x98\x41", false, "fourth byte wrong"},
        {"\xF8\x88\x80\x80\x80", false, "five-byte form"},
        {"\xFC", false, "six-byte form"},
        {"\xFF", false, "no lead byte"},
        {"good \xE2\x82\xAC then \xFF", false, "behind good text"},
        {"a\0b"s, true, "zero in counted text"},
        {"a\0\xFF"s, false, "behind a zero in counted text"},
        {"\xC3\0"s, false, "zero in place of a continuation byte"},
    };
    for (const auto& row : rows)
        checkValid(row.text, row.bValid, row.why);
}

TEST(UnicodeValid, CountOfZeroOrLessIsValid) {
    const Bytes text = bytes("\xFF");
    for (int count : {0, -1, std::numeric_limits<int>::min()})
        EXPECT_TRUE(isValidUTF8N(text.data(), count));
    EXPECT_TRUE(isValidUTF8N(nullptr, 0));
}

// What is invalid is exactly what the converters replace; no text here has a "?" of its own.
TEST(UnicodeValid, InvalidIsWhatTheConverterReplaces) {
    std::mt19937 random(14);
    for (int i = 0; i < RANDOM_CASES && !HasFailure(); ++i) {
        const Bytes text = randomOf(random, UTF8_EDGES, i % 2 == 0);
        std::u16string converted;
        utf8To16N(text.data(), static_cast<int>(text.size()), converted);
        checkValid(std::string(text.begin(), text.end()), converted.find(u'?') == std::u16string::npos, "random ");
    }
}

TEST(UnicodeValid, AsciiRunsOfAnyLengthAndAlignment) {
    for (size_t offset = 0; offset < 16; ++offset) {
        for (size_t length = 0; length <= 64; ++length) {
            const std::string run(length, 'r');
            const std::string good = std::string(offset, '\xFF') + run + "\xC3\xA9" + run;
            const std::string bad = std::string(offset, '\xFF') + run + "\xC3";
            const ExactBuffer<unsigned char> goodBuffer(bytes(good), true), badBuffer(bytes(bad), true);
            EXPECT_TRUE(isValidUTF8Z(goodBuffer.data() + offset));
            EXPECT_TRUE(isValidUTF8N(goodBuffer.data() + offset, static_cast<int>(good.size() - offset)));
            EXPECT_FALSE(isValidUTF8Z(badBuffer.data() + offset));
            EXPECT_FALSE(isValidUTF8N(badBuffer.data() + offset, static_cast<int>(bad.size() - offset)));
        }
    }
}

// ---- Memory ----

template <class Call>
size_t allocationsOf(Call call) {
    const size_t before = gs_nAllocations;
    call();
    return gs_nAllocations - before;
}

// StringForms calls all string forms on a text of `units` characters, each with a destination of its own.
class StringForms {
public:
    explicit StringForms(size_t units)
        : m_nCount(static_cast<int>(units)), m_strUtf8(units, 'a'), m_strUtf16(units, u'a'), m_strUcs4(units, U'a') {}

    // reserve lets the destinations hold the whole result.
    void reserve() {
        for (std::string& out : m_utf8)
            out.reserve(m_strUtf8.size() + 1);
        for (std::u16string& out : m_utf16)
            out.reserve(m_strUtf16.size() + 1);
        m_ucs4.reserve(m_strUcs4.size() + 1);
    }

    // allocations lists what each form allocates.
    std::vector<size_t> allocations() {
        const unsigned char* utf8 = m_strUtf8.data();
        size_t found[] = {
            allocationsOf([&] { ucs4ToUTF8Z(m_strUcs4.c_str(), m_utf8[0]); }),
            allocationsOf([&] { ucs4ToUTF8N(m_strUcs4.data(), m_nCount, m_utf8[1]); }),
            allocationsOf([&] { utf16To8Z(m_strUtf16.c_str(), m_utf8[2]); }),
            allocationsOf([&] { utf16To8N(m_strUtf16.data(), m_nCount, m_utf8[3]); }),
            allocationsOf([&] { utf8To16Z(utf8, m_utf16[0]); }),
            allocationsOf([&] { utf8To16N(utf8, m_nCount, m_utf16[1]); }),
            allocationsOf([&] { utf8ToUCS4Z(utf8, m_ucs4); }),
        };
        for (const std::string& out : m_utf8)
            EXPECT_EQ(std::string(m_strUtf8.begin(), m_strUtf8.end()), out);
        for (const std::u16string& out : m_utf16)
            EXPECT_EQ(m_strUtf16, out);
        EXPECT_EQ(m_strUcs4, m_ucs4);
        return std::vector<size_t>(std::begin(found), std::end(found));
    }

    // checkReserved tells that each destination has room for the counted size plus one.
    void checkReserved() const {
        for (const std::string& out : m_utf8)
            EXPECT_GE(out.capacity(), m_strUtf8.size() + 1);
        for (const std::u16string& out : m_utf16)
            EXPECT_GE(out.capacity(), m_strUtf16.size() + 1);
        EXPECT_GE(m_ucs4.capacity(), m_strUcs4.size() + 1);
    }

private:
    int m_nCount;
    Bytes m_strUtf8;
    std::u16string m_strUtf16;
    std::u32string m_strUcs4;
    std::string m_utf8[4];
    std::u16string m_utf16[2];
    std::u32string m_ucs4;
};

TEST(UnicodeMemory, TheCounterOfThisTestCounts) {
    std::string text;
    EXPECT_EQ(0u, allocationsOf([&text] { text.assign(3, 'a'); }));
    EXPECT_EQ(1u, allocationsOf([&text] { text.assign(100, 'a'); }));
    EXPECT_EQ(100u, text.size());
}

TEST(UnicodeMemory, TextsWithinTheStringsOwnBufferAllocateNothing) {
    for (size_t units : {0, 1, 3}) {  // three UCS-4 units are the most that fit
        StringForms forms(units);
        EXPECT_EQ(std::vector<size_t>(7, 0), forms.allocations()) << units;
    }
}

TEST(UnicodeMemory, DestinationWithRoomAllocatesNothing) {
    for (size_t units : {10, 200, 255, 256, 257, 511, 512, 513, 1023, 1024, 1025, 9000}) {
        StringForms forms(units);
        forms.reserve();
        EXPECT_EQ(std::vector<size_t>(7, 0), forms.allocations()) << units;
    }
}

TEST(UnicodeMemory, NewDestinationAllocatesOnce) {
    for (size_t units : {20, 200, 256, 257, 512, 513, 1024, 1025, 9000}) {
        StringForms forms(units);
        EXPECT_EQ(std::vector<size_t>(7, 1), forms.allocations()) << units;
    }
}

TEST(UnicodeMemory, LongResultReservesTheCountedSizePlusOne) {
    for (size_t units : {1025, 1920, 9000}) {
        StringForms forms(units);
        forms.allocations();
        forms.checkReserved();
    }
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define ORV_TEST_OWN_ALLOCATOR 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || __has_feature(memory_sanitizer)
#define ORV_TEST_OWN_ALLOCATOR 1
#endif
#endif

#ifndef ORV_TEST_OWN_ALLOCATOR

// limitMemory lets this process take only about 2 MiB more.
void limitMemory() {
    size_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    const rlim_t limit = pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) + (2u << 20);
    const rlimit limits = {limit, limit};
    setrlimit(RLIMIT_AS, &limits);
}

// allocFormsGiveNull counts the forms that give null and a length of 0 for 16 Mi units under the limit.
int allocFormsGiveNull(const Bytes& utf8, const std::u16string& utf16, const std::u32string& ucs4) {
    const int size = static_cast<int>(utf8.size());
    int nulls = 0;
    auto check = [&nulls](auto alloc) {
        int length = -1;
        if (!alloc(&length) && length == 0 && !alloc(nullptr))
            ++nulls;
    };
    check([&](int* length) { return ucs4ToUTF8AllocZ(ucs4.c_str(), length); });
    check([&](int* length) { return ucs4ToUTF8AllocN(ucs4.data(), size, true, length); });
    check([&](int* length) { return utf16To8AllocZ(utf16.c_str(), length); });
    check([&](int* length) { return utf16To8AllocN(utf16.data(), size, length); });
    check([&](int* length) { return utf8To16AllocZ(utf8.data(), length); });
    check([&](int* length) { return utf8To16AllocN(utf8.data(), size, length); });
    check([&](int* length) { return utf8ToUCS4AllocZ(utf8.data(), length); });
    check([&](int* length) { return utf8ToUCS4AllocN(utf8.data(), size, false, length); });
    return nulls;
}

TEST(UnicodeMemory, AllocFormsGiveNullWhenMemoryIsExhausted) {
    constexpr size_t SIZE = 16u << 20;
    const Bytes utf8(SIZE, 'a');
    const std::u16string utf16(SIZE, u'a');
    const std::u32string ucs4(SIZE, U'a');
    EXPECT_EXIT(
        {
            limitMemory();
            _exit(allocFormsGiveNull(utf8, utf16, ucs4));
        },
        testing::ExitedWithCode(8), "");
}

#endif  // the sanitizers' allocators end the process instead

}  // namespace

// roundTripKeeps returns whether the text comes back from UTF-16 as it was: the converters repair all that isn't
// well-formed.
bool roundTripKeeps(const Bytes& text) {
    std::u16string units;
    utf8To16N(text.data(), static_cast<int>(text.size()), units);
    std::string back;
    utf16To8N(units.data(), static_cast<int>(units.size()), back);
    return bytes(back) == text;
}

bool isStrict(const Bytes& text) {
    return isStrictUTF8N(ExactBuffer<unsigned char>(text).data(), static_cast<int>(text.size()));
}

TEST(UnicodeStrict, RefusesStrayBytesAndSurrogatesToo) {
    for (const std::string text : {"\x80", "a\xBF\x80z", "\xC3\xA9\xA9", "\xED\xA0\x80", "\xED\xBF\xBF",
                                   "\xED\xA0\xBD\xED\xB8\x80", "\xEF\xBF\xBF\x80", "\xC0\x80", "\xE0\x9F\xBF",
                                   "\xF0\x8F\xBF\xBF", "\xF4\x90\x80\x80", "\xC3", "\xE2\x82", "\xF0\x9F\x98", "\xFF"})
        EXPECT_FALSE(isStrict(bytes(text))) << testing::PrintToString(text);
}

TEST(UnicodeStrict, TakesTheEndsOfEachForm) {
    for (const std::string& text : {""s, "a\0b\x7F"s, "\xC2\x80\xDF\xBF"s, "\xE0\xA0\x80\xED\x9F\xBF"s,
                                    "\xEE\x80\x80\xEF\xBF\xBF"s, "\xF0\x90\x80\x80\xF4\x8F\xBF\xBF"s})
        EXPECT_TRUE(isStrict(bytes(text))) << testing::PrintToString(text);
}

TEST(UnicodeStrict, CountOfZeroOrLessIsWellFormed) {
    const Bytes text = bytes("\xFF");
    for (int count : {0, -1, std::numeric_limits<int>::min()})
        EXPECT_TRUE(isStrictUTF8N(text.data(), count));
    EXPECT_TRUE(isStrictUTF8N(nullptr, 0));
}

TEST(UnicodeStrict, WellFormedIsWhatSurvivesUTF16) {
    std::mt19937 random(15);
    for (int i = 0; i < RANDOM_CASES && !HasFailure(); ++i) {
        const Bytes text = randomOf(random, UTF8_EDGES, i % 2 == 0);
        EXPECT_EQ(isStrict(text), roundTripKeeps(text)) << testing::PrintToString(text);
    }
}

TEST(UnicodeStrict, EveryLeadAndSecondByteAreJudgedAsTheySurviveUTF16) {
    for (uint32_t pair = 0; pair < 0x10000; ++pair) {
        for (const unsigned char third : {0x00, 0x41, 0x7F, 0x80, 0xBF, 0xC0, 0xFF}) {
            const Bytes text{static_cast<unsigned char>(pair), static_cast<unsigned char>(pair >> 8), third, 0x80};
            for (size_t length = 1; length <= text.size(); ++length)
                ASSERT_EQ(isStrict(text.substr(0, length)), roundTripKeeps(text.substr(0, length)))
                    << testing::PrintToString(text);
        }
    }
}
