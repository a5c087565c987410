// string_utils.h: byte-based helpers for text: case, whitespace, splitting and joining, numbers, hexadecimal.
//
// All of them work on bytes. Whitespace means a byte value of 32 or below, compared unsigned, so that the bytes of a
// UTF-8 sequence never count as whitespace. No helper logs or throws on its own; only the standard string exceptions
// can pass through. Pure functions, usable from any thread.
#pragma once

#include <forward_list>
#include <list>
#include <locale>
#include <set>
#include <string>
#include <vector>

// --- Case, byte by byte through the `ctype` facet of a locale ---

// toupper returns `text` with each byte in upper case.
std::string toupper(const std::string& text, const std::locale& locale);

// tolower returns `text` with each byte in lower case.
std::string tolower(const std::string& text, const std::locale& locale);

// toupper and tolower of a literal or const C string do the same. Without them, a literal would find the standard
// library's function of that name, which takes it for a single character and throws std::bad_cast.
inline std::string toupper(const char* text, const std::locale& locale) {
    return toupper(std::string(text), locale);
}
inline std::string tolower(const char* text, const std::locale& locale) {
    return tolower(std::string(text), locale);
}

// equalsUpCase returns whether both texts have the same length and the same bytes after upper-casing both.
bool equalsUpCase(const std::string& left, const std::string& right, const std::locale& locale);

// equalsLowCase returns whether both texts have the same length and the same bytes after lower-casing both.
bool equalsLowCase(const std::string& left, const std::string& right, const std::locale& locale);

// StringCompareNoCase orders strings by their bytes in lower case, for ordered containers whose keys ignore case.
class StringCompareNoCase {
public:
    // StringCompareNoCase keeps a pointer to the `ctype` facet of `locale`; `locale`, or a copy of it, must outlive the
    // object.
    explicit StringCompareNoCase(const std::locale& locale);

    // operator() returns whether `left` is ordered before `right`.
    bool operator()(const std::string& left, const std::string& right) const;

private:
    const std::ctype<char>* m_pCtype;
};

// --- Whitespace and length ---

// isWhiteSpace returns whether `text` holds nothing but whitespace; true for the empty string.
bool isWhiteSpace(const std::string& text);

// trim returns `text` without leading and trailing whitespace.
std::string trim(const std::string& text);

// trimNL returns `text` without trailing whitespace and without the blank lines at its front. The indentation of the
// first line with content stays; text of only whitespace becomes the empty string.
std::string trimNL(const std::string& text);

// trimAndStrip returns `text` with each inner run of whitespace collapsed to one blank and none at either end.
std::string trimAndStrip(const std::string& text);

// truncateUTF8 returns `text` cut after its first `max` code points and followed by `suffix`, which may be null and is
// not counted. Text that is not longer comes back unchanged and without the suffix. Only the bytes before the first NUL
// are counted: if they hold no more than `max` code points, the text comes back whole, NUL included. Every byte that is
// not of the form 10xxxxxx begins a code point. With a negative `max` nothing is cut.
std::string truncateUTF8(const std::string& text, int max, const char* suffix);

// truncateUTF8 of a moved string does the same and reuses its buffer.
std::string truncateUTF8(std::string&& text, int max, const char* suffix);

// --- Lists ---

// split cuts `text` at every `separator` and replaces the content of `pieces` with the pieces. Empty pieces are kept, a
// trailing separator makes a last empty one, and an empty text has none. With `trimPieces` each piece goes through
// `trim`; one that is empty afterwards stays. The vector and the list hold the pieces in order.
void split(const std::string& text, std::vector<std::string>& pieces, char separator, bool trimPieces = false);
void split(const std::string& text, std::list<std::string>& pieces, char separator, bool trimPieces = false);

// split into a set sorts the pieces and keeps one of each.
void split(const std::string& text, std::set<std::string>& pieces, char separator, bool trimPieces = false);

// split into a forward list puts each piece at the front, so that they end up last to first (kept: readers of the
// list depend on the reverse order).
void split(const std::string& text, std::forward_list<std::string>& pieces, char separator, bool trimPieces = false);

// join returns the pieces in order with `separator` between them; the empty string for an empty container.
std::string join(const std::vector<std::string>& pieces, const std::string& separator);
std::string join(const std::list<std::string>& pieces, const std::string& separator);
std::string join(const std::forward_list<std::string>& pieces, const std::string& separator);

// --- Numbers ---

// fromBase16 returns the bytes that `digits` spells in pairs of hexadecimal digits of either case, the high half first.
// It returns an empty vector for an odd length or any other character.
std::vector<unsigned char> fromBase16(const std::string& digits);

// from_string reads `text` up to its first NUL as `strtod` does and stores the number in `value`. It returns true only
// if there was a number and nothing after it, not even a blank; otherwise `value` is 0.0. A number too large for a
// `double` is infinite and counts as read.
bool from_string(const std::string& text, double& value);

// from_string into a `float` also returns false, with 0.0 in `value`, for a number outside the range of the normal
// positive `float` values: zero and every negative number are refused (kept: callers depend on it).
bool from_string(const std::string& text, float& value);

// --- Data protection: this platform has no protected store, so data passes unchanged ---

// cryptProtect copies `plain` to `sealed` and returns true.
bool cryptProtect(const std::string& plain, std::string& sealed);

// cryptUnprotect copies `sealed` to `plain` and returns true.
bool cryptUnprotect(const std::string& sealed, std::string& plain);

// cryptGenRandomPSK empties `key` and returns false, whatever `length`: no key is available here.
bool cryptGenRandomPSK(unsigned length, std::string& key);
