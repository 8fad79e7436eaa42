// The log: one line for every message, in one file for the whole process, and the two error helpers.
//
// A log file is a ring of lines: after as many as its limit says, the next one goes to the top of the file again. Lines
// gather in the file's own buffer of 1024 bytes and go out in one write.  The line writer speaks to the descriptor
// itself and reports nothing: the opener and the writer of files report through this log, and a full disk would
// otherwise be told about for ever.
#include "core/cmerror.h"

#include <string.h>

#include <algorithm>

#include "core/cmstamp.h"
#include "core/cmstring.h"
#include "core/cmthread.h"
#include "core/relaxed.h"
#include "platform/platform.h"

namespace cm::log {
namespace {

using platform::os;

constexpr int32_t kBufferSize = 1024;
constexpr size_t kComposedSize = 1024;  // a line of cm_log before the writer clips it
constexpr size_t kClip = 992;           // kept: longer lines are cut without notice
constexpr int32_t kRegularFile = 1;     // kind of a cm_file
constexpr int32_t kWriteThrough = 1, kStamp = 2;
constexpr int32_t kMaxErrorDepth = 5;
constexpr std::string_view kStandardErrorPrefix = "Tilvar Server Error: ";

std::string_view level_prefix(int32_t level) {
    switch (level) {
        case CM_FATAL:
            return "FATAL: ";
        case CM_ERROR:
            return "ERROR: ";
        case CM_WARN:
            return "WARN:  ";
        case CM_INFO:
            return "INFO:  ";
        case CM_TRACE:
            return "TRACE: ";
        default:
            return "UNKN:  ";
    }
}

// One write, so that what several threads say stays apart, unless the text is longer than any message.
void tell(std::string_view head, std::string_view text, std::string_view tail) {
    char line[2 * kBufferSize];
    if (head.size() + text.size() + tail.size() > sizeof line) {
        os.write_standard_error(head.data(), head.size());
        os.write_standard_error(text.data(), text.size());
        os.write_standard_error(tail.data(), tail.size());
        return;
    }
    char *end = std::copy(head.begin(), head.end(), line);
    end = std::copy(text.begin(), text.end(), end);
    end = std::copy(tail.begin(), tail.end(), end);
    os.write_standard_error(line, static_cast<size_t>(end - line));
}

// On the standard error stream a text ends at its first NUL, whatever length came with it.
std::string_view up_to_nul(std::string_view text) {
    return {text.data(), text.empty() ? 0 : strnlen(text.data(), text.size())};
}

// ---- the line writer; all of it under the log's mutex ---------------------------------------------------------------

bool writable(const cm_file *file) {
    return load_relaxed(file->open_mark) != 0 && file->kind == kRegularFile && file->own_buffer != nullptr;
}

void write_out(cm_file *file) {
    if (file->fill <= 0) return;
    size_t written = 0;
    (void)os.file_write(file->descriptor, file->own_buffer, static_cast<size_t>(file->fill), &written);
    file->fill = 0;
}

// The old text beyond the new lines stays: the file is not cut.
void start_over(cm_file *file) {
    int64_t position = 0;
    (void)os.file_seek(file->descriptor, 0, CM_SEEK_START, &position);
    file->lines = 0;
}

void put(cm_file *file, std::string_view text) {
    if (!text.empty()) memcpy(file->own_buffer + file->fill, text.data(), text.size());
    file->fill += static_cast<int32_t>(text.size());
}

// `stamp` and `head` stand before the text; the clip counts `head` and the text.  The room for the line feed is asked
// for also when the text has one of its own.
void append(cm_file *file, std::string_view stamp, std::string_view head, std::string_view text, int32_t size_limit,
            bool write_through) {
    text = {text.data(), std::min(text.size(), kClip - head.size())};
    const size_t length = stamp.size() + head.size() + text.size();
    const bool at_limit = size_limit != 0 && file->lines >= size_limit;
    if (at_limit || write_through || static_cast<size_t>(file->fill) + length + 1 > kBufferSize) write_out(file);
    if (at_limit) start_over(file);
    put(file, stamp);
    put(file, head);
    put(file, text);
    if (text.empty() || text.back() != '\n') put(file, "\n");
    if (write_through) write_out(file);
    if (file->lines < INT32_MAX) file->lines++;
}

bool flushes_always(const cm_file *file) {
    return file->ctx != nullptr && (load_relaxed(file->ctx->flags) & CTX_FLUSH_LOGS) != 0;
}

}  // namespace
}  // namespace cm::log

using namespace cm;
using namespace cm::log;

int16_t cm_lwrite(cm_file *file, const char *text, int32_t length, int32_t size_limit, cm_mutex *mutex, int32_t mode) {
    if (file == nullptr) {
        const std::string_view shown = up_to_nul(view(text, length));
        if (length == CM_LEN_TEXT)
            tell({}, shown, {});
        else
            tell({}, {shown.data(), std::min(shown.size(), size_t{kBufferSize})}, "\n");
        return 0;
    }
    if (load_relaxed(file->open_mark) == 0) return 0;
    const std::string_view line = view(text, length);
    const MutexGuard guard(mutex);
    if (!writable(file)) return 0;  // a rotation may have closed it meanwhile
    if (line.empty()) {
        if (text == nullptr && length > 0) return 0;
        if ((mode & kWriteThrough) != 0) write_out(file);
        return 1;
    }
    char stamp[time::kStampLength + 1];
    const size_t stamp_length = (mode & kStamp) != 0 ? time::log_stamp(stamp) : 0;
    append(file, {stamp, stamp_length}, {}, line, size_limit, (mode & kWriteThrough) != 0 || flushes_always(file));
    return 1;
}

void cm_log(cm_context *ctx, int32_t level, const char *text, int32_t length) {
    if (ctx == nullptr && cm_ctx_global(&ctx) == 0) {
        tell(kStandardErrorPrefix, up_to_nul(view(text, length)), "\n");
        return;
    }
    if (level > load_relaxed(ctx->trace_level)) return;
    cm_file *file = load_relaxed(ctx->log_file);
    if (file == nullptr) {
        tell(kStandardErrorPrefix, up_to_nul(view(text, length)), "\n");
        return;
    }
    const std::string_view prefix = level_prefix(level);
    char head[time::kStampLength + 1 + 7];
    size_t head_length = time::log_stamp(head);
    memcpy(head + head_length, prefix.data(), prefix.size());
    head_length += prefix.size();
    std::string_view line = view(text, length);
    line = {line.data(), std::min(line.size(), kComposedSize - head_length)};
    const MutexGuard guard(load_relaxed(ctx->log_mutex));
    if (writable(file)) append(file, {}, {head, head_length}, line, ctx->log_size, true);
}

int16_t cm_raise_error(cm_context *ctx, const char *source_file, int32_t source_line, const char *text) {
    if (source_file == nullptr) source_file = "";
    if (text == nullptr) text = "";
    const bool recursive = ctx != nullptr && add_relaxed(ctx->error_depth, 1) > kMaxErrorDepth;
    report(ctx, CM_ERROR, recursive ? "Recursive error message: %s [%s(%d)]" : "%s [%s(%d)]", text, source_file,
           source_line);
    if (ctx != nullptr) store_relaxed(ctx->error_depth, 0);
    return recursive ? 0 : 1;
}

int16_t cm_return_trace(int16_t status, const char *where, int32_t line) {
    cm_context *ctx = nullptr;
    if (status == 0 && cm_ctx_global(&ctx) != 0)
        report(ctx, CM_ERROR, "%s (%d) FAIL\n", where == nullptr ? "" : where, line);
    return status;
}

namespace cm {

void report(cm_context *ctx, int32_t level, const char *format, ...) {
    if (!admits(ctx, level)) return;
    char message[kMessageSize];
    va_list args;
    va_start(args, format);
    const int32_t length = cm_vsnprintf(message, sizeof message, format, args);
    va_end(args);
    cm_log(ctx, level, message, length);
}

}  // namespace cm
