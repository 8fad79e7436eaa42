// Outgoing connections.
#include "net.h"
#include "net/dialup_hook.h"

using namespace cm::test;

namespace {

struct Result {
    int16_t status = -1;
    cm_conn *conn = nullptr;
    int32_t error = -1;
};

Result connect(Net &net, const char *host, int64_t port, int16_t tls = 0, int16_t in_progress = 0) {
    Result r;
    r.status = cm_net_connect(net.state, host, static_cast<int32_t>(port), 5, tls, in_progress, &r.conn, &r.error);
    return r;
}

Result connect_from(Net &net, int64_t port, int64_t local_port) {
    Result r;
    r.status = cm_net_connecta(net.state, "127.0.0.1", static_cast<int32_t>(port), 5, 0, 0, &r.conn, &r.error,
                               static_cast<int32_t>(local_port));
    return r;
}

TEST(Connect, ReachesAListener) {
    Net net;
    cm_conn *listener = net.listen();
    const Result r = connect(net, "127.0.0.1", listener->peer_port);
    ASSERT_EQ(r.status, 1);
    EXPECT_EQ(r.error, 0);
    EXPECT_EQ(r.conn->local_port + r.conn->flags, 0u);
    EXPECT_EQ(r.conn->peer_port, listener->peer_port);
    EXPECT_STREQ(r.conn->peer_text, "127.0.0.1");
    cm_conn *conn = net.accept(listener);
    EXPECT_TRUE(net.send(r.conn, "ping"));
    EXPECT_EQ(net.receive(conn), "ping");
    EXPECT_TRUE(net.send(conn, "pong"));
    EXPECT_EQ(net.receive(r.conn), "pong");
    EXPECT_EQ(connect(net, "127.0.0.1", listener->peer_port, 1).status, 0);  // TLS that is not there fails quietly
    EXPECT_EQ(net.alerts(), "");
    const Replace<&Table::host_by_name> names([](const char *name, uint32_t out[4], int32_t *count) -> Error {
        out[0] = address_of(strcmp(name, "here.example") == 0 ? "127.0.0.1" : "127.0.0.9");
        out[1] = address_of("127.0.0.9");
        *count = 2;
        return 0;
    });
    EXPECT_EQ(connect(net, "here.example", listener->peer_port).status, 1);
    EXPECT_EQ(connect(net, "elsewhere.example", listener->peer_port).error, CM_ECONNREFUSED);
}

TEST(Connect, FailuresAreAlertsWithTheirErrors) {
    Net net;
    const BareSocket dead;
    for (const auto &[port, error] : {std::pair(dead.port(), CM_ECONNREFUSED), {65536 + 80, CM_EADDRNOTAVAIL}}) {
        const Result r = connect(net, "127.0.0.1", port);
        EXPECT_TRUE(r.status == 0 && r.conn == nullptr);
        EXPECT_EQ(r.error, error);
        EXPECT_EQ(net.alerts(), "connect: Failure connecting to host '127.0.0.1'\n");
    }
    for (const std::string host : {"1.2.3", "no\xFFsuch", ""}) {
        EXPECT_EQ(connect(net, host.c_str(), 80).status, 0);
        EXPECT_EQ(net.alerts(), "connect: Failure lookup up host '" + host + "'\n");
    }
    EXPECT_EQ(connect(net, nullptr, 80).status, 0);
    EXPECT_EQ(net.open(), 0);
}

TEST(Connect, WaitsForAConnectUnderWay) {
    Net net;
    const uint32_t port = net.listen()->peer_port;
    Error error = CM_EINPROGRESS;
    const auto real = os.socket_connect;
    const Replace<&Table::socket_connect> under_way([&](auto... arguments) {
        if (error == CM_EINPROGRESS) real(arguments...);
        return error;
    });
    EXPECT_EQ(connect(net, "127.0.0.1", port, 0, 1).status, 1);
    EXPECT_EQ(connect(net, "127.0.0.1", port).error, CM_EINPROGRESS);  // only when it is allowed
    error = CM_EWOULDBLOCK;
    const Replace<&Table::socket_wait> never([](auto, auto, int32_t timeout_ms, int32_t *out_ready) -> Error {
        EXPECT_EQ(timeout_ms, 5000);
        return *out_ready = 0;
    });
    EXPECT_EQ(connect(net, "127.0.0.1", port).error, CM_ETIMEDOUT);
}

TEST(Connect, FromALocalPort) {
    Net net;
    cm_conn *listener = net.listen();
    const uint32_t port = listener->peer_port, in_use = net.listen()->peer_port;
    ASSERT_EQ(connect_from(net, port, 0).status, 1);
    net.accept(listener);
    const int32_t local = BareSocket().port();
    ASSERT_EQ(connect_from(net, port, local).status, 1);
    EXPECT_EQ(net.accept(listener)->peer_port, static_cast<uint32_t>(local));
    net.said();
    EXPECT_EQ(connect_from(net, port, in_use).status, 0);
    const BareSocket dead;
    EXPECT_EQ(connect_from(net, dead.port(), 0).error, CM_ECONNREFUSED);
    const std::string text =
        "Unable to bind to port " + std::to_string(in_use) + "; the port is in use by another server.\n";
    EXPECT_EQ(net.said(),
              "ERROR: " + text + "ERROR: connect(10061) failed [127.0.0.1:" + std::to_string(dead.port()) + "]\n");
    const Replace<&Table::socket_open> none([](auto...) { return CM_EMFILE; });
    EXPECT_EQ(connect(net, "127.0.0.1", port).error, CM_EMFILE);
    EXPECT_EQ(connect_from(net, port, 0).error, CM_EMFILE);
    EXPECT_EQ(net.alerts(), "connect: " + text +
                                "connect: Failure connecting to host '127.0.0.1'\n"
                                "connect: Failure creating socket.\nconnect: Unable to create socket.\n");
}

int dialled, hung_up, checked;
int16_t answer;
const cm::net::Dialup kLine = {[](cm_context *) -> int16_t { return ++dialled, answer; },
                               [](cm_context *) -> int16_t { return ++hung_up, int16_t{1}; },
                               [](cm_context *) -> int16_t { return ++checked, int16_t{1}; }};

TEST(Connect, OverADialledLine) {
    Net net("Dial-On-Demand = TRUE");
    const uint32_t port = net.listen(5, nullptr)->peer_port;
    cm::net::dialup = &kLine;
    answer = 1;
    EXPECT_EQ(connect(net, "127.0.0.1", port).conn->flags, 0u);  // needs no line
    EXPECT_EQ(dialled, 0);
    const Result r = connect(net, "127.0.0.2", port);
    ASSERT_EQ(r.status, 1);
    EXPECT_EQ(r.conn->flags, uint32_t{CM_CONN_DIALED});
    cm_net_close(net.state, r.conn, 0);
    EXPECT_EQ(hung_up, 1);
    EXPECT_EQ(connect(net, "127.0.0.2", BareSocket().port()).status, 0);
    EXPECT_EQ(checked, 1);
    EXPECT_EQ(hung_up, 2);
    answer = 0;
    const int32_t open = net.open();
    EXPECT_EQ(connect(net, "127.0.0.2", port).status, 0);
    EXPECT_EQ(net.open(), open);
    cm::net::dialup = nullptr;
}

}  // namespace
