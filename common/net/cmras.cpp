// The dial-up line: one for the process, dialled when a connection needs it and hung up by a task once nobody does.
#include "net/cmras.h"
#include "core/cmerror.h"
#include "core/cmthread.h"
#include "net/dialup_hook.h"
#include "platform/platform.h"

namespace cm::dialup {
namespace {

using platform::Error;
using platform::Line;
using platform::os;

constexpr char kTask[] = "Dial-On-Demand Timer";
constexpr char kEveryMinute[] = "* * * * *";
constexpr int32_t kTaskOfLibrary = 101;  // origin of tasks that no configuration file names
constexpr int32_t kReasonSize = 256;

// In the context's `ras`; the fields below the mutex are under it, also while it dials, so that whoever comes meanwhile
// waits for the same line.
struct State {
    cm_mutex *mutex;
    Line *line;         // null: not dialled
    int32_t users;      // connections that were opened over it
    int64_t change_ms;  // when one was last opened or closed
};

const net::Dialup kHook = {cm_ras_dialup, cm_ras_hangup, cm_ras_checkstatus};

State *state_of(const cm_context *ctx) {
    return ctx == nullptr ? nullptr : static_cast<State *>(ctx->ras);
}

const char *text(const char *setting) {
    return setting == nullptr ? "" : setting;
}

void trace(cm_context *ctx, const char *what) {
    if ((load_relaxed(ctx->flags) & CTX_DIAL_TRACE) != 0)
        report(ctx, CM_INFO, "Dial-On-Demand: %s '%s'", what, text(ctx->dial_entry));
}

void hang_up(cm_context *ctx, State *state) {
    if (state->line == nullptr) return;
    os.line_hang_up(state->line);
    state->line = nullptr;
    trace(ctx, "Disconnected from");
}

bool is_up(cm_context *ctx, State *state) {
    if (state->line != nullptr && !os.line_connected(state->line)) hang_up(ctx, state);
    return state->line != nullptr;
}

bool dial(cm_context *ctx, State *state) {
    trace(ctx, "Dialing");
    const Error error =
        os.line_dial(text(ctx->dial_entry), text(ctx->dial_user), text(ctx->dial_password), &state->line);
    if (error == 0) {
        trace(ctx, "Connected to");
        return true;
    }
    state->line = nullptr;
    if (error == platform::kNotSupported) {
        report(ctx, CM_ERROR, "cm_ras_dialup() There are no dial-up lines on this system.");
        return false;
    }
    char reason[kReasonSize];
    os.line_error_text(error, reason, sizeof reason);
    report(ctx, CM_ERROR, "cm_ras_dialup() Unable to dial '%s': %s [%ld]", text(ctx->dial_entry), reason,
           static_cast<long>(error));
    return false;
}

bool start(cm_context *ctx) {
    auto *state = static_cast<State *>(os.allocate_zeroed(sizeof(State)));
    if (state == nullptr) return false;
    if (cm_create_mutex(ctx, &state->mutex) == 0) {
        os.release(state);
        return false;
    }
    ctx->ras = state;
    return cm_cron_task(ctx, kTask, look_after_line, 0, kTaskOfLibrary, 1, kEveryMinute) != 0;
}

void stop(cm_context *ctx, State *state) {
    hang_up(ctx, state);
    cm_delete_mutex(state->mutex);
    os.release(state);
    ctx->ras = nullptr;
}

}  // namespace

int16_t CM_CALL look_after_line(cm_context *ctx, const char *, cm_value) {
    State *state = state_of(ctx);
    if (state == nullptr) return 1;
    const MutexGuard guard(state->mutex);
    if (!is_up(ctx, state)) return 1;
    const int32_t limit = state->users > 0 ? ctx->dial_busy_timeout : ctx->dial_timeout;
    if (os.monotonic_ms() - state->change_ms >= int64_t{limit} * 1000) hang_up(ctx, state);
    return 1;
}

}  // namespace cm::dialup

using namespace cm::dialup;

CM_API int16_t CM_CALL cm_ras_init(cm_context *ctx) {
    if (ctx == nullptr) return 0;
    cm::net::dialup = &kHook;
    if ((ctx->flags & CTX_DIAL_ON_DEMAND) == 0 || ctx->ras != nullptr) return 1;
    if (start(ctx)) return 1;
    cm_ras_exit(ctx);
    cm::report(ctx, CM_ERROR, "cm_ras_init() Unable to start dial-on-demand.");
    return 0;
}

CM_API int16_t CM_CALL cm_ras_exit(cm_context *ctx) {
    if (ctx == nullptr) return 0;
    if (State *state = state_of(ctx)) stop(ctx, state);
    cm::net::dialup = nullptr;
    return 1;
}

CM_API int16_t CM_CALL cm_ras_dialup(cm_context *ctx) {
    State *state = state_of(ctx);
    if (state == nullptr) return 0;
    const cm::MutexGuard guard(state->mutex);
    if (!is_up(ctx, state) && !dial(ctx, state)) return 0;
    state->users++;
    state->change_ms = os.monotonic_ms();
    return 1;
}

CM_API int16_t CM_CALL cm_ras_hangup(cm_context *ctx) {
    State *state = state_of(ctx);
    if (state == nullptr) return 0;
    const cm::MutexGuard guard(state->mutex);
    if (state->users == 0) return 0;
    state->users--;
    state->change_ms = os.monotonic_ms();
    return 1;
}

CM_API int16_t CM_CALL cm_ras_checkstatus(cm_context *ctx) {
    State *state = state_of(ctx);
    if (state == nullptr) return 0;
    const cm::MutexGuard guard(state->mutex);
    return is_up(ctx, state) ? 1 : 0;
}
