// No bytes are a grant as they are. Signed with the trusted key they have the features of a plain file with these
// bytes, or none.
#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "fuzz.h"
#include "identity/orv_serial.h"
#include "unit/watch/grant_signer.h"
#include "watch/feature_source.h"

namespace {

// File is a file in memory with a path.
struct File {
    int fd = memfd_create("fuzz", MFD_CLOEXEC);
    std::string path = "/proc/self/fd/" + std::to_string(fd);

    void put(const std::string& content) const {
        require(ftruncate(fd, 0) == 0);
        require(pwrite(fd, content.data(), content.size(), 0) == static_cast<ssize_t>(content.size()));
    }
};

size_t featuresOf(FeatureSource source) {
    source.load();
    return source.features().size();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const File input, key;
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
