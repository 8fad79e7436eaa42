// The clock, the dial-up line, broadcasts, pings and what a handle tells of its socket, as scenarios:
// data/{clock,line,hosts}.txt.
#include "net/cmras.h"
#include "sntp/redirect.h"
#include "support/scenario.h"

using namespace cm::test;
using cm::platform::kFoldsPathCase;
using cm::platform::Line;
using std::string;
using std::to_string;

namespace {

constexpr int64_t k1970 = 2208988800, kEraEnd = 4294967296 - k1970;  // the latter in seconds since 1970

string big_endian(uint64_t stamp) {
    string bytes;
    for (int shift = 56; shift >= 0; shift -= 8) bytes += static_cast<char>(stamp >> shift);
    return bytes;
}

// The setting of a case is section "common" of the configuration.  The clock stands at 1000000000, and a server gets
// what is sent to the ports of time, of broadcasts and of echo requests.
//
// The clock:
//     clock SECONDS MS              where it stands
//     reply WHO LENGTH FIRST ORIGINATE RECEIVE TRANSMIT FRACTION    what the server sends for each request, see
//                                   data/replies.txt
//     sync [HOST]                   by how many seconds the clock is set, or the message; "null": no host
//     got, got-bytes                what the server got last, as text and in hexadecimal
//     no-server                     the configuration loses its server
// The line:
//     dialup, hangup, status        cm_ras_dialup and so on
//     wait SECONDS                  the task looks that much later
//     break                         the line is gone
//     dial-error NUMBER             what dialling ends with from now on
// Hosts:
//     hostaddr NAME                 the result and the address
//     connect HOST, close           a connection
//     at listener|connection        its address, and whether it has the listener's port
//     limit, no-option              sets the time that a receive waits; an option that there is none of
//     times-out                     whether a receive does
//     broadcast FROM TO             a port that is "same" is that of the last one
// The whole:
//     task NAME, run-task NAME      its period; its result
//     trace                         the network log
//     stop                          the library ends
//     takes MS STEP                 and by how much it moves the clock
// Behind each result stands what was asked of the line, what was logged, and the alerts.
struct Hosts : World {
    explicit Hosts(const Row &head = {}) : net(head.fields.size() > 1 ? head.text(1) : "") {
        net.said();
        redirect.after_send = [this] {
            got = server.receive();
            answer();
        };
        time();
        line();
        hosts();
        whole();
    }

    string sync(const char *host = "127.0.0.1") {
        const auto no_waiting = without_waiting();
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
        return (by < 0 ? "" : "+") + to_string(by);
    }
    int16_t ping(int32_t *out_elapsed) {
        const auto no_waiting = without_waiting();
        return cm_net_ping(net.state, "127.0.0.1", 3, out_elapsed);
    }

    using NoWaiting = Replace<&Table::socket_wait>;
    // What is there is there, and a wait for more only moves the clock.
    std::unique_ptr<NoWaiting> without_waiting() {
        return std::make_unique<NoWaiting>(
            [this, real = os.socket_wait](auto *items, int32_t count, int32_t timeout_ms, int32_t *out_ready) {
                const Error error = real(items, count, 0, out_ready);
                if (error == 0 && *out_ready == 0) clock.advance_ms(timeout_ms);
                return error;
            });
    }
    // The request's own stamp.
    uint64_t own() const { return static_cast<uint64_t>(now + k1970) << 32 | static_cast<uint32_t>(ms * 4.294967); }
    void send_reply(const Words &words) {
        const auto number = [&](size_t field) { return static_cast<uint64_t>(words.number(field)); };
        const auto stamp = [&](size_t field) { return big_endian(own() + (number(field) << 32) + number(6)); };
        string bytes = static_cast<char>(number(2)) + string(23, '\0') +
                       big_endian(words[3] == "zero" ? 0 : own() ^ number(3)) + stamp(4) + stamp(5);
        bytes.resize(number(1));
        Udp &from = words[0] == "port" ? other_port : words[0] == "address" ? other_address : server;
        from.send(bytes, server.from_port, server.from_address);
    }
    void time() {
        on("clock", [this](auto &words) { now = words.number(0), ms = static_cast<int32_t>(words.number(1)); });
        on("reply", [this](auto &words) { replies = {words}; });
        on("sync", [this](auto &words) { return sync(words[0] == "null" ? nullptr : words.text(0)); });
        on("got", [this](auto &) { return std::exchange(got, ""); });
        on("got-bytes", [this](auto &) {
            string digits;
            for (const char byte : got)
                digits += "0123456789abcdef"[byte >> 4 & 15], digits += "0123456789abcdef"[byte & 15];
            return digits;
        });
        on("no-server", [this](auto &) { net.lib.ctx()->ntp_server = nullptr; });
    }
    void line() {
        on("dialup", [this](auto &) { return cm_ras_dialup(net.lib); });
        on("hangup", [this](auto &) { return cm_ras_hangup(net.lib); });
        on("status", [this](auto &) { return cm_ras_checkstatus(net.lib); });
        on("wait", [this](auto &words) {
            clock.advance(words.number(0));
            return cm::dialup::look_after_line(net.lib, "", 0);
        });
        on("break", [this](auto &) { up = false; });
        on("dial-error", [this](auto &words) { dial_error = static_cast<Error>(words.number(0)); });
    }
    void hosts() {
        on("hostaddr", [this](auto &words) {
            uint32_t address = 0;
            const int16_t result = cm_net_hostaddr(net.state, words.text(0), &address);
            return to_string(result) + " " + dotted(address);
        });
        on("connect", [this](auto &words) {
            listener = listener == nullptr ? net.listen(20, nullptr) : listener;
            const auto port = static_cast<int32_t>(listener->peer_port);
            return cm_net_connect(net.state, words.text(0), port, 5, 0, 0, &conn, nullptr);
        });
        on("close", [this](auto &) { return cm_net_close(net.state, conn, 0); });
        on("at", [this](auto &words) -> string {
            cm_conn *of = words[0] == "listener" ? listener : conn;
            uint32_t address = 0;
            int32_t port = 0;
            if (cm_net_sockname(net.state, of, &address, &port) != 1) return "(failed)";
            return dotted(address) + (port == static_cast<int32_t>(listener->peer_port) ? ", its port" : "");
        });
        on("limit", [this](auto &) { return set_option(kFoldsPathCase ? 0x1006 : 20); });
        on("no-option", [this](auto &) { return set_option(123456789); });
        on("times-out", [this](auto &) {
            char byte;
            size_t count = 0;
            return os.socket_receive(*conn->sock, &byte, 1, false, &count) == CM_ETIMEDOUT;
        });
        on("broadcast", [this](auto &words) {
            const auto to = static_cast<int32_t>(words.number(1));
            const auto from = words[0] == "same" ? server.from_port : static_cast<int32_t>(words.number(0));
            const int16_t result = cm_net_broadcast(net.state, from, to, "offer", CM_LEN_TEXT);
            EXPECT_TRUE(result == 0 || from == 0 || server.from_port == from);
            EXPECT_EQ(net.open(), 0);
            return result;
        });
        on("shutdown", [this](auto &) { return cm_net_shutdown(net.state); });
    }
    int16_t set_option(int32_t option) {
        const int32_t value = 30;
        return cm_net_setsockopt(net.state, conn, kFoldsPathCase ? 0xFFFF : 1, option, &value, sizeof value);
    }
    void whole() {
        on("task", [this](auto &words) -> string { return task(words.rest(0)).period; });
        on("run-task", [this](auto &words) {
            const auto no_waiting = without_waiting();
            const cm_cron_rec &found = task(words.rest(0));
            return found.function(net.lib, found.name, found.argument);
        });
        on("trace", [this](auto &) { return net.trace(); });
        on("stop", [this](auto &) { net.stop(), net.lib.stop(); });
        on("takes", [this](auto &words) {
            const int64_t begin = os.monotonic_ms();
            const string result = run(words.from(1));
            EXPECT_EQ(os.monotonic_ms() - begin, words.number(0));
            return result;
        });
    }
    const cm_cron_rec &task(const string &name) {
        static cm_cron_rec none = {};
        const cm_cron_rec *task = net.lib.ctx()->cron->periodic;
        while (task != nullptr && task->name != name) task = task->next;
        EXPECT_NE(task, nullptr);
        return task == nullptr ? none : *task;
    }
    string shown(string result) override {
        for (const string &one : std::exchange(asked, {})) result += "; " + one;
        if (net.lib.ok())
            for (const string &one : lines_of(net.said() + net.alerts())) result += "; " + one;
        return result;
    }

    bool up = false;
    Error dial_error = 0;
    Strings asked;
    int sets = 0;
    const Replace<&Table::line_dial> dial{
        [this](const char *entry, const char *user, const char *password, Line **out) {
            asked.push_back(string("dial ") + entry + "/" + user + "/" + password);
            if (dial_error == 0) *out = reinterpret_cast<Line *>(&up);
            up = dial_error == 0;
            return dial_error;
        }};
    const Replace<&Table::line_connected> connected{[this](Line *) { return up; }};
    const Replace<&Table::line_hang_up> hang_up{[this](Line *) { asked.push_back("hang up"), up = false; }};
    const Replace<&Table::line_error_text> text{[](Error number, char *out, size_t size) {
        cm_snprintf(out, static_cast<int32_t>(size), "text of %d", number);
    }};
    FrozenClock clock;
    const Replace<&Table::set_wall_clock> set{[this](const cm_tm *utc, int32_t milliseconds) {
        sets++;
        return set.real(utc, milliseconds);
    }};
    Udp server, other_port, other_address{"127.0.0.2"};
    Redirect redirect{server.port()};
    Net net;
    cm_conn *listener = nullptr, *conn = nullptr;
    int64_t now = 1000000000;
    int32_t ms = 0;
    string got;
    std::vector<Words> replies;
    std::function<void()> answer = [this] {
        for (const Words &reply : replies) send_reply(reply);
    };
};
SCENARIOS(Clock, Hosts, "sntp/clock");
SCENARIOS(DialUp, Hosts, "sntp/line");
SCENARIOS(HostScenarios, Hosts, "sntp/hosts");

TEST(Sntp, OnlyGoodAnswersSetTheClock) {
    const int64_t times[] = {1000000000, kEraEnd - 1, kEraEnd + 1, kEraEnd - 300000, kEraEnd + 300000, 2200000000};
    constexpr char kNotReceived[] = "Failure receiving response from NTP server to synchronize time.";
    Hosts world;
    int answers = 0;
    for (const Row &row : rows("sntp/replies"))
        for (const int64_t time : times) {
            SCOPED_TRACE(row.where + " at " + to_string(time));
            world.now = row.fields.size() > 3 ? row.number(3) : time;
            world.replies = {Words(row[1])};
            const bool ignored = row[2] == "ignored";
            EXPECT_EQ(world.sync(), ignored ? kNotReceived : row[2]);
            answers++;
            if (!ignored) continue;
            world.replies.emplace_back("server 48 0x0C 0 3 3 0");
            EXPECT_EQ(world.sync(), "+3");
            answers++;
        }
    EXPECT_GE(answers, 200);
}

TEST(Sntp, EveryFailure) {
    Hosts world;
    world.replies.emplace_back("server 48 0x0C 0 10 10 0");
    string outcome = world.sync();  // handles are kept
    each_failure(
        Faults::kBoth & ~Faults::kFiles, [&] { outcome = world.sync(); },
        [&](bool injected, size_t leaked) {
            EXPECT_TRUE(injected || outcome == "+10");
            EXPECT_EQ(leaked, 0u);
        });
}

TEST(Sntp, EveryFailureOfTheStartOfALine) {
    Hosts world;
    cm_context *const ctx = world.net.lib;
    ctx->flags |= CTX_DIAL_ON_DEMAND;
    EXPECT_EQ(cm_ras_dialup(ctx) + cm_ras_checkstatus(ctx), 0);  // not started
    int16_t started = 0;
    each_failure(
        Faults::kAllocations | Faults::kLocks, [&] { started = cm_ras_init(ctx); },
        [&](bool injected, size_t leaked) {
            EXPECT_EQ(started, !injected);
            EXPECT_TRUE(leaked == 0 || started == 1);
        });
    EXPECT_TRUE(world.net.lib.logged("ERROR: cm_ras_init() Unable to start dial-on-demand."));
}

TEST(Ping, OfThisHost) {
    Net net;
    int32_t elapsed = -1;
    const int16_t result = cm_net_ping(net.state, "127.0.0.1", 5, &elapsed);
    if (net.alerts() != "") GTEST_SKIP() << "no right to send echo requests";
    EXPECT_EQ(result, 1);
    EXPECT_LE(elapsed, 5000);
}

string with_ip_head(const string &message, size_t words, char protocol = 1) {
    string head(words * 4, '\0');
    head[0] = static_cast<char>(0x40 | words);
    head[9] = protocol;
    return head + message;
}

// Through a datagram socket, to one who answers as a host would.
TEST(Ping, OnlyItsOwnReplyEndsIt) {
    Hosts world;
    const Replace<&Table::socket_open> open{[&](SocketKind kind, cm_socket *out) {
        EXPECT_EQ(kind, SocketKind::kEcho);
        const Error error = open.real(SocketKind::kDatagram, out);
        if (error == 0) cm::platform::kSystem.socket_bind(*out, address_of("127.0.0.1"), 0);
        return error;
    }};
    const auto send = [&](const string &bytes) {
        world.server.send(bytes, world.server.from_port, world.server.from_address);
    };
    bool answered = true;
    world.answer = [&] {
        const string &request = world.got, reply = '\0' + request.substr(1);
        string token = reply, identifier = reply;
        token[20] ^= 1;
        identifier[4] ^= 0x55;  // the system's own may stand there
        for (const string &other : {string(), request, token, reply.substr(0, 44), reply + "x", string(3000, 'x'),
                                    with_ip_head(reply, 5, 17), with_ip_head(reply, 4), string(40, '\x4F')})
            send(other);
        world.clock.advance_ms(42);
        if (answered) send(with_ip_head(identifier, 6));
    };
    int32_t elapsed = 0;
    int16_t result = world.ping(&elapsed);
    EXPECT_EQ(result * 100 + elapsed, 142);
    const string request = world.got;
    ASSERT_EQ(request.size(), 45u);
    uint32_t sum = 0;  // of the whole message, with its checksum, as a receiver takes it
    for (size_t i = 0; i < 45; i++) sum += static_cast<uint32_t>(static_cast<uint8_t>(request[i])) << (i % 2 ? 0 : 8);
    EXPECT_EQ((sum & 0xFFFF) + (sum >> 16), 0xFFFFu);
    EXPECT_EQ(request.substr(0, 2), string("\x08\0", 2));
    each_failure(
        Faults::kBoth & ~Faults::kFiles, [&] { result = world.ping(&elapsed); },
        [&](bool injected, size_t leaked) {
            EXPECT_TRUE(injected || result == 1);
            EXPECT_EQ(leaked, 0u);
            EXPECT_EQ(world.net.open(), 0);
        });
    EXPECT_EQ(world.net.alerts(), "connect: Failure creating socket.\n");
    EXPECT_NE(world.got.substr(8, 16), request.substr(8, 16));
    answered = false;
    const int64_t start = os.monotonic_ms();
    EXPECT_EQ(world.ping(&elapsed) + elapsed, 0);
    EXPECT_EQ(os.monotonic_ms() - start, 3000);
}

TEST(Hosts, HardwareAddresses) {
    const Net net;
    const TempFolder folder;
    string table = CM_TEST_FOLDER "/sntp/data/neighbours.txt";
    const Replace<&Table::file_open> open{[&](const char *path, int32_t flags, int32_t *out) {
        EXPECT_STREQ(path, "/proc/net/arp");
        return open.real(table.c_str(), flags, out);
    }};
    const auto find = [&](const char *address) {
        string mac(6, '#');
        const int16_t found = cm_net_macaddr(net.state, address_of(address), reinterpret_cast<uint8_t *>(mac.data()));
        return found == 1 ? mac : mac == string(6, '\0') ? "none" : "half";
    };
    EXPECT_EQ(find("127.0.0.1"), "none");  // it has none
    if (kFoldsPathCase) GTEST_SKIP() << "the rest is about a file that there is none of";
    EXPECT_EQ(find("198.51.100.1"), string("\x02\0\0\0\x01\x01", 6));
    EXPECT_EQ(find("198.51.100.80"), string("\x02\0\0\0\x01\x50", 6));
    EXPECT_EQ(find("203.0.113.4"), "\xFE\xDC\xBA\x98\x76\x54");
    for (const char *bad : {"203.0.113.1", "203.0.113.2", "203.0.113.3", "203.0.113.5"}) EXPECT_EQ(find(bad), "none");
    table = folder.write("arp", string(100000, '1'));
    EXPECT_EQ(find("203.0.113.4"), "none");
}

}  // namespace
