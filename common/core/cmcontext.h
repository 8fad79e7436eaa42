// The started library: the state that is one per process.
#pragma once

#include <atomic>

#include "tilvarcm.h"

namespace cm {

// Both are written by cm_ctx_init and cm_ctx_exit alone, on the main thread.  Other threads reach the context through
// cm_ctx_global, so the block is complete enough to use before it is published here.
extern std::atomic<cm_context *> ctx_global;
extern std::atomic<int32_t> ctx_refcount;

}  // namespace cm
