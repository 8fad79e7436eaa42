// The log: what a line looks like, the ring, the buffer, the standard error stream, error helpers and alerts.
#include <memory>
#include <utility>

#include "core/cmcontext.h"
#include "core/cmerror.h"
#include "core/cmthread.h"
#include "support/scenario.h"

using namespace cm;
using namespace cm::test;

namespace {

constexpr const char *kStamp = "[2001-09-09 01:46:40] ";  // of the frozen clock

// A context with nothing but a log, and the file that it writes; the steps of data/log.txt.
struct Log : World {
    explicit Log(const Row & = {}) {
        const int32_t flags = CM_O_CREAT | CM_O_TRUNC | CM_O_RDWR | CM_O_BINARY;
        EXPECT_EQ(platform::os.file_open(folder.path("server.log").c_str(), flags, &file.descriptor), 0);
        file.kind = file.open_mark = 1;
        file.own_buffer = buffer;
        file.ctx = ctx.get();
        ctx->trace_level = CM_INFO;
        ctx->log_file = &file;
        clock.set_zone(0);
        on("ceiling", [this](auto &words) { ctx->trace_level = number(words, 0); });
        on("size", [this](auto &words) { ctx->log_size = number(words, 0); });
        on("flush", [this](auto &) { ctx->flags = CTX_FLUSH_LOGS; });
        on("kind", [this](auto &words) { file.kind = number(words, 0); });
        on("rotation", [this](auto &) { file.open_mark = 0; });
        on("no-file", [this](auto &) { ctx->log_file = nullptr; });
        on("empty", [this](auto &) { empty(); });
        on("lines", [this](auto &) { return file.lines; });
        on("waiting", [this](auto &) { return file.fill; });
        on("log", [this](auto &words) {
            return told(words.rest(2), [&](auto text) { cm_log(ctx.get(), number(words, 0), text, number(words, 1)); });
        });
        on("early-log", [this](auto &words) {
            return told(words.rest(2), [&](auto text) { cm_log(nullptr, number(words, 0), text, number(words, 1)); });
        });
        on("line", [this](auto &words) {
            int16_t done = 0;
            const std::string all = told(words.rest(3), [&](auto text) {
                done = cm_lwrite(&file, text, number(words, 0), number(words, 1), nullptr, number(words, 2));
            });
            return done == 1 ? all : "refused";
        });
        on("early-line", [this](auto &words) {
            return told(words.rest(1),
                        [&](auto text) { EXPECT_EQ(cm_lwrite(nullptr, text, number(words, 0), 0, nullptr, 0), 0); });
        });
    }
    ~Log() {
        ctx_refcount = 0;
        ctx_global = nullptr;
        platform::os.file_close(file.descriptor);
    }

    static int32_t number(const Words &words, size_t index) { return static_cast<int32_t>(words.number(index)); }
    // The standard error stream, then the log, after a call with a text, "-" for a null pointer.
    std::string told(const std::string &text, const std::function<void(const char *text)> &run) {
        std::string all = captured_standard_error([&] { run(text == "-" ? nullptr : text.c_str()); });
        all += written();
        for (size_t at; (at = all.find(kStamp)) != all.npos;) all.replace(at, strlen(kStamp), "@ ");
        return all;
    }
    std::string written() { return folder.read("server.log"); }
    void empty() {
        file.fill = file.lines = 0;
        int64_t position;
        platform::os.file_resize(file.descriptor, 0);
        platform::os.file_seek(file.descriptor, 0, CM_SEEK_START, &position);
    }

    TempFolder folder;
    FrozenClock clock{1000000000};
    std::unique_ptr<cm_context> ctx = std::make_unique<cm_context>();
    cm_file file = {};
    char buffer[1025];
};
SCENARIOS(LogTexts, Log, "core/log");

struct LogTest : testing::Test, Log {};

TEST_F(LogTest, EveryModeClipsAt992) {
    for (int32_t length = 985; length <= 1030; length++) {
        for (const bool ends : {false, true}) {
            std::string text(static_cast<size_t>(length), 'x');
            if (ends) text.back() = '\n';
            std::string kept = text.substr(0, 992);
            if (kept.back() != '\n') kept += '\n';
            for (int32_t mode = 0; mode <= 3; mode++) {
                empty();
                EXPECT_EQ(cm_lwrite(&file, text.data(), length, 0, nullptr, mode), 1);
                EXPECT_EQ(cm_lwrite(&file, nullptr, 0, 0, nullptr, 1), 1);
                EXPECT_EQ(written(), ((mode & 2) != 0 ? kStamp : "") + kept) << length << " mode " << mode;
            }
            empty();
            cm_log(ctx.get(), CM_ERROR, text.data(), length);
            const std::string composed = (std::string(kStamp) + "ERROR: " + text).substr(0, 992);
            EXPECT_EQ(written(), composed + "\n") << length;
        }
    }
}

TEST_F(LogTest, AFullDiskIsNotToldAndNoClockMeansNoStamp) {
    EXPECT_EQ(captured_standard_error([&] {
                  Faults faults(Faults::kFiles, 1, Faults::kNoSpace, Faults::kFromThenOn);
                  for (int i = 0; i < 3; i++) cm_log(ctx.get(), CM_ERROR, "lost", CM_LEN_TEXT);
                  EXPECT_EQ(faults.injected(), 3);
              }),
              "");
    empty();
    cm_log(ctx.get(), CM_ERROR, "space again", CM_LEN_TEXT);
    clock.fail(true);
    clock.set(5);
    cm_log(ctx.get(), CM_WARN, "when?", CM_LEN_TEXT);
    EXPECT_EQ(cm_lwrite(&file, "then", CM_LEN_TEXT, 0, nullptr, 3), 1);
    EXPECT_EQ(written(), std::string(kStamp) + "ERROR: space again\nWARN:  when?\nthen\n");
}

TEST_F(LogTest, RaisedErrorsNameTheirPlaceAndFailingResultsLeaveATrail) {
    EXPECT_EQ(captured_standard_error([] {
                  EXPECT_EQ(cm_return_trace(0, "stopped", 1), 0);
                  report(nullptr, CM_ERROR, "%d%%", 7);
                  EXPECT_EQ(cm_raise_error(nullptr, "a.c", 1, "early"), 1);
              }),
              "Tilvar Server Error: 7%\nTilvar Server Error: early [a.c(1)]\n");
    ctx_global = ctx.get();  // as far as cm_ctx_global sees, it is started
    ctx_refcount = 1;
    cm_log(nullptr, CM_INFO, "found", CM_LEN_TEXT);
    cm_log(nullptr, CM_TRACE, "above its level", CM_LEN_TEXT);
    EXPECT_EQ(cm_raise_error(ctx.get(), "server.c", 120, "no room"), 1);
    EXPECT_EQ(ctx->error_depth, 0);
    ctx->error_depth = 5;  // as it is within the sixth call that comes out of logging an error
    EXPECT_EQ(cm_raise_error(ctx.get(), "server.c", 121, "again"), 0);
    EXPECT_EQ(ctx->error_depth, 0);
    for (const int16_t result : {1, -5, 0}) EXPECT_EQ(cm_return_trace(result, "listen", 4), result);
    EXPECT_EQ(
        log_lines(folder.path("server.log")),
        (std::vector<std::string>{"INFO:  found", "ERROR: no room [server.c(120)]",
                                  "ERROR: Recursive error message: again [server.c(121)]", "ERROR: listen (4) FAIL"}));
}

// ---- alerts ---------------------------------------------------------------------------------------------------------

std::string seen;  // by the handler

void CM_CALL note(cm_context *, const cm_alert *alert) {
    seen += std::string(alert->category) + "|" + alert->subject + "|" + alert->message + "|" + alert->timestamp + "|" +
            std::to_string(alert->connections) + "|" + std::to_string(alert->threads);
}

void CM_CALL alert_again(cm_context *ctx, const cm_alert *) {
    seen += "again ";
    cm_alert_notify(ctx, 1, "nested", "from the handler");
}

// The steps of data/alerts.txt.
struct Alerts : Log {
    explicit Alerts(const Row &) {
        EXPECT_EQ(cm_create_mutex(ctx.get(), &ctx->file_mutex), 1);
        EXPECT_EQ(cm_mem_init(ctx.get(), &ctx->common_pool, 1024), 1);
        on("init", [this](auto &) {
            const int16_t done = cm_alerts_init(ctx.get());
            EXPECT_EQ(ctx->alert_table != nullptr, done != 0);
            return done;
        });
        on("exit", [this](auto &) { return cm_alerts_exit(ctx.get()); });
        on("notify", [this](auto &words) {
            const std::string text = words.rest(2);
            cm_alert_notify(ctx.get(), number(words, 0), words[1] == "-" ? nullptr : words.text(1),
                            text == "-" ? nullptr : text.c_str());
            return std::exchange(seen, "");
        });
        on("alert-port", [this](auto &words) {
            alert(ctx.get(), "listener", "port %d", number(words, 0));
            return std::exchange(seen, "");
        });
        on("count", [this](auto &words) {
            for (int i = 1; i <= number(words, 0); i++) run(Words("notify 10 count " + std::to_string(i)));
        });
        on("repeat", [this](auto &words) {
            for (int i = 0; i < number(words, 0); i++) run(words.from(1));
        });
        on("ring", [this](auto &) {
            return std::to_string(ctx->alert_table->count) + ", last in " + std::to_string(ctx->alert_table->last);
        });
        on("slot", [this](auto &words) {
            const auto &slot = ctx->alert_table->slot[number(words, 0)];
            return std::to_string(slot.category) + " " + std::to_string(slot.time) + " " + slot.subject + " " +
                   slot.message;
        });
        on("handler", [this](auto &words) { ctx->alert_handler = words[0] == "note" ? note : alert_again; });
        on("connections", [this](auto &words) {
            net.open_count = number(words, 0);
            ctx->net_table = words[0].empty() ? nullptr : &net;
        });
        on("register", [this](auto &) { return cm_alert_register(ctx.get(), 1, 2) + cm_alert_deregister(ctx.get()); });
    }
    ~Alerts() {
        EXPECT_EQ(cm_alerts_exit(ctx.get()), 1);
        EXPECT_EQ(ctx->alert_table, nullptr);
        cm_mem_exit(ctx->common_pool);
        cm_delete_mutex(ctx->file_mutex);
        EXPECT_EQ(leaks.outstanding(), 0u);
    }

    LeakCheck leaks;
    cm_net_state net = {};
};
SCENARIOS(AlertSteps, Alerts, "core/alerts");

}  // namespace
