// Commands of the schedule as processes: their streams, their names, their end.
#include "scheduler.h"
#include "support/failures.h"
#include "support/replace.h"
#include "support/sockets.h"

using namespace cm::test;
using cm::platform::Process;
using cm::platform::Table;
using std::string;

namespace {

struct Commands : testing::Test {
    LeakCheck leaks;
    Library library{"Trace Level = INFO\nTmp Directory = tmp"};
    TempFolder &folder = library.folder();

    void SetUp() override {
        folder.make_folder("tmp");
        scheduler_by_hand(library.ctx());
    }
    void TearDown() override {
        library.stop();
        EXPECT_EQ(children(), "");
        EXPECT_EQ(leaks.outstanding(), 0u);
    }
    int16_t run(const string &command) {
        return cm__cron_usertask(library, "task", reinterpret_cast<cm_value>(command.c_str()));
    }
};

// The connection of a child, and whether the child has gone.
cm_socket accepted(const BareSocket &listener) {
    cm_socket peer = cm::platform::kNoSocket;
    uint32_t address = 0;
    int32_t port = 0;
    EXPECT_TRUE(listener.readable(20000) && os.socket_accept(listener.socket(), &peer, &address, &port) == 0);
    return peer;
}
bool has_gone(cm_socket peer) {
    char byte;
    size_t got = 0;
    os.socket_receive(peer, &byte, 1, false, &got);  // until the connection ends
    os.socket_close(peer);
    return got == 0;
}

TEST_F(Commands, ATimeOutEndsTheWholeGroup) {
    const BareSocket listener;
    os.socket_listen(listener.socket(), 5);
    const string command = kChild + "nest " + std::to_string(listener.port());
    library.ctx()->sched_task_timeout = 1;
    const Replace<&Table::process_wait> once_it_runs([&](Process *process, int32_t timeout, int32_t *code) {
        return listener.readable(20000) && once_it_runs.real(process, timeout == 1000 ? 1 : timeout, code);
    });
    EXPECT_EQ(run(command), 0);
    EXPECT_TRUE(has_gone(accepted(listener)));  // the grandchild
    EXPECT_EQ(library.log().back(), "ERROR: CRON process timeout: " + command);
    EXPECT_EQ(folder.names("tmp"), Strings{});
}

TEST(Running, CommandsEndWithTheLibrary) {
    LeakCheck leaks;
    {
        const BareSocket listener;
        os.socket_listen(listener.socket(), 5);
        const string port = std::to_string(listener.port());
        Library library("", [&](TempFolder &folder) {
            folder.write("config/schedule.ini",
                         "[startup]\na = " + kChild + "nest " + port + " &\nb = " + kChild + "hold " + port + "\n");
        });
        const cm_socket one = accepted(listener), other = accepted(listener);
        EXPECT_EQ(cm_cron_stop(library), 1);  // waits for neither
        library.stop();
        EXPECT_TRUE(has_gone(one) && has_gone(other));
        EXPECT_FALSE(library.logged_text("ERROR: CRON"));
    }
    EXPECT_EQ(children(), "");
    EXPECT_EQ(leaks.outstanding(), 0u);
}

TEST_F(Commands, NamesThatAreTakenAreNotTouched) {
    uint64_t draw = 0, step = 0;  // number 1 each time
    const Replace<&Table::random_bytes> numbers([&](void *out, size_t) {
        memcpy(out, &draw, sizeof draw);
        draw += step;
        return true;
    });
    for (const string stream : {"iSTDIN", "oSTDOUT", "eSTDERR"})
        for (const bool link : {false, true}) {
            const string name = "tmp/Ctask" + stream.substr(0, 1) + "-1.txt";
            std::error_code unable;
            folder.write(link ? "victim" : name, "trap");
            if (link) std::filesystem::create_symlink(folder.path("victim"), folder.path(name), unable);
            if (unable) continue;  // no such links here
            char path[1024];
            cm_build_path(library, library.ctx()->tmp_dir, name.c_str() + 4, path, sizeof path, nullptr);
            draw = step = 0;
            EXPECT_EQ(run(kChild + "error x"), 0);
            EXPECT_EQ(library.log().back(),
                      "ERROR: cm__cron_usertask(" + stream.substr(1) + "): File open of '" + path + "' failed.");
            step = 1;
            EXPECT_EQ(run(kChild + "error x"), 1);  // the second draw is free
            EXPECT_EQ(folder.read(name), "trap");
            EXPECT_EQ(folder.names("tmp"), Strings{name.substr(4)});
            folder.remove(name);
        }
    draw = step = 0;
    const Replace<&Table::process_wait> swapped([&](Process *process, int32_t timeout, int32_t *code) {
        const bool ended = cm::platform::kSystem.process_wait(process, timeout, code);
        folder.write("tmp/other", "secret");
        return os.path_rename(folder.path("tmp/other").c_str(), folder.path("tmp/Ctaske-1.txt").c_str()) == 0 && ended;
    });
    EXPECT_EQ(run(kChild + "error x"), 1);
    EXPECT_FALSE(library.logged_text("secret"));
}

TEST_F(Commands, EveryFailure) {
    int16_t result = 0;
    each_failure(
        Faults::kAllocations | Faults::kFiles | Faults::kEnvironment | Faults::kProcesses,
        [&] { result = run(kChild + "error oops"); },
        [&](bool failed) {
            EXPECT_TRUE(failed || (result == 1 && folder.names("tmp").empty()));
            for (const string &name : folder.names("tmp")) folder.remove("tmp/" + name);
        });
}

}  // namespace
