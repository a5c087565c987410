// orv_error_test.cpp: the table of errors, the texts made from it, shortened names and the converters.

#include <gtest/gtest.h>

#include <cerrno>
#include <iterator>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "foundation/strfmt.h"
#include "runtime/orv_error.h"

namespace {

using namespace std::string_literals;

static_assert(std::is_base_of_v<std::runtime_error, ORVError>);
static_assert(std::has_virtual_destructor_v<ORVError>);
static_assert(std::is_nothrow_copy_constructible_v<ORVError>, "errors are thrown by value");

struct Row {
    ORVError::Errors code;
    int number;
    uint32_t scope;
    const char* text;
};

const Row TABLE[] = {
    {ORVError::NetworkError, 0, 0, "Network Error"},
    {ORVError::NetworkUnknown, 1, 0, "Unknown Network Error"},
    {ORVError::HostLookupFailed, 2, 0, "Server or proxy hostname lookup failed"},
    {ORVError::ServerAuthFailed, 3, 0, "User authentication failed on server"},
    {ORVError::SrpAuthFailed, 4, 0, "SRP User authentication failed on server"},
    {ORVError::PskAuthFailed, 5, 0, "PSK authentication failed on server"},
    {ORVError::ProxyAuthFailed, 6, 0, "User authentication failed on proxy"},
    {ORVError::ConnectFailed, 7, 0, "Could not connect to server"},
    {ORVError::ConnectionTimedOut, 8, 0, "Connection timed out"},
    {ORVError::PreconditionFailed, 9, 0, "Precondition failed"},
    {ORVError::MustRetry, 10, 0, "Must retry request"},
    {ORVError::Redirect, 11, 0, "Redirect"},
    {ORVError::ConnectionLost, 12, 0, "Connection lost"},
    {ORVError::NoNetworkResource, 13, 0, "No Network Resource available"},
    {ORVError::SslUpgradeFailed, 14, 0, "SSL upgrade failed"},
    {ORVError::TooManyRedirects, 15, 0, "Too many redirects"},
    {ORVError::SystemError, 16, 1, "System Error"},
    {ORVError::SystemUnknown, 17, 1, "Unknown System Error"},
    {ORVError::TcpSocketFailed, 18, 1, "Cannot open TCP Socket"},
    {ORVError::NoMemory, 19, 1, "No Memory"},
    {ORVError::NullPointer, 20, 1, "Null pointer unexpected"},
    {ORVError::DirectXError, 21, 1, "DirectX error"},
    {ORVError::OpenGLError, 22, 1, "OpenGL error"},
    {ORVError::WindowsError, 23, 1, "Windows specific error"},
    {ORVError::CairoError, 24, 1, "Cairo error"},
    {ORVError::TimedOut, 25, 1, "Timed out"},
    {ORVError::NotSupported, 26, 1, "Not Supported"},
    {ORVError::FileError, 27, 2, "File Error"},
    {ORVError::FileUnknown, 28, 2, "Unknown File Error"},
    {ORVError::HttpError, 29, 2, "HTTP Error"},
    {ORVError::FileNotFound, 30, 2, "File not found"},
    {ORVError::FileAccessDenied, 31, 2, "File cannot be accessed"},
    {ORVError::FileReadOnly, 32, 2, "File is read only"},
    {ORVError::FileExists, 33, 2, "File Exist"},
    {ORVError::FileContentBad, 34, 2, "File content is incorrect"},
    {ORVError::FileNameBad, 35, 2, "Filename or path is incorrect"},
    {ORVError::FileReadError, 36, 2, "File read error"},
    {ORVError::FileWriteError, 37, 2, "File write error"},
    {ORVError::FileRetry, 38, 2, "Retry"},
    {ORVError::FileNotSupported, 39, 2, "Not Supported"},
    {ORVError::FileAuthFailed, 40, 2, "Authentication failed"},
    {ORVError::MethodNotAllowed, 41, 2, "Method not allowed"},
    {ORVError::BadRequest, 42, 2, "Bad request"},
    {ORVError::InsufficientStorage, 43, 2, "Insufficient Storage"},
    {ORVError::InternalServerError, 44, 2, "Internal Server Error"},
    {ORVError::InputError, 45, 3, "Input Error"},
    {ORVError::InputUnknown, 46, 3, "Unknown Input Error"},
    {ORVError::EmptyInput, 47, 3, "Empthy input string not allowed"},
    {ORVError::StringTooLong, 48, 3, "String too long"},
    {ORVError::StringNotValid, 49, 3, "String not valid"},
    {ORVError::InvalidState, 50, 3, "The operation cannot be executed in the current state"},
    {ORVError::CanceledByUser, 51, 5, "Canceled by user"},
    {ORVError::UnknownError, 52, 6, "Unknown Network Error"},
};

ORVError::Errors codeOf(int number) {
    return static_cast<ORVError::Errors>(number);
}

// repeated returns `count` times the bytes of one code point.
std::string repeated(std::string_view codePoint, size_t count) {
    std::string text;
    for (size_t i = 0; i < count; i++) {
        text += codePoint;
    }
    return text;
}

constexpr std::string_view UMLAUT = "\xc3\xa4";         // U+00E4
constexpr std::string_view EURO = "\xe2\x82\xac";       // U+20AC
constexpr std::string_view CLEF = "\xf0\x9d\x84\x9e";   // U+1D11E
constexpr std::string_view COMBINING = "\x61\xcc\x88";  // an "a" and a mark of its own: two code points
constexpr const char* NAME_OF_101 = "01234567890123456789012345678901234567890123456789"
                                    "x"
                                    "01234567890123456789012345678901234567890123456789";
constexpr const char* NAME_SHORTENED = "01234567890123456789012345678901234567890123456789"
                                       "..."
                                       "01234567890123456789012345678901234567890123456789";

// truncated calls both overloads, which must agree, the second on a copy of its own.
std::string truncated(const std::string& name, int maxLength) {
    const std::string result = ORVError::truncateName(name, maxLength);
    std::string moved = name;
    EXPECT_EQ(ORVError::truncateName(std::move(moved), maxLength), result);
    return result;
}

void expectError(const ORVError& error, ORVError::Errors code, const std::string& text) {
    EXPECT_EQ(error.getCode(), code);
    EXPECT_STREQ(error.what(), text.c_str());
}

}  // namespace

// --- The table ---

TEST(ORVError, CodesHaveTheirNumbers) {
    int number = 0;
    for (const Row& row : TABLE) {
        EXPECT_EQ(row.number, number++);
        EXPECT_EQ(static_cast<int>(row.code), row.number);
    }
    EXPECT_EQ(number, 53);
}

TEST(ORVError, EachCodeHasItsTextAndScope) {
    for (const Row& row : TABLE) {
        EXPECT_EQ(ORVError::toString(row.code), row.text);
        EXPECT_EQ(ORVError::toScope(row.code), row.scope);
        EXPECT_EQ(ORVError::ms_oErrors.desc(row.number), row.text);
        EXPECT_EQ(ORVError::ms_oErrors.scope(row.number), row.scope);
    }
}

TEST(ORVError, TableEndsWithANullText) {
    bool seen[std::size(TABLE)] = {};
    const ORVError::ORVErrorDesc::Description* description = ORVError::ms_aErrors;
    for (; description->text; ++description) {
        ASSERT_LT(description->code, std::size(TABLE));
        EXPECT_FALSE(std::exchange(seen[description->code], true)) << "code " << description->code << " twice";
        EXPECT_STREQ(description->text, TABLE[description->code].text);
        EXPECT_EQ(description->scope, TABLE[description->code].scope);
    }
    EXPECT_EQ(description - ORVError::ms_aErrors, 53);
}

TEST(ORVError, LastEntryReusesTheTextOfCode1) {
    EXPECT_EQ(ORVError::toString(codeOf(52)), ORVError::toString(codeOf(1)));
    EXPECT_EQ(ORVError::toScope(codeOf(52)), 6u);
}

TEST(ORVError, ScopeOfCode51Is5) {
    EXPECT_EQ(ORVError::toScope(codeOf(51)), 5u);
}

TEST(ORVError, NoCodeHasScope4) {
    for (int number = 0; number < 60; number++) {
        EXPECT_NE(ORVError::toScope(codeOf(number)), 4u);
    }
}

TEST(ORVError, Code53AndCode54AreEmptyRows) {
    for (int number : {53, 54}) {
        EXPECT_EQ(ORVError::toString(codeOf(number)), "");
        EXPECT_EQ(ORVError::toScope(codeOf(number)), 0u);
        EXPECT_EQ(ORVError::ms_oErrors.desc(number), "");
        EXPECT_EQ(ORVError::ms_oErrors.scope(number), 0u);
        EXPECT_EQ(ORVError::toString(codeOf(number), "x"), " : x");
        expectError(ORVError(codeOf(number)), codeOf(number), "");
    }
}

TEST(ORVError, CodesFrom55OnCountAsNetworkError) {
    for (int number : {55, 56, 1000, 0x7fffffff}) {
        EXPECT_EQ(ORVError::toString(codeOf(number)), "Network Error");
        EXPECT_EQ(ORVError::toString(codeOf(number), "x"), "Network Error : x");
        EXPECT_EQ(ORVError::toScope(codeOf(number)), 0u);
        EXPECT_EQ(ORVError::ms_oErrors.desc(number), "Network Error");
        EXPECT_EQ(ORVError::ms_oErrors.scope(number), 0u);
    }
}

TEST(ORVError, CodeOutsideTheTableIsKept) {
    expectError(ORVError(codeOf(1000), "x"), codeOf(1000), "Network Error : x");
}

TEST(ORVErrorDesc, RowsMayHaveAnyOrder) {
    const ORVError::ORVErrorDesc::Description rows[] = {{2, 7, "two"}, {0, 5, "zero"}, {1, 6, "one"}, {0, 0, nullptr}};
    const ORVError::ORVErrorDesc desc(rows);
    EXPECT_EQ(desc.desc(0), "zero");
    EXPECT_EQ(desc.desc(1), "one");
    EXPECT_EQ(desc.desc(2), "two");
    EXPECT_EQ(desc.scope(2), 7u);
}

TEST(ORVErrorDesc, HasTwoMoreRowsThanTheTable) {
    const ORVError::ORVErrorDesc::Description rows[] = {{0, 5, "zero"}, {1, 6, "one"}, {0, 0, nullptr}};
    const ORVError::ORVErrorDesc desc(rows);
    for (int number : {2, 3}) {
        EXPECT_EQ(desc.desc(number), "");
        EXPECT_EQ(desc.scope(number), 0u);
    }
    EXPECT_EQ(desc.desc(4), "zero");
    EXPECT_EQ(desc.scope(4), 5u);
}

TEST(ORVErrorDesc, RowThatNoEntryFillsIsEmpty) {
    const ORVError::ORVErrorDesc::Description rows[] = {{0, 5, "zero"}, {2, 7, "two"}, {0, 0, nullptr}};
    const ORVError::ORVErrorDesc desc(rows);
    EXPECT_EQ(desc.desc(1), "");
    EXPECT_EQ(desc.scope(1), 0u);
    EXPECT_EQ(desc.desc(2), "two");
}

TEST(ORVErrorDesc, EmptyTableHasEmptyTexts) {
    const ORVError::ORVErrorDesc::Description rows[] = {{0, 0, nullptr}};
    const ORVError::ORVErrorDesc desc(rows);
    for (int number : {0, 1, 2, 99}) {
        EXPECT_EQ(desc.desc(number), "");
        EXPECT_EQ(desc.scope(number), 0u);
    }
}

// --- Errors and their texts ---

TEST(ORVError, WithoutDetailHasNoSeparator) {
    expectError(ORVError(ORVError::NoMemory), ORVError::NoMemory, "No Memory");
}

TEST(ORVError, DropsLineBreaksAtTheEndOfTheDetail) {
    expectError(ORVError(ORVError::StringNotValid, "x\r\n"), ORVError::StringNotValid, "String not valid : x");
}

TEST(ORVError, EmptyDetailCountsAsNone) {
    expectError(ORVError(ORVError::StringNotValid, ""), ORVError::StringNotValid, "String not valid");
    EXPECT_EQ(ORVError::toString(ORVError::StringNotValid, ""), "String not valid");
}

TEST(ORVError, DetailFollowsTheText) {
    const struct {
        std::string detail;
        std::string text;
        const char* why;
    } rows[] = {
        {"x", "String not valid : x", "plain"},
        {"x\n", "String not valid : x", "a line feed"},
        {"x\r", "String not valid : x", "a carriage return"},
        {"x\n\r\r\n\n", "String not valid : x", "all of them, in any order"},
        {"\r\n", "String not valid : ", "nothing remains but the separator does"},
        {"\n", "String not valid : ", "one line feed alone"},
        {"a\nb\r\n", "String not valid : a\nb", "line breaks inside stay"},
        {"\r\nx", "String not valid : \r\nx", "line breaks in front stay"},
        {"x\n ", "String not valid : x\n ", "a blank ends the search"},
        {"x \t\v\n", "String not valid : x \t\v", "no other white space is dropped"},
        {" : ", "String not valid :  : ", "the separator as detail"},
        {"100 %s %n", "String not valid : 100 %s %n", "no format"},
        {"\xc3\xa4\xff", "String not valid : \xc3\xa4\xff", "bytes are handed on"},
        {"a\0b\n"s, "String not valid : a\0b"s, "a NUL byte is a byte"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(ORVError::toString(ORVError::StringNotValid, row.detail), row.text) << row.why;
        EXPECT_STREQ(ORVError(ORVError::StringNotValid, row.detail).what(), row.text.c_str()) << row.why;
    }
}

TEST(ORVError, LongDetailIsWhole) {
    const std::string detail(100000, 'x');
    EXPECT_EQ(ORVError(ORVError::FileError, detail + "\r\n").what(), "File Error : " + detail);
}

TEST(ORVError, IsCaughtAsRuntimeErrorWithItsText) {
    try {
        throw ORVError(ORVError::FileExists, "f");
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "File Exist : f");
        const auto* own = dynamic_cast<const ORVError*>(&error);
        ASSERT_NE(own, nullptr);
        EXPECT_EQ(own->getCode(), ORVError::FileExists);
    }
}

TEST(ORVError, CopyHasTextAndCode) {
    const ORVError error(ORVError::TimedOut, "x");
    ORVError copy(ORVError::NoMemory);
    copy = error;
    expectError(copy, ORVError::TimedOut, "Timed out : x");
    expectError(ORVError(error), ORVError::TimedOut, "Timed out : x");
}

TEST(ORVError, ThreadsMayMakeErrorsAtTheSameTime) {
    std::vector<std::string> texts(4);
    std::vector<std::thread> threads;
    for (std::string& text : texts) {
        threads.emplace_back([&text] {
            for (const Row& row : TABLE) {
                text += std::string(ORVError(row.code, "d").what()) + std::to_string(ORVError::toScope(row.code));
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (const std::string& text : texts) {
        EXPECT_EQ(text, texts[0]);
        EXPECT_GT(text.size(), 500u);
    }
}

// --- truncateName ---

TEST(ORVErrorTruncateName, Name101CodePointsLongHas103Afterwards) {
    EXPECT_EQ(truncated(NAME_OF_101, 100), NAME_SHORTENED);
    EXPECT_EQ(truncated(NAME_OF_101, 100).size(), 103u);
}

TEST(ORVErrorTruncateName, Name100CodePointsLongComesBackUnchanged) {
    const std::string name = std::string(NAME_OF_101).substr(1);
    EXPECT_EQ(truncated(name, 100), name);
    EXPECT_EQ(truncated(repeated(CLEF, 100), 100), repeated(CLEF, 100)) << "400 bytes, 100 code points";
}

TEST(ORVErrorTruncateName, NeverSplitsMultiByteCharacters) {
    for (const std::string_view codePoint : {UMLAUT, EURO, CLEF}) {
        EXPECT_EQ(truncated(repeated(codePoint, 101), 100), repeated(codePoint, 50) + "..." + repeated(codePoint, 50));
        EXPECT_EQ(truncated(repeated(codePoint, 1000), 7), repeated(codePoint, 3) + "..." + repeated(codePoint, 3));
    }
    EXPECT_EQ(truncated("a" + repeated(EURO, 2) + "-" + repeated(CLEF, 2) + "b", 6),
              "a" + repeated(EURO, 2) + "..." + repeated(CLEF, 2) + "b");
}

TEST(ORVErrorTruncateName, CountsCodePointsAndNotCharacters) {
    EXPECT_EQ(truncated(repeated(COMBINING, 50), 100), repeated(COMBINING, 50));
    EXPECT_EQ(truncated(repeated(COMBINING, 2), 2), "a...\xcc\x88");
}

TEST(ORVErrorTruncateName, KeepsHalfOfTheLimitAtEachEnd) {
    const struct {
        const char* name;
        int maxLength;
        const char* result;
    } rows[] = {
        {"abcdef", 7, "abcdef"},
        {"abcdef", 6, "abcdef"},
        {"abcdef", 5, "ab...ef"},
        {"abcdef", 4, "ab...ef"},
        {"abcdef", 3, "a...f"},
        {"abcdef", 2, "a...f"},
        {"abcdef", 1, "..."},
        {"abcdef", 0, "..."},
        {"ab", 1, "..."},
        {"a", 1, "a"},
        {"a", 0, "..."},
        {"", 0, ""},
        {"", 100, ""},
        {"abc", 2, "a...c"},
        {"abcd", 0x7fffffff, "abcd"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(truncated(row.name, row.maxLength), row.result) << row.name << " at " << row.maxLength;
    }
}

TEST(ORVErrorTruncateName, TakesNamesThatAreNotUtf8) {
    const struct {
        std::string name;
        int maxLength;
        std::string result;
        const char* why;
    } rows[] = {
        {"\xfc\xe4z.txt", 7, "\xfc\xe4z.txt", "Latin-1, short enough: the bytes are left as they are"},
        {"\xfc\xe4z.txt", 6, "??z...txt", "Latin-1: a question mark for each letter that is kept"},
        {"M\xfcller", 4, "M?...er", "Latin-1 in front"},
        {"Spa\xdf", 2, "S...?", "Latin-1 at the end"},
        {"M\xfcller", 2, "M...r", "Latin-1 in the middle goes like any letter"},
        {repeated("\xe4", 101), 100, std::string(50, '?') + "..." + std::string(50, '?'), "lead bytes alone"},
        {"\xa7\xa7wxyz\xa7", 4, "\xa7\xa7wxyz\xa7", "stray continuation bytes don't count"},
        {"\xa7\xa7wxyz\xa7", 3, "w...z", "nor are they kept"},
        {repeated("\x80", 1000), 0, repeated("\x80", 1000), "no code point at all"},
        {"wxyz\xe2\x82", 4, "wx...z?", "cut off at the end"},
        {"\xe2\x82wxyz", 4, "?w...yz", "cut off by a letter"},
        {"\xc0\xafxyz\xf4\x90\x80\x80", 4, "?x...z?", "longer than need be, beyond the last code point"},
        {"\xed\xa0\x80vwxyz", 4, "v...yz", "a surrogate counts and vanishes"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(truncated(row.name, row.maxLength), row.result) << row.why;
    }
}

TEST(ORVErrorTruncateName, NulByteInANameIsACodePoint) {
    EXPECT_EQ(truncated("ab\0cd"s, 5), "ab\0cd"s);
    EXPECT_EQ(truncated("ab\0cd"s, 4), "ab...cd");
    EXPECT_EQ(truncated("a\0bcde\0"s, 4), "a\0...e\0"s);
    EXPECT_EQ(truncated("\0\0\0"s, 2), "\0...\0"s);
}

TEST(ORVErrorTruncateName, LeavesTheNameOfTheCallerAlone) {
    const std::string name = NAME_OF_101;
    ORVError::truncateName(name, 10);
    EXPECT_EQ(name, NAME_OF_101);
}

// --- convertAPRError ---

TEST(ORVErrorConvertAPRError, KnownStatusHasItsCode) {
    const struct {
        int status;
        int number;
        const char* name;
        ORVError::Errors code;
    } rows[] = {
        {13, EACCES, "EACCES", ORVError::FileAccessDenied},
        {17, EEXIST, "EEXIST", ORVError::FileExists},
        {36, ENAMETOOLONG, "ENAMETOOLONG", ORVError::StringTooLong},
        {2, ENOENT, "ENOENT", ORVError::FileNotFound},
        {20, ENOTDIR, "ENOTDIR", ORVError::FileNotFound},
        {12, ENOMEM, "ENOMEM", ORVError::NoMemory},
        {88, ENOTSOCK, "ENOTSOCK", ORVError::TcpSocketFailed},
        {111, ECONNREFUSED, "ECONNREFUSED", ORVError::ConnectFailed},
        {71, EPROTO, "EPROTO", ORVError::ConnectionLost},
        {103, ECONNABORTED, "ECONNABORTED", ORVError::ConnectionLost},
        {104, ECONNRESET, "ECONNRESET", ORVError::ConnectionLost},
        {70007, 70007, "APR_TIMEUP", ORVError::TimedOut},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.status, row.number) << row.name;
        expectError(ORVError::convertAPRError(row.status, nullptr), row.code, ORVError::toString(row.code));
        expectError(ORVError::convertAPRError(row.status, "a"), row.code, ORVError::toString(row.code) + " : a");
        expectError(ORVError::convertAPRError(row.status, ""), row.code, ORVError::toString(row.code));
    }
}

TEST(ORVErrorConvertAPRError, MissingFileWithAndWithoutName) {
    EXPECT_STREQ(ORVError::convertAPRError(2, "a").what(), "File not found : a");
    EXPECT_STREQ(ORVError::convertAPRError(2, nullptr).what(), "File not found");
}

TEST(ORVErrorConvertAPRError, UnknownStatusHasTheTextOfAPRInFrontOfTheName) {
    const struct {
        int status;
        const char* text;
    } rows[] = {
        {0, "Success"},
        {1, "Operation not permitted"},
        {5, "Input/output error"},
        {110, "Connection timed out"},
        {70008, "Partial results are valid but processing is incomplete"},
        {70014, "End of file found"},
        {20002, "A new pool could not be created."},
        // cut at the 63 bytes that fit into the buffer
        {70002, "Your code just forked, and you are currently executing in the p"},
    };
    for (const auto& row : rows) {
        const std::string text = std::string("Unknown System Error : ") + row.text;
        expectError(ORVError::convertAPRError(row.status, nullptr), ORVError::SystemUnknown, text);
        expectError(ORVError::convertAPRError(row.status, "a"), ORVError::SystemUnknown, text + ": a");
        expectError(ORVError::convertAPRError(row.status, ""), ORVError::SystemUnknown, text + ": ");
    }
}

TEST(ORVErrorConvertAPRError, LongNameIsShortenedTo100) {
    EXPECT_STREQ(ORVError::convertAPRError(2, NAME_OF_101).what(),
                 (std::string("File not found : ") + NAME_SHORTENED).c_str());
    EXPECT_STREQ(ORVError::convertAPRError(5, NAME_OF_101).what(),
                 (std::string("Unknown System Error : Input/output error: ") + NAME_SHORTENED).c_str());
}

// --- convertPosixError ---

TEST(ORVErrorConvertPosixError, NamePrecedesTheSystemsWording) {
    expectError(ORVError::convertPosixError(ORVError::FileReadError, 2, "f"), ORVError::FileReadError,
                "File read error : f: No such file or directory");
}

TEST(ORVErrorConvertPosixError, WithoutNameHasTheSystemsWordingAlone) {
    expectError(ORVError::convertPosixError(ORVError::FileReadError, EACCES, nullptr), ORVError::FileReadError,
                "File read error : Permission denied");
}

TEST(ORVErrorConvertPosixError, EmptyNameIsAName) {
    expectError(ORVError::convertPosixError(ORVError::FileReadError, 2, ""), ORVError::FileReadError,
                "File read error : : No such file or directory");
}

TEST(ORVErrorConvertPosixError, KeepsTheCallersCodeWhateverTheNumber) {
    for (const int errnum : {0, 2, 12, 13, 17, 20, 36, 88, 111, 99999, -1}) {
        expectError(ORVError::convertPosixError(ORVError::MustRetry, errnum, "n"), ORVError::MustRetry,
                    "Must retry request : n: " + stringerror(errnum));
    }
}

TEST(ORVErrorConvertPosixError, LongNameIsShortenedTo100) {
    EXPECT_EQ(ORVError::convertPosixError(ORVError::FileReadError, 2, NAME_OF_101).what(),
              std::string("File read error : ") + NAME_SHORTENED + ": No such file or directory");
}
