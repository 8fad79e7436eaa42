#include "platform/platform.h"

#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <thread>

#include "support/support.h"

namespace cm::platform {
namespace {

using test::Faults;
using test::LeakCheck;
using test::TempFolder;

constexpr int32_t kPatience = 20000;  // ms; only a failing test waits that long

uint32_t loopback() {
    const unsigned char bytes[4] = {127, 0, 0, 1};
    uint32_t out;
    memcpy(&out, bytes, sizeof out);
    return out;
}

// ---- sockets --------------------------------------------------------------------------------------------------------

struct Socket {
    cm_socket value = kNoSocket;
    explicit Socket(SocketKind kind) { EXPECT_EQ(os.socket_open(kind, &value), 0); }
    explicit Socket(cm_socket taken) : value(taken) {}
    ~Socket() { close(); }
    Socket(const Socket &) = delete;
    Socket &operator=(const Socket &) = delete;
    operator cm_socket() const { return value; }
    void close() {
        if (value != kNoSocket) os.socket_close(value);
        value = kNoSocket;
    }
};

int32_t bind_any(cm_socket socket) {
    uint32_t address = 0;
    int32_t port = 0;
    EXPECT_EQ(os.socket_bind(socket, loopback(), 0), 0);
    EXPECT_EQ(os.socket_local(socket, &address, &port), 0);
    return port;
}

struct Listener : Socket {
    int32_t port = 0;
    Listener() : Socket(SocketKind::kStream) {
        os.socket_option(value, SocketOption::kListenerReuse, 1);
        port = bind_any(value);
        EXPECT_EQ(os.socket_listen(value, 16), 0);
    }
};

cm_socket accept_from(cm_socket listener) {
    cm_socket out = kNoSocket;
    uint32_t address = 0;
    int32_t port = 0;
    EXPECT_EQ(os.socket_accept(listener, &out, &address, &port), 0);
    EXPECT_EQ(address, loopback());
    return out;
}

struct Pair {
    Listener listener;
    Socket client{SocketKind::kStream};
    Socket server{kNoSocket};
    Pair() {
        EXPECT_EQ(os.socket_connect(client, loopback(), listener.port), 0);
        server.value = accept_from(listener);
    }
};

bool wait_for(cm_socket socket, bool for_write, int32_t timeout_ms = kPatience) {
    WaitItem item = {socket, for_write, false, false};
    int32_t ready = 0;
    return os.socket_wait(&item, 1, timeout_ms, &ready) == 0 && ready == 1 && item.ready;
}

Error send_text(cm_socket socket, std::string_view text) {
    const Slice slice = {text.data(), text.size()};
    size_t sent = 0;
    return os.socket_send(socket, &slice, 1, false, &sent);
}

TEST(Sockets, RefusedConnect) {
    Socket unheard(SocketKind::kStream);  // bound, but nobody listens
    const int32_t port = bind_any(unheard);
    Socket blocking(SocketKind::kStream);
    EXPECT_EQ(os.socket_connect(blocking, loopback(), port), CM_ECONNREFUSED);

    Socket other(SocketKind::kStream);
    ASSERT_EQ(os.socket_set_blocking(other, false), 0);
    const Error error = os.socket_connect(other, loopback(), port);
    if (error == CM_EWOULDBLOCK) {
        ASSERT_TRUE(wait_for(other, true));
        EXPECT_EQ(os.socket_connect_result(other), CM_ECONNREFUSED);
    } else {
        EXPECT_EQ(error, CM_ECONNREFUSED);
    }
}

TEST(Sockets, ConnectUnderWayIsWouldBlock) {
    Listener listener;
    Socket client(SocketKind::kStream);
    ASSERT_EQ(os.socket_set_blocking(client, false), 0);
    const Error error = os.socket_connect(client, loopback(), listener.port);
    EXPECT_TRUE(error == 0 || error == CM_EWOULDBLOCK) << error;
    ASSERT_TRUE(wait_for(client, true));
    EXPECT_EQ(os.socket_connect_result(client), 0);
}

TEST(Sockets, SecondListenerIsRefusedRestartedOneIsNot) {
    int32_t port = 0;
    {
        Pair pair;
        port = pair.listener.port;
        Socket second(SocketKind::kStream);
        EXPECT_EQ(os.socket_option(second, SocketOption::kListenerReuse, 1), 0);
        EXPECT_EQ(os.socket_bind(second, loopback(), port), CM_EADDRINUSE);
        pair.server.close();  // first to close: the port's connection lingers
        wait_for(pair.client, false);
    }
    Socket restarted(SocketKind::kStream);
    EXPECT_EQ(os.socket_option(restarted, SocketOption::kListenerReuse, 1), 0);
    EXPECT_EQ(os.socket_bind(restarted, loopback(), port), 0);
}

TEST(Sockets, SendToAPeerThatIsGoneFailsWithoutASignal) {
    Pair pair;
    ASSERT_EQ(os.socket_option(pair.server, SocketOption::kLinger, 0), 0);
    pair.server.close();  // with a reset
    ASSERT_TRUE(wait_for(pair.client, false));
    Error error = 0;
    for (int i = 0; i < 3 && (error == 0 || i < 2); i++) error = send_text(pair.client, "x");
    EXPECT_TRUE(error == CM_ECONNRESET || error == CM_ECONNABORTED) << error;
}

TEST(Sockets, NothingToReadDependsOnTheMode) {
    Pair pair;
    char byte;
    size_t got = 0;
    EXPECT_EQ(os.socket_receive(pair.client, &byte, 1, true, &got), CM_EWOULDBLOCK);
    ASSERT_EQ(os.socket_option(pair.client, SocketOption::kReceiveTimeout, 30), 0);
    EXPECT_EQ(os.socket_receive(pair.client, &byte, 1, false, &got), CM_ETIMEDOUT);
    ASSERT_EQ(os.socket_set_blocking(pair.client, false), 0);
    EXPECT_EQ(os.socket_receive(pair.client, &byte, 1, false, &got), CM_EWOULDBLOCK);
}

TEST(Sockets, SendTimeoutOfABlockingSocket) {
    Pair pair;
    ASSERT_EQ(os.socket_option(pair.client, SocketOption::kSendTimeout, 30), 0);
    const std::string much(1 << 20, 'x');
    Error error = 0;
    for (int i = 0; i < 1000 && error == 0; i++) error = send_text(pair.client, much);
    EXPECT_EQ(error, CM_ETIMEDOUT);
}

TEST(Sockets, AcceptedSocketBlocksWhateverTheListenerDoes) {
    Listener listener;
    ASSERT_EQ(os.socket_set_blocking(listener, false), 0);
    cm_socket none = kNoSocket;
    uint32_t address = 0;
    int32_t port = 0;
    EXPECT_EQ(os.socket_accept(listener, &none, &address, &port), CM_EWOULDBLOCK);
    Socket client(SocketKind::kStream);
    ASSERT_EQ(os.socket_connect(client, loopback(), listener.port), 0);
    ASSERT_TRUE(wait_for(listener, false));
    Socket server(accept_from(listener));
    ASSERT_EQ(os.socket_option(server, SocketOption::kReceiveTimeout, 30), 0);
    char byte;
    size_t got = 0;
    EXPECT_EQ(os.socket_receive(server, &byte, 1, false, &got), CM_ETIMEDOUT);  // not CM_EWOULDBLOCK
}

TEST(Sockets, SlicesArriveInOrderAndAreCounted) {
    Pair pair;
    std::string want, got;
    std::vector<std::string> parts;
    for (int i = 0; i < 100; i++) parts.push_back(std::to_string(i) + (i % 7 == 0 ? "" : ","));
    std::vector<Slice> slices;
    for (const std::string &part : parts) {
        want += part;
        slices.push_back({part.data(), part.size()});
    }
    size_t done = 0, at = 0;
    while (at < slices.size()) {  // a call may take fewer; go on where it stopped
        size_t sent = 0;
        ASSERT_EQ(os.socket_send(pair.client, &slices[at], static_cast<int32_t>(slices.size() - at), false, &sent), 0);
        done += sent;
        while (at < slices.size() && sent >= slices[at].length) sent -= slices[at++].length;
        if (at < slices.size())
            slices[at] = {static_cast<const char *>(slices[at].data) + sent, slices[at].length - sent};
    }
    EXPECT_EQ(done, want.size());
    char buffer[4096];
    while (got.size() < want.size()) {
        size_t count = 0;
        ASSERT_EQ(os.socket_receive(pair.server, buffer, sizeof buffer, false, &count), 0);
        ASSERT_NE(count, 0u);
        got.append(buffer, count);
    }
    EXPECT_EQ(got, want);
}

TEST(Sockets, SendFileFromAnOffsetUpToItsEnd) {
    if (const char *why = test::missing(test::Feature::kFileToSocket)) GTEST_SKIP() << why;
    Pair pair;
    TempFolder folder;
    int32_t descriptor = -1;
    ASSERT_EQ(os.file_open(folder.write("a", "0123456789").c_str(), CM_O_RDONLY, &descriptor), 0);
    size_t sent = 0;
    const Error error = os.socket_send_file(pair.client, descriptor, 4, 100, &sent);
    os.file_close(descriptor);
    ASSERT_EQ(error, 0);
    EXPECT_EQ(sent, 6u);
    char buffer[16];
    size_t got = 0;
    ASSERT_EQ(os.socket_receive(pair.server, buffer, sizeof buffer, false, &got), 0);
    EXPECT_EQ(std::string(buffer, got), "456789");
}

TEST(Sockets, Datagrams) {
    Socket from(SocketKind::kDatagram), to(SocketKind::kDatagram);
    const int32_t port = bind_any(to), from_port = bind_any(from);
    char buffer[8];
    size_t got = 99;
    uint32_t address = 0;
    int32_t sender = 0;
    ASSERT_EQ(os.socket_send_to(from, loopback(), port, "123456789", 9), 0);
    EXPECT_EQ(os.socket_receive_from(to, buffer, sizeof buffer, false, &got, &address, &sender), CM_EMSGSIZE);
    EXPECT_EQ(got, 99u);
    ASSERT_EQ(os.socket_send_to(from, loopback(), port, "", 0), 0);
    EXPECT_EQ(os.socket_receive_from(to, buffer, sizeof buffer, false, &got, &address, &sender), 0);
    EXPECT_EQ(got, 0u);
    EXPECT_EQ(sender, from_port);
    EXPECT_EQ(os.socket_receive_from(to, buffer, sizeof buffer, true, &got, &address, &sender), CM_EWOULDBLOCK);
    const std::string huge(100000, 'x');
    EXPECT_EQ(os.socket_send_to(from, loopback(), port, huge.data(), huge.size()), CM_EMSGSIZE);
}

TEST(Sockets, DeadPortNeverFailsAReceive) {
    Socket dead(SocketKind::kDatagram), socket(SocketKind::kDatagram);
    const int32_t port = bind_any(dead);
    bind_any(socket);
    dead.close();
    ASSERT_EQ(os.socket_option(socket, SocketOption::kIgnorePortUnreachable, 1), 0);
    ASSERT_EQ(os.socket_send_to(socket, loopback(), port, "x", 1), 0);
    EXPECT_FALSE(wait_for(socket, false, 50));
}

TEST(Sockets, RawTimeoutsAreMilliseconds) {
    Pair pair;
    ASSERT_EQ(os.socket_option(pair.client, SocketOption::kKeepAlive, 1), 0);
    const int32_t short_time = 30, wrong = 1;
    // The numbers of SOL_SOCKET and SO_RCVTIMEO on Linux and on Windows.
    const bool unix_numbers = os.socket_raw_option(pair.client, 1, 20, &short_time, 4) == 0;
    if (!unix_numbers) {
        ASSERT_EQ(os.socket_raw_option(pair.client, 0xFFFF, 0x1006, &short_time, 4), 0);
    }
    char byte;
    size_t got = 0;
    EXPECT_EQ(os.socket_receive(pair.client, &byte, 1, false, &got), CM_ETIMEDOUT);
    EXPECT_NE(os.socket_raw_option(pair.client, 1, 20, &wrong, -1), 0);
}

TEST(Sockets, WaitOnManyAndOnNone) {
    std::vector<WaitItem> items(100, WaitItem{kNoSocket, false, true, true});
    int32_t ready = 7;
    EXPECT_EQ(os.socket_wait(items.data(), 100, 0, &ready), 0);
    EXPECT_EQ(ready, 0);
    EXPECT_FALSE(items[50].ready || items[50].failed);
    Pair pair;
    send_text(pair.client, "x");
    items[97].socket = pair.server;
    EXPECT_EQ(os.socket_wait(items.data(), 100, kPatience, &ready), 0);
    EXPECT_EQ(ready, 1);
    EXPECT_TRUE(items[97].ready && !items[97].failed);
    Faults faults(Faults::kAllocations, 1);
    const bool failed = os.socket_wait(items.data(), 100, 0, &ready) != 0;
    EXPECT_EQ(failed, faults.injected() != 0);
}

TEST(Sockets, ClosedSocketIsNoSocket) {
    Pair pair;
    const cm_socket dead = pair.client;
    pair.client.close();
    char byte;
    size_t got = 0;
    WaitItem item = {dead, false, false, false};
    int32_t ready = 0;
    EXPECT_EQ(os.socket_receive(dead, &byte, 1, true, &got), CM_ENOTSOCK);
    EXPECT_EQ(os.socket_wait(&item, 1, 0, &ready), CM_ENOTSOCK);
}

TEST(Sockets, WakeStaysSetUntilCleared) {
    Wake wake;
    ASSERT_EQ(os.wake_create(&wake), 0);
    EXPECT_FALSE(wait_for(wake.read_end, false, 0));
    os.wake_set(&wake);
    os.wake_set(&wake);
    EXPECT_TRUE(wait_for(wake.read_end, false));
    EXPECT_TRUE(wait_for(wake.read_end, false));
    os.wake_clear(&wake);
    EXPECT_FALSE(wait_for(wake.read_end, false, 0));
    std::thread other([&] { os.wake_set(&wake); });
    EXPECT_TRUE(wait_for(wake.read_end, false));
    other.join();
    os.wake_destroy(&wake);
    EXPECT_EQ(wake.read_end, kNoSocket);
}

TEST(Sockets, NamesThatDoNotFit) {
    char name[256];
    EXPECT_EQ(os.host_name(name, sizeof name), 0);
    EXPECT_NE(os.host_name(name, 1), 0);
    uint32_t addresses[4] = {};
    int32_t count = 0;
    ASSERT_EQ(os.host_by_name("127.0.0.1", addresses, &count), 0);
    EXPECT_EQ(count, 1);
    EXPECT_EQ(addresses[0], loopback());
}

// ---- locks and events -----------------------------------------------------------------------------------------------

struct EventHolder {
    Event *value = os.event_create();
    ~EventHolder() { os.event_destroy(value); }
    operator Event *() const { return value; }
};

// A thread that runs a function; joined at the end unless it was released.
class Runner {
public:
    explicit Runner(std::function<void()> body) : body_(std::move(body)) {
        EXPECT_EQ(os.thread_start([](void *argument) { static_cast<Runner *>(argument)->body_(); }, this, &thread_), 0);
    }
    ~Runner() {
        if (thread_ == nullptr) return;
        os.thread_ask(thread_);
        EXPECT_TRUE(os.thread_join(thread_, kPatience));
        os.thread_release(thread_);
    }
    Thread *thread() const { return thread_; }
    void release() {
        os.thread_release(thread_);
        thread_ = nullptr;
    }

private:
    std::function<void()> body_;
    Thread *thread_ = nullptr;
};

TEST(Locks, HeldUntilTheLastRelease) {
    Lock *lock = os.lock_create();
    EventHolder entered;
    os.lock_acquire(lock);
    os.lock_acquire(lock);
    {
        Runner other([&] {
            os.lock_acquire(lock);
            os.event_set(entered);
            os.lock_release(lock);
        });
        os.lock_release(lock);
        EXPECT_FALSE(os.event_wait(entered, 30));
        os.lock_release(lock);
        EXPECT_TRUE(os.event_wait(entered, kPatience));
    }
    os.lock_destroy(lock);
}

TEST(Locks, OneHolderAtATime) {
    Lock *lock = os.lock_create();
    int64_t sum = 0;
    {
        std::vector<std::unique_ptr<Runner>> adders;
        for (int i = 0; i < 4; i++)
            adders.push_back(std::make_unique<Runner>([&] {
                for (int round = 0; round < 20000; round++) {
                    os.lock_acquire(lock);
                    if (round % 64 == 0) os.thread_yield();  // so that others go to sleep on it
                    sum++;
                    os.lock_release(lock);
                }
            }));
    }
    EXPECT_EQ(sum, 80000);
    os.lock_destroy(lock);
}

TEST(Events, RemembersOneSignal) {
    EventHolder event;
    os.event_set(event);
    os.event_set(event);
    EXPECT_TRUE(os.event_wait(event, 0));
    EXPECT_FALSE(os.event_wait(event, 0));
    EXPECT_FALSE(os.event_wait(event, 20));
}

// As many come out as signals were given, whatever times out meanwhile.
TEST(Events, NoSignalIsLostOrDoubled) {
    EventHolder event, taken;
    constexpr int kSignals = 2000;
    std::atomic<int> out{0};
    std::atomic<bool> stop{false};
    std::vector<std::unique_ptr<Runner>> waiters;
    for (int i = 0; i < 4; i++)
        waiters.push_back(std::make_unique<Runner>([&, i] {
            while (!stop)
                if (os.event_wait(event, i % 2 == 0 ? 1 : 1000)) {
                    out++;
                    os.event_set(taken);
                }
        }));
    for (int i = 0; i < kSignals; i++) {
        os.event_set(event);
        ASSERT_TRUE(os.event_wait(taken, kPatience)) << i;
    }
    stop = true;
    waiters.clear();
    EXPECT_EQ(out, kSignals);
    EXPECT_FALSE(os.event_wait(event, 0));
}

// ---- the end of threads ---------------------------------------------------------------------------------------------

struct Wait {
    const char *name;
    std::function<bool()> comes_back_asked;
};

class EndOfThreads : public testing::Test {
protected:
    EventHolder event;
    Pair pair;
    Socket datagrams{SocketKind::kDatagram};
    int32_t datagram_port = bind_any(datagrams);

    bool receive() {
        char byte;
        size_t got = 0;
        return os.socket_receive(pair.client, &byte, 1, false, &got) == CM_EINTR;
    }
    bool accept() {
        cm_socket out = kNoSocket;
        uint32_t address = 0;
        int32_t port = 0;
        return os.socket_accept(pair.listener, &out, &address, &port) == CM_EINTR;
    }
    bool receive_from() {
        char byte;
        size_t got = 0;
        uint32_t address = 0;
        int32_t port = 0;
        return os.socket_receive_from(datagrams, &byte, 1, false, &got, &address, &port) == CM_EINTR;
    }
    bool wait_socket() {
        WaitItem item = {pair.client, false, false, false};
        int32_t ready = 0;
        return os.socket_wait(&item, 1, kForever, &ready) == CM_EINTR;
    }
    std::vector<Wait> waits() {
        return {{"sleep", [] { return !os.sleep(3600000); }},
                {"event", [this] { return !os.event_wait(event, kForever); }},
                {"timed event", [this] { return !os.event_wait(event, 3600000); }},
                {"socket_wait", [this] { return wait_socket(); }},
                {"receive", [this] { return receive(); }},
                {"accept", [this] { return accept(); }},
                {"receive_from", [this] { return receive_from(); }}};
    }
};

TEST_F(EndOfThreads, EveryWaitComesBackWhenAsked) {
    for (const Wait &wait : waits()) {
        // Asked at once, on its way into the wait, and while it waits.
        for (int delay_ms : {0, 0, 0, 0, 1, 20}) {
            std::atomic<bool> right{false}, again{false};
            Runner runner([&] {
                right = wait.comes_back_asked();
                again = wait.comes_back_asked();
                EXPECT_TRUE(os.thread_asked());
            });
            if (delay_ms > 0) os.sleep(delay_ms);
            os.thread_ask(runner.thread());
            ASSERT_TRUE(os.thread_join(runner.thread(), kPatience)) << wait.name;
            EXPECT_TRUE(right && again) << wait.name;
        }
    }
}

TEST_F(EndOfThreads, AskingLeavesASignalForOthers) {
    Runner waiter([&] { os.event_wait(event, kForever); });
    os.sleep(5);
    os.thread_ask(waiter.thread());
    ASSERT_TRUE(os.thread_join(waiter.thread(), kPatience));
    os.event_set(event);
    EXPECT_TRUE(os.event_wait(event, 0));
}

TEST_F(EndOfThreads, JoinHasALimit) {
    EventHolder go;
    Runner runner([&] { os.event_wait(go, kForever); });
    EXPECT_FALSE(os.thread_join(runner.thread(), 0));
    EXPECT_FALSE(os.thread_join(runner.thread(), 20));
    os.event_set(go);
    EXPECT_TRUE(os.thread_join(runner.thread(), kForever));
    EXPECT_TRUE(os.thread_join(runner.thread(), 0));
    EXPECT_TRUE(os.thread_park(runner.thread()));
}

TEST_F(EndOfThreads, SelfIsKnownInsideOnly) {
    EXPECT_EQ(os.thread_self(), nullptr);
    EXPECT_FALSE(os.thread_asked());
    std::atomic<Thread *> inside{nullptr};
    Runner runner([&] {
        inside = os.thread_self();
        EXPECT_FALSE(os.thread_join(os.thread_self(), kForever));
    });
    ASSERT_TRUE(os.thread_join(runner.thread(), kPatience));
    EXPECT_EQ(inside, runner.thread());
}

TEST_F(EndOfThreads, ReleasedThreadGoesOnAndGivesEverythingBack) {
    static EventHolder *done;
    EventHolder event_of_it;
    done = &event_of_it;
    LeakCheck leaks;
    Thread *thread = nullptr;
    ASSERT_EQ(os.thread_start([](void *) { os.event_set(*done); }, nullptr, &thread), 0);
    os.thread_release(thread);
    EXPECT_TRUE(os.event_wait(event_of_it, kPatience));
    for (int i = 0; i < 2000 && leaks.outstanding() != 0; i++) os.sleep(1);
    EXPECT_EQ(leaks.outstanding(), 0u);
}

// A thread that never looks whether it was asked.  Its body outlives the test, as the thread does.
struct Stubborn {
    std::atomic<int64_t> rounds{0};
    std::atomic<bool> may_release{false};
    Lock *lock = os.lock_create();
    Event *has_lock = os.event_create();
    Thread *thread = nullptr;

    explicit Stubborn(ThreadEntry body) { EXPECT_EQ(os.thread_start(body, this, &thread), 0); }
    bool still_runs() {
        const int64_t before = rounds;
        os.sleep(30);
        return rounds != before;
    }
};

void spin(void *argument) {
    Stubborn &self = *static_cast<Stubborn *>(argument);
    for (;;) {
        os.lock_acquire(self.lock);
        os.release(os.allocate(100));
        self.rounds++;
        os.lock_release(self.lock);
    }
}

void hold_lock(void *argument) {
    Stubborn &self = *static_cast<Stubborn *>(argument);
    os.lock_acquire(self.lock);
    os.event_set(self.has_lock);
    while (!self.may_release) os.thread_yield();
    os.lock_release(self.lock);
    for (;;) self.rounds++;
}

Stubborn *stubborn[3];  // reachable, so that leak checkers know what the parked threads keep

TEST_F(EndOfThreads, ParkedThreadHoldsNothing) {
    stubborn[0] = new Stubborn(spin);
    while (stubborn[0]->rounds < 1000) os.thread_yield();
    ASSERT_TRUE(os.thread_park(stubborn[0]->thread));
    EXPECT_FALSE(stubborn[0]->still_runs());
    os.lock_acquire(stubborn[0]->lock);
    for (int i = 0; i < 1000; i++) os.release(os.allocate(100));
    os.lock_release(stubborn[0]->lock);
    os.thread_release(stubborn[0]->thread);
}

TEST_F(EndOfThreads, ParkWaitsForTheLastLibraryLock) {
    stubborn[1] = new Stubborn(hold_lock);
    ASSERT_TRUE(os.event_wait(stubborn[1]->has_lock, kPatience));
    EXPECT_FALSE(os.thread_park(stubborn[1]->thread));
    stubborn[1]->may_release = true;
    EXPECT_TRUE(os.thread_park(stubborn[1]->thread));
    os.lock_acquire(stubborn[1]->lock);
    os.lock_release(stubborn[1]->lock);
    EXPECT_FALSE(stubborn[1]->still_runs());
    os.thread_release(stubborn[1]->thread);
}

// A host's function that goes in and out of the C library; first it hands out a block of its own part of the heap.
void churn(void *argument) {
    static_cast<std::atomic<void *> *>(argument)->store(malloc(3000));
    std::atomic<int> own_work{0};
    std::atomic<void *> seen{nullptr};  // keeps the compiler from leaving the allocations out
    for (;;) {
        for (size_t size = 2000; size < 42000; size += 1000) {
            seen = malloc(size);
            free(seen);
        }
        for (int i = 0; i < 5000; i++) own_work++;
    }
}

// A thread is not stopped where it may hold a lock of the allocator.
TEST_F(EndOfThreads, ParkingAmidAllocationsHarmsNobody) {
    int parked = 0;
    for (int i = 0; i < 12; i++) {
        Thread *thread = nullptr;
        std::atomic<void *> block{nullptr};
        ASSERT_EQ(os.thread_start(churn, &block, &thread), 0);
        while (block == nullptr) os.sleep(1);
        parked += os.thread_park(thread);
        os.thread_release(thread);
        free(block);  // for ever, when the thread stands with its heap locked
    }
    EXPECT_GT(parked, 0);
}

TEST_F(EndOfThreads, ParkEndsAThreadThatOnlyWaits) {
    Runner runner([&] { os.event_wait(event, kForever); });
    EXPECT_TRUE(os.thread_park(runner.thread()));
}

// ---- files ----------------------------------------------------------------------------------------------------------

Error open_error(const std::string &path, int32_t flags) {
    int32_t descriptor = -1;
    const Error error = os.file_open(path.c_str(), flags, &descriptor);
    if (error == 0) os.file_close(descriptor);
    return error;
}

TEST(Files, OpenFlags) {
    TempFolder folder;
    const std::string old = folder.write("old", "0123456789");
    int32_t descriptor = -1;
    size_t done = 0;
    EXPECT_NE(open_error(folder.path("new"), CM_O_RDWR), 0);
    EXPECT_NE(open_error(old, CM_O_RDWR | CM_O_CREAT | CM_O_EXCL), 0);
    EXPECT_EQ(open_error(folder.path("new"), CM_O_WRONLY | CM_O_CREAT | CM_O_EXCL), 0);
    ASSERT_EQ(os.file_open(old.c_str(), CM_O_RDWR | CM_O_APPEND | CM_O_BINARY | CM_O_SEQ, &descriptor), 0);
    int64_t position = 0;
    EXPECT_EQ(os.file_seek(descriptor, 2, CM_SEEK_START, &position), 0);
    EXPECT_EQ(os.file_write(descriptor, "\r\n\x1A", 3, &done), 0);
    os.file_close(descriptor);
    EXPECT_EQ(folder.read("old"), "0123456789\r\n\x1A");
    ASSERT_EQ(os.file_open(old.c_str(), CM_O_WRONLY | CM_O_TRUNC, &descriptor), 0);
    os.file_close(descriptor);
    EXPECT_EQ(folder.read("old"), "");
}

TEST(Files, OnlyFilesAreOpened) {
    TempFolder folder;
    EXPECT_NE(open_error(folder.path(), CM_O_RDONLY), 0);
    EXPECT_NE(open_error(folder.path() + "/", CM_O_RDONLY), 0);
    const int32_t none[3] = {-1, -1, -1};
    Process *process = nullptr;
    const std::string fifo = folder.path("fifo");
    int32_t code = 0;
    if (os.process_start(("mkfifo " + fifo).c_str(), nullptr, none, &process) != 0) return;  // no such thing here
    ASSERT_TRUE(os.process_wait(process, kPatience, &code));
    os.process_release(process);
    EXPECT_NE(open_error(fifo, CM_O_RDONLY), 0);  // and does not wait for a writer
    EXPECT_NE(open_error(fifo, CM_O_WRONLY), 0);
    EXPECT_NE(open_error(fifo, CM_O_RDWR | CM_O_CREAT), 0);
}

TEST(Files, LinksAreNotFollowedWhereSaid) {
    if (const char *why = test::missing(test::Feature::kSymbolicLinks)) GTEST_SKIP() << why;
    TempFolder folder;
    const std::string target = folder.write("target", "x"), link = folder.path("link");
    std::error_code error;
    std::filesystem::create_symlink(target, link, error);
    ASSERT_FALSE(error);
    EXPECT_EQ(open_error(link, CM_O_RDONLY), 0);
    EXPECT_NE(open_error(link, CM_O_RDONLY | kOpenNoFollow), 0);
    EXPECT_NE(open_error(link, CM_O_RDWR | CM_O_CREAT | CM_O_EXCL), 0);
    FileStatus status = {}, followed = {};
    ASSERT_EQ(os.path_status(link.c_str(), false, &status), 0);
    ASSERT_EQ(os.path_status(link.c_str(), true, &followed), 0);
    EXPECT_EQ(status.type, FileType::kLink);
    EXPECT_EQ(followed.type, FileType::kRegular);
    EXPECT_NE(os.path_set_mode(link.c_str(), 0600), 0);
    EXPECT_EQ(os.path_remove(link.c_str()), 0);
    EXPECT_EQ(folder.read("target"), "x");
}

TEST(Files, ModesOfNewFiles) {
    if (const char *why = test::missing(test::Feature::kFileModes)) GTEST_SKIP() << why;
    TempFolder folder;
    FileStatus status = {};
    ASSERT_EQ(open_error(folder.path("own"), CM_O_WRONLY | CM_O_CREAT | kOpenOwnerOnly), 0);
    ASSERT_EQ(os.path_status(folder.path("own").c_str(), true, &status), 0);
    EXPECT_EQ(status.mode, kModeRegular | 0600);
    EXPECT_EQ(os.path_set_mode(folder.path("own").c_str(), 0640), 0);
    ASSERT_EQ(os.path_status(folder.path("own").c_str(), true, &status), 0);
    EXPECT_EQ(status.mode, kModeRegular | 0640);
}

TEST(Files, FullDeviceTellsHowFarItCame) {
    int32_t descriptor = -1;
    if (const char *why = test::missing(test::Feature::kFullDevice)) GTEST_SKIP() << why;
    ASSERT_EQ(os.file_open("/dev/full", CM_O_WRONLY, &descriptor), 0);
    size_t written = 99;
    EXPECT_EQ(os.file_write(descriptor, "x", 1, &written), Faults::kNoSpace);
    EXPECT_EQ(written, 0u);
    os.file_close(descriptor);
}

TEST(Files, NamesAndEndingSeparators) {
    TempFolder folder;
    const std::string a = folder.write("a", "a"), b = folder.write("b", "b"), sub = folder.path("sub");
    EXPECT_EQ(os.directory_create((sub + "/").c_str()), 0);
    EXPECT_NE(os.directory_create(sub.c_str()), 0);
    EXPECT_EQ(os.path_access((sub + "/").c_str(), CM_ACCESS_EXISTS), 0);
    FileStatus status = {};
    EXPECT_EQ(os.path_status((a + "/").c_str(), true, &status), 0);  // one separator is ignored, as Windows sides must
    EXPECT_EQ(os.path_status("/", true, &status), 0);
    EXPECT_NE(os.path_status(folder.path(std::string(5000, 'x') + "/").c_str(), true, &status), 0);
    EXPECT_NE(os.path_link(a.c_str(), b.c_str()), 0);
    EXPECT_EQ(os.path_link(a.c_str(), folder.path("c").c_str()), 0);
    EXPECT_EQ(os.path_rename(a.c_str(), b.c_str()), 0);
    EXPECT_EQ(folder.read("b"), "a");
    EXPECT_NE(os.path_rename(a.c_str(), b.c_str()), 0);
    EXPECT_EQ(folder.read("b"), "a");
    EXPECT_NE(os.directory_remove(folder.path().c_str()), 0);
    EXPECT_NE(os.path_remove(sub.c_str()), 0);
    EXPECT_EQ(os.directory_sync(folder.path().c_str()), 0);
    EXPECT_EQ(os.directory_remove((sub + "/").c_str()), 0);
}

TEST(Files, ListingSkipsNamesThatDoNotFit) {
    TempFolder folder;
    folder.write("short", "");
    folder.write("a_longer_name", "");
    void *search = nullptr;
    ASSERT_EQ(os.directory_open(folder.path().c_str(), &search), 0);
    char name[6];
    std::string seen;
    while (os.directory_next(search, name, sizeof name))
        if (name[0] != '.') seen += name;
    os.directory_close(search);
    EXPECT_EQ(seen, "short");
    EXPECT_NE(os.directory_open(folder.path("none").c_str(), &search), 0);
}

// ---- processes ------------------------------------------------------------------------------------------------------

class Processes : public testing::Test {
protected:
    TempFolder folder;
    const std::string child = "\"" + test::child_program() + "\"";

    struct Result {
        Error error = 0;
        int32_t code = -77;
        std::string output, errors;
    };

    Result run(const std::string &command, const char *directory = nullptr, const std::string &input = "",
               const std::string &name = "run") const {
        Result result;
        int32_t standard[3] = {-1, -1, -1};
        os.file_open(folder.write(name + ".in", input).c_str(), CM_O_RDONLY, &standard[0]);
        os.file_open(folder.path(name + ".out").c_str(), CM_O_WRONLY | CM_O_CREAT | CM_O_TRUNC, &standard[1]);
        os.file_open(folder.path(name + ".err").c_str(), CM_O_WRONLY | CM_O_CREAT | CM_O_TRUNC, &standard[2]);
        Process *process = nullptr;
        result.error = os.process_start(command.c_str(), directory, standard, &process);
        for (int32_t descriptor : standard) os.file_close(descriptor);
        if (result.error != 0) return result;
        EXPECT_TRUE(os.process_wait(process, kPatience, &result.code));
        os.process_release(process);
        result.output = folder.read(name + ".out");
        result.errors = folder.read(name + ".err");
        return result;
    }
};

TEST_F(Processes, CommandLinesAreSplitAsOnWindows) {
    const struct {
        const char *rest, *words;
    } table[] = {
        {"", ""},
        {"a b\tc", "[a][b][c]"},
        {"  a   b  ", "[a][b]"},
        {R"("a b" c)", "[a b][c]"},
        {R"(a" b "c)", "[a b c]"},
        {R"("" a "")", "[][a][]"},
        {R"(a\b c:\d\ e)", R"([a\b][c:\d\][e])"},
        {R"("a\\" b)", R"([a\][b])"},
        {R"(a\"b)", R"([a"b])"},
        {R"(a\\"b c")", R"([a\b c])"},
        {R"(a\\\"b c)", R"([a\"b][c])"},
        {R"("a\"b c" d)", R"([a"b c][d])"},
        {R"("open to the end)", "[open to the end]"},
        {R"($HOME * ; | 'x y')", "[$HOME][*][;][|]['x][y']"},
    };
    for (const auto &row : table) {
        const Result result = run(child + " print " + row.rest);
        std::string words;
        for (const std::string &line : test::lines_of(result.output)) words += line;
        EXPECT_EQ(words, row.words) << row.rest;
    }
}

TEST_F(Processes, ProgramNames) {
    EXPECT_EQ(run("  " + child + " exit 3").code, 3);
    EXPECT_EQ(run(test::child_program() + " exit 4").code, 4);
    EXPECT_NE(run("no_such_program_anywhere x").error, 0);
    EXPECT_NE(run("\"" + folder.path("missing") + "\" x").error, 0);
    EXPECT_NE(run("\"" + folder.write("no_program", "x") + "\"").error, 0);
    EXPECT_NE(run("").error, 0);
    EXPECT_NE(run("\"\"").error, 0);
    EXPECT_NE(run(child + " exit 0", folder.path("missing").c_str()).error, 0);
}

TEST_F(Processes, StreamsAndFolder) {
    EXPECT_EQ(run(child + " echo", nullptr, "some input\n").output, "some input\n");
    const Result errors = run(child + " error oops");
    EXPECT_EQ(errors.errors, "oops");
    EXPECT_EQ(errors.output, "");
    folder.make_folder("work");
    const std::string seen = run(child + " folder", folder.path("work").c_str()).output;
    EXPECT_TRUE(std::filesystem::equivalent(test::lines_of(seen).at(0), folder.path("work"))) << seen;
    const int32_t none[3] = {-1, -1, -1};
    Process *process = nullptr;
    int32_t code = -1;
    ASSERT_EQ(os.process_start((child + " echo").c_str(), nullptr, none, &process), 0);
    EXPECT_TRUE(os.process_wait(process, kPatience, &code));  // a null input ends at once
    EXPECT_EQ(code, 0);
    os.process_release(process);
}

TEST_F(Processes, ThreeDescriptorsReachAChildWhoeverStartsAtTheSameTime) {
    Pair open_sockets;
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; i++)
        threads.emplace_back([this, i] {
            for (int round = 0; round < 4; round++)
                EXPECT_EQ(run(child + " descriptors", nullptr, "", "run" + std::to_string(i)).output.substr(0, 1), "3");
        });
    for (std::thread &thread : threads) thread.join();
}

TEST_F(Processes, KillReachesTheGrandchild) {
    Listener listener;
    const int32_t none[3] = {-1, -1, -1};
    Process *process = nullptr;
    int32_t code = 0;
    ASSERT_EQ(os.process_start((child + " nest " + std::to_string(listener.port)).c_str(), nullptr, none, &process), 0);
    EXPECT_GT(os.process_id(process), 0);
    ASSERT_TRUE(wait_for(listener, false));
    Socket grandchild(accept_from(listener));
    EXPECT_FALSE(os.process_wait(process, 20, &code));
    os.process_kill(process);
    EXPECT_TRUE(os.process_wait(process, kPatience, &code));
    EXPECT_TRUE(wait_for(grandchild, false));  // its end of the connection is gone
    os.process_release(process);
}

TEST_F(Processes, AskedThreadStopsWaiting) {
    Listener listener;
    const int32_t none[3] = {-1, -1, -1};
    Process *process = nullptr;
    ASSERT_EQ(os.process_start((child + " hold " + std::to_string(listener.port)).c_str(), nullptr, none, &process), 0);
    {
        Runner runner([&] {
            int32_t code = 0;
            EXPECT_FALSE(os.process_wait(process, kForever, &code));
        });
        os.sleep(5);
    }
    os.process_kill(process);
    os.process_release(process);  // still there or not: nothing is left for good
    EXPECT_EQ(run(child + " exit 0").code, 0);
}

// ---- failures -------------------------------------------------------------------------------------------------------

TEST_F(Processes, EveryAllocationMayFail) {
    for (int k = 1;; k++) {
        LeakCheck leaks;
        Faults faults(Faults::kAllocations, k);
        Event *event = os.event_create();
        Lock *lock = os.lock_create();
        Thread *thread = nullptr;
        const Error start = os.thread_start([](void *) {}, nullptr, &thread);
        const int32_t none[3] = {-1, -1, -1};
        Process *process = nullptr;
        const Error child_start = os.process_start((child + " exit 0").c_str(), nullptr, none, &process);
        EXPECT_EQ(faults.injected(), (event == nullptr) + (lock == nullptr) + (start != 0) + (child_start != 0));
        EXPECT_EQ(start != 0, thread == nullptr);
        EXPECT_EQ(child_start != 0, process == nullptr);
        int32_t code = 0;
        if (process != nullptr) {
            EXPECT_TRUE(os.process_wait(process, kPatience, &code));
        }
        os.process_release(process);
        if (thread != nullptr) {
            EXPECT_TRUE(os.thread_join(thread, kPatience));
            os.thread_release(thread);
        }
        os.lock_destroy(lock);
        os.event_destroy(event);
        EXPECT_EQ(leaks.outstanding(), 0u) << k;
        if (faults.injected() == 0) {
            EXPECT_GT(k, 4);
            break;
        }
    }
}

// A new entry of the table is either failed by Faults or known here not to be fallible.
TEST(Failures, EveryFallibleEntryCanBeFailed) {
    constexpr int kNeverFail = 32;
    Faults faults(Faults::kBoth, 0);
    const auto words = [](const Table &table) {
        std::vector<uintptr_t> out(sizeof(Table) / sizeof(uintptr_t));
        memcpy(out.data(), &table, sizeof table);
        return out;
    };
    const std::vector<uintptr_t> now = words(os), before = words(kSystem);
    int untouched = 0;
    for (size_t i = 0; i < now.size(); i++) untouched += now[i] == before[i];
    EXPECT_EQ(untouched, kNeverFail);
}

TEST(Failures, ClosersAreCarriedOutAndWritesStopHalfWay) {
    TempFolder folder;
    int32_t descriptor = -1;
    ASSERT_EQ(os.file_open(folder.path("a").c_str(), CM_O_WRONLY | CM_O_CREAT, &descriptor), 0);
    {
        Faults faults(Faults::kFiles, 1, Faults::kNoSpace);
        size_t written = 0;
        EXPECT_EQ(os.file_write(descriptor, "abcdef", 6, &written), Faults::kNoSpace);
        EXPECT_EQ(written, 3u);
    }
    Faults faults(Faults::kFiles, 1);
    EXPECT_EQ(os.file_close(descriptor), Faults::kInputOutput);
    EXPECT_NE(kSystem.file_close(descriptor), 0);
    EXPECT_EQ(folder.read("a"), "abc");
    EXPECT_GE(Faults::total_injected(), 2);
}

TEST(Failures, FrozenClockMovesOthersOnlyWhenTold) {
    test::FrozenClock clock(1000, 250);
    EXPECT_TRUE(os.sleep(1750));
    EXPECT_EQ(clock.seconds(), 1002);
    EventHolder event, done;
    Runner sleeper([&] {
        os.sleep(60000);
        os.event_set(done);
    });
    EXPECT_FALSE(kSystem.event_wait(done, 20));
    while (!kSystem.event_wait(done, 1)) clock.advance(60);
    EXPECT_EQ(clock.slept_ms(), 1750);
}

}  // namespace
}  // namespace cm::platform
