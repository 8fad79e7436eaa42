// Names and addresses: the resolver's settings, and look-ups through cache, files, hook and server or system.
#include <string.h>

#include "core/cmerror.h"
#include "core/cmmemory.h"
#include "core/cmstring.h"
#include "net/address.h"
#include "net/cmdns.h"
#include "platform/platform.h"

using cm::platform::os;

namespace cm::dns {
namespace {

constexpr int32_t kPathSize = 1024;
constexpr int32_t kSystemNameSize = 60 + 1;  // a name from the system is cut to 60 characters

void parse_server(cm_context *ctx, const char *rank, const char *text, uint32_t *out_server) {
    if (text == nullptr) return;
    *out_server = 0;
    if (!net::parse_dotted(text, out_server))
        report(ctx, CM_WARN, "DNS %s Server is not a valid IP address: %s", rank, text);
}

// A file that cannot be created (no configuration directory yet) is simply not there.
void create_when_missing(const char *path, std::string_view first_line) {
    int32_t descriptor;
    if (os.path_access(path, CM_ACCESS_EXISTS) == 0) return;
    if (os.file_open(path, CM_O_WRONLY | CM_O_CREAT | CM_O_EXCL | CM_O_BINARY, &descriptor) != 0) return;
    size_t written = 0;
    os.file_write(descriptor, first_line.data(), first_line.size(), &written);
    os.file_close(descriptor);
}

bool prepare_file(cm_context *ctx, const char *name, std::string_view first_line, const char **out_path) {
    char path[kPathSize];
    if (name == nullptr) return true;
    if (cm_build_path(ctx, ctx->config_dir, name, path, sizeof path, nullptr) == 0) return false;
    create_when_missing(path, first_line);
    return shared_text(ctx, path, CM_LEN_TEXT, out_path, nullptr);
}

// Only digits and dots, and no dot at the end: callers parse addresses themselves.
bool is_numeric(const char *name) {
    if (!is_digit(*name)) return false;
    const size_t length = strspn(name, "0123456789.");
    return name[length] == 0 && name[length - 1] != '.';
}

// ---- addresses of a name --------------------------------------------------------------------------------------------

bool cache_is_on(const cm_context *ctx) {
    return ctx != nullptr && ctx->cache_dns_interval > 0 && load_relaxed(ctx->file_cache) != nullptr;
}

bool take_hook(cm_context *ctx, const char *name, uint32_t *out_address) {
    const cm_dns_state *state = ctx->dns;
    return state->hook != nullptr && state->hook(ctx, state->hook_argument, name, out_address) == 1;
}

bool take_local(cm_context *ctx, const char *name, Answer *out) {
    if (ctx == nullptr || ctx->dns == nullptr) return false;
    out->count = 1;
    return hosts_address(ctx, name, &out->addresses[0]) || take_hook(ctx, name, &out->addresses[0]);
}

bool take_system(const char *name, Answer *out) {
    int32_t count = 0;
    if (os.host_by_name(name, out->addresses, &count) != 0 || count < 1) return false;
    out->count = static_cast<size_t>(count) < kMostResults ? static_cast<size_t>(count) : kMostResults;
    return true;
}

bool take_server(cm_context *ctx, const char *name, Answer *out) {
    return ctx != nullptr && ask(ctx, name, kTypeA, out);
}

bool find_addresses(cm_context *ctx, const char *name, bool local_only, bool own_resolver, uint32_t (&out)[4]) {
    const bool cached = cache_is_on(ctx);
    if (cached && cm_cache_getaddr(ctx, name, &out[0], &out[1], &out[2]) != 0) return true;
    Answer answer;
    if (!take_local(ctx, name, &answer)) {
        if (local_only) return false;
        if (!(own_resolver ? take_server(ctx, name, &answer) : take_system(name, &answer))) return false;
    }
    memcpy(out, answer.addresses, answer.count * sizeof out[0]);
    if (cached) cm_cache_setaddr(ctx, name, out[0], out[1], out[2]);
    return true;
}

// ---- name of an address ---------------------------------------------------------------------------------------------

bool name_from_system(uint32_t address, char *out_name) {
    char name[kNameSize];
    if (os.host_by_address(address, name, sizeof name) != 0) return false;
    const int32_t length = cm_strncpy(out_name, name, kSystemNameSize);
    return is_host_name({out_name, static_cast<size_t>(length)});
}

// Kept: the bytes of the address stand in the question as they stand in its text, not turned round.
bool name_from_server(cm_context *ctx, uint32_t address, char *out_name) {
    char dotted[net::kDottedSize], question[net::kDottedSize + sizeof ".in-addr.arpa"];
    net::format_dotted(address, dotted);
    cm_snprintf(question, sizeof question, "%s.in-addr.arpa", dotted);
    Answer answer;
    if (!ask(ctx, question, kTypePtr, &answer)) return false;
    memcpy(out_name, answer.names[0], kNameSize);
    return true;
}

bool find_name(cm_context *ctx, uint32_t address, bool local_only, bool own_resolver, char *out_name) {
    if (ctx != nullptr && ctx->dns != nullptr && hosts_name(ctx, address, out_name)) return true;
    if (local_only) return false;
    if (!own_resolver) return name_from_system(address, out_name);
    return ctx != nullptr && name_from_server(ctx, address, out_name);
}

bool find_exchangers(cm_context *ctx, const char *domain, bool local_only, Answer *out) {
    if (ctx == nullptr || ctx->dns == nullptr) return false;
    return hosts_exchangers(ctx, domain, out) || (!local_only && ask(ctx, domain, kTypeMx, out));
}

}  // namespace
}  // namespace cm::dns

using namespace cm::dns;

int16_t cm_dns_init(cm_context *ctx) {
    if (ctx == nullptr) return 0;
    auto *state = static_cast<State *>(cm::shared_allocate(ctx, sizeof(State)));
    if (state == nullptr) return 0;
    *state = {};
    state->ttl = 3600;
    state->timeout = 90;
    state->hosts_name = "hosts";
    state->mx_name = "mxhosts";
    if (cm_create_mutex(ctx, &state->mutex) == 0) return 0;
    ctx->dns = state;
    return 1;
}

int16_t cm_dns_optimize(cm_context *ctx) {
    if (ctx == nullptr || ctx->dns == nullptr) return 0;
    cm_dns_state *const state = ctx->dns;
    // A configured secondary takes the place of the primary: servers rely on it, and the alternate stays empty.
    parse_server(ctx, "Primary", state->primary_text, &state->primary);
    parse_server(ctx, "Secondary", state->secondary_text, &state->primary);
    return prepare_file(ctx, state->hosts_name, "# hosts\n", &state->hosts_path) &&
           prepare_file(ctx, state->mx_name, "# mxhosts\n", &state->mx_path);
}

int16_t cm_dns_exit(cm_context *ctx) {
    if (ctx == nullptr) return 0;
    if (ctx->dns == nullptr) return 1;
    forget_records(state_of(ctx));
    cm_delete_mutex(ctx->dns->mutex);
    ctx->dns = nullptr;
    return 1;
}

int16_t cm_dns_gethostaddr(cm_context *ctx, const char *name, int16_t local_only, int16_t own_resolver,
                           uint32_t *out_address1, uint32_t *out_address2, uint32_t *out_address3,
                           uint32_t *out_address4) {
    uint32_t found[kMostResults] = {CM_INADDR_NONE, CM_INADDR_NONE, CM_INADDR_NONE, CM_INADDR_NONE};
    const bool any = name != nullptr && *name != 0 && !is_numeric(name) &&
                     find_addresses(ctx, name, local_only != 0, own_resolver != 0, found);
    uint32_t *const outs[kMostResults] = {out_address1, out_address2, out_address3, out_address4};
    for (size_t i = 0; i < kMostResults; i++)
        if (outs[i] != nullptr) *outs[i] = any ? found[i] : CM_INADDR_NONE;
    return any ? 1 : 0;
}

int16_t cm_dns_gethostname(cm_context *ctx, uint32_t address, int16_t local_only, int16_t own_resolver,
                           char *out_name) {
    if (out_name == nullptr) return 0;
    if (find_name(ctx, address, local_only != 0, own_resolver != 0, out_name)) return 1;
    *out_name = 0;
    return 0;
}

int16_t cm_dns_gethostmx(cm_context *ctx, const char *domain, int16_t local_only, char *out_best, char *out_second,
                         char *out_third, char *out_fourth) {
    Answer answer;
    answer.count = 0;
    const bool any = domain != nullptr && *domain != 0 && !is_numeric(domain) &&
                     find_exchangers(ctx, domain, local_only != 0, &answer);
    char *const outs[kMostResults] = {out_best, out_second, out_third, out_fourth};
    for (size_t i = 0; i < kMostResults; i++)
        if (outs[i] != nullptr) cm_strncpy(outs[i], any && i < answer.count ? answer.names[i] : "", kNameSize);
    return any ? 1 : 0;
}
