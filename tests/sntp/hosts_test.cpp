// Broadcasts, pings, hardware addresses, and what a handle tells of its socket.
#include <gtest/gtest.h>

#include <numeric>

#include "sntp/redirect.h"

using namespace cm::test;
using cm::platform::kFoldsPathCase;
using std::string;

namespace {

TEST(Hosts, AddressesAndSockets) {
    Net net;
    const Link link(net);
    uint32_t address = 0;
    int32_t port = 0;
    EXPECT_EQ(cm_net_hostaddr(net.state, "10.1.2.3", &address), 1);
    EXPECT_EQ(dotted(address), "10.1.2.3");
    net.said();
    EXPECT_EQ(cm_net_hostaddr(net.state, "300.1.1.1", &address), 0);
    EXPECT_EQ(address, CM_INADDR_NONE);
    EXPECT_EQ(net.said(), "WARN:  cm_dns_gethostaddr() failed for '300.1.1.1'\n");
    EXPECT_EQ(cm_net_sockname(net.state, link.conn, &address, &port), 1);
    EXPECT_EQ(dotted(address), "127.0.0.1");
    EXPECT_EQ(static_cast<uint32_t>(port), link.listener->peer_port);
    const int32_t level = kFoldsPathCase ? 0xFFFF : 1, receive_timeout = kFoldsPathCase ? 0x1006 : 20, ms = 30;
    const auto set = [&](int32_t option, int32_t size) {
        return cm_net_setsockopt(net.state, link.conn, level, option, &ms, size);
    };
    EXPECT_EQ(set(receive_timeout, sizeof ms), 1);
    size_t got = 0;
    char byte = 0;
    EXPECT_EQ(os.socket_receive(*link.conn->sock, &byte, 1, false, &got), CM_ETIMEDOUT);
    EXPECT_EQ(set(receive_timeout, -1), 0);
    EXPECT_EQ(set(123456789, sizeof ms), 0);
    cm_net_close(net.state, link.conn, 0);
    EXPECT_EQ(set(receive_timeout, sizeof ms), 0);
    EXPECT_EQ(cm_net_sockname(net.state, link.conn, &address, &port), 0);
    EXPECT_EQ(port, 0);
}

TEST(Hosts, ABroadcastReachesThePort) {
    Net net("Network Trace Level = PACKETS");
    Udp receiver;
    const Redirect redirect{68, receiver.port()};
    EXPECT_EQ(cm_net_broadcast(net.state, 0, 68, "offer", CM_LEN_TEXT), 1);
    EXPECT_EQ(receiver.receive(), "offer");
    EXPECT_EQ(net.trace(), "DHCP BROADCAST [5 bytes]\n");
    const int32_t port = receiver.from_port;
    EXPECT_EQ(cm_net_broadcast(net.state, port, 68, "from a port", CM_LEN_TEXT), 1);
    EXPECT_EQ(receiver.receive(), "from a port");
    EXPECT_EQ(receiver.from_port, port);
    net.said();
    string told;
    for (int call = 1; call <= 6; call++) {
        const Faults faults(Faults::kSockets, call);
        told += std::to_string(cm_net_broadcast(net.state, 0, 68, "x", 1)) + "\n";
        told += net.said();
        told += net.alerts();
        EXPECT_EQ(net.open(), 0);
    }
    EXPECT_EQ(told,
              "0\nconnect: Failure creating socket.\n"
              "1\n"  // the option that keeps errors of ports out
              "1\nWARN:  setsockopt(REUSEADDR) failed on port 0.\n"
              "0\nERROR: Unable to bind to port 0; the port is in use by another server.\n"
              "connect: Unable to bind to port 0; the port is in use by another server.\n"
              "0\nWARN:  setsockopt(BROADCAST) failed on port 0.\n"
              "0\nWARN:  UDP sendto 255.255.255.255:68 failed\n");
    EXPECT_EQ(cm_net_broadcast(net.state, 0, 70000, "x", 1), 0);
    EXPECT_EQ(cm_net_broadcast(net.state, 70000, 68, "x", 1), 0);
    EXPECT_EQ(net.said(),
              "WARN:  UDP sendto 255.255.255.255:70000 failed\n"
              "ERROR: Unable to bind to port 70000; the port is in use by another server.\n");
    net.alerts();
    cm_net_shutdown(net.state);
    EXPECT_EQ(cm_net_broadcast(net.state, 0, 68, "x", 1), 0);
    EXPECT_EQ(net.alerts(), "connect: No connection handles available.\n");
}

// ---- ping -----------------------------------------------------------------------------------------------------------

TEST(Ping, Loopback) {
    Net net;
    int32_t elapsed = -1;
    const int16_t result = cm_net_ping(net.state, "127.0.0.1", 5, &elapsed);
    if (net.alerts() != "") GTEST_SKIP() << "no right to send echo requests";
    EXPECT_EQ(result, 1);
    EXPECT_LE(elapsed, 5000);
    EXPECT_EQ(net.open(), 0);
}

// Echo messages through a datagram socket: requests go to the port of one who answers as a host would.
class Pinged : public testing::Test {
protected:
    Pinged() {
        redirect.after_send = [this] {
            request = host.receive();
            for (const string &bytes : replies()) host.send(bytes, host.from_port, host.from_address);
        };
    }
    string reply() const { return '\0' + request.substr(1); }
    int16_t ping() {
        elapsed = -1;
        const int16_t result = cm_net_ping(net.state, "127.0.0.1", 3, &elapsed);
        EXPECT_EQ(net.open(), 0);
        return result;
    }

    Net net{"Trace Performance = TRUE"};
    Udp host;
    Redirect redirect{0, host.port()};
    FrozenClock clock;
    NoWaiting no_waiting{clock};
    const Replace<&Table::socket_open> open{[this](SocketKind kind, cm_socket *out) {
        EXPECT_EQ(kind, SocketKind::kEcho);
        const Error error = open.real(SocketKind::kDatagram, out);
        if (error == 0) cm::platform::kSystem.socket_bind(*out, address_of("127.0.0.1"), 0);
        return error;
    }};
    string request;
    int32_t elapsed = -1;
    std::function<Strings()> replies = [] { return Strings{}; };
};

string with_ip_head(const string &message, size_t words, char protocol = 1) {
    string head(words * 4, '\0');
    head[0] = static_cast<char>(0x40 | words);
    head[9] = protocol;
    return head + message;
}

TEST_F(Pinged, OnlyItsOwnReplyCounts) {
    Strings others;
    replies = [&] {
        string token = reply(), identifier = reply();
        token[20] ^= 1;
        identifier[4] ^= 0x55;  // the system's own may stand there
        others = {"",
                  request,
                  token,
                  reply().substr(0, 44),
                  reply() + "x",
                  string(3000, 'x'),
                  with_ip_head(reply(), 5, 17),
                  with_ip_head(reply(), 4),
                  with_ip_head("", 15).substr(0, 40)};
        clock.advance_ms(42);
        Strings all = others;
        all.push_back(with_ip_head(identifier, 6));
        return all;
    };
    EXPECT_EQ(ping(), 1);
    EXPECT_EQ(elapsed, 42);
    ASSERT_EQ(request.size(), 45u);
    EXPECT_EQ(request.substr(0, 2), string("\x08\0", 2));
    uint32_t sum = 0;  // of the whole message, with its checksum, as a receiver takes it
    for (size_t i = 0; i < 45; i++) sum += static_cast<uint32_t>(static_cast<uint8_t>(request[i])) << (i % 2 ? 0 : 8);
    while (sum > 0xFFFF) sum = (sum & 0xFFFF) + (sum >> 16);
    EXPECT_EQ(sum, 0xFFFFu);
    replies = [&] { return others; };
    const int64_t start = os.monotonic_ms();
    EXPECT_EQ(ping(), 0);
    EXPECT_EQ(os.monotonic_ms() - start, 3000);
    EXPECT_EQ(elapsed, 0);
    uint32_t sent = 0;
    for (const auto &hour : net.lib.ctx()->perf)
        for (const auto &minute : hour) sent += minute[2];
    EXPECT_EQ(sent, 90u);
    const string first = request;
    replies = [this] { return Strings{reply()}; };
    int16_t result = 0;
    each_failure(
        Faults::kBoth & ~Faults::kFiles, [&] { result = ping(); },
        [&](bool injected, size_t leaked) {
            EXPECT_TRUE(injected || result == 1);
            EXPECT_EQ(leaked, 0u);
        });
    EXPECT_NE(request.substr(8, 16), first.substr(8, 16));
    EXPECT_NE(net.alerts().find("connect: Failure creating socket.\n"), string::npos);
}

// ---- hardware addresses ---------------------------------------------------------------------------------------------

TEST(HardwareAddress, OfNeighboursAndThisHost) {
    const Net net;
    const auto find = [&](const char *address) {
        unsigned char mac[6] = {9};
        const int16_t result = cm_net_macaddr(net.state, address_of(address), mac);
        EXPECT_EQ(result == 0, std::accumulate(mac, mac + 6, 0) == 0);
        return string(reinterpret_cast<char *>(mac), result == 0 ? 0 : 6);
    };
    EXPECT_EQ(find("127.0.0.1"), "");  // it has none
    if (kFoldsPathCase) return;
    const TempFolder folder;
    string table = "IP address       HW type     Flags       HW address            Mask     Device\n";
    for (int i = 100; i < 300; i++)
        table += "198.51.100." + std::to_string(i) +
                 "   0x1         0x2         02:00:00:00:01:" + std::to_string(i % 90 + 10) + "     *        eth9\n";
    table +=
        "203.0.113.1      0x1         0x0         00:00:00:00:00:00     *        eth9\n"
        "203.0.113.2      0x1         0x2         zz:00:00:00:00:01     *        eth9\n"
        "203.0.113.3 \n\n203.0.113.4      0x1         0x6         FE:DC:BA:98:76:54     *        eth9\n";
    folder.write("arp", table);
    const Replace<&Table::file_open> open{[&](const char *path, int32_t flags, int32_t *out) {
        EXPECT_STREQ(path, "/proc/net/arp");
        return open.real(folder.path("arp").c_str(), flags, out);
    }};
    EXPECT_EQ(find("198.51.100.100"), string("\x02\0\0\0\x01\x20", 6));
    EXPECT_EQ(find("203.0.113.4"), "\xFE\xDC\xBA\x98\x76\x54");
    for (const char *unknown : {"203.0.113.1", "203.0.113.2", "203.0.113.3", "203.0.113.5"})
        EXPECT_EQ(find(unknown), "");
    folder.write("arp", string(100000, '1'));
    EXPECT_EQ(find("203.0.113.4"), "");
}

}  // namespace
