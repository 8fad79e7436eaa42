// The settings of section "common": their defaults, and one table of what each key stores and what a bad value does.
#include "cmctx_config.h"

#include <stddef.h>

#include <limits>
#include <span>

#include "core/cmerror.h"
#include "core/cmmemory.h"
#include "core/cmstring.h"

namespace cm::context {

namespace {

constexpr int32_t kNone = std::numeric_limits<int32_t>::min();

struct Word {
    std::string_view text;
    int32_t value;
};

constexpr Word kNetTraceLevels[] = {{"NONE", CM_NTRACE_NONE},
                                    {"OPENCLOSE", CM_NTRACE_OPENCLOSE},
                                    {"PACKETS", CM_NTRACE_PACKETS},
                                    {"SSL", CM_NTRACE_SSL},
                                    {"STREAM", CM_NTRACE_STREAM}};
constexpr Word kTraceLevels[] = {
    {"FATAL", CM_FATAL}, {"ERROR", CM_ERROR}, {"WARN", CM_WARN}, {"INFO", CM_INFO}, {"TRACE", CM_TRACE}};

enum class Kind : uint8_t { kNumber, kText, kFlag, kWord, kIgnored };
enum class Block : uint8_t { kContext, kResolver };

constexpr size_t kNoField = 0;  // the first field of the block has no key

struct Key {
    std::string_view name;
    Kind kind = Kind::kIgnored;
    Block block = Block::kContext;
    size_t offset = kNoField;

    // Numbers: a value below `fails_below` is stored and fails the load, else one below `raised_below` is replaced.
    int32_t fails_below = kNone;
    int32_t raised_below = kNone;
    int32_t raised_to = 0;

    // Texts.
    size_t length_offset = kNoField;
    bool keeps_default = false;  // an empty value is ignored

    // Flags.
    uint32_t bit = 0;
    bool strict = false;  // a value that is neither "true" nor "false" fails the load

    std::span<const Word> words = {};
};

constexpr Key number(std::string_view name, size_t offset, int32_t fails_below, int32_t raised_below = kNone,
                     int32_t raised_to = 0) {
    Key key{.name = name, .kind = Kind::kNumber, .offset = offset};
    key.fails_below = fails_below;
    key.raised_below = raised_below;
    key.raised_to = raised_to;
    return key;
}

constexpr Key text(std::string_view name, size_t offset, size_t length_offset = kNoField) {
    return {.name = name, .kind = Kind::kText, .offset = offset, .length_offset = length_offset};
}

constexpr Key text_unless_empty(std::string_view name, size_t offset) {
    return {.name = name, .kind = Kind::kText, .offset = offset, .keeps_default = true};
}

constexpr Key flag(std::string_view name, uint32_t bit, bool strict) {
    return {.name = name, .kind = Kind::kFlag, .bit = bit, .strict = strict};
}

constexpr Key word(std::string_view name, size_t offset, std::span<const Word> words) {
    return {.name = name, .kind = Kind::kWord, .offset = offset, .words = words};
}

constexpr Key of_resolver(Key key) {
    key.block = Block::kResolver;
    return key;
}

constexpr bool kFails = true, kIgnores = false;

#define CTX(field) offsetof(cm_context, field)
#define DNS(field) offsetof(cm_dns_state, field)
constexpr Key kKeys[] = {
    number("Log Size", CTX(log_size), kNone),  // 0: never wraps; negative: every line is written at the start
    number("Idle Threads", CTX(idle_threads), 1, 3, 3),
    text("Cookie Tag", CTX(cookie_tag), CTX(cookie_tag_len)),
    flag("Persistent Cookies", CTX_PERSISTENT_COOKIES, kFails),
    text("Log Directory", CTX(log_dir)),
    text_unless_empty("Tmp Directory", CTX(tmp_dir)),
    text_unless_empty("Network Log File", CTX(net_log_file)),
    word("Network Trace Level", CTX(net_trace_level), kNetTraceLevels),
    word("Trace Level", CTX(trace_level), kTraceLevels),
    flag("Trace Performance", CTX_TRACE_PERF, kFails),
    flag("Flush Logs", CTX_FLUSH_LOGS, kFails),
    number("Maximum Connections", CTX(max_connections), 1),
    number("Network Read Timeout", CTX(net_read_timeout), 1),
    number("Maximum Threads", CTX(max_threads), 1),
    number("Throttle IPs", CTX(throttle_ips), 0),
    flag("Resolve Host Names", CTX_RESOLVE_NAMES, kIgnores),
    number("Scheduler Task Timeout", CTX(sched_task_timeout), 1),
    flag("Dial-On-Demand", CTX_DIAL_ON_DEMAND, kIgnores),
    flag("Dial-On-Demand Trace", CTX_DIAL_TRACE, kIgnores),
    text("Dial-On-Demand Entry", CTX(dial_entry), CTX(dial_entry_len)),
    text("Dial-On-Demand User", CTX(dial_user), CTX(dial_user_len)),
    text("Dial-On-Demand Password", CTX(dial_password), CTX(dial_password_len)),
    number("Dial-On-Demand Timeout", CTX(dial_timeout), 1),
    number("Dial-On-Demand Busy Timeout", CTX(dial_busy_timeout), 1),
    text("Force IP Bind", CTX(bind_address), CTX(bind_address_len)),
    flag("Dynamic IP Test", CTX_DYNAMIC_IP_TEST, kIgnores),
    number("File Cache Size", CTX(file_cache_size), kNone, 0, 0),
    number("Maximum Cached File", CTX(max_cached_file), kNone, 0, 0),
    number("Cache Stat Interval", CTX(cache_stat_interval), kNone, 0, 0),
    number("Cache DNS Interval", CTX(cache_dns_interval), kNone, 0, 0),
    number("Cache Flush Interval", CTX(cache_flush_interval), kNone, 0, 0),
    text("Public Key", CTX(cipher_phrase)),
    text("Certificate File", CTX(cert_file)),
    text("Private Key File", CTX(key_file)),
    text("CA Certificate File", CTX(ca_cert_file)),
    of_resolver(text("DNS Primary", DNS(primary_text))),
    of_resolver(text("DNS Secondary", DNS(secondary_text))),
    of_resolver(text("DNS Hosts File", DNS(hosts_name))),
    of_resolver(flag("DNS Wildcards", CM_DNS_WILDCARDS, kIgnores)),
    of_resolver(number("DNS TTL", DNS(ttl), kNone, 0, 3600)),
    of_resolver(number("DNS Timeout", DNS(timeout), kNone, 5, 5)),
    flag("Linger Close", CTX_LINGER_CLOSE, kFails),
    text("NTP Server", CTX(ntp_server)),
    text("NTP Cron", CTX(ntp_cron)),
    // Of the servers that share the file.
    {"Trace Threads"},
    {"Force IP Address"},
    {"Optimize Transmit"},
    {"Scheduler Sleep Timeout"},
    {"Message File"},
    {"Trace Failures"},
    {"Trace Successes"},
    {"Trace Library Usage"},
};
#undef CTX
#undef DNS

const Key *find_key(std::string_view name) {
    for (const Key &key : kKeys)
        if (equal_folded(key.name, name)) return &key;
    return nullptr;
}

template <class T>
T &field(void *block, size_t offset) {
    return *reinterpret_cast<T *>(static_cast<char *>(block) + offset);
}

bool store_number(const Key &key, void *block, const char *value) {
    int32_t &number = field<int32_t>(block, key.offset);
    number = cm_atoi(value, CM_LEN_TEXT);  // a number beyond 32 bits becomes the nearest one, never a small one
    if (number < key.fails_below) return false;
    if (number < key.raised_below) number = key.raised_to;
    return true;
}

bool store_text(cm_context *ctx, const Key &key, void *block, const char *value) {
    if (key.keeps_default && *value == 0) return true;
    const char *copy = nullptr;
    int32_t length = 0;
    if (!shared_text(ctx, value, CM_LEN_TEXT, &copy, &length)) return false;
    field<const char *>(block, key.offset) = copy;
    if (key.length_offset != kNoField) field<int32_t>(block, key.length_offset) = length;
    return true;
}

template <class Flags>
bool store_flag(const Key &key, Flags &flags, const char *value) {
    const Flags bit = static_cast<Flags>(key.bit);
    if (equal_folded(value, "true"))
        flags = static_cast<Flags>(flags | bit);
    else if (equal_folded(value, "false"))
        flags = static_cast<Flags>(flags & ~bit);
    else
        return !key.strict;
    return true;
}

bool store_word(const Key &key, void *block, const char *value) {
    for (const Word &word : key.words)
        if (word.text == value) {
            field<int32_t>(block, key.offset) = word.value;
            return true;
        }
    return false;
}

bool store(cm_context *ctx, const Key &key, const char *value) {
    void *const block = key.block == Block::kResolver ? static_cast<void *>(ctx->dns) : ctx;
    if (block == nullptr) return false;
    switch (key.kind) {
        case Kind::kNumber:
            return store_number(key, block, value);
        case Kind::kText:
            return store_text(ctx, key, block, value);
        case Kind::kWord:
            return store_word(key, block, value);
        case Kind::kFlag:
            return key.block == Block::kResolver ? store_flag(key, ctx->dns->flags, value)
                                                 : store_flag(key, ctx->flags, value);
        case Kind::kIgnored:
            break;
    }
    return true;
}

}  // namespace

void set_defaults(cm_context *ctx) {
    ctx->idle_threads = 10;
    ctx->log_size = 10000;
    ctx->flags = CTX_LINGER_CLOSE | CTX_TRACE_PERF;
    ctx->trace_level = CM_INFO;
    ctx->max_connections = 300;
    ctx->max_threads = 200;
    ctx->net_read_timeout = 180;
    ctx->config_dir = "config";
    ctx->log_dir = "log";
    ctx->tmp_dir = "tmp";
    ctx->net_log_file = "network.log";
    ctx->cookie_tag = "RCuid";
    ctx->cookie_tag_len = 5;
    ctx->dial_timeout = 300;
    ctx->dial_busy_timeout = 300;
    ctx->cipher_phrase = "Quartz Ledger Private Phrase";
    ctx->key_file = "key.pem";
    ctx->cert_file = "cert.pem";
    ctx->aux_timeout = 180;
    ctx->sched_task_timeout = 300;
}

}  // namespace cm::context

int16_t cm__prop_load(cm_context *ctx, cm_value, const char *key, const char *value) {
    if (ctx == nullptr || key == nullptr) return 0;
    const cm::context::Key *const known = cm::context::find_key(key);
    if (known == nullptr) {
        cm::report(ctx, CM_ERROR, "Unrecognized buffer configuration '%s'\n", key);
        return 1;
    }
    return cm::context::store(ctx, *known, value == nullptr ? "" : value) ? 1 : 0;
}
