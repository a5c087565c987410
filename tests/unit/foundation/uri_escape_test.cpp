// uri_escape_test.cpp: escaping and query strings of foundation/uri.h. Tables come first; then random text is held
// against slow models that follow the rules one step after the other, and against what the transforms promise together.

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "foundation/uri.h"
#include "unit/exact_buffer.h"
#include "unit/foundation/uri_escape_model.h"
#include "unit/rounds.h"

namespace {

using namespace std::string_literals;

// ---- The character sets in use ----

const std::string NO_SET;
const std::string PATH_KEEP = "!$&'()*,;=:";
const std::string RTSP_PATH_KEEP = "!$&'()*,;=:+";
const std::string MEDIA_TYPE_KEEP = "!$&'()*+=;:@/[]\"";
const std::string PATH_USER_ESCAPE = "/?#";
const std::string USER_INFO_USER_KEEP = "@:/?#[]";
const std::string QUERY_USER_KEEP = "&=#";
const std::string FRAGMENT_USER_KEEP = "#";

const NormalSets USER_INFO_SETS = {"!$&'()*+;=", ":,"};
const NormalSets QUERY_SETS = {"", "+;&=[]"};
const NormalSets FRAGMENT_SETS = {"!$&'()*+,;=:/?@", "[]"};
const NormalSets CANONICAL_SETS = {"", ""};

const std::vector<std::string> KEEP_SETS = {NO_SET, PATH_KEEP, RTSP_PATH_KEEP, MEDIA_TYPE_KEEP};
const std::vector<std::string> USER_KEEP_SETS = {NO_SET, USER_INFO_USER_KEEP, QUERY_USER_KEEP, FRAGMENT_USER_KEEP};
const std::vector<std::string> USER_ESCAPE_SETS = {NO_SET, PATH_USER_ESCAPE, "#%&/:=?@[]", " a~\x7f\x80\xff"};
const std::vector<NormalSets> NORMAL_SETS = {USER_INFO_SETS, QUERY_SETS, FRAGMENT_SETS, CANONICAL_SETS};

// ---- What is asked of the code ----

URI withQuery(const std::string& query) {
    URI uri;
    uri.query = query;
    return uri;
}

URI::Query split(const std::string& text, bool skipPatterns = false) {
    URI::Query items = {{"left", "over"}};  // must not be seen again
    URI::splitQueryString(text, items, skipPatterns);
    return items;
}

// positionIn runs the form for terminated text on a block that ends with the terminator.
size_t positionIn(const std::string& text, char character) {
    const ExactBuffer<char> buffer(text, true);
    const char* found = URI::findSkipPattern(buffer.data(), character);
    return found == nullptr ? NO_POSITION : static_cast<size_t>(found - buffer.data());
}

std::string oneByte(int byte) {
    return std::string(1, static_cast<char>(byte));
}

// ---- escapeURIComponent ----

TEST(UriEscape, KeepsUnreservedBytesAndTheKeepSetAndEscapesAllOthers) {
    for (const std::string& keepSet : KEEP_SETS)
        for (int byte = 0; byte < 256; ++byte) {
            const std::string raw = oneByte(byte);
            const std::string expected = isUnreserved(raw[0]) || holds(keepSet, raw[0]) ? raw : escaped(raw[0]);
            EXPECT_EQ(expected, URI::escapeURIComponent(raw, keepSet)) << byte << " with " << keepSet;
            EXPECT_EQ("x" + expected + "y", URI::escapeURIComponent("x" + raw + "y", keepSet)) << byte;
        }
}

TEST(UriEscape, UnreservedIsExactlyLettersDigitsAndFourMore) {
    const std::string unreserved = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~";
    EXPECT_EQ(unreserved, URI::escapeURIComponent(unreserved, NO_SET));
    int kept = 0;
    for (int byte = 0; byte < 256; ++byte)
        kept += URI::escapeURIComponent(oneByte(byte), NO_SET).size() == 1;
    EXPECT_EQ(66, kept);
}

TEST(UriEscape, EscapesAllButTheKeepSetAndRegions) {
    const struct {
        std::string text, keepSet;
        bool skipPatterns;
        std::string expected;
        const char* from;
    } rows[] = {
        {"", "", false, "", "nothing"},
        {"a b/c", PATH_KEEP, false, "a%20b%2Fc", "a path segment"},
        {"\xff", "", false, "%FF", "digits are upper case"},
        {"\xab\xcd", "", false, "%AB%CD", "digits are upper case"},
        {"\xC3\xA9", PATH_KEEP, false, "%C3%A9", "a UTF-8 character is a run of bytes"},
        {"a\0b"s, "", false, "a%00b", "a control character"},
        {"\x01\x1f\x7f", "", false, "%01%1F%7F", "control characters"},
        {"%41", "", false, "%2541", "a percent sign is an ordinary byte"},
        {"%41", "%", false, "%41", "unless the keep set names it"},
        {"a \0\xff"s, " \0\xff"s, false, "a \0\xff"s, "any byte can be kept"},
        {"a+b", PATH_KEEP, false, "a%2Bb", "no plus in most schemes"},
        {"a+b", RTSP_PATH_KEEP, false, "a+b", "a plus in rtsp"},
        {"text/plain;charset=\"x\"", MEDIA_TYPE_KEEP, false, "text/plain;charset=\"x\"", "a media type"},
        {"a, b", MEDIA_TYPE_KEEP, false, "a%2C%20b", "a comma ends a media type"},
        {"[[a b]]", "", false, "%5B%5Ba%20b%5D%5D", "regions count only if asked for"},
        {"[[a b]]", "", true, "[[a b]]", "a region is copied"},
        {" [[a b]] ", "", true, "%20[[a b]]%20", "around a region"},
        {"[[ ]] [[ ]]", "", true, "[[ ]]%20[[ ]]", "every region counts"},
        {"[[ ]][[ ]]", "", true, "[[ ]][[ ]]", "regions side by side"},
        {"[[]]", "", true, "[[]]", "an empty region"},
        {"[[]", "", true, "%5B%5B%5D", "the closing is searched from two bytes on"},
        {"[[]x ]]", "", true, "[[]x ]]", "one bracket doesn't close"},
        {"x[[a b", "", true, "x%5B%5Ba%20b", "an opening without closing is no region"},
        {"x[[a]b", "", true, "x%5B%5Ba%5Db", "an opening without closing is no region"},
        {"[[ ]", "", true, "%5B%5B%20%5D", "an opening without closing is no region"},
        {"[[ ]] [[ ", "", true, "[[ ]]%20%5B%5B%20", "an opening without closing behind a region"},
        {"[[[ ]]", "", true, "[[[ ]]", "the first opening counts"},
        {"[[ [[ ]] ]]", "", true, "[[ [[ ]]%20%5D%5D", "the next closing counts"},
        {"[[ ]]]", "", true, "[[ ]]%5D", "the next closing counts"},
        {"[x[[y z]]", "", true, "%5Bx[[y z]]", "a single bracket opens nothing"},
        {"]] [[", "", true, "%5D%5D%20%5B%5B", "a closing ahead of the opening"},
        {"[[%]]%", "", true, "[[%]]%25", "a percent sign inside and outside"},
        {"[[a\0b\xff]]"s, "", true, "[[a\0b\xff]]"s, "any byte inside"},
        {"[[a ", "[", true, "[[a%20", "kept brackets"},
        {"[", "", true, "%5B", "the text ends behind a bracket"},
        {"[[", "", true, "%5B%5B", "the text ends behind an opening"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(row.expected, URI::escapeURIComponent(row.text, row.keepSet, row.skipPatterns))
            << row.text << ": " << row.from;
}

// ---- unescapeURI ----

TEST(UriUnescape, DecodesEveryByteWithDigitsOfEitherCase) {
    for (int byte = 0; byte < 256; ++byte)
        for (const std::string& text : {escaped(oneByte(byte)[0]), escapedInLowerCase(oneByte(byte)[0])}) {
            bool valid = false;
            EXPECT_EQ("x" + oneByte(byte) + "y", URI::unescapeURI("x" + text + "y", &valid)) << text;
            EXPECT_TRUE(valid) << text;
        }
}

TEST(UriUnescape, EveryPairThatIsNotHexadecimalIsCopied) {
    for (int first = 0; first < 256; ++first)
        for (int second = 0; second < 256; ++second) {
            const std::string text = "%" + oneByte(first) + oneByte(second);
            bool expectedValid;
            const std::string expected = modelUnescape(text, expectedValid, false);
            bool valid = !expectedValid;
            ASSERT_EQ(expected, URI::unescapeURI(text, &valid)) << text;
            ASSERT_EQ(expectedValid, valid) << text;
            ASSERT_EQ(expectedValid, URI::validateEscaping(text)) << text;
        }
}

TEST(UriUnescape, DecodesEscapesAndCopiesBadOnes) {
    const struct {
        std::string text;
        bool skipPatterns;
        std::string expected;
        bool valid;
        const char* from;
    } rows[] = {
        {"", false, "", true, "nothing"},
        {"abc", false, "abc", true, "no escape"},
        {"%41%7e", false, "A~", true, "two escapes"},
        {"a%20b", false, "a b", true, "an escape in the middle"},
        {"%00", false, "\0"s, true, "the byte may be a NUL"},
        {"a\0%41"s, false, "a\0A"s, true, "a NUL ends nothing"},
        {"%C3%A9", false, "\xC3\xA9", true, "a UTF-8 character"},
        {"%2541", false, "%41", true, "decoded once"},
        {"a+b%2Bc", false, "a+b+c", true, "a plus is no blank"},
        {"%%41", false, "%A", false, "the scan goes on at the next character"},
        {"%4%41", false, "%4A", false, "the scan goes on at the next character"},
        {"%%%", false, "%%%", false, "the scan goes on at the next character"},
        {"%", false, "%", false, "at the very end"},
        {"a%", false, "a%", false, "at the very end"},
        {"%4", false, "%4", false, "before one last character"},
        {"a%4", false, "a%4", false, "before one last character"},
        {"%41%4", false, "A%4", false, "a good one first"},
        {"%zz%41", false, "%zzA", false, "a bad one first: the status stays false"},
        {"%4g", false, "%4g", false, "no digit"},
        {"%g4", false, "%g4", false, "no digit"},
        {"% 41", false, "% 41", false, "no digit"},
        {"%+4%-4%0x", false, "%+4%-4%0x", false, "nothing that a number parser would take"},
        {"%\0\0"s, false, "%\0\0"s, false, "no digit"},
        {"%4\xff", false, "%4\xff", false, "no digit"},
        {"[[%41]]", false, "[[A]]", true, "regions count only if asked for"},
        {"[[%41]]", true, "[[%41]]", true, "a region is copied"},
        {"[[%zz]]", true, "[[%zz]]", true, "a bad escape in a region isn't looked at"},
        {"[[%41]]%42", true, "[[%41]]B", true, "behind a region"},
        {"%41[[%41]]", true, "A[[%41]]", true, "ahead of a region"},
        {"%[[%41]]", true, "%[[%41]]", false, "a bad one ahead of a region"},
        {"[[%41]][[%42]]", true, "[[%41]][[%42]]", true, "one region after the other is passed"},
        {"[[%41]]%42[[%43]]%44", true, "[[%41]]B[[%43]]D", true, "one region after the other is passed"},
        {"[[a]][[%41]]", true, "[[a]][[A]]", true, "only the first region ahead of an escape is looked at"},
        {"[[a]][[%zz]]", true, "[[a]][[%zz]]", false, "only the first region ahead of an escape is looked at"},
        {"[[%41]]x[[a]][[%42]]", true, "[[%41]]x[[a]][[B]]", true, "the same behind a passed region"},
        {"[[a]][[%41 %42]]", true, "[[a]][[A B]]", true, "the next search begins inside the region"},
        {"[[a]][[%41[[%42]]", true, "[[a]][[A[[%42]]", true, "the next search finds an opening of its own"},
        {"[[%41", true, "[[A", true, "an opening without closing is no region"},
        {"[[%41]", true, "[[A]", true, "an opening without closing is no region"},
        {"[%41]]", true, "[A]]", true, "a single bracket opens nothing"},
        {"%5B%5B%41]]", true, "[[A]]", true, "escaped brackets open nothing"},
        {"[[]%41]]", true, "[[]%41]]", true, "a single bracket closes nothing"},
    };
    for (const auto& row : rows) {
        bool valid = !row.valid;
        EXPECT_EQ(row.expected, URI::unescapeURI(row.text, &valid, row.skipPatterns)) << row.text << ": " << row.from;
        EXPECT_EQ(row.valid, valid) << row.text << ": " << row.from;
        EXPECT_EQ(row.expected, URI::unescapeURI(row.text, nullptr, row.skipPatterns)) << row.text << ": " << row.from;
    }
}

// ---- smartEscapeURIComponent ----

TEST(UriSmartEscape, DecidesOverControlsAndTenCharactersOnly) {
    for (const std::string& escapeSet : USER_ESCAPE_SETS)
        for (int byte = 0; byte < 256; ++byte) {
            const std::string raw = oneByte(byte);
            const bool bEscape = byte < 32 || byte == '%' || (holds("#&/:=?@[]", raw[0]) && holds(escapeSet, raw[0]));
            EXPECT_EQ(bEscape ? escaped(raw[0]) : raw, URI::smartEscapeURIComponent(raw, escapeSet))
                << byte << " with " << escapeSet;
        }
}

TEST(UriSmartEscape, EscapesControlsPercentAndTheSetOnly) {
    const struct {
        std::string text, escapeSet;
        bool skipPatterns;
        std::string expected;
        const char* from;
    } rows[] = {
        {"", "/?#", false, "", "nothing"},
        {"a b/c?d#e", "/?#", false, "a b%2Fc%3Fd%23e", "a path segment for people"},
        {"50%", "", false, "50%25", "a percent sign always"},
        {"%41", "", false, "%2541", "a percent sign always"},
        {"\x1f\x7f\x80\xC3\xA9 ", "/?#", false, "%1F\x7f\x80\xC3\xA9 ", "blank, DEL and high bytes stay"},
        {"a\nb\0c"s, "", false, "a%0Ab%00c", "control characters always"},
        {"&:=@[]", "/?#", false, "&:=@[]", "delimiters outside the set stay"},
        {"&:=@[]", "&:=@[]", false, "%26%3A%3D%40%5B%5D", "delimiters of the set"},
        {"!a~ \xff", "!a~ \xff", false, "!a~ \xff", "the set names only delimiters"},
        {"[[%/\x01]]", "/?#", false, "[[%25%2F%01]]", "regions count only if asked for"},
        {"[[%/\x01]]/", "/?#", true, "[[%/\x01]]%2F", "a region is copied"},
        {"/[[/]]/[[/]]/", "/?#", true, "%2F[[/]]%2F[[/]]%2F", "every region counts"},
        {"[[/", "/?#", true, "[[%2F", "an opening without closing is no region"},
        {"[[/]", "/?#", true, "[[%2F]", "an opening without closing is no region"},
        {"[[/]]]/", "/?#", true, "[[/]]]%2F", "the next closing counts"},
        {"[[[/]]", "/?#", true, "[[[/]]", "the first opening counts"},
        {"[[a]][", "[", true, "[[a]]%5B", "a bracket outside a region"},
        {"[[a", "[", true, "%5B%5Ba", "an opening without closing is no region"},
        {"[/]]", "/?#", true, "[%2F]]", "a single bracket opens nothing"},
        {"[", "/?#", true, "[", "the text ends behind a bracket"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(row.expected, URI::smartEscapeURIComponent(row.text, row.escapeSet, row.skipPatterns))
            << row.text << ": " << row.from;
}

// ---- smartUnescapeURIComponent ----

TEST(UriSmartUnescape, KeepsEscapesOfControlsBlankPercentAndTheSet) {
    for (const std::string& keepSet : USER_KEEP_SETS)
        for (int byte = 0; byte < 256; ++byte)
            for (const std::string& text : {escaped(oneByte(byte)[0]), escapedInLowerCase(oneByte(byte)[0])}) {
                const bool bKeep = byte < 33 || byte == 37 || holds(keepSet, oneByte(byte)[0]);
                EXPECT_EQ(bKeep ? text : oneByte(byte), URI::smartUnescapeURIComponent(text, keepSet))
                    << text << " with " << keepSet;
            }
}

TEST(UriSmartUnescape, CopiesEveryByteThatBeginsNoEscape) {
    for (int byte = 0; byte < 256; ++byte)
        EXPECT_EQ(oneByte(byte), URI::smartUnescapeURIComponent(oneByte(byte), USER_INFO_USER_KEEP)) << byte;
}

TEST(UriSmartUnescape, DecodesAllButWhatWouldReadAsSomethingElse) {
    const struct {
        std::string text, keepEscapedSet;
        bool skipPatterns;
        std::string expected;
        const char* from;
    } rows[] = {
        {"", "", false, "", "nothing"},
        {"%20%41", "", false, "%20A", "a blank stays escaped"},
        {"%2f%2F", "/", false, "%2f%2F", "kept with the case of its digits"},
        {"%2f%2F", "", false, "//", "not in the set"},
        {"%0a%0A%1f", "", false, "%0a%0A%1f", "control characters stay escaped"},
        {"%7F%80%C3%A9%ff", "", false, "\x7f\x80\xC3\xA9\xff", "DEL and high bytes come out raw"},
        {"%2541", "", false, "%2541", "a percent sign stays escaped"},
        {"%", "", false, "%", "a literal"},
        {"%4", "", false, "%4", "a literal"},
        {"%zz", "", false, "%zz", "a literal"},
        {"%%41", "", false, "%A", "a literal, and on behind it"},
        {"%4%41", "", false, "%4A", "a literal, and on behind it"},
        {"a+b c\x01", "", false, "a+b c\x01", "raw bytes stay raw"},
        {"u%40h:%3A%41", USER_INFO_USER_KEEP, false, "u%40h:%3AA", "user information for people"},
        {"a%26b=%3D%23%2F", QUERY_USER_KEEP, false, "a%26b=%3D%23/", "a query for people"},
        {"%23%3F%26", FRAGMENT_USER_KEEP, false, "%23?&", "a fragment for people"},
        {"[[%41]]", "", false, "[[A]]", "regions count only if asked for"},
        {"[[%41]]", "", true, "[[%41]]", "a region is copied"},
        {"%41[[%41]]%42[[%43]]%44", "", true, "A[[%41]]B[[%43]]D", "every region counts"},
        {"[[a]][[%41]]", "", true, "[[a]][[%41]]", "every region counts, also behind one without escape"},
        {"[[%41", "", true, "[[A", "an opening without closing is no region"},
        {"[[a]]%41[[%42", "", true, "[[a]]A[[B", "an opening without closing behind a region"},
        {"%[[41]]", "", true, "%[[41]]", "cut ahead of the region"},
        {"%4[[1]]1", "", true, "%4[[1]]1", "cut ahead of the region"},
        {"]]%41[[", "", true, "]]A[[", "a closing ahead of the opening"},
        {"[[]%41]]%42", "", true, "[[]%41]]B", "a single bracket closes nothing"},
        {"[[[%41]]", "", true, "[[[%41]]", "the first opening counts"},
        {"%5B%5B%41]]", "", true, "[[A]]", "escaped brackets open nothing"},
        {"[[%41]]%2f", "/", true, "[[%41]]%2f", "the set counts behind a region too"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(row.expected, URI::smartUnescapeURIComponent(row.text, row.keepEscapedSet, row.skipPatterns))
            << row.text << ": " << row.from;
}

// ---- normalizeURIComponent ----

TEST(UriNormalize, RawBytesStayIfUnreservedDecodedOrPreserved) {
    for (const NormalSets& sets : NORMAL_SETS)
        for (int byte = 0; byte < 256; ++byte) {
            const std::string raw = oneByte(byte);
            const bool bRaw = isUnreserved(raw[0]) || holds(sets.decode, raw[0]) || holds(sets.preserve, raw[0]);
            EXPECT_EQ(bRaw ? raw : escaped(raw[0]), URI::normalizeURIComponent(raw, sets.decode, sets.preserve))
                << byte << " with " << sets.decode << " and " << sets.preserve;
        }
}

TEST(UriNormalize, EscapesStayUnlessUnreservedOrDecoded) {
    for (const NormalSets& sets : NORMAL_SETS)
        for (int byte = 0; byte < 256; ++byte)
            for (const std::string& text : {escaped(oneByte(byte)[0]), escapedInLowerCase(oneByte(byte)[0])}) {
                const std::string raw = oneByte(byte);
                const bool bRaw = isUnreserved(raw[0]) || holds(sets.decode, raw[0]);
                EXPECT_EQ(bRaw ? raw : escaped(raw[0]), URI::normalizeURIComponent(text, sets.decode, sets.preserve))
                    << text << " with " << sets.decode << " and " << sets.preserve;
            }
}

TEST(UriNormalize, QueryEscapesDelimitersThatUrisWouldAllow) {
    EXPECT_EQ("%2F%3F%3A%40%21%24%27%28%29%2A%2C",
              URI::normalizeURIComponent("/?:@!$'()*,", QUERY_SETS.decode, QUERY_SETS.preserve));
}

TEST(UriNormalize, BringsEveryWritingIntoOneForm) {
    const struct {
        std::string text;
        NormalSets sets;
        bool skipPatterns;
        std::string expected;
        const char* from;
    } rows[] = {
        {"", CANONICAL_SETS, false, "", "nothing"},
        {"%7e%2f", CANONICAL_SETS, false, "~%2F", "unreserved is decoded, digits become upper case"},
        {"%41%62%30%2D%2E%5F", CANONICAL_SETS, false, "Ab0-._", "unreserved is decoded"},
        {"%", CANONICAL_SETS, false, "%25", "a stray percent sign is repaired"},
        {"a%4", CANONICAL_SETS, false, "a%254", "a stray percent sign is repaired"},
        {"%zz", CANONICAL_SETS, false, "%25zz", "a stray percent sign is repaired"},
        {"%%41", CANONICAL_SETS, false, "%25A", "a stray percent sign is repaired"},
        {"%4%41", CANONICAL_SETS, false, "%254A", "a stray percent sign is repaired"},
        {"%zz", {"", "%"}, false, "%zz", "a stray percent sign that is preserved"},
        {"%zz", {"%", ""}, false, "%zz", "a stray percent sign that needs no escaping"},
        {"%25", {"", "%"}, false, "%25", "an escaped percent sign that is preserved"},
        {"%25", {"%", ""}, false, "%", "an escaped percent sign that needs no escaping"},
        {"%2541", CANONICAL_SETS, false, "%2541", "decoded once"},
        {"\xC3\xA9%c3%a9", CANONICAL_SETS, false, "%C3%A9%C3%A9", "high bytes"},
        {" \x01\0"s, CANONICAL_SETS, false, "%20%01%00", "blank and control characters"},
        {":%3a,%2c", USER_INFO_SETS, false, ":%3A,%2C", "preserved: two forms are two data"},
        {"!%21", USER_INFO_SETS, false, "!!", "decoded: two forms are one"},
        {"u@h%zz", USER_INFO_SETS, false, "u%40h%25zz", "a bad escape in user information"},
        {"a+b%2bc&d=%26", QUERY_SETS, false, "a+b%2Bc&d=%26", "a query"},
        {"%5b[%5d]", QUERY_SETS, false, "%5B[%5D]", "a query's brackets"},
        {"%2f%3f[%5b]", FRAGMENT_SETS, false, "/?[%5B]", "a fragment"},
        {"a#%23", FRAGMENT_SETS, false, "a%23%23", "a fragment"},
        {"[[ %zz]]", CANONICAL_SETS, false, "%5B%5B%20%25zz%5D%5D", "regions count only if asked for"},
        {"[[ %zz%7e]]%7e", CANONICAL_SETS, true, "[[ %zz%7e]]~", "a region is copied"},
        {" [[ ]] [[ ]] ", CANONICAL_SETS, true, "%20[[ ]]%20[[ ]]%20", "every region counts"},
        {"[[a]][[ ]]", CANONICAL_SETS, true, "[[a]][[ ]]", "every region counts"},
        {"[[ %7e", CANONICAL_SETS, true, "%5B%5B%20~", "an opening without closing is no region"},
        {"[[ ]%7e", QUERY_SETS, true, "[[%20]~", "an opening without closing is no region"},
        {"[[ ]]] ", QUERY_SETS, true, "[[ ]]]%20", "the next closing counts"},
        {"[[[ ]]", CANONICAL_SETS, true, "[[[ ]]", "the first opening counts"},
        {"%5B%5B %5D%5D", {"[]", ""}, true, "[[%20]]", "escaped brackets open nothing"},
        {"[", CANONICAL_SETS, true, "%5B", "the text ends behind a bracket"},
        {"[[", CANONICAL_SETS, true, "%5B%5B", "the text ends behind an opening"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(row.expected,
                  URI::normalizeURIComponent(row.text, row.sets.decode, row.sets.preserve, row.skipPatterns))
            << row.text << ": " << row.from;
}

// ---- validateEscaping ----

TEST(UriValidateEscaping, EveryPercentOutsideRegionsNeedsTwoDigits) {
    const struct {
        std::string text;
        bool plain, skipping;
        const char* from;
    } rows[] = {
        {"", true, true, "nothing"},
        {"abc+\xff\0"s, true, true, "no percent sign"},
        {"%41", true, true, "an escape"},
        {"%aF%Fa%00", true, true, "digits of either case"},
        {"%4", false, false, "one digit"},
        {"%", false, false, "no digit"},
        {"a%41%", false, false, "a bad one behind a good one"},
        {"%zz", false, false, "no digits"},
        {"%4z", false, false, "no digits"},
        {"%z4", false, false, "no digits"},
        {"%%41", false, false, "a percent sign is no digit"},
        {"%25zz", true, true, "the scan goes on behind an escape"},
        {"%2541%", false, false, "the scan goes on behind an escape"},
        {"[[%4]]", false, true, "a region is passed over"},
        {"[[%]]%41[[%zz]]", false, true, "one region after the other"},
        {"[[%]]%zz", false, false, "behind a region"},
        {"%zz[[%]]", false, false, "ahead of a region"},
        {"[[a]][[%zz]]", false, false, "only the first region ahead of an escape is looked at"},
        {"[[%zz", false, false, "an opening without closing is no region"},
        {"[[%zz]", false, false, "an opening without closing is no region"},
        {"[%zz]]", false, false, "a single bracket opens nothing"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.plain, URI::validateEscaping(row.text)) << row.text << ": " << row.from;
        EXPECT_EQ(row.skipping, URI::validateEscaping(row.text, true)) << row.text << ": " << row.from;
    }
}

// ---- findSkipPattern ----

TEST(UriFindSkipPattern, FindsTheFirstOutsideRegions) {
    const struct {
        std::string text;
        char character;
        size_t start, expected;
        const char* from;
    } rows[] = {
        {"", 'b', 0, NO_POSITION, "nothing"},
        {"abc", 'x', 0, NO_POSITION, "absent"},
        {"abcb", 'b', 0, 1, "the first"},
        {"abcb", 'b', 1, 1, "at the start position"},
        {"abcb", 'b', 2, 3, "from the start position"},
        {"abc", 'b', 2, NO_POSITION, "from the start position"},
        {"abc", 'b', 3, NO_POSITION, "start at the end"},
        {"abc", 'b', 4, NO_POSITION, "start behind the end"},
        {"abc", 'b', NO_POSITION, NO_POSITION, "start behind the end"},
        {"a[[b]]", 'a', 0, 0, "ahead of a region"},
        {"[[b]]", 'b', 0, NO_POSITION, "in a region"},
        {"[[b]]b", 'b', 0, 5, "behind a region"},
        {"[[a]]b[[b]]", 'b', 0, 5, "between regions"},
        {"[[b]][[b]]", 'b', 0, NO_POSITION, "in two regions"},
        {"[[b]][[b]]b", 'b', 0, 10, "behind two regions"},
        {"[[b]]b[[b]]b", 'b', 6, 11, "from the start position"},
        {"[[a]][[b]]", 'b', 0, 7, "only the first region ahead of it is looked at"},
        {"[[]]x[[b]]", 'b', 0, 7, "only the first region ahead of it is looked at"},
        {"[[b]]x[[a]][[b]]", 'b', 0, 13, "the same behind a region that was passed"},
        {"[[b", 'b', 0, 2, "an opening without closing is no region"},
        {"[[b]b", 'b', 0, 2, "an opening without closing is no region"},
        {"[[b]]x[[b", 'b', 0, 8, "an opening without closing is no region"},
        {"[[]b]]", 'b', 0, NO_POSITION, "a single bracket closes nothing"},
        {"[b]]", 'b', 0, 1, "a single bracket opens nothing"},
        {"[[[b]]", 'b', 0, NO_POSITION, "the first opening counts"},
        {"[[b]]]b", 'b', 0, 6, "the next closing counts"},
        {"[[b]]", 'b', 2, 2, "the start position is behind the opening"},
        {"[[b]]", 'b', 1, 2, "the start position is behind the opening"},
        {"[[[b]]", 'b', 1, NO_POSITION, "an opening at the start position"},
        {"[[a]]", '[', 0, 0, "an opening that is the character found"},
        {"a[[b]]", '[', 0, 1, "an opening that is the character found"},
        {"[[[a]]", '[', 0, 0, "an opening that is the character found"},
        {"[[a]]", ']', 0, NO_POSITION, "a closing belongs to its region"},
        {"[[a]]]", ']', 0, 5, "a closing belongs to its region"},
        {"\xff[[\xfe]]\xfe", '\xfe', 0, 6, "high bytes"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.expected, URI::findSkipPattern(row.text, row.character, row.start))
            << row.text << ": " << row.from;
        if (row.start == 0) {
            EXPECT_EQ(row.expected, positionIn(row.text, row.character)) << row.text << ": " << row.from;
        }
    }
}

TEST(UriFindSkipPattern, NulIsAnOrdinaryByteOfAString) {
    EXPECT_EQ(5u, URI::findSkipPattern("[[\0]]\0"s, '\0'));
    EXPECT_EQ(1u, URI::findSkipPattern("\0b"s, 'b'));
    EXPECT_EQ(NO_POSITION, URI::findSkipPattern("abc"s, '\0'));
}

TEST(UriFindSkipPattern, TerminatedTextEndsAtTheNul) {
    EXPECT_EQ(NO_POSITION, positionIn("a\0b"s, 'b'));
    EXPECT_EQ(2u, positionIn("[[b\0]]"s, 'b'));
}

// ---- splitQueryString ----

TEST(UriSplitQuery, EveryItemCountsAndTheLastDuplicateWins) {
    const struct {
        std::string text;
        bool skipPatterns;
        URI::Query expected;
        const char* from;
    } rows[] = {
        {"", false, {{"", ""}}, "the empty text is an item"},
        {"a=1&b=2", false, {{"a", "1"}, {"b", "2"}}, "two items"},
        {"a=1", false, {{"a", "1"}}, "one item"},
        {"a", false, {{"a", ""}}, "a key only"},
        {"a&b=1", false, {{"a", ""}, {"b", "1"}}, "a key only: the next item's value isn't taken"},
        {"a=", false, {{"a", ""}}, "an empty value"},
        {"=", false, {{"", ""}}, "an empty key"},
        {"=x&b", false, {{"", "x"}, {"b", ""}}, "an empty key is kept"},
        {"a=1&a=2", false, {{"a", "2"}}, "the later duplicate"},
        {"a=1&a", false, {{"a", ""}}, "the later duplicate"},
        {"%61=1&a=2", false, {{"a", "2"}}, "the later duplicate, decoded"},
        {"a&&b", false, {{"", ""}, {"a", ""}, {"b", ""}}, "a doubled ampersand"},
        {"a=1&", false, {{"", ""}, {"a", "1"}}, "a trailing ampersand"},
        {"&a=1", false, {{"", ""}, {"a", "1"}}, "a leading ampersand"},
        {"&", false, {{"", ""}}, "only an ampersand"},
        {"=x&", false, {{"", ""}}, "a trailing ampersand replaces too"},
        {"a=b=c", false, {{"a", "b=c"}}, "cut at the first"},
        {"a==", false, {{"a", "="}}, "cut at the first"},
        {"a%3Db=%26%00", false, {{"a=b", "&\0"s}}, "decoded after the cut"},
        {"+=a+b", false, {{"+", "a+b"}}, "a plus is no blank"},
        {"%zz=%", false, {{"%zz", "%"}}, "a bad escape is copied"},
        {"a=\0b"s, false, {{"a", "\0b"s}}, "any byte"},
        {"a=[[x&y=z]]&b=1", false, {{"a", "[[x"}, {"b", "1"}, {"y", "z]]"}}, "regions count only if asked for"},
        {"a=[[x&y=z]]&b=1", true, {{"a", "[[x&y=z]]"}, {"b", "1"}}, "a region in a value"},
        {"[[k=v]]=1", true, {{"[[k=v]]", "1"}}, "a region in a key"},
        {"[[k&v]]", true, {{"[[k&v]]", ""}}, "a region in a key"},
        {"a=[[%41]]", true, {{"a", "[[A]]"}}, "decoded without regard to regions"},
        {"[[%41]]=1", true, {{"[[A]]", "1"}}, "decoded without regard to regions"},
        {"a=[[x&b=1", true, {{"a", "[[x"}, {"b", "1"}}, "an opening without closing is no region"},
        {"[[a]]=[[b&c]]", true, {{"[[a]]", "[[b"}, {"c]]", ""}}, "only the first region is looked at"},
        {"a=[[1&2]]&b=[[3&4]]", true, {{"a", "[[1&2]]"}, {"b", "[[3&4]]"}}, "every item begins a search"},
        {"", true, {{"", ""}}, "the empty text is an item"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(row.expected, split(row.text, row.skipPatterns)) << row.text << ": " << row.from;
}

// ---- queryString and queryStringCanonical ----

TEST(UriQueryString, ItemsWithoutAKeyAreSkippedAndTheFirstDuplicateWins) {
    const struct {
        std::string query;
        URI::Query decoded, canonical;
        const char* from;
    } rows[] = {
        {"", {}, {}, "an empty query is an empty map"},
        {"a=1&b=2", {{"a", "1"}, {"b", "2"}}, {{"a", "1"}, {"b", "2"}}, "two items"},
        {"a", {{"a", ""}}, {{"a", ""}}, "a key only"},
        {"a=", {{"a", ""}}, {{"a", ""}}, "a sign as last character"},
        {"a&b=1", {{"a", ""}, {"b", "1"}}, {{"a", ""}, {"b", "1"}}, "a key only, then another item"},
        {"a=&b", {{"a", ""}, {"b", ""}}, {{"a", ""}, {"b", ""}}, "empty values"},
        {"a=1&a=2", {{"a", "1"}}, {{"a", "1"}}, "the first duplicate"},
        {"a&a=2", {{"a", ""}}, {{"a", ""}}, "the first duplicate, without value"},
        {"%61=1&a=2", {{"a", "1"}}, {{"a", "1"}}, "the first duplicate, decoded"},
        {"%2f=1&%2F=2", {{"/", "1"}}, {{"%2F", "1"}}, "the first duplicate, in normal form"},
        {"=x&b", {{"b", ""}}, {{"b", ""}}, "an item without a key is skipped"},
        {"=", {}, {}, "an item without a key is skipped"},
        {"==x", {}, {}, "an item without a key is skipped"},
        {"&", {}, {}, "an empty item is skipped"},
        {"&&a=1&&", {{"a", "1"}}, {{"a", "1"}}, "empty items are skipped"},
        {"a=b=c", {{"a", "b=c"}}, {{"a", "b%3Dc"}}, "cut at the first"},
        {"a==", {{"a", "="}}, {{"a", "%3D"}}, "cut at the first"},
        {"a%3db=%26", {{"a=b", "&"}}, {{"a%3Db", "%26"}}, "escapes"},
        {"%7e=%2f+\xC3\xA9", {{"~", "/+\xC3\xA9"}}, {{"~", "%2F%2B%C3%A9"}}, "both sets are empty"},
        {"a=%zz", {{"a", "%zz"}}, {{"a", "%25zz"}}, "a bad escape"},
        {"a=%00", {{"a", "\0"s}}, {{"a", "%00"}}, "a NUL"},
        {"a=[[%41 ]]", {{"a", "[[A ]]"}}, {{"a", "%5B%5BA%20%5D%5D"}}, "no regions"},
        {"[[a&b]]", {{"[[a", ""}, {"b]]", ""}}, {{"%5B%5Ba", ""}, {"b%5D%5D", ""}}, "no regions"},
    };
    for (const auto& row : rows) {
        const URI uri = withQuery(row.query);
        EXPECT_EQ(row.decoded, uri.queryString()) << row.query << ": " << row.from;
        EXPECT_EQ(row.canonical, uri.queryStringCanonical()) << row.query << ": " << row.from;
        EXPECT_EQ(row.query, uri.query);
    }
}

TEST(UriQueryString, FirstDuplicateWinsWhereTheTolerantSplitTakesTheLast) {
    EXPECT_EQ((URI::Query{{"a", "1"}}), withQuery("a=1&a=2").queryString());
    EXPECT_EQ((URI::Query{{"a", "2"}}), split("a=1&a=2"));
}

TEST(UriQueryString, ItemWithoutKeyIsSkippedWhereTheTolerantSplitKeepsIt) {
    EXPECT_EQ((URI::Query{{"b", ""}}), withQuery("=x&b").queryString());
    EXPECT_EQ((URI::Query{{"", "x"}, {"b", ""}}), split("=x&b"));
}

// ---- makeQueryString and setQuery ----

TEST(UriMakeQuery, WritesItemsInTheOrderOfTheirKeys) {
    const struct {
        URI::Query items;
        bool skipPatterns;
        std::string expected;
        const char* from;
    } rows[] = {
        {{}, false, "", "an empty map"},
        {{{"a", "1"}}, false, "a=1", "one entry"},
        {{{"b", "2"}, {"a", "1"}}, false, "a=1&b=2", "in the order of the keys"},
        {{{"a", ""}, {"A", ""}, {"\xC3\xA9", ""}, {"aa", ""}}, false, "A=&a=&aa=&%C3%A9=", "bytewise order"},
        {{{"a", ""}}, false, "a=", "an empty value"},
        {{{"", ""}}, false, "=", "an empty key"},
        {{{"", "x"}}, false, "=x", "an empty key"},
        {{{"a b", "c/d"}}, false, "a%20b=c%2Fd", "key and value are escaped"},
        {{{"+&=", "!$&'()*,;=:+"}}, false, "%2B%26%3D=%21%24%26%27%28%29%2A%2C%3B%3D%3A%2B", "the keep set is empty"},
        {{{"a", "%41"}}, false, "a=%2541", "taken as raw text"},
        {{{"\0"s, "\xff"}}, false, "%00=%FF", "any byte"},
        {{{"k", "[[a b]]"}}, false, "k=%5B%5Ba%20b%5D%5D", "regions count only if asked for"},
        {{{"k", "[[a b]] [x]"}}, true, "k=[[a b]]%20%5Bx%5D", "a region inside a value"},
        {{{"[[a b]]", ""}}, true, "[[a b]]=", "a region inside a key"},
        {{{"[[a", "b]]"}}, true, "%5B%5Ba=b%5D%5D", "no region from key to value"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.expected, URI::makeQueryString(row.items, row.skipPatterns)) << row.from;
        URI uri = withQuery("old=1");
        uri.setQuery(row.items, row.skipPatterns);
        EXPECT_EQ(row.expected, uri.query) << row.from;
    }
}

TEST(UriMakeQuery, RegionsAreOffByDefault) {
    const URI::Query items = {{"k", "[[ ]]"}};
    EXPECT_EQ("k=%5B%5B%20%5D%5D", URI::makeQueryString(items));
    URI uri;
    uri.setQuery(items);
    EXPECT_EQ("k=%5B%5B%20%5D%5D", uri.query);
}

// ---- Random text ----

const int CASES = rounds(100000);

// RandomText makes texts from the pieces that matter and from any bytes. Most are longer than a string's inner buffer,
// so that their block ends with them.
class RandomText {
public:
    explicit RandomText(unsigned seed, std::vector<std::string> pieces) : m_random(seed), m_pieces(std::move(pieces)) {}

    std::string operator()() {
        std::string text(below(2) * 16, 'x');
        for (size_t pieces = below(16); pieces > 0; --pieces)
            text += below(4) == 0 ? oneByte(static_cast<int>(below(256))) : m_pieces[below(m_pieces.size())];
        if (below(16) == 0)
            addRun(text);
        return std::string(text.data(), text.size());
    }

    size_t below(size_t limit) { return m_random() % limit; }

    template <class T>
    const T& oneOf(const std::vector<T>& values) {
        return values[below(values.size())];
    }

private:
    // addRun adds one piece many times, as results are gathered in blocks, and something after it.
    void addRun(std::string& text) {
        const std::string& piece = m_pieces[below(m_pieces.size())];
        for (size_t count = 200 + below(400); count > 0; --count)
            text += piece;
        text += m_pieces[below(m_pieces.size())];
    }

    std::mt19937 m_random;
    std::vector<std::string> m_pieces;
};

const std::vector<std::string> PIECES = {"[[",  "]]",  "[",   "]",   "%",   "%4",    "%41",  "%5b", "%5D",
                                         "%20", "%00", "%25", "%zz", "%7e", "a",     "/",    "?",   "#",
                                         "&",   "=",   "+",   ":",   " ",   "[[%41", "[[&=", "\0"s};

std::vector<std::string> piecesWithoutPercent() {
    std::vector<std::string> pieces;
    for (const std::string& piece : PIECES)
        if (!holds(piece, '%'))
            pieces.push_back(piece);
    return pieces;
}

TEST(UriEscapeProperty, FindSkipPatternFollowsItsSteps) {
    RandomText text(60801, PIECES);
    const std::string sought = "%&=[]a\0"s;
    for (int i = 0; i < CASES; ++i) {
        const std::string sample = text();
        const char character = sought[text.below(sought.size())];
        const size_t start = text.below(sample.size() + 3);
        ASSERT_EQ(modelFind(sample, character, start), URI::findSkipPattern(sample, character, start)) << sample;
        if (character != 0) {
            const std::string terminated = sample.c_str();
            ASSERT_EQ(modelFind(terminated, character, 0), positionIn(sample, character)) << sample;
        }
    }
}

TEST(UriEscapeProperty, TransformsFollowTheirSteps) {
    RandomText text(60802, PIECES);
    for (int i = 0; i < CASES; ++i) {
        const std::string sample = text();
        const bool skip = text.below(2) == 1;
        bool valid = false, expectedValid = false;
        ASSERT_EQ(modelUnescape(sample, expectedValid, skip), URI::unescapeURI(sample, &valid, skip)) << sample;
        ASSERT_EQ(expectedValid, valid) << sample;
        ASSERT_EQ(modelValidate(sample, skip), URI::validateEscaping(sample, skip)) << sample;
        const std::string& keep = text.oneOf(KEEP_SETS);
        ASSERT_EQ(modelEscape(sample, keep, skip), URI::escapeURIComponent(sample, keep, skip)) << sample;
        const std::string& escape = text.oneOf(USER_ESCAPE_SETS);
        ASSERT_EQ(modelSmartEscape(sample, escape, skip), URI::smartEscapeURIComponent(sample, escape, skip)) << sample;
        const std::string& user = text.oneOf(USER_KEEP_SETS);
        ASSERT_EQ(modelSmartUnescape(sample, user, skip), URI::smartUnescapeURIComponent(sample, user, skip)) << sample;
        const NormalSets& sets = text.oneOf(NORMAL_SETS);
        ASSERT_EQ(modelNormalize(sample, sets, skip),
                  URI::normalizeURIComponent(sample, sets.decode, sets.preserve, skip))
            << sample;
    }
}

TEST(UriEscapeProperty, QueriesFollowTheirSteps) {
    RandomText text(60803, PIECES);
    const auto decode = [](const std::string& part) { return modelUnescape(part); };
    const auto normalize = [](const std::string& part) { return modelNormalize(part, CANONICAL_SETS, false); };
    for (int i = 0; i < CASES; ++i) {
        const std::string sample = text();
        const bool skip = text.below(2) == 1;
        ASSERT_EQ(modelSplit(sample, skip), split(sample, skip)) << sample;
        const URI uri = withQuery(sample);
        ASSERT_EQ(modelQuery(sample, decode), uri.queryString()) << sample;
        ASSERT_EQ(modelQuery(sample, normalize), uri.queryStringCanonical()) << sample;
    }
}

TEST(UriEscapeProperty, UnescapeTakesEscapingBack) {
    RandomText text(60804, PIECES);
    for (int i = 0; i < CASES; ++i) {
        const std::string sample = text();
        bool valid = false;
        ASSERT_EQ(sample, URI::unescapeURI(URI::escapeURIComponent(sample, text.oneOf(KEEP_SETS)), &valid));
        ASSERT_TRUE(valid);
        ASSERT_EQ(sample, URI::unescapeURI(URI::smartEscapeURIComponent(sample, text.oneOf(USER_ESCAPE_SETS)), &valid));
        ASSERT_TRUE(valid);
    }
}

TEST(UriEscapeProperty, UnescapeTakesEscapingBackAroundRegions) {
    RandomText text(60805, piecesWithoutPercent());
    for (int i = 0; i < CASES; ++i) {
        std::string sample = text();
        std::replace(sample.begin(), sample.end(), '%', 'p');
        bool valid = false;
        const std::string escapedText = URI::escapeURIComponent(sample, text.oneOf(KEEP_SETS), true);
        ASSERT_EQ(sample, URI::unescapeURI(escapedText, &valid, true)) << escapedText;
        ASSERT_TRUE(valid) << escapedText;
    }
}

TEST(UriEscapeProperty, NormalFormIsStableAndMeansTheSame) {
    RandomText text(60806, PIECES);
    for (int i = 0; i < CASES; ++i) {
        const std::string sample = text();
        const bool skip = text.below(2) == 1;
        const NormalSets& sets = text.oneOf(NORMAL_SETS);
        const std::string normal = URI::normalizeURIComponent(sample, sets.decode, sets.preserve, skip);
        ASSERT_EQ(normal, URI::normalizeURIComponent(normal, sets.decode, sets.preserve, skip)) << sample;
        if (!skip) {
            ASSERT_TRUE(URI::validateEscaping(normal)) << sample;
            ASSERT_EQ(URI::unescapeURI(sample), URI::unescapeURI(normal)) << sample;
        }
    }
}

TEST(UriEscapeProperty, FormForPeopleMeansTheSameIfEscapesAreValid) {
    RandomText text(60807, PIECES);
    for (int i = 0; i < CASES; ++i) {
        const std::string valid = URI::normalizeURIComponent(text(), "", "+;&=[]");
        ASSERT_EQ(URI::unescapeURI(valid),
                  URI::unescapeURI(URI::smartUnescapeURIComponent(valid, text.oneOf(USER_KEEP_SETS))))
            << valid;
    }
}

TEST(UriEscapeProperty, ValidationAndUnescapeAgree) {
    RandomText text(60808, PIECES);
    for (int i = 0; i < CASES; ++i) {
        const std::string sample = text();
        for (bool skip : {false, true}) {
            bool valid = false;
            URI::unescapeURI(sample, &valid, skip);
            ASSERT_EQ(valid, URI::validateEscaping(sample, skip)) << sample;
        }
    }
}

TEST(UriEscapeProperty, QueryPutTogetherComesApartAgain) {
    RandomText text(60809, PIECES);
    for (int i = 0; i < CASES; ++i) {
        URI::Query items;
        for (size_t count = text.below(4) + 1; count > 0; --count)
            items[text()] = text();
        ASSERT_EQ(items, split(URI::makeQueryString(items)));
        items.erase("");
        ASSERT_EQ(items, withQuery(URI::makeQueryString(items)).queryString());
    }
}

// ---- The end of the text, in a block that ends with it ----

TEST(UriEscapeBounds, NoTransformReadsAfterTheEnd) {
    const std::string front(24, 'x');
    for (const std::string end :
         {"%", "%4", "%%", "[", "[[", "[[]", "]", "]]", "[[a]", "[[%", "[[]]", "=", "&", "[[a]]%"}) {
        const std::string text = front + end;
        for (bool skip : {false, true}) {
            bool valid, expectedValid;
            EXPECT_EQ(modelUnescape(text, expectedValid, skip), URI::unescapeURI(text, &valid, skip)) << text;
            EXPECT_EQ(modelValidate(text, skip), URI::validateEscaping(text, skip)) << text;
            EXPECT_EQ(modelEscape(text, "", skip), URI::escapeURIComponent(text, "", skip)) << text;
            EXPECT_EQ(modelSmartEscape(text, "[", skip), URI::smartEscapeURIComponent(text, "[", skip)) << text;
            EXPECT_EQ(modelSmartUnescape(text, "", skip), URI::smartUnescapeURIComponent(text, "", skip)) << text;
            EXPECT_EQ(modelNormalize(text, CANONICAL_SETS, skip), URI::normalizeURIComponent(text, "", "", skip))
                << text;
            EXPECT_EQ(modelSplit(text, skip), split(text, skip)) << text;
        }
        for (char sought : {'%', '[', ']', '=', 'y'})
            EXPECT_EQ(modelFind(text, sought, 0), positionIn(text, sought)) << text;
    }
}

// ---- Long text: what takes time with the square of the length doesn't come back within the test's limit ----

std::string repeated(const std::string& piece, size_t size = 1000000) {
    std::string text;
    while (text.size() < size)
        text += piece;
    return text;
}

class UriLongText : public testing::TestWithParam<std::string> {};

TEST_P(UriLongText, TransformsTakeLinearTime) {
    for (const std::string& text : {repeated(GetParam()), "[[a]]" + repeated(GetParam()), repeated(GetParam()) + "]]"})
        for (bool skip : {false, true}) {
            bool valid = false;
            URI::unescapeURI(text, &valid, skip);
            EXPECT_EQ(valid, URI::validateEscaping(text, skip));
            const std::string normal = URI::normalizeURIComponent(text, "", "", skip);
            EXPECT_EQ(normal, URI::normalizeURIComponent(normal, "", "", skip));
            EXPECT_LE(text.size(), URI::escapeURIComponent(text, "", skip).size());
            EXPECT_LE(text.size(), URI::smartEscapeURIComponent(text, "/?#", skip).size());
            EXPECT_GE(text.size(), URI::smartUnescapeURIComponent(text, "#", skip).size());
        }
}

TEST_P(UriLongText, QueriesTakeLinearTime) {
    for (const std::string& text :
         {repeated(GetParam()), "[[a]]" + repeated(GetParam()), repeated(GetParam()) + "]]"}) {
        for (bool skip : {false, true})
            EXPECT_LE(1u, split(text, skip).size());
        const URI uri = withQuery(text);
        EXPECT_GE(text.size(), uri.queryString().size());
        EXPECT_GE(text.size(), uri.queryStringCanonical().size());
    }
}

TEST_P(UriLongText, SearchTakesLinearTime) {
    const std::string text = repeated(GetParam());
    for (char sought : {'%', '&', '[', ']', 'y'}) {
        const size_t found = URI::findSkipPattern(text, sought);
        EXPECT_EQ(found, positionIn(text, sought));
        EXPECT_TRUE(found == NO_POSITION || text[found] == sought);
    }
}

INSTANTIATE_TEST_SUITE_P(Pieces, UriLongText,
                         testing::Values("[[", "%", "[[x]]", "%41", "[[%", "[[%41", "[[%]]", "]]", "[[&", "[[=", "&",
                                         "=", "a&", "=&", "[", "[[%]]%41", "[[a]]%41", "[[a]]&", "[[&]]=", "[[%]]&"));

// Keys that differ, so that the number of items grows with the text.
TEST(UriLongQuery, ManyItemsTakeLinearTime) {
    URI::Query items;
    for (int i = 0; i < 50000; ++i)
        items["[[" + std::to_string(i)] = "]]&=";
    const std::string text = URI::makeQueryString(items);
    EXPECT_EQ(items, split(text));
    EXPECT_EQ(items, withQuery(text).queryString());
    EXPECT_EQ(items.size(), split(text, true).size());
}

}  // namespace
