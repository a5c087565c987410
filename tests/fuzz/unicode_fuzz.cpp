// A text that went through another encoding once isn't changed by going through it again, and the bounded conversion in
// pieces gives what the whole one gives.
#include <string>

#include "foundation/unicode.h"
#include "fuzz.h"

namespace {

const unsigned char* bytesOf(const std::string& text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}

std::string throughUTF16(const std::string& text) {
    std::u16string units;
    utf8To16N(bytesOf(text), static_cast<int>(text.size()), units);
    std::string result;
    utf16To8N(units.data(), static_cast<int>(units.size()), result);
    return result;
}

std::u16string inPieces(const std::string& text) {
    const unsigned char* in = bytesOf(text);
    int count = static_cast<int>(text.size());
    std::u16string result;
    while (count > 0) {
        char16_t piece[2];
        result.append(piece, static_cast<size_t>(utf8To16MaxN(in, count, piece, 2)));
    }
    return result;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const std::string once = throughUTF16(text);
    require(throughUTF16(once) == once);
    require(isValidUTF8N(bytesOf(once), static_cast<int>(once.size())));
    std::u16string whole;
    utf8To16N(bytesOf(text), static_cast<int>(text.size()), whole);
    require(inPieces(text) == whole);
    return 0;
}
