// Broadcasts, pings, hardware addresses, and what a handle tells of its socket.
#include <gtest/gtest.h>

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
    EXPECT_EQ(cm_net_hostaddr(net.state, "300.1.1.1", &address), 0);
    EXPECT_EQ(address, CM_INADDR_NONE);
    EXPECT_TRUE(net.lib.logged("WARN:  cm_dns_gethostaddr() failed for '300.1.1.1'"));
    EXPECT_EQ(cm_net_sockname(net.state, link.conn, &address, &port), 1);
    EXPECT_EQ(dotted(address) + std::to_string(port), "127.0.0.1" + std::to_string(link.listener->peer_port));
    const int32_t level = kFoldsPathCase ? 0xFFFF : 1, receive_timeout = kFoldsPathCase ? 0x1006 : 20, ms = 30;
    EXPECT_EQ(cm_net_setsockopt(net.state, link.conn, level, receive_timeout, &ms, sizeof ms), 1);
    size_t got = 0;
    EXPECT_EQ(os.socket_receive(*link.conn->sock, &address, 1, false, &got), CM_ETIMEDOUT);
    EXPECT_EQ(cm_net_setsockopt(net.state, link.conn, level, 123456789, &ms, sizeof ms), 0);
    cm_net_close(net.state, link.conn, 0);
    EXPECT_EQ(cm_net_setsockopt(net.state, link.conn, level, receive_timeout, &ms, sizeof ms), 0);
    EXPECT_EQ(cm_net_sockname(net.state, link.conn, &address, &port), 0);
}

TEST(Hosts, ABroadcastReachesThePort) {
    Net net("Network Trace Level = PACKETS");
    Udp receiver;
    Redirect redirect{68, receiver.port()};
    const auto broadcast = [&](int32_t from, int32_t to) {
        string told = std::to_string(cm_net_broadcast(net.state, from, to, "offer", CM_LEN_TEXT)) + "\n";
        told += net.said();
        return told += net.alerts();
    };
    net.said();
    EXPECT_EQ(broadcast(0, 68), "1\n");
    EXPECT_EQ(receiver.receive(), "offer");
    EXPECT_EQ(net.trace(), "DHCP BROADCAST [5 bytes]\n");
    const int32_t port = receiver.from_port;
    EXPECT_EQ(broadcast(port, 68), "1\n");
    EXPECT_EQ(receiver.receive() + std::to_string(receiver.from_port), "offer" + std::to_string(port));
    EXPECT_EQ(broadcast(0, 70000), "0\nWARN:  UDP sendto 255.255.255.255:70000 failed\n");
    const string taken = "Unable to bind to port 70000; the port is in use by another server.\n";
    EXPECT_EQ(broadcast(70000, 68), "0\nERROR: " + taken + "connect: " + taken);
    const char *const told[] = {"0\nconnect: Failure creating socket.\n",
                                "1\n",  // the option that keeps errors of ports out
                                "1\nWARN:  setsockopt(REUSEADDR) failed on port 0.\n",
                                "0\nERROR: Unable to bind to port 0; the port is in use by another server.\n"
                                "connect: Unable to bind to port 0; the port is in use by another server.\n",
                                "0\nWARN:  setsockopt(BROADCAST) failed on port 0.\n",
                                "0\nWARN:  UDP sendto 255.255.255.255:68 failed\n"};
    for (int call = 1; call <= 6; call++) {
        const Faults faults(Faults::kSockets, call);
        EXPECT_EQ(broadcast(0, 68), told[call - 1]);
        EXPECT_EQ(net.open(), 0);
    }
    cm_net_shutdown(net.state);
    EXPECT_EQ(broadcast(0, 68), "0\nconnect: No connection handles available.\n");
}

TEST(Hosts, APingOfThisHost) {
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
TEST(Hosts, OnlyItsOwnReplyEndsAPing) {
    Net net;
    Udp host;
    Redirect redirect{0, host.port()};
    FrozenClock clock;
    const NoWaiting no_waiting{clock};
    const Replace<&Table::socket_open> open{[&](SocketKind kind, cm_socket *out) {
        EXPECT_EQ(kind, SocketKind::kEcho);
        const Error error = open.real(SocketKind::kDatagram, out);
        if (error == 0) cm::platform::kSystem.socket_bind(*out, address_of("127.0.0.1"), 0);
        return error;
    }};
    string request;
    bool answered = true;
    redirect.after_send = [&] {
        request = host.receive();
        const string reply = '\0' + request.substr(1);
        string token = reply, identifier = reply;
        token[20] ^= 1;
        identifier[4] ^= 0x55;  // the system's own may stand there
        for (const string &other : {string(), request, token, reply.substr(0, 44), reply + "x", string(3000, 'x'),
                                    with_ip_head(reply, 5, 17), with_ip_head(reply, 4), string(40, '\x4F')})
            host.send(other, host.from_port, host.from_address);
        clock.advance_ms(42);
        if (answered) host.send(with_ip_head(identifier, 6), host.from_port, host.from_address);
    };
    int32_t elapsed = 0;
    int16_t result = 0;
    const auto ping = [&] { result = cm_net_ping(net.state, "127.0.0.1", 3, &elapsed); };
    ping();
    EXPECT_EQ(result * 100 + elapsed, 142);
    ASSERT_EQ(request.size(), 45u);
    uint32_t sum = 0;  // of the whole message, with its checksum, as a receiver takes it
    for (size_t i = 0; i < 45; i++) sum += static_cast<uint32_t>(static_cast<uint8_t>(request[i])) << (i % 2 ? 0 : 8);
    EXPECT_EQ((sum & 0xFFFF) + (sum >> 16), 0xFFFFu);
    EXPECT_EQ(request.substr(0, 2), string("\x08\0", 2));
    const string first = request;
    each_failure(Faults::kBoth & ~Faults::kFiles, ping, [&](bool injected, size_t leaked) {
        EXPECT_TRUE(injected || result == 1);
        EXPECT_EQ(leaked, 0u);
        EXPECT_EQ(net.open(), 0);
    });
    EXPECT_EQ(net.alerts(), "connect: Failure creating socket.\n");
    EXPECT_NE(request.substr(8, 16), first.substr(8, 16));
    answered = false;
    const int64_t start = os.monotonic_ms();
    ping();
    EXPECT_EQ(os.monotonic_ms() - start, 3000);
    EXPECT_EQ(result + elapsed, 0);
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
