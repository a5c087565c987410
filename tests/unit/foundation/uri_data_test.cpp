// uri_data_test.cpp: data URIs (RFC 2397), URI::Data of foundation/uri.h.

#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "foundation/uri.h"
#include "unit/exact_buffer.h"
#include "unit/foundation/even_growth.h"
#include "unit/foundation/random_text.h"
#include "unit/rounds.h"

namespace {

using namespace std::string_literals;

using Bytes = std::vector<unsigned char>;

const int RANDOM_CASES = rounds(100000);
const std::string DEFAULT_TYPE = "text/plain;charset=US-ASCII";

Bytes bytes(const std::string& text) {
    return {text.begin(), text.end()};
}

std::string text(const Bytes& content) {
    return {content.begin(), content.end()};
}

std::string hexEscape(int byte) {
    const char* digits = "0123456789ABCDEF";
    return "%"s + digits[byte / 16] + digits[byte % 16];
}

// parse parses a copy of `rest`, what follows "data:", that has nothing readable after its terminator. Null on failure.
std::shared_ptr<const URI::Data> parse(const std::string& rest) {
    const ExactBuffer<char> buffer(rest, true);
    URI uri;
    const bool good = uri.parseFromDataURI(buffer.data());
    EXPECT_EQ(good, uri.data != nullptr);
    return uri.data;
}

bool isAccepted(const std::string& rest) {
    return parse(rest) != nullptr;
}

struct Row {
    std::string rest, mimeType, content;
    const char* from;
};

void expectParsed(const std::vector<Row>& rows) {
    for (const Row& row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.rest) + ": " + row.from);
        const std::shared_ptr<const URI::Data> data = parse(row.rest);
        ASSERT_NE(nullptr, data);
        EXPECT_EQ(row.mimeType, data->mimeType);
        EXPECT_EQ(row.content, text(data->bytes));
        EXPECT_EQ(row.content, text(URI::fromString("data:" + row.rest).data->bytes));
    }
}

void expectFailed(const std::vector<std::pair<std::string, const char*>>& rows) {
    for (const auto& [rest, why] : rows) {
        EXPECT_FALSE(isAccepted(rest)) << testing::PrintToString(rest) << ": " << why;
        EXPECT_EQ(nullptr, URI::fromString("data:" + rest).data) << testing::PrintToString(rest);
        EXPECT_EQ("", URI::fromString("data:" + rest).origin.scheme) << testing::PrintToString(rest);
    }
}

void expectOnlyData(const URI& uri) {
    EXPECT_EQ("data", uri.origin.scheme);
    EXPECT_EQ("", uri.origin.host);
    EXPECT_EQ(0u, uri.origin.port);
    EXPECT_EQ(0, uri.path.compare(URI::Path()));
    EXPECT_EQ("", uri.userInfo + uri.query + uri.fragment);
}

// ---- The content as a value ----

TEST(UriData, TakesBytesAndMediaType) {
    Bytes content = bytes("some content");
    std::string type = "application/x-a-rather-long-name-of-a-type";
    const unsigned char* const contentBlock = content.data();
    const char* const typeBlock = type.data();
    const URI::Data data(std::move(content), std::move(type));
    EXPECT_EQ(contentBlock, data.bytes.data()) << "moved, not copied";
    EXPECT_EQ(typeBlock, data.mimeType.data()) << "moved, not copied";
    EXPECT_EQ("some content", text(data.bytes));
    EXPECT_EQ("application/x-a-rather-long-name-of-a-type", data.mimeType);
}

TEST(UriData, AnEmptyMediaTypeMeansTheDefault) {
    EXPECT_EQ(DEFAULT_TYPE, URI::Data(bytes("x"), "").mimeType);
    EXPECT_EQ("not checked", URI::Data({}, "not checked").mimeType);
    EXPECT_TRUE(URI::Data({}, "").bytes.empty());
}

// ---- Making data URIs ----

TEST(UriData, FromDataSharesWhatItGets) {
    const auto data = std::make_shared<const URI::Data>(bytes("hi"), "a/b");
    const URI uri = URI::fromData(data);
    expectOnlyData(uri);
    EXPECT_EQ(data, uri.data);
    EXPECT_EQ("data:a/b;base64,aGk=", uri.toString());
}

TEST(UriData, FromDataOfNothingPrintsAsTheScheme) {
    const URI uri = URI::fromData(std::shared_ptr<const URI::Data>());
    expectOnlyData(uri);
    EXPECT_EQ(nullptr, uri.data);
    EXPECT_EQ("data:", uri.toString());
    EXPECT_EQ("data:", uri.toUserString());
}

TEST(UriData, FromDataTakesMovedBytes) {
    Bytes content = bytes("hi");
    const unsigned char* const block = content.data();
    const URI uri = URI::fromData(std::move(content), "a/b"s);
    expectOnlyData(uri);
    EXPECT_EQ(block, uri.data->bytes.data());
    EXPECT_EQ("a/b", uri.data->mimeType);
    EXPECT_EQ(DEFAULT_TYPE, URI::fromData(bytes("hi"), ""s).data->mimeType);
}

TEST(UriData, FromDataCopiesAString) {
    const std::string content = "a\0\xFF"s, type = "a/b";
    const URI uri = URI::fromData(content, type);
    expectOnlyData(uri);
    EXPECT_EQ(content, text(uri.data->bytes));
    EXPECT_EQ("a/b", uri.data->mimeType);
    EXPECT_EQ(DEFAULT_TYPE, URI::fromData(content, std::string()).data->mimeType);
}

TEST(UriData, CopiesShareTheContent) {
    URI uri = URI::fromString("data:,hello");
    const URI copy = uri;
    EXPECT_EQ(uri.data, copy.data);
    uri = URI();
    EXPECT_EQ("hello", text(copy.data->bytes)) << "it lives as long as the last copy";
}

TEST(UriData, OrderingDoesNotLookAtTheContent) {
    EXPECT_EQ(0, URI::fromString("data:,a").compare(URI::fromString("data:a/b;base64,Yg==")));
}

// ---- Parsing: where the content begins ----

TEST(UriDataParse, ThePlainForm) {
    expectParsed({
        {",hello", DEFAULT_TYPE, "hello", "without a type"},
        {",", DEFAULT_TYPE, "", "nothing at all"},
        {",A%20brief%20note", DEFAULT_TYPE, "A brief note", "RFC 2397, 4"},
        {"application/vnd-xxx-query,select_vcount,fcol_from_fieldtable/local", "application/vnd-xxx-query",
         "select_vcount,fcol_from_fieldtable/local", "RFC 2397, 4"},
        {"text/plain;charset=iso-8859-7,%be%d3%be", "text/plain;charset=iso-8859-7", "\xBE\xD3\xBE",
         "after RFC 2397, 4"},
        {",a,b,,", DEFAULT_TYPE, "a,b,,", "the first comma decides"},
        {",,", DEFAULT_TYPE, ",", "the first comma decides"},
        {",a#b?c/d", DEFAULT_TYPE, "a#b?c/d", "no path, query or fragment of its own"},
        {",;base64,aGk=", DEFAULT_TYPE, ";base64,aGk=", "no marker behind the comma"},
        {",a%00b", DEFAULT_TYPE, "a\0b"s, "decoded to any byte"},
        {",%FF\xFF\x01 +", DEFAULT_TYPE, "\xFF\xFF\x01 +", "raw bytes; a plus is a plus"},
        {",%2525", DEFAULT_TYPE, "%25", "decoded once"},
    });
}

TEST(UriDataParse, TheBase64Form) {
    expectParsed({
        {";base64,aGk=", DEFAULT_TYPE, "hi", "without a type"},
        {";base64,", DEFAULT_TYPE, "", "without content"},
        {"text/plain;base64,aGk=", "text/plain", "hi", "the marker isn't part of the type"},
        {"text/plain;charset=x;base64,aGk=", "text/plain;charset=x", "hi", "nor of the parameters, which all stay"},
        {";base64,aGk%3D", DEFAULT_TYPE, "hi", "escapes go first"},
        {";base64,%61Gk", DEFAULT_TYPE, "hi", "escapes go first"},
        {";base64,-_8=", DEFAULT_TYPE, "", "the letters of the other alphabet don't count"},
        {";base64,+/8=", DEFAULT_TYPE, "\xFB\xFF", "the standard alphabet"},
        {";base64,a G%0Ak,!", DEFAULT_TYPE, "hi", "bad base64 gives what its letters give"},
        {";base64,a", DEFAULT_TYPE, "", "a left-over letter"},
        {";base64,%00", DEFAULT_TYPE, "", "no letter"},
    });
}

TEST(UriDataParse, TheMarkerIsExact) {
    expectFailed({
        {";BASE64,aGk=", "case-sensitive; a parameter without a ="},
        {"text/plain;BASE64,aGk=", "likewise"},
        {"text/plain;Base64,aGk=", "likewise"},
        {"text/plain; base64,aGk=", "with a blank it is a parameter"},
        {"text/plain;base64 ,aGk=", "likewise"},
        {"text/plain;base65,aGk=", "another word"},
        {"text/plain;base6,aGk=", "another word"},
        {"text/plain;bas%6564,aGk=", "looked for before decoding"},
        {"text/plain;base64;base64,aGk=", "only one is cut off"},
        {"text/plain;base64;a=b,aGk=", "at the end only"},
        {"base64,aGk=", "the semicolon belongs to it"},
        {"base64;base64,aGk=", "a type without a slash"},
    });
    expectParsed({{"text/xbase64,aGk=", "text/xbase64", "aGk=", "a type that ends alike"}});
}

TEST(UriDataParse, NoCommaFails) {
    expectFailed(
        {{"", "nothing"}, {"text/plain", "a type"}, {";base64", "a marker"}, {"hello", "no type"}, {"%2C", "escaped"}});
}

// ---- Parsing: the media type ----

TEST(UriDataParse, TypesAreKeptAsGiven) {
    expectParsed({
        {"a/b,x", "a/b", "x", "one letter each"},
        {"Text/PLAIN,x", "Text/PLAIN", "x", "not folded"},
        {"image/svg+xml,x", "image/svg+xml", "x", "RFC 6838"},
        {"te%78t/pl%61in,x", "text/plain", "x", "decoded"},
        {"a%2Fb%3Bc%3Dd,x", "a/b;c=d", "x", "decoded before it is looked at"},
        {"a!#$&'*+-.^_`{|}~/b\x7F,x", "a!#$&'*+-.^_`{|}~/b\x7F", "x", "all kinds of characters of a token"},
        {"/jpg,x", "image/jpeg", "x", "the short form"},
        {"/jpg;base64,aGk=", "image/jpeg", "hi", "the short form"},
        {"%2Fjpg,x", "image/jpeg", "x", "the short form, decoded"},
        {"image/jpg,x", "image/jpg", "x", "not the short form"},
        {"a/jpg;b=c,x", "a/jpg;b=c", "x", "not the short form"},
    });
}

TEST(UriDataParse, ATypeIsTwoTokensAroundASlash) {
    expectFailed({
        {"text,abc", "no slash"},
        {"/,x", "nothing on either side"},
        {"text/,x", "nothing behind"},
        {"/plain,x", "nothing in front"},
        {"/jpeg,x", "not the short form"},
        {"/jpg;a=b,x", "not the short form"},
        {"/JPG,x", "not the short form"},
        {"a/b/c,x", "a second slash"},
        {"a//b,x", "a second slash"},
        {" a/b,x", "a blank"},
        {"a /b,x", "a blank"},
        {"a/b ,x", "a blank"},
        {"a%20b/c,x", "a blank, escaped"},
        {";charset=x,y", "parameters alone aren't enough"},
        {"x;a/b=c,y", "a slash behind the first semicolon"},
        {"\xC3\xA4/b,x", "a high byte"},
        {"a/%C3%A4,x", "a high byte, escaped"},
        {"a/%00,x", "a control character"},
        {"%zz,x", "a bad escape"},
        {"a/b%,x", "a bad escape"},
        {"a/b%4,x", "a bad escape"},
        {"a/b;c=%zz,x", "a bad escape"},
        {"%zz;base64,x", "a bad escape"},
    });
}

// isTokenByte is the rule for one byte.
bool isTokenByte(int byte) {
    return byte >= 33 && byte <= 127 && "()<>@,;:\\\"/[]?="s.find(static_cast<char>(byte)) == std::string::npos;
}

TEST(UriDataParse, EveryByteIsJudgedInATokenOfAnyPlace) {
    for (int byte = 0; byte < 256; ++byte) {
        const std::string e = hexEscape(byte);
        const bool good = isTokenByte(byte);
        for (const std::string& rest :
             {"t" + e + "/s,", e + "t/s,", "t/s" + e + ",", "t/" + e + "s,", "t/s;n" + e + "=v,", "t/s;" + e + "n=v,",
              "t/s;n=v" + e + ",", "t/s;n=" + e + "v,"})
            EXPECT_EQ(good, isAccepted(rest)) << rest;
        EXPECT_EQ(good, isAccepted(e + "/" + e + ";" + e + "=" + e + ",")) << byte << ": alone";
    }
}

// ---- Parsing: parameters ----

TEST(UriDataParse, ParametersAreNamesAndValues) {
    expectParsed({
        {"a/b;c=d,x", "a/b;c=d", "x", "a token"},
        {"a/b;c=d;e=f;c=g,x", "a/b;c=d;e=f;c=g", "x", "all of them"},
        {"a/b;c=\"d\",x", "a/b;c=\"d\"", "x", "quoted"},
        {"a/b;c=\"\",x", "a/b;c=\"\"", "x", "quoted, empty"},
        {"a/b;c=\"d e/f=g?@[]()<>:\\\",x", "a/b;c=\"d e/f=g?@[]()<>:\\\"", "x", "quoted separators"},
        {"a/b;c=\"%2C%00%20\",x", "a/b;c=\"," + "\0 \""s, "x", "quoted, decoded"},
        {"a/b;c=%22d%22,x", "a/b;c=\"d\"", "x", "quotes may be escaped"},
        {"text/plain;a=\"b\"\"c\",x", "text/plain;a=\"b\"\"c\"", "x", "a doubled quote"},
        {"a/b;c=\"\"\"\",x", "a/b;c=\"\"\"\"", "x", "nothing but a doubled quote"},
        {"a/b;c=\"\"\"d\"\"\";e=f,x", "a/b;c=\"\"\"d\"\"\";e=f", "x", "doubled quotes at the ends"},
    });
}

TEST(UriDataParse, BadParametersFail) {
    expectFailed({
        {"text/plain;charset,x", "no ="},
        {"a/b;,x", "nothing"},
        {"a/b;;c=d,x", "nothing"},
        {"a/b;c=d;,x", "nothing"},
        {"a/b;=,x", "neither name nor value"},
        {"a/b;=d,x", "no name"},
        {"a/b;c=,x", "no value"},
        {"a/b;c=;e=f,x", "no value"},
        {"a/b; c=d,x", "a blank before the name"},
        {"a/b;c =d,x", "a blank behind the name"},
        {"a/b;c= d,x", "a blank before the value"},
        {"a/b;c=d ,x", "a blank behind the value"},
        {"a/b;\"c\"=d,x", "a quoted name"},
        {"a/b;c=d=e,x", "a separator in the value"},
        {"a/b;c=d/e,x", "a separator in the value"},
        {"a/b;c=\",x", "one quote"},
        {"a/b;c=\"d,x", "one quote"},
        {"a/b;c=d\",x", "one quote"},
        {"a/b;c=\"d\"e,x", "something behind the quotes"},
        {"text/plain;a=\"b\"c\",x", "a single quote inside"},
        {"a/b;c=\"\"\",x", "a single quote inside"},
        {"a/b;c=\"\"\"\"\",x", "a doubled quote and a single one"},
        {"a/b;c=\"d\"\",x", "the last quote belongs to the one before"},
        {"a/b;c=\"d;e\",x", "a semicolon ends a parameter, quoted or not"},
        {"a/b;c=\"d%3Be\",x", "also an escaped one"},
        {"a/b;c=\"\xC3\xA4\",x", "a high byte in quotes"},
        {"a/b;c=\"%C3%A4\",x", "a high byte in quotes, escaped"},
        {"a/b;c=\xC3\xA4,x", "a high byte"},
    });
}

TEST(UriDataParse, EveryByteIsJudgedInQuotes) {
    for (int byte = 0; byte < 256; ++byte)
        EXPECT_EQ(byte < 128 && byte != '"' && byte != ';', isAccepted("a/b;c=\"" + hexEscape(byte) + "\",")) << byte;
}

// ---- Parsing: the content ----

TEST(UriDataParse, BadEscapesInTheContentFail) {
    expectFailed({
        {",%", "at the end"},
        {",a%4", "before one last character"},
        {",%zz", "no digits"},
        {",%%41", "no digits"},
        {"text/plain;charset=iso-8859-7,%be%fg%be", "RFC 2397, 4, where a digit is no digit"},
        {";base64,%zz", "also in base64"},
        {";base64,aGk%", "also in base64"},
    });
}

TEST(UriDataParse, FailureLeavesTheDataAsItWas) {
    URI uri = URI::fromString("data:,old");
    const std::shared_ptr<const URI::Data> before = uri.data;
    for (const char* rest : {"", "text,abc", "a/b;c,x", ",%zz", "%zz,", ";base64,%"}) {
        EXPECT_FALSE(uri.parseFromDataURI(rest));
        EXPECT_EQ(before, uri.data);
    }
    EXPECT_TRUE(uri.parseFromDataURI(",new"));
    EXPECT_EQ("new", text(uri.data->bytes));
    EXPECT_EQ("old", text(before->bytes)) << "a new one replaces it";
}

TEST(UriDataParse, SetsNothingButTheData) {
    URI uri = URI::fromString("http://u@name/a?q#f");
    EXPECT_TRUE(uri.parseFromDataURI(",x"));
    EXPECT_EQ("http://u@name/a?q#f", uri.toString()) << "only the scheme tells how it prints";
}

// ---- Through URI::fromString ----

TEST(UriDataParse, TheSchemeIsKnownInAnyCase) {
    const URI uri = URI::fromString("DaTa:,x");
    expectOnlyData(uri);
    EXPECT_EQ("x", text(uri.data->bytes));
}

TEST(UriDataParse, AHostOrUserInformationFails) {
    for (const char* uri : {"data://a/b", "data://a/b,c", "data://user@/jpg,x", "data://user@a/jpg,x", "data://,x",
                            "data://:80/jpg,x", "data://[::1]/jpg,x"}) {
        EXPECT_EQ("", URI::fromString(uri).toString()) << uri;
        EXPECT_EQ(nullptr, URI::fromString(uri).data) << uri;
    }
    EXPECT_EQ("data:image/jpeg;base64,eA==", URI::fromString("data:///jpg,x").toString())
        << "an empty authority is no host";
}

TEST(UriDataParse, PatternsChangeNothing) {
    EXPECT_EQ("[[%41]]", text(URI::fromString("data:,[[%2541]]", true).data->bytes));
    EXPECT_EQ(nullptr, URI::fromString("data:,[[%zz]]", true).data);
    EXPECT_EQ("data:a/b;c=\"[[d%20e]]\";base64,", URI::fromString("data:a/b;c=\"[[d e]]\",", true).toString(true));
}

// ---- Printing ----

TEST(UriDataPrint, AlwaysInBase64) {
    const struct {
        std::string text, expected, user;
    } rows[] = {
        {"data:,hello", "data:text/plain;charset=US-ASCII;base64,aGVsbG8=", "data:text/plain;charset=US-ASCII,[...]"},
        {"data:,", "data:text/plain;charset=US-ASCII;base64,", "data:text/plain;charset=US-ASCII,[...]"},
        {"data:/jpg;base64,/+8=", "data:image/jpeg;base64,/+8=", "data:image/jpeg,[...]"},
        {"data:a/b;c=\"d e\",x", "data:a/b;c=\"d%20e\";base64,eA==", "data:a/b;c=\"d%20e\",[...]"},
        {"data:a/b;c=\"%2C\",x", "data:a/b;c=\"%2C\";base64,eA==", "data:a/b;c=\"%2C\",[...]"},
        {"data:a/b;c=\"%00%25?#<>\",x",
         "data:a/b;c=\"%00%25%3F%23%3C%3E\";base64,eA==", "data:a/b;c=\"%00%25%3F%23%3C%3E\",[...]"},
        {"data:a/b^{|}`,x", "data:a/b%5E%7B%7C%7D%60;base64,eA==", "data:a/b%5E%7B%7C%7D%60,[...]"},
        {"data:;base64,a!", "data:text/plain;charset=US-ASCII;base64,", "data:text/plain;charset=US-ASCII,[...]"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.expected, URI::fromString(row.text).toString());
        EXPECT_EQ(row.expected, URI::fromString(row.expected).toString()) << "stable";
        EXPECT_EQ(row.user, URI::fromString(row.text).toUserString());
    }
}

TEST(UriDataPrint, EveryByteOfTheTypeIsKeptOrEscaped) {
    const std::string keep = "!$&'()*+=;:@/[]\"-._~0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";
    for (int byte = 0; byte < 256; ++byte) {
        const std::string type(1, static_cast<char>(byte));
        const std::string printed = keep.find(type) != std::string::npos ? type : hexEscape(byte);
        EXPECT_EQ("data:" + printed + ";base64,eA==", URI::fromData("x"s, type).toString());
        EXPECT_EQ("data:" + printed + ",[...]", URI::fromData("x"s, type).toUserString());
    }
}

TEST(UriDataPrint, NothingButTheTypeAndTheContent) {
    URI uri = URI::fromString("data:a/b,x");
    uri.setQuery("q"s);
    uri.setFragment("f"s);
    uri.path = URI::Path("path");
    EXPECT_EQ("data:a/b;base64,eA==", uri.toString());
    EXPECT_EQ("data:a/b,[...]", uri.toUserString());
}

// ---- Edge cases ----

TEST(UriDataEdge, ContentWithoutAType) {
    const URI uri = URI::fromString("data:,hello");
    EXPECT_EQ(DEFAULT_TYPE, uri.data->mimeType);
    EXPECT_EQ("hello", text(uri.data->bytes));
}

TEST(UriDataEdge, TwoBytesInBase64) {
    const URI uri = URI::fromString("data:;base64,aGk=");
    EXPECT_EQ(DEFAULT_TYPE, uri.data->mimeType);
    EXPECT_EQ(Bytes({'h', 'i'}), uri.data->bytes);
}

TEST(UriDataEdge, TheShortFormOfJpeg) {
    EXPECT_EQ("image/jpeg", URI::fromString("data:/jpg;base64,AAAA").data->mimeType);
}

TEST(UriDataEdge, TypesWithoutASlashAndParametersWithoutAValueFail) {
    EXPECT_FALSE(isAccepted("text,abc"));
    EXPECT_FALSE(isAccepted("text/plain;charset,x"));
}

TEST(UriDataEdge, QuotesInQuotesAreDoubled) {
    EXPECT_TRUE(isAccepted("text/plain;a=\"b\"\"c\",x"));
    EXPECT_FALSE(isAccepted("text/plain;a=\"b\"c\",x"));
}

TEST(UriDataEdge, ACommaInTheContentIsContent) {
    EXPECT_EQ("a,b", text(URI::fromString("data:,a,b").data->bytes));
}

TEST(UriDataEdge, TheMarkerInCapitalsIsNone) {
    EXPECT_FALSE(isAccepted(";BASE64,aGk="));
    EXPECT_FALSE(isAccepted("text/plain;BASE64,aGk="));
}

TEST(UriDataEdge, PlainContentIsPrintedInBase64) {
    EXPECT_EQ("data:a/b;base64,aGk=", URI::fromString("data:a/b,hi").toString());
}

// ---- Random properties ----

std::string randomToken(std::mt19937& random) {
    return randomFrom(random, "aZ09!#$%&'*+-.^_`{|}~\x7F", 1 + random() % 4);
}

std::string randomValue(std::mt19937& random) {
    if (random() % 2 == 0)
        return randomToken(random);
    std::string quoted = "\"";
    for (size_t n = random() % 5; n > 0; --n) {
        const char c = static_cast<char>(random() % 128);
        quoted += c == '"' ? "\"\"" : c == ';' ? "," : std::string(1, c);
    }
    return quoted + "\"";
}

std::string randomType(std::mt19937& random) {
    std::string type = randomToken(random) + "/" + randomToken(random);
    for (size_t n = random() % 3; n > 0; --n)
        type += ";" + randomToken(random) + "=" + randomValue(random);
    return type;
}

Bytes randomContent(std::mt19937& random) {
    Bytes content(random() % 20);
    for (unsigned char& byte : content)
        byte = static_cast<unsigned char>(random());
    return content;
}

TEST(UriDataRandom, WhatIsPrintedParsesToTheSame) {
    std::mt19937 random(69);
    for (int i = 0; i < RANDOM_CASES; ++i) {
        const Bytes content = randomContent(random);
        const std::string type = randomType(random);
        const URI uri = URI::fromData(Bytes(content), std::string(type));
        const URI again = URI::fromString(uri.toString());
        ASSERT_NE(nullptr, again.data) << uri.toString();
        ASSERT_EQ(type, again.data->mimeType);
        ASSERT_EQ(content, again.data->bytes);
        ASSERT_EQ(uri.toString(), again.toString());
    }
}

TEST(UriDataRandom, EscapedContentParsesToItsBytes) {
    std::mt19937 random(70);
    for (int i = 0; i < RANDOM_CASES; ++i) {
        const Bytes content = randomContent(random);
        std::string rest = ",";
        for (const unsigned char byte : content) {
            const bool raw = byte != 0 && byte != '%' && random() % 2 == 0;
            rest += raw ? std::string(1, static_cast<char>(byte)) : hexEscape(byte);
        }
        ASSERT_EQ(content, parse(rest)->bytes) << testing::PrintToString(rest);
    }
}

bool parsesAsPrinted(const std::shared_ptr<const URI::Data>& data) {
    const URI again = URI::fromString(URI::fromData(data).toString());
    return again.data != nullptr && again.data->mimeType == data->mimeType && again.data->bytes == data->bytes;
}

TEST(UriDataRandom, WhatParsesIsPrintedAndParsesToTheSame) {
    std::mt19937 random(71);
    const std::vector<std::string> tokens = {"a",   "/",       ";",   "=",        "\"", ",",    "%",   "%2",  "%22",
                                             "%2C", ";base64", "%00", "\xC3\xA4", " ",  "/jpg", "a/b", "c=d", "[["};
    int parsed = 0;
    for (int i = 0; i < 3 * RANDOM_CASES; ++i) {
        std::string rest = random() % 2 ? "a/b;" : "";
        for (size_t n = random() % 10; n > 0; --n)
            rest += tokens[random() % tokens.size()];
        const std::shared_ptr<const URI::Data> data = parse(rest);
        if (data == nullptr)
            continue;
        ASSERT_TRUE(parsesAsPrinted(data)) << rest;
        ++parsed;
    }
    EXPECT_GT(parsed, RANDOM_CASES / 100);
}

TEST(UriDataRandom, NoiseIsRefusedOrParsesAsItIsPrinted) {
    std::mt19937 random(72);
    int parsed = 0;
    for (int i = 0; i < RANDOM_CASES; ++i) {
        const std::string noise = text(randomContent(random));
        for (const std::string start : {"", "a/b;", "a/b;c=\"", ";base64,"}) {
            const std::shared_ptr<const URI::Data> data = parse(start + noise);
            ASSERT_TRUE(data == nullptr || parsesAsPrinted(data)) << testing::PrintToString(start + noise);
            parsed += data != nullptr;
        }
        ASSERT_EQ(0U, URI::fromData(noise, noise).toUserString().find("data:")) << testing::PrintToString(noise);
    }
    EXPECT_GT(parsed, 1000);
}

// A text that costs the square of its length would take hours here.
size_t sizeOf(const std::shared_ptr<const URI::Data>& data) {
    return data == nullptr ? 0 : data->mimeType.size() + data->bytes.size();
}

TEST(UriDataRandom, LongTextsAreReadInOneGo) {
    for (const std::string piece : {";", "/", "=", "\"", "%", "%41", "a", ";a=b", ";base64", ",", "[["}) {
        for (const std::string start : {"", "a/b", "a/b;c=\"", ";base64,", "a/b,"}) {
            EXPECT_TRUE(growsEvenly(piece, [&](const std::string& noise) { return sizeOf(parse(start + noise)); }))
                << start << piece;
            EXPECT_TRUE(
                growsEvenly(piece, [&](const std::string& noise) { return sizeOf(parse(start + noise + "\",")); }))
                << start << piece;
        }
        EXPECT_TRUE(growsEvenly(piece, [](const std::string& noise) {
            return URI::fromData(noise, noise).toString().size();
        })) << piece;
    }
}

}  // namespace
