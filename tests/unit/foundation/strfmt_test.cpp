// strfmt_test.cpp: formatted text at and around the sizes at which the buffer grows, exhausted memory, errno texts.

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "foundation/strfmt.h"
#include "unit/exact_buffer.h"

namespace {

// Lengths around the first buffer of 512 bytes and its doubles.
const size_t LENGTHS[] = {0,    1,    2,    255,  256,  510,  511,  512,   513,   514,    767,
                          1022, 1023, 1024, 1025, 2047, 2048, 4095, 10000, 65535, 100000, 1048576};

[[gnu::format(printf, 1, 2)]] std::string throughList(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    std::string result = strvfmt(format, arguments);
    va_end(arguments);
    return result;
}

// formattedTwice uses one argument list for two texts, which only works if the list itself is left alone.
[[gnu::format(printf, 3, 4)]] void formattedTwice(std::string& first, std::string& second, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    first = strvfmt(format, arguments);
    second = strvfmt(format, arguments);
    va_end(arguments);
}

std::string errnoText(int errnum) {
    char buffer[256];
    return strerror_r(errnum, buffer, sizeof buffer);
}

std::string patterned(size_t length) {
    std::string text(length, ' ');
    for (size_t i = 0; i < length; i++) {
        text[i] = static_cast<char>('!' + i % 89);
    }
    return text;
}

// ReturningNull lets the sanitizers' allocators, in a test program started while it lives, fail with a null pointer as
// malloc does.
class ReturningNull {
public:
    ReturningNull() {
        for (size_t i = 0; i < 2; i++) {
            const char* old = getenv(NAMES[i]);
            m_bHad[i] = old != nullptr;
            m_strOld[i] = old ? old : "";
            setenv(NAMES[i], (m_strOld[i] + ":allocator_may_return_null=1").c_str(), 1);
        }
    }
    ~ReturningNull() {
        for (size_t i = 0; i < 2; i++) {
            if (m_bHad[i]) {
                setenv(NAMES[i], m_strOld[i].c_str(), 1);
            } else {
                unsetenv(NAMES[i]);
            }
        }
    }
    ReturningNull(const ReturningNull&) = delete;
    ReturningNull& operator=(const ReturningNull&) = delete;

private:
    static constexpr const char* NAMES[] = {"ASAN_OPTIONS", "TSAN_OPTIONS"};
    bool m_bHad[2];
    std::string m_strOld[2];
};

rlim_t mappedBytes() {
    unsigned long pages = 0;
    FILE* file = fopen("/proc/self/statm", "r");
    if (!file || fscanf(file, "%lu", &pages) != 1) {
        _exit(3);
    }
    fclose(file);
    return static_cast<rlim_t>(pages) * static_cast<rlim_t>(sysconf(_SC_PAGESIZE));
}

// exitWithin runs `call` with at most `spare` more bytes of memory to map, and ends this process: with 0 if the text
// was empty, 1 if it was not. The full limit is given back before the end, for the leak check's own needs.
template <class Call>
[[noreturn]] void exitWithin(rlim_t spare, Call call) {
    rlimit full{};
    getrlimit(RLIMIT_AS, &full);
    const rlimit tight{mappedBytes() + spare, full.rlim_max};
    if (setrlimit(RLIMIT_AS, &tight) != 0) {
        _exit(4);
    }
    const bool empty = call().empty();
    setrlimit(RLIMIT_AS, &full);
    exit(empty ? 0 : 1);
}

constexpr rlim_t MEBIBYTE = 1 << 20;

class StrfmtWithoutMemory : public testing::Test {
protected:
    // The death test starts the program again, so that it reads the environment. GoogleTest restores the flag.
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

private:
    ReturningNull m_oReturningNull;
};

}  // namespace

TEST(Strfmt, FormatsAsPrintf) {
    EXPECT_EQ(strfmt("plain"), "plain");
    EXPECT_EQ(strfmt("%s", ""), "");
    EXPECT_EQ(strfmt("%d%%", 50), "50%");
    EXPECT_EQ(strfmt("%s=%d, 0x%04x, %c, %.3f", "key", -7, 0xab, 'z', 1.5), "key=-7, 0x00ab, z, 1.500");
    EXPECT_EQ(strfmt("%lu %lld %zu", ULONG_MAX, LLONG_MIN, SIZE_MAX),
              "18446744073709551615 -9223372036854775808 18446744073709551615");
    EXPECT_EQ(strfmt("[%-6s|%6s|%.2s|%*d]", "ab", "cd", "xyz", 5, 42), "[ab    |    cd|xy|   42]");
    EXPECT_EQ(strfmt("%s", "bytes \xc3\xa4 \xff stay"), "bytes \xc3\xa4 \xff stay");
}

TEST(Strfmt, EmptyFormatGivesEmptyText) {
    const std::string format;
    EXPECT_EQ(strfmt("%s%s", format.c_str(), format.c_str()), "");
}

TEST(Strfmt, HoldsNulByteOfCharacterConversion) {
    EXPECT_EQ(strfmt("a%cb", 0), std::string("a\0b", 3));
}

TEST(Strfmt, TextOfAnyLengthIsWhole) {
    for (const size_t length : LENGTHS) {
        const std::string text = patterned(length);
        const ExactBuffer<char> exact(text, true);
        EXPECT_TRUE(strfmt("%s", exact.data()) == text) << "length " << length;
    }
}

TEST(Strfmt, EveryLengthAroundTheFirstBufferIsWhole) {
    for (size_t length = 500; length <= 530; length++) {
        const std::string text = patterned(length);
        EXPECT_EQ(strfmt("%s", text.c_str()), text);
        EXPECT_EQ(throughList("%s", text.c_str()), text);
    }
}

TEST(Strfmt, LongTextRestartsAllArguments) {
    const std::string text = patterned(2000);
    EXPECT_EQ(strfmt("%d %s %ld %s %c %.1f", 1, text.c_str(), 2L, "end", 'x', 0.5), "1 " + text + " 2 end x 0.5");
}

TEST(Strvfmt, FormatsAsPrintf) {
    EXPECT_EQ(throughList("plain"), "plain");
    EXPECT_EQ(throughList("%s=%d, 0x%04x, %c, %.3f", "key", -7, 0xab, 'z', 1.5), "key=-7, 0x00ab, z, 1.500");
}

TEST(Strvfmt, TextOfAnyLengthIsWhole) {
    for (const size_t length : LENGTHS) {
        const std::string text = patterned(length);
        const ExactBuffer<char> exact(text, true);
        EXPECT_TRUE(throughList("%s", exact.data()) == text) << "length " << length;
    }
}

// More arguments than registers carry, integers and doubles, and a text that needs a second try.
TEST(Strvfmt, LongTextReadsAllArgumentsAgain) {
    const std::string text = patterned(1500);
    EXPECT_EQ(throughList("%d %d %d %d %d %d %d %d %.0f %.0f %.0f %.0f %.0f %.0f %.0f %.0f %.0f %s %ld", 1, 2, 3, 4, 5,
                          6, 7, 8, 1.0, 2.0, 3.0, 4.0, 5.0, 6.0, 7.0, 8.0, 9.0, text.c_str(), 10L),
              "1 2 3 4 5 6 7 8 1 2 3 4 5 6 7 8 9 " + text + " 10");
}

TEST(Strvfmt, CallersListIsNotConsumed) {
    for (const size_t length : {size_t{10}, size_t{5000}}) {
        const std::string text = patterned(length);
        std::string first;
        std::string second;
        formattedTwice(first, second, "%s %d", text.c_str(), 77);
        EXPECT_EQ(first, text + " 77");
        EXPECT_EQ(second, first);
    }
}

TEST_F(StrfmtWithoutMemory, TextThatDoesNotFitIntoMemoryIsEmpty) {
    EXPECT_EXIT(
        {
            const std::string text(96 * MEBIBYTE, 'x');
            exitWithin(48 * MEBIBYTE, [&] { return strfmt("%s", text.c_str()); });
        },
        testing::ExitedWithCode(0), "");
    EXPECT_EXIT(
        {
            const std::string text(96 * MEBIBYTE, 'x');
            exitWithin(48 * MEBIBYTE, [&] { return throughList("%s", text.c_str()); });
        },
        testing::ExitedWithCode(0), "");
}

#ifndef __SANITIZE_ADDRESS__  // its operator new ends the process
TEST_F(StrfmtWithoutMemory, TextThatOnlyTheBufferFindsMemoryForIsEmpty) {
    EXPECT_EXIT(
        {
            const std::string text(96 * MEBIBYTE, 'x');
            exitWithin(150 * MEBIBYTE, [&] { return strfmt("%s", text.c_str()); });
        },
        testing::ExitedWithCode(0), "");
}

// takeAllMemory takes what can be had without mapping more, in blocks down to the smallest; where nothing limits it, it
// stops at 64 MiB.
void takeAllMemory() {
    rlim_t taken = 0;
    for (size_t size = 1 << 16; size >= sizeof(void*); size -= sizeof(void*)) {
        void* volatile block = nullptr;  // else the compiler may leave the allocation out
        do {
            block = malloc(size);
            taken += size;
        } while (block != nullptr && taken < 64 * MEBIBYTE);
    }
}

TEST_F(StrfmtWithoutMemory, BufferThatFindsNoMemoryGivesEmptyText) {
    const auto withoutMemory = [] {
        takeAllMemory();
        return strfmt("text");
    };
    EXPECT_EXIT(exitWithin(0, withoutMemory), testing::ExitedWithCode(0), "");
}
#endif

// A character that the locale has no bytes for fails at every size, so the buffer grows until memory ends.
TEST_F(StrfmtWithoutMemory, FormatThatAlwaysFailsGivesEmptyText) {
    EXPECT_EXIT(exitWithin(48 * MEBIBYTE, [] { return strfmt("%lc", static_cast<wint_t>(0x20AC)); }),
                testing::ExitedWithCode(0), "");
    EXPECT_EXIT(exitWithin(48 * MEBIBYTE, [] { return throughList("%lc", static_cast<wint_t>(0x20AC)); }),
                testing::ExitedWithCode(0), "");
}

// The harness itself: a text that fits must be seen as one.
TEST_F(StrfmtWithoutMemory, TextThatFitsIsWholeUnderTheSameLimit) {
    EXPECT_EXIT(exitWithin(48 * MEBIBYTE, [] { return strfmt("%s", patterned(100000).c_str()); }),
                testing::ExitedWithCode(1), "");
}

TEST(Stringerror, GivesTheTextOfStrerror) {
    for (int errnum = 0; errnum <= 140; errnum++) {
        EXPECT_EQ(stringerror(errnum), errnoText(errnum));
    }
    EXPECT_EQ(stringerror(ENOENT), "No such file or directory");
    EXPECT_EQ(stringerror(EACCES), "Permission denied");
    EXPECT_EQ(stringerror(0), "Success");
}

TEST(Stringerror, UnknownNumberIsNamedInTheText) {
    EXPECT_EQ(stringerror(99999), "Unknown error 99999");
    EXPECT_EQ(stringerror(-1), "Unknown error -1");
    EXPECT_EQ(stringerror(INT_MAX), "Unknown error 2147483647");
    EXPECT_EQ(stringerror(INT_MIN), "Unknown error -2147483648");
}

TEST(Stringerror, ResultBelongsToTheCaller) {
    const std::string first = stringerror(12345);
    const std::string second = stringerror(23456);
    EXPECT_EQ(first, "Unknown error 12345");
    EXPECT_EQ(second, "Unknown error 23456");
}
