// A clock value that was read is printed as a text that reads as the same value.
#include <string>

#include "foundation/clock_value.h"
#include "fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    constexpr int64_t largest = int64_t{1} << 62;  // beyond it the count of nanoseconds may have wrapped
    svg::ClockValue value;
    const bool accepted = value.parse(std::string(reinterpret_cast<const char*>(data), size), true, true);
    for (const char* format : {"", "s", "ms", "hms", "hms.", "hms...", "?"})
        require(!value.unparse(format).empty());
    if (accepted && value.value > -largest && value.value < largest) {
        svg::ClockValue again;
        require(again.parse(value.unparse("s"), true, true));
        require(again.type == value.type);
        require(value.type != 0 || again.value == value.value / 1000 * 1000);
    }
    return 0;
}
