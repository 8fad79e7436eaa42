// The network log: opening and closing it, and its lines.
//
// A line is written through and carries no date.  Lines are serialised by the log's mutex, which stays until the
// context ends, so that a writer that saw the file open just before it closes finds out under the mutex.
#include "core/cmerror.h"
#include "core/cmthread.h"
#include "net/cmnet.h"

namespace cm::net {
namespace {

using platform::os;

constexpr int32_t kLineThrough = 1;  // cm_lwrite: no stamp, written at once
constexpr int32_t kWritersGraceMs = 1000;
constexpr int32_t kPathSize = 1024;

void write_line(cm_file *file, const char *format, va_list args) CM_PRINTF(2, 0);

void write_line(cm_file *file, const char *format, va_list args) {
    char line[kMessageSize];
    const int32_t length = cm_vsnprintf(line, sizeof line, format, args);
    cm_lwrite(file, line, length, 0, nullptr, kLineThrough);
}

bool open_log(cm_context *ctx) {
    if (ctx->net_log_mutex == nullptr && cm_create_mutex(ctx, &ctx->net_log_mutex) == 0) return false;
    char path[kPathSize];
    cm_file *file = nullptr;
    if (cm_build_path(ctx, ctx->log_dir, ctx->net_log_file, path, sizeof path, nullptr) == 0) return false;
    if (cm_fopen(ctx, path, CM_O_CREAT | CM_O_TRUNC | CM_O_RDWR | CM_O_BINARY, &file) == 0) return false;
    const MutexGuard lock(ctx->net_log_mutex);
    __atomic_store_n(&ctx->net_log, file, __ATOMIC_RELEASE);
    return true;
}

void close_log(cm_context *ctx) {
    os.sleep(kWritersGraceMs);
    const MutexGuard lock(ctx->net_log_mutex);
    cm_file *file = ctx->net_log;
    __atomic_store_n(&ctx->net_log, static_cast<cm_file *>(nullptr), __ATOMIC_RELEASE);
    cm_fclose(file);
}

bool log_open(const cm_context *ctx) {
    return __atomic_load_n(&ctx->net_log, __ATOMIC_ACQUIRE) != nullptr;
}

}  // namespace

void trace(cm_context *ctx, const char *format, ...) {
    if (ctx == nullptr || !log_open(ctx)) return;
    const MutexGuard lock(ctx->net_log_mutex);
    if (!log_open(ctx)) return;
    va_list args;
    va_start(args, format);
    write_line(ctx->net_log, format, args);
    va_end(args);
}

void trace_packet(cm_context *ctx, const Slice *slices, int32_t count, const char *format, ...) {
    if (ctx == nullptr || !log_open(ctx)) return;
    const MutexGuard lock(ctx->net_log_mutex);
    if (!log_open(ctx)) return;
    va_list args;
    va_start(args, format);
    write_line(ctx->net_log, format, args);
    va_end(args);
    if (load_relaxed(ctx->net_trace_level) < CM_NTRACE_STREAM) return;
    for (int32_t i = 0; i < count; i++)
        if (slices[i].length > 0)
            cm_hexwrite(ctx->net_log, ctx->net_log_mutex, slices[i].data, static_cast<int32_t>(slices[i].length));
}

}  // namespace cm::net

// At start-up the level is in the context already when this is called, so what counts is whether the file is open.
CM_API int16_t CM_CALL cm_net_trace(cm_context *ctx, int32_t level) {
    using namespace cm;
    if (ctx == nullptr) return 0;
    if (level > CM_NTRACE_NONE) {
        if (!net::log_open(ctx) && !net::open_log(ctx)) {
            store_relaxed(ctx->net_trace_level, int32_t{CM_NTRACE_NONE});
            report(ctx, CM_ERROR, "Unable to open the network log file: %s", ctx->net_log_file);
            return 0;
        }
        store_relaxed(ctx->net_trace_level, level);
        return 1;
    }
    store_relaxed(ctx->net_trace_level, int32_t{CM_NTRACE_NONE});
    if (net::log_open(ctx)) net::close_log(ctx);
    return 1;
}
