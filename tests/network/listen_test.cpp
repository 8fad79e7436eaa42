// Listeners and accept: texts, options, throttling, datagrams, performance counters.
#include <memory>

#include "net.h"

using namespace cm::test;
using cm::platform::SocketOption;

namespace {

// Lets one of the calls that make a listener fail.
class Breaks {
public:
    explicit Breaks(std::string step) : step_(std::move(step)) {}

private:
    template <class Entry, class... Arguments>
    Error call(bool fails, const Entry &entry, Arguments... arguments) {
        return fails ? CM_EACCES : entry.real(arguments...);
    }
    bool fails(SocketOption option) const {
        const std::pair<const char *, SocketOption> options[] = {{"keep alive", SocketOption::kKeepAlive},
                                                                 {"listener reuse", SocketOption::kListenerReuse},
                                                                 {"linger", SocketOption::kLinger},
                                                                 {"reuse", SocketOption::kReuseAddress}};
        return std::ranges::any_of(options, [&](auto &one) { return one.first == step_ && one.second == option; });
    }

    const std::string step_;
    int locals_ = 0;
    const Replace<&Table::socket_open> open_{[this](auto... a) { return call(step_ == "open", open_, a...); }};
    const Replace<&Table::socket_bind> bind_{[this](auto... a) { return call(step_ == "bind", bind_, a...); }};
    const Replace<&Table::socket_listen> listen_{[this](auto... a) { return call(step_ == "listen", listen_, a...); }};
    const Replace<&Table::socket_local> local_{[this](auto... a) {
        const bool second = ++locals_ == 2 && step_ == "local of the new one";
        return call(step_ == "local" || second, local_, a...);
    }};
    const Replace<&Table::socket_option> option_{[this](cm_socket socket, SocketOption option, int32_t value) {
        return call(fails(option), option_, socket, option, value);
    }};
};

TEST(Listen, TellsItsPortAndAddress) {
    Net net("Force IP Bind = 10.11.12.13");
    const cm_conn *one = net.listen();
    EXPECT_GT(one->peer_port, 0u);
    EXPECT_STREQ(one->peer_text, "127.0.0.1");
    EXPECT_EQ(one->local_port, 0u);
    cm_conn *any = nullptr;
    ASSERT_EQ(cm_net_listen(net.state, nullptr, 0, 5, 5, 1, &any), 1);
    EXPECT_EQ(any->peer_addr, address_of("10.11.12.13"));  // what the start found, since it listens everywhere
    EXPECT_STREQ(any->peer_text, "10.11.12.13");
    EXPECT_FALSE(cm::net::has_flag(any, CM_CONN_TLS));  // wanted, not available: plain
    net.said();
    for (const std::string text : {"1.2.3", "nowhere", "", "127.0.0.1 "}) {  // no address: everywhere
        EXPECT_EQ(Peer(net.listen(5, text.c_str())->peer_port, "127.0.0.5").error(), 0);
        EXPECT_EQ(net.said(), "ERROR: Unable to bind to address '" + text + "', using INADDR_ANY.\n");
    }
}

TEST(Listen, ASecondServerOnThePortIsRefusedAndARestartedOneIsNot) {
    Net net;
    const int32_t port = BareSocket().port();
    cm_conn *first = net.listen(5, "127.0.0.1", port);
    net.said();
    const std::string text =
        "Unable to bind to port " + std::to_string(port) + "; the port is in use by another server.\n";
    for (const char *address : {"127.0.0.1", static_cast<const char *>(nullptr)}) {
        EXPECT_EQ(net.listen(5, address, port), nullptr);
        EXPECT_EQ(net.said(), "ERROR: " + text);
        EXPECT_EQ(net.alerts(), "listener: " + text);
    }
    Peer peer(port);
    cm_net_close(net.state, net.accept(first), 0);  // closes first, so the port lingers in the system
    EXPECT_EQ(peer.receive(1), "");
    cm_net_close(net.state, first, 0);
    EXPECT_NE(net.listen(5, "127.0.0.1", port), nullptr);
    EXPECT_EQ(net.listen(5, nullptr, 65536 + port), nullptr);
}

TEST(Listen, EveryFailingStepHasItsTexts) {
    for (const Row &row : rows("network/listener_failures")) {
        SCOPED_TRACE(row.where + ": " + row[0] + ", " + row[1]);
        Net net;
        const Link link(net);
        const int32_t open = net.open(), made = static_cast<int32_t>(row.number(2));
        const int32_t port = row[0] == "beside" ? static_cast<int32_t>(link.listener->peer_port) : BareSocket().port();
        net.said();
        cm_conn *listener = link.conn;
        {
            const Breaks breaks(row[1]);
            const int16_t result = row[0] == "tcp"   ? cm_net_listen(net.state, nullptr, port, 5, 5, 0, &listener)
                                   : row[0] == "udp" ? cm_net_listenu(net.state, nullptr, port, &listener)
                                                     : cm_net_listenc(net.state, link.conn, 5, 0, &listener);
            EXPECT_EQ(result, made);
        }
        EXPECT_EQ(listener != nullptr, made != 0);
        EXPECT_EQ(net.open(), open + made);
        const auto expected = [&](const std::string &before, std::string text) {
            if (text.empty()) return text;
            if (const size_t at = text.find("PORT"); at != text.npos) text.replace(at, 4, std::to_string(port));
            return before + text + "\n";
        };
        EXPECT_EQ(net.said(), expected("", row[3]));
        EXPECT_EQ(net.alerts(), expected("listener: ", row[4]));
    }
    Net net;
    for (const char *option : {"listener reuse", "linger"}) {  // a port of 0 leaves them alone
        const Breaks breaks(option);
        EXPECT_NE(net.listen(), nullptr);
    }
    EXPECT_FALSE(net.lib.logged_text("setsockopt"));
}

TEST(Listen, BesideAConnectionOnItsLocalAddress) {
    Net net;
    const Link link(net);
    cm_conn *data = nullptr;
    ASSERT_EQ(cm_net_listenc(net.state, link.conn, 1, 0, &data), 1);
    EXPECT_NE(data->peer_port, link.listener->peer_port);
    EXPECT_STREQ(data->peer_text, "127.0.0.1");
    EXPECT_EQ(data->read_timeout, 180u);
    Peer peer(data->peer_port);
    EXPECT_TRUE(net.send(net.accept(data), "file"));
    EXPECT_EQ(peer.receive(4), "file");
}

TEST(Accept, FillsTheHandle) {
    Net net("Resolve Host Names = TRUE");
    const Replace<&Table::host_by_address> names([](uint32_t address, char *out, size_t size) -> Error {
        if (address != address_of("127.0.0.2")) return 11001;
        cm_strncpy(out, "client.example", static_cast<int32_t>(size));
        return 0;
    });
    cm_conn *listener = net.listen(77), *conn = nullptr;
    const Peer peer(listener->peer_port);
    ASSERT_EQ(cm_net_accept(net.state, listener, CM_CONN_CHUNKED, &conn), 1);
    EXPECT_EQ(conn->peer_addr, address_of("127.0.0.1"));
    EXPECT_STREQ(conn->peer_text, "127.0.0.1");
    EXPECT_STREQ(conn->peer_host, "127.0.0.1");
    EXPECT_EQ(conn->peer_host_len, 9);
    EXPECT_EQ(conn->peer_port, static_cast<uint32_t>(peer.port()));
    EXPECT_EQ(conn->local_port, listener->peer_port);
    EXPECT_EQ(conn->read_timeout, 77u);
    EXPECT_EQ(conn->flags, CM_CONN_CHUNKED | CM_CONN_LOOPBACK);
    const Link known(net, 20, "127.0.0.2");
    EXPECT_EQ(known.conn->flags, 0u);
    EXPECT_STREQ(known.conn->peer_host, "client.example");
    EXPECT_EQ(known.conn->peer_host_len, 14);
}

TEST(Accept, ThrottlesByAddressAndListenerPort) {
    Net net("Throttle IPs = 2");
    cm_conn *listener = net.listen(), *other = net.listen();
    std::vector<std::unique_ptr<Peer>> peers;
    const auto tried = [&](cm_conn *at, const char *from) {
        peers.push_back(std::make_unique<Peer>(at->peer_port, from));
        return net.accept(at);
    };
    cm_conn *first = tried(listener, "127.0.0.2"), *second = tried(listener, "127.0.0.2");
    ASSERT_TRUE(first != nullptr && second != nullptr);
    const int32_t open = net.open();
    EXPECT_EQ(tried(listener, "127.0.0.2"), nullptr);
    EXPECT_EQ(net.open(), open);
    EXPECT_EQ(peers.back()->receive(1), "");                                       // it was closed
    EXPECT_NE(tried(listener, "127.0.0.3"), nullptr);                              // another address
    EXPECT_NE(tried(other, "127.0.0.2"), nullptr);                                 // another port
    for (int i = 0; i < 3; i++) EXPECT_NE(tried(listener, "127.0.0.1"), nullptr);  // loopback is exempt
    cm::net::mark_closed(second);
    EXPECT_EQ(tried(listener, "127.0.0.2"), nullptr);  // marked closed counts until it is given back
    cm_net_close(net.state, first, 0);
    EXPECT_NE(tried(listener, "127.0.0.2"), nullptr);
    EXPECT_EQ(net.alerts(), "");
}

TEST(Accept, DatagramsAreHandlesWithoutASocket) {
    Net net;
    cm_conn *listener = net.listen_udp();
    EXPECT_TRUE(cm::net::has_flag(listener, CM_CONN_DATAGRAM));
    Udp peer;
    for (const size_t size : {size_t{5}, size_t{0}, size_t{CM_NET_IN_SIZE}}) {
        const std::string text(size, 'd');
        peer.send(text, listener->peer_port);
        cm_conn *datagram = net.accept(listener);
        ASSERT_NE(datagram, nullptr);
        EXPECT_EQ(*datagram->sock, -1);
        EXPECT_EQ(datagram->in_count, static_cast<int32_t>(size));
        EXPECT_EQ(std::string(reinterpret_cast<char *>(datagram->in_buf), size), text);
        EXPECT_EQ(datagram->flags, uint32_t{CM_CONN_DATAGRAM | CM_CONN_LOOPBACK});
        EXPECT_EQ(datagram->local_port, listener->peer_port);
        EXPECT_STREQ(datagram->peer_host, "127.0.0.1");
        EXPECT_EQ(cm_net_close(net.state, datagram, 1), 1);
    }
    peer.send(std::string(CM_NET_IN_SIZE + 1, 'x'), listener->peer_port);
    EXPECT_EQ(net.accept(listener), nullptr);  // one that does not fit is lost
    peer.send("next", listener->peer_port);
    EXPECT_NE(net.accept(listener), nullptr);
}

TEST(Accept, ConnectionsAndBytesAreCounted) {
    for (const bool on : {true, false}) {
        Net net(on ? "" : "Trace Performance = FALSE");
        Link link(net);
        ASSERT_TRUE(link.peer.send("12345"));
        EXPECT_EQ(net.receive(link.conn), "12345");
        EXPECT_TRUE(net.send(link.conn, "1234567"));
        cm_conn *udp = net.listen_udp();
        Udp().send("123", udp->peer_port);
        net.accept(udp);
        std::vector<uint32_t> sums(3);
        for (const auto &hour : net.lib.ctx()->perf)
            for (const auto &minute : hour)
                for (size_t i = 0; i < 3; i++) sums[i] += minute[i];
        // Both accepted ones; listeners are no connections.
        EXPECT_EQ(sums, on ? (std::vector<uint32_t>{2, 8, 7}) : std::vector<uint32_t>(3));
        EXPECT_EQ(link.conn->bytes_sent, 7u);
    }
}

}  // namespace
