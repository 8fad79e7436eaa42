// Against a real time server, where one is installed: chronyd on a port of its own, with its own clock as reference and
// without the right to set it.
#include <gtest/gtest.h>

#include <cstdlib>

#include "sntp/redirect.h"

using namespace cm::test;
using std::string;

namespace {

constexpr char kProgram[] = "/usr/sbin/chronyd";

class Chrony {
public:
    explicit Chrony(const string &port) {
        const string config = folder_.write(
            "chrony.conf", "port " + port + "\nbindaddress 127.0.0.1\nallow 127.0.0.0/8\ncmdport 0\nlocal stratum 8\n" +
                               "pidfile " + folder_.path("pid") + "\nbindcmdaddress /\n");
        int32_t streams[3] = {-1, -1, -1};
        os.file_open(folder_.path("log").c_str(), CM_O_WRONLY | CM_O_CREAT | CM_O_APPEND, &streams[2]);
        EXPECT_EQ(
            os.process_start((string(kProgram) + " -d -x -u root -f " + config).c_str(), nullptr, streams, &child_), 0);
        os.file_close(streams[2]);
    }
    ~Chrony() {
        int32_t code = 0;
        os.process_kill(child_);
        os.process_wait(child_, 20000, &code);
        os.process_release(child_);
    }
    Chrony(const Chrony &) = delete;
    Chrony &operator=(const Chrony &) = delete;

    string log() const { return folder_.read("log"); }

private:
    TempFolder folder_;
    cm::platform::Process *child_ = nullptr;
};

TEST(Chrony, SetsTheClockToWhatItIs) {
    if (cm::platform::kFoldsPathCase || os.path_access(kProgram, CM_ACCESS_EXISTS) != 0) GTEST_SKIP() << "no chronyd";
    const Net net;
    Udp probe, free;
    const int32_t port = free.port();
    free.close();
    const Chrony chrony(std::to_string(port));
    ASSERT_TRUE(eventually([&] {
        probe.send('\x0B' + string(47, '\0'), port);
        return probe.readable(50);
    })) << chrony.log();
    const Redirect redirect{123, port};
    std::vector<int64_t> set;
    const Replace<&Table::set_wall_clock> setter{[&](const cm_tm *utc, int32_t) {
        set.push_back(cm_tm2sec(utc));
        return 0;
    }};
    char message[1024];
    EXPECT_EQ(cm_ntp_sync(net.lib, net.state, "127.0.0.1", message), 1) << message << chrony.log();
    cm::platform::WallTime now;
    ASSERT_TRUE(os.wall_clock(&now));
    ASSERT_EQ(set.size(), 1u);
    EXPECT_LE(std::llabs(set[0] - now.seconds), 1);
}

}  // namespace
