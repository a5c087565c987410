// even_growth.h: long texts that are one piece over and over, for tests that each text is read in one go.
#pragma once

#include <cstddef>
#include <string>

// growsEvenly returns whether `measure`, a size, grows by equal steps from a text of many pieces to one of twice and
// one of three times as many. A reader that starts over at each piece would not come to the end of them within a test's
// time.
template <class Measure>
bool growsEvenly(const std::string& piece, Measure measure) {
    const size_t count = (1U << 17) / piece.size() / 12 * 12;  // twelve, as base64 counts in threes and fours
    std::string unit;
    for (size_t i = 0; i < count; ++i)
        unit += piece;
    const size_t once = measure(unit);
    const size_t twice = measure(unit + unit);
    const size_t thrice = measure(unit + unit + unit);
    return twice - once == thrice - twice;
}
