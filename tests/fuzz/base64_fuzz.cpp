// Bytes survive encoding, and whatever a text decodes to encodes to a text that decodes to the same.
#include <vector>

#include "foundation/base64.h"
#include "fuzz.h"

namespace {

using Bytes = std::vector<unsigned char>;

template <class Encode, class Decode>
void check(const uint8_t* data, size_t size, Encode encode, Decode decode) {
    const std::string text = encode(data, size);
    require(decode(text.data(), text.size()) == Bytes(data, data + size));
    const Bytes decoded = decode(reinterpret_cast<const char*>(data), size);
    const std::string again = encode(decoded.data(), decoded.size());
    require(decode(again.data(), again.size()) == decoded);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    check(data, size, orv::base64Encode, orv::base64Decode);
    check(data, size, orv::base64EncodeURLSafe, orv::base64DecodeURLSafe);
    return 0;
}
