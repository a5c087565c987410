// No bytes are a grant as they are. Signed with the trusted key they have the features of a plain file with these
// bytes, or none.
#include <string>

#include "identity/orv_serial.h"
#include "memory_file.h"
#include "unit/watch/grant_signer.h"
#include "watch/feature_source.h"

namespace {

size_t featuresOf(FeatureSource source) {
    source.load();
    return source.features().size();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const MemoryFile input, key;
    ORVSerial::ms_strSerialNumber = "0000abcd";
    ORVSerial::ms_bHasSerialNumber = true;
    const std::string content(reinterpret_cast<const char*>(data), size);
    key.put(signer::publicPEM(signer::keyOf("P-256")));
    input.put(content);
    const size_t plain = featuresOf(FeatureSource(input.path, "installed"));
    require(featuresOf(FeatureSource(input.path, "granted", key.path)) == 0);
    input.put(signer::grant(content));
    const size_t granted = featuresOf(FeatureSource(input.path, "granted", key.path));
    require(granted == 0 || granted == plain);
    return 0;
}
