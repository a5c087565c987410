// uri_path_test.cpp: URI::Path of foundation/uri.h. Tables come first; then random paths are held against slow models
// and against what the operations promise together.
//
// A path is written as its segments in angle brackets, "-" for none, after "/" if absolute and ahead of "/" if it has a
// trailing slash: "/<a><b c>/", "-/".

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "foundation/uri.h"
#include "unit/exact_buffer.h"
#include "unit/foundation/uri_path_model.h"
#include "unit/rounds.h"

namespace {

using namespace std::string_literals;
using Path = URI::Path;

// ---- Notation ----

std::string show(const Path& path) {
    std::string result = path.absolute ? "/" : "";
    for (const std::string& segment : path.segments)
        result += "<" + segment + ">";
    if (path.segments.empty())
        result += "-";
    return result + (path.trailingSlash ? "/" : "");
}

Path P(const std::string& notation) {
    Path path;
    path.absolute = notation.front() == '/';
    path.trailingSlash = notation.back() == '/';
    for (size_t open = notation.find('<'); open != NO_POSITION;) {
        const size_t close = notation.find('>', open);
        path.segments.push_back(notation.substr(open + 1, close - open - 1));
        open = notation.find('<', close);
    }
    return path;
}

bool same(const Path& a, const Path& b) {
    return a.absolute == b.absolute && a.trailingSlash == b.trailingSlash && a.segments == b.segments;
}

// parse runs the parser on a block that ends with the terminator.
ParsedPath parse(const std::string& text, bool skipPatterns = false) {
    const ExactBuffer<char> buffer(text, true);
    ParsedPath parsed;
    if (const char* end = parsed.path.parseFromURI(buffer.data(), skipPatterns))
        parsed.end = static_cast<size_t>(end - buffer.data());
    return parsed;
}

std::string oneByte(int byte) {
    return std::string(1, static_cast<char>(byte));
}

TEST(UriPathNotation, IsReadAsItIsWritten) {
    for (const std::string text : {"-", "-/", "/-", "/-/", "<>", "/<>/", "/<a><b>", "<a><><b c>/", "<..>", "<a/b>"})
        EXPECT_EQ(text, show(P(text)));
    EXPECT_EQ((Path::Segments{"a", "", "b"}), P("<a><><b>").segments);
    EXPECT_EQ((Path::Segments{}), P("/-/").segments);
}

// ---- Values and constructors ----

TEST(UriPath, IsAnOrdinaryValue) {
    EXPECT_FALSE(std::is_polymorphic_v<Path>);
    EXPECT_TRUE(std::is_nothrow_move_constructible_v<Path>);
    EXPECT_TRUE(std::is_nothrow_move_assignable_v<Path>);
    Path original = P("/<a><b>/");
    Path copy = original;
    copy.segments[0] = "x";
    EXPECT_EQ("/<a><b>/", show(original));
    EXPECT_EQ("/<x><b>/", show(copy));
    copy = std::move(original);
    EXPECT_EQ("/<a><b>/", show(copy));
}

TEST(UriPath, DefaultIsTheEmptyPath) {
    const Path path;
    EXPECT_FALSE(path.absolute);
    EXPECT_FALSE(path.trailingSlash);
    EXPECT_TRUE(path.segments.empty());
    EXPECT_EQ("", path.toString());
}

TEST(UriPath, ConstructorTakesTextAsOneSegment) {
    const std::string constant = "a/b%2F";
    EXPECT_EQ("<a/b%2F>", show(Path(constant)));
    EXPECT_EQ("<a/b%2F>/", show(Path(constant, true)));
    EXPECT_EQ("<a/b%2F>", show(Path("a/b%2F")));
    EXPECT_EQ("<a/b%2F>/", show(Path("a/b%2F", true)));
    std::string moved = "a long text that lives in a block of its own/..";
    EXPECT_EQ("<a long text that lives in a block of its own/..>/", show(Path(std::move(moved), true)));
    EXPECT_EQ("<>", show(Path("")));
    EXPECT_EQ("</>", show(Path("/")));
    EXPECT_EQ("<..>", show(Path("..")));
    EXPECT_EQ((Path::Segments{"a\0b"s}), Path("a\0b"s).segments);
}

TEST(UriPath, ConstructorTakesSegmentsInOrder) {
    EXPECT_EQ("<b><a/c><>", show(Path({"b"s, "a/c"s, ""s})));
    EXPECT_EQ("<b><a>/", show(Path({"b"s, "a"s}, true)));
    EXPECT_EQ("-/", show(Path(std::initializer_list<std::string>{}, true)));
}

// ---- toString and toFileName ----

TEST(UriPathText, FlagsDecideOnTheSlashesAtTheEnds) {
    const struct {
        const char* path;
        std::string expected;
        const char* from;
    } rows[] = {
        {"-", "", "the empty path"},
        {"-/", "./", "relative, trailing slash, none"},
        {"/-", "/", "absolute, none"},
        {"/-/", "/", "absolute, trailing slash, none"},
        {"<a><b>", "a/b", "relative"},
        {"/<a><b>", "/a/b", "absolute"},
        {"<a><b>/", "a/b/", "relative, trailing slash"},
        {"/<a><b>/", "/a/b/", "absolute, trailing slash"},
        {"<a><><b>", "a//b", "an empty segment"},
        {"/<><a>", "//a", "an empty segment in front"},
        {"<a><>/", "a//", "an empty segment at the end"},
        {"<a b%2F?#[[\xff>", "a b%2F?#[[\xff", "segments verbatim"},
        {"<a/b><c>", "a/b/c", "a slash in a segment is printed bare"},
        {"<.><..>", "./..", "dot segments"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.expected, P(row.path).toString()) << row.path << ": " << row.from;
        EXPECT_EQ(row.expected, P(row.path).toFileName()) << row.path << ": " << row.from;
    }
    EXPECT_EQ("a\0b/"s, Path("a\0b"s, true).toString());
    EXPECT_EQ("a\0b/"s, Path("a\0b"s, true).toFileName());
}

// ---- Escaped text and text for people ----

TEST(UriPathPrinters, AllThreeWriteTheSameFrame) {
    const struct {
        const char* path;
        std::string expected;
    } rows[] = {
        {"-", ""},           {"-/", "./"},        {"/-", "/"},           {"/-/", "/"},         {"<a><b>", "a/b"},
        {"/<a><b>", "/a/b"}, {"<a><b>/", "a/b/"}, {"/<a><b>/", "/a/b/"}, {"<a><><b>", "a//b"}, {"/<><a><>/", "//a//"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.expected, P(row.path).toEscapedURIPath()) << row.path;
        EXPECT_EQ(row.expected, P(row.path).toEscapedURIPath(true, true)) << row.path;
        EXPECT_EQ(row.expected, P(row.path).toCanonicalURIPath()) << row.path;
        EXPECT_EQ(row.expected, P(row.path).toUserURIPath()) << row.path;
        EXPECT_EQ(row.expected, P(row.path).toUserURIPath(true)) << row.path;
    }
}

TEST(UriPathPrinters, EveryByteOfASegment) {
    const std::string unreserved = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~";
    const std::string keep = "!$&'()*,;=:";
    for (int byte = 0; byte < 256; ++byte) {
        const std::string raw = oneByte(byte);
        const std::string escaped = {'%', "0123456789ABCDEF"[byte / 16], "0123456789ABCDEF"[byte % 16]};
        const bool bUnreserved = unreserved.find(raw) != NO_POSITION;
        const bool bKept = bUnreserved || keep.find(raw) != NO_POSITION;
        const bool bForPeople = byte >= 32 && "%/?#"s.find(raw) == NO_POSITION;
        const Path path({"x"s, raw});
        EXPECT_EQ("x/" + (bKept ? raw : escaped), path.toEscapedURIPath()) << byte;
        EXPECT_EQ("x/" + (bKept || byte == '+' ? raw : escaped), path.toEscapedURIPath(false, true)) << byte;
        EXPECT_EQ("x/" + (bUnreserved ? raw : escaped), path.toCanonicalURIPath()) << byte;
        EXPECT_EQ("x/" + (bForPeople ? raw : escaped), path.toUserURIPath()) << byte;
    }
}

TEST(UriPathPrinters, RegionsAreKeptIfAskedFor) {
    const Path path = P("<[[a b/c]]><[[ /><%]]>");
    EXPECT_EQ("%5B%5Ba%20b%2Fc%5D%5D/%5B%5B%20%2F/%25%5D%5D", path.toEscapedURIPath());
    EXPECT_EQ("[[a b/c]]/%5B%5B%20%2F/%25%5D%5D", path.toEscapedURIPath(true));
    EXPECT_EQ("%5B%5Ba%20b%2Fc%5D%5D/%5B%5B%20%2F/%25%5D%5D", path.toCanonicalURIPath());
    EXPECT_EQ("[[a b%2Fc]]/[[ %2F/%25]]", path.toUserURIPath());
    EXPECT_EQ("[[a b/c]]/[[ %2F/%25]]", path.toUserURIPath(true));
}

TEST(UriPathPrinters, SlashFromAnEscapeIsBareInPlainTextAndEscapedInEscapedText) {
    const Path path = Path::fromEscapedURIPath("a%2Fb/c");
    EXPECT_EQ("<a/b><c>", show(path));
    EXPECT_EQ("a/b/c", path.toString());
    EXPECT_EQ("a%2Fb/c", path.toEscapedURIPath());
    EXPECT_EQ("a%2Fb/c", path.toCanonicalURIPath());
    EXPECT_EQ("a%2Fb/c", path.toUserURIPath());
}

// ---- parseFromURI and fromEscapedURIPath ----

TEST(UriPathParse, FlagsAreOnlySet) {
    Path path;
    path.absolute = path.trailingSlash = true;
    ASSERT_NE(path.parseFromURI("a"), nullptr);
    EXPECT_EQ("/<a>/", show(path));
}

TEST(UriPathParse, CutsAtSlashesAndEndsAtQueryOrFragment) {
    const struct {
        std::string text, expected;
        size_t end;
        const char* from;
    } rows[] = {
        {"", "-", 0, "the empty text"},
        {"?x", "-", 0, "empty up to the query"},
        {"#x", "-", 0, "empty up to the fragment"},
        {"/", "/-/", 1, "the root"},
        {"/?x", "/-/", 1, "the root and a query"},
        {"a", "<a>", 1, "one segment"},
        {"a/b", "<a><b>", 3, "relative"},
        {"/a/b", "/<a><b>", 4, "absolute"},
        {"a/b/", "<a><b>/", 4, "trailing slash"},
        {"/a/b/", "/<a><b>/", 5, "both"},
        {"a/", "<a>/", 2, "an empty final stretch makes no segment"},
        {"a//b", "<a><><b>", 4, "an empty stretch makes a segment"},
        {"//", "/<>/", 2, "an empty segment behind the root"},
        {"///", "/<><>/", 3, "empty segments behind the root"},
        {"//a", "/<><a>", 3, "an empty segment behind the root"},
        {"a//", "<a><>/", 3, "an empty segment at the end"},
        {"a?b/c", "<a>", 1, "a query ends the path"},
        {"a#b/c", "<a>", 1, "a fragment ends the path"},
        {"a/b#c?d", "<a><b>", 3, "the first of the two"},
        {"a/b?c#d", "<a><b>", 3, "the first of the two"},
        {"a/?b", "<a>/", 2, "a trailing slash ahead of a query"},
        {"/a/#b", "/<a>/", 3, "a trailing slash ahead of a fragment"},
        {"a?%zz", "<a>", 1, "escapes behind the path don't count"},
        {"a%20b/%7e", "<a b><~>", 9, "decoded"},
        {"a%2Fb/c", "<a/b><c>", 7, "an escaped slash doesn't separate"},
        {"%2F", "</>", 3, "an escaped slash is no root"},
        {"a%2F", "<a/>", 4, "an escaped slash at the end"},
        {"a%3Fb%23c", "<a?b#c>", 9, "escaped delimiters end nothing"},
        {"%2e/%2E%2e", "<.><..>", 10, "dot segments stay"},
        {"./../a", "<.><..><a>", 6, "dot segments stay"},
        {"a+b;c=d:e@f", "<a+b;c=d:e@f>", 11, "all other characters"},
        {"a b\xff\x01", "<a b\xff\x01>", 5, "bytes that should have been escaped"},
        {"[[a/b]]", "<[[a><b]]>", 7, "regions count only if asked for"},
        {"[[a?b]]", "<[[a>", 3, "regions count only if asked for"},
        {"[[%41]]", "<[[A]]>", 7, "regions count only if asked for"},
    };
    for (const auto& row : rows) {
        const ParsedPath parsed = parse(row.text);
        EXPECT_EQ(row.expected, show(parsed.path)) << row.text << ": " << row.from;
        EXPECT_EQ(row.end, parsed.end) << row.text << ": " << row.from;
        EXPECT_EQ(row.expected, show(Path::fromEscapedURIPath(row.text))) << row.text << ": " << row.from;
    }
}

TEST(UriPathParse, NulFromAnEscapeIsAnOrdinaryByte) {
    EXPECT_EQ((Path::Segments{"a\0b"s}), parse("a%00b").path.segments);
    EXPECT_EQ("a\0b"s, Path::fromEscapedURIPath("a%00b").toString());
    EXPECT_EQ("a%00b", Path::fromEscapedURIPath("a%00b").toEscapedURIPath());
}

TEST(UriPathParse, NulEndsTheText) {
    const ParsedPath parsed = parse("a/b\0/c%zz"s);
    EXPECT_EQ("<a><b>", show(parsed.path));
    EXPECT_EQ(3u, parsed.end);
    EXPECT_EQ("<a><b>", show(Path::fromEscapedURIPath("a/b\0/c%zz"s)));
}

TEST(UriPathParse, BadEscapeGivesNullAndLeavesWhatWasReadWithTheBadSegment) {
    const struct {
        std::string text, left;
    } rows[] = {
        {"%", "<%>"},
        {"%4", "<%4>"},
        {"%zz", "<%zz>"},
        {"/%zz", "/<%zz>"},
        {"a/%zz/b", "<a><%zz>"},
        {"a/b%4/c", "<a><b%4>"},
        {"/a/%%41/b/", "/<a><%A>"},
        {"a/%/", "<a><%>"},
        {"a/%4?1", "<a><%4>"},
        {"a/%4#1", "<a><%4>"},
        {"a%4/1", "<a%4>"},
    };
    for (const auto& row : rows) {
        const ParsedPath parsed = parse(row.text);
        EXPECT_EQ(NO_POSITION, parsed.end) << row.text;
        EXPECT_EQ(row.left, show(parsed.path)) << row.text;
        EXPECT_EQ("-", show(Path::fromEscapedURIPath(row.text))) << row.text;
    }
}

TEST(UriPathParse, RegionsAreOpaqueIfAskedFor) {
    const struct {
        std::string text, expected;
        size_t end;
        const char* from;
    } rows[] = {
        {"", "-", 0, "nothing"},
        {"?[[x]]", "-", 0, "empty up to the query"},
        {"/", "/-/", 1, "the root"},
        {"/a//b/", "/<a><><b>/", 6, "no region"},
        {"[[a]]", "<[[a]]>", 5, "a region"},
        {"[[a/b]]", "<[[a/b]]>", 7, "a slash inside"},
        {"[[a/b]]/c", "<[[a/b]]><c>", 9, "a slash inside and one behind"},
        {"/x[[a/b]]y/c/", "/<x[[a/b]]y><c>/", 13, "text around the region"},
        {"[[/]]/[[/]]", "<[[/]]><[[/]]>", 11, "two regions"},
        {"[[/]][[/]]/a", "<[[/]][[/]]><a>", 12, "two regions in one segment"},
        {"[[/]]x[[/]]/a", "<[[/]]x[[/]]><a>", 13, "two regions in one segment"},
        {"[[a]][[/]]/b", "<[[a]][[/]]><b>", 12, "a region that ends ahead of the slash, then one around it"},
        {"[[a]]/[[/]]/b", "<[[a]]><[[/]]><b>", 13, "a region that ends ahead of the slash"},
        {"[[a?b]]", "<[[a?b]]>", 7, "a question mark inside doesn't end the path"},
        {"[[a?b#c]]?d", "<[[a?b#c]]>", 9, "the end is searched behind the region"},
        {"[[a#b]]/c#d", "<[[a#b]]><c>", 9, "the end is searched behind the region"},
        {"[[?]]/[[?]]?", "<[[?]]><[[?]]>", 11, "two regions with question marks"},
        {"[[?]]/[[/]]?", "<[[?]]><[[/]]>", 11, "two regions"},
        {"[[?/]]/", "<[[?/]]>/", 7, "trailing slash behind a region"},
        {"[[?]]", "<[[?]]>", 5, "nothing behind the region"},
        {"a?[[b]]/c", "<a>", 1, "a region that begins behind the end"},
        {"a?[[b?c]]", "<a>", 1, "a region that begins behind the end"},
        {"a/?[[/]]", "<a>/", 2, "a region that begins behind the end"},
        {"[?[a]]", "<[>", 1, "no opening across the end"},
        {"[[a", "<[[a>", 3, "an opening without closing is ordinary text"},
        {"[[a/b", "<[[a><b>", 5, "an opening without closing is ordinary text"},
        {"[[a?b", "<[[a>", 3, "an opening without closing is ordinary text"},
        {"[[%41", "<[[A>", 5, "an opening without closing is ordinary text"},
        {"[[a/b]?c", "<[[a><b]>", 6, "an opening without closing is ordinary text"},
        {"[[/]]/[[a/%41", "<[[/]]><[[a><A>", 13, "an opening without closing behind a region"},
        {"[[%41]]%41", "<[[%41]]A>", 10, "decoded outside"},
        {"%41[[%41]]", "<A[[%41]]>", 10, "decoded outside"},
        {"%41[[%41]]%42[[%zz]]%43", "<A[[%41]]B[[%zz]]C>", 23, "decoded outside"},
        {"[[a]][[%41]]", "<[[a]][[%41]]>", 12, "every region counts"},
        {"[[%]]", "<[[%]]>", 5, "a bad escape inside"},
        {"[[a]/b]]", "<[[a]/b]]>", 8, "a single bracket closes nothing"},
        {"[[]/]]", "<[[]/]]>", 6, "a single bracket closes nothing"},
        {"[[/]]]/a", "<[[/]]]><a>", 8, "the next closing counts"},
        {"[[[/]]/a", "<[[[/]]><a>", 8, "the first opening counts"},
        {"[[a[[/]]/]]", "<[[a[[/]]><]]>", 11, "the next closing counts"},
        {"[a/b]]", "<[a><b]]>", 6, "a single bracket opens nothing"},
        {"]]/[[", "<]]><[[>", 5, "a closing ahead of the opening"},
        {"%5B%5Ba/b%5D%5D", "<[[a><b]]>", 15, "escaped brackets open nothing"},
        {"%5B%5Ba/b]]", "<[[a><b]]>", 11, "escaped brackets open nothing"},
    };
    for (const auto& row : rows) {
        const ParsedPath parsed = parse(row.text, true);
        EXPECT_EQ(row.expected, show(parsed.path)) << row.text << ": " << row.from;
        EXPECT_EQ(row.end, parsed.end) << row.text << ": " << row.from;
    }
}

TEST(UriPathParse, BadEscapeOutsideRegionsGivesNull) {
    for (const std::string text : {"%", "a/%zz", "%[[a]]", "%4[[1]]", "[[a]]%", "[[a]]%4[[1]]", "[[%", "[[%41/%4",
                                   "[[?]]/%", "[[a]]/%zz/b", "[[a]][[b]]%zz"})
        EXPECT_EQ(NO_POSITION, parse(text, true).end) << text;
}

TEST(UriPathParse, BadSegmentWithoutRegionIsStoredAlsoWithRegionsOn) {
    EXPECT_EQ("<[[/]]><b%4>", show(parse("[[/]]/b%4/c", true).path));
    EXPECT_EQ("<[[%zz>", show(parse("[[%zz", true).path));
}

// ---- fromFileName and fromString ----

TEST(UriPathFileName, SlashesCollapseAndDotSegmentsGo) {
    const struct {
        std::string name, expected;
        const char* from;
    } rows[] = {
        {"", "-", "the empty text"},
        {"/", "/-", "no segment is stored ahead of the end"},
        {"//", "/-", "slashes collapse"},
        {"a", "<a>", "one piece"},
        {"/a", "/<a>", "an empty piece in front"},
        {"//a", "/<a>", "slashes collapse"},
        {"a/b", "<a><b>", "two pieces"},
        {"a//b", "<a><b>", "slashes collapse"},
        {"/a///b//", "/<a><b>/", "slashes collapse"},
        {"a/", "<a>/", "trailing slash"},
        {"a//", "<a>/", "trailing slash"},
        {".", "-/", "a dot segment at the end"},
        {"./", "-/", "a dot segment and a slash"},
        {"/.", "/-/", "a dot segment at the end"},
        {"a/.", "<a>/", "a dot segment at the end"},
        {"./a", "<a>", "a dot segment in front"},
        {"./.", "-/", "dot segments"},
        {"a/./b", "<a><b>", "a dot segment inside"},
        {"a/x/../b", "<a><b>", "two dots"},
        {"a/..", "-/", "two dots at the end"},
        {"a/b/..", "<a>/", "two dots at the end"},
        {"..", "<..>", "two dots that stay"},
        {"../", "<..>/", "two dots that stay"},
        {"../../a", "<..><..><a>", "two dots that stay"},
        {"/../a", "/<..><a>", "two dots that stay behind the root"},
        {"a/../..", "<..>", "two dots that stay at the end"},
        {"...", "<...>", "three dots are a name"},
        {".a/b.", "<.a><b.>", "dots in names"},
        {"a%2Fb%zz", "<a%2Fb%zz>", "no escape is decoded"},
        {"%2e", "<%2e>", "no escape is decoded"},
        {"a?b#c d", "<a?b#c d>", "all other characters"},
        {"[[a/b]]", "<[[a><b]]>", "no regions"},
        {"\xff\x01", "<\xff\x01>", "any byte"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.expected, show(Path::fromFileName(row.name))) << row.name << ": " << row.from;
        EXPECT_EQ(row.expected, show(Path::fromString(row.name))) << row.name << ": " << row.from;
    }
    EXPECT_EQ((Path::Segments{"a\0b"s, "c"}), Path::fromFileName("a\0b/c"s).segments);
}

TEST(UriPathFileName, DoubledSlashMakesASegmentInAUriOnly) {
    EXPECT_EQ(3u, Path::fromEscapedURIPath("a//b").segments.size());
    EXPECT_EQ(2u, Path::fromFileName("a//b").segments.size());
}

// ---- Queries ----

TEST(UriPathQuery, ContainsComparesWholeSegments) {
    const Path path = P("/<a><bc><>/");
    EXPECT_TRUE(path.contains("a"));
    EXPECT_TRUE(path.contains("bc"));
    EXPECT_TRUE(path.contains(""));
    EXPECT_FALSE(path.contains("b"));
    EXPECT_FALSE(path.contains("A"));
    EXPECT_FALSE(path.contains("a/bc"));
    EXPECT_FALSE(P("/-/").contains(""));
    EXPECT_FALSE(Path("a\0b"s).contains("a"));
    EXPECT_TRUE(Path("a\0b"s).contains("a\0b"s));
}

TEST(UriPathQuery, BeginsWithComparesWholeSegments) {
    const struct {
        const char *path, *prefix;
        bool expected;
        const char* from;
    } rows[] = {
        {"/<a><b>", "/<a>", true, "below"},
        {"/<a><b>", "/<a>/", true, "a prefix with trailing slash and fewer segments"},
        {"/<a><b>", "/<a><b>", true, "equal"},
        {"/<a><b>/", "/<a><b>", true, "equal but for this path's slash"},
        {"/<a><b>", "/<a><b>/", false, "as many segments: the prefix's slash is wanted"},
        {"/<a><b>/", "/<a><b>/", true, "as many segments: the prefix's slash is there"},
        {"/<a><b>", "<a>", false, "absolute or not"},
        {"<a><b>", "/<a>", false, "absolute or not"},
        {"<a><b>", "/-", false, "absolute or not"},
        {"<a><b>", "<a>", true, "relative"},
        {"/<a>", "/<a><b>", false, "more segments"},
        {"/<ab>", "/<a>", false, "segments count as a whole"},
        {"/<a><b>", "/<a><c>", false, "another segment"},
        {"/<a><b><c>", "/<x><b>", false, "another segment"},
        {"/<a><b>", "/-", true, "no segments"},
        {"/<a><b>", "/-/", true, "no segments"},
        {"<a>", "-", true, "no segments"},
        {"<a>", "-/", true, "no segments"},
        {"-", "-", true, "both empty"},
        {"-", "-/", false, "both without segments: the prefix's slash is wanted"},
        {"-/", "-/", true, "both without segments: the prefix's slash is there"},
        {"/-", "/-/", false, "both without segments: the prefix's slash is wanted"},
        {"/-/", "/-", true, "both without segments"},
        {"<><a>", "<>", true, "an empty segment"},
        {"<a>", "<>", false, "an empty segment"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(row.expected, P(row.path).beginsWith(P(row.prefix)))
            << row.path << " and " << row.prefix << ": " << row.from;
}

TEST(UriPathQuery, CompareSortsInThisOrder) {
    const char* ordered[] = {"/-",    "/-/",    "/<>",  "/<a>",  "/<a>/", "/<a><b>", "/<a><b>/", "/<a><c>", "/<aa>",
                             "/<b>",  "-",      "-/",   "<>",    "<>/",   "<><z>",   "<A>",      "<a>",     "<a>/",
                             "<a><>", "<a><b>", "<a/>", "<a0>/", "<ab>/", "<z>",     "<\x7f>",   "<\x80>",  "<\xff>"};
    const size_t count = std::size(ordered);
    for (size_t i = 0; i < count; ++i)
        for (size_t k = 0; k < count; ++k) {
            const int result = P(ordered[i]).compare(P(ordered[k]));
            EXPECT_EQ(i < k, result < 0) << ordered[i] << " and " << ordered[k];
            EXPECT_EQ(i > k, result > 0) << ordered[i] << " and " << ordered[k];
        }
}

TEST(UriPathQuery, CompareGivesTheseNumbers) {
    EXPECT_EQ(-1, P("/<z>").compare(P("<a>")));
    EXPECT_EQ(1, P("<a>").compare(P("/<z>")));
    EXPECT_EQ(-1, P("<a>").compare(P("<a><b>")));
    EXPECT_EQ(1, P("<a><b><c>").compare(P("<a>")));
    EXPECT_EQ(-1, P("<a>").compare(P("<a>/")));
    EXPECT_EQ(1, P("<a>/").compare(P("<a>")));
    EXPECT_EQ(0, P("<a>/").compare(P("<a>/")));
    EXPECT_EQ(0, P("-").compare(P("-")));
    EXPECT_EQ(-1, P("<a>/").compare(P("<a><b>")));   // the segments come first
    EXPECT_EQ(-2, P("<a><z>").compare(P("<abc>")));  // the difference of the lengths
    EXPECT_EQ(5, P("<abcdef>").compare(P("<a>")));
    EXPECT_LT(Path("a\0b"s).compare(Path("a\0c"s)), 0);
    EXPECT_EQ(2, Path("a\0b"s).compare(Path("a")));
}

TEST(UriPathQuery, LastSegmentNameIsEmptyWithoutSegments) {
    const Path path = P("/<a><b>/");
    EXPECT_EQ(&path.segments.back(), &path.lastSegmentName());
    const std::string* empty;
    {
        const Path shortLived = P("/-/");
        empty = &shortLived.lastSegmentName();
        EXPECT_EQ("", *empty);
    }
    EXPECT_EQ("", *empty);
    EXPECT_EQ(empty, &Path().lastSegmentName());
}

TEST(UriPathQuery, PartsFollowFromSegmentsAndFlags) {
    const struct {
        const char *path, *lastSegment, *resourceName, *resourceDir, *topDir, *afterTopDir;
    } rows[] = {
        {"-", "-", "-", "-", "-", "-"},
        {"-/", "-/", "-", "-/", "-", "-"},
        {"/-", "-", "-", "/-", "-", "-"},
        {"/-/", "-/", "-", "/-/", "-", "-"},
        {"<a>", "<a>", "<a>", "-/", "-", "-"},
        {"<a>/", "<a>/", "-", "<a>/", "-", "-"},
        {"/<a>", "<a>", "<a>", "/-/", "-", "-"},
        {"/<a>/", "<a>/", "-", "/<a>/", "/<a>/", "-"},
        {"<a><b>", "<b>", "<b>", "<a>/", "-", "-"},
        {"<a><b>/", "<b>/", "-", "<a><b>/", "-", "-"},
        {"/<a><b>", "<b>", "<b>", "/<a>/", "/<a>/", "<b>"},
        {"/<a><b>/", "<b>/", "-", "/<a><b>/", "/<a>/", "<b>/"},
        {"/<a><b><c>", "<c>", "<c>", "/<a><b>/", "/<a>/", "<b><c>"},
        {"/<a><b><c>/", "<c>/", "-", "/<a><b><c>/", "/<a>/", "<b><c>/"},
        {"<a><>", "<>", "<>", "<a>/", "-", "-"},
        {"/<><a>", "<a>", "<a>", "/<>/", "/<>/", "<a>"},
    };
    for (const auto& row : rows) {
        const Path path = P(row.path);
        EXPECT_EQ(row.lastSegment, show(path.lastSegment())) << row.path;
        EXPECT_EQ(row.resourceName, show(path.resourceName())) << row.path;
        EXPECT_EQ(row.resourceDir, show(path.resourceDir())) << row.path;
        EXPECT_EQ(row.topDir, show(path.topDir())) << row.path;
        EXPECT_EQ(row.afterTopDir, show(path.afterTopDir())) << row.path;
        EXPECT_EQ(row.path, show(path));
    }
}

TEST(UriPathQuery, SubPathKeepsTheFlagsOfTheEndsThatItKeeps) {
    const unsigned END = static_cast<unsigned>(-1);
    const struct {
        const char* path;
        unsigned first, last;
        const char *expected, *from;
    } rows[] = {
        {"/<a><b><c>", 0, 2, "/<a><b>/", "last below the count sets the slash"},
        {"/<a><b><c>", 0, 3, "/<a><b><c>", "the whole"},
        {"/<a><b><c>/", 0, 3, "/<a><b><c>/", "the whole"},
        {"/<a><b><c>", 0, END, "/<a><b><c>", "-1 is the end"},
        {"/<a><b><c>", 0, 99, "/<a><b><c>", "clamped"},
        {"/<a><b><c>", 1, END, "<b><c>", "relative behind the first"},
        {"/<a><b><c>/", 1, END, "<b><c>/", "this path's slash"},
        {"/<a><b><c>", 1, 2, "<b>/", "a middle part"},
        {"/<a><b><c>", 0, 0, "/-/", "an empty part in front"},
        {"<a><b>", 0, 0, "-/", "an empty part in front"},
        {"/<a><b>", 1, 1, "-/", "an empty part inside"},
        {"/<a><b>", 2, 2, "-", "an empty part at the end"},
        {"/<a><b>/", 2, END, "-/", "an empty part at the end"},
        {"<a><b>", 0, 1, "<a>/", "a relative path"},
        {"-", 0, 0, "-", "no segments"},
        {"/-/", 0, END, "/-/", "no segments"},
        {"/-", 0, 5, "/-", "no segments"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(row.expected, show(P(row.path).subPath(row.first, row.last)))
            << row.path << " " << row.first << " " << row.last << ": " << row.from;
}

TEST(UriPathQuery, CommonBaseIsTheSharedDirectory) {
    const struct {
        const char *a, *b, *expected, *from;
    } rows[] = {
        {"/<a><b>", "<a><b>", "-", "one is absolute"},
        {"-/", "/-/", "-", "one is absolute"},
        {"/<a><b>", "/<a><c>", "/<a>/", "what both share"},
        {"<a><b>", "<a><c>", "<a>/", "relative"},
        {"/<a><b>", "/<a><b>", "/<a><b>", "the same, both without slash"},
        {"/<a><b>/", "/<a><b>", "/<a><b>/", "the same, one with slash"},
        {"/<a><b>", "/<a><b>/", "/<a><b>/", "the same, one with slash"},
        {"/<a><b>/", "/<a><b>/", "/<a><b>/", "the same, both with slash"},
        {"/<a>", "/<a><b>", "/<a>/", "one above the other"},
        {"/<a><b>", "/<a>", "/<a>/", "one above the other"},
        {"/<a>", "/<b>", "/-/", "nothing but the root"},
        {"<a>", "<b>", "-/", "nothing"},
        {"/<a><x><c>", "/<a><y><c>", "/<a>/", "only leading segments"},
        {"/<ab>", "/<a>", "/-/", "segments count as a whole"},
        {"-", "-", "-", "two empty relative paths"},
        {"-", "-/", "-/", "an empty one and another"},
        {"-/", "-", "-/", "an empty one and another"},
        {"-", "<a>", "-/", "an empty one and another"},
        {"<a>", "-", "-/", "an empty one and another"},
        {"/-", "/<a>", "/-/", "an empty one and another"},
        {"/-", "/-", "/-", "the same, both without slash"},
        {"/-/", "/-", "/-/", "the same, one with slash"},
        {"<><a>", "<><b>", "<>/", "empty segments"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(row.expected, show(Path::commonBase(P(row.a), P(row.b))))
            << row.a << " and " << row.b << ": " << row.from;
}

// ---- Changes ----

TEST(UriPathChange, ClearMakesTheEmptyPath) {
    Path path = P("/<a><b>/");
    path.clear();
    EXPECT_EQ("-", show(path));
}

TEST(UriPathChange, AppendAndSlashAddOneSegment) {
    const struct {
        const char *path, *segment;
        bool trailingSlash;
        const char* expected;
    } rows[] = {
        {"-", "a", false, "<a>"},        {"-/", "a", false, "<a>"},   {"/<a>/", "b", false, "/<a><b>"},
        {"/<a>", "b", true, "/<a><b>/"}, {"<a>", "", false, "<a><>"}, {"<a>", "b/c%2F", true, "<a><b/c%2F>/"},
        {"/-/", "..", false, "/<..>"},
    };
    for (const auto& row : rows) {
        const std::string segment = row.segment;
        Path copied = P(row.path), moved = P(row.path);
        EXPECT_EQ(&copied, &copied.append(segment, row.trailingSlash));
        EXPECT_EQ(row.expected, show(copied)) << row.path << " and " << segment;
        EXPECT_EQ(&moved, &moved.append(std::string(segment), row.trailingSlash));
        EXPECT_EQ(row.expected, show(moved)) << row.path << " and " << segment;
        const Path path = P(row.path);
        EXPECT_EQ(row.expected, show(path.slash(segment, row.trailingSlash))) << row.path << " and " << segment;
        EXPECT_EQ(row.expected, show(path.slash(std::string(segment), row.trailingSlash)))
            << row.path << " and " << segment;
        EXPECT_EQ(row.path, show(path));
        EXPECT_EQ(segment, row.segment);
    }
}

TEST(UriPathChange, AppendAndSlashAddAPath) {
    const struct {
        const char *path, *tail, *expected, *from;
    } rows[] = {
        {"<a>", "<b><c>", "<a><b><c>", "segments"},
        {"<a>/", "<b>", "<a><b>", "the tail's slash counts"},
        {"<a>", "<b>/", "<a><b>/", "the tail's slash counts"},
        {"<a>", "/<b>", "<a><b>", "the tail's root is ignored"},
        {"/<a>", "<b>", "/<a><b>", "this path's root stays"},
        {"-", "/<b>/", "<b>/", "the tail's root is ignored"},
        {"<a>/", "-", "<a>/", "a tail without segments leaves the slash"},
        {"<a>", "-", "<a>", "a tail without segments"},
        {"<a>", "-/", "<a>/", "a tail without segments sets the slash"},
        {"<a>/", "-/", "<a>/", "a tail without segments"},
        {"<a>", "/-", "<a>", "the tail's root is ignored"},
        {"<a>/", "/-", "<a>/", "a tail without segments leaves the slash"},
        {"-/", "-", "-/", "a tail without segments leaves the slash"},
        {"-", "-", "-", "nothing"},
    };
    for (const auto& row : rows) {
        Path changed = P(row.path);
        EXPECT_EQ(&changed, &changed.append(P(row.tail)));
        EXPECT_EQ(row.expected, show(changed)) << row.path << " and " << row.tail << ": " << row.from;
        const Path path = P(row.path);
        EXPECT_EQ(row.expected, show(path.slash(P(row.tail)))) << row.path << " and " << row.tail << ": " << row.from;
        EXPECT_EQ(row.path, show(path));
    }
}

TEST(UriPathChange, AddSuffixExtendsTheLastSegment) {
    const struct {
        const char *path, *suffix, *expected, *from;
    } rows[] = {
        {"<a>", ".txt", "<a.txt>", "to the last segment"},
        {"/<a><b>", ".txt", "/<a><b.txt>", "to the last segment"},
        {"<a>/", "x", "<a><x>/", "behind a slash, which stays"},
        {"-", "x", "<x>", "the empty path"},
        {"-/", "x", "<x>/", "./, whose slash stays"},
        {"/-", "x", "/<x>", "the root"},
        {"/-/", "x", "/<x>/", "the root with slash"},
        {"<a>", "/b", "<a/b>", "taken as it is"},
        {"<a>", "", "<a>", "an empty suffix"},
        {"<a>/", "", "<a><>/", "an empty suffix behind a slash"},
    };
    for (const auto& row : rows) {
        Path path = P(row.path);
        EXPECT_EQ(&path, &path.addSuffix(row.suffix));
        EXPECT_EQ(row.expected, show(path)) << row.path << " and " << row.suffix << ": " << row.from;
    }
}

TEST(UriPathChange, RemoveRootTakesWholeSegments) {
    const struct {
        const char *path, *root;
        bool expected;
        const char *left, *from;
    } rows[] = {
        {"/<a><b>", "/<a>", true, "<b>", "below"},
        {"/<a><b>", "/<a>/", true, "<b>", "below, whatever slash the root has"},
        {"/<a><b>/", "/<a>", true, "<b>/", "this path's slash stays"},
        {"/<a><b>", "/<a><b>", true, "-/", "equal"},
        {"/<a><b>", "/<a><b>/", true, "-/", "equal, whatever slash the root has"},
        {"/<a><b>/", "/<a><b>", true, "-/", "equal, whatever slash this path has"},
        {"<a><b>", "<a>", true, "<b>", "relative"},
        {"/<a>", "/-", true, "<a>", "a root without segments"},
        {"/<a>", "/-/", true, "<a>", "a root without segments"},
        {"<a>", "-", true, "<a>", "a root without segments"},
        {"/-", "/-/", true, "-/", "nothing remains"},
        {"-", "-", true, "-/", "nothing remains"},
        {"/<a><b>", "<a>", false, "/<a><b>", "absolute or not"},
        {"<a><b>", "/<a>", false, "<a><b>", "absolute or not"},
        {"/<a>", "/<a><b>", false, "/<a>", "the root is longer"},
        {"/<a><b>/", "/<a><c>", false, "/<a><b>/", "another segment"},
        {"/<ab>", "/<a>", false, "/<ab>", "segments count as a whole"},
        {"-", "/-", false, "-", "absolute or not"},
    };
    for (const auto& row : rows) {
        Path path = P(row.path);
        EXPECT_EQ(row.expected, path.removeRoot(P(row.root))) << row.path << " and " << row.root << ": " << row.from;
        EXPECT_EQ(row.left, show(path)) << row.path << " and " << row.root << ": " << row.from;
    }
}

TEST(UriPathChange, RemoveDotSegmentsKeepsLeadingParentsUnlessRooted) {
    const struct {
        const char *path, *expected, *rooted, *from;
    } rows[] = {
        {"-", "-", "/-/", "no segments"},
        {"-/", "-/", "/-/", "no segments"},
        {"/-", "/-", "/-/", "no segments"},
        {"/-/", "/-/", "/-/", "no segments"},
        {"<a>", "<a>", "/<a>", "no dots"},
        {"<a>/", "<a>/", "/<a>/", "no dots"},
        {"<.>", "-/", "/-/", "a dot"},
        {"<.><.>", "-/", "/-/", "dots"},
        {"/<.>", "/-/", "/-/", "a dot"},
        {"<a><.><b>", "<a><b>", "/<a><b>", "a dot inside"},
        {"<.><a>", "<a>", "/<a>", "a dot in front"},
        {"<a><.>", "<a>/", "/<a>/", "a dot at the end"},
        {"<a><x><..><b>", "<a><b>", "/<a><b>", "two dots inside"},
        {"<a><b><..>", "<a>/", "/<a>/", "two dots at the end"},
        {"<a><..>", "-/", "/-/", "two dots that cancel all"},
        {"/<a><..>", "/-/", "/-/", "two dots that cancel all"},
        {"<a><..><b>", "<b>", "/<b>", "two dots that cancel the first"},
        {"<..>", "<..>", "/-/", "two dots alone"},
        {"/<..>", "/<..>", "/-/", "two dots alone"},
        {"<..>/", "<..>/", "/-/", "two dots alone"},
        {"<..><..>", "<..><..>", "/-/", "two dots twice"},
        {"<..><..><a>", "<..><..><a>", "/<a>", "two dots in front"},
        {"/<..><a>", "/<..><a>", "/<a>", "two dots behind the root"},
        {"<a><..><..>", "<..>", "/-/", "two dots, of which the last stays"},
        {"<a><..><..><b>", "<..><b>", "/<b>", "two dots, of which the last stays"},
        {"<..><a><..>", "<..>/", "/-/", "two dots, of which the last cancels"},
        {"<..><.>", "<..>/", "/-/", "a dot behind two dots"},
        {"<.><..>", "<..>", "/-/", "two dots behind a dot"},
        {"<a><.><..>", "-/", "/-/", "two dots behind a dot"},
        {"<a><.><..><b>", "<b>", "/<b>", "two dots behind a dot"},
        {"<a><b><..><..><c>", "<c>", "/<c>", "two dots twice inside"},
        {"<a><b><c><..><..>/", "<a>/", "/<a>/", "two dots twice at the end"},
        {"<a><><..>", "<a>/", "/<a>/", "an empty segment is an ordinary one"},
        {"<a><><..><..><b>", "<b>", "/<b>", "an empty segment is an ordinary one"},
        {"<><..><a>", "<a>", "/<a>", "an empty segment is an ordinary one"},
        {"<a><>", "<a><>", "/<a><>", "an empty segment is an ordinary one"},
        {"<...><.a><a.><..a>", "<...><.a><a.><..a>", "/<...><.a><a.><..a>", "dots in names"},
        {"<a><./><../>", "<a><./><../>", "/<a><./><../>", "dots in names"},
    };
    for (const auto& row : rows) {
        Path plain = P(row.path), rooted = P(row.path);
        EXPECT_EQ(&plain, &plain.removeDotSegments(false));
        EXPECT_EQ(row.expected, show(plain)) << row.path << ": " << row.from;
        EXPECT_EQ(&rooted, &rooted.removeDotSegments(true));
        EXPECT_EQ(row.rooted, show(rooted)) << row.path << ", rooted: " << row.from;
    }
}

TEST(UriPathChange, ResolveMergesRelativePathsOnly) {
    const struct {
        const char *path, *base;
        bool rooted;
        const char *expected, *from;
    } rows[] = {
        {"/<x>", "/<a><b>", false, "/<x>", "an absolute path isn't merged"},
        {"/<x>", "<a><b>/", false, "/<x>", "an absolute path isn't merged"},
        {"/<x><..><y><.>", "/<a>", false, "/<y>/", "but its dot segments go"},
        {"/<..><x>", "/<a>", false, "/<..><x>", "unrooted"},
        {"/<..><x>", "/<a>", true, "/<x>", "rooted"},
        {"/-", "/<a>/", false, "/-", "the root isn't merged"},
        {"/-", "/<a>/", true, "/-/", "the root isn't merged"},
        {"-", "/<a><b>", false, "/<a><b>", "the empty path takes the base's"},
        {"-", "/<a>/", false, "/<a>/", "the empty path takes the base's"},
        {"-", "<a>/", false, "<a>/", "the empty path takes the base's"},
        {"-", "-", false, "-", "the empty path takes the base's"},
        {"-", "-", true, "/-/", "rooted"},
        {"-", "-/", false, "-/", "the empty path takes the base's"},
        {"-", "/<a><..><b>", false, "/<b>", "the base's dot segments go"},
        {"<x>", "/<a><b>", false, "/<a><x>", "beside the base's last"},
        {"<x>", "/<a><b>/", false, "/<a><b><x>", "below the base's last"},
        {"<x>/", "/<a><b>", false, "/<a><x>/", "this path's slash stays"},
        {"<x>", "/<a>", false, "/<x>", "beside the base's only one"},
        {"<x>", "/-/", false, "/<x>", "a base without segments"},
        {"<x>", "/-", false, "/<x>", "a base without segments"},
        {"<x>", "-", false, "<x>", "a base without segments"},
        {"<x>", "-/", false, "<x>", "a base without segments"},
        {"<x>", "<a><b>", false, "<a><x>", "a relative base"},
        {"<x>", "<a><b>", true, "/<a><x>", "a relative base, rooted"},
        {"-/", "/<a><b>", false, "/<a>/", "./ is the base's directory"},
        {"-/", "/<a><b>/", false, "/<a><b>/", "./ is the base's directory"},
        {"-/", "/<a>", false, "/-/", "./ is the base's directory"},
        {"<..><x>", "/<a><b><c>", false, "/<a><x>", "up"},
        {"<..>", "/<a><b><c>", false, "/<a>/", "up"},
        {"<..><..><x>", "/<a>/", false, "/<..><x>", "above the root, unrooted"},
        {"<..><..><x>", "/<a>/", true, "/<x>", "above the root, rooted"},
        {"<..>", "<a>", false, "<..>", "above a relative base"},
    };
    for (const auto& row : rows) {
        Path path = P(row.path);
        const Path base = P(row.base);
        EXPECT_EQ(&path, &path.resolve(base, row.rooted));
        EXPECT_EQ(row.expected, show(path)) << row.path << " and " << row.base << ": " << row.from;
        EXPECT_EQ(row.base, show(base));
    }
}

TEST(UriPathChange, ResolveFollowsTheExamplesOfRfc3986Section54) {
    const struct {
        const char *reference, *expected;
    } rows[] = {
        {"g", "/b/c/g"},          {"./g", "/b/c/g"},     {"g/", "/b/c/g/"},    {"/g", "/g"},
        {"", "/b/c/d;p"},         {";x", "/b/c/;x"},     {"g;x", "/b/c/g;x"},  {".", "/b/c/"},
        {"./", "/b/c/"},          {"..", "/b/"},         {"../", "/b/"},       {"../g", "/b/g"},
        {"../..", "/"},           {"../../", "/"},       {"../../g", "/g"},    {"../../../g", "/g"},
        {"../../../../g", "/g"},  {"/./g", "/g"},        {"/../g", "/g"},      {"g.", "/b/c/g."},
        {".g", "/b/c/.g"},        {"g..", "/b/c/g.."},   {"..g", "/b/c/..g"},  {"./../g", "/b/g"},
        {"./g/.", "/b/c/g/"},     {"g/./h", "/b/c/g/h"}, {"g/../h", "/b/c/h"}, {"g;x=1/./y", "/b/c/g;x=1/y"},
        {"g;x=1/../y", "/b/c/y"},
    };
    for (const auto& row : rows) {
        Path path = Path::fromEscapedURIPath(row.reference);
        EXPECT_EQ(row.expected, path.resolve(Path::fromEscapedURIPath("/b/c/d;p"), true).toEscapedURIPath())
            << row.reference;
    }
}

TEST(UriPathChange, MakeRelativeGoesUpToTheSharedDirectory) {
    const struct {
        const char *path, *base, *expected, *from;
    } rows[] = {
        {"<a><b>", "/<a>", "<a><b>", "nothing happens unless both are absolute"},
        {"/<a><b>", "<a>", "/<a><b>", "nothing happens unless both are absolute"},
        {"<a><b>", "<a>", "<a><b>", "nothing happens unless both are absolute"},
        {"/<a><b><c>", "/<a><b>", "<b><c>", "the base's last segment names a resource"},
        {"/<a><b>", "/<a><b>", "<b>", "the base itself"},
        {"/<a><b><c>", "/<a><b>/", "<c>", "below a directory"},
        {"/<a>", "/<a><b>/", "<..>", "above a directory"},
        {"/<a><x>", "/<a><b><c>", "<..><x>", "beside a directory"},
        {"/<a><b>/", "/<a><b>", "<b>/", "the slash stays"},
        {"/<a><b>/", "/<a><b>/", "-/", "the directory itself"},
        {"/<a><b>", "/<a><b>/", "-", "the directory without its slash"},
        {"/<a>", "/<a><b><c>", "<..>", "above the base's directory"},
        {"/<a>/", "/<a><b>/", "<..>/", "the slash stays"},
        {"/<x>", "/<a><b><c>", "<..><..><x>", "nothing shared"},
        {"/<a><b>", "/<A><b>", "<..><a><b>", "compared as exact bytes"},
        {"/<a><b><c><d>", "/<a><x><y><z>", "<..><..><b><c><d>", "only leading segments"},
        {"/<a><x><c>", "/<a><y><c>/", "<..><..><x><c>", "only leading segments"},
        {"/<a>", "/-/", "<a>", "the root"},
        {"/<a>", "/-", "<a>", "the root"},
        {"/<a>/", "/-", "<a>/", "the root"},
        {"/-/", "/<a>", "-/", "up to the root"},
        {"/-/", "/<a>/", "<..>/", "up to the root"},
        {"/-/", "/<a><b>/", "<..><..>/", "up to the root"},
        {"/-", "/<a><b>", "<..>", "up to the root"},
        {"/-/", "/-/", "-/", "from root to root"},
        {"/-", "/-", "-", "from root to root"},
        {"/<><a>", "/<><b>", "<a>", "empty segments are ordinary ones"},
    };
    for (const auto& row : rows) {
        Path path = P(row.path);
        const Path base = P(row.base);
        EXPECT_EQ(&path, &path.makeRelative(base));
        EXPECT_EQ(row.expected, show(path)) << row.path << " and " << row.base << ": " << row.from;
        EXPECT_EQ(row.base, show(base));
    }
}

// ---- A path and itself: the argument may be the path that changes, or a part of it ----

TEST(UriPathSelf, CountsAsAnyOther) {
    const std::string longSegment(40, 'b');
    const auto path = [&] { return P("/<a><" + longSegment + "><c>"); };
    const std::string middle = "<" + longSegment + ">";

    Path appended = path();
    EXPECT_EQ("/<a>" + middle + "<c><a>" + middle + "<c>", show(appended.append(appended)));
    Path segment = path();
    EXPECT_EQ("/<a>" + middle + "<c>" + middle, show(segment.append(std::as_const(segment).segments[1])));
    Path suffixed = path();
    EXPECT_EQ("/<a>" + middle + "<cc>", show(suffixed.addSuffix(suffixed.lastSegmentName())));
    Path suffixedBehindSlash = P("/<" + longSegment + ">/");
    EXPECT_EQ("/" + middle + middle + "/", show(suffixedBehindSlash.addSuffix(suffixedBehindSlash.lastSegmentName())));
    Path rootless = path();
    EXPECT_TRUE(rootless.removeRoot(rootless));
    EXPECT_EQ("-/", show(rootless));
    Path relative = path();
    EXPECT_EQ("<c>", show(relative.makeRelative(relative)));
    Path directory = P("/<a><b>/");
    EXPECT_EQ("-/", show(directory.makeRelative(directory)));
    Path resolved = P("<a><" + longSegment + ">");
    EXPECT_EQ("<a><a>" + middle, show(resolved.resolve(resolved, false)));
    Path resolvedDirectory = P("<a><b>/");
    EXPECT_EQ("<a><b><a><b>/", show(resolvedDirectory.resolve(resolvedDirectory, false)));
    Path empty;
    EXPECT_EQ("-", show(empty.resolve(empty, false)));
    const Path constant = path();
    EXPECT_EQ(show(constant), show(Path::commonBase(constant, constant)));
    EXPECT_TRUE(constant.beginsWith(constant));
    EXPECT_EQ(0, constant.compare(constant));
}

// ---- Random paths and texts ----

const int CASES = rounds(100000);

class Source {
public:
    explicit Source(unsigned seed) : m_random(seed) {}

    size_t below(size_t limit) { return m_random() % limit; }
    bool coin() { return below(2) == 1; }

    // text makes escaped or plain text; most are longer than a string's inner buffer.
    std::string text() {
        static const std::vector<std::string> PIECES = {
            "/", "/",   "[[",  "]]",  "[",   "]",   "%",   "%41", "%2F", "%00", "%zz", "?", "#", "a",
            "b", "/..", "/./", "../", "%2e", "[[/", "[[?", "]]/", "[[%", "//",  "%5B", " ", "&", "+"};
        std::string result(below(2) * 16, 'x');
        for (size_t pieces = below(12); pieces > 0; --pieces)
            result += below(8) == 0 ? oneByte(static_cast<int>(below(256))) : PIECES[below(PIECES.size())];
        return std::string(result.data(), result.size());
    }

    // path makes a path of any segments, plain makes one of few names, so that two often share some.
    Path path() {
        static const std::vector<std::string> SEGMENTS = {
            "",    ".",   "..",  "a",       "b",      "a/b",           "/",     "%",
            "%41", "[[",  "]]",  "[[a/b]]", "[[?]]x", "x[[%zz]][[#]]", "a\0b"s, "\xff\xfe",
            "?#",  "[[[", "]]]", "a b+c",   "...",    "\x01\x7f"};
        return make(SEGMENTS);
    }
    Path plain() {
        static const std::vector<std::string> SEGMENTS = {"a", "b", "a", "aa", ""};
        return make(SEGMENTS);
    }
    Path dotted() {
        static const std::vector<std::string> SEGMENTS = {"a", "b", ".", "..", "..", "", "..."};
        return make(SEGMENTS);
    }

private:
    Path make(const std::vector<std::string>& segments) {
        Path path;
        path.absolute = coin();
        path.trailingSlash = coin();
        for (size_t count = below(7); count > 0; --count)
            path.segments.push_back(segments[below(segments.size())]);
        return path;
    }

    std::mt19937 m_random;
};

// isWhatParsingGives returns whether the path's text parses to this path: an empty segment must not look like the root
// or a trailing slash, and a path without segments is "" or "/".
bool isWhatParsingGives(const Path& path) {
    if (path.segments.empty())
        return path.absolute == path.trailingSlash;
    return (path.absolute || !path.segments.front().empty()) && (path.trailingSlash || !path.segments.back().empty());
}

TEST(UriPathProperty, PrintedPathParsesToItself) {
    Source source(60501);
    for (int i = 0; i < CASES; ++i) {
        Path path = source.path();
        while (!isWhatParsingGives(path))
            path = source.path();
        for (const std::string& text : {path.toEscapedURIPath(), path.toEscapedURIPath(false, true),
                                        path.toCanonicalURIPath(), path.toUserURIPath()}) {
            const ParsedPath parsed = parse(text);
            ASSERT_EQ(text.size(), parsed.end) << text;
            ASSERT_EQ(show(path), show(parsed.path)) << text;
            ASSERT_TRUE(same(path, Path::fromEscapedURIPath(text))) << text;
        }
        const std::string text = path.toEscapedURIPath(true, source.coin());
        const ParsedPath parsed = parse(text, true);
        ASSERT_EQ(text.size(), parsed.end) << text;
        ASSERT_EQ(show(path), show(parsed.path)) << text;
    }
}

TEST(UriPathProperty, FileNameAndTextAreTheSame) {
    Source source(60502);
    for (int i = 0; i < CASES; ++i) {
        const Path path = source.path();
        std::string expected = path.absolute ? "/" : path.segments.empty() && path.trailingSlash ? "./" : "";
        for (const std::string& segment : path.segments)
            expected += segment + "/";
        if (!path.segments.empty() && !path.trailingSlash)
            expected.pop_back();
        ASSERT_EQ(expected, path.toString());
        ASSERT_EQ(expected, path.toFileName());
    }
}

TEST(UriPathProperty, RemovingDotSegmentsFollowsItsStepsAndIsStable) {
    Source source(60503);
    for (int i = 0; i < CASES; ++i) {
        const Path path = source.dotted();
        for (bool rooted : {false, true}) {
            Path once = path;
            once.removeDotSegments(rooted);
            ASSERT_EQ(show(removeDotsSlowly(path, rooted)), show(once)) << show(path) << " " << rooted;
            Path twice = once;
            ASSERT_EQ(show(once), show(twice.removeDotSegments(rooted))) << show(path) << " " << rooted;
            ASSERT_FALSE(once.contains("."));
            ASSERT_FALSE(rooted && once.contains(".."));
        }
    }
}

TEST(UriPathProperty, FileNameFollowsItsStepsAndPrintsStable) {
    Source source(60504);
    for (int i = 0; i < CASES; ++i) {
        const std::string name = source.text();
        const Path path = Path::fromFileName(name);
        ASSERT_EQ(show(fileNameSlowly(name)), show(path)) << name;
        ASSERT_TRUE(same(path, Path::fromString(name))) << name;
        ASSERT_EQ(path.toFileName(), Path::fromFileName(path.toFileName()).toFileName()) << name;
    }
}

TEST(UriPathProperty, ParserFollowsItsSteps) {
    Source source(60505);
    int failed = 0;
    for (int i = 0; i < 2 * CASES; ++i) {
        const std::string text = source.text().c_str();
        const bool skip = source.coin();
        const ParsedPath expected = parseSlowly(text, skip), parsed = parse(text, skip);
        ASSERT_EQ(expected.end, parsed.end) << text << " " << skip;
        if (parsed.end != NO_POSITION) {
            ASSERT_EQ(show(expected.path), show(parsed.path)) << text << " " << skip;
        }
        failed += parsed.end == NO_POSITION;
        if (!skip) {
            ASSERT_EQ(show(expected.path), show(Path::fromEscapedURIPath(text))) << text;
        }
    }
    EXPECT_LT(CASES / 10, failed);
    EXPECT_GT(2 * CASES - CASES / 10, failed);
}

TEST(UriPathProperty, CompareIsAnOrder) {
    Source source(60506);
    const auto sign = [](int value) { return (value > 0) - (value < 0); };
    for (int i = 0; i < CASES; ++i) {
        const Path a = source.plain(), b = source.coin() ? source.plain() : source.path(), c = source.plain();
        ASSERT_EQ(sign(a.compare(b)), -sign(b.compare(a))) << show(a) << " and " << show(b);
        ASSERT_EQ(same(a, b), a.compare(b) == 0) << show(a) << " and " << show(b);
        ASSERT_EQ(0, b.compare(Path(b)));
        if (a.compare(b) <= 0 && b.compare(c) <= 0) {
            ASSERT_LE(a.compare(c), 0) << show(a) << ", " << show(b) << " and " << show(c);
        }
        if (a.compare(b) < 0 && b.compare(c) < 0) {
            ASSERT_LT(a.compare(c), 0) << show(a) << ", " << show(b) << " and " << show(c);
        }
    }
}

// A path without trailing slash that names the base's directory or one above it has nothing that could tell it from
// that directory; all others come back.
TEST(UriPathProperty, ResolveTakesMakeRelativeBack) {
    Source source(60507);
    int checked = 0;
    for (int i = 0; i < CASES; ++i) {
        Path path = source.plain(), base = source.plain();
        path.absolute = base.absolute = true;
        Path directory = base;
        if (!base.trailingSlash && !base.segments.empty())
            directory.segments.pop_back();
        const bool bNamesDirectory = path.segments.size() <= directory.segments.size() &&
                                     std::equal(path.segments.begin(), path.segments.end(), directory.segments.begin());
        Path relative = path;
        relative.makeRelative(base);
        ASSERT_FALSE(relative.absolute);
        ASSERT_EQ(path.trailingSlash, relative.trailingSlash);
        if (bNamesDirectory && !path.trailingSlash)
            continue;
        ++checked;
        for (bool rooted : {false, true}) {
            Path resolved = relative;
            ASSERT_EQ(show(path), show(resolved.resolve(base, rooted)))
                << show(path) << " and " << show(base) << " by " << show(relative);
        }
    }
    EXPECT_LT(CASES / 2, checked);
}

TEST(UriPathProperty, CutPathsJoinToTheWhole) {
    Source source(60508);
    for (int i = 0; i < CASES; ++i) {
        const Path path = source.path();
        const auto cut = static_cast<unsigned>(source.below(path.segments.size() + 1));
        ASSERT_EQ(show(path), show(path.subPath(0, cut).append(path.subPath(cut, static_cast<unsigned>(-1)))));
        ASSERT_EQ(show(path), show(path.resourceDir().append(path.resourceName())));
        const Path root = path.subPath(0, cut);
        ASSERT_TRUE(path.beginsWith(root));
        Path below = path;
        ASSERT_TRUE(below.removeRoot(root));
        ASSERT_FALSE(below.absolute);
        ASSERT_EQ(path.segments, root.slash(below).segments);
        Path missed = path;
        ASSERT_FALSE(missed.removeRoot(path.slash("x"s)));
        ASSERT_EQ(show(path), show(missed));
    }
}

TEST(UriPathProperty, CommonBaseIsSharedByBothAndNothingMoreIs) {
    Source source(60509);
    for (int i = 0; i < CASES; ++i) {
        Path a = source.plain(), b = source.plain();
        b.absolute = a.absolute;
        const Path base = Path::commonBase(a, b), mirrored = Path::commonBase(b, a);
        ASSERT_EQ(show(base), show(mirrored)) << show(a) << " and " << show(b);
        Path belowA = a, belowB = b;
        ASSERT_TRUE(belowA.removeRoot(base) && belowB.removeRoot(base)) << show(a) << " and " << show(b);
        ASSERT_TRUE(belowA.segments.empty() || belowB.segments.empty() || belowA.segments[0] != belowB.segments[0]);
        ASSERT_EQ(a.trailingSlash || b.trailingSlash || a.segments != b.segments, base.trailingSlash);
    }
}

// ---- Long text: what takes time with the square of the length doesn't come back within the test's limit ----

std::string repeated(const std::string& piece, size_t size = 1000000) {
    std::string text;
    while (text.size() < size)
        text += piece;
    return text;
}

class UriPathLongText : public testing::TestWithParam<std::string> {};

TEST_P(UriPathLongText, ParsingTakesLinearTime) {
    for (const std::string& text :
         {repeated(GetParam()), "[[a]]" + repeated(GetParam()), repeated(GetParam()) + "]]"}) {
        const ParsedPath parsed = parse(text);
        EXPECT_EQ(parsed.end == NO_POSITION, text.find('%') < text.find_first_of("?#"));
        const ParsedPath skipping = parse(text, true);
        EXPECT_LE(skipping.end == NO_POSITION ? 0 : skipping.end, text.size());
        EXPECT_GE(text.size() + 1, skipping.path.toEscapedURIPath(true).size() / 3);
        EXPECT_GE(text.size() + 1, skipping.path.toUserURIPath(true).size() / 3);
    }
}

TEST_P(UriPathLongText, FileNamesTakeLinearTime) {
    const std::string text = repeated(GetParam());
    const std::string printed = Path::fromFileName(text).toFileName();
    EXPECT_EQ(printed, Path::fromFileName(printed).toFileName());
}

INSTANTIATE_TEST_SUITE_P(Pieces, UriPathLongText,
                         testing::Values("[[", "%", "[[x]]", "[[/", "[[x]]/", "[[/]]", "[[?]]", "[[?]]/", "[[?/",
                                         "/[[?]]", "/", "a/", "[[a]]b[[/]]", "]]", "]]/", "[", "./", "../", "a/../",
                                         "a/b/../", "[[%]]"));

TEST(UriPathLongPath, ChangesTakeLinearTime) {
    Path down, up;
    for (int i = 0; i < 300000; ++i) {
        down.append("a", true);
        up.append("..", true);
    }
    down.absolute = true;
    EXPECT_EQ("/-/", show(down.slash(up).removeDotSegments(false)));
    EXPECT_EQ("/-/", show(down.slash(up).removeDotSegments(true)));
    Path resolved = up;
    EXPECT_EQ("/-/", show(resolved.resolve(down, true)));
    Path relative = P("/<b>");
    EXPECT_EQ(down.segments.size() + 1, relative.makeRelative(down).segments.size());
    Path below = down;
    EXPECT_TRUE(below.removeRoot(down));
    EXPECT_EQ("-/", show(below));
    EXPECT_EQ(0, down.compare(Path::commonBase(down, down)));
    EXPECT_TRUE(down.beginsWith(down));
}

// ---- The end of the text, in a block that ends with it ----

TEST(UriPathBounds, ParserReadsNothingAfterTheTerminator) {
    for (const std::string front : {"", "a", "/", "[[x]]"})
        for (const std::string end : {"", "%", "%4", "[", "[[", "[[]", "]", "]]", "[[a]", "[[%", "[[]]", "/", "?",
                                      "[[?", "[[/", "[[?]", "[[?]]", "[[/]]", "[[#]]?"})
            for (bool skip : {false, true}) {
                const std::string text = front + end;
                const ParsedPath expected = parseSlowly(text, skip), parsed = parse(text, skip);
                EXPECT_EQ(expected.end, parsed.end) << text;
                if (parsed.end != NO_POSITION) {
                    EXPECT_EQ(show(expected.path), show(parsed.path)) << text;
                }
            }
}

}  // namespace
