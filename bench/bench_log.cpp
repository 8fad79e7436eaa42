// Log lines, beside a mutex and one write(2) per line.
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "core/cmcontext.h"
#include "platform/platform.h"
#include "ratio.h"

namespace {

constexpr int kLines = 200;
constexpr char kText[] = "GET /index.html HTTP/1.1 served to 192.168.17.4 in 12 ms, 10240 bytes";

struct Log {
    Log() {
        cm::platform::os.file_open("/tmp/bench_log.txt", CM_O_CREAT | CM_O_TRUNC | CM_O_RDWR, &file.descriptor);
        file.kind = file.open_mark = 1;
        file.own_buffer = buffer;
        file.ctx = ctx.get();
        ctx->trace_level = CM_INFO;
        ctx->log_size = 10000;
        ctx->log_file = &file;
        cm_create_mutex(nullptr, &ctx->log_mutex);
    }
    ~Log() {
        cm_delete_mutex(ctx->log_mutex);
        cm::platform::os.file_close(file.descriptor);
        cm::platform::os.path_remove("/tmp/bench_log.txt");
    }
    std::unique_ptr<cm_context> ctx = std::make_unique<cm_context>();
    cm_file file = {};
    char buffer[1025];
};

// Lines of the same length, ready made, in a ring of as many.
struct Bare {
    Bare() {
        cm::platform::os.file_open("/tmp/bench_bare.txt", CM_O_CREAT | CM_O_TRUNC | CM_O_RDWR, &descriptor);
        line = "[2002-05-01 09:30:00] INFO:  " + std::string(kText) + "\n";
    }
    ~Bare() {
        cm::platform::os.file_close(descriptor);
        cm::platform::os.path_remove("/tmp/bench_bare.txt");
    }
    void write_line() {
        pthread_mutex_lock(&mutex);
        if (++lines == 10000) {
            lseek(descriptor, 0, SEEK_SET);
            lines = 0;
        }
        if (write(descriptor, line.data(), line.size()) < 0) abort();
        pthread_mutex_unlock(&mutex);
    }
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    int32_t descriptor = -1;
    int lines = 0;
    std::string line;
};

// The same work on several threads that are there already.
class Team {
public:
    Team(int count, std::function<void()> work) : work_(std::move(work)) {
        for (int i = 0; i < count; i++) members_.emplace_back([this] { run(); });
    }
    ~Team() {
        stop_ = true;
        round_++;
        round_.notify_all();
        for (auto &member : members_) member.join();
    }
    void once() {
        left_ = static_cast<int>(members_.size());
        round_++;
        round_.notify_all();
        for (int left; (left = left_) != 0;) left_.wait(left);
    }

private:
    void run() {
        for (int seen = 0;;) {
            round_.wait(seen);
            seen = round_;
            if (stop_) return;
            work_();
            if (--left_ == 0) left_.notify_all();
        }
    }
    std::function<void()> work_;
    std::atomic<int> round_{0}, left_{0};
    std::atomic<bool> stop_{false};
    std::vector<std::thread> members_;
};

}  // namespace

int main(int argc, char **argv) {
    cm::bench::Rows rows(argc, argv);
    Log log;
    Bare bare;
    const auto ours = [&] {
        for (int i = 0; i < kLines; i++) cm_log(log.ctx.get(), CM_INFO, kText, sizeof kText - 1);
    };
    const auto peer = [&] {
        for (int i = 0; i < kLines; i++) bare.write_line();
    };
    rows.pair("log line, write-through, 1 thread", kLines, ours, peer, "<= 1.15");
    {
        Team our_team(4, ours), peer_team(4, peer);
        rows.pair(
            "log line, write-through, 4 threads", 4 * kLines, [&] { our_team.once(); }, [&] { peer_team.once(); },
            "<= 1.15");
    }
    rows.pair(
        "log line below the level (peer: nothing)", 100 * kLines,
        [&] {
            for (int i = 0; i < 100 * kLines; i++) cm_log(log.ctx.get(), CM_TRACE, kText, sizeof kText - 1);
        },
        [&] {
            for (int i = 0; i < 100 * kLines; i++) cm::bench::keep(i);
        },
        "");
    return rows.failures();
}
