// protocol_errors_test.cpp: the errors that carry URIs, and the three converters: each code of their tables, each code
// that isn't in them, and the texts.

#include <gtest/gtest.h>

#include <climits>
#include <exception>
#include <initializer_list>
#include <iterator>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <utility>
#include <vector>

#include "foundation/uri.h"
#include "runtime/orv_error.h"
#include "runtime/protocol_errors.h"

namespace {

using namespace std::string_literals;

static_assert(std::is_base_of_v<ORVError, ORVAuthError>);
static_assert(std::is_base_of_v<ORVError, ORVRedirectError>);
static_assert(!std::is_base_of_v<ORVAuthError, ORVRedirectError>);
static_assert(std::is_copy_constructible_v<ORVAuthError> && std::is_copy_assignable_v<ORVAuthError>);
static_assert(std::is_copy_constructible_v<ORVRedirectError> && std::is_copy_assignable_v<ORVRedirectError>);

// Codes from -5 up to 1000 are tried, those beyond at samples.
constexpr int FIRST = -5;
constexpr int LAST = 1000;
constexpr int FAR[] = {INT_MIN, -1000000, 1001, 65536, 65536 + 404, INT_MAX};

ORVError::Errors codeOf(int number) {
    return static_cast<ORVError::Errors>(number);
}

// Outcome is what a converter makes of a code.
struct Outcome {
    int code;
    bool auth = false;
};

using Outcomes = std::map<int, Outcome>;

// Row lists the codes that have one outcome.
struct Row {
    std::initializer_list<int> from;
    Outcome outcome;
};

Outcomes outcomesOf(std::initializer_list<Row> rows) {
    Outcomes outcomes;
    for (const Row& row : rows) {
        for (const int code : row.from)
            EXPECT_TRUE(outcomes.emplace(code, row.outcome).second) << code << " is listed twice";
    }
    return outcomes;
}

Outcomes ftpOutcomes() {
    return outcomesOf({
        {{5, 6, 15}, {2}},
        {{7, 10, 35, 59}, {7}},
        {{9, 25}, {40, true}},
        {{12, 28}, {8}},
        {{18, 19, 23, 26}, {9}},
        {{64}, {14}},
        {{67}, {3, true}},
        {{78}, {30}},
    });
}

Outcomes curlOutcomes() {
    return outcomesOf({
        {{1, 3, 43, 48, 54}, {49}},
        {{2, 93}, {50}},
        {{4, 41, 53, 63}, {26}},
        {{5, 6}, {2}},
        {{7, 35}, {7}},
        {{8, 16, 18, 23, 26, 34, 42, 52, 55, 56, 61, 75, 76, 88, 92}, {9}},
        {{9, 25}, {40, true}},
        {{27}, {19}},
        {{28}, {8}},
        {{33, 36}, {39}},
        {{47}, {15}},
        {{58, 59, 60, 64, 77, 82, 83, 90, 91}, {14}},
        {{65, 81}, {10}},
        {{67}, {3, true}},
        {{70}, {43}},
        {{73}, {33}},
        {{78}, {30}},
        {{80}, {12}},
    });
}

Outcomes httpOutcomes() {
    return outcomesOf({
        {{404, 410}, {30}},
        {{400}, {42}},
        {{403}, {41}},
        {{401}, {40, true}},
        {{407}, {6, true}},
        {{412}, {33}},
        {{405}, {39}},
        {{501}, {39}},
        {{500}, {44}},
        {{507}, {43}},
        {{408, 409, 421, 429, 502, 503, 504}, {38}},
    });
}

// outcomeFor is the outcome for any code; those that have none of their own share `other`.
Outcome outcomeFor(const Outcomes& outcomes, int code, int other) {
    const auto found = outcomes.find(code);
    return found == outcomes.end() ? Outcome{other} : found->second;
}

std::vector<int> codesToTry() {
    std::vector<int> codes(std::begin(FAR), std::end(FAR));
    for (int code = FIRST; code <= LAST; ++code)
        codes.push_back(code);
    return codes;
}

URI sampleURI() {
    return URI::fromString("http://name/a");
}

const char* const SAMPLE_TEXT = "http://name/a";

// thrownBy runs a converter and hands out what it threw.
template <class Job>
std::exception_ptr thrownBy(Job job) {
    try {
        job();
    } catch (...) {
        return std::current_exception();
    }
    ADD_FAILURE() << "nothing was thrown";
    return nullptr;
}

template <class Job>
std::string textOf(Job job) {
    try {
        job();
    } catch (const ORVError& error) {
        return error.what();
    }
    return "nothing was thrown";
}

std::string fullText(int code, const std::string& detail) {
    return ORVError::toString(codeOf(code)) + " : " + detail;
}

// expectThrown checks class, code and text, and of an ORVAuthError URI and extra text.
template <class Job>
void expectThrown(const Outcome& outcome, const std::string& detail, const URI& uri, const std::string& extra,
                  Job job) {
    try {
        job();
        ADD_FAILURE() << "nothing was thrown";
    } catch (const ORVAuthError& error) {
        EXPECT_TRUE(outcome.auth);
        EXPECT_EQ(codeOf(outcome.code), error.getCode());
        EXPECT_EQ(fullText(outcome.code, detail), error.what());
        EXPECT_EQ(uri.toString(), error.getURI().toString());
        EXPECT_EQ(0, uri.compare(error.getURI()));
        EXPECT_EQ(extra, error.getExtra());
        EXPECT_TRUE(typeid(ORVAuthError) == typeid(error));
    } catch (const ORVError& error) {
        EXPECT_FALSE(outcome.auth);
        EXPECT_EQ(codeOf(outcome.code), error.getCode());
        EXPECT_EQ(fullText(outcome.code, detail), error.what());
        EXPECT_TRUE(typeid(ORVError) == typeid(error));
    }
}

std::string repeated(const std::string& piece, int count) {
    std::string text;
    while (count-- > 0)
        text += piece;
    return text;
}

std::string ftpText(const URI& uri, const char* detail) {
    return textOf([&] { ORVError::throwFTPError(0, "GET", uri, detail); });
}

std::string curlText(const URI& uri, const char* detail) {
    return textOf([&] { ORVError::throwCurlError(0, "GET", uri, detail); });
}

std::string httpText(const URI& uri, const std::string& reason) {
    return textOf([&] { ORVError::throwHTTPError(418, "GET", uri, "extra", reason); });
}

}  // namespace

// --- Codes ---

TEST(ProtocolErrorsFTP, EveryResultHasItsCode) {
    const Outcomes outcomes = ftpOutcomes();
    const URI uri = sampleURI();
    for (const int result : codesToTry()) {
        SCOPED_TRACE(result);
        expectThrown(outcomeFor(outcomes, result, 1), "FTP RETR http://name/a -> broken", uri, "",
                     [&] { ORVError::throwFTPError(result, "RETR", uri, "broken"); });
    }
}

TEST(ProtocolErrorsCurl, EveryResultHasItsCode) {
    const Outcomes outcomes = curlOutcomes();
    const URI uri = sampleURI();
    for (const int result : codesToTry()) {
        SCOPED_TRACE(result);
        expectThrown(outcomeFor(outcomes, result, 1), "HTTP GET http://name/a -> broken", uri, "",
                     [&] { ORVError::throwCurlError(result, "GET", uri, "broken"); });
    }
}

TEST(ProtocolErrorsHTTP, EveryStatusHasItsCode) {
    const Outcomes outcomes = httpOutcomes();
    const URI uri = sampleURI();
    for (const int status : codesToTry()) {
        SCOPED_TRACE(status);
        expectThrown(outcomeFor(outcomes, status, 29),
                     "HTTP GET http://name/a -> " + std::to_string(status) + " Some Reason", uri, "realm",
                     [&] { ORVError::throwHTTPError(status, "GET", uri, "realm", "Some Reason"); });
    }
}

TEST(ProtocolErrorsHTTP, VerbMKCOLCountsFor405Alone) {
    Outcomes outcomes = httpOutcomes();
    outcomes[405] = {33};
    const URI uri = sampleURI();
    for (const int status : codesToTry()) {
        SCOPED_TRACE(status);
        expectThrown(outcomeFor(outcomes, status, 29), "HTTP MKCOL http://name/a -> " + std::to_string(status), uri,
                     "realm", [&] { ORVError::throwHTTPError(status, "MKCOL", uri, "realm", ""); });
    }
}

TEST(ProtocolErrorsHTTP, Status405DependsOnTheVerb) {
    const struct {
        const char* verb;
        int code;
    } rows[] = {{"PUT", 39},    {"MKCOL", 33},  {"GET", 39},  {"mkcol", 39}, {"MKCOLX", 39},
                {"XMKCOL", 39}, {"MKCOL ", 39}, {"MKCO", 39}, {"", 39}};
    const URI uri = sampleURI();
    for (const auto& row : rows) {
        SCOPED_TRACE(row.verb);
        expectThrown({row.code}, "HTTP "s + row.verb + " http://name/a -> 405", uri, "",
                     [&] { ORVError::throwHTTPError(405, row.verb, uri, "", ""); });
        // the verb's place in memory doesn't count
        const std::string copy = row.verb;
        expectThrown({row.code}, "HTTP " + copy + " http://name/a -> 405", uri, "",
                     [&] { ORVError::throwHTTPError(405, copy.c_str(), uri, "", ""); });
    }
}

TEST(ProtocolErrorsHTTP, Status418IsNamedInTheDetail) {
    const URI uri = sampleURI();
    expectThrown({29}, "HTTP GET http://name/a -> 418", uri, "",
                 [&] { ORVError::throwHTTPError(418, "GET", uri, "", ""); });
}

// --- Texts, letter by letter ---

TEST(ProtocolErrorsText, HasProtocolVerbURIAndReason) {
    const URI uri = URI::fromString("ftp://user@name:2121/a%20b;x?q=%41#f");
    EXPECT_EQ("Server or proxy hostname lookup failed : FTP LIST ftp://user@name:2121/a b;x?q=A#f -> no such host",
              textOf([&] { ORVError::throwFTPError(6, "LIST", uri, "no such host"); }));
    EXPECT_EQ("Authentication failed : FTP LIST ftp://user@name:2121/a b;x?q=A#f -> failed",
              textOf([&] { ORVError::throwFTPError(9, "LIST", uri, nullptr); }));
    EXPECT_EQ("Unknown Network Error : HTTP GET http://name/a -> failed",
              textOf([&] { ORVError::throwCurlError(0, "GET", sampleURI(), nullptr); }));
    EXPECT_EQ("User authentication failed on server : HTTP GET http://name/a -> x",
              textOf([&] { ORVError::throwCurlError(67, "GET", sampleURI(), "x"); }));
    EXPECT_EQ("File not found : HTTP GET http://name/a -> 404 Not Found",
              textOf([&] { ORVError::throwHTTPError(404, "GET", sampleURI(), "", "Not Found"); }));
    EXPECT_EQ("User authentication failed on proxy : HTTP GET http://name/a -> 407",
              textOf([&] { ORVError::throwHTTPError(407, "GET", sampleURI(), "x", ""); }));
    EXPECT_EQ("HTTP Error : HTTP GET http://name/a -> -1",
              textOf([&] { ORVError::throwHTTPError(-1, "GET", sampleURI(), "", ""); }));
}

TEST(ProtocolErrorsText, URIIsWrittenForPeople) {
    const struct {
        const char* uri;
        const char* text;
        const char* why;
    } rows[] = {
        {"http://name", "http://name/", "with the root path"},
        {"HTTP://Name:80/x", "http://name/x", "without the default port"},
        {"http://name/%C3%A4%2F%25", "http://name/\xc3\xa4%2F%25", "what would change the structure stays escaped"},
        {"http://name/?a=%26b", "http://name/?a=%26b", "in the query too"},
        {"a/b", "a/b", "a relative reference"},
        {"data:text/plain,hello", "data:text/plain,[...]", "without the content"},
        {"", "", "an empty URI"},
        {"http://name:x/", "", "a URI that couldn't be parsed is empty"},
    };
    for (const auto& row : rows) {
        const URI uri = URI::fromString(row.uri);
        const std::string text = row.text;
        EXPECT_EQ(fullText(1, "FTP GET " + text + " -> x"), ftpText(uri, "x")) << row.why;
        EXPECT_EQ(fullText(1, "HTTP GET " + text + " -> x"), curlText(uri, "x")) << row.why;
        EXPECT_EQ(fullText(29, "HTTP GET " + text + " -> 418 x"), httpText(uri, "x")) << row.why;
    }
}

TEST(ProtocolErrorsText, PlaceholdersOfTemplatesAreOrdinaryText) {
    URI uri = sampleURI();
    uri.setPath(URI::Path("[[a/b]]"));
    uri.setQuery("[[%41]]"s);
    const std::string text = "http://name/[[a%2Fb]]?[[A]]";
    EXPECT_EQ(fullText(1, "FTP GET " + text + " -> x"), ftpText(uri, "x"));
    EXPECT_EQ(fullText(1, "HTTP GET " + text + " -> x"), curlText(uri, "x"));
    EXPECT_EQ(fullText(29, "HTTP GET " + text + " -> 418 x"), httpText(uri, "x"));
}

TEST(ProtocolErrorsText, LongURIIsShortenedTo100CodePoints) {
    const struct {
        std::string path;
        std::string text;
        const char* why;
    } rows[] = {
        {std::string(88, 'p'), "http://name/" + std::string(88, 'p'), "100 stay"},
        {std::string(89, 'p'), "http://name/" + std::string(38, 'p') + "..." + std::string(50, 'p'),
         "101 are too many"},
        {std::string(5000, 'p') + "end", "http://name/" + std::string(38, 'p') + "..." + std::string(47, 'p') + "end",
         "as are thousands"},
        {repeated("%C3%A4", 88), "http://name/" + repeated("\xc3\xa4", 88), "characters count, not bytes"},
        {repeated("%C3%A4", 89), "http://name/" + repeated("\xc3\xa4", 38) + "..." + repeated("\xc3\xa4", 50),
         "characters are not split"},
        {repeated("%F0%9D%84%9E", 89),
         "http://name/" + repeated("\xf0\x9d\x84\x9e", 38) + "..." + repeated("\xf0\x9d\x84\x9e", 50), "nor long ones"},
    };
    for (const auto& row : rows) {
        const URI uri = URI::fromString("http://name/" + row.path);
        EXPECT_EQ(fullText(1, "FTP GET " + row.text + " -> x"), ftpText(uri, "x")) << row.why;
        EXPECT_EQ(fullText(1, "HTTP GET " + row.text + " -> x"), curlText(uri, "x")) << row.why;
        EXPECT_EQ(fullText(29, "HTTP GET " + row.text + " -> 418 x"), httpText(uri, "x")) << row.why;
    }
}

TEST(ProtocolErrorsText, ShortenedURIIsWholeInTheError) {
    const URI uri = URI::fromString("http://name/" + std::string(5000, 'p'));
    expectThrown({40, true}, "HTTP GET http://name/" + std::string(38, 'p') + "..." + std::string(50, 'p') + " -> 401",
                 uri, "e", [&] { ORVError::throwHTTPError(401, "GET", uri, "e", ""); });
}

TEST(ProtocolErrorsText, OnlyTheURIIsShortened) {
    const std::string wide(5000, 'w');
    EXPECT_EQ(fullText(1, "FTP " + wide + " http://name/a -> " + wide),
              textOf([&] { ORVError::throwFTPError(0, wide.c_str(), sampleURI(), wide.c_str()); }));
    EXPECT_EQ(fullText(1, "HTTP " + wide + " http://name/a -> " + wide),
              textOf([&] { ORVError::throwCurlError(0, wide.c_str(), sampleURI(), wide.c_str()); }));
    EXPECT_EQ(fullText(29, "HTTP " + wide + " http://name/a -> 418 " + wide),
              textOf([&] { ORVError::throwHTTPError(418, wide.c_str(), sampleURI(), "", wide); }));
}

TEST(ProtocolErrorsText, DetailLosesItsLastLineBreaks) {
    const struct {
        const char* detail;
        const char* text;
        const char* why;
    } rows[] = {
        {nullptr, "failed", "no detail"},
        {"", "failed", "an empty one"},
        {"x", "x", "plain"},
        {"x\n", "x", "a line feed"},
        {"x\r", "x", "a carriage return"},
        {"x\r\n", "x", "a line end of the network"},
        {"x\n\r\r\n\n", "x", "all of them, in any order"},
        {"x \n", "x ", "no other white space"},
        {"x\n ", "x\n ", "a blank ends the search"},
        {"x\t", "x\t", "no tab"},
        {"a\r\nb\r\n", "a\r\nb", "line breaks inside stay"},
        {"\r\nx", "\r\nx", "line breaks in front stay"},
        {"\n", "", "not empty before, so nothing replaces it"},
        {"\r\n\r\n", "", "nor for more of them"},
        {"100 %s %n", "100 %s %n", "no format"},
        {"\xff\xc3", "\xff\xc3", "bytes are handed on"},
        {"failed\n", "failed", "its own word"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(fullText(1, "FTP GET http://name/a -> "s + row.text), ftpText(sampleURI(), row.detail)) << row.why;
        EXPECT_EQ(fullText(1, "HTTP GET http://name/a -> "s + row.text), curlText(sampleURI(), row.detail)) << row.why;
    }
}

TEST(ProtocolErrorsText, ReasonFollowsTheStatusUnlessEmpty) {
    const struct {
        const char* reason;
        const char* text;
        const char* why;
    } rows[] = {
        {"", "418", "no reason, no blank"},
        {"x", "418 x", "plain"},
        {"I'm a teapot", "418 I'm a teapot", "words"},
        {" ", "418  ", "a blank is a reason"},
        {"x\r\n", "418 x", "an error's text has no line breaks at its end"},
        {"\n", "418 ", "nor if it is nothing else"},
        {"a\nb", "418 a\nb", "line breaks inside stay"},
        {"%s %n", "418 %s %n", "no format"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(fullText(29, "HTTP GET http://name/a -> "s + row.text), httpText(sampleURI(), row.reason)) << row.why;
}

TEST(ProtocolErrorsText, VerbAndURIAreNotAFormat) {
    const URI uri = URI::fromString("http://name/%25s%25n");
    EXPECT_EQ(fullText(1, "FTP %s%n http://name/%25s%25n -> x"),
              textOf([&] { ORVError::throwFTPError(0, "%s%n", uri, "x"); }));
    EXPECT_EQ(fullText(1, "HTTP %s%n http://name/%25s%25n -> x"),
              textOf([&] { ORVError::throwCurlError(0, "%s%n", uri, "x"); }));
    EXPECT_EQ(fullText(29, "HTTP %s%n http://name/%25s%25n -> 418 x"),
              textOf([&] { ORVError::throwHTTPError(418, "%s%n", uri, "", "x"); }));
}

TEST(ProtocolErrorsText, EmptyVerbLeavesTwoBlanks) {
    EXPECT_EQ(fullText(1, "FTP  http://name/a -> x"), textOf([] { ORVError::throwFTPError(0, "", sampleURI(), "x"); }));
}

// --- The classes ---

TEST(ORVAuthError, HoldsWhatItWasMadeOf) {
    const URI uri = sampleURI();
    const ORVAuthError error(ORVError::FileAuthFailed, uri, "detail", "extra");
    EXPECT_EQ(ORVError::FileAuthFailed, error.getCode());
    EXPECT_STREQ("Authentication failed : detail", error.what());
    EXPECT_EQ(SAMPLE_TEXT, error.getURI().toString());
    EXPECT_EQ("extra", error.getExtra());
}

TEST(ORVAuthError, TakesAnyCodeAndEmptyTexts) {
    const ORVAuthError error(ORVError::NoMemory, URI(), "", "");
    EXPECT_EQ(ORVError::NoMemory, error.getCode());
    EXPECT_STREQ("No Memory", error.what());
    EXPECT_EQ("", error.getURI().toString());
    EXPECT_EQ("", error.getExtra());
}

TEST(ORVAuthError, ExtraIsKeptByteForByte) {
    const std::string extra = "Basic realm=\"x\"\r\n\0\xff"s;
    EXPECT_EQ(extra, ORVAuthError(ORVError::FileAuthFailed, sampleURI(), "d", extra).getExtra());
}

TEST(ORVAuthError, KeepsACopyOfTheURI) {
    URI uri = sampleURI();
    std::string extra = "extra";
    const ORVAuthError error(ORVError::FileAuthFailed, uri, "d", extra);
    uri.setPath(URI::Path("other"));
    extra = "other";
    EXPECT_EQ(SAMPLE_TEXT, error.getURI().toString());
    EXPECT_EQ("extra", error.getExtra());
}

TEST(ORVRedirectError, HoldsWhatItWasMadeOf) {
    const URI to = URI::fromString("https://other/b");
    for (const bool flag : {true, false}) {
        const ORVRedirectError error(ORVError::Redirect, sampleURI(), to, flag, "detail\r\n");
        EXPECT_EQ(ORVError::Redirect, error.getCode());
        EXPECT_STREQ("Redirect : detail", error.what());
        EXPECT_EQ(SAMPLE_TEXT, error.getFrom().toString());
        EXPECT_EQ("https://other/b", error.getTo().toString());
        EXPECT_EQ(flag, error.getFlag());
    }
}

TEST(ORVRedirectError, TakesAnyCodeAndEmptyTexts) {
    const ORVRedirectError error(ORVError::TooManyRedirects, URI(), URI(), false, "");
    EXPECT_EQ(ORVError::TooManyRedirects, error.getCode());
    EXPECT_STREQ("Too many redirects", error.what());
    EXPECT_EQ("", error.getFrom().toString());
    EXPECT_EQ("", error.getTo().toString());
}

TEST(ORVRedirectError, KeepsCopiesOfTheURIs) {
    URI from = sampleURI();
    URI to = URI::fromString("https://other/b");
    const ORVRedirectError error(ORVError::Redirect, from, to, true, "d");
    from = URI();
    to = URI();
    EXPECT_EQ(SAMPLE_TEXT, error.getFrom().toString());
    EXPECT_EQ("https://other/b", error.getTo().toString());
}

// --- Copies and rethrowing ---

TEST(ProtocolErrorsCopy, AuthErrorOutlivesTheOriginal) {
    auto original = std::make_unique<ORVAuthError>(ORVError::ProxyAuthFailed,
                                                   URI::fromString("http://name/" + std::string(500, 'p')),
                                                   std::string(500, 'd'), std::string(500, 'e'));
    const ORVAuthError copy(*original);
    ORVAuthError assigned(ORVError::NoMemory, URI(), "", "");
    assigned = *original;
    original.reset();
    for (const ORVAuthError* error : {&copy, static_cast<const ORVAuthError*>(&assigned)}) {
        EXPECT_EQ(ORVError::ProxyAuthFailed, error->getCode());
        EXPECT_EQ("User authentication failed on proxy : " + std::string(500, 'd'), error->what());
        EXPECT_EQ("http://name/" + std::string(500, 'p'), error->getURI().toString());
        EXPECT_EQ(std::string(500, 'e'), error->getExtra());
    }
}

TEST(ProtocolErrorsCopy, RedirectErrorOutlivesTheOriginal) {
    auto original = std::make_unique<ORVRedirectError>(
        ORVError::Redirect, URI::fromString("http://name/" + std::string(500, 'p')),
        URI::fromString("http://name/" + std::string(500, 'q')), true, std::string(500, 'd'));
    const ORVRedirectError copy(*original);
    ORVRedirectError assigned(ORVError::NoMemory, URI(), URI(), false, "");
    assigned = *original;
    original.reset();
    for (const ORVRedirectError* error : {&copy, static_cast<const ORVRedirectError*>(&assigned)}) {
        EXPECT_EQ(ORVError::Redirect, error->getCode());
        EXPECT_EQ("Redirect : " + std::string(500, 'd'), error->what());
        EXPECT_EQ("http://name/" + std::string(500, 'p'), error->getFrom().toString());
        EXPECT_EQ("http://name/" + std::string(500, 'q'), error->getTo().toString());
        EXPECT_TRUE(error->getFlag());
    }
}

TEST(ProtocolErrorsCopy, ContentOfADataURIOutlivesTheOriginal) {
    auto uri = std::make_unique<URI>(URI::fromString("data:text/plain,hello"));
    auto original = std::make_unique<ORVAuthError>(ORVError::FileAuthFailed, *uri, "d", "");
    uri.reset();
    const ORVAuthError copy(*original);
    original.reset();
    EXPECT_EQ("data:text/plain;base64,aGVsbG8=", copy.getURI().toString());
}

TEST(ProtocolErrorsCopy, ThrownErrorOutlivesItsURIAndTexts) {
    const std::exception_ptr thrown = thrownBy([] {
        const auto uri = std::make_unique<URI>(URI::fromString("http://name/" + std::string(500, 'p')));
        const std::string verb(500, 'v');
        ORVError::throwHTTPError(401, verb.c_str(), *uri, std::string(500, 'e'), std::string(500, 'r'));
    });
    ASSERT_NE(nullptr, thrown);
    try {
        std::rethrow_exception(thrown);
    } catch (const ORVAuthError& error) {
        EXPECT_EQ(fullText(40, "HTTP " + std::string(500, 'v') + " http://name/" + std::string(38, 'p') + "..." +
                                   std::string(50, 'p') + " -> 401 " + std::string(500, 'r')),
                  error.what());
        EXPECT_EQ("http://name/" + std::string(500, 'p'), error.getURI().toString());
        EXPECT_EQ(std::string(500, 'e'), error.getExtra());
    }
}

TEST(ProtocolErrorsCopy, RethrownErrorKeepsItsClass) {
    const std::exception_ptr again = thrownBy([] {
        try {
            ORVError::throwHTTPError(407, "GET", sampleURI(), "extra", "");
        } catch (const ORVError&) {
            throw;
        }
    });
    ASSERT_NE(nullptr, again);
    try {
        std::rethrow_exception(again);
    } catch (const ORVAuthError& error) {
        EXPECT_EQ("extra", error.getExtra());
        EXPECT_EQ(ORVError::ProxyAuthFailed, error.getCode());
    } catch (...) {
        ADD_FAILURE() << "another class";
    }
}

TEST(ProtocolErrorsCopy, ThrownCopyKeepsItsClass) {
    auto auth = std::make_unique<ORVAuthError>(ORVError::FileAuthFailed, sampleURI(), "d", "extra");
    auto redirect = std::make_unique<ORVRedirectError>(ORVError::Redirect, sampleURI(), sampleURI(), true, "d");
    const std::exception_ptr thrownAuth = thrownBy([&auth] { throw ORVAuthError(*auth); });
    const std::exception_ptr thrownRedirect = thrownBy([&redirect] { throw ORVRedirectError(*redirect); });
    auth.reset();
    redirect.reset();
    try {
        std::rethrow_exception(thrownAuth);
    } catch (const ORVRedirectError&) {
        ADD_FAILURE() << "another class";
    } catch (const ORVAuthError& error) {
        EXPECT_EQ("extra", error.getExtra());
    }
    try {
        std::rethrow_exception(thrownRedirect);
    } catch (const ORVAuthError&) {
        ADD_FAILURE() << "another class";
    } catch (const ORVRedirectError& error) {
        EXPECT_EQ(SAMPLE_TEXT, error.getTo().toString());
    }
}

TEST(ProtocolErrorsCopy, IsCaughtAsWhatItDerivesFrom) {
    EXPECT_THROW(ORVError::throwHTTPError(401, "GET", sampleURI(), "", ""), ORVAuthError);
    EXPECT_THROW(ORVError::throwHTTPError(401, "GET", sampleURI(), "", ""), ORVError);
    try {
        ORVError::throwHTTPError(401, "GET", sampleURI(), "", "");
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ("Authentication failed : HTTP GET http://name/a -> 401", error.what());
        EXPECT_NE(nullptr, dynamic_cast<const ORVAuthError*>(&error));
    }
}
