// The file cache: what it serves without the system, when it asks the disk again, and what stays for its holders.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <map>
#include <optional>
#include <sstream>
#include <thread>

#include "schedule/scheduler.h"
#include "support/data.h"
#include "support/failures.h"
#include "support/support.h"

using namespace cm::test;
using std::string;
using std::to_string;
namespace fs = std::filesystem;

namespace {

constexpr int64_t kNow = 4000000000;  // long after the files of the tests were written
constexpr char kSettings[] =
    "Trace Level = TRACE\nFile Cache Size = 1000\nMaximum Cached File = 100\nCache Stat Interval = 10\n"
    "Cache DNS Interval = 30\nCache Flush Interval = 60";
constexpr int32_t kAny = CM_O_RDONLY | CM_O_BINARY;
const std::map<string, int32_t> kModes = {{"any", kAny},
                                          {"seq", CM_O_RDONLY | CM_O_SEQ},
                                          {"seqbinary", kAny | CM_O_SEQ},
                                          {"read", CM_O_RDONLY},
                                          {"rdwr", CM_O_RDWR},
                                          {"append", CM_O_WRONLY | CM_O_CREAT | CM_O_APPEND}};

std::atomic<int> pages_freed;
void CM_CALL free_page(void *data) {
    pages_freed++;
    delete static_cast<string *>(data);
}

// The steps that data/steps.txt tells about; each gives a text.
class Cache : public testing::Test {
protected:
    using Words = std::vector<string>;

    void SetUp() override {
        scheduler_by_hand(library.ctx());
        cm_cache_exit(library);
        cm_cache_init(library);
    }
    void TearDown() override {
        library.stop();
        EXPECT_EQ(leaks.outstanding(), 0u);
    }
    string run(const string &step) {
        std::istringstream in(step);
        return run(Words(std::istream_iterator<string>(in), {}));
    }
    string run(const Words &words) {
        const string name = words.size() > 1 ? expanded(words[1]) : "", third = words.size() > 2 ? words[2] : "";
        const string file_path = path(name);
        const char *const path = file_path.c_str();
        const std::map<string, std::function<string()>> steps = {
            {"write", [&] { return library.folder().write(name, expanded(third)), "ok"; }},
            {"remove", [&] { return library.folder().remove(name), "ok"; }},
            {"touch",
             [&] { return fs::last_write_time(path, fs::last_write_time(path) + std::chrono::seconds(5)), "ok"; }},
            {"open", [&] { return read(opened(path, third.empty() ? "any" : third)); }},
            {"same", [&] { return to_string(read(opened(path, "any")) == "=" + library.folder().read(name)); }},
            {"hold", [&] { return (held_ = opened(path, "any")) != nullptr ? "ok" : "-"; }},
            {"held", [&] { return string(held_->buffer, static_cast<size_t>(held_->total)); }},
            {"drop", [&] { return to_string(cm_fclose(held_)); }},
            {"fopen",
             [&] {
                 cm_file *file = nullptr;
                 return to_string(cm_fopen(library, path, kModes.at(third), &file) == 1 && cm_fclose(file) == 1);
             }},
            {"stat",
             [&] {
                 cm_stat_rec record;
                 return cm_stat(library, path, 1, &record) == 1 ? to_string(record.size) : "-";
             }},
            {"page",
             [&]() -> string {
                 cm_cache_rec *entry = nullptr;
                 void *data = nullptr;
                 if (cm_cache_getasp(library, path, &data, &entry) == 0) return "-";
                 const string text = *static_cast<string *>(data);
                 return cm_cache_freeasp(library, entry), text;
             }},
            {"setpage", [&] { return set_page(path, third, stoi(words.back()), nullptr); }},
            {"holdpage", [&] { return set_page(path, third, stoi(words.back()), &page_); }},
            {"heldpage", [&] { return *static_cast<string *>(page_->data); }},
            {"droppage", [&] { return to_string(cm_cache_freeasp(library, page_)); }},
            {"freed", [&] { return to_string(pages_freed); }},
            {"setaddr", [&] { return to_string(cm_cache_setaddr(library, name.c_str(), 1, 2, 3)); }},
            {"addr",
             [&] {
                 uint32_t a = 1, b = 2, c = 3;
                 const int16_t there = cm_cache_getaddr(library, name.c_str(), &a, &b, &c);
                 return to_string(there * (a * 100 + b * 10 + c));
             }},
            {"addresses",
             [&] {
                 for (int i = 0; i < stoi(name); i++) cm_cache_setaddr(library, to_string(i).c_str(), 1, 2, 3);
                 return to_string(cache()->addresses->entries);
             }},
            {"counts",
             [&] {
                 return to_string(cache()->files) + " " + to_string(cache()->pages) + " " + to_string(cache()->bytes) +
                        " " + to_string(cache()->cleanup_wanted);
             }},
            {"opens", [&] { return to_string(cache()->opens) + " " + to_string(cache()->hits); }},
            {"set", [&] { return set(name, stoi(third)); }},
            {"clean", [&] { return to_string(timer()->function(library, timer()->name, timer()->argument)); }},
            {"advance", [&] { return clock.advance(stoi(name)), "ok"; }},
            {"clock", [&] { return clock.set(kNow + stoi(name)), "ok"; }},
            {"just-after",
             [&] {
                 cm::platform::FileStatus status = {};
                 os.path_status(path, true, &status);
                 return clock.set(status.mtime + stoi(third)), "ok";
             }},
            {"reset", [&] { return to_string(cm_cache_reset(library)); }},
            {"exit", [&] { return to_string(cm_cache_exit(library)); }},
            {"init", [&] { return to_string(cm_cache_init(library)); }},
            {"fail",
             [&] {
                 const Faults faults(name == "files" ? Faults::kFiles : Faults::kAllocations, stoi(third));
                 return run(Words(words.begin() + 3, words.end()));
             }},
        };
        return steps.at(words[0])();
    }
    string path(const string &name) { return library.folder().path(name); }
    cm_cache *cache() { return library.ctx()->file_cache; }
    cm_cron_rec *timer() {
        cm_cron_rec *task = library.ctx()->cron->periodic;
        while (task->name != string("Cache File Timer")) task = task->next;
        return task;
    }
    cm_file *opened(const char *path, const string &mode) {
        cm_file *file = nullptr;
        cm_fopenc(library, path, kModes.at(mode), &file);
        return file;
    }

    FrozenClock clock{kNow};
    LeakCheck leaks;
    Library library{kSettings};

private:
    // "*N": a text of N letters; "~N": a name whose path has N.
    string expanded(const string &word) {
        const size_t count = word.size() > 1 ? strtoul(word.c_str() + 1, nullptr, 10) : 0;
        return word[0] == '*' ? string(count, 'x') : word[0] == '~' ? string(count - path("").size() - 1, 'n') : word;
    }
    string read(cm_file *file) {
        if (file == nullptr) return "-";
        string text(2000, 0);
        int32_t got = 0;
        cm_fread(file, text.data(), 2000, &got);
        text.resize(static_cast<size_t>(got));
        if (text == string(text.size(), 'x') && got > 2) text = "*" + to_string(got);
        if (file->kind == 2) text.insert(0, "=");
        cm_fclose(file);
        return text;
    }
    string set_page(const char *path, const string &text, int32_t size, cm_cache_rec **held) {
        auto *data = new string(text);
        const int16_t taken = cm_cache_setasp(library, path, data, size, free_page, held);
        if (taken == 0) delete data;
        return to_string(taken);
    }
    string set(const string &field, int32_t value) {
        if (field == "files") cache()->files = value;
        if (field == "opens") cache()->opens = value;
        if (field == "wanted") cache()->cleanup_wanted = static_cast<int16_t>(value);
        return "ok";
    }

    cm_file *held_ = nullptr;
    cm_cache_rec *page_ = nullptr;
};

TEST_F(Cache, Steps) {
    for (const Row &row : rows("cache/steps")) {
        const testing::ScopedTrace where(__FILE__, __LINE__, row.where);
        if (row[0].starts_with("case ")) {
            for (const string &name : library.folder().names()) library.folder().remove(name != "log" ? name : "none");
            clock.set(kNow);
            cm_cache_reset(library);
            pages_freed = 0;
        } else if (row[0].starts_with("logged ")) {
            const size_t at = row[0].find('@');
            EXPECT_TRUE(library.logged(
                at == string::npos ? row[0].substr(7) : row[0].substr(7, at - 7) + path("f") + row[0].substr(at + 2)));
        } else {
            std::optional<Faults> counter;
            if (row.fields.size() > 2) counter.emplace(Faults::kBoth & ~Faults::kClock, 0);
            EXPECT_EQ(run(row[0]), row[1]);
            EXPECT_TRUE(!counter || counter->calls() == row.number(2)) << counter->calls();
        }
    }
}

TEST_F(Cache, ItsTimerIsNeverDue) {
    EXPECT_STREQ(timer()->period, "1-60/4 * * * *");
    EXPECT_EQ(timer()->origin, 101);
    EXPECT_EQ(timer()->threaded, 0);
    EXPECT_EQ(memchr(timer()->hour, 1, 24), nullptr);
    const struct {
        cm_hash **table;
        const char *message;
    } rows[] = {{&cache()->file_table, "ERROR: File cache cleanup failed."},
                {&cache()->page_table, "ERROR: ASP cache cleanup failed."}};
    for (const auto &row : rows) {
        cm_hash *const table = std::exchange(*row.table, nullptr);
        clock.advance(61);
        cache()->cleanup_wanted = 1;
        EXPECT_EQ(run("clean"), "0");
        EXPECT_TRUE(library.logged(row.message));
        *row.table = table;
    }
}

TEST_F(Cache, HandlesReadInPlace) {
    library.folder().write("f", "one\ntwo");
    cm_file *first = opened(path("f").c_str(), "any"), *second = opened(path("f").c_str(), "any");
    char line[10];
    int32_t got = 0;
    EXPECT_EQ(cm_fgetl(second, 0, line, 9, &got, nullptr), 1);
    EXPECT_EQ(got, 3);
    EXPECT_EQ(first->buffer, second->buffer);
    EXPECT_EQ(first->cache_entry->in_use, 2);
    EXPECT_EQ(first->available, 7);
    EXPECT_EQ(first->buffer[first->total], 0);
    cm_fclose(first);
    EXPECT_EQ(second->cache_entry->in_use, 1);
    cm_fclose(second);
}

TEST_F(Cache, EveryFailure) {
    run("write f text");
    each_failure(
        Faults::kBoth & ~Faults::kClock,
        [&] {
            for (const char *step : {"open f", "open f seqbinary", "stat f", "setpage f page 5", "setaddr host"})
                run(step);
        },
        [&](bool) {
            EXPECT_EQ(run("open f"), "=text");
            cm_cache_reset(library);
        });
    cm_cache_exit(library);
    string made;
    each_failure(
        Faults::kAllocations | Faults::kLocks, [&] { made = run("init"); },
        [&](bool failed) {
            EXPECT_EQ(made, library.ctx()->file_cache == nullptr ? "0" : "1");
            EXPECT_TRUE(failed || made == "1");
            cm_cache_exit(library);
        });
}

TEST_F(Cache, SixteenThreads) {
    std::atomic<int> oldest = 0;  // the version that everybody must see at least
    std::atomic<bool> done = false;
    library.ctx()->max_cached_file = library.ctx()->file_cache_size = 5000;
    const auto text_of = [](int version) {
        return to_string(version) + string(50 + static_cast<size_t>(version), '.');
    };
    library.folder().write("f", text_of(0));
    std::vector<std::thread> threads;
    for (int i = 0; i < 16; i++)
        threads.emplace_back([&, i] {
            for (int round = 0; !done; round++) {
                const int least = oldest;
                string text = run(i % 2 == 0 ? "open f" : "open f seqbinary");
                if (text[0] == '=') text.erase(0, 1);
                EXPECT_GE(atoi(text.c_str()), least);
                EXPECT_EQ(text, text_of(atoi(text.c_str())));
                if (i % 4 == 0) run("stat f");
                if (i % 4 == 1) run("setpage f page 5"), run("page f");
                if (i == 2) run("fopen f rdwr");
                if (i == 3 && round % 50 == 0) run("reset");
            }
        });
    for (int version = 1; version <= 300; version++) {
        library.folder().write("new", text_of(version));
        ASSERT_EQ(os.path_rename(path("new").c_str(), path("f").c_str()), 0);
        clock.advance(11);
        oldest = version;
        for (int i = 0; i < 20; i++) os.thread_yield();
    }
    done = true;
    for (std::thread &thread : threads) thread.join();
    EXPECT_EQ(run("open f"), "=" + text_of(300));
}

TEST(AddressesAlone, MakeNoFileCache) {
    Library library("File Cache Size = -1\nCache DNS Interval = 30");
    const string path = library.folder().write("f", "text");
    cm_file *file = nullptr;
    int16_t hit = 1;
    ASSERT_EQ(cm_fopenc(library, path.c_str(), kAny, &file), 1);
    EXPECT_EQ(file->kind, 1);
    EXPECT_EQ(cm_cache_open(library, file, kAny, &hit), 1);
    EXPECT_EQ(hit, 0);
    EXPECT_EQ(cm_cache_age(library, file), 1);
    cm_fclose(file);
    EXPECT_EQ(cm_cache_setaddr(library, "host", 1, 2, 3), 1);
    library.stop();
    Library none("File Cache Size = 0");
    EXPECT_EQ(none.ctx()->file_cache, nullptr);
}

}  // namespace
