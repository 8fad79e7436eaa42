// Datagrams: sent, received, traced, and what their failures leave.
#include "world.h"

using namespace cm::test;

namespace {

class Datagrams : public testing::Test {
protected:
    string receive(cm_conn *conn, int32_t size = 100, int32_t timeout = 1) {
        string text(static_cast<size_t>(size), '\0');
        int32_t count = -1;
        if (cm_net_recv(world_.net, conn, text.data(), size, timeout, &count) == 0) return "(failed)";
        return text.substr(0, static_cast<size_t>(count));
    }
    bool closed(const cm_conn *conn) const { return cm::net::has_flag(conn, CM_CONN_CLOSED); }

    World world_{"Network Log File = network.log"};
    Udp peer_;
};

TEST_F(Datagrams, AreSentAndTraced) {
    cm_conn *conn = nullptr, *listener = nullptr;
    const uint32_t here = address_of("127.0.0.1");
    ASSERT_EQ(cm_net_trace(world_.lib, CM_NTRACE_STREAM), 1);
    ASSERT_EQ(cm_net_dnssendto(world_.net, here, peer_.port(), "hello", CM_LEN_TEXT, &conn), 1);
    EXPECT_EQ(peer_.receive(), "hello");
    peer_.send("back", peer_.from_port);
    EXPECT_EQ(receive(conn), "back");
    cm_conn *const first = conn;
    ASSERT_EQ(cm_net_dnssendto(world_.net, here, peer_.port(), "xyz", 2, &conn), 1);
    EXPECT_EQ(conn, first);
    EXPECT_EQ(peer_.receive(), "xy");
    EXPECT_EQ(conn->bytes_sent, 7u);
    EXPECT_EQ(cm_net_sendto(world_.net, conn, here, peer_.port(), "z", 0), 1);  // nothing is nothing
    ASSERT_EQ(cm_net_listenu(world_.net, "127.0.0.1", 0, &listener), 1);
    ASSERT_EQ(cm_net_sendto(world_.net, listener, here, peer_.port(), "reply", 5), 1);
    EXPECT_EQ(peer_.receive(), "reply");
    EXPECT_EQ(peer_.from_port, static_cast<int32_t>(listener->peer_port));
    const string to = "127.0.0.1:" + std::to_string(peer_.port()), port = std::to_string(listener->peer_port);
    cm_net_close(world_.net, conn, 0);
    EXPECT_EQ(cm_net_trace(world_.lib, CM_NTRACE_NONE), 1);
    const string log = world_.lib.folder().read("log/network.log");
    for (const string &line :
         {"UDP WRITE [0] -> " + to + " [5 bytes]\n", string("UDP READ [0] -> 127.0.0.1 [4 bytes]\n"),
          "UDP WRITE [0] -> " + to + " [2 bytes]\n", "UDP WRITE [" + port + "] -> " + to + " [5 bytes]\n"})
        EXPECT_NE(log.find(line), log.npos) << line << log;
    EXPECT_NE(log.find("hello"), log.npos);
}

TEST_F(Datagrams, FailuresMarkTheHandleButNeverAListener) {
    cm_conn *conn = nullptr, *listener = nullptr;
    const uint32_t here = address_of("127.0.0.1");
    ASSERT_EQ(cm_net_listenu(world_.net, "127.0.0.1", 0, &listener), 1);
    EXPECT_EQ(cm_net_sendto(world_.net, listener, here, 0, "x", 1), 0);
    EXPECT_TRUE(world_.lib.logged("WARN:  UDP sendto 127.0.0.1:0 failed"));
    EXPECT_FALSE(closed(listener));
    EXPECT_EQ(cm_net_dnssendto(world_.net, here, 65536, "x", 1, &conn), 0);
    EXPECT_TRUE(world_.lib.logged("WARN:  UDP sendto 127.0.0.1:65536 failed"));
    ASSERT_NE(conn, nullptr);
    EXPECT_TRUE(closed(conn));
    EXPECT_EQ(cm_net_sendto(world_.net, conn, here, peer_.port(), "x", 1), 0);
    ASSERT_EQ(cm_net_dnssendto(world_.net, here, peer_.port(), "x", 1, &conn), 1);  // another one
    EXPECT_FALSE(closed(conn));
    EXPECT_EQ(receive(conn, 100, 0), "(failed)");
    EXPECT_TRUE(closed(conn));
    EXPECT_EQ(receive(listener, 100, 0), "(failed)");
    EXPECT_FALSE(closed(listener));
    cm_net_close(world_.net, conn, 0);
    EXPECT_EQ(cm_net_sendto(world_.net, nullptr, here, 1, "x", 1), 0);
    EXPECT_EQ(cm_net_sendto(world_.net, listener, here, 1, nullptr, 1), 0);
    EXPECT_EQ(cm_net_dnssendto(world_.net, here, 1, "x", 1, nullptr), 0);
    EXPECT_EQ(cm_net_recv(world_.net, listener, nullptr, 1, 0, nullptr), 0);
}

TEST_F(Datagrams, AreTakenFromThePeerOrFromAnybody) {
    cm_conn *conn = nullptr, *listener = nullptr;
    const uint32_t here = address_of("127.0.0.1");
    Udp neighbour, stranger("127.0.0.2");
    stranger.send("?", neighbour.port());
    EXPECT_EQ(neighbour.receive(), "?");
    const uint32_t strange = neighbour.from_address;  // not everywhere the one it is bound to
    ASSERT_EQ(cm_net_dnssendto(world_.net, here, peer_.port(), "?", 1, &conn), 1);
    peer_.receive();
    neighbour.send("neighbour", peer_.from_port);
    stranger.send("stranger", peer_.from_port);
    peer_.send(string(200, 'x'), peer_.from_port);
    peer_.send("peer", peer_.from_port);
    EXPECT_EQ(receive(conn), "peer");
    stranger.send("stranger", peer_.from_port);
    peer_.send(string(200, 'x'), peer_.from_port);
    char buffer[100];
    int32_t count = 0, port = 0;
    uint32_t address = 0;
    ASSERT_EQ(cm_net_recvfrom(world_.net, conn, buffer, sizeof buffer, 1, &count, &address, &port), 1);
    EXPECT_EQ(string(buffer, static_cast<size_t>(count)), "stranger");
    EXPECT_EQ(address, strange);
    EXPECT_EQ(port, stranger.port());
    EXPECT_EQ(cm_net_recvfrom(world_.net, conn, buffer, sizeof buffer, 1, &count, nullptr, nullptr), 0);
    EXPECT_EQ(count, 0);
    EXPECT_TRUE(closed(conn));
    cm_net_close(world_.net, conn, 0);
    ASSERT_EQ(cm_net_listenu(world_.net, "127.0.0.1", 0, &listener), 1);
    peer_.send("anybody", listener->peer_port);
    ASSERT_EQ(cm_net_recvfrom(world_.net, listener, buffer, sizeof buffer, 1, &count, nullptr, nullptr), 1);
    EXPECT_EQ(count, 7);
}

TEST_F(Datagrams, AlertsWhenThereIsNoHandleOrSocket) {
    static Strings alerts;
    world_.lib.ctx()->alert_handler = [](cm_context *, const cm_alert *alert) {
        alerts.push_back(string(alert->subject) + ": " + alert->message);
    };
    cm_conn *conn = nullptr;
    {
        const Faults faults(Faults::kSockets, 1);
        EXPECT_EQ(cm_net_dnssendto(world_.net, address_of("127.0.0.1"), 9, "x", 1, &conn), 0);
    }
    EXPECT_EQ(conn, nullptr);
    cm_net_shutdown(world_.net);
    EXPECT_EQ(cm_net_dnssendto(world_.net, address_of("127.0.0.1"), 9, "x", 1, &conn), 0);
    EXPECT_EQ(alerts, (Strings{"connect: Failure creating socket.", "connect: No connection handles available."}));
    world_.lib.ctx()->alert_handler = nullptr;
}

}  // namespace
