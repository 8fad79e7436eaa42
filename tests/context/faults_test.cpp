// Start and stop with every allocation and every system call failing once, and from then on: nothing crashes, nothing
// leaks, and the next start is a clean one.
#include <string>

#include "core/cmblocks.h"
#include "support/failures.h"

using namespace cm::test;
using std::string;

namespace {

class FaultyStart : public testing::Test {
protected:
    void configure(const string &common) { folder_.write("config/config.ini", "[common]\n" + common); }

    // A start that may fail, and the stop when it did not.
    bool start_and_stop(const char *config_dir = "config") {
        cm_context *ctx = reinterpret_cast<cm_context *>(1), *global = nullptr;
        const bool started = cm_ctx_init(&ctx, config_dir, "server.log", 1, nullptr) == 1;
        EXPECT_EQ(ctx != nullptr, started);
        EXPECT_EQ(cm_ctx_exit(ctx), started);
        EXPECT_EQ(cm_ctx_global(&global), 0);
        return started;
    }

    void fail_each(uint32_t groups, Faults::Mode mode, cm::platform::Error error = Faults::kInputOutput) {
        each_failure(
            groups, [&] { seen_ += captured_standard_error([&] { start_and_stop(); }); },
            [&](bool, size_t leaked) {
                seen_ += folder_.read("log/server.log");
                ASSERT_EQ(leaked, 0u) << "groups " << groups;
                captured_standard_error([&] { EXPECT_TRUE(start_and_stop()) << "after a failure"; });
            },
            mode, error);
    }

    TempFolder folder_;
    Environment environment_{{{"TVHOME", folder_.path()}, {"TEMP", "tmp"}, {"TMP", ""}}};
    string seen_;  // on the standard error stream and in the log
};

TEST_F(FaultyStart, EveryAllocation) {
    configure("DNS Primary = 1.2.3.4\nCookie Tag = x\n");
    fail_each(Faults::kAllocations, Faults::kOnce);
    fail_each(Faults::kAllocations, Faults::kFromThenOn);
    for (const string line :
         {"MALLOC(75192 bytes) failed on Common initialization.", "cm_mem_init(1024) failed on Common initialization.",
          "cm_mem_init(256) failed on threads initialization.", "Failure initializing DNS interface..."})
        EXPECT_NE(seen_.find("Tilvar Server Error: " + line + "\n"), string::npos) << line;
}

// What is small needs memory of its own only when the texts before it fill the pool's block to its end.
TEST_F(FaultyStart, FullBlocks) {
    const string root_failed = "Tilvar Server Error: cm_mem_savestr(" + folder_.path() + ") failed!\n";
    const string cipher_failed = "FATAL: cm_twowayinit() failed!\n";
    bool root_seen = false, cipher_seen = false;
    for (size_t filling = 0; filling < 5000 && !(root_seen && cipher_seen); filling += 64) {
        string tags;
        for (size_t filled = 0; filled < filling; filled += 32) tags += "Cookie Tag = x\n";
        configure(tags);
        const string config_dir = "config" + string(filling % 1100, '/');
        for (int64_t k = 1;; k++) {
            cm::blocks::trim();
            const Faults faults(Faults::kAllocations, k);
            const string shown = captured_standard_error([&] { start_and_stop(config_dir.c_str()); });
            root_seen |= shown.ends_with(root_failed);
            cipher_seen |= folder_.read("log/server.log").ends_with(cipher_failed);
            if (faults.injected() == 0) break;
        }
    }
    EXPECT_TRUE(root_seen);
    EXPECT_TRUE(cipher_seen);
}

TEST_F(FaultyStart, EverySystemCall) {
    configure("DNS Primary = 1.2.3.4\n");
    fail_each(Faults::kSystem, Faults::kOnce);
    fail_each(Faults::kSystem, Faults::kFromThenOn);
    fail_each(Faults::kFiles, Faults::kFromThenOn, Faults::kNoSpace);
}

TEST_F(FaultyStart, EverythingWithoutAConfiguration) {
    fail_each(Faults::kBoth, Faults::kOnce);
    fail_each(Faults::kBoth, Faults::kFromThenOn, CM_EACCES);
}

}  // namespace
