// The file cache beside the system's calls, and a minute of a crontab beside a bare loop over the same flags.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

#include "files/cmcron.h"
#include "ratio.h"

namespace {

namespace fs = std::filesystem;

constexpr int kCalls = 200;
constexpr size_t kTasks = 1000;

// The library, started in a folder of its own.
class Library {
public:
    Library() {
        char name[] = "/tmp/bench_cacheXXXXXX";
        if (mkdtemp(name) == nullptr) std::exit(1);
        folder_ = name;
        fs::create_directory(folder_ + "/config");
        write("config/config.ini",
              "[common]\nFile Cache Size = 1000000\nMaximum Cached File = 100000\nCache Stat Interval = 1000000\n");
        setenv("TVHOME", name, 1);
        int32_t already = 0;
        if (cm_ctx_init(&ctx_, "config", "bench.log", 1, &already) == 0) std::exit(1);
    }
    ~Library() {
        cm_ctx_exit(ctx_);
        fs::remove_all(folder_);
    }

    cm_context *ctx() const { return ctx_; }
    std::string write(const std::string &name, const std::string &bytes) const {
        const std::string path = folder_ + "/" + name;
        std::FILE *file = std::fopen(path.c_str(), "wb");
        if (file == nullptr || std::fwrite(bytes.data(), 1, bytes.size(), file) != bytes.size()) std::exit(1);
        std::fclose(file);
        return path;
    }

private:
    std::string folder_;
    cm_context *ctx_ = nullptr;
};

template <class Call>
auto repeat(Call call) {
    return [call] {
        for (int i = 0; i < kCalls; i++) call();
    };
}

// Opens, reads all of it and closes.
void hits(cm::bench::Rows &rows, const Library &library, size_t size, const char *row, const char *goal) {
    const std::string path = library.write("page" + std::to_string(size), std::string(size, 'x'));
    static char buffer[65536];
    const auto ours = [&] {
        cm_file *file = nullptr;
        int32_t got = 0;
        cm_fopenc(library.ctx(), path.c_str(), CM_O_RDONLY | CM_O_BINARY, &file);
        if (cm_fread(file, buffer, static_cast<int32_t>(size), &got) == 0 || static_cast<size_t>(got) != size)
            std::exit(1);
        cm_fclose(file);
    };
    const auto peer = [&] {
        struct stat status;
        const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fstat(descriptor, &status) != 0 || read(descriptor, buffer, size) != static_cast<ssize_t>(size))
            std::exit(1);
        close(descriptor);
    };
    rows.pair(row, kCalls, repeat(ours), repeat(peer), goal);
}

void stats(cm::bench::Rows &rows, const Library &library) {
    const std::string path = library.write("page", "x");
    const auto ours = [&] {
        cm_stat_rec record;
        if (cm_stat(library.ctx(), path.c_str(), 1, &record) == 0) std::exit(1);
        cm::bench::keep(record);
    };
    const auto peer = [&] {
        struct stat status;
        if (stat(path.c_str(), &status) != 0) std::exit(1);
        cm::bench::keep(status);
    };
    rows.pair("cached stat, stat(2)", kCalls, repeat(ours), repeat(peer), "<= 0.15");
}

// A crontab as it may be: some tasks every minute, most at their hour, some on their day.
class Crontab {
public:
    Crontab() : records_(kTasks) {
        for (size_t i = 0; i < kTasks; i++) {
            char period[64];
            const int k = static_cast<int>(i);
            std::snprintf(period, sizeof period, k % 10 == 0 ? "*/%d * * * *" : "%d %d * * %s",
                          k % 10 == 0 ? 5 : k % 60, k % 24, k % 3 == 0 ? "mon-fri" : "*");
            std::string_view rest(period);
            records_[i] = {};
            if (i > 0) records_[i - 1].next = &records_[i];
            if (!cm::cron::parse_period(rest, cm::cron::sets_of(&records_[i]))) std::exit(1);
            cm::cron::apply_day_rule(cm::cron::sets_of(&records_[i]));
        }
    }
    void reset() {
        for (cm_cron_rec &task : records_) task.state = cm::cron::kIdle;
    }
    void ours(int64_t now) {
        reset();
        cm::cron::mark_due(records_.data(), now - 60, now);
    }
    void bare(time_t now) {
        reset();
        std::tm local;
        localtime_r(&now, &local);
        for (cm_cron_rec &task : records_)
            if (task.minute[local.tm_min] && task.hour[local.tm_hour] && task.month[local.tm_mon] &&
                (task.day[local.tm_mday] || task.weekday[local.tm_wday]))
                task.state = cm::cron::kDue;
    }

private:
    std::vector<cm_cron_rec> records_;
};

void crontab(cm::bench::Rows &rows) {
    constexpr time_t kHalfPastNoon = 1704112200;
    Crontab crontab;
    double best = 1e300;
    const auto ours = [&] {
        const auto before = std::chrono::steady_clock::now();
        crontab.ours(kHalfPastNoon);
        const std::chrono::duration<double, std::nano> took = std::chrono::steady_clock::now() - before;
        best = std::min(best, took.count());
    };
    const auto bare = [&] { crontab.bare(kHalfPastNoon); };
    rows.pair("crontab, a minute of 1,000 tasks, bare loop", 1, ours, bare, "<= 4.0");
    if (best < 1e300) rows.report("crontab, a minute of 1,000 tasks, 50 us", best, 50000, "<= 1.0");
}

}  // namespace

int main(int argc, char **argv) {
    const Library library;
    cm::bench::Rows rows(argc, argv);
    hits(rows, library, 4096, "cache hit of 4 KB, open+fstat+read+close", "<= 0.10");
    hits(rows, library, 65536, "cache hit of 64 KB, open+fstat+read+close", "<= 0.28");
    stats(rows, library);
    crontab(rows);
    return rows.failures();
}
