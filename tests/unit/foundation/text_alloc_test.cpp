// text_alloc_test.cpp: the foundation under exhausted memory, beyond JSON: each operation throws std::bad_alloc or
// returns what it always returns, leaves nothing, and an object whose change failed can be used again. A program of its
// own, since it replaces operator new.

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <forward_list>
#include <functional>
#include <list>
#include <locale>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "foundation/base64.h"
#include "foundation/clock_value.h"
#include "foundation/strfmt.h"
#include "foundation/string_utils.h"
#include "foundation/unicode.h"
#include "foundation/uri.h"
#include "foundation/version_string.h"
#include "unit/alloc_faults.h"

namespace {

using Bytes = std::vector<unsigned char>;

// LONG fits into no short string, as does each part of it between the dashes, and has characters to escape.
const std::string LONG = "a first part of this text, with \xC3\xA4 - and a second part, longer than a short string";
const std::string LONG_URI = "http://someone@server.of.a.long.name.example:8080/a%20segment%20of%20some%20length/and%2F"
                             "another%20one/./up/../last%3Fone?first+key+of+some+length=first%20value%20of%20it&second+"
                             "key+of+some+length=second%20value%20of%20it#a%20fragment%20of%20some%20length";
const std::string DATA_URI = "data:text/html;charset=a-name-of-some-length,some%20content%20that%20has%20a%20length";

std::string textOf(const std::string& text) {
    return text;
}
std::string textOf(const Bytes& bytes) {
    return std::string(bytes.begin(), bytes.end());
}
std::string textOf(const std::u16string& units) {
    return std::string(units.begin(), units.end());
}
std::string textOf(const std::u32string& units) {
    return std::string(units.begin(), units.end());
}
std::string textOf(const URI& uri) {
    return uri.toString();
}
std::string textOf(const URI::Path& path) {
    return path.toString();
}
std::string textOf(const URI::Origin& origin) {
    return origin.toString();
}
std::string textOf(const URI::Query& query) {
    std::string text;
    for (const auto& [key, value] : query)
        text += key + "=" + value + ";";
    return text;
}
template <class Pieces>
std::string textOf(const Pieces& pieces) {
    std::string text;
    for (const std::string& piece : pieces)
        text += piece + ";";
    return text;
}

const unsigned char* utf8(const std::string& text) {
    return reinterpret_cast<const unsigned char*>(text.c_str());
}

// Operation is one public operation, whose result is made a text.
struct Operation {
    const char* name;
    std::function<std::string()> call;
};

template <class Call>
Operation operation(const char* name, Call call) {
    return {name, [call] { return textOf(call()); }};
}

class ExhaustedText : public testing::TestWithParam<AllocFaults::Mode> {
protected:
    // expectThrowsOrResult has each allocation of an operation fail. There must be at least one.
    static void expectThrowsOrResult(const Operation& operation) {
        const std::string expected = operation.call();
        for (std::size_t n = 0;; ++n) {
            SCOPED_TRACE(operation.name + (" with allocation " + std::to_string(n)));
            const std::ptrdiff_t before = gs_oAllocFaults.living;
            bool isSame = false;
            const bool thrown = failingAt(n, GetParam(), [&] { isSame = operation.call() == expected; });
            EXPECT_EQ(before, gs_oAllocFaults.living);
            EXPECT_TRUE(thrown || isSame);
            if (!gs_oAllocFaults.hit || HasFailure()) {
                EXPECT_LT(0u, n);
                return;
            }
        }
    }

    static void expectAllThrowOrResult(const std::vector<Operation>& operations) {
        for (const Operation& each : operations)
            expectThrowsOrResult(each);
    }

    // expectUsableAfter has each allocation of a change of `whole` fail. The object then has some value, and takes
    // another one.
    template <class Value>
    static void expectUsableAfter(const char* name, const Value& whole, const std::function<void(Value&)>& change) {
        Value changed = whole;
        change(changed);
        for (std::size_t n = 0;; ++n) {
            SCOPED_TRACE(name + (" with allocation " + std::to_string(n)));
            const std::ptrdiff_t before = gs_oAllocFaults.living;
            {
                Value value = whole;
                EXPECT_EQ(failingAt(n, GetParam(), [&] { change(value); }), gs_oAllocFaults.hit);
                textOf(value);
                value = whole;
                change(value);
                EXPECT_EQ(textOf(value), textOf(changed));
            }
            EXPECT_EQ(before, gs_oAllocFaults.living);
            if (!gs_oAllocFaults.hit || HasFailure()) {
                EXPECT_LT(0u, n);
                return;
            }
        }
    }
};

INSTANTIATE_TEST_SUITE_P(Text, ExhaustedText, testing::Values(AllocFaults::One, AllocFaults::AllFollowing),
                         [](const auto& test) { return test.param == AllocFaults::One ? "OneFault" : "AllFromThere"; });

template <class Pieces>
Operation splitting(const char* name, bool trimPieces) {
    return operation(name, [trimPieces] {
        Pieces pieces;
        split(LONG, pieces, '-', trimPieces);
        return pieces;
    });
}

TEST_P(ExhaustedText, StringHelpers) {
    const std::locale& locale = std::locale::classic();
    expectAllThrowOrResult({
        operation("toupper", [&] { return toupper(LONG, locale); }),
        operation("tolower of a C string", [&] { return tolower(LONG.c_str(), locale); }),
        operation("trim", [] { return trim("  " + LONG); }),
        operation("trimNL", [] { return trimNL("\n" + LONG + "\n"); }),
        operation("trimAndStrip", [] { return trimAndStrip(LONG + "  x "); }),
        operation("truncateUTF8", [] { return truncateUTF8(LONG, 40, "a suffix of some length"); }),
        operation("truncateUTF8 of a moved one", [] { return truncateUTF8(std::string(LONG), 80, LONG.c_str()); }),
        splitting<std::vector<std::string>>("split into a vector", true),
        splitting<std::list<std::string>>("split into a list", false),
        splitting<std::set<std::string>>("split into a set", true),
        splitting<std::forward_list<std::string>>("split into a forward list", false),
        operation("join of a vector",
                  [] {
                      return join(std::vector<std::string>{LONG, LONG}, ", ");
                  }),
        operation("join of a list",
                  [] {
                      return join(std::list<std::string>{LONG, LONG}, ", ");
                  }),
        operation("join of a forward list",
                  [] {
                      return join(std::forward_list<std::string>{LONG, LONG}, ", ");
                  }),
        operation("fromBase16", [] { return fromBase16("000102030405060708090a0b0c0d0e0f"); }),
    });
}

TEST_P(ExhaustedText, StringHelpersWithAResultInAnArgument) {
    expectUsableAfter<std::string>("cryptProtect", "", [](std::string& sealed) { cryptProtect(LONG, sealed); });
    expectUsableAfter<std::string>("cryptUnprotect", "", [](std::string& plain) { cryptUnprotect(LONG, plain); });
    expectUsableAfter<std::vector<std::string>>("split", {LONG}, [](auto& pieces) { split(LONG, pieces, 'a'); });
}

TEST_P(ExhaustedText, Base64) {
    expectAllThrowOrResult({
        operation("base64Encode", [] { return orv::base64Encode(utf8(LONG), LONG.size()); }),
        operation("base64EncodeURLSafe", [] { return orv::base64EncodeURLSafe(utf8(LONG), LONG.size()); }),
        operation("base64Decode", [] { return orv::base64Decode(LONG.data(), LONG.size()); }),
        operation("base64DecodeUTF8", [] { return orv::base64DecodeUTF8(LONG.data(), LONG.size()); }),
        operation("base64DecodeURLSafe", [] { return orv::base64DecodeURLSafe(LONG.data(), LONG.size()); }),
        operation("base64DecodeURLSafeUTF8", [] { return orv::base64DecodeURLSafeUTF8(LONG.data(), LONG.size()); }),
    });
}

TEST_P(ExhaustedText, Unicode) {
    const std::u16string utf16(60, u'\u00e4');
    const std::u32string ucs4(60, U'\u00e4');
    expectUsableAfter<std::string>("ucs4ToUTF8Z", LONG, [&](auto& out) { ucs4ToUTF8Z(ucs4.c_str(), out); });
    expectUsableAfter<std::string>("ucs4ToUTF8N", LONG, [&](auto& out) { ucs4ToUTF8N(ucs4.data(), 60, out); });
    expectUsableAfter<std::string>("utf16To8Z", LONG, [&](auto& out) { utf16To8Z(utf16.c_str(), out); });
    expectUsableAfter<std::string>("utf16To8N", LONG, [&](auto& out) { utf16To8N(utf16.data(), 60, out); });
    expectUsableAfter<std::u16string>("utf8To16Z", {}, [](auto& out) { utf8To16Z(utf8(LONG), out); });
    expectUsableAfter<std::u16string>("utf8To16N", {}, [](auto& out) { utf8To16N(utf8(LONG), 60, out); });
    expectUsableAfter<std::u32string>("utf8ToUCS4Z", {}, [](auto& out) { utf8ToUCS4Z(utf8(LONG), out); });
    expectUsableAfter<std::string>("utf8Append", std::string(15, 'x'), [](auto& out) { utf8Append(out, U'\u20ac'); });
    expectUsableAfter<std::u16string>("utf16Append", u"sevenup", [](auto& out) { utf16Append(out, 0x10000); });
}

TEST_P(ExhaustedText, ClockValues) {
    const svg::ClockValue value = {svg::ClockValue::Resolved, 1234567890123456789};
    const svg::UTCClockValue instant(1234567890123456789);
    expectAllThrowOrResult({
        operation("unparse in seconds", [&] { return value.unparse("s"); }),
        operation("unparse in milliseconds", [&] { return value.unparse("ms"); }),
        operation("unparse without fraction", [&] { return value.unparse("hms") + LONG; }),
        operation("unparse with milliseconds", [&] { return value.unparse("hms."); }),
        operation("unparse with milliseconds if any", [&] { return value.unparse("hms..."); }),
        operation("unparse in an unknown format", [&] { return value.unparse("x"); }),
        operation("get_as_iso8601_date", [&] { return instant.get_as_iso8601_date(); }),
        operation("get_as_iso8601_date_with_ms", [&] { return instant.get_as_iso8601_date_with_ms(); }),
        operation("get_as_rfc822_date", [&] { return instant.get_as_rfc822_date(); }),
        operation("parse_http_date",
                  [] {
                      const auto parsed = svg::UTCClockValue::parse_http_date("Fri, 13 Feb 2009 23:31:30 GMT");
                      return std::to_string(parsed.value) + LONG;
                  }),
        operation("parseInstant",
                  [] { return std::to_string(svg::parseInstant("2009-02-13T23:31:30Z").value_or(0)) + LONG; }),
    });
}

TEST_P(ExhaustedText, Versions) {
    const VersionStringCollection mine("1.2.3,2.3.4,3.4.5");
    const VersionStringCollection theirs("1.2.4,2.3.3,5.6,6.7.8.9.10.11.12");
    const VersionString version("2.100000000.100000000");
    expectAllThrowOrResult({
        operation("VersionString of a text", [] { return VersionString("1.2.3-4").toString() + LONG; }),
        operation("VersionString of numbers",
                  [] {
                      return VersionString(std::vector<uint32_t>{1, 2, 3}).toString() + LONG;
                  }),
        operation("VersionString::toString", [&] { return version.toString(); }),
        operation("collection of a text", [] { return VersionStringCollection("3.4,1.2").toString() + LONG; }),
        operation("collection of a list", [&] { return VersionStringCollection(mine).toString() + LONG; }),
        operation("VersionStringCollection::toString", [&] { return theirs.toString(); }),
        operation("toString with a version", [&] { return theirs.toString(VersionString("6.1")); }),
        operation("takeMaxOf",
                  [&] {
                      VersionStringCollection both = mine;
                      both.takeMaxOf(theirs);
                      return both.toString();
                  }),
    });
}

// ---- URIs

TEST_P(ExhaustedText, ReadingURIs) {
    expectAllThrowOrResult({
        operation("fromString", [] { return URI::fromString(LONG_URI); }),
        operation("fromString of data", [] { return URI::fromString(DATA_URI); }),
        operation("fromString with placeholders", [] { return URI::fromString("a[[" + LONG + "]]/b", true); }),
        operation("fromFileName", [] { return URI::fromFileName("/" + LONG + "/../" + LONG); }),
        operation("fromData", [] { return URI::fromData(LONG, "a/type-of-some-length-for-a-string"); }),
        operation("Path::fromEscapedURIPath", [] { return URI::Path::fromEscapedURIPath("/a%20b/" + LONG); }),
        operation("Path::fromString", [] { return URI::Path::fromString("/a/./b/../" + LONG); }),
        operation("Path of segments",
                  [] {
                      return URI::Path({LONG, LONG}, true);
                  }),
        operation("Path of one segment", [] { return URI::Path(LONG); }),
        operation("Origin of a text", [] { return URI::Origin(LONG_URI); }),
        operation("Origin of parts", [] { return URI::Origin("http", "server.of.a.long.name.example", 1); }),
        operation("URI of both", [] { return URI(URI::Origin(LONG_URI), URI::Path(LONG)); }),
    });
}

TEST_P(ExhaustedText, WritingURIs) {
    const URI uri = URI::fromString(LONG_URI);
    const URI data = URI::fromString(DATA_URI);
    const URI file = URI::fromFileName("/" + LONG);
    ASSERT_NE(data.data, nullptr);
    expectAllThrowOrResult({
        operation("toString", [&] { return uri.toString(); }),
        operation("toString of data", [&] { return data.toString(); }),
        operation("toUserString", [&] { return uri.toUserString(); }),
        operation("toUserString of data", [&] { return data.toUserString(); }),
        operation("getFileName", [&] { return file.getFileName(); }),
        operation("resourceName", [&] { return file.resourceName(); }),
        operation("resourceDir", [&] { return uri.resourceDir(); }),
        operation("commonBase", [&] { return URI::commonBase(uri, URI(uri.origin, uri.path)); }),
        operation("queryString", [&] { return uri.queryString(); }),
        operation("queryStringCanonical", [&] { return uri.queryStringCanonical(); }),
        operation("escapedHostPort", [&] { return uri.origin.escapedHostPort(); }),
        operation("Path::toEscapedURIPath", [&] { return uri.path.toEscapedURIPath(); }),
        operation("Path::toCanonicalURIPath", [&] { return uri.path.toCanonicalURIPath(); }),
        operation("Path::toUserURIPath", [&] { return uri.path.toUserURIPath(); }),
        operation("Path::toFileName", [&] { return uri.path.toFileName(); }),
        operation("Path::subPath", [&] { return uri.path.subPath(0, 2); }),
        operation("Path::lastSegment", [&] { return file.path.lastSegment(); }),
        operation("Path::resourceDir", [&] { return uri.path.resourceDir(); }),
        operation("Path::topDir", [&] { return uri.path.topDir(); }),
        operation("Path::afterTopDir", [&] { return uri.path.afterTopDir(); }),
        operation("Path::commonBase", [&] { return URI::Path::commonBase(uri.path, uri.path); }),
        operation("Path::slash", [&] { return uri.path.slash(LONG); }),
    });
    EXPECT_EQ(URI::fromString(LONG_URI).compare(uri), 0);
}

TEST_P(ExhaustedText, Escaping) {
    const URI::Query items = {{LONG, LONG}, {"a", LONG}};
    expectAllThrowOrResult({
        operation("escapeURIComponent", [] { return URI::escapeURIComponent(LONG, " "); }),
        operation("unescapeURI", [] { return URI::unescapeURI(LONG_URI); }),
        operation("smartEscapeURIComponent", [] { return URI::smartEscapeURIComponent(LONG, "/"); }),
        operation("smartUnescapeURIComponent", [] { return URI::smartUnescapeURIComponent(LONG_URI, "/"); }),
        operation("normalizeURIComponent", [] { return URI::normalizeURIComponent(LONG_URI, "/", "?"); }),
        operation("makeQueryString", [&] { return URI::makeQueryString(items); }),
    });
}

// ChangeOf is one public operation that changes an object.
template <class Value>
struct ChangeOf {
    const char* name;
    std::function<void(Value&)> call;
};

TEST_P(ExhaustedText, ChangesOfURIs) {
    const URI whole = URI::fromString(LONG_URI);
    const URI base = URI::fromString("http://server.of.a.long.name.example:8080/b/c/d/e/f/g/h/i/other");
    const ChangeOf<URI> changes[] = {
        {"setOrigin", [](URI& uri) { uri.setOrigin(URI::Origin("ftp", "another.server.of.a.long.name.example", 1)); }},
        {"setPath", [](URI& uri) { uri.setPath(URI::Path(LONG)); }},
        {"setQuery", [](URI& uri) { uri.setQuery(LONG + LONG); }},
        {"setQuery of items",
         [](URI& uri) {
             uri.setQuery(URI::Query{{LONG, LONG}});
         }},
        {"setFragment", [](URI& uri) { uri.setFragment(LONG + LONG); }},
        {"setUserInfo", [](URI& uri) { uri.setUserInfo(LONG + LONG); }},
        {"resolve", [&](URI& uri) { (uri = URI(URI::Path(LONG))).resolve(base); }},
        {"makeRelative", [&](URI& uri) { uri.makeRelative(base); }},
        {"parseFromDataURI", [](URI& uri) { uri.parseFromDataURI("text/a-type-of-some-length,content"); }},
        {"splitQueryString",
         [](URI& uri) {
             URI::Query items;
             URI::splitQueryString(uri.query, items);
             uri.setQuery(items);
         }},
        {"getPathUnder",
         [](URI& uri) {
             URI::Path under;
             EXPECT_TRUE(uri.getPathUnder(URI(uri.origin, URI::Path::fromString("/")), under));
             uri.path = under;
         }},
    };
    for (const auto& [name, call] : changes)
        expectUsableAfter<URI>(name, whole, call);
}

TEST_P(ExhaustedText, ChangesOfPathsAndOrigins) {
    const URI::Path path = URI::fromString(LONG_URI).path;
    const URI::Path base = URI::Path::fromString("/b/c/d/e/f/g/h/i/other");
    const ChangeOf<URI::Path> changes[] = {
        {"append of a segment", [](URI::Path& value) { value.append(LONG); }},
        {"append of a path",
         [](URI::Path& value) {
             value.append(URI::Path({LONG, LONG}));
         }},
        {"addSuffix", [](URI::Path& value) { value.addSuffix(LONG); }},
        {"resolve",
         [&](URI::Path& value) {
             (value = URI::Path({LONG, ".."})).resolve(base, true);
         }},
        {"makeRelative", [&](URI::Path& value) { value.makeRelative(base); }},
        {"removeDotSegments",
         [](URI::Path& value) {
             value.append(URI::Path({"..", LONG})).removeDotSegments(true);
         }},
        {"removeRoot", [&](URI::Path& value) { EXPECT_TRUE(value.append(LONG).removeRoot(path)); }},
    };
    for (const auto& [name, call] : changes)
        expectUsableAfter<URI::Path>(name, path, call);
    const URI::Origin origin(LONG_URI);
    const ChangeOf<URI::Origin> settings[] = {
        {"setScheme", [](URI::Origin& value) { value.setScheme(LONG); }},
        {"setHostName", [](URI::Origin& value) { value.setHostName(LONG); }},
        {"normalizeHostName",
         [](URI::Origin& value) {
             value.setHostName("B\xC3\xBC"
                               "cher.of.a.long.name.example");
             EXPECT_TRUE(value.normalizeHostName(false));
         }},
    };
    for (const auto& [name, call] : settings)
        expectUsableAfter<URI::Origin>(name, origin, call);
}

// ---- formatted text

// A text that serves a record is whole or empty, so that it adds no failure to the one being reported.
TEST_P(ExhaustedText, FormattedTextIsWholeOrEmpty) {
    for (std::size_t n = 0;; ++n) {
        std::string text;
        EXPECT_FALSE(failingAt(n, GetParam(), [&] { text = strfmt("%s and %d", LONG.c_str(), 1); }));
        EXPECT_EQ(text, gs_oAllocFaults.hit ? "" : LONG + " and 1");
        if (!gs_oAllocFaults.hit) {
            EXPECT_LT(0u, n);
            return;
        }
    }
}

}  // namespace
