// clock_value.h: the vocabulary of time: SMIL clock values, UTC instants with their date formats, and the conversion of
// ticks to nanoseconds.
//
// Times are signed 64-bit counts: of nanoseconds, except that `parseClockValue` returns microseconds and `parseInstant`
// seconds. Whitespace here is tab, line feed, carriage return and blank. Nothing logs. Where numbers exceed their type
// they wrap, unless a function says that it saturates. Pure functions and plain values, usable from any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace svg {

// parseQword reads decimal digits at `cursor`, moves it to the first non-digit and returns their value, 0 when there
// are none. If `scale` is not null it receives 10 to the power of the number of digits. Value and scale wrap.
unsigned long parseQword(const char*& cursor, unsigned long* scale);

// parseClockValue reads a clock value with the whitespace around it from NUL-terminated text, moves `cursor` to where
// it stopped and returns microseconds. The forms are "h:m:s" and "m:s", and a number with one of the units "h", "min",
// "s", "ms", or without a unit, for seconds; each may have a sign in front and a decimal fraction, which is cut to
// whole microseconds (its digits after the 19th are passed over). Kept: a fraction of "h" with nine digits or more, or
// of "min" with eight or more, is wrong, because the ratio of unit and scale is cut first. Fields have no range limit
// and may be empty, so text that holds no number gives 0. What is left after the cursor was not understood.
int64_t parseClockValue(const char*& cursor);

// ClockValue is a time offset, or one of the words that stand for a time that is not known.
struct ClockValue {
    // Type is the kind of a value: whether there is a time, and if not, why.
    enum Type : int32_t { Resolved = 0, Indefinite = 1, Unresolved = 2, Media = 3 };

    // type is the kind of this value.
    Type type = Resolved;

    // value is the offset in nanoseconds; it has a meaning for the type `Resolved` only.
    int64_t value = 0;

    // parse sets this object from `text`: "media", "indefinite", or what `parseClockValue` reads. It returns false if
    // some of the text was not understood, if the time is negative and not `acceptNegative`, or if it is zero and
    // neither flag is set. The object keeps the time that was read even when the result is false.
    bool parse(const std::string& text, bool acceptZero, bool acceptNegative);

    // unparse returns the value as text; the magnitude is cut to whole microseconds and a negative value has a "-" in
    // front. The formats are "s" (or empty) and "ms", with as many decimals as needed; "hms", without the fraction of
    // the second; "hms.", with rounded milliseconds; and "hms...", which leaves milliseconds of 0 out. The rounding is
    // not carried, so 0.9996 s ends in ".1000" (kept: readers depend on it). The types without a time give
    // "indefinite", "unresolved", "media" in every format, an unknown type "<invalid value type>", and an unknown
    // format "<invalid format>".
    std::string unparse(const std::string& format) const;
};

// UTCClockValue is an instant in UTC.
struct UTCClockValue {
    // value is the number of nanoseconds since the Unix epoch.
    int64_t value;

    // UTCClockValue is the instant `nanoseconds` after the Unix epoch.
    explicit UTCClockValue(int64_t nanoseconds = 0) : value(nanoseconds) {}

    // parse_http_date returns the instant of a date in one of the three forms of HTTP (RFC 7231, section 7.1.1.1), and
    // the epoch for any other text. Instants beyond the year 2262 wrap.
    static UTCClockValue parse_http_date(const std::string& text);

    // get_as_iso8601_date returns "YYYY-MM-DDThh:mm:ssZ". The fraction of the second is cut towards the epoch.
    std::string get_as_iso8601_date() const;

    // get_as_iso8601_date_with_ms returns "YYYY-MM-DDThh:mm:ss.mmmZ". Seconds and milliseconds are each cut towards the
    // epoch, so that before 1970 milliseconds other than 0 have a minus sign.
    std::string get_as_iso8601_date_with_ms() const;

    // get_as_rfc822_date returns the form of mail and HTTP, "Thu, 01 Jan 1970 00:00:00 GMT", or the empty string if APR
    // fails.
    std::string get_as_rfc822_date() const;
};

// parseInstant reads a UTC instant in exactly the form that get_as_iso8601_date writes, "YYYY-MM-DDThh:mm:ssZ", of any
// year from 0000 to 9999, and returns its seconds since the Unix epoch; nothing for any other text, for a date that
// does not exist, for an hour above 23, and for minutes or seconds above 59, so for a leap second too.
std::optional<int64_t> parseInstant(const std::string& text);

// num_ticks returns the nanoseconds of `ticks` ticks of which there are `period` in a second, cut towards zero. Up to
// 9223372035 ticks it computes in 64 bits, and a period of 0 ends the process by SIGFPE; a negative number of ticks is
// always among these, and its product wraps. Above, it computes in 128 bits, saturates, and throws
// std::overflow_error "Division by zero." for a period of 0. (Kept: the common case stays one multiplication and one
// division.)
int64_t num_ticks(long ticks, long period);

// num_ticks with a fraction returns the nanoseconds of `ticks` ticks of `numerator / denominator` seconds each, cut
// towards zero. It always computes in 128 bits, saturates, and throws std::overflow_error "Division by zero." for a
// denominator of 0. A product beyond 128 bits wraps.
int64_t num_ticks(long ticks, long numerator, long denominator);

// num_ticks_ppm is num_ticks for a clock that runs fast by `ppm` parts per million. Its 64-bit path ends at 4611686017
// ticks; a `ppm` below -1000000 or above 3000000 can make the product wrap there.
int64_t num_ticks_ppm(long ticks, long period, int ppm);

}  // namespace svg
