// How opening, closing and examining files reach the file cache, which stands above them.
//
// The cache hands its table over when it starts; until then, and in a process without a cache, there is none.  A table
// stays valid for the rest of the process.
#pragma once

#include <stdint.h>

#include <atomic>

#include "core/relaxed.h"
#include "tilvarcm.h"

namespace cm::files {

struct CacheHook {
    int16_t (*open)(cm_context *ctx, cm_file *handle, int32_t flags, int16_t *hit);
    int16_t (*close)(cm_context *ctx, cm_file *handle);
    int16_t (*age)(cm_context *ctx, cm_file *handle);
    int16_t (*stat)(cm_context *ctx, const char *path, cm_stat_rec *record);
};

extern std::atomic<const CacheHook *> cache_hook;

// The hook when the context's cache of files is enabled (an address cache alone is none), else null.
inline const CacheHook *enabled_cache(const cm_context *ctx) {
    if (ctx == nullptr || load_relaxed(ctx->file_cache) == nullptr || ctx->file_cache_size < 1) return nullptr;
    return cache_hook.load(std::memory_order_acquire);
}

}  // namespace cm::files
