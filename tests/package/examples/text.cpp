// text.cpp: base64, versions, instants and clock values.
#include <orvanta/foundation/base64.h>
#include <orvanta/foundation/clock_value.h>
#include <orvanta/foundation/version_string.h>

#include <cstdio>
#include <string>
#include <vector>

int main() {
    const unsigned char nonce[] = {0xfb, 0xff, 0x00, 0x10};
    std::printf("%s %s\n", orv::base64Encode(nonce, sizeof nonce).c_str(),
                orv::base64EncodeURLSafe(nonce, sizeof nonce).c_str());

    // "1.10" comes after "1.9", as each number between the dots counts as a whole.
    std::printf("%s\n", VersionString("1.9") < VersionString("1.10") ? "older" : "newer");

    std::printf("%s\n", svg::UTCClockValue(1795276903 * 1000000000L).get_as_iso8601_date().c_str());
    svg::ClockValue length;
    if (length.parse("1:02:03.5", false, false))
        std::printf("%s\n", length.unparse("s").c_str());
}
