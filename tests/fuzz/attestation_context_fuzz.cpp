// A context that is accepted has both areas of the key or none.
#include <string>

#include "agent/attestation_context.h"
#include "fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    AttestationContext context;
    if (context.parse(JSON::parse(std::string(reinterpret_cast<const char*>(data), size))))
        require(context.akPub.empty() == context.akPriv.empty());
    return 0;
}
