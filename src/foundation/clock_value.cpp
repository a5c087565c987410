#include "foundation/clock_value.h"

#include <apr_date.h>
#include <apr_time.h>
#include <signal.h>

#include <algorithm>
#include <boost/multiprecision/cpp_int.hpp>
#include <charconv>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <limits>

#include "foundation/ascii.h"

namespace {

using ascii::isDigit;
using boost::multiprecision::int128_t;

constexpr uint64_t MICROSECONDS_PER_SECOND = 1000000;
constexpr int64_t NANOSECONDS_PER_SECOND = 1000000000;

// wrappedNegation and wrappedProduct are signed arithmetic that wraps: computed without a sign, where overflow is
// defined.
int64_t wrappedNegation(int64_t value) {
    return static_cast<int64_t>(0 - static_cast<uint64_t>(value));
}

int64_t wrappedProduct(int64_t left, int64_t right) {
    return static_cast<int64_t>(static_cast<uint64_t>(left) * static_cast<uint64_t>(right));
}

// --- Reading clock values ---

// Fraction is the digits after a decimal point, as `numerator` / `scale`.
struct Fraction {
    uint64_t numerator = 0;
    uint64_t scale = 1;
};

void skipWhitespace(const char*& cursor) {
    while (*cursor == '\t' || *cursor == '\n' || *cursor == '\r' || *cursor == ' ')
        ++cursor;
}

// readSign passes over an optional sign and returns whether it was a minus.
bool readSign(const char*& cursor) {
    const bool negative = *cursor == '-';
    if (negative || *cursor == '+')
        ++cursor;
    return negative;
}

// readClockFields reads up to two further fields, each after a colon, and returns them all in the base of 60.
uint64_t readClockFields(const char*& cursor, uint64_t first) {
    uint64_t total = first;
    for (int field = 0; field < 2 && *cursor == ':'; ++field) {
        ++cursor;
        total = total * 60 + svg::parseQword(cursor, nullptr);
    }
    return total;
}

// readFraction reads a decimal point and the digits after it, both optional. Digits that 64 bits cannot hold are passed
// over: they lie far below the microsecond.
Fraction readFraction(const char*& cursor) {
    constexpr uint64_t LARGEST_SCALE = 10000000000000000000U;
    Fraction fraction;
    if (*cursor != '.')
        return fraction;
    for (++cursor; isDigit(*cursor); ++cursor) {
        if (fraction.scale == LARGEST_SCALE)
            continue;
        fraction.numerator = fraction.numerator * 10 + static_cast<uint64_t>(*cursor - '0');
        fraction.scale *= 10;
    }
    return fraction;
}

// readUnit reads the unit of a plain number and returns it in microseconds. Text that is not a unit stays unread and
// means seconds.
uint64_t readUnit(const char*& cursor) {
    static constexpr struct {
        const char* name;
        uint64_t microseconds;
    } UNITS[] = {
        {"ms", 1000},
        {"min", 60 * MICROSECONDS_PER_SECOND},
        {"h", 3600 * MICROSECONDS_PER_SECOND},
        {"s", MICROSECONDS_PER_SECOND},
    };
    for (const auto& unit : UNITS) {
        const size_t length = std::strlen(unit.name);
        if (std::strncmp(cursor, unit.name, length) == 0) {
            cursor += length;
            return unit.microseconds;
        }
    }
    return MICROSECONDS_PER_SECOND;
}

// fractionOf returns the fraction of the unit in whole microseconds. Kept: the ratio of unit and scale is cut before it
// is used, which is wrong where neither divides the other; readers depend on the numbers.
uint64_t fractionOf(uint64_t unit, const Fraction& fraction) {
    if (unit >= fraction.scale)
        return unit / fraction.scale * fraction.numerator;
    return fraction.numerator / (fraction.scale / unit);
}

// --- Writing clock values ---

// formatted returns a text of at most 63 bytes. Exhausted memory throws: strfmt's empty text would pass for a value.
[[gnu::format(printf, 1, 2)]] std::string formatted(const char* format, ...) {
    char text[64];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    return text;
}

// withDecimals returns `whole`, followed by `remainder` as `digits` decimals without trailing zeros unless it is 0.
std::string withDecimals(unsigned long whole, unsigned long remainder, int digits) {
    const std::string text = formatted("%lu", whole);
    if (remainder == 0)
        return text;
    const std::string decimals = formatted("%0*lu", digits, remainder);
    return text + "." + decimals.substr(0, decimals.find_last_not_of('0') + 1);
}

std::string hoursMinutesSeconds(uint64_t microseconds) {
    const uint64_t seconds = microseconds / MICROSECONDS_PER_SECOND;
    return formatted("%d:%02d:%02d", static_cast<int>(seconds / 3600), static_cast<int>(seconds / 60 % 60),
                     static_cast<int>(seconds % 60));
}

// roundedMilliseconds returns 0 to 1000: the rounding stays within the fraction.
int roundedMilliseconds(uint64_t microseconds) {
    return static_cast<int>((microseconds % MICROSECONDS_PER_SECOND + 500) / 1000);
}

std::string unparseMagnitude(uint64_t microseconds, const std::string& format) {
    if (format.empty() || format == "s")
        return withDecimals(microseconds / MICROSECONDS_PER_SECOND, microseconds % MICROSECONDS_PER_SECOND, 6) + "s";
    if (format == "ms")
        return withDecimals(microseconds / 1000, microseconds % 1000, 3) + "ms";
    const int milliseconds = roundedMilliseconds(microseconds);
    if (format == "hms" || (format == "hms..." && milliseconds == 0))
        return hoursMinutesSeconds(microseconds);
    return hoursMinutesSeconds(microseconds) + formatted(".%03d", milliseconds);
}

bool isTimeFormat(const std::string& format) {
    return format.empty() || format == "s" || format == "ms" || format == "hms" || format == "hms." ||
           format == "hms...";
}

std::string unparseTime(int64_t value, const std::string& format) {
    if (!isTimeFormat(format))
        return "<invalid format>";
    const uint64_t magnitude = static_cast<uint64_t>(value < 0 ? wrappedNegation(value) : value);
    std::string text(value < 0 ? "-" : "");
    return text.append(unparseMagnitude(magnitude / 1000, format));
}

// --- UTC instants ---

// calendarFields returns the fields of an instant. 64 bits of nanoseconds reach from the year 1677 to 2262, so this
// cannot fail.
std::tm calendarFields(int64_t nanoseconds) {
    const std::time_t seconds = nanoseconds / NANOSECONDS_PER_SECOND;
    std::tm fields = {};
    gmtime_r(&seconds, &fields);
    return fields;
}

// isoDateTime returns date and time as ISO 8601 has them, without the zone.
std::string isoDateTime(int64_t nanoseconds) {
    const std::tm fields = calendarFields(nanoseconds);
    return formatted("%04d-%02d-%02dT%02d:%02d:%02d", fields.tm_year + 1900, fields.tm_mon + 1, fields.tm_mday,
                     fields.tm_hour, fields.tm_min, fields.tm_sec);
}

// hasForm returns whether `text` is `form` with a digit for each "d".
bool hasForm(const std::string& text, const std::string& form) {
    const auto fits = [](char c, char sign) { return sign == 'd' ? isDigit(c) : c == sign; };
    return std::equal(text.begin(), text.end(), form.begin(), form.end(), fits);
}

// --- Ticks ---

// endByDivisionError ends the process as x86 does on a division by 0, which other processors let pass: a handler of
// SIGFPE is called first, but neither a handler that returns nor a signal that is ignored or blocked saves the process.
[[noreturn]] void endByDivisionError() {
    sigset_t error;
    sigemptyset(&error);
    sigaddset(&error, SIGFPE);
    raise(SIGFPE);
    signal(SIGFPE, SIG_DFL);
    pthread_sigmask(SIG_UNBLOCK, &error, nullptr);
    raise(SIGFPE);
    std::abort();
}

// directQuotient returns the quotient on the 64-bit path. The smallest number divided by -1 has no 64-bit result, and
// the processor might trap: it wraps, as the product did.
int64_t directQuotient(int64_t product, int64_t divisor) {
    if (divisor == 0)
        endByDivisionError();
    return divisor == -1 ? wrappedNegation(product) : product / divisor;
}

// saturatedQuotient returns the quotient on the 128-bit path, limited to what 64 bits hold. The division throws for a
// divisor of 0.
int64_t saturatedQuotient(const int128_t& product, int64_t divisor) {
    constexpr int64_t HIGHEST = std::numeric_limits<int64_t>::max();
    constexpr int64_t LOWEST = std::numeric_limits<int64_t>::min();
    const int128_t quotient = product / int128_t(divisor);
    if (quotient > HIGHEST)
        return HIGHEST;
    return quotient < -HIGHEST ? LOWEST : static_cast<int64_t>(quotient);
}

// scaledTicks returns ticks * factor / divisor, computed in 64 bits up to `directLimit` ticks and in 128 bits above.
int64_t scaledTicks(int64_t ticks, int64_t factor, int64_t divisor, int64_t directLimit) {
    if (ticks <= directLimit)
        return directQuotient(wrappedProduct(ticks, factor), divisor);
    return saturatedQuotient(int128_t(ticks) * factor, divisor);
}

}  // namespace

namespace svg {

unsigned long parseQword(const char*& cursor, unsigned long* scale) {
    unsigned long value = 0;
    unsigned long power = 1;
    for (; isDigit(*cursor); ++cursor) {
        value = value * 10 + static_cast<unsigned long>(*cursor - '0');
        power *= 10;
    }
    if (scale)
        *scale = power;
    return value;
}

int64_t parseClockValue(const char*& cursor) {
    skipWhitespace(cursor);
    const bool negative = readSign(cursor);
    skipWhitespace(cursor);
    uint64_t whole = parseQword(cursor, nullptr);
    const bool clockForm = *cursor == ':';
    if (clockForm)
        whole = readClockFields(cursor, whole);
    const Fraction fraction = readFraction(cursor);
    const uint64_t unit = clockForm ? MICROSECONDS_PER_SECOND : readUnit(cursor);
    skipWhitespace(cursor);
    const int64_t total = static_cast<int64_t>(unit * whole + fractionOf(unit, fraction));
    return negative ? wrappedNegation(total) : total;
}

bool ClockValue::parse(const std::string& text, bool acceptZero, bool acceptNegative) {
    if (text == "media" || text == "indefinite") {
        type = text == "media" ? Media : Indefinite;
        return true;
    }
    const char* cursor = text.c_str();
    type = Resolved;
    value = wrappedProduct(parseClockValue(cursor), 1000);
    if (cursor != text.c_str() + text.size())
        return false;
    if (acceptNegative)
        return true;
    return value > 0 || (value == 0 && acceptZero);
}

std::string ClockValue::unparse(const std::string& format) const {
    switch (type) {
    case Resolved:
        return unparseTime(value, format);
    case Indefinite:
        return "indefinite";
    case Unresolved:
        return "unresolved";
    case Media:
        return "media";
    }
    return "<invalid value type>";
}

UTCClockValue UTCClockValue::parse_http_date(const std::string& text) {
    return UTCClockValue(wrappedProduct(apr_date_parse_http(text.c_str()), 1000));
}

std::string UTCClockValue::get_as_iso8601_date() const {
    return isoDateTime(value) + "Z";
}

std::string UTCClockValue::get_as_iso8601_date_with_ms() const {
    return isoDateTime(value) + formatted(".%03dZ", static_cast<int>(value / 1000000 % 1000));
}

std::string UTCClockValue::get_as_rfc822_date() const {
    char text[APR_RFC822_DATE_LEN] = {};
    return apr_rfc822_date(text, value / 1000) == APR_SUCCESS ? text : "";
}

std::optional<int64_t> parseInstant(const std::string& text) {
    if (!hasForm(text, "dddd-dd-ddTdd:dd:ddZ"))
        return std::nullopt;
    const auto number = [&text](size_t position, size_t count) {
        int value = 0;
        std::from_chars(text.data() + position, text.data() + position + count, value);
        return value;
    };
    const auto date =
        std::chrono::year(number(0, 4)) / std::chrono::month(number(5, 2)) / std::chrono::day(number(8, 2));
    const std::chrono::hours hours(number(11, 2));
    const std::chrono::minutes minutes(number(14, 2));
    const std::chrono::seconds seconds(number(17, 2));
    if (!date.ok() || hours.count() > 23 || minutes.count() > 59 || seconds.count() > 59)
        return std::nullopt;
    return (std::chrono::sys_days(date).time_since_epoch() + hours + minutes + seconds).count();
}

int64_t num_ticks(long ticks, long period) {
    constexpr int64_t DIRECT_LIMIT = 9223372035;
    return scaledTicks(ticks, NANOSECONDS_PER_SECOND, period, DIRECT_LIMIT);
}

int64_t num_ticks(long ticks, long numerator, long denominator) {
    return saturatedQuotient(int128_t(ticks) * numerator * NANOSECONDS_PER_SECOND, denominator);
}

int64_t num_ticks_ppm(long ticks, long period, int ppm) {
    constexpr int64_t DIRECT_LIMIT = 4611686017;
    return scaledTicks(ticks, NANOSECONDS_PER_SECOND - int64_t{1000} * ppm, period, DIRECT_LIMIT);
}

}  // namespace svg
