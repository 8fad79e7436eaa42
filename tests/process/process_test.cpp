// Real child processes: what becomes of them, and handles that outlive them.
#include <gtest/gtest.h>

#include <thread>

#include "network/net.h"

using namespace cm::test;
using cm::platform::kFoldsPathCase;
using cm::platform::Process;
using std::string;

namespace {

string child(const string &words) {
    return "\"" + child_program() + "\" " + words;
}

// Sees each start, and puts a file in place of the null device that a child writes to.
class Tap {
public:
    Strings output(int start = 0) const { return lines_of(folder_.read("out" + std::to_string(start))); }
    int starts() const { return starts_; }
    int32_t id() const { return id_; }  // of the last one

private:
    TempFolder folder_;
    std::atomic<int> starts_{0};
    std::atomic<int32_t> id_{-1};
    const Replace<&Table::process_start> start_{
        [this](const char *command, const char *directory, const int32_t standard[3], Process **out) {
            for (int i = 0; i < 3; i++) EXPECT_EQ(standard[i], -1) << "a stream of this process reaches the child";
            int32_t given[3] = {-1, -1, -1};
            const string file = folder_.path("out" + std::to_string(starts_++));
            EXPECT_EQ(os.file_open(file.c_str(), CM_O_WRONLY | CM_O_CREAT | CM_O_TRUNC, &given[1]), 0);
            const auto error = start_.real(command, directory, given, out);
            os.file_close(given[1]);
            if (error == 0) id_ = os.process_id(*out);
            return error;
        }};
};

// "hold" and "nest" children connect to it: while the connection stands they run, and when it ends they have ended.
struct Witness {
    string command(const char *verb) const { return child(string(verb) + " " + std::to_string(listener->peer_port)); }
    void await_child() { conn = net.accept(listener); }
    bool child_ends() { return net.receive(conn) == ""; }

    Net net;
    cm_conn *listener = net.listen(), *conn = nullptr;
};

TEST(Exec, GivesWordsFolderDescriptorsAndSignalsAndTellsTheCode) {
    const Tap tap;
    const TempFolder folder;
    int32_t code = -1;
    EXPECT_EQ(cm_exec(nullptr, child("exit 7").c_str(), nullptr, 20, &code), 1);
    EXPECT_EQ(code, 7);
    EXPECT_EQ(cm_exec(nullptr, child("print \"a b\" c\\\"d ; $(exit)").c_str(), nullptr, 0, &code), 1);
    EXPECT_EQ(code, 0);
    EXPECT_EQ(tap.output(1), (Strings{"[a b]", "[c\"d]", "[;]", "[$(exit)]"}));
    EXPECT_EQ(cm_exec(nullptr, child("folder").c_str(), folder.path().c_str(), 20, nullptr), 1);
    EXPECT_EQ(tap.output(2), Strings{folder.path()});
    const string masked = "env --block-signal=USR1 --ignore-signal=PIPE " + child_program() + " start ";
    if (!kFoldsPathCase) {  // there are no signals there
        EXPECT_EQ(cm_exec(nullptr, (masked + child("signals")).c_str(), nullptr, 20, nullptr), 1);
        EXPECT_EQ(tap.output(3), Strings{"default"});
    }
    const int first = tap.starts();
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; i++)
        threads.emplace_back([] {
            cm_socket socket = cm::platform::kNoSocket;
            for (int round = 0; round < 4; round++) {
                EXPECT_EQ(os.socket_open(cm::platform::SocketKind::kStream, &socket), 0);
                EXPECT_EQ(cm_exec(nullptr, child("descriptors").c_str(), nullptr, 20, nullptr), 1);
                os.socket_close(socket);
            }
        });
    for (std::thread &thread : threads) thread.join();
    for (int i = first; i < tap.starts(); i++) EXPECT_EQ(tap.output(i), Strings{"3"});
}

TEST(Exec, ATimeOutKillsGrandchildrenToo) {
    Witness witness;
    const Tap tap;
    const string command = witness.command("nest");
    int32_t code = -1;
    {
        const Replace<&Table::process_wait> wait{[&](Process *process, int32_t timeout_ms, int32_t *out_code) {
            if (timeout_ms != 2000) return wait.real(process, timeout_ms, out_code);
            witness.await_child();  // and time is up
            return false;
        }};
        EXPECT_EQ(cm_exec(witness.net.lib, command.c_str(), nullptr, 2, &code), 0);
    }
    EXPECT_EQ(code, 0);
    EXPECT_TRUE(witness.child_ends());
    EXPECT_TRUE(witness.net.lib.logged("ERROR: cm_exec() Process timeout: " + command));
    EXPECT_NE(os.path_access(("/proc/" + std::to_string(tap.id())).c_str(), CM_ACCESS_EXISTS), 0) << "a zombie";
}

TEST(Exec, WhatCannotBeStartedIsLogged) {
    const Library lib;
    cm_value process = 1;
    EXPECT_EQ(cm_exec(lib, "no-such-program -x", nullptr, 5, nullptr), 0);
    EXPECT_EQ(cm_spawn(lib, "no-such-program -y", nullptr, &process), 0);
    EXPECT_EQ(process, 0u);
    EXPECT_EQ(cm_spawn(lib, nullptr, nullptr, nullptr), 0);
    EXPECT_TRUE(lib.logged("ERROR: cm_exec() Unable to start: no-such-program -x [2]"));
    EXPECT_TRUE(lib.logged("ERROR: cm_spawn() Unable to start: no-such-program -y [2]"));
}

TEST(Exec, AThreadThatIsAskedToEndTakesItsChildAlong) {
    Witness witness;
    static string command;
    command = witness.command("hold");
    cm_thread *thread = nullptr;
    const auto run = [](cm_thread *self, cm_value) { return cm_exec(self->ctx, command.c_str(), nullptr, 0, nullptr); };
    ASSERT_EQ(cm_create_thread(witness.net.lib, run, 0, "exec", &thread), 1);
    witness.await_child();
    EXPECT_EQ(cm_terminate_thread(thread), 1);
    EXPECT_TRUE(witness.child_ends());
    EXPECT_FALSE(witness.net.lib.logged_text("timeout"));
}

TEST(Spawn, AHandleFromStartToEnd) {
    Witness witness;
    const Tap tap;
    cm_value first = 0, second = 0;
    int32_t code = -1;
    ASSERT_EQ(cm_spawn(nullptr, witness.command("nest").c_str(), nullptr, &first), 1);
    witness.await_child();
    EXPECT_EQ(cm_exitcode(first, &code), 0);
    EXPECT_EQ(cm_waitforobject(first, 0), 0);
    EXPECT_EQ(cm_isrunning(tap.id()), 1);
    std::thread waiter([&] { EXPECT_EQ(cm_waitforobject(first, -1), 1); });
    EXPECT_EQ(cm_kill(first), 1);
    waiter.join();
    EXPECT_TRUE(witness.child_ends());
    EXPECT_EQ(cm_isrunning(tap.id()), 0);  // though its number is still taken
    EXPECT_EQ(cm_exitcode(first, &code), 1);
    EXPECT_EQ(code, kFoldsPathCase ? 1 : 128 + 9);
    ASSERT_EQ(cm_spawn(nullptr, witness.command("hold").c_str(), nullptr, nullptr), 1);
    witness.await_child();
    EXPECT_EQ(cm_killid(tap.id()), 1);
    EXPECT_TRUE(witness.child_ends());
    EXPECT_TRUE(eventually([&] { return cm_isrunning(tap.id()) == 0; }));
    ASSERT_EQ(cm_spawn(nullptr, child("exit 9").c_str(), nullptr, &second), 1);
    EXPECT_NE(first, second);
    EXPECT_EQ(cm_waitforobject(second, -1), 1);
    EXPECT_EQ(cm_exitcode(second, nullptr), 1);
    for (const cm_value dead : {cm_value{0}, first, second, ~cm_value{0}})
        EXPECT_EQ(cm_kill(dead) + cm_exitcode(dead, &code) + cm_waitforobject(dead, -1), 0);
    for (const int32_t none : {0, -1, INT32_MIN}) EXPECT_EQ(cm_isrunning(none) + cm_killid(none), 0);
    int16_t started = 0;
    each_failure(
        Faults::kAllocations | Faults::kProcesses | Faults::kLocks,
        [&] {
            started = cm_spawn(witness.net.lib, child("exit 4").c_str(), nullptr, &first);
            EXPECT_EQ(started == 0, first == 0);
            EXPECT_TRUE(started == 0 || (cm_waitforobject(first, -1) == 1 && cm_exitcode(first, nullptr) == 1));
        },
        [&](bool injected, size_t leaked) {
            EXPECT_TRUE(injected || started == 1);
            EXPECT_EQ(leaked, 0u);
        });
}

TEST(WaitForObject, ADescriptorThatBecomesReadable) {
    if (kFoldsPathCase) GTEST_SKIP() << "a socket is no object to wait for there";
    Udp sender, receiver;
    const auto object = static_cast<cm_value>(receiver.socket());
    EXPECT_EQ(cm_waitforobject(object, 0), 0);
    sender.send("x", receiver.port());
    EXPECT_EQ(cm_waitforobject(object, -1), 1);
    EXPECT_EQ(cm_waitforobject(1 << 20, -1), 0);  // no descriptor
}

TEST(Services, AsTheInitSystemTells) {
    EXPECT_EQ(cm_issvcinstalled("no-such-service") + cm_issvcrunning("no-such-service"), 0);
    EXPECT_EQ(cm_issvcinstalled(nullptr) + cm_issvcrunning(nullptr), 0);
    if (kFoldsPathCase) {
        EXPECT_EQ(cm_issvcinstalled("RpcSs"), 1);
        return;
    }
    for (const Row &row : rows("process/services")) {
        SCOPED_TRACE(row.where);
        string command;
        const Replace<&Table::path_status> status{[&](const char *path, bool, cm::platform::FileStatus *) {
            return (" " + row[1] + " ").find(string(" ") + path + " ") == string::npos ? Faults::kInputOutput : 0;
        }};
        const Replace<&Table::process_start> start{
            [&](const char *words, const char *, const int32_t *standard, Process **out) {
                command = words;
                return start.real(child("exit " + row[2]).c_str(), nullptr, standard, out);
            }};
        EXPECT_EQ(cm_issvcinstalled(row.text(0)), row.number(3));
        EXPECT_EQ(cm_issvcrunning(row.text(0)), row.number(4));
        EXPECT_EQ(command, row[5]);
    }
}

}  // namespace
