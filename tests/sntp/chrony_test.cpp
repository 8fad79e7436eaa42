// Against a real time server, where one is installed: chronyd on a port of its own, with its own clock as reference and
// without the right to set it.
#include <gtest/gtest.h>

#include <cstdlib>

#include "sntp/redirect.h"

using namespace cm::test;
using std::string;

namespace {

constexpr char kProgram[] = "/usr/sbin/chronyd";

TEST(Chrony, SetsTheClockToWhatItIs) {
    if (cm::platform::kFoldsPathCase || os.path_access(kProgram, CM_ACCESS_EXISTS) != 0) GTEST_SKIP() << "no chronyd";
    const Net net;
    Udp probe, free;
    const int32_t port = free.port();
    free.close();
    const TempFolder folder;
    const string config = "port " + std::to_string(port) + "\nbindaddress 127.0.0.1\nallow 127.0.0.0/8\ncmdport 0\n" +
                          "local stratum 8\npidfile " + folder.path("pid") + "\nbindcmdaddress /\n";
    const int32_t nothing[3] = {-1, -1, -1};
    cm::platform::Process *chrony = nullptr;
    const string command = string(kProgram) + " -d -x -u root -f " + folder.write("chrony.conf", config);
    ASSERT_EQ(os.process_start(command.c_str(), nullptr, nothing, &chrony), 0);
    EXPECT_TRUE(eventually([&] {
        probe.send('\x0B' + string(47, '\0'), port);
        return probe.readable(50);
    }));
    Redirect redirect{port};
    std::vector<int64_t> set;
    const Replace<&Table::set_wall_clock> setter{[&](const cm_tm *utc, int32_t) {
        set.push_back(cm_tm2sec(utc));
        return 0;
    }};
    char message[1024];
    EXPECT_EQ(cm_ntp_sync(net.lib, net.state, "127.0.0.1", message), 1) << message;
    os.process_kill(chrony);
    os.process_wait(chrony, 20000, nullptr);
    os.process_release(chrony);
    cm::platform::WallTime now;
    ASSERT_TRUE(os.wall_clock(&now));
    ASSERT_EQ(set.size(), 1u);
    EXPECT_LE(std::llabs(set[0] - now.seconds), 1);
}

}  // namespace
