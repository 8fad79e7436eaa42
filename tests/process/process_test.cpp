// Real child processes: what they get, what becomes of them, and handles that outlive them.
#include <gtest/gtest.h>

#include <thread>

#include "network/net.h"

using namespace cm::test;
using cm::platform::kFoldsPathCase;
using cm::platform::Process;
using std::string;

namespace {

constexpr int32_t kPatienceMs = 20000;

string child(const string &words) {
    return "\"" + child_program() + "\" " + words;
}

// Sees each start, and puts a file in place of the null device that children write to.
class Tap {
public:
    Tap() : saved_(os) {
        self = this;
        os.process_start = start;
    }
    ~Tap() { os = saved_; }
    Tap(const Tap &) = delete;
    Tap &operator=(const Tap &) = delete;

    string output() const { return folder_.read("out"); }
    int32_t id() const { return id_; }

private:
    static cm::platform::Error start(const char *command, const char *directory, const int32_t standard[3],
                                     Process **out_process) {
        for (int i = 0; i < 3; i++) EXPECT_EQ(standard[i], -1) << "a stream of this process reaches the child";
        int32_t given[3] = {-1, -1, -1};
        constexpr int32_t kFlags = CM_O_WRONLY | CM_O_CREAT | CM_O_TRUNC;
        EXPECT_EQ(os.file_open(self->folder_.path("out").c_str(), kFlags, &given[1]), 0);
        const auto error = self->saved_.process_start(command, directory, given, out_process);
        os.file_close(given[1]);
        if (error == 0) self->id_ = os.process_id(*out_process);
        return error;
    }

    static inline Tap *self = nullptr;
    const cm::platform::Table saved_;
    TempFolder folder_;
    int32_t id_ = -1;
};

// A listener that "hold" and "nest" children connect to: while the connection stands they run, and when it ends they
// have ended.
class Line {
public:
    Line() {
        os.network_start();
        EXPECT_EQ(os.socket_open(cm::platform::SocketKind::kStream, &listener_), 0);
        EXPECT_EQ(os.socket_bind(listener_, address_of("127.0.0.1"), 0), 0);
        EXPECT_EQ(os.socket_listen(listener_, 5), 0);
    }
    ~Line() {
        if (peer_ != cm::platform::kNoSocket) os.socket_close(peer_);
        os.socket_close(listener_);
    }
    Line(const Line &) = delete;
    Line &operator=(const Line &) = delete;

    string port() const {
        uint32_t address = 0;
        int32_t port = 0;
        EXPECT_EQ(os.socket_local(listener_, &address, &port), 0);
        return std::to_string(port);
    }
    void await_child() {
        uint32_t address = 0;
        int32_t port = 0;
        ASSERT_TRUE(readable(listener_));
        ASSERT_EQ(os.socket_accept(listener_, &peer_, &address, &port), 0);
    }
    bool child_ends() { return readable(peer_); }

private:
    static bool readable(cm_socket socket) {
        cm::platform::WaitItem item = {socket, false, false, false};
        int32_t ready = 0;
        return os.socket_wait(&item, 1, kPatienceMs, &ready) == 0 && ready == 1;
    }
    cm_socket listener_ = cm::platform::kNoSocket, peer_ = cm::platform::kNoSocket;
};

TEST(Exec, TellsHowTheProgramEnded) {
    for (const int32_t code : {0, 7, 255}) {
        int32_t got = -1;
        EXPECT_EQ(cm_exec(nullptr, child("exit " + std::to_string(code)).c_str(), nullptr, 20, &got), 1);
        EXPECT_EQ(got, code);
    }
    EXPECT_EQ(cm_exec(nullptr, child("exit 3").c_str(), nullptr, 0, nullptr), 1);
    EXPECT_EQ(cm_exec(nullptr, nullptr, nullptr, 0, nullptr), 0);
}

TEST(Exec, GivesWordsFolderAndThreeDescriptors) {
    const Tap tap;
    const TempFolder folder;
    EXPECT_EQ(cm_exec(nullptr, child("print \"a b\" c\\\"d ; $(exit)").c_str(), nullptr, 20, nullptr), 1);
    EXPECT_EQ(lines_of(tap.output()), (std::vector<string>{"[a b]", "[c\"d]", "[;]", "[$(exit)]"}));
    EXPECT_EQ(cm_exec(nullptr, child("folder").c_str(), folder.path().c_str(), 20, nullptr), 1);
    EXPECT_EQ(lines_of(tap.output()), (std::vector<string>{folder.path()}));
    std::vector<cm_socket> sockets(100, cm::platform::kNoSocket);
    for (cm_socket &socket : sockets) EXPECT_EQ(os.socket_open(cm::platform::SocketKind::kStream, &socket), 0);
    EXPECT_EQ(cm_exec(nullptr, child("descriptors").c_str(), nullptr, 20, nullptr), 1);
    for (const cm_socket socket : sockets) os.socket_close(socket);
    EXPECT_EQ(lines_of(tap.output()), (std::vector<string>{"3"}));
}

// The child's end is only looked at once the grandchild runs.
Line *line = nullptr;

TEST(Exec, ATimeOutKillsGrandchildrenToo) {
    const Library lib;
    Line here;
    line = &here;
    const cm::platform::Table saved = os;
    os.process_wait = [](Process *process, int32_t timeout_ms, int32_t *out_code) {
        if (timeout_ms != 2000) return cm::platform::kSystem.process_wait(process, timeout_ms, out_code);
        line->await_child();
        return false;
    };
    int32_t code = -1;
    const string command = child("nest " + here.port());
    EXPECT_EQ(cm_exec(lib, command.c_str(), nullptr, 2, &code), 0);
    os = saved;
    EXPECT_EQ(code, 0);
    EXPECT_TRUE(here.child_ends());
    EXPECT_TRUE(lib.logged("ERROR: cm_exec() Process timeout: " + command));
}

TEST(Exec, WhatCannotBeStartedIsLogged) {
    const Library lib;
    cm_value process = 1;
    int32_t code = -1;
    EXPECT_EQ(cm_exec(lib, "no-such-program-anywhere -x", nullptr, 5, &code), 0);
    EXPECT_EQ(cm_spawn(lib, "no-such-program-anywhere -y", nullptr, &process), 0);
    EXPECT_EQ(process, 0u);
    EXPECT_EQ(cm_spawn(lib, "", nullptr, nullptr), 0);
    EXPECT_TRUE(lib.logged("ERROR: cm_exec() Unable to start: no-such-program-anywhere -x [2]"));
    EXPECT_TRUE(lib.logged("ERROR: cm_spawn() Unable to start: no-such-program-anywhere -y [2]"));
}

TEST(Exec, AThreadThatIsAskedToEndTakesItsChildAlong) {
    const Library lib;
    Line here;
    static string command;
    command = child("hold " + here.port());
    cm_thread *thread = nullptr;
    const auto run = [](cm_thread *self, cm_value) { return cm_exec(self->ctx, command.c_str(), nullptr, 0, nullptr); };
    ASSERT_EQ(cm_create_thread(lib, run, 0, "exec", &thread), 1);
    here.await_child();
    EXPECT_EQ(cm_terminate_thread(thread), 1);
    EXPECT_TRUE(here.child_ends());
    EXPECT_FALSE(lib.logged_text("timeout"));
}

TEST(Spawn, AHandleFromStartToEnd) {
    Line here;
    const Tap tap;
    cm_value process = 0;
    int32_t code = -1;
    ASSERT_EQ(cm_spawn(nullptr, child("nest " + here.port()).c_str(), nullptr, &process), 1);
    here.await_child();
    EXPECT_EQ(cm_exitcode(process, &code), 0);
    EXPECT_EQ(cm_waitforobject(process, 0), 0);
    EXPECT_EQ(cm_isrunning(tap.id()), 1);
    EXPECT_EQ(cm_kill(process), 1);
    EXPECT_TRUE(here.child_ends());
    EXPECT_EQ(cm_waitforobject(process, kPatienceMs), 1);
    EXPECT_EQ(cm_isrunning(tap.id()), 0);  // though its number is still taken
    EXPECT_EQ(cm_exitcode(process, &code), 1);
    EXPECT_EQ(code, kFoldsPathCase ? 1 : 128 + 9);
    EXPECT_EQ(cm_exitcode(process, &code), 0);
    EXPECT_EQ(cm_kill(process), 0);
    EXPECT_EQ(cm_waitforobject(process, -1), 0);
    cm_value next = 0;
    ASSERT_EQ(cm_spawn(nullptr, child("exit 9").c_str(), nullptr, &next), 1);
    EXPECT_NE(next, process);
    EXPECT_EQ(cm_waitforobject(next, -1), 1);
    EXPECT_EQ(cm_exitcode(next, &code), 1);
    EXPECT_EQ(code, 9);
    for (const cm_value stranger : {cm_value{0}, process, next, ~cm_value{0}}) EXPECT_EQ(cm_kill(stranger), 0);
}

TEST(Spawn, KillingByNumberEndsThatProcess) {
    Line here;
    const Tap tap;
    ASSERT_EQ(cm_spawn(nullptr, child("hold " + here.port()).c_str(), nullptr, nullptr), 1);
    here.await_child();
    EXPECT_EQ(cm_killid(tap.id()), 1);
    EXPECT_TRUE(here.child_ends());
    EXPECT_TRUE(eventually([&] { return cm_isrunning(tap.id()) == 0; }));
    for (const int32_t none : {0, -1, INT32_MIN}) EXPECT_EQ(cm_isrunning(none), 0);
}

TEST(Spawn, OneThreadWaitsAnotherKills) {
    Line here;
    cm_value process = 0;
    ASSERT_EQ(cm_spawn(nullptr, child("hold " + here.port()).c_str(), nullptr, &process), 1);
    here.await_child();
    int32_t told = 0;
    std::thread waiter([&] {
        EXPECT_EQ(cm_waitforobject(process, -1), 1);
        if (cm_exitcode(process, nullptr) == 1) told++;
    });
    EXPECT_EQ(cm_kill(process), 1);
    waiter.join();
    EXPECT_EQ(told, 1);
}

TEST(Spawn, EveryFailureIsCleanedUp) {
    cm_value process = 0;
    ASSERT_EQ(cm_spawn(nullptr, child("exit 0").c_str(), nullptr, &process), 1);  // makes what is made once
    ASSERT_EQ(cm_waitforobject(process, kPatienceMs), 1);
    ASSERT_EQ(cm_exitcode(process, nullptr), 1);
    for (int k = 1;; k++) {
        ASSERT_LT(k, 100);
        const LeakCheck leaks;
        bool injected = false;
        captured_standard_error([&] {
            const Faults faults(Faults::kBoth & ~Faults::kSockets, k);
            if (cm_spawn(nullptr, child("exit 4").c_str(), nullptr, &process) == 1) {
                EXPECT_EQ(cm_waitforobject(process, kPatienceMs), 1);
                EXPECT_EQ(cm_exitcode(process, nullptr), 1);
            } else {
                EXPECT_EQ(process, 0u);
                EXPECT_GT(faults.injected(), 0);
            }
            injected = faults.injected() > 0;
        });
        EXPECT_EQ(leaks.outstanding(), 0u) << k;
        if (!injected) break;
    }
}

TEST(WaitForObject, ADescriptorThatBecomesReadable) {
    if (kFoldsPathCase) GTEST_SKIP() << "a socket is no object to wait for there";
    cm::platform::Wake wake;
    ASSERT_EQ(os.wake_create(&wake), 0);
    const auto object = static_cast<cm_value>(wake.read_end);
    EXPECT_EQ(cm_waitforobject(object, 0), 0);
    os.wake_set(&wake);
    EXPECT_EQ(cm_waitforobject(object, -1), 1);
    os.wake_destroy(&wake);
    EXPECT_EQ(cm_waitforobject(object, -1), 0);
    EXPECT_EQ(cm_waitforobject(0, -1), 0);
}

// ---- services -------------------------------------------------------------------------------------------------------

// A system whose files are the ones named and whose commands end with a code of ours.
struct System {
    std::vector<string> files;
    int32_t code = 0;
    std::vector<string> commands;
};
System *machine = nullptr;

TEST(Services, AsTheInitSystemTells) {
    EXPECT_EQ(cm_issvcinstalled("no-such-service-anywhere"), 0);
    EXPECT_EQ(cm_issvcrunning("no-such-service-anywhere"), 0);
    EXPECT_EQ(cm_issvcinstalled(nullptr), 0);
    EXPECT_EQ(cm_issvcrunning(nullptr), 0);
    if (kFoldsPathCase) {
        EXPECT_EQ(cm_issvcinstalled("RpcSs"), 1);
        return;
    }
    const string systemd = "/run/systemd/system", unit = "/usr/lib/systemd/system/demo.service",
                 script = "/etc/init.d/demo";
    const struct {
        const char *name;
        System system;
        int16_t installed, running;
        string command;
    } table[] = {
        {"demo", {{}, 0, {}}, 0, 0, ""},
        {"demo", {{unit}, 0, {}}, 0, 0, ""},  // nobody there who would start it
        {"demo", {{systemd, unit}, 0, {}}, 1, 1, "systemctl --quiet is-active demo.service"},
        {"demo", {{systemd, unit}, 3, {}}, 1, 0, "systemctl --quiet is-active demo.service"},
        {"demo", {{script}, 0, {}}, 1, 1, "/etc/init.d/demo status"},
        {"demo", {{script}, 1, {}}, 1, 0, "/etc/init.d/demo status"},
        {"demo", {{systemd, script}, 0, {}}, 1, 1, "systemctl --quiet is-active demo.service"},
        {"../init.d/demo", {{systemd, script, "/etc/init.d/../init.d/demo"}, 0, {}}, 0, 0, ""},
        {"demo status", {{systemd, "/etc/init.d/demo status"}, 0, {}}, 0, 0, ""},
        {"-demo", {{systemd, "/etc/init.d/-demo"}, 0, {}}, 0, 0, ""},
        {"", {{systemd, "/etc/init.d/"}, 0, {}}, 0, 0, ""},
    };
    for (const auto &row : table) {
        System now = row.system;
        machine = &now;
        const cm::platform::Table saved = os;
        os.path_status = [](const char *path, bool, cm::platform::FileStatus *) -> cm::platform::Error {
            return std::count(machine->files.begin(), machine->files.end(), path) > 0 ? 0 : 2;
        };
        os.process_start = [](const char *command, const char *, const int32_t *standard, Process **out) {
            machine->commands.push_back(command);
            const string instead = child("exit " + std::to_string(machine->code));
            return cm::platform::kSystem.process_start(instead.c_str(), nullptr, standard, out);
        };
        EXPECT_EQ(cm_issvcinstalled(row.name), row.installed) << row.name;
        EXPECT_EQ(now.commands.size(), 0u);
        EXPECT_EQ(cm_issvcrunning(row.name), row.running) << row.name;
        os = saved;
        EXPECT_EQ(now.commands, row.command.empty() ? std::vector<string>{} : std::vector<string>{row.command});
    }
}

}  // namespace
