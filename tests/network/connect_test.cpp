// Outgoing connections.
#include "net.h"
#include "net/dialup_hook.h"

using namespace cm::test;
using cm::platform::Error;
using Strings = std::vector<std::string>;

namespace {

struct Result {
    int16_t status = -1;
    cm_conn *conn = nullptr;
    int32_t error = -1;
};

Result connect(Net &net, const char *host, uint32_t port, int16_t tls = 0) {
    Result r;
    r.status = cm_net_connect(net.state, host, static_cast<int32_t>(port), 5, tls, 0, &r.conn, &r.error);
    return r;
}

Result connect_from(Net &net, const char *host, uint32_t port, int32_t local_port) {
    Result r;
    r.status = cm_net_connecta(net.state, host, static_cast<int32_t>(port), 5, 0, 0, &r.conn, &r.error, local_port);
    return r;
}

// A port that nobody listens on, held by a socket that does not listen.
class DeadPort {
public:
    DeadPort() {
        uint32_t address = 0;
        EXPECT_EQ(os.socket_open(cm::platform::SocketKind::kStream, &socket_), 0);
        EXPECT_EQ(os.socket_bind(socket_, address_of("127.0.0.1"), 0), 0);
        EXPECT_EQ(os.socket_local(socket_, &address, &port_), 0);
    }
    ~DeadPort() { os.socket_close(socket_); }
    uint32_t get() const { return static_cast<uint32_t>(port_); }

private:
    cm_socket socket_ = -1;
    int32_t port_ = 0;
};

TEST(Connect, ReachesAListener) {
    Net net;
    cm_conn *listener = net.listen();
    const Result r = connect(net, "127.0.0.1", listener->peer_port);
    ASSERT_EQ(r.status, 1);
    EXPECT_EQ(r.error, 0);
    EXPECT_EQ(r.conn->local_port, 0u);
    EXPECT_EQ(r.conn->peer_port, listener->peer_port);
    EXPECT_STREQ(r.conn->peer_text, "127.0.0.1");
    EXPECT_EQ(r.conn->flags, 0u);
    cm_conn *conn = net.accept(listener);
    EXPECT_EQ(cm_net_send(net.state, r.conn, "ping", CM_LEN_TEXT), 1);
    EXPECT_EQ(net.receive(conn), "ping");
    EXPECT_EQ(cm_net_send(net.state, conn, "pong", CM_LEN_TEXT), 1);
    EXPECT_EQ(net.receive(r.conn), "pong");
    EXPECT_TRUE(net.alerts.get().empty());
}

TEST(Connect, ByAName) {
    Net net;
    cm_conn *listener = net.listen();
    static decltype(os.host_by_name) real;
    real = os.host_by_name;
    os.host_by_name = [](const char *name, uint32_t out[4], int32_t *count) -> Error {
        out[0] = address_of(strcmp(name, "here.example") == 0 ? "127.0.0.1" : "127.0.0.9");
        out[1] = address_of("127.0.0.9");
        *count = 2;
        return 0;
    };
    EXPECT_EQ(connect(net, "here.example", listener->peer_port).status, 1);
    EXPECT_EQ(connect(net, "elsewhere.example", listener->peer_port).error, CM_ECONNREFUSED);
    os.host_by_name = real;
}

TEST(Connect, ARefusalIsAnAlertWithItsError) {
    Net net;
    const DeadPort dead;
    const Result r = connect(net, "127.0.0.1", dead.get());
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.conn, nullptr);
    EXPECT_EQ(r.error, CM_ECONNREFUSED);
    EXPECT_EQ(net.alerts.get(), Strings{"connect: Failure connecting to host '127.0.0.1'"});
    EXPECT_EQ(net.open(), 0);
    const Result wide = connect(net, "127.0.0.1", 65536 + 80);
    EXPECT_EQ(wide.status, 0);
    EXPECT_EQ(wide.error, CM_EADDRNOTAVAIL);
}

TEST(Connect, AHostThatIsNotFound) {
    Net net;
    for (const char *host : {"1.2.3", "no\xFFsuch", ""}) EXPECT_EQ(connect(net, host, 80).status, 0) << host;
    EXPECT_EQ(net.alerts.get()[0], "connect: Failure lookup up host '1.2.3'");
    EXPECT_EQ(net.alerts.get().size(), 3u);
    EXPECT_EQ(net.open(), 0);
    EXPECT_EQ(connect(net, nullptr, 80).status, 0);
}

TEST(Connect, TimesOutAndIsWokenByTheStop) {
    Net net;
    cm_conn *listener = net.listen();
    static decltype(os.socket_connect) real;
    real = os.socket_connect;
    os.socket_connect = [](cm_socket, uint32_t, int32_t) -> Error { return CM_EWOULDBLOCK; };
    static decltype(os.socket_wait) real_wait;
    real_wait = os.socket_wait;
    os.socket_wait = [](cm::platform::WaitItem *items, int32_t count, int32_t timeout_ms, int32_t *out) {
        EXPECT_EQ(timeout_ms, 5000);
        items[0].socket = cm::platform::kNoSocket;  // never writable
        return real_wait(items, count, 10, out);
    };
    const Result r = connect(net, "127.0.0.1", listener->peer_port);
    os.socket_wait = real_wait;
    os.socket_connect = real;
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.error, CM_ETIMEDOUT);
}

TEST(Connect, InProgressIsWaitedForOnlyWhenAllowed) {
    Net net;
    cm_conn *listener = net.listen();
    static decltype(os.socket_connect) real;
    real = os.socket_connect;
    os.socket_connect = [](cm_socket socket, uint32_t address, int32_t port) -> Error {
        real(socket, address, port);
        return CM_EINPROGRESS;
    };
    Result r;
    EXPECT_EQ(
        cm_net_connect(net.state, "127.0.0.1", static_cast<int32_t>(listener->peer_port), 5, 0, 1, &r.conn, &r.error),
        1);
    EXPECT_EQ(connect(net, "127.0.0.1", listener->peer_port).error, CM_EINPROGRESS);
    os.socket_connect = real;
}

TEST(Connect, TlsThatIsNotThereFailsQuietly) {
    Net net;
    cm_conn *listener = net.listen();
    EXPECT_EQ(connect(net, "127.0.0.1", listener->peer_port, 1).status, 0);
    EXPECT_TRUE(net.alerts.get().empty());
}

TEST(Connect, FromALocalPort) {
    Net net;
    cm_conn *listener = net.listen();
    ASSERT_EQ(connect_from(net, "127.0.0.1", listener->peer_port, 0).status, 1);
    net.accept(listener);
    uint32_t port = 0;
    {
        const DeadPort probe;
        port = probe.get();
    }
    const auto local = static_cast<int32_t>(port);
    const Result r = connect_from(net, "127.0.0.1", listener->peer_port, local);
    ASSERT_EQ(r.status, 1);
    EXPECT_EQ(net.accept(listener)->peer_port, port);

    cm_conn *other = net.listen();
    const std::string in_use =
        "Unable to bind to port " + std::to_string(other->peer_port) + "; the port is in use by another server.";
    EXPECT_EQ(connect_from(net, "127.0.0.1", listener->peer_port, static_cast<int32_t>(other->peer_port)).status, 0);
    EXPECT_TRUE(net.lib.logged("ERROR: " + in_use));

    const DeadPort dead;
    EXPECT_EQ(connect_from(net, "127.0.0.1", dead.get(), 0).error, CM_ECONNREFUSED);
    EXPECT_TRUE(net.lib.logged("ERROR: connect(10061) failed [127.0.0.1:" + std::to_string(dead.get()) + "]"));

    static decltype(os.socket_open) real;
    real = os.socket_open;
    os.socket_open = [](cm::platform::SocketKind, cm_socket *) -> Error { return CM_EMFILE; };
    EXPECT_EQ(connect(net, "127.0.0.1", dead.get()).error, CM_EMFILE);
    EXPECT_EQ(connect_from(net, "127.0.0.1", dead.get(), 0).error, CM_EMFILE);
    os.socket_open = real;
    EXPECT_EQ(net.alerts.get(), (Strings{"connect: " + in_use, "connect: Failure connecting to host '127.0.0.1'",
                                         "connect: Failure creating socket.", "connect: Unable to create socket."}));
}

struct Line {
    int dialled = 0, hung_up = 0, checked = 0;
    int16_t answer = 1;
};
Line line;
const cm::net::Dialup kLine = {[](cm_context *) -> int16_t { return ++line.dialled, line.answer; },
                               [](cm_context *) -> int16_t { return ++line.hung_up, int16_t{1}; },
                               [](cm_context *) -> int16_t { return ++line.checked, int16_t{1}; }};

TEST(Connect, OverADialledLine) {
    Net net("Dial-On-Demand = TRUE");
    cm_conn *listener = net.listen();
    cm::net::dialup = &kLine;
    line = {};
    EXPECT_EQ(connect(net, "127.0.0.1", listener->peer_port).conn->flags, 0u);  // needs no line
    EXPECT_EQ(line.dialled, 0);
    cm_conn *any = nullptr;
    ASSERT_EQ(cm_net_listen(net.state, nullptr, 0, 5, 5, 0, &any), 1);
    const Result r = connect(net, "127.0.0.2", any->peer_port);
    ASSERT_EQ(r.status, 1);
    EXPECT_EQ(r.conn->flags, uint32_t{CM_CONN_DIALED});
    cm_net_close(net.state, r.conn, 0);
    EXPECT_EQ(line.hung_up, 1);
    const DeadPort dead;
    EXPECT_EQ(connect(net, "127.0.0.2", dead.get()).status, 0);
    EXPECT_EQ(line.checked, 1);
    EXPECT_EQ(line.hung_up, 2);
    line.answer = 0;
    const int32_t open = net.open();
    EXPECT_EQ(connect(net, "127.0.0.2", any->peer_port).status, 0);
    EXPECT_EQ(net.open(), open);
    cm::net::dialup = nullptr;
}

}  // namespace
