// uri_origin_test.cpp: scheme, host and port of a URI, URI::Origin of foundation/uri.h.

#include <gtest/gtest.h>
#include <idn-free.h>
#include <idna.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <clocale>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "foundation/uri.h"
#include "unit/exact_buffer.h"
#include "unit/foundation/even_growth.h"
#include "unit/foundation/random_text.h"
#include "unit/foundation/uri_address_model.h"
#include "unit/rounds.h"

namespace {

using namespace std::string_literals;

using Origin = URI::Origin;

const int RANDOM_CASES = rounds(100000);

// Parse is what one parse left behind. `rest` is what follows the origin; none if the parse failed.
struct Parse {
    Origin origin;
    std::string userInfo = "untouched";
    bool hasAuthority = false;
    std::optional<std::string> rest;
};

// parse parses a copy of `text` that has nothing readable after its terminator. `hasAuthority` is its first value.
Parse parse(const std::string& text, bool hasAuthority = false) {
    const ExactBuffer<char> buffer(text, true);
    Parse result;
    result.hasAuthority = hasAuthority;
    const char* end = result.origin.parseFromURI(buffer.data(), &result.userInfo, &result.hasAuthority);
    if (end != nullptr) {
        EXPECT_GE(end, buffer.data());
        EXPECT_LE(end, buffer.data() + text.size());
        result.rest = end;
    }
    return result;
}

Origin withHost(const std::string& host, const std::string& scheme = "http") {
    Origin origin;
    origin.scheme = scheme;
    origin.host = host;
    return origin;
}

bool isEmpty(const Origin& origin) {
    return origin.scheme.empty() && origin.host.empty() && origin.port == 0;
}

// fill makes an origin that shows whether it was cleared.
Origin fill() {
    return Origin("old", "old.host", 7);
}

void expectAllFail(const std::vector<std::string>& texts) {
    for (const std::string& text : texts)
        EXPECT_FALSE(parse(text).rest) << testing::PrintToString(text);
}

// Hosts is a table of hosts read from "http://HOST/" (or another scheme) and what they become.
struct HostRow {
    std::string text, host;
    uint32_t port;
    const char* from;
};

void expectHosts(const std::string& scheme, const std::vector<HostRow>& rows) {
    for (const HostRow& row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.text) + ": " + row.from);
        const Parse result = parse(scheme + "://" + row.text + "/rest");
        ASSERT_TRUE(result.rest);
        EXPECT_EQ("/rest", *result.rest);
        EXPECT_EQ(scheme, result.origin.scheme);
        EXPECT_EQ(row.host, result.origin.host);
        EXPECT_EQ(row.port, result.origin.port);
        EXPECT_TRUE(result.hasAuthority);
    }
}

void expectNoHosts(const std::string& scheme, const std::vector<std::string>& hosts) {
    for (const std::string& host : hosts)
        EXPECT_FALSE(parse(scheme + "://" + host + "/rest").rest) << scheme << " " << testing::PrintToString(host);
}

// ---- The value ----

TEST(UriOrigin, IsAPlainValue) {
    EXPECT_FALSE(std::is_polymorphic_v<Origin>);
    EXPECT_TRUE(std::is_copy_assignable_v<Origin> && std::is_nothrow_move_constructible_v<Origin>);
    EXPECT_TRUE((std::is_same_v<uint32_t, decltype(Origin::port)>));
    EXPECT_TRUE((std::is_same_v<std::string, decltype(Origin::scheme)>));
    EXPECT_TRUE((std::is_same_v<std::string, decltype(Origin::host)>));
    EXPECT_TRUE(isEmpty(Origin()));
}

TEST(UriOrigin, IsMadeFromText) {
    const Origin origin("HTTP://user@Some.Name:80/path");
    EXPECT_EQ("http", origin.scheme);
    EXPECT_EQ("some.name", origin.host);
    EXPECT_EQ(80u, origin.port);
    EXPECT_EQ("mailto", Origin("mailto:a").scheme);
}

TEST(UriOrigin, IsEmptyWhenTheTextFails) {
    for (const char* text : {"", "abc", "a/b:c", "http://name:/", "http://a_b/", "http://[::]/", "orv://%zz", "//h"})
        EXPECT_TRUE(isEmpty(Origin(std::string(text)))) << text;
}

TEST(UriOrigin, IsMadeFromPartsAsTheyAre) {
    const Origin odd("HTTP", "No _ Host%zz", 0);
    EXPECT_EQ("HTTP", odd.scheme);
    EXPECT_EQ("No _ Host%zz", odd.host);
    EXPECT_EQ(0u, odd.port) << "the match of default ports is case-sensitive";
    EXPECT_EQ(80u, Origin("http", "name", 0).port);
    EXPECT_EQ(443u, Origin("https", "").port) << "the host doesn't matter for the default";
    EXPECT_EQ(8080u, Origin("http", "name", 8080).port);
    EXPECT_EQ(70000u, Origin("http", "name", 70000).port);
    EXPECT_EQ(5u, Origin("orv", "name", 5).port);
}

TEST(UriOrigin, SettersStoreAsGiven) {
    Origin origin;
    const std::string scheme = "HTTP", host = "Some_Name:[";
    origin.setScheme(scheme);
    origin.setHostName(host);
    EXPECT_EQ(scheme, origin.scheme);
    EXPECT_EQ(host, origin.host);
    EXPECT_EQ(0u, origin.port);
    std::string longText(100, 'X');
    const char* block = longText.data();
    origin.setScheme(std::move(longText));
    EXPECT_EQ(block, origin.scheme.data()) << "moved, not copied";
    std::string longHost(100, 'Y');
    block = longHost.data();
    origin.setHostName(std::move(longHost));
    EXPECT_EQ(block, origin.host.data()) << "moved, not copied";
    origin.setPort(4000000000u);
    EXPECT_EQ(4000000000u, origin.port);
    origin.setPort(0);
    EXPECT_EQ(0u, origin.port) << "no default port";
}

TEST(UriOrigin, ClearEmptiesAll) {
    Origin origin = fill();
    origin.clear();
    EXPECT_TRUE(isEmpty(origin));
}

// ---- Default ports ----

const std::vector<std::pair<std::string, uint32_t>> PORTS = {
    {"", 0},         {"file", 0},    {"orv", 0},      {"project", 0},     {"http", 80},        {"ws", 80},
    {"https", 443},  {"wss", 443},   {"rtmps", 443},  {"rtsp", 554},      {"ftp", 21},         {"ftpes", 21},
    {"ftps", 990},   {"coap", 5683}, {"coaps", 5684}, {"coap+tcp", 5683}, {"coaps+tcp", 5684}, {"mqtt", 1883},
    {"mqtts", 8883}, {"rtmp", 1935}};

TEST(UriOrigin, KnowsDefaultPorts) {
    for (const auto& [scheme, port] : PORTS)
        EXPECT_EQ(port, URI::defaultPort(scheme)) << scheme;
}

TEST(UriOrigin, KnowsNoOtherDefaultPorts) {
    for (const std::string scheme : {"HTTP", "Http", "htt", "httpx", " http", "http ", "http:", "udp", "rtp", "data",
                                     "urn", "ssh", "telnet", "ldap", "coap+", "coap+ws", "rtsps", "mqttss", "x"})
        EXPECT_EQ(0u, URI::defaultPort(scheme)) << scheme;
    EXPECT_EQ(0u, URI::defaultPort("http\0"s));
}

TEST(UriOrigin, ParsedHostsGetTheDefaultPort) {
    for (const auto& [scheme, port] : PORTS) {
        if (scheme.empty())
            continue;
        EXPECT_EQ(port, parse(scheme + "://name/").origin.port) << scheme;
        EXPECT_EQ(0u, parse(scheme + ":///").origin.port) << scheme << ": no host, no port";
        EXPECT_EQ(0u, parse(scheme + ":name").origin.port) << scheme << ": no authority, no port";
    }
    EXPECT_EQ(80u, parse("HTTP://name/").origin.port);
    EXPECT_EQ(80u, parse("http://name:0/").origin.port) << "an explicit 0 reads as the default";
    EXPECT_EQ(0u, parse("x-y://name:0/").origin.port);
}

// ---- Parsing: the scheme ----

TEST(UriOriginParse, ClearsAllFieldsFirst) {
    for (const char* text : {"", "abc", "/a", "1:2"}) {
        Origin origin = fill();
        EXPECT_EQ(text, origin.parseFromURI(text, nullptr, nullptr));
        EXPECT_TRUE(isEmpty(origin)) << text;
    }
    Origin origin = fill();
    EXPECT_NE(nullptr, origin.parseFromURI("mailto:a", nullptr, nullptr));
    EXPECT_EQ("mailto", origin.scheme);
    EXPECT_EQ("", origin.host);
    EXPECT_EQ(0u, origin.port);
}

TEST(UriOriginParse, TextWithoutSchemeIsNotTouched) {
    // clang-format off
    const std::string texts[] = {
        "", "abc", "http", "http//name/",                                          // no colon
        "/a", "//name/a", "?a:b", "#a:b", ":a", ":", "[[a]]:b",                    // no letter in front
        "1a:b", "+a:b", "-a:b", ".a:b", " http://name/", "\xC3\xA4:b", "\xE9:",    // likewise
        "@a:b", "[a:b", "`a:b", "{a:b",                                            // the neighbours of the letters
        "a/b:c", "a?b:c", "a#b:c", "a@b:c", "a b:c", "htt p://name/",              // what a scheme doesn't hold
        "a_b:c", "a%62:c", "a\x7F:b", "a\xC3\xA4:b", "a\xE9:",                     // likewise
        "a[:c", "a`:c", "a{:c", "a/:c", "a,:c", "a*:c",                            // the neighbours of what it does
    };
    // clang-format on
    for (const std::string& text : texts) {
        for (const bool before : {false, true}) {
            const Parse result = parse(text, before);
            ASSERT_TRUE(result.rest) << testing::PrintToString(text);
            EXPECT_EQ(text, *result.rest);
            EXPECT_TRUE(isEmpty(result.origin)) << testing::PrintToString(text);
            EXPECT_EQ(before, result.hasAuthority) << testing::PrintToString(text);
            EXPECT_EQ("untouched", result.userInfo);
        }
    }
}

TEST(UriOriginParse, SchemesAreLoweredAndEndAtTheColon) {
    const struct {
        std::string text, scheme, rest;
    } rows[] = {
        {"mailto:a@b", "mailto", "a@b"},
        {"MAILTO:A", "mailto", "A"},
        {"aZ:", "az", ""},
        {"z:", "z", ""},
        {"A:", "a", ""},
        {"a+b-c.d09:x", "a+b-c.d09", "x"},
        {"a+:", "a+", ""},
        {"a-.:", "a-.", ""},
        {"http:/a", "http", "/a"},
        {"http:/", "http", "/"},
        {"http:", "http", ""},
        {"http:a//b", "http", "a//b"},
        {"http:?a", "http", "?a"},
        {"a::b", "a", ":b"},
        {"data:,x", "data", ",x"},
        {"orv:name", "orv", "name"},
    };
    for (const auto& row : rows) {
        const Parse result = parse(row.text, true);
        ASSERT_TRUE(result.rest) << row.text;
        EXPECT_EQ(row.scheme, result.origin.scheme) << row.text;
        EXPECT_EQ(row.rest, *result.rest) << row.text;
        EXPECT_FALSE(result.hasAuthority) << row.text;
        EXPECT_EQ("", result.origin.host) << row.text;
        EXPECT_EQ(0u, result.origin.port) << row.text;
    }
}

TEST(UriOriginParse, EveryByteIsJudgedInASchemeByItsAsciiClass) {
    const std::string letters = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ",
                      further = letters + "0123456789+-.";
    for (int byte = 1; byte < 256; ++byte) {
        const std::string character(1, static_cast<char>(byte));
        const bool first = letters.find(character) != std::string::npos;
        EXPECT_EQ(first, !parse(character + ":x").origin.scheme.empty()) << byte;
        if (byte != ':') {
            const bool inside = further.find(character) != std::string::npos;
            EXPECT_EQ(inside, !parse("a" + character + ":x").origin.scheme.empty()) << byte;
        }
    }
}

// ---- Parsing: authority and user information ----

TEST(UriOriginParse, TheAuthorityEndsAtSlashQuestionMarkOrNumberSign) {
    for (const std::string rest : {"", "/", "/a?b#c", "?a/b", "#a/b?c", "/@x", "?a@b", "#a@b:9", "/:80", "/]", "//"}) {
        const Parse result = parse("http://name" + rest);
        ASSERT_TRUE(result.rest) << rest;
        EXPECT_EQ(rest, *result.rest);
        EXPECT_EQ("name", result.origin.host);
        EXPECT_EQ("untouched", result.userInfo) << rest;
        EXPECT_TRUE(result.hasAuthority);
    }
}

TEST(UriOriginParse, UserInformationIsTheRawTextBeforeTheFirstAt) {
    const struct {
        std::string text, userInfo, host;
    } rows[] = {
        {"http://u@name/", "u", "name"},
        {"http://u:p@name:80/", "u:p", "name"},
        {"http://u:80@name", "u:80", "name"},
        {"http://@name/", "", "name"},
        {"http://U%zz%@name/", "U%zz%", "name"},  // raw, a bad escape included
        {"http://[::1]@name/", "[::1]", "name"},  // not looked at here
        {"http://a b\xFF@name/", "a b\xFF", "name"},
        {"http://u@", "u", ""},
        {"http://@", "", ""},
        {"http://u@/a@b", "u", ""},
        {"orv://u@a@b/", "u", "a@b"},  // an opaque host may hold a second one
        {"udp://@:1234", "", ""},
    };
    for (const auto& row : rows) {
        const Parse result = parse(row.text);
        ASSERT_TRUE(result.rest) << row.text;
        EXPECT_EQ(row.userInfo, result.userInfo) << row.text;
        EXPECT_EQ(row.host, result.origin.host) << row.text;
    }
}

TEST(UriOriginParse, ASecondAtFails) {
    expectAllFail({"http://a@b@c/", "http://@@c/", "http://a@b@/", "http://a@@", "file://a@b@c/"});
}

TEST(UriOriginParse, EitherPointerMayBeNull) {
    Origin origin;
    bool hasAuthority = false;
    std::string userInfo;
    const char* const text = "http://u@name:81/a";
    EXPECT_EQ(text + 16, origin.parseFromURI(text, nullptr, nullptr));
    EXPECT_EQ(text + 16, origin.parseFromURI(text, &userInfo, nullptr));
    EXPECT_EQ("u", userInfo);
    EXPECT_EQ(text + 16, origin.parseFromURI(text, nullptr, &hasAuthority));
    EXPECT_TRUE(hasAuthority);
    EXPECT_EQ(81u, origin.port);
    EXPECT_NE(nullptr, origin.parseFromURI("mailto:a", nullptr, nullptr));
    EXPECT_EQ(nullptr, origin.parseFromURI("http://u@a_b/", nullptr, nullptr));
}

TEST(UriOriginParse, AnEmptyHostIsFineForAnyScheme) {
    for (const std::string scheme : {"http", "https", "orv", "project", "file", "udp", "rtp", "data", "x"}) {
        for (const std::string authority : {"", "@", "user@"}) {
            for (const std::string rest : {"", "/a", "?q", "#f"}) {
                const Parse result = parse(scheme + "://" + authority + rest);
                ASSERT_TRUE(result.rest) << scheme << authority << rest;
                EXPECT_EQ(rest, *result.rest);
                EXPECT_EQ("", result.origin.host);
                EXPECT_EQ(0u, result.origin.port);
                EXPECT_TRUE(result.hasAuthority);
            }
        }
    }
}

// ---- Parsing: opaque hosts ----

TEST(UriOriginParse, OpaqueHostsAreNamesOfAnyKind) {
    const std::vector<HostRow> rows = {
        {"some:name", "some:name", 0, "a colon stays in the name"},
        {"name:80", "name:80", 0, "no port is read"},
        {"name:99999", "name:99999", 0, "no port is read"},
        {"name:", "name:", 0, "no port is read"},
        {":", ":", 0, "no port is read"},
        {"Some_Name", "Some_Name", 0, "not folded"},
        {"-a-", "-a-", 0, "not checked"},
        {"a b", "a b", 0, "32 is the lowest byte"},
        {"%20", " ", 0, "decoded"},
        {"a%2Fb%3f%23", "a/b?#", 0, "decoded"},
        {"a%2520", "a%20", 0, "decoded once"},
        {"a+b", "a+b", 0, "a plus is a plus"},
        {"[::1]", "[::1]", 0, "no IPv6 here"},
        {"[x", "[x", 0, "no IPv6 here"},
        {"\x7F", "\x7F", 0, "only what is below 32 fails"},
        {"%80%FF\xC3\xA4", "\x80\xFF\xC3\xA4", 0, "bytes have no sign"},
        {"B\xC3\xBC"
         "cher",
         "B\xC3\xBC"
         "cher",
         0, "no conversion"},
    };
    expectHosts("orv", rows);
    expectHosts("project", rows);
    EXPECT_EQ("Some_Name", parse("ORV://Some_Name").origin.host) << "the scheme was lowered before";
}

TEST(UriOriginParse, OpaqueHostsFailOnBadEscapesAndControlCharacters) {
    for (const std::string scheme : {"orv", "project"}) {
        expectNoHosts(scheme, {"%", "a%", "a%4", "%zz", "%4z", "%%41", "a%z4b"});
        for (int byte = 0; byte < 32; ++byte) {
            const std::string character(1, static_cast<char>(byte));
            const char* digits = "0123456789ABCDEF";
            expectNoHosts(scheme, {"a%"s + digits[byte / 16] + digits[byte % 16]});
            if (byte != 0)
                expectNoHosts(scheme, {character, "a" + character, character + "a"});
        }
    }
}

TEST(UriOriginParse, OnlyTwoSchemesAreOpaque) {
    for (const std::string scheme : {"orvx", "or", "projects", "http", "file", "udp", "rtp", "x"})
        expectNoHosts(scheme, {"some:name", "a b", "some_name"});
}

// ---- Parsing: IPv6 ----

TEST(UriOriginParse, IPv6StandsInBrackets) {
    expectHosts("http", {
                            {"[::1]", "::1", 80, "RFC 3986, 3.2.2"},
                            {"[::1]:8080", "::1", 8080, "with a port"},
                            {"[::1]:0", "::1", 80, "0 reads as the default"},
                            {"[2001:DB8::7]", "2001:DB8::7", 80, "digits keep their case"},
                            {"[::FFFF:129.144.52.38]:1", "::FFFF:129.144.52.38", 1, "RFC 4291, 2.2"},
                            {"u@[::1]:81", "::1", 81, "behind user information"},
                            {"[fe80::1%25eth0]", "fe80::1%eth0", 80, "RFC 6874, 2"},
                            {"[fe80::a%25en1]:8080", "fe80::a%en1", 8080, "RFC 6874, 2"},
                            {"[fe80::1%251]", "fe80::1%1", 80, "one character is enough"},
                            {"[fe80::1%25-]", "fe80::1%-", 80, "a dash in the zone"},
                            {"[fe80::1%25-a-B-9-]", "fe80::1%-a-B-9-", 80, "the case of the zone stays"},
                            {"[fe80::1%25%65th%30]", "fe80::1%eth0", 80, "the zone is decoded"},
                            {"[fe80::1%25%2D]", "fe80::1%-", 80, "the zone is decoded"},
                            {"[fe80::1%2525]", "fe80::1%25", 80, "a zone named 25"},
                            {"[::1.2.3.4%25a]", "::1.2.3.4%a", 80, "behind a dotted quad"},
                        });
}

TEST(UriOriginParse, IPv6NeedsItsBracketAndNothingButAPortAfter) {
    expectNoHosts("http", {"[", "[]", "[]:80", "[::1", "[::1:80", "[::1]x", "[::1]80", "[::1]]", "[::1][::1]", "[::1] ",
                           "[::1]%3A80", "[[::1]]", "x[::1]", "::1", "]", "]::1["});
}

TEST(UriOriginParse, IPv6MustHaveTheForm) {
    expectNoHosts("http",
                  {"[::]", "[name]", "[1.2.3.4]", "[v1.x]", "[::g]", "[ ::1]", "[::1 ]", "[%3A%3A1]", "[:1]", "[1]"});
}

TEST(UriOriginParse, IPv6ZonesFollowAnEscapedPercent) {
    const std::vector<std::string> hosts = {
        "[fe80::1%eth0]",            // the "%" isn't followed by 25
        "[fe80::1%]",                // nothing behind it
        "[fe80::1%2]",               // cut off
        "[fe80::1%25]",              // empty
        "[fe80::1%26eth0]",          // another escape
        "[fe80::1%35eth0]",          // another escape
        "[fe80::1%25a[b]",           // a delimiter
        "[fe80::1%25a@b]",           // a delimiter
        "[fe80::1%25a%zz]",          // a bad escape
        "[fe80::1%25a%]",            // a bad escape
        "[fe80::1%25a%4]",           // a bad escape
        "[fe80::1%25a%25b]",         // decodes to a "%"
        "[fe80::1%25a%5Bb]",         // decodes to a bracket
        "[fe80::1%25a_b]",           // not among letters, digits and dash
        "[fe80::1%25a.b]",           // likewise
        "[fe80::1%25a~b]",           // likewise
        "[fe80::1%25a:b]",           // likewise
        "[fe80::1%25a b]",           // likewise
        "[fe80::1%25%00]",           // likewise
        "[fe80::1%25%C3%A4]",        // likewise
        "[fe80::1%25\xC3\xA4]",      // likewise
        "[::1%25eth0]",              // the group before a zone doesn't count, and there is no other
        "[fe80%25eth0]",             // likewise
        "[fe80::%25eth0]",           // no group before the zone
        "[1:2:3:4:5:6:7:8%25eth0]",  // seven that count, without a compression
    };
    expectNoHosts("http", hosts);
}

// ---- Parsing: names ----

TEST(UriOriginParse, NamesAreDecodedAndLowered) {
    const std::string l63(63, 'a');
    expectHosts("http", {
                            {"name", "name", 80, "as it is"},
                            {"Some.Name:80", "some.name", 80, "lower case"},
                            {"name:65535", "name", 65535, "the highest port"},
                            {"name:00080", "name", 80, "leading zeros"},
                            {"name:" + std::string(1000, '0') + "8", "name", 8, "any number of leading zeros"},
                            {"a", "a", 80, "one letter"},
                            {"9", "9", 80, "one digit"},
                            {"a-b", "a-b", 80, "a dash inside"},
                            {"a--b", "a--b", 80, "dashes inside"},
                            {"name.", "name.", 80, "the root's dot"},
                            {"%41%62c", "abc", 80, "decoded, then lowered"},
                            {"a%2Eb", "a.b", 80, "decoded"},
                            {"a%2Db", "a-b", 80, "decoded"},
                            {"192.0.2.16", "192.0.2.16", 80, "RFC 3986, 1.1.2"},
                            {"1.2.3.999", "1.2.3.999", 80, "no address, but a name"},
                            {l63, l63, 80, "the longest label, RFC 1034"},
                            {"B\xC3\xBC"
                             "cher.example",
                             "xn--bcher-kva.example", 80, "UTF-8"},
                            {"b%C3%BC"
                             "cher.example:81",
                             "xn--bcher-kva.example", 81, "escaped UTF-8"},
                            {"XN--4CA", "xn--4ca", 80, "ASCII form in capitals"},
                        });
}

TEST(UriOriginParse, NamesHoldNoDelimiters) {
    expectNoHosts("http", {"a[b", "a]b", "a[", "a]", "u@a@b", "u@a@", "u@@"});
}

TEST(UriOriginParse, NamesWithBadEscapesFail) {
    expectNoHosts("http", {"%", "a%", "a%4", "a%zz", "%4", "a%%41", "a%zz:80"});
}

TEST(UriOriginParse, NamesNeitherBeginNorEndWithADash) {
    expectNoHosts("http", {"-", "-a", "a-", "--", "%2Da", "a%2D", "-a:80", "a-:80", "a.-", "-.a"});
    expectNoHosts("http", {"a-.b", "a.-b"});  // RFC 1034 holds for each label
}

TEST(UriOriginParse, NamesConsistOfLettersDigitsDashDotAndHighBytes) {
    for (int byte = 0; byte < 128; ++byte) {
        const std::string character(1, static_cast<char>(byte));
        const bool good = isalnum(byte) || byte == '-' || byte == '.';
        const char* digits = "0123456789ABCDEF";
        const std::string escaped = "a%"s + digits[byte / 16] + digits[byte % 16] + "b";
        EXPECT_EQ(good, parse("http://" + escaped + "/").rest.has_value()) << escaped;
        if (good ||
            (byte != 0 && byte != '%' && byte != ':' && byte != '/' && byte != '?' && byte != '#' && byte != '@')) {
            EXPECT_EQ(good, parse("http://a" + character + "b/").rest.has_value()) << byte;
        }
    }
}

TEST(UriOriginParse, NamesThatLibidnRefusesFail) {
    expectNoHosts("http", {"a..b", ".a", "..", "a..", std::string(64, 'a')});
    expectNoHosts("http", {"\xFF", "%FF", "a\xC3", "\xED\xA0\x80", "xn--\xC3\xA4",
                           "\xD7\x90"
                           "a",
                           "\xC2\xAD"});
    expectNoHosts("http", {"a\xEF\xBC\x85"
                           "b",
                           "a\xEF\xBC\x9A"
                           "80",
                           "a\xC2\xAD-"});
}

TEST(UriOriginParse, EmptyNamesWithAPortNeedAFileOrMulticastScheme) {
    for (const std::string scheme : {"file", "udp", "rtp"}) {
        for (const std::string text : {":80", "@:80", "u@:80", ":0080"}) {
            const Parse result = parse(scheme + "://" + text + "/");
            ASSERT_TRUE(result.rest) << scheme << text;
            EXPECT_EQ("/", *result.rest);
            EXPECT_EQ("", result.origin.host);
            EXPECT_EQ(80u, result.origin.port);
        }
        EXPECT_EQ(0u, parse(scheme + "://:0/").origin.port);
        expectNoHosts(scheme, {":", "@:", ":x", ":65536"});
    }
    EXPECT_TRUE(parse("UDP://:1234").rest);
    for (const std::string scheme : {"http", "https", "ftp", "x", "udpx", "rtsp", "ud"})
        expectNoHosts(scheme, {":80", "@:80", "u@:80", ":0", ":"});
}

// ---- Parsing: the port ----

TEST(UriOriginParse, APortIsDigitsUpTo65535) {
    // clang-format off
    const std::vector<std::string> bad = {
        ":", ":x", ":-1", ":+1", ":1a", ":a1", ": 1", ":1 ", ":1.0", ":0x1", ":1:2", ":1:", "::1",    // no digits
        ":%31", ":1%", ":\xD9\xA1", ":\xB2",                                                          // not decoded
        ":65536", ":65540", ":70000", ":100000", ":655350", ":065536", ":99999999999999999999",      // too large
        ":4294967376", ":18446744073709551696",                                                      // 80 but for 2^32, 2^64
    };
    // clang-format on
    for (const std::string& port : bad) {
        expectNoHosts("http", {"name" + port, "[::1]" + port});
        expectNoHosts("udp", {port});
    }
    for (const uint32_t port : {1u, 9u, 10u, 80u, 443u, 6553u, 9999u, 10000u, 65534u, 65535u})
        expectHosts("http", {{"name:" + std::to_string(port), "name", port, "good"}});
}

TEST(UriOriginParse, KeepsOnFailureWhatWasStored) {
    const Parse port = parse("HTTP://u@Name:x/");
    EXPECT_FALSE(port.rest);
    EXPECT_EQ("http", port.origin.scheme);
    EXPECT_EQ("name", port.origin.host);
    EXPECT_EQ("u", port.userInfo);
    EXPECT_TRUE(port.hasAuthority);
    EXPECT_EQ("::", parse("http://[::]/").origin.host);
}

// ---- Edge cases ----

TEST(UriOriginParse, SchemeAndNameInCapitalsWithTheDefaultPort) {
    const Parse result = parse("HTTP://Some.Name:80/");
    EXPECT_EQ("http", result.origin.scheme);
    EXPECT_EQ("some.name", result.origin.host);
    EXPECT_EQ(80u, result.origin.port);
    EXPECT_EQ("http://some.name/", result.origin.toString());
}

TEST(UriOriginParse, AColonNeedsDigits) {
    expectAllFail({"http://name:/", "http://name:65536/"});
    EXPECT_EQ(65535u, parse("http://name:65535/").origin.port);
}

TEST(UriOriginParse, EmptyHostsWithAndWithoutPort) {
    EXPECT_EQ("/a", parse("http:///a").rest);
    EXPECT_FALSE(parse("http://:80/").rest);
    EXPECT_EQ("/", parse("file://:80/").rest);
    EXPECT_EQ("", parse("udp://:1234").rest);
    EXPECT_EQ(1234u, parse("udp://:1234").origin.port);
}

TEST(UriOriginParse, LoopbackButNotTheAddressOfAllZeros) {
    EXPECT_TRUE(parse("http://[::1]/").rest);
    expectAllFail({"http://[::]/", "http://[fe80::1%eth0]/"});
}

TEST(UriOriginParse, UnderscoresDashesAtTheEndsAndBlanksFail) {
    expectAllFail({"http://a_b/", "http://-a/", "http://a-/", "http://a b/"});
}

// ---- Hosts set by hand ----

struct NormalizeRow {
    std::string scheme, host;
    bool allowTrailingDash;
    bool good;
    std::string result;
};

void expectNormalized(const std::vector<NormalizeRow>& rows) {
    for (const NormalizeRow& row : rows) {
        SCOPED_TRACE(row.scheme + " " + testing::PrintToString(row.host) + (row.allowTrailingDash ? " dash" : ""));
        Origin origin = withHost(row.host, row.scheme);
        origin.port = 7;
        EXPECT_EQ(row.good, origin.normalizeHostName(row.allowTrailingDash));
        if (row.good) {
            EXPECT_EQ(row.result, origin.host);
        }
        EXPECT_EQ(row.scheme, origin.scheme);
        EXPECT_EQ(7u, origin.port);
    }
}

TEST(UriOriginNormalize, AnEmptyHostPasses) {
    for (const std::string scheme : {"", "http", "orv", "project", "file"})
        expectNormalized({{scheme, "", false, true, ""}, {scheme, "", true, true, ""}});
}

TEST(UriOriginNormalize, OpaqueHostsHoldNoControlCharacters) {
    for (const std::string scheme : {"orv", "project"}) {
        for (const std::string host : {"a b", "A_B", "-a-", "-", "[::", "a:80", "%zz", "\x7F", "\x80\xFF", " "})
            expectNormalized({{scheme, host, false, true, host}, {scheme, host, true, true, host}});
        for (int byte = 0; byte < 32; ++byte)
            expectNormalized({{scheme, "a"s + static_cast<char>(byte), false, false, ""}});
    }
    expectNormalized(
        {{"ORV", "a b", false, false, ""}, {"Project", "a_b", false, false, ""}, {"orvx", "a b", false, false, ""}});
}

TEST(UriOriginNormalize, BracketsAreCutOff) {
    expectNormalized({
        {"http", "[::1]", false, true, "::1"},
        {"http", "[::1]", true, true, "::1"},
        {"", "[2001:DB8::7]", false, true, "2001:DB8::7"},
        {"http", "[::1x", false, true, "::1"},  // the last character isn't looked at
        {"http", "[::1-", false, true, "::1"},
        {"http", "[::1\xFF", false, true, "::1"},
        {"http", "[", false, false, ""},  // two characters at least
        {"http", "[]", false, false, ""},
        {"http", "[[", false, false, ""},
        {"http", "[::1", false, false, ""},  // "::" is no address
        {"http", "[::]", false, false, ""},
        {"http", "[name]", false, false, ""},
        {"http", "[::1]:80", false, false, ""},
        {"http", "[fe80::1%eth0]", false, true, "fe80::1%eth0"},
        {"http", "[fe80::1%25eth0]", false, true, "fe80::1%25eth0"},  // not escaped text: the zone is 25eth0
        {"http", "[fe80::1%]", false, true, "fe80::1%"},              // an empty zone passes here
        {"http", "[fe80::1%a]", false, true, "fe80::1%a"},
        {"http", "[fe80::1%a_b]", false, false, ""},
        {"http", "[fe80::1%a%b]", false, false, ""},
        {"http", "[fe80::1%a b]", false, false, ""},
        {"http", "[::1%eth0]", false, false, ""},
    });
}

TEST(UriOriginNormalize, NamesAreCheckedAndConverted) {
    expectNormalized({
        {"http", "Some.NAME", false, true, "some.name"},
        {"", "Name", false, true, "name"},
        {"file", "LOCALHOST", false, true, "localhost"},
        {"http", "1.2.3.4", false, true, "1.2.3.4"},
        {"http",
         "B\xC3\xBC"
         "cher",
         false, true, "xn--bcher-kva"},
        {"http", "a%41", false, false, ""},  // nothing is decoded
        {"http", "a_b", false, false, ""},
        {"http", "a b", false, false, ""},
        {"http", "a:80", false, false, ""},
        {"http", "::1", false, false, ""},  // without brackets
        {"http", "a]", false, false, ""},
        {"http", "a/b", false, false, ""},
        {"http", "a..b", false, false, ""},
        {"http", "a\0b"s, false, false, ""},
        {"http", "\xFF", false, false, ""},
        {"http", std::string(64, 'a'), false, false, ""},
    });
}

TEST(UriOriginNormalize, ADashAtTheEndIsAllowedOnRequest) {
    for (const std::string host : {"-a", "-", "--", "-a-", "a--", "a_-", "a-.b"})
        expectNormalized({{"http", host, false, false, ""}, {"http", host, true, false, ""}});
    expectNormalized({
        {"http", "a-", false, false, ""},
        {"http", "a-", true, true, "a-"},
        {"http", "A.B-", true, true, "a.b-"},
        {"http", "\xC3\xA4-", false, false, ""},
        {"http", "\xC3\xA4-", true, true, "xn--4ca-"},
        {"http", "Name", true, true, "name"},
    });
}

TEST(UriOriginNormalize, ZonesHoldLettersDigitsAndDashes) {
    for (const std::string host :
         {"", "anything at all", "::1", "a_b", "x%", "%", "fe80::1%", "x%eth0", "%a", "x%-", "x%azAZ09-"}) {
        Origin origin = withHost(host);
        EXPECT_TRUE(origin.normalizeIPv6()) << host;
        EXPECT_EQ(host, origin.host) << "stays as it was";
    }
    for (const std::string& host : {"x%a_b"s, "x%a%b"s, "x%%"s, "x%a b"s, "x%\xC3\xA4"s, "x%."s, "x%:"s, "x%a\0"s,
                                    "x%["s, "x%@"s, "x%`"s, "x%{"s, "x%/"s})
        EXPECT_FALSE(withHost(host).normalizeIPv6()) << testing::PrintToString(host);
}

// ---- Names through libidn ----

// Names in UTF-8 and in ASCII, RFC 3490 and RFC 3492.
const std::vector<std::pair<std::string, std::string>> IDNA_NAMES = {
    {"name", "name"},
    {"NAME.Example", "name.example"},
    {"name.", "name."},
    {"1.2.3.4", "1.2.3.4"},
    {"XN--4CA", "xn--4ca"},
    {"\xC3\xA4", "xn--4ca"},
    {"\xC3\x84", "xn--4ca"},   // a capital folds
    {"e\xCC\x81", "xn--9ca"},  // composes, like the next
    {"\xC3\xA9", "xn--9ca"},
    {"B\xC3\xBC"
     "cher.Example",
     "xn--bcher-kva.example"},
    {"fa\xC3\x9F.de", "fass.de"},
    {"a\xE3\x80\x82"
     "B",
     "a.b"},                            // ideographic full stop
    {"\xEF\xBC\x91.2.3.4", "1.2.3.4"},  // full-width digit
    {"\xE2\x84\xAA.K", "k.k"},          // Kelvin sign
    {"a\xC2\xAD"
     "b",
     "ab"},                            // the soft hyphen vanishes
    {"\xC4\xB0", "xn--i-9bb"},         // capital I with dot
    {"\xC8\xA1", "xn--6la"},           // unassigned in Unicode 3.2: allowed
    {"\xF0\x9F\x98\x80", "xn--e28h"},  // four bytes; unassigned as well
    {"\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E\xE3\x80\x82\xEF\xBC\xAA\xEF\xBC\xB0", "xn--wgv71a119e.jp"},
    {"\xE4\xBB\x96\xE4\xBB\xAC\xE4\xB8\xBA\xE4\xBB\x80\xE4\xB9\x88\xE4\xB8\x8D\xE8\xAF\xB4\xE4\xB8\xAD\xE6\x96\x87",
     "xn--ihqwcrb4cv8a8dqg056pqjye"},  // RFC 3492, 7.1 (B)
    {"\xE4\xBB\x96\xE5\x80\x91\xE7\x88\xB2\xE4\xBB\x80\xE9\xBA\xBD\xE4\xB8\x8D\xE8\xAA\xAA\xE4\xB8\xAD\xE6\x96\x87",
     "xn--ihqwctvzc91f659drss3x8bo0yb"},  // RFC 3492, 7.1 (C)
    {"Pro\xC4\x8Dprost\xC4\x9Bnemluv\xC3\xAD\xC4\x8D"
     "esky",
     "xn--proprostnemluvesky-uyb24dma41a"},  // (D)
};

// Names that libidn refuses: delimiters, dashes at the ends of a label, empty and long labels, bad UTF-8, a mix of
// directions, a prefix before what isn't ASCII.
// clang-format off
const std::vector<std::string> BAD_NAMES = {
    "a_b", "a b", "a%b", "a/b", "a:b", "a\xEF\xBC\x85z", "a\xEF\xBC\x8Fz",    // delimiters, also full-width ones
    "-a", "a-", "-", "a-.b", "a.-b",                                            // dashes at the ends of a label
    "a..b", ".a", "..", "\xC2\xAD",                                             // empty labels
    std::string(64, 'a'), "\xC3\xA4" + std::string(63, 'a'),                    // long ones
    "\xFF", "a\xC3", "\xED\xA0\x80",                                           // no UTF-8
    "\xD7\x90z", "xn--\xC3\xA4",                                               // both directions; the prefix twice
};
// clang-format on

void expectCanonicalNames() {
    for (const auto& [name, ascii] : IDNA_NAMES) {
        std::string host = name;
        EXPECT_TRUE(URI::canonicalizeHostName(host, false)) << name;
        EXPECT_EQ(ascii, host);
        EXPECT_TRUE(URI::canonicalizeHostName(host, true)) << "the ASCII form stays: " << ascii;
        EXPECT_EQ(ascii, host);
        EXPECT_EQ(ascii, parse("http://" + name + "/").origin.host);
    }
    for (const std::string& name : BAD_NAMES) {
        std::string host = name;
        EXPECT_FALSE(URI::canonicalizeHostName(host, false)) << name;
        EXPECT_EQ(name, host) << "unchanged on failure";
    }
}

TEST(UriOriginCanonical, NamesBecomeTheirAsciiForm) {
    expectCanonicalNames();
}

// The first two must be there; the others tell characters from bytes, or capitals, in other ways, where they are
// installed.
TEST(UriOriginCanonical, NoLocaleOfTheProcessMatters) {
    const std::string before = setlocale(LC_ALL, nullptr);
    ASSERT_NE(nullptr, setlocale(LC_ALL, "C.UTF-8"));
    for (const char* name :
         {"C", "C.UTF-8", "POSIX", "tr_TR.UTF-8", "tr_TR.ISO-8859-9", "de_DE.ISO-8859-1", "ja_JP.EUC-JP"}) {
        if (setlocale(LC_ALL, name) == nullptr)
            continue;
        SCOPED_TRACE(name);
        expectCanonicalNames();
        EXPECT_EQ("file", parse("FILE://IIII/").origin.scheme);
        EXPECT_EQ("iiii", parse("FILE://IIII/").origin.host);
        EXPECT_TRUE(parse("http://[fe80::1%25I]/").rest);
        expectNoHosts("http", {"a\xE4", "[fe80::1%25\xE4]", "name:\xB2"});
        EXPECT_EQ("", parse("a\xE4:b").origin.scheme);
    }
    setlocale(LC_ALL, before.c_str());
}

TEST(UriOriginCanonical, ADashAtTheEndIsSetAside) {
    const struct {
        std::string name;
        bool good;
        std::string result;
    } rows[] = {
        {"a-", true, "a-"},     {"A.B-", true, "a.b-"}, {"\xC3\x84-", true, "xn--4ca-"},
        {"name", true, "name"}, {"-", false, "-"},      {"--", false, "--"},
        {"a--", false, "a--"},  {"-a-", false, "-a-"},  {"a_-", false, "a_-"},
    };
    for (const auto& row : rows) {
        std::string host = row.name;
        EXPECT_EQ(row.good, URI::canonicalizeHostName(host, true)) << row.name;
        EXPECT_EQ(row.result, host);
    }
}

TEST(UriOriginCanonical, WorksInAnyThread) {
    std::vector<std::thread> threads;
    std::array<int, 4> good{};
    for (size_t i = 0; i < good.size(); ++i) {
        threads.emplace_back([&good, i] {
            for (int n = 0; n < 200; ++n)
                good[i] += Origin("http://B\xC3\xBC"
                                  "cher.example/")
                               .host == "xn--bcher-kva.example";
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    for (const int count : good)
        EXPECT_EQ(200, count);
}

// ---- Forms of addresses ----

TEST(UriOriginAddress, DottedQuads) {
    const std::string good[] = {"1.2.3.4",
                                "0.0.0.0",
                                "255.255.255.255",
                                "001.2.3.4",
                                "192.168.000.001",
                                "0000000000000000000000000000255.2.3.4",
                                "1.2.3." + std::string(1000, '0') + "255",
                                "249.250.199.200"};
    for (const std::string& host : good)
        EXPECT_TRUE(withHost(host).isIPv4()) << host;
    // clang-format off
    const std::string bad[] = {
        "", ".", "...", "1", "1.2", "1.2.3", "1.2.3.4.5",                                     // not four groups
        "1.2.3.", ".1.2.3", ".1.2.3.4", "1.2.3.4.", "1..2.3", "1.2..3", "1.2.3..4",           // dots
        "256.2.3.4", "1.256.3.4", "1.2.256.4", "1.2.3.256", "1.2.3.300", "1.2.3.1000",        // too large
        "4294967297.2.3.4", "1.2.3.18446744073709551617", "1.2.3.99999999999999999999999",    // likewise, far
        " 1.2.3.4", "1.2.3.4 ", "1.2.3.4%eth0", "1.2.3.4%", "1.2.3.4:80", "[1.2.3.4]",        // something around it
        "a.b.c.d", "1.2.3.x", "1.2.3.4x", "0x1.2.3.4", "+1.2.3.4", "-1.2.3.4", "1.2.3.\xB2",  // no digits
        "1,2,3,4", "::1.2.3.4", "1.2.3.4\0"s, "1.2.3.4\0.5"s, "1.2.3.\0"s,                    // other characters
    };
    // clang-format on
    for (const std::string& host : bad)
        EXPECT_FALSE(withHost(host).isIPv4()) << testing::PrintToString(host);
}

TEST(UriOriginAddress, IPv6AsItIsAccepted) {
    const std::pair<std::string, const char*> rows[] = {
        {"ABCD:EF01:2345:6789:ABCD:EF01:2345:6789", "RFC 4291, 2.2"},
        {"2001:DB8:0:0:8:800:200C:417A", "RFC 4291, 2.2"},
        {"2001:DB8::8:800:200C:417A", "RFC 4291, 2.2"},
        {"FF01::101", "RFC 4291, 2.2"},
        {"::1", "RFC 4291, 2.2"},
        {"0:0:0:0:0:0:13.1.68.3", "RFC 4291, 2.2"},
        {"0:0:0:0:0:FFFF:129.144.52.38", "RFC 4291, 2.2"},
        {"::13.1.68.3", "RFC 4291, 2.2"},
        {"::FFFF:129.144.52.38", "RFC 4291, 2.2"},
        {"2001:0DB8::CD30:0:0:0:0", "RFC 4291, 2.3"},
        {"fe80::1", "a link-local address"},
        {"aBcD::eF", "either case"},
        {"1:2:3:4:5:6:7:8", "eight groups"},
        {"0001:0002:0003:0004:0005:0006:0007:0008", "four digits each"},
        {"1::", "the compression at the end"},
        {"1:2:3:4:5:6:7::", "the compression for one group, at the end"},
        {"::2:3:4:5:6:7:8", "the compression for one group, in front"},
        {"1:2:3::5:6:7:8", "the compression for one group, inside"},
        {"1:2:3:4:5:6:7:8:", "a single colon behind the last group is tolerated"},
        {"1::2:", "likewise"},
        {"::1:", "likewise"},
        {"::1.2.3.4", "a dotted quad counts as two groups"},
        {"1:2:3:4:5:6:1.2.3.4", "six groups and two"},
        {"1::5:6:1.2.3.4", "fewer, with a compression"},
        {"1:2:3:4:5::1.2.3.4", "fewer, with a compression"},
        {"::001.002.003.004", "leading zeros in the quad"},
        {"::1.0000002.3.4", "any number of them, but in its first group"},
        {"::1.2.3.4%eth0", "the quad ends at the percent sign"},
        {"::1.2.3.4%", "likewise"},
        {"::1.2.3.4%%::x", "it ends the scan, whatever follows"},
        {"fe80::1%eth0", "a zone"},
        {"fe80::1%", "an empty zone"},
        {"fe80::1%25eth0", "what follows isn't looked at"},
        {"fe80::1%a:b::c::d%%\xFF", "likewise"},
        {"1:2:3:4:5:6::8%x", "the group before the zone isn't counted: six and a compression"},
        {"1:2:3:4:5:6:7::9%x", "likewise: seven"},
        {"1:2:3:4:5:6:7:8:9%x", "likewise: eight, without a compression"},
    };
    for (const auto& [host, from] : rows)
        EXPECT_TRUE(withHost(host).isIPv6()) << host << ": " << from;
}

TEST(UriOriginAddress, IPv6AsItIsNotAccepted) {
    const std::pair<std::string, const char*> rows[] = {
        {"", "no group"},
        {":", "a single colon in front"},
        {"::", "nothing follows the compression"},
        {":::", "three colons"},
        {":1", "a single colon in front"},
        {":1::2", "a single colon in front"},
        {":1:2:3:4:5:6:7:8", "a single colon in front"},
        {":::1", "three colons"},
        {"1:::2", "three colons"},
        {"1:::", "three colons"},
        {"::1::", "a second compression"},
        {"::1::2", "a second compression"},
        {"1::2::3", "a second compression"},
        {"1::2::", "a second compression"},
        {"1", "one group without a compression"},
        {"1:", "one group without a compression"},
        {"1:2:3:4:5:6:7", "seven groups without a compression"},
        {"1:2:3:4:5:6:7:", "seven groups without a compression"},
        {"1:2:3:4:5:6:7:8:9", "nine groups"},
        {"1:2:3:4:5:6:7:8::", "eight groups and a compression"},
        {"::1:2:3:4:5:6:7:8", "eight groups and a compression"},
        {"1:2:3:4::5:6:7:8", "eight groups and a compression"},
        {"1::2:3:4:5:6:7:8:9", "nine groups and a compression"},
        {"12345::", "five digits"},
        {"::12345", "five digits"},
        {"00001::", "five digits"},
        {"::g", "not a hexadecimal digit"},
        {"::1g", "not a hexadecimal digit"},
        {"g::", "not a hexadecimal digit"},
        {"1:g::", "not a hexadecimal digit"},
        {"::-1", "not a hexadecimal digit"},
        {"::0x1", "not a hexadecimal digit"},
        {" ::1", "a blank"},
        {"::1 ", "a blank"},
        {":: 1", "a blank"},
        {"[::1]", "brackets"},
        {"1.2.3.4", "two groups without a compression"},
        {"1:2:3:4:5:1.2.3.4", "seven groups without a compression"},
        {"1:2:3:4:5:6:7:1.2.3.4", "nine groups"},
        {"1:2:3:4:5:6::1.2.3.4", "eight groups and a compression"},
        {"::1.2.3", "a quad of three"},
        {"::1.2.3.4.5", "a quad of five"},
        {"::1.2.3.", "a quad that ends in a dot"},
        {"::1..2.3", "a quad with a doubled dot"},
        {"::.1.2.3", "a dot without a group"},
        {"::1.2.3.256", "a quad out of range"},
        {"::ab.2.3.4", "a quad with letters"},
        {"::1.2.3.4:", "nothing follows a quad but a zone"},
        {"::1.2.3.4:5", "nothing follows a quad but a zone"},
        {"::00001.2.3.4", "five digits before the dot"},
        {"name", "a name"},
        {"fe80", "one group"},
        {"%", "no group before the zone"},
        {"%eth0", "no group before the zone"},
        {"::%eth0", "no group before the zone"},
        {"fe80::%eth0", "no group before the zone"},
        {"fe80:%eth0", "no group before the zone"},
        {"::1:%eth0", "no group before the zone"},
        {"fe80%eth0", "the group before the zone isn't counted: none"},
        {"::1%eth0", "likewise: none"},
        {"1%", "likewise: none"},
        {"1:2%x", "likewise: one without a compression"},
        {"1:2:3:4:5:6:7:8%x", "likewise: seven without a compression"},
        {"1:2:3:4:5:6:7:8:9:a%x", "likewise: nine"},
        {"1:2:3:4::5:6:7:8:9%x", "likewise: eight and a compression"},
        {"::1\xC3\xA4", "a high byte"},
        {"::\xB2", "a high byte"},
        {"::1/64", "a prefix length"},
    };
    for (const auto& [host, from] : rows)
        EXPECT_FALSE(withHost(host).isIPv6()) << testing::PrintToString(host) << ": " << from;
}

TEST(UriOriginAddress, HostsOfAnyOtherKindAreNeither) {
    for (const std::string host : {"", "name", "a.b.c.d", "some:name", "face", "12.34"}) {
        EXPECT_FALSE(withHost(host).isIPv4()) << host;
        EXPECT_FALSE(withHost(host).isIPv6()) << host;
    }
}

// ---- Addresses against a slow model ----

TEST(UriOriginAddress, RandomTextsAreJudgedAsByTheModel) {
    std::mt19937 random(66);
    const std::vector<std::string> tokens = {"::",  ":",   "1", "ab",    "12f", "FFFF", "0",   "1.2.3.4", ".",
                                             "255", "256", "%", "%eth0", "g",   "00",   "5:6", "1:2:3",   "\xFF"};
    int accepted = 0;
    for (int i = 0; i < 3 * RANDOM_CASES; ++i) {
        std::string text;
        for (size_t n = random() % 14; n > 0; --n) {
            // Mostly in the order of an address, so that a good share is one.
            const size_t kind = random() % 8;
            text += kind < 3   ? tokens[2 + random() % 5]
                    : kind < 6 ? ":"
                    : kind < 7 ? tokens[random() % 5]
                               : tokens[random() % tokens.size()];
        }
        const Origin origin = withHost(text);
        ASSERT_EQ(isIPv6Model(text), origin.isIPv6()) << testing::PrintToString(text);
        ASSERT_EQ(isQuadModel(text), origin.isIPv4()) << testing::PrintToString(text);
        accepted += origin.isIPv6();
    }
    EXPECT_GT(accepted, RANDOM_CASES / 100);
}

TEST(UriOriginAddress, RandomQuadsAreJudgedAsByTheModel) {
    std::mt19937 random(4);
    int accepted = 0;
    for (int i = 0; i < RANDOM_CASES; ++i) {
        std::string text;
        for (size_t n = random() % 5 == 0 ? random() % 6 : 4; n > 0; --n)
            text += std::to_string(random() % 290) + (n > 1 ? "." : "");
        if (random() % 8 == 0)
            text.insert(random() % (text.size() + 1), 1, "0.x%"[random() % 4]);
        ASSERT_EQ(isQuadModel(text), withHost(text).isIPv4()) << text;
        accepted += isQuadModel(text);
    }
    EXPECT_GT(accepted, RANDOM_CASES / 100);
}

// ---- Printing ----

TEST(UriOriginPrint, HostsAsTheyStandInAURI) {
    const struct {
        std::string scheme, host, expected;
    } rows[] = {
        {"http", "", ""},
        {"http", "name", "name"},
        {"http", "1.2.3.4", "1.2.3.4"},
        {"http", "a b%/\xFF", "a b%/\xFF"},  // what isn't an address is printed verbatim
        {"http", "::1", "[::1]"},
        {"", "::1", "[::1]"},
        {"file", "2001:DB8::7", "[2001:DB8::7]"},
        {"http", "::", "::"},
        {"http", "[::1]", "[::1]"},
        {"http", "fe80::1%eth0", "[fe80::1%25eth0]"},
        {"http", "fe80::1%", "[fe80::1%25]"},
        {"http", "fe80::1%a b/%:]\xFF", "[fe80::1%25a%20b%2F%25%3A%5D%FF]"},  // the empty keep set
        {"http", "fe80::1%[[a]]", "[fe80::1%25%5B%5Ba%5D%5D]"},               // patterns are off
        {"http", "::1.2.3.4%a-b_c.d~e", "[::1.2.3.4%25a-b_c.d~e]"},
        {"http", "::1%eth0", "::1%eth0"},  // no address by the rules
        {"orv", "name", "name"},
        {"orv", "", ""},
        {"orv", "some:name", "some%3Aname"},
        {"project", "a b/c?d#e@f%g", "a%20b%2Fc%3Fd%23e%40f%25g"},
        {"project", "!$&'()*+,;=", "%21%24%26%27%28%29%2A%2B%2C%3B%3D"},
        {"orv", "::1", "%3A%3A1"},          // never in brackets
        {"orv", "[[x]]", "%5B%5Bx%5D%5D"},  // patterns are off
        {"orv", "\xC3\xA4\x01", "%C3%A4%01"},
        {"orv", "AZaz09-._~", "AZaz09-._~"},
        {"ORV", "a b", "a b"},  // only these two schemes in lower case
        {"Project", "a b", "a b"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(row.expected, withHost(row.host, row.scheme).escapedHost()) << row.scheme << " " << row.host;
}

TEST(UriOriginPrint, PortsOtherThanTheDefault) {
    const struct {
        std::string scheme, host;
        uint32_t port;
        std::string hostPort, whole;
    } rows[] = {
        {"http", "name", 80, "name", "http://name/"},
        {"http", "name", 8080, "name:8080", "http://name:8080/"},
        {"https", "name", 80, "name:80", "https://name:80/"},
        {"http", "name", 0, "name:0", "http://name:0/"},  // set by hand; differs from the default
        {"x", "name", 0, "name", "x://name/"},
        {"x", "name", 1, "name:1", "x://name:1/"},
        {"", "name", 0, "name", "//name/"},
        {"", "name", 80, "name:80", "//name:80/"},
        {"http", "name", 4294967295u, "name:4294967295", "http://name:4294967295/"},
        {"HTTP", "name", 80, "name:80", "HTTP://name:80/"},
        {"orv", "name", 0, "name", "orv://name/"},
        {"orv", "a:b", 5, "a%3Ab", "orv://a%3Ab/"},  // opaque hosts have no port
        {"project", "name", 80, "name", "project://name/"},
        {"http", "::1", 81, "[::1]:81", "http://[::1]:81/"},
        {"http", "fe80::1%eth0", 80, "[fe80::1%25eth0]", "http://[fe80::1%25eth0]/"},
        {"udp", "", 1234, ":1234", "udp:"},
        {"file", "", 80, ":80", "file:"},
        {"mailto", "", 0, "", "mailto:"},
        {"", "", 0, "", ""},
        {"", "", 9, ":9", ""},
        {"rtmps", "name", 443, "name", "rtmps://name/"},
        {"ftpes", "name", 21, "name", "ftpes://name/"},
    };
    for (const auto& row : rows) {
        Origin origin = withHost(row.host, row.scheme);
        origin.port = row.port;
        EXPECT_EQ(row.hostPort, origin.escapedHostPort()) << row.whole;
        EXPECT_EQ(row.whole, origin.toString());
    }
}

// ---- Ordering ----

TEST(UriOriginCompare, SchemeThenHostThenPort) {
    const std::vector<Origin> ascending = {
        withHost("", ""),       withHost("\xFF", ""), withHost("", "HTTP"),    withHost("", "a"),
        withHost("z", "a"),     withHost("", "a\0"s), withHost("", "ab"),      withHost("a", "b"),
        Origin("b", "a", 1),    Origin("b", "a", 2),  Origin("b", "a", 65536), Origin("b", "a", 4294967295u),
        withHost("a\0"s, "b"),  withHost("ab", "b"),  withHost("b", "b"),      withHost("b\x7F", "b"),
        withHost("b\x80", "b"), withHost("", "\xC3"),
    };
    for (size_t i = 0; i < ascending.size(); ++i) {
        for (size_t j = 0; j < ascending.size(); ++j) {
            const int result = ascending[i].compare(ascending[j]);
            EXPECT_EQ(i < j, result < 0) << i << " " << j;
            EXPECT_EQ(i == j, result == 0) << i << " " << j;
        }
    }
}

TEST(UriOriginCompare, ThePortGivesOneAndNoMore) {
    EXPECT_EQ(-1, Origin("x", "h", 1).compare(Origin("x", "h", 4294967295u)));
    EXPECT_EQ(1, Origin("x", "h", 4294967295u).compare(Origin("x", "h", 1)));
    EXPECT_EQ(0, Origin("x", "h", 7).compare(Origin("x", "h", 7)));
    EXPECT_EQ(0, Origin("http", "h").compare(Origin("http", "h", 80)));
}

TEST(UriOriginCompare, APrefixDiffersByTheLengths) {
    EXPECT_EQ(-2, withHost("ab").compare(withHost("abcd")));
    EXPECT_EQ(3, withHost("", "httpabc").compare(withHost("", "http")));
}

// ---- Random properties ----

constexpr std::string_view SOUP = "aAzZ019.-_%:/@[]?#+ \x80\xC3\xA4\xFF";

std::string randomGroup(std::mt19937& random) {
    return randomFrom(random, "0123456789abcdefABCDEF", 1 + random() % 4);
}

std::string randomIPv6(std::mt19937& random) {
    std::string address = randomGroup(random);
    const size_t compressed = random() % 7;
    for (size_t i = 0; i < 6; ++i)
        address += (i == compressed ? "::" : ":") + randomGroup(random);
    if (compressed == 6)
        address += ":" + randomGroup(random);
    else if (random() % 2 == 0)
        address += "%" + randomFrom(random, "azAZ09-", 1 + random() % 5);
    return address;
}

std::string randomName(std::mt19937& random) {
    std::string name;
    for (size_t labels = 1 + random() % 3; labels > 0; --labels)
        name += randomFrom(random, "az09", 1) + randomFrom(random, "bc12-", random() % 4) +
                randomFrom(random, "yz89", 1) + (labels > 1 ? "." : "");
    return name;
}

// randomOrigin makes one as the parser would: every part in canonical form.
Origin randomOrigin(std::mt19937& random) {
    if (random() % 4 == 0) {
        std::string host = randomBytes(random, 1 + random() % 6);
        for (char& c : host)
            c = static_cast<unsigned char>(c) < 32 ? ' ' : c;
        return Origin(random() % 2 ? "orv" : "project", host, 0);
    }
    const std::string scheme =
        random() % 2 ? PORTS[4 + random() % (PORTS.size() - 4)].first : randomFrom(random, "az", 1 + random() % 3);
    const std::string host = random() % 3 == 0 ? randomIPv6(random) : randomName(random);
    return Origin(scheme, host, random() % 3 == 0 ? 0 : random() % 65536);
}

TEST(UriOriginRandom, WhatIsPrintedParsesToTheSame) {
    std::mt19937 random(1);
    for (int i = 0; i < RANDOM_CASES; ++i) {
        const Origin origin = randomOrigin(random);
        const std::string text = origin.toString();
        const Parse again = parse(text);
        ASSERT_EQ("/", again.rest) << text;
        ASSERT_EQ(0, origin.compare(again.origin)) << text << " " << again.origin.toString();
        ASSERT_EQ(text, again.origin.toString());
    }
}

void expectParsedForm(const Origin& origin) {
    for (const char c : origin.scheme)
        ASSERT_NE(std::string::npos, "abcdefghijklmnopqrstuvwxyz0123456789+-."s.find(c));
    ASSERT_LE(origin.port, 65535u);
    if (origin.host.empty() || origin.scheme == "orv" || origin.scheme == "project")
        return;
    for (const char c : origin.host)
        ASSERT_NE(std::string::npos, "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-.:%"s.find(c));
    const Parse again = parse(origin.toString());
    ASSERT_TRUE(again.rest) << origin.toString();
    ASSERT_EQ(0, origin.compare(again.origin)) << origin.toString();
}

TEST(UriOriginRandom, WhatParsesHasTheFormAndParsesAgain) {
    std::mt19937 random(2);
    const std::vector<std::string> schemes = {
        "http://", "orv://", "file://", "udp://u@", "x://", "http://[", "https://[fe80::1%25", ""};
    int parsed = 0;
    for (int i = 0; i < 2 * RANDOM_CASES; ++i) {
        const std::string text =
            schemes[random() % schemes.size()] + randomFrom(random, SOUP, random() % 8) + (random() % 2 ? "/" : "");
        const Parse result = parse(text);
        if (result.rest && !result.origin.host.empty()) {
            ASSERT_NO_FATAL_FAILURE(expectParsedForm(result.origin)) << testing::PrintToString(text);
            ++parsed;
        }
    }
    EXPECT_GT(parsed, RANDOM_CASES / 100);
}

void exercise(const std::string& bytes) {
    parse(bytes);
    parse("http://" + bytes);
    parse("orv://" + bytes);
    parse("http://[" + bytes);
    parse("http://[fe80::1%25" + bytes);
    parse("udp://:" + bytes);
    Origin origin(bytes);
    for (const std::string scheme : {"http", "orv"}) {
        origin = Origin(scheme, bytes, 1);
        origin.isIPv4();
        origin.isIPv6();
        origin.escapedHostPort();
        origin.toString();
        origin.normalizeIPv6();
        origin.normalizeHostName(bytes.size() % 2 == 0);
    }
    URI::defaultPort(bytes);
}

TEST(UriOriginRandom, NoBytesBreakAnything) {
    std::mt19937 random(3);
    for (int i = 0; i < RANDOM_CASES; ++i) {
        const size_t length = random() % 24;
        exercise(random() % 2 ? randomBytes(random, length) : randomFrom(random, SOUP, length));
    }
}

TEST(UriOriginRandom, TheOrderIsAntisymmetricAndTransitive) {
    std::mt19937 random(4);
    const auto next = [&random] {
        return Origin(randomFrom(random, "a\xFF", random() % 2), randomFrom(random, "ab\xFF", random() % 3),
                      1 + random() % 2);
    };
    const auto sign = [](int n) { return (n > 0) - (n < 0); };
    for (int i = 0; i < RANDOM_CASES; ++i) {
        const Origin a = next(), b = next(), c = next();
        ASSERT_EQ(sign(a.compare(b)), -sign(b.compare(a)));
        ASSERT_EQ(a.compare(b) == 0, a.scheme == b.scheme && a.host == b.host && a.port == b.port);
        if (a.compare(b) <= 0 && b.compare(c) <= 0) {
            ASSERT_LE(a.compare(c), 0);
        }
    }
}

// A text that costs the square of its length would take hours here.
TEST(UriOriginRandom, LongTextsAreReadInOneGo) {
    for (const std::string piece : {"[", "%", "%2", "@", ":", "]", "::", "1:", "0", "a.", "[["}) {
        for (const std::string start : {"http://", "http://[", "http://a:", "orv://", "http://[fe80::1%25", "a"}) {
            EXPECT_TRUE(growsEvenly(piece,
                                    [&](const std::string& text) {
                                        const Parse result = parse(start + text);
                                        return result.rest ? result.origin.host.size() + result.userInfo.size() +
                                                                 result.rest->size()
                                                           : 0;
                                    }))
                << start << piece;
        }
        EXPECT_TRUE(growsEvenly(piece, [](const std::string& text) {
            EXPECT_FALSE(withHost(text).isIPv4() || withHost(text).isIPv6());
            return withHost(text).escapedHost().size();
        })) << piece;
    }
}

}  // namespace

// --- plain names don't go through libidn; the result must be its own

namespace {

std::string libidnForm(const std::string& name) {
    char* result = nullptr;
    const int status = idna_to_ascii_8z(name.c_str(), &result, IDNA_ALLOW_UNASSIGNED | IDNA_USE_STD3_ASCII_RULES);
    std::string form = status == IDNA_SUCCESS ? result : "refused";
    idn_free(result);
    std::transform(form.begin(), form.end(), form.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? char(c + 32) : c; });
    return form;
}

std::string ourForm(std::string name) {
    return URI::canonicalizeHostName(name, false) ? name : "refused";
}

}  // namespace

TEST(UriOriginCanonical, OnlyNamesThatAreNotPlainHaveALimit) {
    std::string plain = "a";
    while (plain.size() < 20000)
        plain += ".a";
    EXPECT_EQ(ourForm(plain), plain);
    const std::string longest = "\xC3\xA4" + plain.substr(1, 16382);
    EXPECT_EQ(ourForm(longest), "xn--4ca" + plain.substr(1, 16382));
    EXPECT_EQ(ourForm(longest + "a"), "refused");
}

TEST(UriOriginCanonical, NameWithANulIsRefused) {
    EXPECT_EQ(ourForm(std::string("a\0b", 3)), "refused");
    EXPECT_EQ(ourForm(std::string("a\0", 2)), "refused");
}

TEST(UriOriginPlainNames, AllShortOnesAreAsLibidnHasThem) {
    const std::string letters = "aZ1-.";
    std::vector<std::string> names = {"a"};
    for (size_t first = 0; names.size() < 3000; ++first) {
        EXPECT_EQ(ourForm(names[first]), libidnForm(names[first])) << names[first];
        for (const char letter : letters)
            names.push_back(names[first] + letter);
    }
    for (const std::string& name : names)
        for (const char letter : letters)
            EXPECT_EQ(ourForm(letter + name), libidnForm(letter + name)) << letter + name;
}

TEST(UriOriginPlainNames, LimitsOfLabelsAreThoseOfLibidn) {
    for (const size_t size : {1, 62, 63, 64, 200})
        for (const char* format : {"", "a.", "xn--a."}) {
            const std::string label(size, 'A');
            for (const std::string& name : {format + label, format + label + ".", format + label + ".b"})
                EXPECT_EQ(ourForm(name), libidnForm(name)) << name;
        }
    for (const char* name : {"", ".", "..", "a..", "xn--bcher-kva.example", "XN--A", "a_b", "a b"})
        EXPECT_EQ(ourForm(name), libidnForm(name)) << name;
}
