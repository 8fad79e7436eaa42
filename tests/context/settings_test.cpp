// Section "common": every key with good and bad values.
#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <utility>
#include <vector>

#include "cmctx_config.h"
#include "support/support.h"

using namespace cm::test;

namespace {

// A context as it is when the file is read.
class Settings : public testing::Test {
protected:
    void SetUp() override {
        cm::context::set_defaults(&ctx_);
        ASSERT_EQ(cm_mem_init(&ctx_, &ctx_.common_pool, 1024), 1);
        ASSERT_EQ(cm_dns_init(&ctx_), 1);
    }
    void TearDown() override {
        cm_dns_exit(&ctx_);
        cm_mem_exit(ctx_.common_pool);
    }

    bool load(const std::string &key, const std::string &value) {
        return cm__prop_load(&ctx_, 0, key.c_str(), value.c_str()) != 0;
    }

    cm_context ctx_{};
};

const char *or_none(const char *text) {
    return text != nullptr ? text : "(none)";
}

TEST_F(Settings, Numbers) {
    using Values = std::vector<std::pair<const char *, int32_t>>;
    const struct {
        const char *key;
        int32_t *field;
        int32_t before;
        Values taken, refused;  // the text and what is stored
    } rows[] = {
        {"Log Size", &ctx_.log_size, 10000, {{"5", 5}, {"0", 0}, {"-7", -7}, {"x", 0}, {"99999999999", INT_MAX}}, {}},
        {"Idle Threads",
         &ctx_.idle_threads,
         10,
         {{"1", 3}, {"2", 3}, {"3", 3}, {"40", 40}},
         {{"0", 0}, {"-1", -1}, {"many", 0}}},
        {"Maximum Connections", &ctx_.max_connections, 300, {{"1", 1}, {"500 of them", 500}}, {{"0", 0}, {"-5", -5}}},
        {"Network Read Timeout", &ctx_.net_read_timeout, 180, {{"1", 1}}, {{"0", 0}, {"", 0}}},
        {"Maximum Threads",
         &ctx_.max_threads,
         200,
         {{"8", 8}, {"4294967297", INT_MAX}},
         {{"0", 0}, {"-4294967295", INT_MIN}}},
        {"Throttle IPs", &ctx_.throttle_ips, 0, {{"0", 0}, {"20", 20}}, {{"-1", -1}}},
        {"Scheduler Task Timeout", &ctx_.sched_task_timeout, 300, {{"10", 10}}, {{"0", 0}}},
        {"Dial-On-Demand Timeout", &ctx_.dial_timeout, 300, {{"10", 10}}, {{"0", 0}}},
        {"Dial-On-Demand Busy Timeout", &ctx_.dial_busy_timeout, 300, {{"10", 10}}, {{"-1", -1}}},
        {"File Cache Size", &ctx_.file_cache_size, 0, {{"4096", 4096}, {"-1", 0}}, {}},
        {"Maximum Cached File", &ctx_.max_cached_file, 0, {{"4096", 4096}, {"-1", 0}}, {}},
        {"Cache Stat Interval", &ctx_.cache_stat_interval, 0, {{"2", 2}, {"-1", 0}}, {}},
        {"Cache DNS Interval", &ctx_.cache_dns_interval, 0, {{"2", 2}, {"-1", 0}}, {}},
        {"Cache Flush Interval", &ctx_.cache_flush_interval, 0, {{"2", 2}, {"-1", 0}}, {}},
        {"DNS TTL", &ctx_.dns->ttl, 3600, {{"0", 0}, {"60", 60}, {"-1", 3600}}, {}},
        {"DNS Timeout",
         reinterpret_cast<int32_t *>(&ctx_.dns->timeout),
         90,
         {{"6", 6}, {"5", 5}, {"1", 5}, {"-9", 5}},
         {}},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(*row.field, row.before) << row.key;
        for (const auto &[text, stored] : row.taken) {
            EXPECT_TRUE(load(row.key, text)) << row.key << " " << text;
            EXPECT_EQ(*row.field, stored) << row.key << " " << text;
        }
        for (const auto &[text, stored] : row.refused) {
            EXPECT_FALSE(load(row.key, text)) << row.key << " " << text;
            EXPECT_EQ(*row.field, stored) << row.key << " " << text << ": a bad value stays stored";
        }
    }
}

TEST_F(Settings, Texts) {
    const struct {
        const char *key;
        const char **field;
        int32_t *length;
        const char *before, *after_empty;
    } rows[] = {
        {"Cookie Tag", &ctx_.cookie_tag, &ctx_.cookie_tag_len, "RCuid", "(none)"},
        {"Log Directory", &ctx_.log_dir, nullptr, "log", "(none)"},
        {"Tmp Directory", &ctx_.tmp_dir, nullptr, "tmp", "a text"},
        {"Network Log File", &ctx_.net_log_file, nullptr, "network.log", "a text"},
        {"Dial-On-Demand Entry", &ctx_.dial_entry, &ctx_.dial_entry_len, "(none)", "(none)"},
        {"Dial-On-Demand User", &ctx_.dial_user, &ctx_.dial_user_len, "(none)", "(none)"},
        {"Dial-On-Demand Password", &ctx_.dial_password, &ctx_.dial_password_len, "(none)", "(none)"},
        {"Force IP Bind", &ctx_.bind_address, &ctx_.bind_address_len, "(none)", "(none)"},
        {"Public Key", &ctx_.cipher_phrase, nullptr, "Quartz Ledger Private Phrase", "(none)"},
        {"Certificate File", &ctx_.cert_file, nullptr, "cert.pem", "(none)"},
        {"Private Key File", &ctx_.key_file, nullptr, "key.pem", "(none)"},
        {"CA Certificate File", &ctx_.ca_cert_file, nullptr, "(none)", "(none)"},
        {"NTP Server", &ctx_.ntp_server, nullptr, "(none)", "(none)"},
        {"NTP Cron", &ctx_.ntp_cron, nullptr, "(none)", "(none)"},
        {"DNS Primary", &ctx_.dns->primary_text, nullptr, "(none)", "(none)"},
        {"DNS Secondary", &ctx_.dns->secondary_text, nullptr, "(none)", "(none)"},
        {"DNS Hosts File", &ctx_.dns->hosts_name, nullptr, "hosts", "(none)"},
    };
    for (const auto &row : rows) {
        EXPECT_STREQ(or_none(*row.field), row.before) << row.key;
        EXPECT_TRUE(load(row.key, "a text")) << row.key;
        EXPECT_STREQ(or_none(*row.field), "a text") << row.key;
        EXPECT_EQ(row.length != nullptr ? *row.length : 6, 6) << row.key;
        EXPECT_TRUE(load(row.key, "")) << row.key;
        EXPECT_STREQ(or_none(*row.field), row.after_empty) << row.key;
        EXPECT_EQ(row.length != nullptr ? *row.length : 0, 0) << row.key;
    }
}

TEST_F(Settings, Flags) {
    const struct {
        const char *key;
        uint32_t bit;
        bool before, strict;
    } rows[] = {
        {"Persistent Cookies", CTX_PERSISTENT_COOKIES, false, true},
        {"Trace Performance", CTX_TRACE_PERF, true, true},
        {"Flush Logs", CTX_FLUSH_LOGS, false, true},
        {"Linger Close", CTX_LINGER_CLOSE, true, true},
        {"Resolve Host Names", CTX_RESOLVE_NAMES, false, false},
        {"Dial-On-Demand", CTX_DIAL_ON_DEMAND, false, false},
        {"Dial-On-Demand Trace", CTX_DIAL_TRACE, false, false},
        {"Dynamic IP Test", CTX_DYNAMIC_IP_TEST, false, false},
    };
    for (const auto &row : rows) {
        const uint32_t others = ctx_.flags & ~row.bit;
        EXPECT_EQ((ctx_.flags & row.bit) != 0, row.before) << row.key;
        EXPECT_TRUE(load(row.key, "TRUE"));
        EXPECT_EQ(ctx_.flags, others | row.bit) << row.key;
        for (const char *other : {"yes", "", "truely", "1"}) {
            EXPECT_EQ(load(row.key, other), !row.strict) << row.key << " " << other;
            EXPECT_EQ(ctx_.flags, others | row.bit) << row.key;
        }
        EXPECT_TRUE(load(row.key, "False"));
        EXPECT_EQ(ctx_.flags, others) << row.key;
    }
    EXPECT_TRUE(load("DNS Wildcards", "true"));
    EXPECT_EQ(ctx_.dns->flags, CM_DNS_WILDCARDS);
    EXPECT_TRUE(load("DNS Wildcards", "maybe"));
    EXPECT_EQ(ctx_.dns->flags, CM_DNS_WILDCARDS);
    EXPECT_TRUE(load("dns wildcards", "false"));
    EXPECT_EQ(ctx_.dns->flags, 0);
}

TEST_F(Settings, Words) {
    const std::pair<const char *, int32_t> traces[] = {
        {"FATAL", 10}, {"ERROR", 20}, {"WARN", 30}, {"INFO", 40}, {"TRACE", 50}};
    for (const auto &[word, level] : traces) {
        EXPECT_TRUE(load("Trace Level", word));
        EXPECT_EQ(ctx_.trace_level, level);
    }
    const std::pair<const char *, int32_t> nets[] = {
        {"STREAM", 4}, {"SSL", 3}, {"PACKETS", 2}, {"OPENCLOSE", 1}, {"NONE", 0}};
    for (const auto &[word, level] : nets) {
        EXPECT_TRUE(load("Network Trace Level", word));
        EXPECT_EQ(ctx_.net_trace_level, level);
    }
    for (const char *bad : {"VERBOSE", "info", "", "40"}) {
        EXPECT_FALSE(load("Trace Level", bad));
        EXPECT_FALSE(load("Network Trace Level", bad));
    }
}

TEST_F(Settings, KeysOfOthersAreIgnoredAndUnknownOnesReported) {
    const std::string log = captured_standard_error([&] {
        for (const char *key : {"Trace Threads", "Force IP Address", "Optimize Transmit", "Scheduler Sleep Timeout",
                                "Message File", "Trace Failures", "Trace Successes", "trace library usage"})
            EXPECT_TRUE(load(key, "anything"));
        EXPECT_TRUE(load("No Such Key", "1"));
    });
    EXPECT_EQ(log, "Tilvar Server Error: Unrecognized buffer configuration 'No Such Key'\n\n");
    ctx_.trace_level = CM_FATAL;
    EXPECT_EQ(captured_standard_error([&] { EXPECT_TRUE(load("No Such Key", "1")); }), "");
}

TEST_F(Settings, NothingToLoadInto) {
    EXPECT_EQ(cm__prop_load(nullptr, 0, "Log Size", "1"), 0);
    EXPECT_EQ(cm__prop_load(&ctx_, 0, nullptr, "1"), 0);
    cm_context bare{};
    EXPECT_EQ(cm__prop_load(&bare, 0, "DNS TTL", "1"), 0);
}

}  // namespace
