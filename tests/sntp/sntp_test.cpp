// Clock synchronisation: requests byte for byte, scripted replies over loopback, every text.
#include <gtest/gtest.h>

#include "sntp/redirect.h"

using namespace cm::test;
using std::string;

namespace {

constexpr int64_t k1970 = 2208988800, kEraEnd = 4294967296 - k1970;  // the latter in seconds since 1970

constexpr char kNoServer[] = "Invalid server specified as NTP server for time synchronization.";
constexpr char kNotSent[] = "Failure sending request to NTP server to synchronize time.";
constexpr char kNotReceived[] = "Failure receiving response from NTP server to synchronize time.";
constexpr char kNotSet[] = "Failure synchronizing time from server (SetSystemTime() failed).";

string big_endian(uint64_t stamp) {
    string bytes;
    for (int shift = 56; shift >= 0; shift -= 8) bytes += static_cast<char>(stamp >> shift);
    return bytes;
}

// A network, a server that does `serve` for each request, and a clock that stands.
class Sntp : public testing::Test {
protected:
    Sntp() {
        net.said();
        redirect.after_send = [this] {
            request = server.receive();
            if (serve) serve();
        };
    }
    // What the request's clock says, on the wire.
    uint64_t own() const { return static_cast<uint64_t>(now + k1970) << 32 | static_cast<uint32_t>(ms * 4.294967); }
    void reply(const string &bytes, Udp &from) { from.send(bytes, server.from_port, server.from_address); }
    void reply_ahead(uint64_t seconds) {
        const string stamp = big_endian(own() + (seconds << 32));
        reply('\x0C' + string(23, '\0') + big_endian(own()) + stamp + stamp, server);
    }
    // The message, or by how much the clock was set.
    string sync(const char *host = "127.0.0.1") {
        char message[1024] = "left over";
        sets = 0;
        clock.set(now, ms);
        const int16_t result = cm_ntp_sync(net.lib, net.state, host, message);
        EXPECT_EQ(net.open(), 0);
        EXPECT_EQ(result == 1, message[0] == '\0');
        EXPECT_EQ(sets, result);
        if (result != 1) return message;
        EXPECT_EQ(clock.set_to().milliseconds, ms);
        const int64_t by = clock.set_to().seconds - now;
        return (by < 0 ? "" : "+") + std::to_string(by);
    }

    Net net{"Network Trace Level = PACKETS\nNTP Server = 127.0.0.1\nNTP Cron = 10 4 * * *"};
    Udp server, other_port, other_address{"127.0.0.2"};
    Redirect redirect{123, server.port()};
    FrozenClock clock;
    NoWaiting no_waiting{clock};
    int sets = 0;
    const Replace<&Table::set_wall_clock> set{[this](const cm_tm *utc, int32_t milliseconds) {
        sets++;
        return set.real(utc, milliseconds);
    }};
    int64_t now = 1000000000;
    int32_t ms = 0;
    string request;
    std::function<void()> serve;
};

TEST_F(Sntp, RequestTraceAndFailures) {
    EXPECT_EQ(sync(nullptr), kNoServer);
    EXPECT_EQ(sync(""), kNoServer);
    EXPECT_EQ(sync("1.2.3"), kNotSent);
    clock.fail(true);
    EXPECT_EQ(sync(), kNotSent);
    clock.fail(false);
    EXPECT_EQ(redirect.sends, 0);
    const int64_t start = os.monotonic_ms();
    EXPECT_EQ(sync(), kNotReceived);
    EXPECT_EQ(os.monotonic_ms() - start, 10000);
    ms = 250;
    serve = [this] { reply_ahead(10); };
    EXPECT_EQ(sync(), "+10");
    EXPECT_EQ(request, '\x0B' + string(39, '\0') + big_endian(uint64_t{3208988800} << 32 | 1073));
    const string write = "UDP WRITE [0] -> 127.0.0.1:123 [48 bytes]\n";
    EXPECT_EQ(net.trace(), write + write + "UDP READ [0] -> 127.0.0.1 [48 bytes]\n");
    string outcome;
    each_failure(
        Faults::kBoth & ~Faults::kFiles, [&] { outcome = sync(); },
        [&](bool injected, size_t leaked) {
            EXPECT_TRUE(injected || outcome == "+10");
            EXPECT_EQ(leaked, 0u);
        });
}

TEST_F(Sntp, OnlyGoodAnswersSetTheClock) {
    const int64_t times[] = {1000000000, kEraEnd - 1, kEraEnd + 1, kEraEnd - 300000, kEraEnd + 300000, 2200000000};
    int replies = 0;
    for (const Row &row : rows("sntp/replies"))
        for (const int64_t time : times) {
            SCOPED_TRACE(row.where + " at " + std::to_string(time));
            now = row.fields.size() > 9 ? row.number(9) : time;
            const auto fraction = static_cast<uint64_t>(row.number(7));
            const auto stamp = [&](size_t field) {
                return big_endian(own() + (static_cast<uint64_t>(row.number(field)) << 32) + fraction);
            };
            string bytes = static_cast<char>(row.number(3)) + string(23, '\0') +
                           big_endian(row[4] == "zero" ? 0 : own() ^ static_cast<uint64_t>(row.number(4))) + stamp(5) +
                           stamp(6);
            bytes.resize(static_cast<size_t>(row.number(2)));
            serve = [&] { reply(bytes, row[1] == "port" ? other_port : row[1] == "address" ? other_address : server); };
            const bool ignored = row[8] == "ignored";
            EXPECT_EQ(sync(), ignored ? kNotReceived : row[8]);
            replies++;
            if (!ignored) continue;
            serve = [this, junk = serve] {
                junk();
                reply_ahead(3);
            };
            EXPECT_EQ(sync(), "+3");
            replies++;
        }
    EXPECT_GE(replies, 200);
}

TEST_F(Sntp, TheTaskLogsAndSucceeds) {
    const cm_cron_rec *task = net.lib.ctx()->cron->periodic;
    while (task != nullptr && string(task->name) != "NTP Synchronization") task = task->next;
    ASSERT_NE(task, nullptr);
    EXPECT_STREQ(task->period, "10 4 * * *");
    const auto run = [&] {
        EXPECT_EQ(task->function(net.lib, task->name, task->argument), 1);
        return net.said();
    };
    serve = [this] { reply_ahead(3); };
    EXPECT_EQ(run(), "");
    {
        const Replace<&Table::set_wall_clock, 1> refuse{[](const cm_tm *, int32_t) { return CM_EACCES; }};
        EXPECT_EQ(run(), string("ERROR: ") + kNotSet + "\n");
    }
    net.lib.ctx()->ntp_server = nullptr;
    EXPECT_EQ(run(), string("ERROR: ") + kNoServer + "\n");
}

}  // namespace
