// unicode_test.cpp: the converters of foundation/unicode.h. Every form of every direction is held against the same
// tables and, on random text, against a slow model that follows the tables step by step.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "foundation/unicode.h"
#include "unit/exact_buffer.h"
#include "unit/foundation/unicode_model.h"
#include "unit/rounds.h"

namespace {

using namespace std::string_literals;

// Input holds a text in a heap block that ends with it; `offset` other units in front of it shift its alignment.
template <class Unit>
class Input {
public:
    Input(const Text<Unit>& text, bool terminate, size_t offset)
        : m_block(std::basic_string<Unit>(offset, Unit('x')) + std::basic_string<Unit>(text.begin(), text.end()),
                  terminate),
          m_nOffset(offset) {}

    const Unit* begin() const { return m_block.data() + m_nOffset; }
    int size() const { return static_cast<int>(m_block.size() - m_nOffset); }

private:
    ExactBuffer<Unit> m_block;
    size_t m_nOffset;
};

// Output is a buffer for `room` units with marked units after it, which nobody may touch.
template <class Unit>
class Output {
public:
    explicit Output(size_t room) : m_units(room + MARGIN, MARK) {}

    Unit* data() { return m_units.data(); }
    Text<Unit> text(size_t size) const {
        return Text<Unit>(m_units.begin(), m_units.begin() + static_cast<long>(size));
    }
    Unit operator[](size_t index) const { return m_units[index]; }
    bool untouchedFrom(size_t index) const {
        return std::all_of(m_units.begin() + static_cast<long>(index), m_units.end(),
                           [](Unit unit) { return unit == MARK; });
    }

private:
    static constexpr size_t MARGIN = 24;
    static constexpr Unit MARK = static_cast<Unit>(0xA5A5A5A5);
    std::vector<Unit> m_units;
};

// ---- The directions: one row of functions each ----

template <class InUnit, class OutUnit>
struct Direction {
    using In = InUnit;
    using Out = OutUnit;

    int (*bufferZ)(const In*, Out*, bool);
    int (*bufferN)(const In*, int, Out*, bool);
    void (*stringZ)(const In*, Text<Out>&);
    void (*stringN)(const In*, int, Text<Out>&);  // null: no such form
    Out* (*allocZ)(const In*, int*);
    Out* (*allocN)(const In*, int, bool, int*);
    bool bAllocNAlwaysTerminates;
    int (*maxZ)(const In*&, Out*, int);
    int (*maxN)(const In*&, int&, Out*, int);  // null: no such form
    std::vector<Step<Out>> (*model)(const Text<In>&);
};

const Direction<char32_t, unsigned char> UCS4_TO_UTF8 = {
    ucs4ToUTF8Z,      ucs4ToUTF8N, ucs4ToUTF8Z,    ucs4ToUTF8N,    ucs4ToUTF8AllocZ,
    ucs4ToUTF8AllocN, false,       ucs4ToUTF8MaxZ, ucs4ToUTF8MaxN, modelUcs4ToUtf8};

const Direction<char16_t, unsigned char> UTF16_TO_UTF8 = {
    utf16To8Z,      utf16To8N,
    utf16To8Z,      utf16To8N,
    utf16To8AllocZ, [](const char16_t* in, int count, bool, int* length) { return utf16To8AllocN(in, count, length); },
    true,           utf16To8MaxZ,
    utf16To8MaxN,   modelUtf16To8};

const Direction<unsigned char, char16_t> UTF8_TO_UTF16 = {utf8To16Z,
                                                          utf8To16N,
                                                          utf8To16Z,
                                                          utf8To16N,
                                                          utf8To16AllocZ,
                                                          [](const unsigned char* in, int count, bool, int* length) { return utf8To16AllocN(in, count, length); },
                                                          true,
                                                          utf8To16MaxZ,
                                                          utf8To16MaxN,
                                                          modelUtf8To16};

const Direction<unsigned char, char32_t> UTF8_TO_UCS4 = {
    utf8ToUCS4Z,      utf8ToUCS4N, utf8ToUCS4Z,    nullptr, utf8ToUCS4AllocZ,
    utf8ToUCS4AllocN, false,       utf8ToUCS4MaxZ, nullptr, modelUtf8ToUcs4};

// ---- Checks of whole conversions ----

template <class Dir>
class WholeCheck {
public:
    using In = typename Dir::In;
    using Out = typename Dir::Out;

    WholeCheck(const Dir& direction, const Text<In>& text, const Text<Out>& expected, size_t offset)
        : m_direction(direction), m_strText(text), m_strExpected(expected), m_nOffset(offset) {}

    void run() const {
        if (m_strText.find(typename Text<In>::value_type(0)) == Text<In>::npos)
            terminatedForms();
        countedForms();
    }

private:
    void terminatedForms() const {
        const Input<In> input(m_strText, true, m_nOffset);
        for (bool terminate : {false, true})
            buffer("buffer Z", terminate, [&](Out* out) { return m_direction.bufferZ(input.begin(), out, terminate); });
        string("string Z", [&](Text<Out>& out) { m_direction.stringZ(input.begin(), out); });
        alloc("Alloc Z", true, [&](int* length) { return m_direction.allocZ(input.begin(), length); });
    }

    void countedForms() const {
        const Input<In> input(m_strText, false, m_nOffset);
        const int count = input.size();
        for (bool terminate : {false, true}) {
            buffer("buffer N", terminate,
                   [&](Out* out) { return m_direction.bufferN(input.begin(), count, out, terminate); });
            alloc("Alloc N", terminate || m_direction.bAllocNAlwaysTerminates,
                  [&](int* length) { return m_direction.allocN(input.begin(), count, terminate, length); });
        }
        if (m_direction.stringN)
            string("string N", [&](Text<Out>& out) { m_direction.stringN(input.begin(), count, out); });
    }

    template <class Call>
    void buffer(const char* form, bool terminate, Call call) const {
        const size_t size = m_strExpected.size();
        Output<Out> out(size + (terminate ? 1 : 0));
        ASSERT_EQ(static_cast<int>(size), call(out.data())) << form << trace();
        EXPECT_EQ(m_strExpected, out.text(size)) << form << trace();
        if (terminate) {
            EXPECT_EQ(Out(0), out[size]) << form << trace();
        }
        EXPECT_TRUE(out.untouchedFrom(size + (terminate ? 1 : 0))) << form << trace();
    }

    template <class Call>
    void string(const char* form, Call call) const {
        Text<Out> out(7, typename Text<Out>::value_type('#'));  // old content has to go
        call(out);
        EXPECT_EQ(m_strExpected, out) << form << trace();
    }

    template <class Call>
    void alloc(const char* form, bool terminated, Call call) const {
        int length = -1;
        std::unique_ptr<Out, decltype(&std::free)> result(call(&length), &std::free);
        ASSERT_NE(nullptr, result.get()) << form << trace();
        ASSERT_EQ(static_cast<int>(m_strExpected.size()), length) << form << trace();
        EXPECT_EQ(m_strExpected, Text<Out>(result.get(), result.get() + length)) << form << trace();
        if (terminated) {
            EXPECT_EQ(Out(0), result.get()[length]) << form << trace();
        }
        std::unique_ptr<Out, decltype(&std::free)> unmeasured(call(nullptr), &std::free);
        EXPECT_NE(nullptr, unmeasured.get()) << form << trace();
    }

    std::string trace() const {
        return " of " + testing::PrintToString(m_strText) + " at offset " + std::to_string(m_nOffset);
    }

    const Dir& m_direction;
    const Text<In>& m_strText;
    const Text<Out>& m_strExpected;
    size_t m_nOffset;
};

template <class Dir>
void checkWhole(const Dir& direction, const Text<typename Dir::In>& text, const Text<typename Dir::Out>& expected,
                size_t offset = 0) {
    WholeCheck<Dir>(direction, text, expected, offset).run();
}

// ---- Checks of bounded conversions ----

// checkPieces calls `call` (input pointer, output buffer, room) until it moves no more and checks every return: whole
// steps only, none too many and none too few. It gives the number of steps taken in all.
template <class In, class Out, class Call>
size_t checkPieces(const Text<In>& text, const std::vector<Step<Out>>& steps, const In* in, size_t room, Call call) {
    auto trace = [&] { return testing::PrintToString(text) + " with room for " + std::to_string(room); };
    size_t nStep = 0;
    for (;;) {
        Output<Out> out(room);
        const In* const before = in;
        const int written = call(in, out.data(), static_cast<int>(room));
        Text<Out> expected;
        size_t nConsumed = 0;
        while (nStep < steps.size() && expected.size() + steps[nStep].out.size() <= room) {
            expected += steps[nStep].out;
            nConsumed += steps[nStep++].nConsumed;
        }
        EXPECT_EQ(static_cast<int>(expected.size()), written) << trace();
        EXPECT_EQ(static_cast<long>(nConsumed), in - before) << trace();
        EXPECT_TRUE(out.untouchedFrom(expected.size())) << trace();
        if (testing::Test::HasFailure())
            return nStep;
        EXPECT_EQ(expected, out.text(expected.size())) << trace();
        if (in == before)
            return nStep;
    }
}

template <class Dir>
void checkMax(const Dir& direction, const Text<typename Dir::In>& text, size_t room, size_t offset = 0) {
    using In = typename Dir::In;
    using Out = typename Dir::Out;
    const std::vector<Step<Out>> steps = direction.model(text);
    size_t needed = 0;
    for (const Step<Out>& step : steps)
        needed = std::max(needed, step.out.size());
    if (text.find(typename Text<In>::value_type(0)) == Text<In>::npos) {
        const Input<In> input(text, true, offset);
        const size_t taken = checkPieces<In, Out>(text, steps, input.begin(), room, direction.maxZ);
        EXPECT_TRUE(room < needed || taken == steps.size()) << testing::PrintToString(text);
    }
    if (direction.maxN) {
        const Input<In> input(text, false, offset);
        int count = input.size();
        auto call = [&](const In*& in, Out* out, int max) {
            const int written = direction.maxN(in, count, out, max);
            EXPECT_EQ(input.begin() + input.size() - in, count) << testing::PrintToString(text);
            return written;
        };
        const size_t taken = checkPieces<In, Out>(text, steps, input.begin(), room, call);
        EXPECT_TRUE(room < needed || taken == steps.size()) << testing::PrintToString(text);
    }
}

template <class Dir>
struct Row {
    Text<typename Dir::In> in;
    Text<typename Dir::Out> out;
    const char* why;
};

template <class Dir>
void checkTable(const Dir& direction, const std::vector<Row<Dir>>& rows) {
    for (const Row<Dir>& row : rows) {
        SCOPED_TRACE(row.why);
        EXPECT_EQ(row.out, joined(direction.model(row.in)));  // the model is held against the table too
        checkWhole(direction, row.in, row.out);
        for (size_t room = 0; room <= row.out.size() + 1; ++room)
            checkMax(direction, row.in, room);
    }
}

// ---- The tables ----

using Ucs4Row = Row<Direction<char32_t, unsigned char>>;
using Utf16Row = Row<Direction<char16_t, unsigned char>>;
using To16Row = Row<Direction<unsigned char, char16_t>>;
using ToUcs4Row = Row<Direction<unsigned char, char32_t>>;

TEST(Ucs4ToUtf8, EncodesInOneToFourBytesAndDropsWhatIsNoCharacter) {
    const auto u32 = [](std::initializer_list<char32_t> units) { return std::u32string(units); };
    checkTable(UCS4_TO_UTF8, std::vector<Ucs4Row>{
                                 {U"", "", "empty"},
                                 {U"A", "A", "ASCII"},
                                 {u32({1, 0x7F}), "\x01\x7F", "ends of one byte"},
                                 {u32({0x80, 0x7FF}), "\xC2\x80\xDF\xBF", "ends of two bytes"},
                                 {u32({0x800, 0xFFFF}), "\xE0\xA0\x80\xEF\xBF\xBF", "ends of three bytes"},
                                 {u32({0x10000, 0x10FFFE}), "\xF0\x90\x80\x80\xF4\x8F\xBF\xBE", "four bytes"},
                                 {u32({0x10FFFF}), "\xF4\x8F\xBF\xBF", "the last code point, though counted as 0"},
                                 {u32({0x41, 0xD800, 0x42}), "AB", "surrogate dropped"},
                                 {u32({0xD7FF, 0xE000}), "\xED\x9F\xBF\xEE\x80\x80", "neighbours of the surrogates"},
                                 {u32({0xDBFF, 0xDC00, 0xDFFF}), "", "no pairs in UCS-4"},
                                 {u32({0x41, 0x110000, 0x42}), "AB", "too large, dropped"},
                                 {u32({0x7FFFFFFF, 0x80000000, 0x43, 0xFFFFFFFF}), "C", "sign bit"},
                                 {u32({0x41, 0, 0x42}), "A\0B"s, "zero in counted text"},
                             });
}

TEST(Utf16ToUtf8, JoinsPairsAndDropsLoneSurrogates) {
    const auto u16 = [](std::initializer_list<char16_t> units) { return std::u16string(units); };
    checkTable(UTF16_TO_UTF8,
               std::vector<Utf16Row>{
                   {u"", "", "empty"},
                   {u"A", "A", "ASCII"},
                   {u16({1, 0x7F, 0x80, 0x7FF}), "\x01\x7F\xC2\x80\xDF\xBF", "one and two bytes"},
                   {u16({0x800, 0xFFFF}), "\xE0\xA0\x80\xEF\xBF\xBF", "three bytes"},
                   {u16({0xD7FF, 0xE000}), "\xED\x9F\xBF\xEE\x80\x80", "neighbours of the surrogates"},
                   {u16({0xD800, 0xDC00}), "\xF0\x90\x80\x80", "first pair"},
                   {u16({0xD83D, 0xDE00}), "\xF0\x9F\x98\x80", "a pair"},
                   {u16({0xDBFF, 0xDFFF}), "\xF4\x8F\xBF\xBF", "last pair"},
                   {u16({0xD800}), "", "high surrogate at the end"},
                   {u16({'A', 0xDBFF}), "A", "high surrogate at the end"},
                   {u16({0xD800, 'A'}), "A", "the unit behind a lone high surrogate is read normally"},
                   {u16({0xD800, 0xE9}), "\xC3\xA9", "the same with two bytes"},
                   {u16({0xD800, 0xD83D, 0xDE00}), "\xF0\x9F\x98\x80", "high surrogate before a pair"},
                   {u16({0xDC00}), "", "lone low surrogate"},
                   {u16({'A', 0xDFFF, 'B'}), "AB", "lone low surrogate"},
                   {u16({0xDC00, 0xD800}), "", "wrong order"},
                   {u16({0xD83D, 0xDE00, 0xDE00, 'x'}), "\xF0\x9F\x98\x80x", "low surrogate behind a pair"},
                   {u16({'A', 0, 'B'}), "A\0B"s, "zero in counted text"},
                   {u16({0xD800, 0, 0xDC00}), "\0"s, "zero between the halves"},
               });
}

TEST(Utf8ToUtf16, FollowsTheTableOfLeadBytes) {
    const auto u16 = [](std::initializer_list<char16_t> units) { return std::u16string(units); };
    checkTable(UTF8_TO_UTF16, std::vector<To16Row>{
                                  {"", u"", "empty"},
                                  {"A\x01\x7F", u"A\u0001\u007F", "ASCII"},
                                  {"\x80", u"", "stray continuation byte"},
                                  {"A\x80\xBF\x42", u"AB", "stray continuation bytes vanish"},
                                  {"\xC2\x80\xDF\xBF", u"\u0080\u07FF", "ends of two bytes"},
                                  {"\xC0\x80", u"?", "overlong zero"},
                                  {"\xC1\xBF\x41", u"?A", "overlong, both bytes consumed"},
                                  {"\xC3", u"?", "two bytes cut off"},
                                  {"\xC3\x41", u"?A", "continuation byte missing"},
                                  {"\xC3\xC3\xA9", u"?\u00E9", "lead byte in place of it"},
                                  {"\xC3\0A"s, u"?\0A"s, "zero in place of it"},
                                  {"\xE0\xA0\x80\xEF\xBF\xBF", u"\u0800\uFFFF", "ends of three bytes"},
                                  {"\xE0\x80\x80", u"?", "overlong zero in three"},
                                  {"\xE0\x9F\xBF\x41", u"?A", "overlong, three bytes consumed"},
                                  {"\xED\xA0\x80", u16({0xD800}), "surrogate value passes"},
                                  {"\xED\xBF\xBF", u16({0xDFFF}), "surrogate value passes"},
                                  {"\xED\xA0\xBD\xED\xB8\x80", u16({0xD83D, 0xDE00}), "surrogate values make a pair"},
                                  {"\xE2", u"?", "three bytes cut off"},
                                  {"\xE2\x82", u"?", "three bytes cut off, the continuation byte is then stray"},
                                  {"\xE2\x41", u"?A", "second byte wrong"},
                                  {"\xE2\x82\x41", u"?A", "third byte wrong"},
                                  {"\xE2\x82\xE2\x82\xAC", u"?\u20AC", "lead byte in place of the third"},
                                  {"\xE2\x82\0"s, u"?\0"s, "zero in place of the third"},
                                  {"\xF0\x90\x80\x80", u16({0xD800, 0xDC00}), "first pair"},
                                  {"\xF0\x9F\x98\x80", u16({0xD83D, 0xDE00}), "a pair"},
                                  {"\xF4\x8F\xBF\xBF", u16({0xDBFF, 0xDFFF}), "last pair"},
                                  {"\xF4\x90\x80\x80", u"??", "above 0x10FFFF"},
                                  {"\xF7\xBF\xBF\xBF\x41", u"??A", "largest form, four bytes consumed"},
                                  {"\xF0\x80\x80\x80\x41", u"??A", "overlong zero in four"},
                                  {"\xF0\x8F\xBF\xBF", u"??", "overlong 0xFFFF"},
                                  {"\xF0", u"??", "four bytes cut off"},
                                  {"\xF0\x9F", u"??", "four bytes cut off"},
                                  {"\xF0\x9F\x98", u"??", "four bytes cut off"},
                                  {"\xF0\x41", u"??A", "second byte wrong"},
                                  {"\xF0\x9F\x41", u"??A", "third byte wrong"},
                                  {"\xF0\x9F\x98\x41", u"??A", "fourth byte wrong"},
                                  {"\xF0\x9F\x98\xC3\xA9", u"??\u00E9", "lead byte in place of the fourth"},
                                  {"\xF8", u"??", "no lead byte"},
                                  {"\xFF", u"??", "no lead byte"},
                                  {"\xF8\x88\x80\x80\x80", u"??", "five-byte form: the rest is stray"},
                                  {"\xFE\xFF", u"????", "byte order mark of UTF-16"},
                                  {"\xEF\xBB\xBF", u"\uFEFF", "byte order mark kept"},
                                  {"A\0B"s, u"A\0B"s, "zero in counted text"},
                              });
}

TEST(Utf8ToUcs4, FollowsTheTableOfLeadBytesWithOneUnitEach) {
    const auto u32 = [](std::initializer_list<char32_t> units) { return std::u32string(units); };
    checkTable(UTF8_TO_UCS4, std::vector<ToUcs4Row>{
                                 {"", U"", "empty"},
                                 {"A\x80\xBF\x42", U"AB", "stray continuation bytes vanish"},
                                 {"\xC2\x80\xDF\xBF", u32({0x80, 0x7FF}), "ends of two bytes"},
                                 {"\xC0\x80\x41", U"?A", "overlong"},
                                 {"\xC3", U"?", "two bytes cut off"},
                                 {"\xC3\x41", U"?A", "continuation byte missing"},
                                 {"\xE0\xA0\x80\xEF\xBF\xBF", u32({0x800, 0xFFFF}), "ends of three bytes"},
                                 {"\xE0\x9F\xBF\x41", U"?A", "overlong"},
                                 {"\xED\xA0\x80\xED\xBF\xBF", u32({0xD800, 0xDFFF}), "surrogate values pass"},
                                 {"\xED\xA0\xBD\xED\xB8\x80", u32({0xD83D, 0xDE00}), "they are not joined"},
                                 {"\xE2\x82", U"?", "three bytes cut off"},
                                 {"\xE2\x82\x41", U"?A", "third byte wrong"},
                                 {"\xF0\x90\x80\x80", u32({0x10000}), "first of four bytes"},
                                 {"\xF4\x8F\xBF\xBF", u32({0x10FFFF}), "last code point"},
                                 {"\xF4\x90\x80\x80", U"?", "above 0x10FFFF, four bytes consumed"},
                                 {"\xF4\x90\x80\x80\x41", U"?A", "above 0x10FFFF, four bytes consumed"},
                                 {"\xF0\x80\x80\x80\x41", U"?A", "overlong"},
                                 {"\xF0\x9F\x98", U"?", "four bytes cut off"},
                                 {"\xF0\x9F\x98\x41", U"?A", "fourth byte wrong"},
                                 {"\xF8\xFF", U"??", "no lead bytes"},
                                 {"A\0B"s, U"A\0B"s, "zero in counted text"},
                             });
}

TEST(Unicode, EveryCodePointIsTheSameInAllDirections) {
    std::u32string all;
    for (char32_t cp = 1; cp <= 0x10FFFF; ++cp) {
        if (cp < 0xD800 || cp > 0xDFFF)
            all += cp;
    }
    std::string utf8, fromUtf16;
    std::u16string utf16;
    std::u32string back;
    ucs4ToUTF8Z(all.c_str(), utf8);
    EXPECT_EQ(joined(modelUcs4ToUtf8(all)), utf8);
    const auto* bytes = reinterpret_cast<const unsigned char*>(utf8.c_str());
    utf8ToUCS4Z(bytes, back);
    EXPECT_TRUE(all == back);
    utf8To16Z(bytes, utf16);
    utf16To8Z(utf16.c_str(), fromUtf16);
    EXPECT_TRUE(utf8 == fromUtf16);
}

TEST(Utf8ToUtf16, EveryPairOfBytesFollowsTheModel) {
    for (int first = 0; first < 256 && !HasFailure(); ++first) {
        for (int second = 0; second < 256; ++second) {
            const std::string text = {static_cast<char>(first), static_cast<char>(second)};
            checkWhole(UTF8_TO_UTF16, text, joined(modelUtf8To16(text)));
            checkWhole(UTF8_TO_UCS4, text, joined(modelUtf8ToUcs4(text)));
        }
    }
}

// ---- Empty and odd arguments ----

template <class Dir>
void checkCountsThatMeanEmpty(const Dir& direction) {
    using In = typename Dir::In;
    using Out = typename Dir::Out;
    const Input<In> text(Text<In>(3, 'a'), false, 0);
    for (const In* start : {text.begin(), static_cast<const In*>(nullptr)}) {
        for (int count : {0, -1, std::numeric_limits<int>::min()}) {
            Output<Out> out(1);
            EXPECT_EQ(0, direction.bufferN(start, count, out.data(), true));
            EXPECT_EQ(Out(0), out[0]);
            EXPECT_TRUE(out.untouchedFrom(1));
            int length = -1;
            std::unique_ptr<Out, decltype(&std::free)> result(direction.allocN(start, count, true, &length),
                                                              &std::free);
            ASSERT_NE(nullptr, result.get());
            EXPECT_EQ(0, length);
            EXPECT_EQ(Out(0), result.get()[0]);
            if (direction.stringN) {
                Text<Out> string(5, 'x');
                direction.stringN(start, count, string);
                EXPECT_TRUE(string.empty());
            }
            if (direction.maxN) {
                const In* in = start;
                int remaining = count;
                EXPECT_EQ(0, direction.maxN(in, remaining, out.data(), 1));
                EXPECT_EQ(start, in);
                EXPECT_LE(remaining, 0);
            }
        }
    }
}

TEST(Unicode, CountOfZeroOrLessIsTheEmptyText) {
    checkCountsThatMeanEmpty(UCS4_TO_UTF8);
    checkCountsThatMeanEmpty(UTF16_TO_UTF8);
    checkCountsThatMeanEmpty(UTF8_TO_UTF16);
    checkCountsThatMeanEmpty(UTF8_TO_UCS4);
}

template <class Dir>
void checkNegativeRoom(const Dir& direction) {
    const Input<typename Dir::In> input(Text<typename Dir::In>(3, 'a'), true, 0);
    for (int room : {0, -1, std::numeric_limits<int>::min()}) {
        Output<typename Dir::Out> out(0);
        const auto* in = input.begin();
        EXPECT_EQ(0, direction.maxZ(in, out.data(), room));
        EXPECT_EQ(input.begin(), in);
        int count = 3;
        if (direction.maxN) {
            EXPECT_EQ(0, direction.maxN(in, count, out.data(), room));
        }
        EXPECT_EQ(3, count);
        EXPECT_EQ(input.begin(), in);
        EXPECT_TRUE(out.untouchedFrom(0));
    }
}

TEST(Unicode, NoRoomWritesNothing) {
    checkNegativeRoom(UCS4_TO_UTF8);
    checkNegativeRoom(UTF16_TO_UTF8);
    checkNegativeRoom(UTF8_TO_UTF16);
    checkNegativeRoom(UTF8_TO_UCS4);
}

// ---- Bounded forms ----

TEST(Utf8To16Max, RoomForOneUnitLeavesTheInputOnALeadByteFromF0Up) {
    for (const std::string& text : {"\xF0\x9F\x98\x80"s, "\xF4\x90\x80\x80"s, "\xF0"s, "\xF0\x41"s, "\xF8"s, "\xFF"s}) {
        const Input<unsigned char> input(text, true, 0);
        const unsigned char* in = input.begin();
        int count = input.size();
        char16_t out[2] = {'#', '#'};
        EXPECT_EQ(0, utf8To16MaxZ(in, out, 1));
        EXPECT_EQ(input.begin(), in);
        EXPECT_EQ(0, utf8To16MaxN(in, count, out, 1));
        EXPECT_EQ(input.begin(), in);
        EXPECT_EQ(input.size(), count);
        EXPECT_EQ(0, utf8To16MaxNW(in, count, out, 1));
        EXPECT_EQ(input.begin(), in);
        EXPECT_EQ(input.size(), count);
        EXPECT_EQ(u'#', out[0]);
        EXPECT_EQ(2, utf8To16MaxZ(in, out, 2));
    }
}

TEST(Utf8ToUcs4Max, FourByteSequenceGoesIntoOneUnit) {
    const Input<unsigned char> input("\xF0\x9F\x98\x80", true, 0);
    const unsigned char* in = input.begin();
    char32_t out = 0;
    EXPECT_EQ(1, utf8ToUCS4MaxZ(in, &out, 1));
    EXPECT_EQ(U'\U0001F600', out);
    EXPECT_EQ(input.begin() + 4, in);
}

TEST(Utf8To16MaxN, ReplacesACutOffSequenceAndGoesOn) {
    const Input<unsigned char> input("\xE2\x82", false, 0);
    const unsigned char* in = input.begin();
    int count = 2;
    char16_t out[4] = {};
    EXPECT_EQ(1, utf8To16MaxN(in, count, out, 4));
    EXPECT_EQ(u'?', out[0]);
    EXPECT_EQ(input.begin() + 2, in);
    EXPECT_EQ(0, count);
}

TEST(Utf8To16MaxNW, StopsOnlyAtASequenceCutOffByTheEnd) {
    const struct {
        std::string in;
        std::u16string out;
        int remaining;
        const char* why;
    } rows[] = {
        {"", u"", 0, "empty"},
        {"abc", u"abc", 0, "nothing cut off"},
        {"\xE2\x82", u"", 2, "two of three"},
        {"\xE2", u"", 1, "one of three"},
        {"\xC3", u"", 1, "one of two"},
        {"\xF0", u"", 1, "one of four"},
        {"\xF0\x9F", u"", 2, "two of four"},
        {"\xF0\x9F\x98", u"", 3, "three of four"},
        {"ab\xF0\x9F\x98", u"ab", 3, "behind other text"},
        {"\xE2\x82\xAC\xE2\x82", u"\u20AC", 2, "behind a whole one"},
        {"\xE2\x82\x41", u"?A", 0, "wrong, not cut off"},
        {"\xE2\x41", u"?A", 0, "wrong at the second byte, no matter that the third is missing"},
        {"\xF0\x9F\x41", u"??A", 0, "wrong at the third byte"},
        {"\xC3\xC3", u"?", 1, "the first is wrong, the second cut off"},
        {"\xE2\xE2\x82", u"?", 2, "the first is wrong, the second cut off"},
        {"\xC0\x80", u"?", 0, "overlong and whole"},
        {"\xF4\x90\x80\x80", u"??", 0, "too large and whole"},
        {"\xF8", u"??", 0, "no lead byte"},
        {"\xFF\x80", u"??", 0, "no lead byte"},
        {"\x80", u"", 0, "stray continuation byte"},
        {"\xE2\0"s, u"?\0"s, 0, "a zero is a wrong byte, not the end"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.why);
        const Input<unsigned char> input(row.in, false, 0);
        const unsigned char* in = input.begin();
        int count = input.size();
        Output<char16_t> out(8);
        const int written = utf8To16MaxNW(in, count, out.data(), 8);
        EXPECT_EQ(row.out, out.text(static_cast<size_t>(written)));
        EXPECT_EQ(row.remaining, count);
        EXPECT_EQ(input.begin() + input.size() - row.remaining, in);
        EXPECT_TRUE(out.untouchedFrom(row.out.size()));
    }
}

// checkMaxNW: as utf8To16MaxN with every room, but for the sequence cut off by the end.
void checkMaxNW(const std::string& text, size_t room) {
    std::vector<Step<char16_t>> steps = modelUtf8To16(text);
    const auto cutOff = std::find_if(steps.begin(), steps.end(), [](const auto& step) { return step.bCutOff; });
    steps.erase(cutOff, steps.end());
    const Input<unsigned char> input(text, false, 0);
    int count = input.size();
    checkPieces<unsigned char, char16_t>(
        text, steps, input.begin(), room, [&](const unsigned char*& in, char16_t* out, int max) {
            const int written = utf8To16MaxNW(in, count, out, max);
            EXPECT_EQ(input.begin() + input.size() - in, count) << testing::PrintToString(text);
            return written;
        });
}

// ---- Random text against the model ----

const int RANDOM_CASES = rounds(100000);

class RandomText {
public:
    explicit RandomText(unsigned seed) : m_random(seed) {}

    size_t below(size_t limit) { return m_random() % limit; }

    std::string utf8(size_t pieces, bool zeros) {
        static const std::string BYTES =
            "A~\x7F\x80\x8F\x90\x9F\xA0\xBF\xC0\xC1\xC2\xDF\xE0\xE1\xED\xEF\xF0\xF1\xF4\xF5\xF7\xF8\xFF\x80\xBF"s;
        std::string text;
        for (size_t i = 0; i < pieces; ++i) {
            switch (below(4)) {
            case 0:
                text += encodeUTF8(codePoint());
                break;
            case 1:
                text += "plain ascii run"s.substr(below(15));
                break;
            default:
                text += zeros && below(8) == 0 ? '\0' : BYTES[below(BYTES.size())];
            }
        }
        return zeros ? text : withoutZeros(text);
    }

    std::u16string utf16(size_t pieces, bool zeros) {
        static const char16_t UNITS[] = {0xD800, 0xDBFF, 0xDC00, 0xDFFF, 0xD7FF, 0xE000, 0x7F,
                                         0x80,   0x7FF,  0x800,  0xFFFF, 0xD83D, 0xDE00};
        std::u16string text;
        for (size_t i = 0; i < pieces; ++i) {
            switch (below(4)) {
            case 0:
                text += encodeUTF16(codePoint());
                break;
            case 1:
                text += u"plain ascii run"s.substr(below(15));
                break;
            default:
                text += zeros && below(8) == 0 ? u'\0' : UNITS[below(std::size(UNITS))];
            }
        }
        return zeros ? text : withoutZeros(text);
    }

    std::u32string ucs4(size_t pieces, bool zeros) {
        std::u32string text;
        for (size_t i = 0; i < pieces; ++i)
            text += zeros && below(8) == 0 ? 0 : codePoint();
        return zeros ? text : withoutZeros(text);
    }

private:
    char32_t codePoint() {
        static const char32_t EDGES[] = {1,      0x7F,   0x80,    0x7FF,    0x800,    0xD7FF,   0xD800,     0xDFFF,
                                         0xE000, 0xFFFF, 0x10000, 0x10FFFE, 0x10FFFF, 0x110000, 0x7FFFFFFF, 0xFFFFFFFF};
        switch (below(4)) {
        case 0:
            return EDGES[below(std::size(EDGES))];
        case 1:
            return static_cast<char32_t>(below(0x80));
        case 2:
            return static_cast<char32_t>(below(0x3000));
        default:
            return static_cast<char32_t>(below(0x120000));
        }
    }

    template <class String>
    static String withoutZeros(String text) {
        text.erase(std::remove(text.begin(), text.end(), typename String::value_type(0)), text.end());
        return text;
    }

    std::mt19937 m_random;
};

template <class Dir, class Next>
void checkRandom(const Dir& direction, Next next) {
    RandomText random(20240229);
    for (int i = 0; i < RANDOM_CASES && !testing::Test::HasFailure(); ++i) {
        const size_t pieces = random.below(7);  // drawn one by one: arguments have no order
        const Text<typename Dir::In> text = next(random, pieces, i % 2 == 0);
        const size_t offset = random.below(4);
        checkWhole(direction, text, joined(direction.model(text)), offset);
        checkMax(direction, text, random.below(9), offset);
    }
}

TEST(Ucs4ToUtf8, RandomTextIsTheSameInAllForms) {
    checkRandom(UCS4_TO_UTF8, [](RandomText& random, size_t pieces, bool zeros) { return random.ucs4(pieces, zeros); });
}

TEST(Utf16ToUtf8, RandomTextIsTheSameInAllForms) {
    checkRandom(UTF16_TO_UTF8,
                [](RandomText& random, size_t pieces, bool zeros) { return random.utf16(pieces, zeros); });
}

TEST(Utf8ToUtf16, RandomTextIsTheSameInAllForms) {
    checkRandom(UTF8_TO_UTF16,
                [](RandomText& random, size_t pieces, bool zeros) { return random.utf8(pieces, zeros); });
}

TEST(Utf8ToUcs4, RandomTextIsTheSameInAllForms) {
    checkRandom(UTF8_TO_UCS4, [](RandomText& random, size_t pieces, bool zeros) { return random.utf8(pieces, zeros); });
}

TEST(Utf8To16MaxNW, RandomTextWithEveryRoomFollowsTheModel) {
    RandomText random(20240301);
    for (int i = 0; i < RANDOM_CASES && !HasFailure(); ++i)
        checkMaxNW(random.utf8(random.below(7), true), random.below(6));
}

// streamed converts `text` block by block and adds what remained to the next block; the end is flushed with
// utf8To16MaxN.
std::u16string streamed(const std::string& text, RandomText& random) {
    std::u16string all;
    std::string pending;
    char16_t out[5];
    for (size_t at = 0; at < text.size();) {
        const size_t block = 1 + random.below(5);
        pending += text.substr(at, block);
        at += block;
        const Input<unsigned char> input(pending, false, 0);
        const unsigned char* in = input.begin();
        int count = input.size();
        while (const int written = utf8To16MaxNW(in, count, out, static_cast<int>(2 + random.below(4))))
            all.append(out, static_cast<size_t>(written));
        pending.erase(0, pending.size() - static_cast<size_t>(count));
        EXPECT_LE(pending.size(), 3u) << testing::PrintToString(text);
    }
    const Input<unsigned char> rest(pending, false, 0);
    const unsigned char* in = rest.begin();
    int count = rest.size();
    while (const int written = utf8To16MaxN(in, count, out, 5))
        all.append(out, static_cast<size_t>(written));
    return all;
}

TEST(Utf8To16MaxNW, BlocksOfAnySizeGiveTheWholeConversion) {
    RandomText random(20240302);
    for (int i = 0; i < RANDOM_CASES && !HasFailure(); ++i) {
        const std::string text = random.utf8(random.below(8), true);
        EXPECT_EQ(joined(modelUtf8To16(text)), streamed(text, random)) << testing::PrintToString(text);
    }
}

// ---- Runs of ASCII and long texts ----

template <class Dir>
void checkAsciiRuns(const Dir& direction, const Text<typename Dir::In>& other) {
    using In = typename Dir::In;
    for (size_t offset = 0; offset < 16 && !testing::Test::HasFailure(); ++offset) {
        for (size_t length = 0; length <= 64; ++length) {
            Text<In> run;
            for (size_t i = 0; i < length; ++i)
                run += typename Text<In>::value_type('!' + (i + offset) % 90);
            for (const Text<In>& text : {run, run + other + Text<In>(3, 'z'), other + run}) {
                checkWhole(direction, text, joined(direction.model(text)), offset);
                for (size_t room : {length, length + 1, length + 64})
                    checkMax(direction, text, room, offset);
            }
        }
    }
}

TEST(Unicode, AsciiRunsOfAnyLengthAndAlignment) {
    checkAsciiRuns(UTF16_TO_UTF8, u"\u00E9");
    checkAsciiRuns(UTF16_TO_UTF8, u"\U0001F600");
    checkAsciiRuns(UTF8_TO_UTF16, "\xC3\xA9");
    checkAsciiRuns(UTF8_TO_UTF16, "\xF0\x9F\x98\x80");
    checkAsciiRuns(UTF8_TO_UTF16, "\x80");
    checkAsciiRuns(UTF8_TO_UCS4, "\xE2\x82\xAC");
    checkAsciiRuns(UCS4_TO_UTF8, U"\u20AC");
}

TEST(Utf8To16MaxNW, AsciiRunsOfAnyLength) {
    for (size_t length = 0; length <= 64; ++length) {
        for (const char* tail : {"", "\xC3\xA9", "\xF0\x9F\x98", "\xE2z"}) {
            for (size_t room : {length - std::min<size_t>(length, 1), length, length + 1, length + 2, length + 64})
                checkMaxNW(std::string(length, 'k') + tail, room);
        }
    }
}

// checkLong goes to the ends of the pieces in which long texts are converted and well beyond them.
template <class Dir>
void checkLong(const Dir& direction, const std::vector<Text<typename Dir::In>>& patterns) {
    using In = typename Dir::In;
    for (const Text<In>& pattern : patterns) {
        for (size_t around : {256, 512, 1024, 3000}) {
            for (size_t size = around - 3; size <= around + 3; ++size) {
                for (size_t shift = 0; shift < 3; ++shift) {
                    Text<In> text(shift, 'a');
                    while (text.size() < size)
                        text += pattern;
                    checkWhole(direction, text, joined(direction.model(text)));
                    if (testing::Test::HasFailure())
                        return;
                }
            }
        }
    }
}

TEST(Unicode, LongTextsAreWhole) {
    checkLong(UCS4_TO_UTF8, {U"b", U"\u00E9", U"\u20AC", U"\U0001F600", std::u32string{0xD800, 'b', 0x110000}});
    checkLong(UTF16_TO_UTF8, {u"b", u"\u00E9", u"\u20AC", u"\U0001F600", std::u16string{0xD800, 'b', 0xDC00}});
    checkLong(UTF8_TO_UTF16, {"b", "\xC3\xA9", "\xE2\x82\xAC", "\xF0\x9F\x98\x80", "\xFF", "\x80\x62", "\xE2\x82"});
    checkLong(UTF8_TO_UCS4, {"b", "\xC3\xA9", "\xF0\x9F\x98\x80", "\xFF", "\x80\x62"});
}

TEST(Ucs4ToUtf8, LastCodePointIsSafeInAnyNumberThoughItCountsAsZero) {
    for (size_t number : {1, 2, 255, 256, 257, 1000, 5000}) {
        for (size_t others : {0, 1, 300, 1019, 1020, 1021, 1024, 1500}) {
            std::u32string text(number, U'\U0010FFFF');
            text.insert(number / 2, others, U'x');
            checkWhole(UCS4_TO_UTF8, text, joined(modelUcs4ToUtf8(text)));
            checkMax(UCS4_TO_UTF8, text, 1024);
        }
    }
}

}  // namespace
