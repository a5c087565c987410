// Whatever the file holds, each feature taken from it has a name and an entry that prints as JSON.
#include <string>

#include "memory_file.h"
#include "watch/feature_source.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const MemoryFile file;
    file.put(std::string(reinterpret_cast<const char*>(data), size));
    FeatureSource source(file.path, "installed");
    source.load();
    for (const Feature& feature : source.features()) {
        require(!feature.name.empty());
        require(JSON::parse(feature.text) != nullptr);
    }
    return 0;
}
