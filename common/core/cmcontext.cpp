#include "core/cmcontext.h"

namespace cm {

std::atomic<cm_context *> ctx_global{nullptr};
std::atomic<int32_t> ctx_refcount{0};

}  // namespace cm

int16_t cm_ctx_global(cm_context **out_ctx) {
    if (cm::ctx_refcount.load(std::memory_order_acquire) <= 0) return 0;
    cm_context *ctx = cm::ctx_global.load(std::memory_order_acquire);
    if (ctx == nullptr) return 0;
    if (out_ctx != nullptr) *out_ctx = ctx;
    return 1;
}
