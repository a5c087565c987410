// clock_print_model.h: how clock values and dates are printed: on decimal text, and by counting days from 1970 on.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include "unit/foundation/int128.h"

inline std::string decimal(UInt128 number) {
    std::string text;
    do {
        text.insert(text.begin(), static_cast<char>('0' + static_cast<int>(number % 10)));
        number /= 10;
    } while (number);
    return text;
}

inline std::string withPoint(const std::string& microseconds, size_t decimals, const std::string& unit) {
    std::string text = std::string(microseconds.size() <= decimals ? decimals + 1 - microseconds.size() : 0, '0');
    text += microseconds;
    text.insert(text.size() - decimals, ".");
    text.erase(text.find_last_not_of('0') + 1);
    text.erase(text.find_last_not_of('.') + 1);
    return text + unit;
}

inline std::string twoDigits(UInt128 number) {
    return std::string(number < 10 ? "0" : "") + decimal(number);
}

// modelUnparse works on the decimal text of the microseconds.
inline std::string modelUnparse(int64_t nanoseconds, const std::string& format) {
    const Int128 wide = nanoseconds;
    const UInt128 microseconds = static_cast<UInt128>(wide < 0 ? -wide : wide) / 1000;
    const UInt128 seconds = microseconds / 1000000;
    const std::string sign = wide < 0 ? "-" : "";
    if (format == "" || format == "s") {
        return sign + withPoint(decimal(microseconds), 6, "s");
    }
    if (format == "ms") {
        return sign + withPoint(decimal(microseconds), 3, "ms");
    }
    const std::string hms =
        sign + decimal(seconds / 3600) + ":" + twoDigits(seconds / 60 % 60) + ":" + twoDigits(seconds % 60);
    const UInt128 milliseconds = (microseconds % 1000000 + 500) / 1000;
    if (format == "hms" || (format == "hms..." && milliseconds == 0)) {
        return hms;
    }
    return hms + "." + (milliseconds < 100 ? "0" : "") + twoDigits(milliseconds);
}

inline bool isLeap(int year) {
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

// modelDate counts the days from 1970 on, year by year.
inline std::string modelDate(int64_t seconds) {
    int64_t days = seconds >= 0 ? seconds / 86400 : -((86399 - seconds) / 86400);
    const int64_t rest = seconds - days * 86400;
    int year = 1970;
    for (; days < 0; days += isLeap(year) ? 366 : 365) {
        year--;
    }
    for (; days >= (isLeap(year) ? 366 : 365); year++) {
        days -= isLeap(year) ? 366 : 365;
    }
    const int lengths[] = {31, isLeap(year) ? 29 : 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    int month = 0;
    for (; days >= lengths[month]; month++) {
        days -= lengths[month];
    }
    char text[64];
    std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d", year, month + 1, static_cast<int>(days) + 1,
                  static_cast<int>(rest / 3600), static_cast<int>(rest / 60 % 60), static_cast<int>(rest % 60));
    return text;
}
