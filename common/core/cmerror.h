// Reporting inside the library: one line in the log for every failure.
#pragma once

#include "core/relaxed.h"
#include "tilvarcm.h"

namespace cm {

// Every message of the library is made in a buffer of this size.
constexpr int32_t kMessageSize = 1024;

// Formats a message and logs it, when there is no context or the context's trace level admits it.  With a null context
// it goes to the started context's log, else to the standard error stream.
void report(cm_context *ctx, int32_t level, const char *format, ...) CM_PRINTF(3, 4);

// Whether a message of that level would be written.
inline bool admits(const cm_context *ctx, int32_t level) {
    return ctx == nullptr || level <= load_relaxed(ctx->trace_level);
}

// Raises an alert of category "Networking": `subject` is the word, the text is formatted.
void alert(cm_context *ctx, const char *subject, const char *format, ...) CM_PRINTF(3, 4);

}  // namespace cm
