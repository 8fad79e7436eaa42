// Alerts: what an operator must see.  The last 200 are kept in a ring, and each is handed to the application's handler.
#include <string.h>

#include <algorithm>
#include <string_view>

#include "core/cmerror.h"
#include "core/cmmemory.h"
#include "core/cmthread.h"
#include "core/relaxed.h"

namespace cm::alerts {
namespace {

constexpr int32_t kNetworking = 1;
constexpr const char *kCategories[] = {"Undefined", "Networking", "SMTP", "POP3", "IMAP4", "Mail Router",
                                       "HTTP",      "FTP",        "DBMS", "DHCP", "DNS",   "Alert Daemon"};

// A handler that raises an alert is called again for it, but not without end.
constexpr int32_t kMaxHandlerDepth = 5;
thread_local int32_t t_handler_depth = 0;

const char *category_name(int32_t category) {
    const bool known = category > 0 && category < static_cast<int32_t>(std::size(kCategories));
    return kCategories[known ? category : 0];
}

// Slots are not cleared: a subject gets no terminator and keeps what an older, longer one left behind it.  Its last
// byte is never written, so it always ends.
void fill(cm_alert_slot *slot, uint32_t now, int32_t category, std::string_view subject, std::string_view message) {
    slot->time = now;
    slot->category = category;
    memcpy(slot->subject, subject.data(), std::min(subject.size(), sizeof slot->subject - 1));
    const size_t kept = std::min(message.size(), sizeof slot->message - 1);
    memcpy(slot->message, message.data(), kept);
    slot->message[kept] = '\0';
}

int32_t connection_count(cm_context *ctx) {
    const cm_net_state *state = load_relaxed(ctx->net_table);
    if (state == nullptr) return 0;
    const MutexGuard guard(state->table_mutex);
    return state->open_count;
}

void call_handler(cm_context *ctx, int32_t category, const char *subject, const char *message) {
    const cm_alert_fn handler = load_relaxed(ctx->alert_handler);
    if (handler == nullptr || t_handler_depth >= kMaxHandlerDepth) return;
    char timestamp[64] = "";
    cm_timestamp(nullptr, timestamp, sizeof timestamp, nullptr);
    const cm_alert alert = {timestamp, category_name(category), subject,
                            message,   connection_count(ctx),   thread::count(ctx)};
    t_handler_depth++;
    handler(ctx, &alert);
    t_handler_depth--;
}

}  // namespace
}  // namespace cm::alerts

using namespace cm;
using namespace cm::alerts;

int16_t cm_alerts_init(cm_context *ctx) {
    if (ctx == nullptr) return 0;
    if (ctx->alert_table != nullptr) return 1;
    auto *ring = static_cast<cm_alert_ring *>(shared_allocate(ctx, sizeof(cm_alert_ring)));
    if (ring == nullptr) return 0;
    ring->ctx = ctx;
    if (cm_create_mutex(ctx, &ring->mutex) == 0) return 0;
    store_relaxed(ctx->alert_table, ring);
    return 1;
}

int16_t cm_alerts_exit(cm_context *ctx) {
    if (ctx == nullptr) return 0;
    cm_alert_ring *ring = ctx->alert_table;
    if (ring == nullptr) return 1;
    store_relaxed(ctx->alert_table, static_cast<cm_alert_ring *>(nullptr));
    cm_delete_mutex(ring->mutex);
    ring->mutex = nullptr;
    return 1;
}

// Kept for callers that still have them: an application sets the context's `alert_handler` itself.
int16_t cm_alert_register(cm_context *, ...) {
    return 1;
}
int16_t cm_alert_deregister(cm_context *, ...) {
    return 1;
}

void cm_alert_notify(cm_context *ctx, int32_t category, const char *subject, const char *message) {
    cm_alert_ring *ring = ctx == nullptr ? nullptr : load_relaxed(ctx->alert_table);
    if (ring == nullptr) return;
    if (subject == nullptr) subject = "";
    if (message == nullptr) message = "";
    const uint32_t now = cm_cursec(nullptr);
    if (cm_take_mutex(ring->mutex) == 0) return;
    ring->last = ring->last >= CM_ALERT_SLOTS ? 1 : ring->last + 1;
    if (ring->count < CM_ALERT_SLOTS) ring->count++;
    fill(&ring->slot[ring->last - 1], now, category, subject, message);
    cm_release_mutex(ring->mutex);
    call_handler(ctx, category, subject, message);
}

namespace cm {

void alert(cm_context *ctx, const char *subject, const char *format, ...) {
    char message[kMessageSize];
    va_list args;
    va_start(args, format);
    cm_vsnprintf(message, sizeof message, format, args);
    va_end(args);
    cm_alert_notify(ctx, kNetworking, subject, message);
}

}  // namespace cm
