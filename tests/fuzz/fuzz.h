// fuzz.h: what all fuzz targets share.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>

// LLVMFuzzerTestOneInput runs the target on one input.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

// require ends the process, as a crash does, when a property doesn't hold.
inline void require(bool property) {
    if (!property)
        abort();
}
