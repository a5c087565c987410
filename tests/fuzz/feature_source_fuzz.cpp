// Whatever the file holds, each feature taken from it has a name and an entry that prints as JSON.
#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "fuzz.h"
#include "watch/feature_source.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const int file = memfd_create("features", MFD_CLOEXEC);
    require(ftruncate(file, 0) == 0 && pwrite(file, data, size, 0) == static_cast<ssize_t>(size));
    FeatureSource source("/proc/self/fd/" + std::to_string(file), "installed");
    source.load();
    for (const Feature& feature : source.features()) {
        require(!feature.name.empty());
        require(JSON::parse(feature.text) != nullptr);
    }
    return 0;
}
