// 16-byte aligned heap storage for stream-buffer blocks and the body reader's scratch buffers.
//
// aligned_malloc over-allocates by 23 bytes, rounds the start up to a 16-byte boundary and keeps
// the start of the raw allocation in the 8 bytes just before the pointer it returns, so that
// aligned_free needs nothing but that pointer. Safe to call from any thread.
#pragma once

#include <cstddef>

namespace skerir {

// Returns `size` bytes aligned to 16, or null when malloc fails (or `size` is too large to
// add the 23 bytes of slack to).
void* aligned_malloc(size_t size);

// Frees storage from aligned_malloc. `p` must not be null.
void aligned_free(void* p);

namespace testing {

// Makes aligned_malloc return null, as if malloc had failed, for every request whose size
// satisfies `fail`; null restores normal allocation. For tests of the allocation-failure
// paths; never set outside tests.
void set_aligned_malloc_fault(bool (*fail)(size_t size));

}  // namespace testing
}  // namespace skerir
