// The log: what a line looks like, the ring, the buffer, the standard error stream, error helpers and alerts.
#include <functional>
#include <map>
#include <memory>
#include <sstream>

#include "core/cmcontext.h"
#include "core/cmerror.h"
#include "core/cmthread.h"
#include "support/data.h"
#include "support/failures.h"

using namespace cm;
using namespace cm::test;

namespace {

constexpr const char *kStamp = "[2001-09-09 01:46:40] ";  // of the frozen clock

// A context with nothing but a log, and the file that it writes.
class Log : public testing::Test {
protected:
    Log() {
        clock_.set_zone(0);
        open();
        begin_case();
    }
    ~Log() override {
        ctx_refcount = 0;
        ctx_global = nullptr;
        platform::os.file_close(file_.descriptor);
    }

    void open() {
        const int32_t flags = CM_O_CREAT | CM_O_TRUNC | CM_O_RDWR | CM_O_BINARY;
        ASSERT_EQ(platform::os.file_open(folder_.path("server.log").c_str(), flags, &file_.descriptor), 0);
        file_.own_buffer = buffer_;
        file_.ctx = ctx_.get();
    }
    void empty() {
        file_.fill = file_.lines = 0;
        int64_t position;
        platform::os.file_resize(file_.descriptor, 0);
        platform::os.file_seek(file_.descriptor, 0, CM_SEEK_START, &position);
    }
    std::string written() { return folder_.read("server.log"); }
    void begin_case() {
        empty();
        ctx_->trace_level = CM_INFO;
        ctx_->log_file = &file_;
        ctx_->log_size = ctx_->flags = 0;
        file_.kind = file_.open_mark = 1;
    }

    TempFolder folder_;
    FrozenClock clock_{1000000000};
    std::unique_ptr<cm_context> ctx_ = std::make_unique<cm_context>();
    cm_file file_ = {};
    char buffer_[1025];
};

TEST_F(Log, Steps) {
    for (const Row &row : rows("core/log")) {
        std::istringstream step(row[0]);
        std::string what;
        int32_t a = 0, b = 0, c = 0;
        step >> what >> a >> b >> c;
        const char *const text = row[1] == "-" ? nullptr : row.text(1);
        const std::map<std::string, std::function<int()>> steps = {
            {"case", [&] { return begin_case(), 1; }},
            {"ceiling", [&] { return ctx_->trace_level = a, 1; }},
            {"size", [&] { return ctx_->log_size = a, 1; }},
            {"flush", [&] { return ctx_->flags = CTX_FLUSH_LOGS, 1; }},
            {"kind", [&] { return file_.kind = a, 1; }},
            {"rotation", [&] { return file_.open_mark = 0, 1; }},
            {"lines", [&] { return file_.lines; }},
            {"waiting", [&] { return file_.fill; }},
            {"log", [&] { return cm_log(ctx_.get(), a, text, b), 1; }},
            {"line", [&] { return cm_lwrite(&file_, text, a, b, nullptr, c); }},
            {"no-file", [&] { return ctx_->log_file = nullptr, 1; }},
            {"log-without-context", [&] { return cm_log(nullptr, a, text, b), 1; }},
            {"line-without-file", [&] { return cm_lwrite(nullptr, text, a, 0, nullptr, 0); }}};
        int result = 0;
        std::string told = captured_standard_error([&] { result = steps.at(what)(); });
        told += written();
        for (size_t at; (at = told.find(kStamp)) != told.npos;) told.replace(at, strlen(kStamp), "@ ");
        EXPECT_EQ(told, row[2]) << row.where;
        EXPECT_EQ(result, row.fields.size() > 3 ? row.number(3) : 1) << row.where;
    }
}

TEST_F(Log, EveryModeClipsAt992) {
    for (int32_t length = 985; length <= 1030; length++) {
        for (const bool ends : {false, true}) {
            std::string text(static_cast<size_t>(length), 'x');
            if (ends) text.back() = '\n';
            std::string kept = text.substr(0, 992);
            if (kept.back() != '\n') kept += '\n';
            for (int32_t mode = 0; mode <= 3; mode++) {
                empty();
                EXPECT_EQ(cm_lwrite(&file_, text.data(), length, 0, nullptr, mode), 1);
                EXPECT_EQ(cm_lwrite(&file_, nullptr, 0, 0, nullptr, 1), 1);
                EXPECT_EQ(written(), ((mode & 2) != 0 ? kStamp : "") + kept) << length << " mode " << mode;
            }
            empty();
            cm_log(ctx_.get(), CM_ERROR, text.data(), length);
            const std::string composed = (std::string(kStamp) + "ERROR: " + text).substr(0, 992);
            EXPECT_EQ(written(), composed + "\n") << length;
        }
    }
}

TEST_F(Log, AFullDiskIsNotToldAndNoClockMeansNoStamp) {
    EXPECT_EQ(captured_standard_error([&] {
                  Faults faults(Faults::kFiles, 1, Faults::kNoSpace, Faults::kFromThenOn);
                  for (int i = 0; i < 3; i++) cm_log(ctx_.get(), CM_ERROR, "lost", CM_LEN_TEXT);
                  EXPECT_EQ(faults.injected(), 3);
              }),
              "");
    empty();
    cm_log(ctx_.get(), CM_ERROR, "space again", CM_LEN_TEXT);
    clock_.fail(true);
    clock_.set(5);
    cm_log(ctx_.get(), CM_WARN, "when?", CM_LEN_TEXT);
    EXPECT_EQ(cm_lwrite(&file_, "then", CM_LEN_TEXT, 0, nullptr, 3), 1);
    EXPECT_EQ(written(), std::string(kStamp) + "ERROR: space again\nWARN:  when?\nthen\n");
}

TEST_F(Log, RaisedErrorsNameTheirPlaceAndFailingResultsLeaveATrail) {
    EXPECT_EQ(captured_standard_error([] {
                  EXPECT_EQ(cm_return_trace(0, "stopped", 1), 0);
                  report(nullptr, CM_ERROR, "%d%%", 7);
                  EXPECT_EQ(cm_raise_error(nullptr, "a.c", 1, "early"), 1);
              }),
              "Tilvar Server Error: 7%\nTilvar Server Error: early [a.c(1)]\n");
    ctx_global = ctx_.get();  // as far as cm_ctx_global sees, it is started
    ctx_refcount = 1;
    cm_log(nullptr, CM_INFO, "found", CM_LEN_TEXT);
    cm_log(nullptr, CM_TRACE, "above its level", CM_LEN_TEXT);
    EXPECT_EQ(cm_raise_error(ctx_.get(), "server.c", 120, "no room"), 1);
    EXPECT_EQ(ctx_->error_depth, 0);
    ctx_->error_depth = 5;  // as it is within the sixth call that comes out of logging an error
    EXPECT_EQ(cm_raise_error(ctx_.get(), "server.c", 121, "again"), 0);
    EXPECT_EQ(ctx_->error_depth, 0);
    for (const int16_t result : {1, -5, 0}) EXPECT_EQ(cm_return_trace(result, "listen", 4), result);
    EXPECT_EQ(
        log_lines(folder_.path("server.log")),
        (std::vector<std::string>{"INFO:  found", "ERROR: no room [server.c(120)]",
                                  "ERROR: Recursive error message: again [server.c(121)]", "ERROR: listen (4) FAIL"}));
}

// ---- alerts ---------------------------------------------------------------------------------------------------------

std::vector<std::string> seen;

void CM_CALL note(cm_context *, const cm_alert *alert) {
    seen.push_back(std::string(alert->category) + "|" + alert->subject + "|" + alert->message + "|" + alert->timestamp +
                   "|" + std::to_string(alert->connections) + "|" + std::to_string(alert->threads));
}

void CM_CALL alert_again(cm_context *ctx, const cm_alert *) {
    seen.push_back("again");
    cm_alert_notify(ctx, 1, "nested", "from the handler");
}

class Alerts : public Log {
protected:
    Alerts() {
        seen.clear();
        EXPECT_EQ(cm_create_mutex(ctx_.get(), &ctx_->file_mutex), 1);
        EXPECT_EQ(cm_mem_init(ctx_.get(), &ctx_->common_pool, 1024), 1);
        EXPECT_EQ(cm_alerts_init(ctx_.get()), 1);
        ring_ = ctx_->alert_table;
    }
    ~Alerts() override {
        EXPECT_EQ(cm_alerts_exit(ctx_.get()), 1);
        EXPECT_EQ(ctx_->alert_table, nullptr);
        EXPECT_EQ(cm_alerts_exit(ctx_.get()), 1);
        cm_alert_notify(ctx_.get(), 1, "nobody", "listens");
        cm_mem_exit(ctx_->common_pool);
        cm_delete_mutex(ctx_->file_mutex);
    }
    cm_alert_ring *ring_;
};

TEST_F(Alerts, TheRingKeepsTwoHundredAndCutsTexts) {
    EXPECT_EQ(cm_alerts_init(ctx_.get()), 1);
    EXPECT_EQ(ctx_->alert_table, ring_);
    for (int i = 1; i <= 201; i++) cm_alert_notify(ctx_.get(), 10, "count", std::to_string(i).c_str());
    EXPECT_EQ(ring_->last, 1);
    EXPECT_EQ(ring_->count, 200);
    EXPECT_STREQ(ring_->slot[0].message, "201");
    EXPECT_STREQ(ring_->slot[1].message, "2");
    EXPECT_EQ(ring_->slot[0].time, 1000000000u);
    EXPECT_EQ(ring_->slot[0].category, 10);
    const std::string longer(300, 'm');
    for (int i = 0; i < 200; i++) cm_alert_notify(ctx_.get(), 1, longer.c_str(), longer.c_str());
    EXPECT_EQ(ring_->slot[0].subject, std::string(63, 'm'));
    EXPECT_EQ(ring_->slot[0].message, std::string(255, 'm'));
    for (int i = 0; i < 200; i++) cm_alert_notify(ctx_.get(), 1, "new", "short");
    EXPECT_EQ(ring_->slot[0].subject, "new" + std::string(60, 'm'));  // kept: no terminator over an older subject
    EXPECT_STREQ(ring_->slot[0].message, "short");
}

TEST_F(Alerts, TheHandlerGetsItAllInFull) {
    cm_net_state net = {};
    net.open_count = 7;
    ctx_->net_table = &net;
    ctx_->alert_handler = note;
    const std::string longer(400, 'm'), end = "|[09/Sep/2001:01:46:40 +0000]|7|0";
    const char *names[] = {"Undefined", "Networking", "SMTP", "POP3", "IMAP4",        "Mail Router", "HTTP",
                           "FTP",       "DBMS",       "DHCP", "DNS",  "Alert Daemon", "Undefined"};
    for (int32_t category = 0; category <= 12; category++) {
        cm_alert_notify(ctx_.get(), category, "subject", longer.c_str());
        EXPECT_EQ(seen.back(), std::string(names[category]) + "|subject|" + longer + end);
    }
    cm_alert_notify(ctx_.get(), -1, nullptr, nullptr);
    EXPECT_EQ(seen.back(), "Undefined||" + end);
    alert(ctx_.get(), "listener", "port %d", 80);
    EXPECT_EQ(seen.back(), "Networking|listener|port 80" + end);
    ctx_->net_table = nullptr;
    EXPECT_EQ(cm_alert_register(ctx_.get(), 1, 2), 1);
    EXPECT_EQ(cm_alert_deregister(ctx_.get()), 1);
    seen.clear();
    ctx_->alert_handler = alert_again;  // comes to an end each time
    for (size_t calls : {5u, 10u}) {
        cm_alert_notify(ctx_.get(), 1, "first", "alert");
        EXPECT_EQ(seen.size(), calls);
    }
}

TEST_F(Log, AlertsNeedMemoryAndAMutex) {
    EXPECT_EQ(cm_create_mutex(ctx_.get(), &ctx_->file_mutex), 1);
    int failures = 0;
    bool failed = false;
    each_failure(
        Faults::kAllocations | Faults::kLocks,
        [&] {
            failed = cm_mem_init(ctx_.get(), &ctx_->common_pool, 64) == 0;
            if (failed) return;
            failed = cm_alerts_init(ctx_.get()) == 0;
            EXPECT_EQ(ctx_->alert_table == nullptr, failed);
            cm_alerts_exit(ctx_.get());
            cm_mem_exit(ctx_->common_pool);
        },
        [&](bool injected, size_t leaked) {
            EXPECT_EQ(failed, injected);
            EXPECT_EQ(leaked, 0u);
            failures += failed;
        });
    EXPECT_GE(failures, 3);  // the ring, the handle, the lock
    cm_delete_mutex(ctx_->file_mutex);
}

}  // namespace
