// The accept loop, with and without its thread pool.
#include <atomic>

#include "net.h"

using namespace cm::test;

namespace {

void echo(cm_net_state *state, cm_conn *conn) {
    char text[64];
    int32_t count = 0;
    while (cm_net_receive(state, conn, text, sizeof text, &count) == 1 && count > 0)
        if (cm_net_send(state, conn, text, count) == 0) return;
}

std::string echoed(const cm_conn *listener, const std::string &text) {
    Peer peer(listener->peer_port);
    return peer.error() == 0 && peer.send(text) ? peer.receive(text.size()) : "(failed)";
}

TEST(Poll, ServesConnectionsOnWorkersUntilShutdown) {
    Net net("Trace Level = TRACE");
    cm_conn *a = net.listen(), *b = net.listen();
    std::atomic<int> served = 0;
    Server server(net, {a, b}, [&](cm_context *ctx, cm_conn *conn, cm_thread *self) {
        EXPECT_EQ(ctx, net.lib.ctx());
        EXPECT_STREQ(self->label, "Test");
        EXPECT_EQ(conn->entry->listener, conn->local_port == a->peer_port ? a : b);
        echo(net.state, conn);
        served++;
    });
    net.said();
    for (int i = 0; i < 10; i++) EXPECT_EQ(echoed(i % 2 == 0 ? a : b, "one"), "one");
    EXPECT_TRUE(eventually([&] { return served == 10 && net.open() == 2; }));
    const int64_t begin = os.monotonic_ms();
    EXPECT_EQ(server.stop(), 1);
    EXPECT_LT(os.monotonic_ms() - begin, 2000);
    EXPECT_TRUE(net.lib.logged("TRACE: Thread-pool initialized.") && net.lib.logged("TRACE: Thread-pool exited."));
    EXPECT_FALSE(net.lib.logged_text("Network select() failure!"));
}

TEST(Poll, CancelEndsTheLoopAndTheReads) {
    Net net;
    cm_conn *listener = net.listen();
    std::atomic<bool> reading = false, failed = false;
    Server server(net, {listener}, [&](cm_context *, cm_conn *conn, cm_thread *) {
        reading = true;
        failed = net.receive(conn, 1) == "(failed)";
    });
    const Peer peer(listener->peer_port);
    ASSERT_TRUE(eventually([&] { return reading.load(); }));
    EXPECT_EQ(cm_net_cancel(net.state), 1);
    EXPECT_EQ(server.join(), 1);
    EXPECT_TRUE(eventually([&] { return failed.load(); }));
    EXPECT_TRUE(net.lib.logged("INFO:  Pending network requests being cancelled..."));
}

TEST(Poll, ListenersCanBeAddedToTheRunningLoop) {
    Net net;
    cm_conn *first = net.listen(), *added = net.listen();
    cm_poll_entry entries[CM_NET_MAX_LISTENERS + 1] = {};
    for (const int32_t count : {0, CM_NET_MAX_LISTENERS + 1}) EXPECT_EQ(cm_net_poll(net.state, entries, count), 0);
    EXPECT_EQ(cm_net_poll(net.state, nullptr, 1), 0);
    entries[0].listener = added;
    EXPECT_EQ(cm_net_polladd(net.state, entries), 0);  // no loop
    const Server::Handler handler = [&](cm_context *, cm_conn *conn, cm_thread *) { echo(net.state, conn); };
    Server server(net, {first}, handler);
    cm_poll_entry entry = server.entry(added);
    EXPECT_EQ(cm_net_polladd(net.state, &entry), 1);
    entry.handler = nullptr;  // it was copied
    EXPECT_EQ(echoed(added, "woken"), "woken");
    entry = server.entry(first);  // known
    EXPECT_EQ(cm_net_polladd(net.state, &entry), 1);
    EXPECT_EQ(net.state->listener_count, 2);
    for (int i = 2; i <= CM_NET_MAX_LISTENERS; i++) {
        entry.listener = net.listen();
        EXPECT_EQ(cm_net_polladd(net.state, &entry), i < CM_NET_MAX_LISTENERS);
    }
    entry.listener = added;
    EXPECT_EQ(cm_net_polladd(net.state, &entry), 1);
    EXPECT_EQ(echoed(first, "still"), "still");
}

TEST(Poll, GoesOnWithoutAPoolAndWithoutAThread) {
    Net net("Maximum Threads = 3");  // fewer than the idle workers of a pool
    cm_conn *listener = net.listen();
    std::atomic<int> running = 0;
    std::atomic<bool> go_on = false, hold = false;
    Server server(net, {listener}, [&](cm_context *ctx, cm_conn *conn, cm_thread *self) {
        EXPECT_EQ(ctx, net.lib.ctx());
        EXPECT_STREQ(self->label, "Test");
        if (!hold) return echo(net.state, conn);
        running++;
        EXPECT_TRUE(eventually([&] { return go_on.load(); }));
    });
    EXPECT_TRUE(eventually([&] { return net.lib.logged("ERROR: Thread-pool initialization failed."); }));
    EXPECT_TRUE(eventually([&] { return threads(net.lib) == 0; }));
    EXPECT_EQ(net.alerts(), "thread-pool: Failure initializing thread pool.\n");
    for (int i = 0; i < 20; i++) {
        EXPECT_EQ(echoed(listener, "by a thread"), "by a thread");
        EXPECT_TRUE(eventually([&] { return net.open() == 1 && threads(net.lib) == 0; }));  // the thread closed it
    }
    hold = true;
    std::vector<std::unique_ptr<Peer>> peers;
    for (int i = 0; i < 4; i++) {  // the newest peer has something to read when it is refused: the end
        peers.push_back(std::make_unique<Peer>(listener->peer_port));
        EXPECT_TRUE(eventually([&] { return running == i + 1 || peers.back()->readable(); }));
    }
    EXPECT_EQ(running, 3);
    EXPECT_EQ(peers.back()->receive(1), "");
    go_on = true;
    EXPECT_EQ(server.stop(), 1);
    EXPECT_FALSE(net.lib.logged_text("Thread-pool exited."));
}

TEST(Poll, DatagramsAreJobsTooAndAClosedListenerEndsTheLoop) {
    Net net;
    cm_conn *listener = net.listen_udp(), *other = net.listen();
    std::mutex mutex;
    Strings got;
    Server server(net, {listener, other}, [&](cm_context *, cm_conn *conn, cm_thread *) {
        const std::lock_guard lock(mutex);
        got.push_back(std::string(reinterpret_cast<char *>(conn->in_buf), static_cast<size_t>(conn->in_count)));
    });
    Udp client;
    for (const char *text : {"first", "second"}) client.send(text, listener->peer_port);
    EXPECT_TRUE(eventually([&] {
        const std::lock_guard lock(mutex);
        return got.size() == 2 && net.open() == 2;
    }));
    cm_net_close(net.state, other, 0);
    EXPECT_EQ(server.join(), 1);
    EXPECT_TRUE(net.lib.logged("WARN:  Network select() failure!"));
    EXPECT_EQ(net.state->shutting_down, 1);
}

TEST(Poll, OutOfDescriptorsItPausesAndServesAgain) {
    Net net;
    cm_conn *listener = net.listen();
    std::atomic<int> tries = 0;
    std::atomic<bool> fails = true;
    const auto real = os.socket_accept;
    const Replace<&Table::socket_accept> accept([&](auto... arguments) {
        tries++;
        return fails ? CM_EMFILE : real(arguments...);
    });
    Server server(net, {listener}, [&](cm_context *, cm_conn *conn, cm_thread *) { echo(net.state, conn); });
    Peer peer(listener->peer_port);
    ASSERT_TRUE(peer.send("patience"));
    const int64_t begin = os.monotonic_ms();
    ASSERT_TRUE(eventually([&] { return tries >= 4; }));
    EXPECT_GE(os.monotonic_ms() - begin, 200);
    fails = false;
    EXPECT_EQ(peer.receive(8), "patience");
}

TEST(Poll, TheNameIsLookedUpOnTheWorker) {
    std::atomic<bool> slow = true;
    const Replace<&Table::host_by_address> names([&](uint32_t address, char *out, size_t size) -> Error {
        EXPECT_TRUE(address != address_of("127.0.0.2") || eventually([&] { return !slow; }));
        cm_strncpy(out, "named", static_cast<int32_t>(size));
        return 0;
    });
    Net net("Resolve Host Names = TRUE");
    cm_conn *listener = net.listen();
    std::mutex mutex;
    Strings served;
    Server server(net, {listener}, [&](cm_context *, cm_conn *conn, cm_thread *) {
        const std::lock_guard lock(mutex);
        served.push_back(std::string(conn->peer_text) + " " + conn->peer_host);
    });
    Peer waits(listener->peer_port, "127.0.0.2"), quick(listener->peer_port, "127.0.0.3");
    EXPECT_EQ(quick.receive(1), "");
    slow = false;
    EXPECT_EQ(waits.receive(1), "");
    const std::lock_guard lock(mutex);
    EXPECT_EQ(served, (Strings{"127.0.0.3 named", "127.0.0.2 named"}));
}

TEST(Poll, StopsWhileWorkersAreBusy) {
    Net net;
    cm_conn *listener = net.listen(180);
    std::atomic<int> inside = 0;
    Server server(net, {listener}, [&](cm_context *, cm_conn *conn, cm_thread *) {
        inside++;
        echo(net.state, conn);
    });
    std::vector<std::unique_ptr<Peer>> peers;
    for (int i = 0; i < 8; i++) peers.push_back(std::make_unique<Peer>(listener->peer_port));
    ASSERT_TRUE(eventually([&] { return inside == 8; }));
    const int64_t begin = os.monotonic_ms();
    server.stop();
    net.stop();
    net.lib.stop();
    EXPECT_LT(os.monotonic_ms() - begin, 4000);
}

}  // namespace
