// json_pool.h: the memory of JSON values, for this folder only.
//
// A document is many small values that come and go together. They are cut from slabs in a row; a slab goes back to the
// heap as a whole when its last value is gone. That nearly halves the time to read and destroy a large document, as
// against a heap block for each value. The first slabs have 1000 bytes, those of a large document 4000, so that neither
// a few values nor one survivor of a document cost much.
//
// Values may be destroyed on any thread. A thread without values keeps no slab beyond its end, and none at all if it
// destroyed them itself.
#pragma once

#include <cstddef>

// jsonPoolAllocate returns memory for a value of `size` bytes, aligned as a pointer is. Throws `std::bad_alloc`.
void* jsonPoolAllocate(std::size_t size);

// jsonPoolRelease takes the memory of a value back.
void jsonPoolRelease(void* value);
