// Start and stop of the library as a host sees them.
#include <csignal>
#include <cstring>
#include <map>
#include <optional>
#include <string>

#include "core/cmcontext.h"
#include "support/replace.h"
#include "support/scenario.h"

using namespace cm::test;
using cm::platform::Table;
using std::string;

namespace {

// The steps of data/start.txt: a folder as TVHOME, "tmp" below it as TEMP.
struct Start : World {
    explicit Start(const Row &) {
        set({"TVHOME", "~"});
        on("environment", [this](auto &words) { set({words[0], words[1]}); });
        on("write", [this](auto &words) { folder.write(words[0], words.rest(1)); });
        on("common", [this](auto &words) { folder.write("config/config.ini", "[common]\n" + words.rest(0)); });
        on("start", [this](auto &words) {
            const bool setup = words[1] == "setup";
            const char *const config_dir = words.count() > 2 ? words.text(2) : nullptr;
            cm_context *out = nullptr;
            bool started = false;
            shown = captured_standard_error([&] {
                started =
                    cm_ctx_init(&out, config_dir, words[0] == "-" ? nullptr : words.text(0), setup, &already) == 1;
            });
            EXPECT_EQ(started, out != nullptr);
            if (started) ctx = out;
            return started;
        });
        on("start-in", [this](auto &words) {
            const string working = words[0].empty() ? "" : folder.path(words[0]);
            const Replace<&Table::working_directory> told(
                [&](char *out, size_t size) { return cm_strncpy(out, working.c_str(), int32_t(size)) > 0; });
            return run(Words("start server.log"));
        });
        on("start-unseen", [](auto &) { return cm_ctx_init(nullptr, nullptr, nullptr, 0, nullptr); });
        on("already", [this](auto &) { return already; });
        on("stop", [this](auto &) { return cm_ctx_exit(ctx); });
        on("started", [this](auto &) {
            cm_context *global = nullptr;
            return cm_ctx_global(&global) == 1 && global == ctx;
        });
        on("clock-fails", [this](auto &) { clock.emplace().fail(true); });
        on("shown", [this](auto &) { return without_folder(shown); });
        on("content", [this](auto &words) { return without_folder(folder.read(words[0])); });
        on("names", [this](auto &words) {
            string all;
            for (const string &name : folder.names(words[0])) all += (all.empty() ? "" : " ") + name;
            return all;
        });
        on("log", [this](auto &) {
            string all;
            for (const string &line : log_lines(folder.path("log/server.log"))) all += line + "\n";
            return without_folder(all);
        });
        on("remove-log", [this](auto &words) {
            char log[1024];
            return cm_build_path(ctx, ctx->log_dir, words.text(0), log, sizeof log, nullptr) == 1 &&
                   cm_ctx_exit(ctx) == 1 && os.path_remove(log) == 0;
        });
        on("setting", [this](auto &words) { return setting(words[0]); });
    }
    ~Start() {
        while (cm_ctx_exit(ctx) == 1) {
        }
        EXPECT_EQ(leaks.outstanding(), 0u);
    }

    void set(const std::pair<string, string> &variable) {
        variables[variable.first] = variable.second == "~" ? folder.path() : variable.second;
        environment.reset();
        environment.emplace(variables);
    }
    string without_folder(string text) const {
        for (size_t at; (at = text.find(folder.path())) != text.npos;) text.replace(at, folder.path().size(), "~");
        return text;
    }
    string setting(const string &name) {
        if (name == "root") return without_folder(string(ctx->root_dir, static_cast<size_t>(ctx->root_len)));
        if (name == "start-time") return ctx->start_time > 1.0e9 ? "now" : "unknown";
        if (name == "config-folder") return ctx->config_dir;
        if (name == "temporary-folder")
            return ctx->tmp_dir == string(cm::platform::kLastResortTemp) ? "the last resort" : ctx->tmp_dir;
        if (name == "no-config") return std::to_string((ctx->flags & CTX_NO_CONFIG) != 0);
        if (name == "idle-threads") return std::to_string(ctx->idle_threads);
        if (name == "resolvers") return dotted(ctx->dns->primary) + " " + dotted(ctx->dns->alternate);
        return without_folder(ctx->dns->hosts_path);
    }

    TempFolder folder;
    LeakCheck leaks;
    std::map<string, string> variables = {{"TEMP", "tmp"}, {"TMP", ""}};
    std::optional<Environment> environment;
    cm_context *ctx = nullptr;
    int32_t already = -1;
    string shown;  // on the standard error stream
    std::optional<FrozenClock> clock;
};
SCENARIOS(Starts, Start, "context/start");

// The root is seen in the first path that start-up asks for; nothing is written.
TEST(Root, ProgramFolderIsStrippedFromTheRoot) {
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
