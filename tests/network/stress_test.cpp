// Many connections, many threads.
#include <atomic>

#include "net.h"

using namespace cm::test;

namespace {

void answer(cm_net_state *state, cm_conn *conn) {
    char text[64];
    int32_t count = 0;
    if (cm_net_receive(state, conn, text, sizeof text, &count) == 1 && count > 0) cm_net_send(state, conn, text, count);
}

// A few runs at a time must not use up the ports of the machine, each of which rests for a minute.
constexpr int kConnections = 3000;

// Clients come faster than the table lets them in; each is answered in the end.  Without linger, since on some systems
// a close that lingers takes 40 ms, and one comes after the other.
TEST(Stress, ThousandsOfConnectionsThroughATableOfThreeHundred) {
    Net net("Maximum Connections = 300\nLinger Close = false");
    cm_conn *listener = nullptr;
    ASSERT_EQ(cm_net_listen(net.state, "127.0.0.1", 0, 1024, 20, 0, &listener), 1);
    std::atomic<int> right = 0, highest = 0;
    Server server(net, {listener}, [&](cm_context *, cm_conn *conn, cm_thread *) {
        int seen = highest;
        const int now = net.open();
        while (now > seen && !highest.compare_exchange_weak(seen, now)) {
        }
        answer(net.state, conn);
    });
    const auto burst = [&](int connections) {
        std::vector<std::thread> clients;
        for (int c = 0; c < 8; c++)
            clients.emplace_back([&, c] {
                for (int i = c; i < connections; i += 8) {
                    const std::string text = "request " + std::to_string(i);
                    Peer peer(listener->peer_port);
                    right += peer.send(text) && peer.receive(text.size()) == text;
                }
            });
        for (std::thread &client : clients) client.join();
    };
    burst(500);
    const uint32_t memory = net.state->pool->total;
    burst(kConnections - 500);
    EXPECT_EQ(right, kConnections);
    EXPECT_LE(highest, 300);
    EXPECT_TRUE(eventually([&] { return net.open() == 1; }));
    EXPECT_LT(net.state->pool->total - memory, 1u << 20);
}

// Sixteen threads beside the workers of an accept loop: accepting, connecting, address look-ups, trace levels, and two
// forced closes of it all.  Nobody's handle is anybody else's.
TEST(Stress, ForcedClosesUnderLoad) {
    Net net("Maximum Connections = 64\nNetwork Trace Level = PACKETS");
    cm_conn *const listeners[] = {net.listen(2), net.listen(2)};
    const int64_t ports[] = {listeners[0]->peer_port, listeners[1]->peer_port};
    std::atomic<bool> stop = false;
    std::atomic<int> rounds = 0, accepted = 0, served = 0, wrong = 0;
    const auto serve = [&](cm_conn *conn) {
        const uint32_t serial = conn->serial;
        for (int i = 0; i < 3; i++) answer(net.state, conn);
        wrong += conn->serial != serial;
    };
    Server server(net, {listeners[0]}, [&](cm_context *, cm_conn *conn, cm_thread *) { serve(conn), served++; });
    const auto accept = [&] {
        cm_conn *conn = nullptr;
        if (cm_net_accept(net.state, listeners[1], 0, &conn) == 0) return false;
        serve(conn);
        cm_net_close(net.state, conn, 0);
        return ++accepted, true;
    };
    const auto ask = [&] {
        cm_conn *conn = nullptr;
        const auto port = static_cast<int32_t>(ports[rounds % 2]);
        if (cm_net_connect(net.state, "127.0.0.1", port, 2, 0, 0, &conn, nullptr) == 0) return true;
        for (int i = 0; i < 3; i++) net.send(conn, "x"), net.receive(conn, 16);
        cm_net_isalive(net.state, conn);
        cm_net_close(net.state, conn, 1);
        return ++rounds, true;
    };
    const auto change = [&] {
        if (rounds % 2 == 0)
            cm_net_initip(net.lib);
        else
            cm_net_trace(net.lib, rounds % 3 == 0 ? CM_NTRACE_PACKETS : CM_NTRACE_OPENCLOSE);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        return true;
    };
    std::vector<std::thread> threads;
    const std::function<bool()> steps[] = {accept, ask, change};
    for (size_t t = 0; t < 16; t++)
        threads.emplace_back([&, step = steps[t < 12 ? t % 2 : 2]] {
            while (!stop && step()) {
            }
        });
    EXPECT_TRUE(eventually([&] { return accepted > 100 && served > 100; }));
    EXPECT_EQ(cm_net_closeall(net.state), 1);  // ends the loop and the acceptors; connects fail from now on
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(cm_net_closeall(net.state), 1);
    stop = true;
    cm_net_shutdown(net.state);
    cm_net_closeall(net.state);
    for (std::thread &thread : threads) thread.join();
    EXPECT_EQ(server.join(), 1);
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(net.open(), 0);
}

}  // namespace
