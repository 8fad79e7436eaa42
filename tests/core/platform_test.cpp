// What only the `os` table itself shows: errors, what a child inherits, the ends of threads, waits and their wake-up.
#include "platform/platform.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <thread>

#include "support/scenario.h"

namespace cm::platform {
namespace {

using namespace test;

constexpr int32_t kPatience = 20000;  // ms; only a failing test waits that long

// ---- sockets --------------------------------------------------------------------------------------------------------

TEST(Sockets, DatagramsThatDoNotFitAndDeadPorts) {
    Udp from, to;
    const auto receive = [&](bool only_what_is_there) {
        char buffer[8];
        size_t got = 99;
        uint32_t address = 0;
        int32_t sender = 0;
        const Error error = os.socket_receive_from(to.socket(), buffer, 8, only_what_is_there, &got, &address, &sender);
        EXPECT_EQ(got, 99u);
        return error;
    };
    from.send("123456789", to.port());
    EXPECT_EQ(receive(false), CM_EMSGSIZE);
    EXPECT_EQ(receive(true), CM_EWOULDBLOCK);
    const std::string huge(100000, 'x');
    EXPECT_EQ(os.socket_send_to(from.socket(), address_of("127.0.0.1"), to.port(), huge.data(), huge.size()),
              CM_EMSGSIZE);
    to.close();
    from.send("x", to.port());
    EXPECT_FALSE(from.readable(50));
}

TEST(Sockets, WaitOnManyAndOnNone) {
    std::vector<WaitItem> items(100, WaitItem{kNoSocket, false, true, true});
    int32_t ready = 7;
    EXPECT_EQ(os.socket_wait(items.data(), 100, 0, &ready), 0);
    EXPECT_EQ(ready, 0);
    EXPECT_FALSE(items[50].ready || items[50].failed);
    const BareSocket listener;
    EXPECT_EQ(os.socket_listen(listener.socket(), 16), 0);
    const Peer client(listener.port());
    items[97].socket = listener.socket();
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
    const auto is_set = [&](int32_t timeout_ms) {
        WaitItem item = {wake.read_end, false, false, false};
        int32_t ready = 0;
        return os.socket_wait(&item, 1, timeout_ms, &ready) == 0 && ready == 1 && item.ready;
    };
    for (int round = 0; round < 2; round++) {
        EXPECT_FALSE(is_set(0));
        std::thread other([&] { os.wake_set(&wake); });
        EXPECT_TRUE(is_set(kPatience) && is_set(kPatience));
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
    const Udp datagrams;
    const BareSocket idle, silent;
    for (const BareSocket *listener : {&idle, &silent}) EXPECT_EQ(os.socket_listen(listener->socket(), 16), 0);
    const Peer client(silent.port());
    cm_socket none = kNoSocket;
    char byte;
    size_t got = 0;
    uint32_t from = 0;
    int32_t number = 0;
    WaitItem item = {client.socket(), false, false, false};
    const std::map<const char *, std::function<bool()>> waits = {
        {"sleep", [] { return !os.sleep(3600000); }},
        {"event", [&] { return !os.event_wait(event, kForever); }},
        {"timed event", [&] { return !os.event_wait(event, 3600000); }},
        {"wait", [&] { return os.socket_wait(&item, 1, kForever, &number) == CM_EINTR; }},
        {"accept", [&] { return os.socket_accept(idle.socket(), &none, &from, &number) == CM_EINTR; }},
        {"receive", [&] { return os.socket_receive(client.socket(), &byte, 1, false, &got) == CM_EINTR; }},
        {"datagram", [&] {
             return os.socket_receive_from(datagrams.socket(), &byte, 1, false, &got, &from, &number) == CM_EINTR;
         }}};
    for (const auto &[name, comes_back] : waits) {
        // Asked at once, on its way into the wait, and while it waits.
        for (const int delay_ms : {0, 0, 0, 0, 1, 20}) {
            bool right = false;
            {
                Runner runner([&, &wait = comes_back] { right = wait() && wait() && os.thread_asked(); });
                if (delay_ms > 0) os.sleep(delay_ms);
            }
            EXPECT_TRUE(right) << name;
        }
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

// The steps of data/system.txt.
struct System : World {
    explicit System(const Row & = {}) {
        on("put", [this](auto &words) { folder.write(words[0], ""); });
        on("run", [this](auto &words) { return run_command(words.rest(0)); });
        for (const auto &[verb, flags] : {std::pair("read", CM_O_RDONLY),
                                          {"write", CM_O_WRONLY},
                                          {"change", CM_O_RDWR},
                                          {"create", CM_O_RDWR | CM_O_CREAT}})
            on(verb, [this, flags = flags](auto &words) {
                int32_t descriptor = -1;
                return os.file_open(at(words[0]).c_str(), flags, &descriptor) == 0 && os.file_close(descriptor) == 0;
            });
        on("write-to-full-device", [](auto &) {
            int32_t descriptor = -1;
            size_t written = 99;
            EXPECT_EQ(os.file_open("/dev/full", CM_O_WRONLY, &descriptor), 0);
            const Error error = os.file_write(descriptor, "x", 1, &written);
            return std::to_string(error) + " " + std::to_string(written + os.file_close(descriptor));
        });
        on("exists", [this](auto &words) { return os.path_access(at(words[0]).c_str(), CM_ACCESS_EXISTS) == 0; });
        on("status", [this](auto &words) {
            FileStatus status = {};
            return os.path_status(at(words[0]).c_str(), true, &status) == 0;
        });
        on("link", [this](auto &words) { return os.path_link(at(words[0]).c_str(), at(words[1]).c_str()) == 0; });
        on("remove", [this](auto &words) { return os.path_remove(at(words[0]).c_str()) == 0; });
        on("make", [this](auto &words) { return os.directory_create(at(words[0]).c_str()) == 0; });
        on("unmake", [this](auto &words) { return os.directory_remove(at(words[0]).c_str()) == 0; });
        on("list", [this](auto &words) -> std::string {
            void *search = nullptr;
            std::string all, name(static_cast<size_t>(words.number(1)), ' ');
            if (os.directory_open(at(words[0]).c_str(), &search) != 0) return "-";
            while (os.directory_next(search, name.data(), name.size()))
                if (name[0] != '.') all += name.c_str();
            os.directory_close(search);
            std::sort(all.begin(), all.end());
            return all;
        });
    }
    std::string at(std::string path) const {
        for (size_t found; (found = path.find('~')) != path.npos;) path.replace(found, 1, folder.path());
        return path;
    }
    // What a command prints, all in one line, with what it prints as errors behind "!", and "= code" unless that is 0.
    std::string run_command(std::string command, const char *directory = nullptr, const char *input = "in") const {
        for (const auto &[word, text] : {std::pair("@", '"' + child_program() + '"'), {"%", child_program()}})
            if (const size_t found = command.find(word); found != command.npos) command.replace(found, 1, text);
        int32_t standard[3] = {-1, -1, -1}, code = -77;
        constexpr int32_t kNew = CM_O_WRONLY | CM_O_CREAT | CM_O_TRUNC;
        if (input != nullptr) os.file_open(folder.write(input, "some input").c_str(), CM_O_RDONLY, &standard[0]);
        os.file_open(folder.path("out").c_str(), kNew, &standard[1]);
        os.file_open(folder.path("err").c_str(), kNew, &standard[2]);
        Process *process = nullptr;
        const Error error = os.process_start(at(command).c_str(), directory, standard, &process);
        for (const int32_t descriptor : standard) os.file_close(descriptor);
        EXPECT_EQ(error != 0, process == nullptr);
        if (error != 0) return "not started";
        EXPECT_TRUE(os.process_wait(process, kPatience, &code));
        os.process_release(process);
        const std::string errors = folder.read("err");
        std::string said;
        for (const std::string &line : lines_of(folder.read("out"))) said += line;
        return said + (errors.empty() ? "" : "!" + errors) + (code == 0 ? "" : "= " + std::to_string(code));
    }

    TempFolder folder;
};
SCENARIOS(SystemSteps, System, "core/system");

TEST(Commands, AreSplitAsOnWindowsAndGetTheirStreams) {
    const System system;
    system.folder.write("no_program", "x");
    for (const Row &row : rows("core/commands")) EXPECT_EQ(system.run_command(row[0]), row[1]) << row.where;
    EXPECT_EQ(system.run_command("@ exit 0", system.at("~/missing").c_str()), "not started");
    EXPECT_EQ(system.run_command("@ echo", nullptr, nullptr), "") << "a null input ends at once";
}

}  // namespace
}  // namespace cm::platform
