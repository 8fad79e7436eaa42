// The accept loop, with and without its thread pool.
#include <atomic>
#include <condition_variable>

#include "net.h"

using namespace cm::test;
using cm::platform::Error;
using Strings = std::vector<std::string>;

namespace {

void echo(cm_net_state *state, cm_conn *conn) {
    char text[64];
    int32_t count = 0;
    while (cm_net_receive(state, conn, text, sizeof text, &count) == 1 && count > 0)
        if (cm_net_send(state, conn, text, count) == 0) return;
}

std::string echoed(uint32_t port, const std::string &text) {
    Peer peer(port);
    if (peer.error() != 0 || !peer.send(text)) return "(failed)";
    return peer.receive(text.size());
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
    for (int i = 0; i < 5; i++) {
        EXPECT_EQ(echoed(a->peer_port, "one"), "one");
        EXPECT_EQ(echoed(b->peer_port, "two"), "two");
    }
    EXPECT_TRUE(eventually([&] { return served == 10 && net.open() == 2; }));
    const int64_t begin = os.monotonic_ms();
    EXPECT_EQ(server.stop(), 1);
    EXPECT_LT(os.monotonic_ms() - begin, 2000);
    EXPECT_TRUE(net.lib.logged("TRACE: Thread-pool initialized."));
    EXPECT_TRUE(net.lib.logged("TRACE: Thread-pool exited."));
    EXPECT_FALSE(net.lib.logged_text("Network select() failure!"));
    EXPECT_EQ(cm_net_poll(net.state, nullptr, 1), 0);
}

TEST(Poll, CancelEndsTheLoopAndTheReads) {
    Net net;
    cm_conn *listener = net.listen();
    std::atomic<bool> reading = false, failed = false;
    Server server(net, {listener}, [&](cm_context *, cm_conn *conn, cm_thread *) {
        char byte = 0;
        int32_t count = 0;
        reading = true;
        failed = cm_net_receive(net.state, conn, &byte, 1, &count) == 0;
    });
    Peer peer(listener->peer_port);
    ASSERT_TRUE(eventually([&] { return reading.load(); }));
    EXPECT_EQ(cm_net_cancel(net.state), 1);
    EXPECT_EQ(server.join(), 1);
    EXPECT_TRUE(eventually([&] { return failed.load(); }));
    EXPECT_TRUE(net.lib.logged("INFO:  Pending network requests being cancelled..."));
}

TEST(Poll, ListenersCanBeAddedToTheRunningLoop) {
    Net net;
    cm_conn *first = net.listen(), *added = net.listen();
    cm_poll_entry early = {};
    early.listener = added;
    EXPECT_EQ(cm_net_polladd(net.state, &early), 0);  // no loop
    Server server(net, {first}, [&](cm_context *, cm_conn *conn, cm_thread *) { echo(net.state, conn); });
    cm_poll_entry entry = server.entry(added);
    EXPECT_EQ(cm_net_polladd(net.state, &entry), 1);
    entry = {};  // it was copied
    EXPECT_EQ(echoed(added->peer_port, "woken"), "woken");
    entry.listener = first;
    EXPECT_EQ(cm_net_polladd(net.state, &entry), 1);
    EXPECT_EQ(net.state->listener_count, 2);
    for (int i = 2; i < CM_NET_MAX_LISTENERS; i++) {
        entry.listener = net.listen();
        EXPECT_EQ(cm_net_polladd(net.state, &entry), 1);
    }
    entry.listener = net.listen();
    EXPECT_EQ(cm_net_polladd(net.state, &entry), 0);
    entry.listener = added;
    EXPECT_EQ(cm_net_polladd(net.state, &entry), 1);
    EXPECT_EQ(echoed(first->peer_port, "still"), "still");
}

TEST(Poll, RefusesMoreListenersThanItCanWatch) {
    Net net;
    std::vector<cm_poll_entry> entries(CM_NET_MAX_LISTENERS + 1);
    EXPECT_EQ(cm_net_poll(net.state, entries.data(), CM_NET_MAX_LISTENERS + 1), 0);
    EXPECT_EQ(cm_net_poll(net.state, entries.data(), 0), 0);
    EXPECT_EQ(cm_net_poll(nullptr, entries.data(), 1), 0);
}

TEST(Poll, GoesOnWithoutAPool) {
    Net net("Maximum Threads = 6");  // fewer than the idle workers of a pool
    cm_conn *listener = net.listen();
    Server server(net, {listener}, [&](cm_context *ctx, cm_conn *conn, cm_thread *self) {
        EXPECT_EQ(ctx, net.lib.ctx());
        EXPECT_STREQ(self->label, "Test");
        echo(net.state, conn);
    });
    EXPECT_TRUE(eventually([&] { return net.lib.logged("ERROR: Thread-pool initialization failed."); }));
    EXPECT_TRUE(eventually([&] { return threads(net.lib) == 0; }));
    EXPECT_EQ(net.alerts.get(), Strings{"thread-pool: Failure initializing thread pool."});
    for (int i = 0; i < 20; i++) {
        EXPECT_EQ(echoed(listener->peer_port, "by a thread"), "by a thread");
        EXPECT_TRUE(eventually([&] { return net.open() == 1; }));  // the thread closed it
    }
    EXPECT_EQ(server.stop(), 1);
    EXPECT_FALSE(net.lib.logged_text("Thread-pool exited."));
}

TEST(Poll, WithoutAThreadTheConnectionIsClosed) {
    Net net("Maximum Threads = 3");
    cm_conn *listener = net.listen();
    std::atomic<int> running = 0;
    std::atomic<bool> go_on = false;
    Server server(net, {listener}, [&](cm_context *, cm_conn *, cm_thread *) {
        running++;
        EXPECT_TRUE(eventually([&] { return go_on.load(); }));
    });
    EXPECT_TRUE(eventually([&] { return net.lib.logged_text("initialization failed.") && threads(net.lib) == 0; }));
    std::vector<std::unique_ptr<Peer>> peers;
    const auto refused = [&] {  // the newest peer has something to read: the end
        cm::platform::WaitItem item = {peers.back()->socket(), false, false, false};
        int32_t ready = 0;
        return os.socket_wait(&item, 1, 0, &ready) == 0 && item.ready;
    };
    for (int i = 0; i < 4; i++) {
        peers.push_back(std::make_unique<Peer>(listener->peer_port));
        EXPECT_TRUE(eventually([&] { return running == i + 1 || refused(); }));
    }
    EXPECT_EQ(running, 3);
    EXPECT_TRUE(refused());
    EXPECT_EQ(peers.back()->receive(1), "");
    go_on = true;
}

TEST(Poll, DatagramsAreJobsToo) {
    Net net;
    cm_conn *listener = nullptr;
    ASSERT_EQ(cm_net_listenu(net.state, "127.0.0.1", 0, &listener), 1);
    std::mutex mutex;
    Strings got;
    Server server(net, {listener}, [&](cm_context *, cm_conn *conn, cm_thread *) {
        const std::lock_guard lock(mutex);
        got.push_back(std::string(reinterpret_cast<char *>(conn->in_buf), static_cast<size_t>(conn->in_count)));
    });
    cm_socket socket = -1;
    ASSERT_EQ(os.socket_open(cm::platform::SocketKind::kDatagram, &socket), 0);
    for (const char *text : {"first", "second"})
        EXPECT_EQ(os.socket_send_to(socket, address_of("127.0.0.1"), static_cast<int32_t>(listener->peer_port), text,
                                    strlen(text)),
                  0);
    os.socket_close(socket);
    EXPECT_TRUE(eventually([&] {
        const std::lock_guard lock(mutex);
        return got.size() == 2 && net.open() == 1;
    }));
}

TEST(Poll, AClosedListenerEndsTheLoop) {
    Net net;
    cm_conn *a = net.listen(), *b = net.listen();
    Server server(net, {a, b}, [](cm_context *, cm_conn *, cm_thread *) {});
    cm_net_close(net.state, b, 0);
    EXPECT_EQ(server.join(), 1);
    EXPECT_TRUE(net.lib.logged("WARN:  Network select() failure!"));
    EXPECT_EQ(net.state->shutting_down, 1);
}

TEST(Poll, OutOfDescriptorsItPausesAndServesAgain) {
    Net net;
    cm_conn *listener = net.listen();
    static decltype(os.socket_accept) real;
    static std::atomic<int> tries, until;
    real = os.socket_accept;
    tries = 0;
    until = INT32_MAX;
    os.socket_accept = [](cm_socket socket, cm_socket *out, uint32_t *address, int32_t *port) -> Error {
        return ++tries < until ? CM_EMFILE : real(socket, out, address, port);
    };
    {
        Server server(net, {listener}, [&](cm_context *, cm_conn *conn, cm_thread *) { echo(net.state, conn); });
        Peer peer(listener->peer_port);
        ASSERT_TRUE(peer.send("patience"));
        const int64_t begin = os.monotonic_ms();
        ASSERT_TRUE(eventually([] { return tries >= 4; }));
        EXPECT_GE(os.monotonic_ms() - begin, 200);
        until = 0;
        EXPECT_EQ(peer.receive(8), "patience");
    }
    os.socket_accept = real;
}

TEST(Poll, TheNameIsLookedUpOnTheWorker) {
    Net net("Resolve Host Names = TRUE");
    cm_conn *listener = net.listen();
    static std::atomic<bool> slow;
    static decltype(os.host_by_address) real;
    real = os.host_by_address;
    slow = true;
    os.host_by_address = [](uint32_t address, char *out, size_t size) -> Error {
        const bool held_up = address == address_of("127.0.0.2");
        EXPECT_TRUE(!held_up || eventually([] { return !slow; }));
        cm_strncpy(out, "named", static_cast<int32_t>(size));
        return 0;
    };
    std::mutex mutex;
    Strings served;
    {
        Server server(net, {listener}, [&](cm_context *, cm_conn *conn, cm_thread *) {
            const std::lock_guard lock(mutex);
            served.push_back(std::string(conn->peer_text) + " " + conn->peer_host);
        });
        Peer waits(listener->peer_port, "127.0.0.2"), quick(listener->peer_port, "127.0.0.3");
        EXPECT_EQ(quick.receive(1), "");
        slow = false;
        EXPECT_EQ(waits.receive(1), "");
    }
    net.stop();
    net.lib.stop();  // no thread is left to see the table change
    os.host_by_address = real;
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
