// Section "common": every key with good and bad values.
#include "cmctx_config.h"
#include "support/data.h"
#include "support/support.h"

namespace {

using cm::test::captured_standard_error;

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

    int16_t load(const std::string &key, const std::string &value) {
        return cm__prop_load(&ctx_, 0, key.c_str(), value.c_str());
    }
    std::string text(const char *stored, const int32_t *length = nullptr) {
        EXPECT_TRUE(length == nullptr || size_t(*length) == (stored == nullptr ? 0 : strlen(stored)));
        return stored != nullptr ? stored : "(none)";
    }
    // What is stored under a key.
    std::string stored(const std::string &key) {
        const std::pair<std::string_view, int64_t> numbers[] = {{"Log Size", ctx_.log_size},
                                                                {"Idle Threads", ctx_.idle_threads},
                                                                {"Maximum Connections", ctx_.max_connections},
                                                                {"Network Read Timeout", ctx_.net_read_timeout},
                                                                {"Maximum Threads", ctx_.max_threads},
                                                                {"Throttle IPs", ctx_.throttle_ips},
                                                                {"Scheduler Task Timeout", ctx_.sched_task_timeout},
                                                                {"Dial-On-Demand Timeout", ctx_.dial_timeout},
                                                                {"Dial-On-Demand Busy Timeout", ctx_.dial_busy_timeout},
                                                                {"File Cache Size", ctx_.file_cache_size},
                                                                {"Maximum Cached File", ctx_.max_cached_file},
                                                                {"Cache Stat Interval", ctx_.cache_stat_interval},
                                                                {"Cache DNS Interval", ctx_.cache_dns_interval},
                                                                {"Cache Flush Interval", ctx_.cache_flush_interval},
                                                                {"DNS TTL", ctx_.dns->ttl},
                                                                {"DNS Timeout", ctx_.dns->timeout},
                                                                {"Trace Level", ctx_.trace_level},
                                                                {"Network Trace Level", ctx_.net_trace_level},
                                                                {"DNS Wildcards", ctx_.dns->flags},
                                                                {"dns wildcards", ctx_.dns->flags}};
        const std::pair<std::string_view, std::string> texts[] = {
            {"Cookie Tag", text(ctx_.cookie_tag, &ctx_.cookie_tag_len)},
            {"Log Directory", text(ctx_.log_dir)},
            {"Tmp Directory", text(ctx_.tmp_dir)},
            {"Network Log File", text(ctx_.net_log_file)},
            {"Dial-On-Demand Entry", text(ctx_.dial_entry, &ctx_.dial_entry_len)},
            {"Dial-On-Demand User", text(ctx_.dial_user, &ctx_.dial_user_len)},
            {"Dial-On-Demand Password", text(ctx_.dial_password, &ctx_.dial_password_len)},
            {"Force IP Bind", text(ctx_.bind_address, &ctx_.bind_address_len)},
            {"Public Key", text(ctx_.cipher_phrase)},
            {"Certificate File", text(ctx_.cert_file)},
            {"Private Key File", text(ctx_.key_file)},
            {"CA Certificate File", text(ctx_.ca_cert_file)},
            {"NTP Server", text(ctx_.ntp_server)},
            {"NTP Cron", text(ctx_.ntp_cron)},
            {"DNS Primary", text(ctx_.dns->primary_text)},
            {"DNS Secondary", text(ctx_.dns->secondary_text)},
            {"DNS Hosts File", text(ctx_.dns->hosts_name)}};
        const std::pair<std::string_view, uint32_t> flags[] = {{"Persistent Cookies", CTX_PERSISTENT_COOKIES},
                                                               {"Trace Performance", CTX_TRACE_PERF},
                                                               {"Flush Logs", CTX_FLUSH_LOGS},
                                                               {"Linger Close", CTX_LINGER_CLOSE},
                                                               {"Resolve Host Names", CTX_RESOLVE_NAMES},
                                                               {"Dial-On-Demand", CTX_DIAL_ON_DEMAND},
                                                               {"Dial-On-Demand Trace", CTX_DIAL_TRACE},
                                                               {"Dynamic IP Test", CTX_DYNAMIC_IP_TEST}};
        for (const auto &[name, value] : numbers)
            if (name == key) return std::to_string(value);
        for (const auto &[name, value] : texts)
            if (name == key) return value;
        for (const auto &[name, bit] : flags)
            if (name == key) return std::to_string((ctx_.flags & bit) != 0);
        return "no such key";
    }

    cm_context ctx_{};
};

TEST_F(Settings, EveryKey) {
    for (const cm::test::Row &row : cm::test::rows("context/settings")) {
        const uint32_t flags = ctx_.flags;
        if (!row[2].empty()) {
            EXPECT_EQ(load(row[0], row[1]), row.number(2)) << row.where;
        }
        EXPECT_EQ(stored(row[0]), row[3]) << row.where;
        const uint32_t changed = ctx_.flags ^ flags;
        EXPECT_EQ(changed & (changed - 1), 0u) << row.where << " changes more than one flag";
    }
}

TEST_F(Settings, KeysOfOthersAreIgnoredAndUnknownOnesReported) {
    const std::string log = captured_standard_error([&] {
        for (const char *key :
             {"Trace Threads", "Force IP Address", "Optimize Transmit", "Scheduler Sleep Timeout", "Message File",
              "Trace Failures", "Trace Successes", "Trace Library Usage", "trace library usage"})
            EXPECT_TRUE(load(key, "anything"));
        EXPECT_TRUE(load("No Such Key", "1"));
        ctx_.trace_level = CM_FATAL;
        EXPECT_TRUE(load("No Such Key", "1"));
    });
    EXPECT_EQ(log, "Tilvar Server Error: Unrecognized buffer configuration 'No Such Key'\n\n");
    cm_context bare{};
    EXPECT_EQ(cm__prop_load(nullptr, 0, "Log Size", "1"), 0);
    EXPECT_EQ(cm__prop_load(&ctx_, 0, nullptr, "1"), 0);
    EXPECT_EQ(cm__prop_load(&bare, 0, "DNS TTL", "1"), 0);
}

}  // namespace
