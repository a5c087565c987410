// Any bytes survive signing and verifying; and any text that verifies has an object as its header, gives the same
// payload in both forms, and doesn't verify under another header.
#include <string>
#include <vector>

#include "foundation/string_utils.h"
#include "fuzz.h"
#include "jose/jws.h"

namespace {

jwa::Key makeKey() {  // the key of RFC 7515, A.3.1, as RFC 5915 has it
    const std::vector<unsigned char> der = fromBase16(
        "307702010104208e9b109e719098bf980487df1f5d77e9cb29606ebed2263b5f57c213df84f4b2a00a06082a8648ce3d030107a1440342"
        "00047fcdce2770f6c45d4183cbee6fdb4b7b580733357be9ef13bacf6e3c7bd15445c7f144cd1bbd9b7e872cdfedb9eeb9f4b3695d6ea9"
        "0b24ad8a4623288588e5ad");
    jwa::Key key;
    key.loadPrivateKeyDER(jwa::ES256, der.data(), static_cast<int>(der.size()));
    return key;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const jwa::Key key = makeKey();
    static const JSON::root es256 = JSON::parse(R"({"alg":"ES256"})");
    const std::string text(reinterpret_cast<const char*>(data), size);
    JSON::root header, document = jws::getPayload(text);
    std::string payload;
    std::vector<unsigned char> bytes;
    const bool verified = jws::verify(text, header, payload, key);
    require(jws::verify(text, header, bytes, key) == verified);
    require(std::string(bytes.begin(), bytes.end()) == payload);
    require(!verified || (jws::getJOSEHeader(text) && header->type == JSON::ObjectType));
    require(!verified || text.starts_with("e30.") ||
            !jws::verify("e30." + text.substr(text.find('.') + 1), header, payload, key));
    require(jws::verify(jws::sign(es256.get(), text, key), header, payload, key) && payload == text);
    return 0;
}
