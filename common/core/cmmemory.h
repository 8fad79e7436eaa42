// Memory inside the library: allocations that outlive start-up, and what the containers need beyond cm_mem_alloc.
#pragma once

#include <stddef.h>

#include "tilvarcm.h"

namespace cm {

// A piece of `common_pool`.  The pool has no lock of its own and is written at any time (file handles, push-back
// buffers, scheduler tasks), so everything after start-up's first steps takes its pieces here, under the file mutex.
// Like cm_mem_alloc, without a context or pool it is the standard allocator.
void *shared_allocate(cm_context *ctx, uint32_t size);

// A copy of a text in `common_pool`, as cm_mem_savestr makes it (an empty text is none).
bool shared_text(cm_context *ctx, const char *text, int32_t length, const char **out_text, int32_t *out_length);

// A piece of the network state's pool, under its table mutex.
void *shared_allocate(cm_net_state *state, uint32_t size);

// A zeroed piece of a pool, or of the standard allocator without one, failing as cm_mem_alloc fails.  A size that does
// not fit 32 bits fails like any other that there is no memory for.
void *allocate_zeroed(cm_mem_pool *pool, uint64_t size);

}  // namespace cm
