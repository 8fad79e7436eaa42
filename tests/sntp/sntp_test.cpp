// Clock synchronisation: requests byte for byte, scripted answers over loopback, the arithmetic, every text.
#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "net/cmntp.h"
#include "sntp/wire.h"

using namespace cm::test;
using std::string;

namespace {

constexpr int64_t k1970 = 2208988800;
constexpr int64_t kEraEnd = 4294967296 - k1970;  // in seconds since 1970

constexpr char kNoServer[] = "Invalid server specified as NTP server for time synchronization.";
constexpr char kNotSent[] = "Failure sending request to NTP server to synchronize time.";
constexpr char kNotReceived[] = "Failure receiving response from NTP server to synchronize time.";
constexpr char kTooFar[] = "Time offset exceeds 4 days, NTP synchronization stopped.";
constexpr char kUnsynchronized[] = "Can't synchronize time from NTP server, unsynchronized.";
constexpr char kNotSet[] = "Failure synchronizing time from server (SetSystemTime() failed).";

string word(uint64_t number) {
    string bytes;
    for (int shift = 24; shift >= 0; shift -= 8) bytes += static_cast<char>(number >> shift);
    return bytes;
}
string stamp(int64_t seconds_since_1970, uint32_t fraction = 0) {
    return word(static_cast<uint64_t>(seconds_since_1970 + k1970)) + word(fraction);
}
string answer(const string &originate, const string &receive, const string &transmit, char first = 0x0C) {
    return first + string(23, '\0') + originate + receive + transmit;
}

struct Sync {
    int16_t result = -1;
    string message;
};

// A network, a server that runs `script(request, sender, port)` for each request, and a clock that stands.
class Sntp : public testing::Test {
protected:
    void SetUp() override {
        redirect.after_send = [this] {
            uint32_t address = 0;
            int32_t port = 0;
            request = server.receive(&address, &port);
            if (script) script(address, port);
        };
    }
    void answer_with(const string &bytes) {
        script = [this, bytes](uint32_t address, int32_t port) { server.send(address, port, bytes); };
    }
    Sync sync(const char *host = "127.0.0.1", cm_net_state *state = nullptr) {
        char message[1024] = "left over";
        Sync result;
        result.result = cm_ntp_sync(net.lib, state == nullptr ? net.state : state, host, message);
        result.message = message;
        EXPECT_EQ(net.open(), 0);
        return result;
    }
    // That of the request which a clock at this time makes.
    static string own_stamp(int64_t seconds, int32_t ms) {
        return stamp(seconds, static_cast<uint32_t>(ms * 4.294967));
    }

    Net net{"Network Trace Level = PACKETS\nNTP Server = 127.0.0.1\nNTP Cron = 10 4 * * *"};
    TestSocket server;
    Redirect redirect{123, server.port()};
    FrozenClock clock{1000000000, 250};
    NoWaiting no_waiting{clock};
    string request;
    std::function<void(uint32_t, int32_t)> script;
};

TEST_F(Sntp, RequestAndTraceAreByteForByte) {
    answer_with(answer(own_stamp(1000000000, 250), stamp(1000000010), stamp(1000000010)));
    const Sync result = sync();
    EXPECT_EQ(result.result, 1) << result.message;
    EXPECT_EQ(result.message, "");
    EXPECT_EQ(request, '\x0B' + string(39, '\0') + word(3208988800) + word(1073));
    EXPECT_EQ(net.trace(), "UDP WRITE [0] -> 127.0.0.1:123 [48 bytes]\nUDP READ [0] -> 127.0.0.1 [48 bytes]\n");
    EXPECT_EQ(clock.set_to().seconds, 1000000009);  // the offset is a trifle below 10, and cut
    EXPECT_EQ(clock.set_to().milliseconds, 250);
}

TEST_F(Sntp, FailuresBeforeAnAnswer) {
    for (const char *server_name : {static_cast<const char *>(nullptr), ""}) {
        EXPECT_EQ(sync(server_name).message, kNoServer);
        EXPECT_EQ(sync(server_name).result, 0);
    }
    EXPECT_EQ(sync("1.2.3").message, kNotSent);  // no address, and no name
    EXPECT_TRUE(net.lib.logged("WARN:  cm_dns_gethostaddr() failed for '1.2.3'"));
    char message[1024];
    EXPECT_EQ(cm_ntp_sync(net.lib, nullptr, "127.0.0.1", message), 0);
    EXPECT_STREQ(message, kNotSent);
    EXPECT_EQ(cm_ntp_sync(net.lib, net.state, "127.0.0.1", nullptr), 0);
    clock.fail(true);
    EXPECT_EQ(sync().message, kNotSent);
    clock.fail(false);
    EXPECT_EQ(redirect.sends, 0);
    const int64_t start = os.monotonic_ms();
    EXPECT_EQ(sync().message, kNotReceived);
    EXPECT_EQ(os.monotonic_ms() - start, 10000);
    EXPECT_FALSE(clock.was_set());
}

TEST_F(Sntp, TheTaskLogsAndSucceeds) {
    answer_with(answer(own_stamp(1000000000, 250), stamp(1, 0), stamp(1, 0)));
    EXPECT_EQ(cm_ntp_cron(net.lib, "NTP Synchronization", reinterpret_cast<cm_value>(net.state)), 1);
    EXPECT_TRUE(net.lib.logged(string("ERROR: ") + kTooFar));
    answer_with(answer(own_stamp(1000000000, 250), stamp(1000000003), stamp(1000000003)));
    EXPECT_EQ(cm_ntp_cron(net.lib, "NTP Synchronization", reinterpret_cast<cm_value>(net.state)), 1);
    EXPECT_EQ(clock.set_to().seconds, 1000000002);
    cm_context *ctx = net.lib;
    ctx->ntp_server = nullptr;
    EXPECT_EQ(cm_ntp_cron(ctx, nullptr, reinterpret_cast<cm_value>(net.state)), 1);
    EXPECT_TRUE(net.lib.logged(string("ERROR: ") + kNoServer));
    int registered = 0;
    for (const cm_cron_rec *task = ctx->cron->periodic; task != nullptr; task = task->next)
        if (string(task->name) == "NTP Synchronization") {
            registered++;
            EXPECT_EQ(task->function, &cm_ntp_cron);
            EXPECT_STREQ(task->period, "10 4 * * *");
            EXPECT_EQ(task->argument, reinterpret_cast<cm_value>(net.state));
        }
    EXPECT_EQ(registered, 1);
}

// ---- the arithmetic -------------------------------------------------------------------------------------------------

TEST_F(Sntp, TheClockIsSetByWholeSecondsUpToFourDays) {
    constexpr int64_t kNow = 1000000000;
    const struct {
        const char *name;
        int64_t now;
        int32_t ms;
        int64_t receive, transmit;  // relative to now
        uint32_t fraction;
        char first;
        int64_t set_to;  // relative to now; with an empty message
        string message;
    } table[] = {
        {"equal", kNow, 0, 0, 0, 0, 0x0C, 0, ""},
        {"behind", kNow, 0, 5, 5, 0, 0x0C, 5, ""},
        {"behind by 5.9", kNow, 0, 5, 5, 0xE6666666, 0x0C, 5, ""},
        {"ahead by 5", kNow, 0, -5, -5, 0, 0x0C, -5, ""},
        {"ahead by 4.1, cut toward zero", kNow, 0, -5, -5, 0xE6666666, 0x0C, -4, ""},
        {"the mean of both ways", kNow, 0, 10, 4, 0, 0x0C, 7, ""},
        {"four days behind", kNow, 0, 345600, 345600, 0, 0x0C, 345600, ""},
        {"four days and a second behind", kNow, 0, 345601, 345601, 0, 0x0C, 0, kTooFar},
        {"four days and some ns behind", kNow, 0, 345600, 345600, 0x10, 0x0C, 0, kTooFar},
        {"four days ahead", kNow, 0, -345600, -345600, 0, 0x0C, -345600, ""},
        {"four days and a second ahead", kNow, 0, -345601, -345601, 0, 0x0C, 0, kTooFar},
        {"years", kNow, 0, 100000000, 100000000, 0, 0x0C, 0, kTooFar},
        {"symmetric mode", kNow, 0, 5, 5, 0, 0x09, 0, kUnsynchronized},
        {"too far comes first", kNow, 0, 345601, 345601, 0, 0x09, 0, kTooFar},
        {"unsynchronised, and believed", kNow, 0, 5, 5, 0, '\xCC', 5, ""},
        {"across the end of the era", kEraEnd - 3, 0, 8, 8, 0, 0x0C, 8, ""},
        {"back across it", kEraEnd + 3, 0, -8, -8, 0, 0x0C, -8, ""},
        {"in the next era", kEraEnd + 1000000, 999, 7, 7, 0x80000000, 0x0C, 7, ""},
        {"beyond 2038", 2200000000, 0, 60, 60, 0, 0x0C, 60, ""},
        {"before 1970", 100, 0, -345600, -345600, 0, 0x0C, 0, "Failure deriving gmtime from offset (-345600.000000)"},
        {"beyond 2106", 4294967290, 0, 60, 60, 0, 0x0C, 0, "Failure deriving gmtime from offset (60.000000)"},
    };
    for (const auto &row : table) {
        const FrozenClock frozen(row.now, row.ms);
        const string bytes = answer(own_stamp(row.now, row.ms), stamp(row.now + row.receive, row.fraction),
                                    stamp(row.now + row.transmit, row.fraction), row.first);
        char message[1024] = "";
        EXPECT_EQ(cm__ntp_apply(reinterpret_cast<const uint8_t *>(bytes.data()), static_cast<uint32_t>(row.now),
                                static_cast<uint32_t>(row.ms), message),
                  row.message.empty() ? 1 : 0)
            << row.name;
        EXPECT_EQ(message, row.message) << row.name;
        EXPECT_EQ(frozen.was_set(), row.message.empty()) << row.name;
        if (!frozen.was_set()) continue;
        EXPECT_EQ(frozen.set_to().seconds, row.now + row.set_to) << row.name;
        EXPECT_EQ(frozen.set_to().milliseconds, row.ms) << row.name;
    }
}

TEST_F(Sntp, AClockThatMayNotBeSet) {
    os.set_wall_clock = [](const cm_tm *, int32_t) -> cm::platform::Error { return CM_EACCES; };
    answer_with(answer(own_stamp(1000000000, 250), stamp(1000000003), stamp(1000000003)));
    EXPECT_EQ(sync().message, kNotSet);
}

TEST_F(Sntp, TheCalendarThatTheClockIsSetTo) {
    static cm_tm given;
    os.set_wall_clock = [](const cm_tm *utc, int32_t) -> cm::platform::Error {
        given = *utc;
        return 0;
    };
    clock.set(951782400 - 5);  // five seconds before 2000-02-29, a Tuesday
    answer_with(answer(own_stamp(951782395, 0), stamp(951782401), stamp(951782401)));
    ASSERT_EQ(sync().result, 1);
    EXPECT_EQ(given.year, 100);
    EXPECT_EQ(given.mon, 1);
    EXPECT_EQ(given.mday, 29);
    EXPECT_EQ(given.wday, 2);
    EXPECT_EQ(given.hour * 3600 + given.min * 60 + given.sec, 1);
}

// ---- hostile answers ------------------------------------------------------------------------------------------------

// 200 exchanges: some datagrams that must not count, then perhaps one that does.  The clock call sees only the latter.
TEST_F(Sntp, OnlyGoodAnswersSetTheClock) {
    std::mt19937 random(20360207);
    const TestSocket other_port, other_address("127.0.0.2");
    int good = 0, dropped = 0, refused = 0;
    for (int round = 0; round < 200; round++) {
        const int64_t now = round % 4 == 0 ? kEraEnd - 200000 + round * 1000 : 1000000000 + round * 77777;
        const auto ms = static_cast<int32_t>(random() % 1000);
        const FrozenClock frozen(now, ms);
        const NoWaiting at_once(clock);
        const string own = own_stamp(now, ms);
        // What sets the clock to a time that no good answer names.
        const string wrong = stamp(now + 1234), evil = answer(own, wrong, wrong);
        constexpr int64_t kEdges[] = {345600, -345600, 345601, -345601, 0};
        const int64_t ahead = random() % 3 == 0 ? kEdges[random() % 5] : static_cast<int64_t>(random() % 1000) - 500;
        const bool answered = random() % 4 != 0;
        const uint32_t fraction = std::abs(ahead) < 1000 ? static_cast<uint32_t>(random()) : 0;
        script = [&](uint32_t address, int32_t port) {
            for (auto junk = random() % 5; junk > 0; junk--, dropped++) switch (random() % 7) {
                    case 0:
                        other_port.send(address, port, evil);
                        break;
                    case 1:
                        other_address.send(address, port, evil);
                        break;
                    case 2:
                        server.send(address, port, evil.substr(0, random() % 48));
                        break;
                    case 3:
                        server.send(address, port, "");
                        break;
                    case 4:
                        server.send(address, port, answer(stamp(now, 99999), wrong, wrong));
                        break;
                    case 5:
                        server.send(address, port, string(48, '\0'));
                        break;
                    case 6:
                        server.send(address, port, evil + string(2000, 'x'));
                        break;
                }
            if (!answered) return;
            const string bytes = answer(own, stamp(now + ahead, fraction), stamp(now + ahead, fraction));
            server.send(address, port, random() % 3 == 0 ? bytes + string(20, 'e') : bytes);
        };
        const Sync result = sync();
        const double offset =
            static_cast<double>(ahead) + fraction / 4294967296.0 - std::floor(ms * 4.294967) / 4294967296.0;
        if (!answered) {
            EXPECT_EQ(result.message, kNotReceived);
            refused++;
        } else if (std::fabs(offset) > 345600) {
            EXPECT_EQ(result.message, kTooFar);
            refused++;
        } else {
            EXPECT_EQ(result.message, "") << round;
            ASSERT_TRUE(frozen.was_set()) << round;
            EXPECT_EQ(frozen.set_to().seconds, now + static_cast<int64_t>(offset)) << round;
            EXPECT_EQ(frozen.set_to().milliseconds, ms);
            good++;
            continue;
        }
        EXPECT_FALSE(frozen.was_set()) << round;
    }
    EXPECT_GT(good, 90);
    EXPECT_GT(refused, 30);
    EXPECT_GT(dropped, 300);
}

TEST_F(Sntp, EveryFailureIsCleanedUp) {
    answer_with(string(48, '\0'));
    sync();  // makes the handle, which stays
    for (int k = 1;; k++) {
        ASSERT_LT(k, 200);
        clock.set(1000000000, 250);
        answer_with(answer(own_stamp(1000000000, 250), stamp(1000000003), stamp(1000000003)));
        const LeakCheck leaks;
        int64_t injected = 0;
        Sync result;
        {
            const Faults faults(Faults::kBoth & ~Faults::kFiles, k, CM_EACCES);
            result = sync();
            injected = faults.injected();
        }
        EXPECT_EQ(result.result == 1, result.message.empty());
        EXPECT_EQ(leaks.outstanding(), 0u) << k;
        if (injected == 0) {
            EXPECT_EQ(result.message, "");
            break;
        }
    }
}

}  // namespace
