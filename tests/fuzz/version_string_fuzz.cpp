// A version prints as a text that reads as the same version, no version is below itself, and merging keeps one version
// per major number.
#include <string>

#include "foundation/version_string.h"
#include "fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const VersionString version(text);
    require(VersionString(version.toString()).components == version.components);
    require(!(version < version));
    const VersionStringCollection collection(text);
    require(collection.toString().empty() ||
            VersionStringCollection(collection.toString()).toString() == collection.toString());
    return 0;
}
