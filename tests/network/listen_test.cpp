// Listeners and accept: texts, options, throttling, datagrams, performance counters.
#include <memory>

#include "net.h"

using namespace cm::test;
using cm::platform::Error;
using cm::platform::SocketOption;
using Strings = std::vector<std::string>;

namespace {

constexpr Error kSomeError = CM_EACCES;

// Lets some of the calls that make a listener fail.
struct Broken {
    bool open = false, bind = false, listen = false, local = false;
    std::vector<SocketOption> options = {};
};
Broken broken;

class Breaks {
public:
    explicit Breaks(Broken which) : saved_(os) {
        broken = std::move(which);
        static cm::platform::Table real;
        real = saved_;
        os.socket_open = [](cm::platform::SocketKind kind, cm_socket *out) {
            return broken.open ? kSomeError : real.socket_open(kind, out);
        };
        os.socket_bind = [](cm_socket socket, uint32_t address, int32_t port) {
            return broken.bind ? kSomeError : real.socket_bind(socket, address, port);
        };
        os.socket_listen = [](cm_socket socket, int32_t backlog) {
            return broken.listen ? kSomeError : real.socket_listen(socket, backlog);
        };
        os.socket_local = [](cm_socket socket, uint32_t *address, int32_t *port) {
            return broken.local ? kSomeError : real.socket_local(socket, address, port);
        };
        os.socket_option = [](cm_socket socket, SocketOption option, int32_t value) {
            const auto &all = broken.options;
            return std::count(all.begin(), all.end(), option) > 0 ? kSomeError
                                                                  : real.socket_option(socket, option, value);
        };
    }
    ~Breaks() {
        os.socket_open = saved_.socket_open;
        os.socket_bind = saved_.socket_bind;
        os.socket_listen = saved_.socket_listen;
        os.socket_local = saved_.socket_local;
        os.socket_option = saved_.socket_option;
    }

private:
    cm::platform::Table saved_;
};

// Of a socket that was closed again, for listeners that need a port which is not 0.
uint32_t free_port() {
    cm_socket socket = -1;
    uint32_t address = 0;
    int32_t port = 0;
    EXPECT_EQ(os.socket_open(cm::platform::SocketKind::kStream, &socket), 0);
    EXPECT_EQ(os.socket_bind(socket, address_of("127.0.0.1"), 0), 0);
    EXPECT_EQ(os.socket_local(socket, &address, &port), 0);
    os.socket_close(socket);
    return static_cast<uint32_t>(port);
}

TEST(Listen, TellsItsPortAndAddress) {
    Net net("Force IP Bind = 10.11.12.13");
    cm_conn *one = net.listen();
    EXPECT_GT(one->peer_port, 0u);
    EXPECT_STREQ(one->peer_text, "127.0.0.1");
    EXPECT_EQ(one->local_port, 0u);
    cm_conn *any = nullptr;
    ASSERT_EQ(cm_net_listen(net.state, nullptr, 0, 5, 5, 1, &any), 1);
    EXPECT_EQ(any->peer_addr, address_of("10.11.12.13"));  // what the start found, since it listens everywhere
    EXPECT_STREQ(any->peer_text, "10.11.12.13");
    EXPECT_FALSE(cm::net::has_flag(any, CM_CONN_TLS));  // wanted, not available: plain
    EXPECT_EQ(Peer(any->peer_port).error(), 0);
}

TEST(Listen, ATextThatIsNoAddressListensEverywhere) {
    Net net;
    cm_conn *listener = nullptr;
    for (const char *text : {"1.2.3", "nowhere", "", "127.0.0.1 "}) {
        ASSERT_EQ(cm_net_listen(net.state, text, 0, 5, 5, 0, &listener), 1);
        EXPECT_EQ(Peer(listener->peer_port, "127.0.0.5").error(), 0);
        EXPECT_TRUE(net.lib.logged(std::string("ERROR: Unable to bind to address '") + text + "', using INADDR_ANY."));
    }
}

TEST(Listen, ASecondServerOnThePortIsRefusedAndARestartedOneIsNot) {
    Net net;
    cm_conn *first = nullptr, *second = nullptr;
    const auto port = static_cast<int32_t>(free_port());
    ASSERT_EQ(cm_net_listen(net.state, "127.0.0.1", port, 5, 5, 0, &first), 1);
    for (const char *address : {"127.0.0.1", static_cast<const char *>(nullptr)})
        EXPECT_EQ(cm_net_listen(net.state, address, port, 5, 5, 0, &second), 0);
    const std::string text =
        "Unable to bind to port " + std::to_string(port) + "; the port is in use by another server.";
    EXPECT_EQ(net.alerts.get(), (Strings{"listener: " + text, "listener: " + text}));
    EXPECT_TRUE(net.lib.logged("ERROR: " + text));

    Peer peer(static_cast<uint32_t>(port));
    cm_conn *conn = net.accept(first);
    cm_net_close(net.state, conn, 0);  // closes first, so the port lingers in the system
    EXPECT_EQ(peer.receive(1), "");
    cm_net_close(net.state, first, 0);
    EXPECT_EQ(cm_net_listen(net.state, "127.0.0.1", port, 5, 5, 0, &second), 1);
    EXPECT_EQ(cm_net_listen(net.state, nullptr, 65536 + port, 5, 5, 0, &second), 0);
}

TEST(Listen, EveryFailingStepHasItsTexts) {
    using O = SocketOption;
    enum Kind { kTcp, kUdp, kBeside };
    struct Case {
        Kind kind;
        Broken what;
        bool made;
        const char *logged;
        const char *alerted;  // "#" stands for the port
    };
    const Case cases[] = {
        {kTcp,
         {.open = true},
         false,
         "FATAL: Can't start listener on port #. Is TCP connectivity installed?",
         "Failure creating socket for listener on port #"},
        {kTcp,
         {.bind = true},
         false,
         "ERROR: Unable to bind to port #; the port is in use by another server.",
         "Unable to bind to port #; the port is in use by another server."},
        {kTcp,
         {.listen = true},
         false,
         "ERROR: Can't create listener on port #. In use by another server?",
         "Can't create listener on port #. In use by another server?"},
        {kTcp,
         {.local = true},
         false,
         "ERROR: getsockname() failed on port #, terminating listener.",
         "getsockname() failed on port #, terminating listener."},
        {kTcp, {.options = {O::kKeepAlive}}, true, "WARN:  setsockopt(KEEPALIVE) failed on port #.", nullptr},
        {kTcp, {.options = {O::kListenerReuse}}, true, "WARN:  setsockopt(REUSEADDR) failed on port #.", nullptr},
        {kTcp, {.options = {O::kLinger}}, true, "WARN:  setsockopt(LINGER) failed on port #.", nullptr},
        {kUdp, {.open = true}, false, "ERROR: Unable to create socket for UDP listener.", "Unable to create socket."},
        {kUdp,
         {.bind = true},
         false,
         "ERROR: Unable to bind to port #; the port is in use by another server.",
         "Unable to bind to port #; the port is in use by another server."},
        {kUdp,
         {.local = true},
         false,
         "ERROR: getsockname() failed on port #, terminating listener.",
         "getsockname() failed on port #, terminating listener."},
        {kUdp, {.options = {O::kReuseAddress}}, true, "WARN:  setsockopt(REUSEADDR) failed on port #.", nullptr},
        {kBeside,
         {.open = true},
         false,
         "ERROR: socket() failed on port #. Can't create listener.",
         "socket() failed for listener on port #."},
        {kBeside,
         {.bind = true},
         false,
         "ERROR: Unable to bind to port #; the port is in use by another server.",
         "Unable to bind to port #; the port is in use by another server."},
        {kBeside,
         {.listen = true},
         false,
         "ERROR: Can't start listener on port #; port in use by another server?",
         "Can't start listener on port #; port in use by another server?"},
        {kBeside,
         {.local = true},
         false,
         "ERROR: getsockname() failed on socket. Can't create listener.",
         "getsockname() failed for listener on port #."},
        {kBeside, {.options = {O::kListenerReuse}}, true, "WARN:  setsockopt(REUSEADDR) failed on port #.", nullptr},
    };
    for (const Case &c : cases) {
        Net net;
        Link link(net);
        const int32_t open = net.open();
        const auto port = static_cast<int32_t>(c.kind == kBeside ? link.listener->peer_port : free_port());
        cm_conn *made = link.conn;
        {
            const Breaks breaks(c.what);
            const int16_t result = c.kind == kTcp   ? cm_net_listen(net.state, nullptr, port, 5, 5, 0, &made)
                                   : c.kind == kUdp ? cm_net_listenu(net.state, nullptr, port, &made)
                                                    : cm_net_listenc(net.state, link.conn, 5, 0, &made);
            EXPECT_EQ(result, c.made ? 1 : 0) << c.logged;
        }
        EXPECT_EQ(made != nullptr, c.made);
        EXPECT_EQ(net.open(), open + c.made) << c.logged;
        const auto filled = [&](std::string text) {
            if (const size_t at = text.find('#'); at != std::string::npos) text.replace(at, 1, std::to_string(port));
            return text;
        };
        EXPECT_TRUE(net.lib.logged(filled(c.logged))) << filled(c.logged);
        EXPECT_EQ(net.alerts.get(), c.alerted ? Strings{"listener: " + filled(c.alerted)} : Strings{});
    }
}

TEST(Listen, APortOfZeroLeavesReuseAndLingerAlone) {
    Net net;
    const Breaks breaks({.options = {SocketOption::kListenerReuse, SocketOption::kLinger}});
    cm_conn *listener = nullptr;
    EXPECT_EQ(cm_net_listen(net.state, nullptr, 0, 5, 5, 0, &listener), 1);
    EXPECT_FALSE(net.lib.logged_text("setsockopt"));
}

TEST(Listen, BesideAConnectionOnItsLocalAddress) {
    Net net;
    Link link(net);
    cm_conn *data = nullptr;
    ASSERT_EQ(cm_net_listenc(net.state, link.conn, 1, 0, &data), 1);
    EXPECT_NE(data->peer_port, link.listener->peer_port);
    EXPECT_STREQ(data->peer_text, "127.0.0.1");
    EXPECT_EQ(data->read_timeout, 180u);
    Peer peer(data->peer_port);
    cm_conn *conn = net.accept(data);
    EXPECT_EQ(cm_net_send(net.state, conn, "file", CM_LEN_TEXT), 1);
    EXPECT_EQ(peer.receive(4), "file");
}

TEST(Accept, FillsTheHandle) {
    Net net;
    cm_conn *listener = net.listen(77);
    Peer peer(listener->peer_port);
    cm_conn *conn = nullptr;
    ASSERT_EQ(cm_net_accept(net.state, listener, CM_CONN_CHUNKED, &conn), 1);
    EXPECT_EQ(conn->peer_addr, address_of("127.0.0.1"));
    EXPECT_STREQ(conn->peer_text, "127.0.0.1");
    EXPECT_STREQ(conn->peer_host, "127.0.0.1");
    EXPECT_EQ(conn->peer_host_len, 9);
    EXPECT_EQ(conn->peer_port, peer.port());
    EXPECT_EQ(conn->local_port, listener->peer_port);
    EXPECT_EQ(conn->read_timeout, 77u);
    EXPECT_EQ(conn->flags, CM_CONN_CHUNKED | CM_CONN_LOOPBACK);
    Link other(net, 20, "127.0.0.2");
    EXPECT_EQ(other.conn->flags, 0u);
}

TEST(Accept, ResolvesThePeersName) {
    Net net("Resolve Host Names = TRUE");
    const auto real = os.host_by_address;
    os.host_by_address = [](uint32_t address, char *out, size_t size) -> Error {
        if (address != address_of("127.0.0.2")) return 11001;
        cm_strncpy(out, "client.example", static_cast<int32_t>(size));
        return 0;
    };
    Link known(net, 20, "127.0.0.2"), unknown(net, 20, "127.0.0.3");
    os.host_by_address = real;
    EXPECT_STREQ(known.conn->peer_host, "client.example");
    EXPECT_EQ(known.conn->peer_host_len, 14);
    EXPECT_STREQ(unknown.conn->peer_host, "127.0.0.3");
    EXPECT_EQ(unknown.conn->peer_host_len, 9);
}

TEST(Accept, ThrottlesByAddressAndListenerPort) {
    Net net("Throttle IPs = 2");
    cm_conn *listener = net.listen(), *other = net.listen();
    cm_conn *conn = nullptr;
    std::vector<std::unique_ptr<Peer>> peers;
    const auto tried = [&](cm_conn *at, const char *from) {
        peers.push_back(std::make_unique<Peer>(at->peer_port, from));
        return cm_net_accept(net.state, at, 0, &conn);
    };
    EXPECT_EQ(tried(listener, "127.0.0.2"), 1);
    cm_conn *first = conn;
    EXPECT_EQ(tried(listener, "127.0.0.2"), 1);
    cm_conn *second = conn;
    const int32_t open = net.open();
    EXPECT_EQ(tried(listener, "127.0.0.2"), 0);
    EXPECT_EQ(conn, nullptr);
    EXPECT_EQ(net.open(), open);
    EXPECT_EQ(peers.back()->receive(1), "");                                 // it was closed
    EXPECT_EQ(tried(listener, "127.0.0.3"), 1);                              // another address
    EXPECT_EQ(tried(other, "127.0.0.2"), 1);                                 // another port
    for (int i = 0; i < 3; i++) EXPECT_EQ(tried(listener, "127.0.0.1"), 1);  // loopback is exempt
    cm::net::mark_closed(second);
    EXPECT_EQ(tried(listener, "127.0.0.2"), 0);  // marked closed counts until it is given back
    cm_net_close(net.state, first, 0);
    EXPECT_EQ(tried(listener, "127.0.0.2"), 1);
    EXPECT_TRUE(net.alerts.get().empty());
}

class UdpPeer {
public:
    UdpPeer() {
        EXPECT_EQ(os.socket_open(cm::platform::SocketKind::kDatagram, &socket_), 0);
        EXPECT_EQ(os.socket_bind(socket_, address_of("127.0.0.2"), 0), 0);
    }
    ~UdpPeer() { os.socket_close(socket_); }
    Error send(uint32_t port, const std::string &text) {
        return os.socket_send_to(socket_, address_of("127.0.0.1"), static_cast<int32_t>(port), text.data(),
                                 text.size());
    }

    // As receivers see it, which on some systems is not the one it is bound to.
    uint32_t address() {
        cm_socket receiver = -1;
        uint32_t local = 0, seen = 0;
        int32_t port = 0;
        size_t count = 0;
        char byte = 0;
        EXPECT_EQ(os.socket_open(cm::platform::SocketKind::kDatagram, &receiver), 0);
        EXPECT_EQ(os.socket_bind(receiver, address_of("127.0.0.1"), 0), 0);
        EXPECT_EQ(os.socket_local(receiver, &local, &port), 0);
        EXPECT_EQ(send(static_cast<uint32_t>(port), "?"), 0);
        EXPECT_EQ(os.socket_receive_from(receiver, &byte, 1, false, &count, &seen, &port), 0);
        os.socket_close(receiver);
        return seen;
    }

private:
    cm_socket socket_ = -1;
};

TEST(Datagrams, AreHandlesWithoutASocket) {
    Net net;
    cm_conn *listener = nullptr;
    ASSERT_EQ(cm_net_listenu(net.state, "127.0.0.1", 0, &listener), 1);
    EXPECT_TRUE(cm::net::has_flag(listener, CM_CONN_DATAGRAM));
    UdpPeer peer;
    for (const size_t size : {size_t{5}, size_t{0}, size_t{CM_NET_IN_SIZE}}) {
        const std::string text(size, 'd');
        ASSERT_EQ(peer.send(listener->peer_port, text), 0);
        cm_conn *datagram = net.accept(listener);
        ASSERT_NE(datagram, nullptr);
        EXPECT_EQ(*datagram->sock, -1);
        EXPECT_EQ(datagram->in_count, static_cast<int32_t>(size));
        EXPECT_EQ(std::string(reinterpret_cast<char *>(datagram->in_buf), size), text);
        const bool loopback = peer.address() == address_of("127.0.0.1");
        EXPECT_EQ(datagram->flags, uint32_t{CM_CONN_DATAGRAM} | (loopback ? CM_CONN_LOOPBACK : 0u));
        EXPECT_EQ(datagram->local_port, listener->peer_port);
        EXPECT_EQ(address_of(datagram->peer_host), peer.address());
        EXPECT_EQ(cm_net_close(net.state, datagram, 1), 1);
    }
    cm_conn *conn = nullptr;
    ASSERT_EQ(peer.send(listener->peer_port, std::string(CM_NET_IN_SIZE + 1, 'x')), 0);
    EXPECT_EQ(cm_net_accept(net.state, listener, 0, &conn), 0);  // one that does not fit is lost
    ASSERT_EQ(peer.send(listener->peer_port, "next"), 0);
    EXPECT_NE(net.accept(listener), nullptr);
}

TEST(Counters, CountConnectionsAndBytes) {
    const auto sum = [](cm_context *ctx, int counter) {
        uint32_t total = 0;
        for (const auto &hour : ctx->perf)
            for (const auto &minute : hour) total += minute[counter];
        return total;
    };
    for (const bool on : {true, false}) {
        Net net(on ? "" : "Trace Performance = FALSE");
        Link link(net);
        ASSERT_TRUE(link.peer.send("12345"));
        EXPECT_EQ(net.receive(link.conn), "12345");
        EXPECT_EQ(cm_net_send(net.state, link.conn, "1234567", CM_LEN_TEXT), 1);
        cm_conn *udp = nullptr;
        ASSERT_EQ(cm_net_listenu(net.state, "127.0.0.1", 0, &udp), 1);
        UdpPeer peer;
        ASSERT_EQ(peer.send(udp->peer_port, "123"), 0);
        net.accept(udp);
        EXPECT_EQ(sum(net.lib, 0), on ? 2u : 0u);  // both accepted ones; listeners are no connections
        EXPECT_EQ(sum(net.lib, 1), on ? 8u : 0u);
        EXPECT_EQ(sum(net.lib, 2), on ? 7u : 0u);
        EXPECT_EQ(link.conn->bytes_sent, 7u);
    }
}

}  // namespace
