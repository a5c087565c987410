// clock_scan_model.h: how clock values are read. It cuts the text into its pieces first and computes afterwards.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

// Scan is what a cursor function gave and what it left unread.
struct Scan {
    int64_t value;
    std::string rest;

    bool operator==(const Scan& other) const { return value == other.value && rest == other.rest; }
};

inline void PrintTo(const Scan& scan, std::ostream* out) {
    *out << scan.value << " us, unread '" << scan.rest << "'";
}

// ClockModel is the scanner, and knows of no cursor: what was read is erased.
class ClockModel {
public:
    explicit ClockModel(const std::string& text) : m_strRest(text) {}

    Scan scan() {
        skipBlanks();
        const std::string sign = oneOf("+-");
        skipBlanks();
        std::vector<std::string> fields = {digits()};
        while (fields.size() < 3 && take(":")) {
            fields.push_back(digits());
        }
        const std::string fraction = take(".") ? digits() : "";
        const uint64_t unit = fields.size() > 1 ? 1000000 : unitInMicroseconds();
        skipBlanks();
        const uint64_t total = unit * wholeOf(fields) + fractionOf(fraction, unit);
        return {static_cast<int64_t>(sign == "-" ? 0 - total : total), m_strRest};
    }

private:
    static uint64_t wholeOf(const std::vector<std::string>& fields) {
        uint64_t whole = 0;
        for (const std::string& field : fields) {
            whole = whole * 60 + number(field);
        }
        return whole;
    }

    // fractionOf needs no more digits than those whose scale fits, as those after are far below a microsecond.
    static uint64_t fractionOf(std::string fraction, uint64_t unit) {
        fraction.resize(std::min<size_t>(fraction.size(), 19));
        const uint64_t scale = number("1" + std::string(fraction.size(), '0'));
        return unit >= scale ? unit / scale * number(fraction) : number(fraction) / (scale / unit);
    }

    // number sums up the digits by their weights, from the last one on.
    static uint64_t number(std::string digits) {
        uint64_t value = 0;
        uint64_t weight = 1;
        std::reverse(digits.begin(), digits.end());
        for (const char digit : digits) {
            value += static_cast<uint64_t>(digit - '0') * weight;
            weight *= 10;
        }
        return value;
    }

    uint64_t unitInMicroseconds() {
        return take("ms") ? 1000 : take("min") ? 60000000 : take("h") ? 3600000000 : (take("s"), 1000000);
    }

    bool take(const std::string& text) {
        const bool there = m_strRest.compare(0, text.size(), text) == 0;
        m_strRest.erase(0, there ? text.size() : 0);
        return there;
    }

    std::string takeWhileOf(const std::string& characters) {
        const std::string taken = m_strRest.substr(0, m_strRest.find_first_not_of(characters));
        m_strRest.erase(0, taken.size());
        return taken;
    }

    std::string oneOf(const std::string& characters) {
        const std::string taken = characters.find(m_strRest.substr(0, 1)) < 2 ? m_strRest.substr(0, 1) : "";
        m_strRest.erase(0, taken.size());
        return taken;
    }

    void skipBlanks() { takeWhileOf("\t\n\r "); }
    std::string digits() { return takeWhileOf("0123456789"); }

    std::string m_strRest;
};

inline Scan modelScan(const std::string& text) {
    return ClockModel(text).scan();
}
