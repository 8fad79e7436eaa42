// Broadcasts, pings, hardware addresses, and what a handle tells of its socket.
#include <gtest/gtest.h>

#include "net/cmnet_utility.h"
#include "sntp/wire.h"

using namespace cm::test;
using cm::platform::kFoldsPathCase;
using std::string;

namespace {

TEST(Hosts, Addresses) {
    const Net net;
    uint32_t address = 0;
    EXPECT_EQ(cm_net_hostaddr(net.state, "10.1.2.3", &address), 1);
    EXPECT_EQ(address, address_of("10.1.2.3"));
    for (const char *bad : {"1.2.3", "300.1.1.1"}) {
        EXPECT_EQ(cm_net_hostaddr(net.state, bad, &address), 0);
        EXPECT_EQ(address, CM_INADDR_NONE);
        EXPECT_TRUE(net.lib.logged(string("WARN:  cm_dns_gethostaddr() failed for '") + bad + "'"));
    }
    EXPECT_EQ(cm_net_hostaddr(net.state, nullptr, &address), 0);
    EXPECT_EQ(cm_net_hostaddr(nullptr, "10.1.2.3", &address), 0);
    cm_net_shutdown(net.state);
    EXPECT_EQ(cm_net_hostaddr(net.state, "10.1.2.3", &address), 0);
}

TEST(Hosts, SocketOfAHandle) {
    Net net;
    const Link link(net);
    uint32_t address = 0;
    int32_t port = 0;
    EXPECT_EQ(cm_net_sockname(net.state, link.conn, &address, &port), 1);
    EXPECT_EQ(address, address_of("127.0.0.1"));
    EXPECT_EQ(static_cast<uint32_t>(port), link.listener->peer_port);
    const int32_t level = kFoldsPathCase ? 0xFFFF : 1, receive_timeout = kFoldsPathCase ? 0x1006 : 20, ms = 30;
    EXPECT_EQ(cm_net_setsockopt(net.state, link.conn, level, receive_timeout, &ms, sizeof ms), 1);
    size_t got = 0;
    char byte = 0;
    EXPECT_EQ(os.socket_receive(*link.conn->sock, &byte, 1, false, &got), CM_ETIMEDOUT);
    EXPECT_EQ(cm_net_setsockopt(net.state, link.conn, level, receive_timeout, nullptr, sizeof ms), 0);
    EXPECT_EQ(cm_net_setsockopt(net.state, link.conn, level, receive_timeout, &ms, -1), 0);
    EXPECT_EQ(cm_net_setsockopt(net.state, link.conn, 12345, 6789, &ms, sizeof ms), 0);
    cm_net_close(net.state, link.conn, 0);
    EXPECT_EQ(cm_net_sockname(net.state, link.conn, &address, &port), 0);
    EXPECT_EQ(port, 0);
    EXPECT_EQ(cm_net_setsockopt(net.state, link.conn, level, receive_timeout, &ms, sizeof ms), 0);
    EXPECT_EQ(cm_net_sockname(net.state, nullptr, &address, &port), 0);
}

// ---- broadcast ------------------------------------------------------------------------------------------------------

TEST(Broadcast, ReachesThePort) {
    Net net("Network Trace Level = PACKETS");
    const TestSocket receiver;
    const Redirect redirect(68, receiver.port());
    EXPECT_EQ(cm_net_broadcast(net.state, 0, 68, "offer", CM_LEN_TEXT), 1);
    uint32_t address = 0;
    int32_t port = 0;
    EXPECT_EQ(receiver.receive(&address, &port), "offer");
    EXPECT_EQ(net.trace(), "DHCP BROADCAST [5 bytes]\n");
    EXPECT_EQ(net.open(), 0);
    EXPECT_EQ(cm_net_broadcast(net.state, port, 68, "from a port", CM_LEN_TEXT), 1);
    int32_t from = 0;
    EXPECT_EQ(receiver.receive(&address, &from), "from a port");
    EXPECT_EQ(from, port);
    EXPECT_EQ(cm_net_broadcast(net.state, 0, 68, nullptr, 5), 0);
    EXPECT_EQ(cm_net_broadcast(nullptr, 0, 68, "x", 1), 0);
}

TEST(Broadcast, FailuresAreToldAndCleanedUp) {
    Net net;
    EXPECT_EQ(cm_net_broadcast(net.state, 0, 70000, "x", 1), 0);
    EXPECT_EQ(cm_net_broadcast(net.state, 70000, 68, "x", 1), 0);
    const struct {
        int k;
        const char *log, *alert;
        int16_t result;
    } table[] = {
        {1, nullptr, "connect: Failure creating socket.", 0},
        {2, nullptr, nullptr, 1},  // the option that keeps port errors out
        {3, "WARN:  setsockopt(REUSEADDR) failed on port 0.", nullptr, 1},
        {4, "ERROR: Unable to bind to port 0; the port is in use by another server.",
         "connect: Unable to bind to port 0; the port is in use by another server.", 0},
        {5, "WARN:  setsockopt(BROADCAST) failed on port 0.", nullptr, 0},
        {6, "WARN:  UDP sendto 255.255.255.255:68 failed", nullptr, 0},
    };
    for (const auto &row : table) {
        const TestSocket receiver;
        const Redirect redirect(68, receiver.port());
        const size_t alerts = net.alerts.get().size();
        {
            const Faults faults(Faults::kSockets, row.k);
            EXPECT_EQ(cm_net_broadcast(net.state, 0, 68, "x", 1), row.result) << row.k;
            EXPECT_EQ(faults.injected(), 1);
        }
        EXPECT_EQ(net.open(), 0);
        if (row.log != nullptr) {
            EXPECT_TRUE(net.lib.logged(row.log)) << row.log;
        }
        ASSERT_EQ(net.alerts.get().size(), alerts + (row.alert != nullptr)) << row.k;
        if (row.alert != nullptr) {
            EXPECT_EQ(net.alerts.get().back(), row.alert);
        }
    }
    EXPECT_TRUE(net.lib.logged("WARN:  UDP sendto 255.255.255.255:70000 failed"));
    EXPECT_TRUE(net.lib.logged("ERROR: Unable to bind to port 70000; the port is in use by another server."));
    cm_net_shutdown(net.state);
    EXPECT_EQ(cm_net_broadcast(net.state, 0, 68, "x", 1), 0);
    EXPECT_EQ(net.alerts.get().back(), "connect: No connection handles available.");
}

// ---- ping -----------------------------------------------------------------------------------------------------------

TEST(Ping, Loopback) {
    Net net;
    cm_socket socket = cm::platform::kNoSocket;
    if (os.socket_open(cm::platform::SocketKind::kEcho, &socket) != 0) {
        int32_t elapsed = -1;
        EXPECT_EQ(cm_net_ping(net.state, "127.0.0.1", 5, &elapsed), 0);
        GTEST_SKIP() << "no right to send echo requests";
    }
    os.socket_close(socket);
    int32_t elapsed = -1;
    EXPECT_EQ(cm_net_ping(net.state, "127.0.0.1", 5, &elapsed), 1);
    EXPECT_GE(elapsed, 0);
    EXPECT_LE(elapsed, 5000);
    EXPECT_EQ(net.open(), 0);
    EXPECT_EQ(cm_net_ping(net.state, "1.2.3", 5, &elapsed), 0);
    EXPECT_EQ(cm_net_ping(net.state, nullptr, 5, &elapsed), 0);
    EXPECT_EQ(cm_net_ping(nullptr, "127.0.0.1", 5, &elapsed), 0);
}

// Echo messages through a datagram socket: requests go to the port of one who answers as a host would.
class Pinged : public testing::Test {
protected:
    void SetUp() override {
        self = this;
        os.socket_open = [](cm::platform::SocketKind kind, cm_socket *out) {
            EXPECT_EQ(kind, cm::platform::SocketKind::kEcho);
            const auto error = self->saved_.socket_open(cm::platform::SocketKind::kDatagram, out);
            if (error == 0) cm::platform::kSystem.socket_bind(*out, address_of("127.0.0.1"), 0);
            return error;
        };
        redirect.after_send = [this] {
            uint32_t address = 0;
            int32_t port = 0;
            request = host.receive(&address, &port);
            for (const string &bytes : script(request)) host.send(address, port, bytes);
        };
    }
    void TearDown() override { os.socket_open = saved_.socket_open; }
    int16_t ping(int32_t timeout = 3) {
        elapsed = -1;
        const int16_t result = cm_net_ping(net.state, "127.0.0.1", timeout, &elapsed);
        EXPECT_EQ(net.open(), 0);
        return result;
    }

    static inline Pinged *self = nullptr;
    Net net{"Trace Performance = TRUE"};
    const cm::platform::Table saved_ = os;
    TestSocket host;
    Redirect redirect{0, host.port()};
    FrozenClock clock{1000000000};
    NoWaiting no_waiting{clock};
    string request;
    int32_t elapsed = -1;
    std::function<std::vector<string>(const string &)> script;
};

string reply_to(string request) {
    request[0] = 0;
    return request;
}
string with_ip_head(const string &message, size_t words = 5, char protocol = 1) {
    string head(words * 4, '\0');
    head[0] = static_cast<char>(0x40 | words);
    head[9] = protocol;
    return head + message;
}

TEST_F(Pinged, OnlyItsOwnReplyCounts) {
    script = [this](const string &asked) {
        clock.advance_ms(42);
        string other = reply_to(asked);
        other[20] ^= 1;
        string own_identifier = reply_to(asked);
        own_identifier[4] ^= 0x55;
        return std::vector<string>{"",
                                   asked,
                                   other,
                                   reply_to(asked).substr(0, 44),
                                   reply_to(asked) + "x",
                                   string(3000, 'x'),
                                   with_ip_head(reply_to(asked), 5, 17),
                                   with_ip_head(reply_to(asked), 4),
                                   with_ip_head("", 15).substr(0, 40),
                                   with_ip_head(own_identifier, 6)};
    };
    EXPECT_EQ(ping(), 1);
    EXPECT_EQ(elapsed, 42);
    ASSERT_EQ(request.size(), 45u);
    uint32_t sum = 0;  // of the whole message, with its checksum, as a receiver takes it
    for (size_t i = 0; i < 45; i++) sum += static_cast<uint32_t>(static_cast<uint8_t>(request[i])) << (i % 2 ? 0 : 8);
    while (sum > 0xFFFF) sum = (sum & 0xFFFF) + (sum >> 16);
    EXPECT_EQ(sum, 0xFFFFu);
    EXPECT_EQ(request.substr(0, 2), string("\x08\0", 2));
    uint32_t sent = 0;
    for (const auto &hour : net.lib.ctx()->perf)
        for (const auto &minute : hour) sent += minute[2];
    EXPECT_EQ(sent, 45u);
    const string first = request;
    script = [](const string &asked) { return std::vector<string>{reply_to(asked)}; };
    EXPECT_EQ(ping(), 1);
    EXPECT_NE(request.substr(8, 16), first.substr(8, 16));
}

TEST_F(Pinged, NoReply) {
    script = [](const string &) { return std::vector<string>{"junk", "junk"}; };
    const int64_t start = os.monotonic_ms();
    EXPECT_EQ(ping(), 0);
    EXPECT_EQ(os.monotonic_ms() - start, 3000);
    EXPECT_EQ(elapsed, 0);
    EXPECT_EQ(ping(-5), 0);
}

TEST_F(Pinged, EveryFailureIsCleanedUp) {
    script = [](const string &asked) { return std::vector<string>{reply_to(asked)}; };
    ASSERT_EQ(ping(), 1);  // makes the handle, which stays
    for (int k = 1;; k++) {
        ASSERT_LT(k, 100);
        const LeakCheck leaks;
        const Faults faults(Faults::kBoth & ~Faults::kFiles, k, CM_EACCES);
        const int16_t result = ping();
        if (faults.injected() == 0) {
            EXPECT_EQ(result, 1);
            break;
        }
        EXPECT_EQ(leaks.outstanding(), 0u) << k;
    }
    EXPECT_EQ(net.alerts.get().back(), "connect: Failure creating socket.");
}

// ---- hardware addresses ---------------------------------------------------------------------------------------------

TempFolder *neighbours = nullptr;

TEST(HardwareAddress, OfNeighboursAndThisHost) {
    const Net net;
    unsigned char mac[6];
    const auto find = [&](const char *address) {
        memset(mac, '#', sizeof mac);
        if (cm_net_macaddr(net.state, address_of(address), mac) == 1) return string(reinterpret_cast<char *>(mac), 6);
        EXPECT_EQ(string(reinterpret_cast<char *>(mac), 6), string(6, '\0'));
        return string();
    };
    EXPECT_EQ(find("127.0.0.1"), "");  // it has none
    EXPECT_EQ(cm_net_macaddr(net.state, 0, nullptr), 0);
    EXPECT_EQ(cm_net_macaddr(nullptr, 0, mac), 0);
    if (kFoldsPathCase) return;
    const TempFolder folder;
    neighbours = const_cast<TempFolder *>(&folder);
    string table = "IP address       HW type     Flags       HW address            Mask     Device\n";
    for (int i = 0; i < 200; i++)
        table += "198.51.100." + std::to_string(i) +
                 "      0x1         0x2         02:00:00:00:00:" + "0123456789abcdef"[i / 16] +
                 "0123456789abcdef"[i % 16] + "     *        eth9\n";
    table +=
        "203.0.113.1      0x1         0x0         00:00:00:00:00:00     *        eth9\n"
        "203.0.113.2      0x1         0x2         zz:00:00:00:00:01     *        eth9\n"
        "203.0.113.3 \n\n203.0.113.4      0x1         0x6         FE:DC:BA:98:76:54     *        eth9\n";
    folder.write("arp", table);
    const cm::platform::Table saved = os;
    os.file_open = [](const char *path, int32_t flags, int32_t *out) {
        EXPECT_STREQ(path, "/proc/net/arp");
        return cm::platform::kSystem.file_open(neighbours->path("arp").c_str(), flags, out);
    };
    EXPECT_EQ(find("198.51.100.0"), string("\x02\0\0\0\0\0", 6));
    EXPECT_EQ(find("198.51.100.199"), string("\x02\0\0\0\0\xC7", 6));
    EXPECT_EQ(find("198.51.100.200"), "");
    for (const char *unknown : {"203.0.113.1", "203.0.113.2", "203.0.113.3"}) EXPECT_EQ(find(unknown), "") << unknown;
    EXPECT_EQ(find("203.0.113.4"), "\xFE\xDC\xBA\x98\x76\x54");
    folder.write("arp", string(100000, '1'));
    EXPECT_EQ(find("203.0.113.4"), "");
    os = saved;
}

}  // namespace
