// Against a real time server, where one is installed: chronyd on a port of its own, with its own clock as reference and
// without the right to set it.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>

#include "sntp/wire.h"

using namespace cm::test;
using std::string;

namespace {

constexpr char kProgram[] = "/usr/sbin/chronyd";

class Chrony {
public:
    explicit Chrony(int32_t port) {
        const string config = "port " + std::to_string(port) +
                              "\nbindaddress 127.0.0.1\nallow 127.0.0.0/8\ncmdport 0\nlocal stratum 8\npidfile " +
                              folder_.path("chronyd.pid") + "\nbindcmdaddress /\ndriftfile " + folder_.path("drift") +
                              "\n";
        const string command = string(kProgram) + " -d -x -u root -f " + folder_.write("chrony.conf", config);
        int32_t streams[3] = {-1, -1, -1};
        constexpr int32_t kFlags = CM_O_WRONLY | CM_O_CREAT | CM_O_APPEND;
        os.file_open(folder_.path("log").c_str(), kFlags, &streams[2]);
        streams[1] = streams[2];
        EXPECT_EQ(os.process_start(command.c_str(), nullptr, streams, &process_), 0);
        os.file_close(streams[2]);
    }
    ~Chrony() {
        int32_t code = 0;
        os.process_kill(process_);
        os.process_wait(process_, 20000, &code);
        os.process_release(process_);
    }
    Chrony(const Chrony &) = delete;
    Chrony &operator=(const Chrony &) = delete;

    string log() const { return folder_.read("log"); }

private:
    TempFolder folder_;
    cm::platform::Process *process_ = nullptr;
};

bool answers(int32_t port) {
    const TestSocket probe;
    uint32_t address = 0;
    for (int round = 0; round < 200; round++) {
        probe.send(address_of("127.0.0.1"), port, '\x0B' + string(47, '\0'));
        int32_t from = 0;
        if (probe.receive(&address, &from, 50).size() >= 48) return true;
    }
    return false;
}

TEST(Chrony, SetsTheClockToWhatItIs) {
    cm::platform::FileStatus status;
    if (os.path_status(kProgram, true, &status) != 0) GTEST_SKIP() << "no chronyd here";
    int32_t port = 0;
    {
        const TestSocket free;
        port = free.port();
    }
    const Net net;
    const Chrony chrony(port);
    ASSERT_TRUE(answers(port)) << chrony.log();
    const Redirect redirect(123, port);
    static int64_t set_to = 0, calls = 0;
    const auto saved = os.set_wall_clock;
    os.set_wall_clock = [](const cm_tm *utc, int32_t) -> cm::platform::Error {
        set_to = cm_tm2sec(utc);
        calls++;
        return 0;
    };
    char message[1024];
    EXPECT_EQ(cm_ntp_sync(net.lib, net.state, "127.0.0.1", message), 1) << message << chrony.log();
    os.set_wall_clock = saved;
    EXPECT_EQ(calls, 1);
    cm::platform::WallTime now;
    ASSERT_TRUE(os.wall_clock(&now));
    EXPECT_LE(std::llabs(set_to - now.seconds), 2);
}

}  // namespace
