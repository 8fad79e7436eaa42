// Texts from outside that small parsers of the library read: a configuration entry, a stored cipher text, a dotted
// address, a password salt.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "cmctx_config.h"
#include "net/address.h"

namespace {

void require(bool holds) {
    if (!holds) std::abort();
}

// "key=value", as section "common" has it.
void read_setting(const std::string &text) {
    cm_context *ctx = static_cast<cm_context *>(calloc(1, sizeof(cm_context)));
    cm::context::set_defaults(ctx);
    ctx->trace_level = 0;
    if (cm_mem_init(ctx, &ctx->common_pool, 1024) != 0 && cm_dns_init(ctx) != 0) {
        const size_t equals = text.find('=');
        const std::string key = text.substr(0, equals), value = equals == text.npos ? "" : text.substr(equals + 1);
        if (cm__prop_load(ctx, 0, key.c_str(), value.c_str()) != 0)
            require(ctx->idle_threads >= 3 && ctx->max_connections > 0 && ctx->max_threads > 0 &&
                    ctx->file_cache_size >= 0 && ctx->dns->timeout >= 5 && ctx->dns->ttl >= 0);
        cm_dns_exit(ctx);
    }
    cm_mem_exit(ctx->common_pool);
    free(ctx);
}

// What is encrypted comes back, and what was not encrypted here is refused.
void use_cipher(const std::string &text) {
    static cm_context *const ctx = [] {
        static cm_context made{};
        cm_mem_init(&made, &made.common_pool, 1024);
        cm_twowayinit(&made, "phrase");
        return &made;
    }();
    const int32_t length = static_cast<int32_t>(text.size());
    std::string out(text.size() * 2 + 26, 0), back(text.size() + 1, 0);
    int32_t sealed = 0, opened = 0;
    cm_twowaydecrypt(ctx, text.data(), length, back.data(), static_cast<int32_t>(back.size()), nullptr);
    require(cm_twowayencrypt(ctx, text.data(), length, out.data(), static_cast<int32_t>(out.size()), &sealed) == 1);
    require(cm_twowaydecrypt(ctx, out.data(), sealed, back.data(), static_cast<int32_t>(back.size()), &opened) == 1);
    require(opened == length && memcmp(back.data(), text.data(), text.size()) == 0);
}

void read_address(const std::string &text) {
    uint32_t address = 0;
    char again[cm::net::kDottedSize];
    if (!cm::net::parse_dotted(text, &address)) return;
    cm::net::format_dotted(address, again);
    require(text == again);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0 || size > 4096) return 0;
    const std::string text(reinterpret_cast<const char *>(data) + 1, size - 1);
    switch (data[0] % 4) {
        case 0:
            read_setting(text);
            break;
        case 1:
            use_cipher(text);
            break;
        case 2:
            read_address(text);
            break;
        default: {
            char out[14];
            cm_crypt("text", text.c_str(), out, sizeof out);
        }
    }
    return 0;
}
