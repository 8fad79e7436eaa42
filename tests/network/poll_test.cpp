// The accept loop, where a step of a scenario would not do.
#include <atomic>

#include "net.h"

using namespace cm::test;

namespace {

int16_t CM_CALL answer(cm_context *, cm_conn *conn, cm_thread *, cm_value) {
    return cm_net_send(conn->net, conn, "answer", CM_LEN_TEXT);
}

TEST(Loop, HasAsManyListenersAsItHasRoomFor) {
    Net net;
    cm_poll_entry entries[CM_NET_MAX_LISTENERS + 1] = {};
    for (const int32_t count : {0, CM_NET_MAX_LISTENERS + 1}) EXPECT_EQ(cm_net_poll(net.state, entries, count), 0);
    EXPECT_EQ(cm_net_poll(net.state, nullptr, 1), 0);
    Server server(net, {net.listen()}, [](auto...) {});
    cm_poll_entry entry = {answer, nullptr, 0, "Test"};
    for (int i = 1; i <= CM_NET_MAX_LISTENERS; i++) {
        entry.listener = net.listen();
        for (int again = 0; again < 2; again++)  // one that it knows takes no room
            EXPECT_EQ(cm_net_polladd(net.state, &entry), i < CM_NET_MAX_LISTENERS);
    }
}

// A loop that waits must not take it for the one that it waited for.
TEST(Loop, EndsWhenTheHandleOfAListenerIsAnothers) {
    Net net;
    cm_conn *listener = net.listen();
    cm_poll_entry entry = {answer, listener, 0, "Test"};
    int waits = 0;
    const auto real = os.socket_wait;
    const Replace<&Table::socket_wait> wait([&](auto *items, auto count, auto timeout_ms, auto *out_ready) -> Error {
        if (items[0].socket != *listener->sock) return real(items, count, timeout_ms, out_ready);
        if (++waits > 1) return CM_EINTR;
        cm_net_close(net.state, listener, 0);
        EXPECT_EQ(net.listen(), listener);
        return *out_ready = 0;
    });
    net.said();
    EXPECT_EQ(cm_net_poll(net.state, &entry, 1), 1);
    EXPECT_EQ(waits, 1);
    EXPECT_EQ(net.said(), "WARN:  Network select() failure!\n");
}

TEST(Loop, OutOfDescriptorsItPausesAndServesAgain) {
    Net net;
    cm_conn *listener = net.listen();
    std::atomic<int> tries = 0;
    std::atomic<bool> fails = true;
    const auto real = os.socket_accept;
    const Replace<&Table::socket_accept> accept([&](auto... arguments) {
        tries++;
        return fails ? CM_EMFILE : real(arguments...);
    });
    Server server(net, {listener},
                  [&](cm_context *ctx, cm_conn *conn, cm_thread *self) { answer(ctx, conn, self, 0); });
    Peer peer(listener->peer_port);
    const int64_t begin = os.monotonic_ms();
    ASSERT_TRUE(eventually([&] { return tries >= 4; }));
    EXPECT_GE(os.monotonic_ms() - begin, 200);
    fails = false;
    EXPECT_EQ(peer.receive(6), "answer");
}

}  // namespace
