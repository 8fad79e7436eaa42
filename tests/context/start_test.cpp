// Start and stop of the library as a host sees them.
#include <csignal>
#include <cstring>
#include <map>
#include <optional>
#include <string>

#include "core/cmcontext.h"
#include "support/data.h"
#include "support/replace.h"
#include "support/support.h"

using namespace cm::test;
using cm::platform::os;
using cm::platform::Table;
using std::string;

namespace {

// Starts in a folder without a configuration file unless one was written; temporary files go to "tmp" below it.
struct Host {
    TempFolder folder;
    std::optional<Environment> environment;
    cm_context *ctx = nullptr;
    int32_t already = -1;
    string shown;  // on the standard error stream

    Host() { set(folder.path(), "tmp", ""); }
    void set(const string &home, const string &temp, const string &tmp) {
        environment.reset();
        environment.emplace(std::map<string, string>{{"TVHOME", home}, {"TEMP", temp}, {"TMP", tmp}});
    }
    bool start(const char *log_name = "server.log", bool setup = false, const char *config_dir = nullptr) {
        bool started = false;
        shown =
            captured_standard_error([&] { started = cm_ctx_init(&ctx, config_dir, log_name, setup, &already) == 1; });
        return started;
    }
    void configure(const string &common) { folder.write("config/config.ini", "[common]\n" + common); }
    std::vector<string> log() { return log_lines(folder.path("log/server.log")); }
    string home_notice() { return "Tilvar Server: TVHOME environment variable set to: " + folder.path() + "\n"; }
};

bool is_started() {
    cm_context *untouched = nullptr;
    return cm_ctx_global(&untouched) == 1;
}

TEST(Start, LogsWhatItDidAndStopsCleanly) {
    Host host;
    host.configure("");
    LeakCheck leaks;
    ASSERT_TRUE(host.start());
    EXPECT_EQ(host.already, 0);
    EXPECT_EQ(host.shown, host.home_notice());
    EXPECT_EQ(host.ctx->root_dir, host.folder.path());
    EXPECT_EQ(host.ctx->root_len, int32_t(host.folder.path().size()));
    EXPECT_GT(host.ctx->start_time, 1.0e9);
    EXPECT_EQ(cm_ctx_exit(host.ctx), 1);
    EXPECT_FALSE(is_started());
    EXPECT_EQ(leaks.outstanding(), 0u);
    EXPECT_EQ(host.log(),
              (std::vector<string>{"INFO:  TVHOME environment variable is set to: " + host.folder.path(),
                                   "INFO:  Common library initalized...", "INFO:  Common library exited..."}));
}

TEST(Start, OneLogIsKept) {
    Host host;
    host.configure("");
    for (const char *line : {"first", "second", "third"}) {
        ASSERT_TRUE(host.start());
        cm_log(host.ctx, CM_INFO, line, CM_LEN_TEXT);
        cm_ctx_exit(host.ctx);
    }
    EXPECT_NE(host.folder.read("log/server.log").find("third"), string::npos);
    EXPECT_NE(host.folder.read("log/server.old").find("second"), string::npos);
    EXPECT_EQ(host.folder.names("log"), (std::vector<string>{"server.log", "server.old"}));
}

TEST(Start, SecondStartJoinsTheFirst) {
    Host host;
    host.configure("");
    cm_context *out = nullptr;
    EXPECT_EQ(cm_ctx_global(&out), 0);
    ASSERT_TRUE(host.start());
    cm_context *const first = host.ctx;
    host.ctx = nullptr;
    ASSERT_EQ(cm_ctx_init(&host.ctx, "elsewhere", nullptr, 1, &host.already), 1) << "its arguments are ignored";
    EXPECT_EQ(host.already, 1);
    EXPECT_EQ(host.ctx, first);
    EXPECT_EQ(cm_ctx_init(nullptr, nullptr, nullptr, 0, nullptr), 1);
    EXPECT_EQ(cm_ctx_exit(first), 1);
    EXPECT_EQ(cm_ctx_exit(first), 1);
    EXPECT_EQ(cm_ctx_global(&out), 1);
    EXPECT_EQ(out, first);
    EXPECT_EQ(cm_ctx_exit(first), 1);
    EXPECT_FALSE(is_started());
    EXPECT_EQ(cm_ctx_exit(first), 0);
    EXPECT_EQ(cm_ctx_exit(nullptr), 0);
}

TEST(Start, WithoutConfigurationEverythingGoesToTheTemporaryFolder) {
    Host host;
    ASSERT_TRUE(host.start("server.log", true));
    EXPECT_TRUE(host.ctx->flags & CTX_NO_CONFIG);
    EXPECT_EQ(host.shown, host.home_notice() + "Tilvar Server: Warning! No configuration file found: " +
                              host.folder.path("config/config.ini") + "\n");
    cm_ctx_exit(host.ctx);
    EXPECT_EQ(host.folder.names(), (std::vector<string>{"config", "tmp"})) << "one made, since this is a set-up";
    EXPECT_EQ(host.folder.names("tmp"), std::vector<string>{"server.log"});
}

TEST(Start, TemporaryFolderIsTempThenTmpThenTheLastResort) {
    Host host;
    const struct {
        const char *temp, *tmp, *taken;
    } rows[] = {{"one", "two", "one"}, {"", "two", "two"}, {"", "", cm::platform::kLastResortTemp}};
    for (const auto &row : rows) {
        host.set(host.folder.path(), row.temp, row.tmp);
        ASSERT_TRUE(host.start("tilvarcm-start-test.txt", true));
        EXPECT_STREQ(host.ctx->tmp_dir, row.taken);
        char log[1024];
        ASSERT_EQ(cm_build_path(host.ctx, host.ctx->log_dir, "tilvarcm-start-test.txt", log, sizeof log, nullptr), 1);
        cm_ctx_exit(host.ctx);
        EXPECT_EQ(os.path_remove(log), 0);
    }
}

TEST(Start, FoldersAreMadeAsFarAsTheSetUpSays) {
    for (const bool setup : {false, true}) {
        Host host;
        host.folder.write("etc/config.ini",
                          "[common]\nIdle Threads = 2\nLog Directory = logs\nTmp Directory = scratch\n"
                          "[other]\nIdle Threads = 0\n");
        ASSERT_TRUE(host.start("server.log", setup, "etc"));
        EXPECT_STREQ(host.ctx->config_dir, "etc");
        EXPECT_EQ(host.ctx->idle_threads, 3);
        cm_ctx_exit(host.ctx);
        EXPECT_TRUE(host.folder.exists("logs"));
        EXPECT_EQ(host.folder.exists("scratch"), setup);
    }
}

// The root is seen in the first path that start-up asks for; nothing is written.
TEST(Start, ProgramFolderIsStrippedFromTheRoot) {
    string asked;
    const Replace<&Table::path_access> access([&](const char *path, int32_t) {
        if (asked.empty()) asked = path;
        return CM_EACCES;
    });
    const Replace<&Table::directory_create> create([](const char *) { return CM_EACCES; });
    const Replace<&Table::file_open> open([](const char *, int32_t, int32_t *) { return CM_EACCES; });
    for (const Row &row : rows("context/roots")) {
        asked.clear();
        Environment environment({{"TVHOME", row[0]}, {"TEMP", "tmp"}});
        cm_context *ctx = nullptr;
        captured_standard_error([&] { EXPECT_EQ(cm_ctx_init(&ctx, "config", "x.log", 0, nullptr), 0); });
        EXPECT_EQ(asked, row[1] + "/config/config.ini") << row.where;
    }
}

TEST(Start, WorkingFolderIsTheRootWithoutTheVariable) {
    Host host;
    host.configure("");
    host.set("", "tmp", "");
    for (const string &working : {host.folder.path("bin"), string()}) {
        const Replace<&Table::working_directory> folder(
            [&](char *out, size_t size) { return cm_strncpy(out, working.c_str(), int32_t(size)) > 0; });
        EXPECT_EQ(host.start(), !working.empty());
        EXPECT_EQ(host.shown, working.empty() ? "Tilvar Server Error: TVHOME environment variable not set!\n\n" : "");
        if (working.empty()) break;
        EXPECT_EQ(host.ctx->root_dir, host.folder.path());
        cm_ctx_exit(host.ctx);
    }
}

TEST(Start, RefusalsSayWhy) {
    Host host;
    EXPECT_FALSE(host.start(nullptr));
    EXPECT_EQ(host.shown, "Tilvar Server Error: No logfile name was provided!\n");
    EXPECT_EQ(host.already, 0);
    EXPECT_EQ(host.ctx, nullptr);

    host.configure("Idle Threads = 4\nTrace Level = VERBOSE\n");
    EXPECT_FALSE(host.start());
    EXPECT_EQ(host.shown, host.home_notice() + "Tilvar Server Error: cm_props_load(Trace Level): Error processing '" +
                              host.folder.path("config/config.ini") + "' file (line 3)\n");

    host.configure("Log Directory = no/such/folder\n");
    EXPECT_FALSE(host.start());
    EXPECT_NE(host.shown.find("Tilvar Server Error: Unable to open the log file: server.log\n"), string::npos);

    host.configure("Resolve Host Names = yes\nUnheard Of = 1\n");
    EXPECT_TRUE(host.start());
    EXPECT_EQ(host.shown,
              host.home_notice() + "Tilvar Server Error: Unrecognized buffer configuration 'Unheard Of'\n\n");
    cm_ctx_exit(host.ctx);

    FrozenClock clock;
    clock.fail(true);
    EXPECT_FALSE(host.start());
    EXPECT_FALSE(is_started());
    EXPECT_NE(host.folder.read("log/server.log").find("FATAL: Startup failure: Check system clock.\n"), string::npos);
}

TEST(Start, ResolverServersAreCheckedAndFilesMade) {
    Host host;
    host.configure("DNS Primary = 1.2.3.4\nDNS Secondary = nowhere\nDNS Hosts File = names\n");
    ASSERT_TRUE(host.start());
    EXPECT_EQ(host.ctx->dns->primary, 0u) << "the secondary takes the primary's place, invalid or not";
    EXPECT_EQ(host.folder.read("config/names"), "# hosts\n");
    EXPECT_EQ(host.folder.read("config/mxhosts"), "# mxhosts\n");
    EXPECT_EQ(host.folder.path("config/names"), host.ctx->dns->hosts_path);
    cm_ctx_exit(host.ctx);
    EXPECT_EQ(host.log()[1], "WARN:  DNS Secondary Server is not a valid IP address: nowhere");

    host.configure("DNS Primary = 1.2.3\nDNS Secondary = 4.3.2.1\n");
    host.folder.write("config/hosts", "mine\n");
    ASSERT_TRUE(host.start());
    EXPECT_EQ(memcmp(&host.ctx->dns->primary, "\4\3\2\1", 4), 0);
    EXPECT_EQ(host.ctx->dns->alternate, 0u);
    EXPECT_EQ(host.folder.read("config/hosts"), "mine\n");
    cm_ctx_exit(host.ctx);
    EXPECT_EQ(host.log()[1], "WARN:  DNS Primary Server is not a valid IP address: 1.2.3");
}

// ---- counters and the abort handler ---------------------------------------------------------------------------------

TEST(Counters, CountByHourMinuteAndNumber) {
    FrozenClock clock(86400 * 365 + 13 * 3600 + 7 * 60 + 59);
    clock.set_zone(0);
    Library library;
    ASSERT_TRUE(library.ok());
    auto &perf = library.ctx()->perf;
    const auto count = [&](int32_t number, uint32_t amount) { return cm_perf(library, number, amount); };
    EXPECT_EQ(count(1, 40) + count(1, 2), 2);
    clock.advance(1);
    EXPECT_EQ(count(12, 5) + count(13, 6), 2) << "the second spills into the next minute";
    EXPECT_EQ(perf[13][7][1], 42u);
    EXPECT_EQ(perf[13][8][12], 5u);
    EXPECT_EQ(perf[13][9][0], 6u);
    EXPECT_EQ(count(INT32_MAX, 1) + count(INT32_MIN, 1) + cm_perf(nullptr, 0, 1), 0);
    clock.advance(60);
    clock.fail(true);
    EXPECT_EQ(count(0, 1), 0);
    clock.fail(false);
    clock.set(86400 * 365 + 86399);  // the last minute of the day does not leave the table
    EXPECT_EQ(count(12, 1), 1);
    EXPECT_EQ(perf[23][59][12], 1u);
    EXPECT_EQ(count(13, 1), 0);
    library.ctx()->flags &= ~uint32_t{CTX_TRACE_PERF};
    EXPECT_EQ(count(0, 1), 0);
    EXPECT_EQ(perf[23][59][0], 0u);
    memset(perf, 1, sizeof perf);
    EXPECT_EQ(cm__perf(library, "Performance Monitor", 0), 1);  // clears the coming hour
    EXPECT_EQ(perf[0][0][0] + perf[0][59][12], 0u);
    EXPECT_EQ(perf[1][0][0], 0x01010101u);
    EXPECT_EQ(perf[23][59][12], 0x01010101u);
}

// Where the system keeps one byte of a status, it is 255.
bool is_minus_one(int status) {
    return testing::ExitedWithCode(255)(status) || testing::ExitedWithCode(-1)(status);
}

TEST(AbortDeathTest, AbortEndsTheProcessWithMinusOne) {
    EXPECT_EXIT(cm__abort(SIGABRT), is_minus_one, "");
    EXPECT_EXIT(
        {
            Library library;
            std::raise(SIGABRT);
        },
        is_minus_one, "");
}

}  // namespace
