// What only the `os` table itself shows: errors, what a child inherits, the ends of threads, waits and their wake-up.
#include "platform/platform.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>
#include <functional>
#include <memory>
#include <thread>

#include "support/data.h"
#include "support/sockets.h"
#include "support/support.h"

namespace cm::platform {
namespace {

using test::BareSocket;
using test::Faults;
using test::Peer;
using test::TempFolder;
using test::Udp;

constexpr int32_t kPatience = 20000;  // ms; only a failing test waits that long

// ---- sockets --------------------------------------------------------------------------------------------------------

struct Listener : BareSocket {
    Listener() { EXPECT_EQ(os.socket_listen(socket(), 16), 0); }
    Error accept(cm_socket *out) {
        uint32_t address = 0;
        int32_t port = 0;
        return os.socket_accept(socket(), out, &address, &port);
    }
};

struct Pair {
    Listener listener;
    Peer client{listener.port()};
    cm_socket server = kNoSocket;
    Pair() { EXPECT_EQ(listener.accept(&server), 0); }
    ~Pair() { os.socket_close(server); }
};

Error receive(cm_socket socket) {
    char byte;
    size_t got = 0;
    return os.socket_receive(socket, &byte, 1, false, &got);
}

bool is_readable(cm_socket socket, int32_t timeout_ms = kPatience) {
    WaitItem item = {socket, false, false, false};
    int32_t ready = 0;
    return os.socket_wait(&item, 1, timeout_ms, &ready) == 0 && ready == 1 && item.ready;
}

TEST(Sockets, DatagramsThatDoNotFitAndDeadPorts) {
    Udp from, to;
    const uint32_t loopback = test::address_of("127.0.0.1");
    const std::string huge(100000, 'x');
    char buffer[8];
    size_t got = 99;
    uint32_t address = 0;
    int32_t sender = 0;
    from.send("123456789", to.port());
    EXPECT_EQ(os.socket_receive_from(to.socket(), buffer, sizeof buffer, false, &got, &address, &sender), CM_EMSGSIZE);
    EXPECT_EQ(got, 99u);
    EXPECT_EQ(os.socket_receive_from(to.socket(), buffer, 8, true, &got, &address, &sender), CM_EWOULDBLOCK);
    EXPECT_EQ(os.socket_send_to(from.socket(), loopback, to.port(), huge.data(), huge.size()), CM_EMSGSIZE);
    const int32_t dead = to.port();
    to.close();
    from.send("x", dead);
    EXPECT_FALSE(is_readable(from.socket(), 50));
}

TEST(Sockets, WaitOnManyAndOnNone) {
    std::vector<WaitItem> items(100, WaitItem{kNoSocket, false, true, true});
    int32_t ready = 7;
    EXPECT_EQ(os.socket_wait(items.data(), 100, 0, &ready), 0);
    EXPECT_EQ(ready, 0);
    EXPECT_FALSE(items[50].ready || items[50].failed);
    Pair pair;
    pair.client.close();
    items[97].socket = pair.server;
    EXPECT_EQ(os.socket_wait(items.data(), 100, kPatience, &ready), 0);
    EXPECT_EQ(ready, 1);
    EXPECT_TRUE(items[97].ready && !items[97].failed);
    Faults faults(Faults::kAllocations, 1);
    const bool failed = os.socket_wait(items.data(), 100, 0, &ready) != 0;
    EXPECT_EQ(failed, faults.injected() != 0);
}

TEST(Sockets, WakeStaysSetUntilCleared) {
    Wake wake;
    ASSERT_EQ(os.wake_create(&wake), 0);
    for (int round = 0; round < 2; round++) {
        EXPECT_FALSE(is_readable(wake.read_end, 0));
        std::thread other([&] { os.wake_set(&wake); });
        EXPECT_TRUE(is_readable(wake.read_end) && is_readable(wake.read_end));
        other.join();
        os.wake_set(&wake);
        os.wake_clear(&wake);
    }
    os.wake_destroy(&wake);
    EXPECT_EQ(wake.read_end, kNoSocket);
}

// ---- locks, events and the end of threads ---------------------------------------------------------------------------

// A thread that runs a function; asked to end and joined at the end.
class Runner {
public:
    explicit Runner(std::function<void()> body) : body_(std::move(body)) {
        EXPECT_EQ(os.thread_start([](void *self) { static_cast<Runner *>(self)->body_(); }, this, &thread), 0);
    }
    ~Runner() {
        os.thread_ask(thread);
        EXPECT_TRUE(os.thread_join(thread, kPatience));
        os.thread_release(thread);
    }
    Thread *thread = nullptr;

private:
    std::function<void()> body_;
};

class Threads : public testing::Test {
protected:
    ~Threads() override {
        os.event_destroy(event);
        os.event_destroy(done);
    }
    Event *const event = os.event_create(), *const done = os.event_create();
    Pair pair;
};

// An event remembers one signal, and as many come out as were given, whatever times out meanwhile.
TEST_F(Threads, NoSignalIsLostOrDoubled) {
    for (int i = 0; i < 2; i++) os.event_set(event);
    EXPECT_TRUE(os.event_wait(event, 0));
    EXPECT_FALSE(os.event_wait(event, 0));
    EXPECT_FALSE(os.event_wait(event, 20));
    std::atomic<int> out{0};
    std::atomic<bool> stop{false};
    std::vector<std::unique_ptr<Runner>> waiters;
    for (int i = 0; i < 4; i++)
        waiters.push_back(std::make_unique<Runner>([&, i] {
            while (!stop)
                if (os.event_wait(event, i % 2 == 0 ? 1 : 1000)) {
                    out++;
                    os.event_set(done);
                }
        }));
    for (int i = 0; i < 2000; i++) {
        os.event_set(event);
        ASSERT_TRUE(os.event_wait(done, kPatience)) << i;
    }
    stop = true;
    waiters.clear();
    EXPECT_EQ(out, 2000);
    EXPECT_FALSE(os.event_wait(event, 0));
}

TEST_F(Threads, EveryWaitComesBackWhenAsked) {
    Udp datagrams;
    cm_socket none = kNoSocket;
    char byte;
    size_t got = 0;
    uint32_t address = 0;
    int32_t number = 0;
    WaitItem item = {pair.server, false, false, false};
    const struct {
        const char *name;
        std::function<bool()> comes_back;
    } waits[] = {{"sleep", [] { return !os.sleep(3600000); }},
                 {"event", [&] { return !os.event_wait(event, kForever); }},
                 {"timed event", [&] { return !os.event_wait(event, 3600000); }},
                 {"socket_wait", [&] { return os.socket_wait(&item, 1, kForever, &number) == CM_EINTR; }},
                 {"receive", [&] { return receive(pair.server) == CM_EINTR; }},
                 {"accept", [&] { return pair.listener.accept(&none) == CM_EINTR; }},
                 {"receive_from", [&] {
                      return os.socket_receive_from(datagrams.socket(), &byte, 1, false, &got, &address, &number) ==
                             CM_EINTR;
                  }}};
    for (const auto &wait : waits) {
        // Asked at once, on its way into the wait, and while it waits.
        for (const int delay_ms : {0, 0, 0, 0, 1, 20}) {
            bool right = false;
            {
                Runner runner([&] { right = wait.comes_back() && wait.comes_back() && os.thread_asked(); });
                if (delay_ms > 0) os.sleep(delay_ms);
            }
            EXPECT_TRUE(right) << wait.name;
        }
    }
    {
        Runner waiter([&] { os.event_wait(event, kForever); });
    }
    os.event_set(event);
    EXPECT_TRUE(os.event_wait(event, 0)) << "asking leaves a signal for others";
}

TEST_F(Threads, JoinHasALimitAndSelfIsKnownInsideOnly) {
    EXPECT_EQ(os.thread_self(), nullptr);
    EXPECT_FALSE(os.thread_asked());
    std::atomic<Thread *> inside{nullptr};
    Runner runner([&] {
        os.event_wait(event, kForever);
        EXPECT_FALSE(os.thread_join(os.thread_self(), kForever));
        inside = os.thread_self();
    });
    EXPECT_FALSE(os.thread_join(runner.thread, 0));
    EXPECT_FALSE(os.thread_join(runner.thread, 20));
    os.event_set(event);
    EXPECT_TRUE(os.thread_join(runner.thread, kForever));
    EXPECT_TRUE(os.thread_join(runner.thread, 0));
    EXPECT_TRUE(os.thread_park(runner.thread));
    EXPECT_EQ(inside, runner.thread);
}

// A thread that never looks whether it was asked.  Its body outlives the test, as the thread does.
struct Stubborn {
    std::atomic<int64_t> rounds{0};
    std::atomic<bool> may_release{false};
    std::atomic<void *> block{nullptr};
    Lock *lock = os.lock_create();
    Thread *thread = nullptr;

    static Stubborn &start(ThreadEntry body) {
        static std::vector<Stubborn *> all;  // so that leak checkers know what the parked threads keep
        all.push_back(new Stubborn);
        EXPECT_EQ(os.thread_start(body, all.back(), &all.back()->thread), 0);
        while (all.back()->rounds == 0) os.sleep(1);
        return *all.back();
    }
    void expect_parked() {
        const int64_t before = rounds;
        os.sleep(30);
        EXPECT_EQ(rounds, before);
        os.lock_acquire(lock);
        for (int i = 0; i < 1000; i++) os.release(os.allocate(100));
        os.lock_release(lock);
        os.thread_release(thread);
    }
};

TEST_F(Threads, ParkedThreadHoldsNothing) {
    Stubborn &spinning = Stubborn::start([](void *argument) {
        for (auto &self = *static_cast<Stubborn *>(argument);; self.rounds++) {
            os.lock_acquire(self.lock);
            os.release(os.allocate(100));
            os.lock_release(self.lock);
        }
    });
    ASSERT_TRUE(os.thread_park(spinning.thread));
    spinning.expect_parked();
}

TEST_F(Threads, ParkWaitsForTheLastLibraryLock) {
    Stubborn &holder = Stubborn::start([](void *argument) {
        auto &self = *static_cast<Stubborn *>(argument);
        os.lock_acquire(self.lock);
        for (self.rounds = 1; !self.may_release;) os.thread_yield();
        os.lock_release(self.lock);
        for (;;) self.rounds++;
    });
    EXPECT_FALSE(os.thread_park(holder.thread));
    holder.may_release = true;
    EXPECT_TRUE(os.thread_park(holder.thread));
    holder.expect_parked();
}

// A host's function that goes in and out of the C library, in a part of the heap of its own, is not stopped where it
// may hold a lock of the allocator.
TEST_F(Threads, ParkingAmidAllocationsHarmsNobody) {
    int parked = 0;
    for (int i = 0; i < 12; i++) {
        Stubborn &churning = Stubborn::start([](void *argument) {
            auto &self = *static_cast<Stubborn *>(argument);
            self.block = malloc(3000);
            std::atomic<void *> seen{nullptr};  // keeps the compiler from leaving the allocations out
            for (;;) {
                for (size_t size = 2000; size < 42000; size += 1000) {
                    seen = malloc(size);
                    free(seen);
                }
                for (int own_work = 0; own_work < 5000; own_work++) self.rounds++;
            }
        });
        parked += os.thread_park(churning.thread);
        os.thread_release(churning.thread);
        free(churning.block);  // for ever, when the thread stands with its heap locked
    }
    EXPECT_GT(parked, 0);
    Runner waiting([&] { os.event_wait(event, kForever); });
    EXPECT_TRUE(os.thread_park(waiting.thread)) << "one that only waits ends";
}

// ---- files and processes --------------------------------------------------------------------------------------------

class System : public testing::Test {
protected:
    // What a command prints, all in one line, with what it prints as errors behind "!", and "= code" unless that is 0.
    std::string run(const std::string &command, const char *directory = nullptr, bool with_input = true) const {
        int32_t standard[3] = {-1, -1, -1}, code = -77;
        if (with_input) os.file_open(folder.write("in", "some input").c_str(), CM_O_RDONLY, &standard[0]);
        os.file_open(folder.path("out").c_str(), CM_O_WRONLY | CM_O_CREAT | CM_O_TRUNC, &standard[1]);
        os.file_open(folder.path("err").c_str(), CM_O_WRONLY | CM_O_CREAT | CM_O_TRUNC, &standard[2]);
        Process *process = nullptr;
        const Error error = os.process_start(command.c_str(), directory, standard, &process);
        for (const int32_t descriptor : standard) os.file_close(descriptor);
        EXPECT_EQ(error != 0, process == nullptr);
        if (error != 0) return "not started";
        EXPECT_TRUE(os.process_wait(process, kPatience, &code));
        os.process_release(process);
        const std::string errors = folder.read("err");
        std::string said;
        for (const std::string &line : test::lines_of(folder.read("out"))) said += line;
        return said + (errors.empty() ? "" : "!" + errors) + (code == 0 ? "" : "= " + std::to_string(code));
    }
    Error open_error(const std::string &path, int32_t flags) const {
        int32_t descriptor = -1;
        const Error error = os.file_open(path.c_str(), flags, &descriptor);
        if (error == 0) os.file_close(descriptor);
        return error;
    }

    TempFolder folder;
};

TEST_F(System, CommandsAreSplitAsOnWindowsAndGetTheirStreams) {
    const std::string child = "\"" + test::child_program() + "\"";
    folder.write("no_program", "x");
    for (const test::Row &row : test::rows("core/commands")) {
        std::string command = row[0];
        for (const auto &[word, text] : {std::pair("@", child), {"%", test::child_program()}, {"~", folder.path()}})
            if (const size_t at = command.find(word); at != command.npos) command.replace(at, 1, text);
        EXPECT_EQ(run(command), row[1]) << row.where;
    }
    EXPECT_EQ(run(child + " exit 0", folder.path("missing").c_str()), "not started");
    EXPECT_EQ(run(child + " echo", nullptr, false), "") << "a null input ends at once";
}

TEST_F(System, OnlyFilesAndDevicesAreOpened) {
    EXPECT_NE(open_error(folder.path("new"), CM_O_RDWR), 0);
    EXPECT_NE(open_error(folder.path(), CM_O_RDONLY), 0);
    EXPECT_NE(open_error(folder.path() + "/", CM_O_RDONLY), 0);
    const std::string fifo = folder.path("fifo");
    if (run("mkfifo " + fifo) == "not started") return;  // no such thing here, nor the other
    // Without waiting for whoever opens the other end.
    for (const int32_t flags : {CM_O_RDONLY, CM_O_WRONLY, CM_O_RDWR | CM_O_CREAT})
        EXPECT_NE(open_error(fifo, flags), 0);
    int32_t full = -1;
    size_t written = 99;
    ASSERT_EQ(os.file_open("/dev/full", CM_O_WRONLY, &full), 0);
    EXPECT_EQ(os.file_write(full, "x", 1, &written), Faults::kNoSpace);
    EXPECT_EQ(written, 0u);
    os.file_close(full);
}

TEST_F(System, NamesAndEndingSeparators) {
    const std::string a = folder.write("a", "a"), b = folder.write("b", "b"), sub = folder.path("sub") + "/";
    FileStatus status = {};
    EXPECT_EQ(os.directory_create(sub.c_str()), 0);
    EXPECT_EQ(os.path_access(sub.c_str(), CM_ACCESS_EXISTS), 0);
    EXPECT_EQ(os.path_status((a + "/").c_str(), true, &status), 0);  // one separator is ignored, as Windows sides must
    EXPECT_EQ(os.path_status("/", true, &status), 0);
    EXPECT_NE(os.path_status(folder.path(std::string(5000, 'x') + "/").c_str(), true, &status), 0);
    EXPECT_NE(os.path_link(a.c_str(), b.c_str()), 0);
    EXPECT_NE(os.path_remove(sub.c_str()), 0);
    EXPECT_EQ(os.directory_remove(sub.c_str()), 0);
    EXPECT_NE(os.directory_remove(folder.path().c_str()), 0);
    void *search = nullptr;
    ASSERT_EQ(os.directory_open(folder.path().c_str(), &search), 0);
    char name[2];
    std::string seen;
    folder.write("a longer name", "");
    while (os.directory_next(search, name, sizeof name))
        if (name[0] != '.') seen += name;
    os.directory_close(search);
    EXPECT_TRUE(seen == "ab" || seen == "ba") << seen << ": longer names are skipped";
    EXPECT_NE(os.directory_open(sub.c_str(), &search), 0);
}

// A new entry of the table is either failed by Faults or known here not to be fallible.
TEST(Failures, EveryFallibleEntryCanBeFailed) {
    constexpr int kNeverFail = 40;
    Faults faults(Faults::kBoth, 0);
    uintptr_t now[sizeof(Table) / sizeof(uintptr_t)], before[std::size(now)];
    memcpy(now, &os, sizeof os);
    memcpy(before, &kSystem, sizeof kSystem);
    int untouched = 0;
    for (size_t i = 0; i < std::size(now); i++) untouched += now[i] == before[i];
    EXPECT_EQ(untouched, kNeverFail);
}

}  // namespace
}  // namespace cm::platform
