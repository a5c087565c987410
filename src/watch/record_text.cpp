#include "watch/record_text.h"

#include "foundation/strfmt.h"

namespace {

// isControl returns whether `c` is an ASCII control byte. Bytes above them are parts of UTF-8 and pass.
bool isControl(char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte < 0x20 || byte == 0x7f;
}

}  // namespace

std::string recordText(const std::string& text) {
    std::string shown;
    shown.reserve(text.size());
    for (const char c : text) {
        if (isControl(c))
            shown += strfmt("\\x%02x", static_cast<unsigned char>(c));
        else
            shown += c;
    }
    return shown;
}
