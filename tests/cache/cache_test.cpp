// The file cache: what it serves without the system, when it asks the disk again, and what stays for its holders.
#include <atomic>
#include <filesystem>
#include <map>
#include <thread>

#include "core/cmthread.h"
#include "files/cmcron.h"
#include "support/failures.h"
#include "support/scenario.h"

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
const std::map<string, int32_t> kModes = {{"", kAny},
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

// A scheduler without a thread in the place of the library's own.
void scheduler_by_hand(cm_context *ctx) {
    static cm_thread nobody;
    EXPECT_TRUE(ctx->cron == nullptr || ctx->cron->thread == &nobody || cm_terminate_thread(ctx->cron->thread) == 1);
    ctx->cron = nullptr;
    EXPECT_EQ(cm_cron_init(ctx), 1);
    ctx->cron->thread = &nobody;
}

// The steps of data/steps.txt.
struct Cache : World {
    explicit Cache(const Row &head = {"", {}}) : library(head.fields.size() > 1 ? head.text(1) : kSettings) {
        scheduler_by_hand(library.ctx());
        cm_cache_exit(library);
        cm_cache_init(library);
        pages_freed = 0;
        files();
        pages_and_addresses();
        inside();
    }
    ~Cache() {
        library.stop();
        EXPECT_EQ(leaks.outstanding(), 0u);
    }
    string step(const string &words) { return run(Words(words)); }

    void files() {
        on("write", [this](auto &words) { library.folder().write(expanded(words[0]), expanded(words[1])); });
        on("remove", [this](auto &words) { library.folder().remove(words[0]); });
        on("touch", [this](auto &words) {
            const string name = path(words);
            fs::last_write_time(name, fs::last_write_time(name) + std::chrono::seconds(5));
        });
        on("open", [this](auto &words) { return read(opened(path(words), words[1])); });
        on("same", [this](auto &words) {
            const string text = read(opened(path(words))), there = library.folder().read(words[0]);
            // A file under two spellings changes under the cache's feet and is read past it once.
            return text == "=" + there || (cm::platform::kFoldsPathCase && text == there);
        });
        on("hold", [this](auto &words) { return (held = opened(path(words))) != nullptr; });
        on("held", [this](auto &) { return string(held->buffer, static_cast<size_t>(held->total)); });
        on("drop", [this](auto &) { return cm_fclose(held); });
        on("fopen", [this](auto &words) {
            cm_file *file = nullptr;
            return cm_fopen(library, path(words).c_str(), kModes.at(words[1]), &file) == 1 && cm_fclose(file) == 1;
        });
        on("stat", [this](auto &words) {
            cm_stat_rec record;
            return cm_stat(library, path(words).c_str(), 1, &record) == 1 ? to_string(record.size) : "-";
        });
    }
    void pages_and_addresses() {
        on("page", [this](auto &words) -> string {
            cm_cache_rec *entry = nullptr;
            void *data = nullptr;
            if (cm_cache_getasp(library, path(words).c_str(), &data, &entry) == 0) return "-";
            const string text = *static_cast<string *>(data);
            return cm_cache_freeasp(library, entry), text;
        });
        on("setpage", [this](auto &words) { return set_page(words, nullptr); });
        on("holdpage", [this](auto &words) { return set_page(words, &page); });
        on("heldpage", [this](auto &) { return *static_cast<string *>(page->data); });
        on("droppage", [this](auto &) { return cm_cache_freeasp(library, page); });
        on("freed", [](auto &) { return pages_freed.load(); });
        on("setaddr", [this](auto &words) { return cm_cache_setaddr(library, expanded(words[0]).c_str(), 1, 2, 3); });
        on("addr", [this](auto &words) {
            uint32_t a = 1, b = 2, c = 3;
            return cm_cache_getaddr(library, expanded(words[0]).c_str(), &a, &b, &c) * (a * 100 + b * 10 + c);
        });
        on("addresses", [this](auto &words) {
            for (int i = 0; i < words.number(0); i++) cm_cache_setaddr(library, to_string(i).c_str(), 1, 2, 3);
            return cache()->addresses->entries;
        });
    }
    void inside() {
        on("counts", [this](auto &) {
            return to_string(cache()->files) + " " + to_string(cache()->pages) + " " + to_string(cache()->bytes) + " " +
                   to_string(cache()->cleanup_wanted);
        });
        on("opens", [this](auto &) { return to_string(cache()->opens) + " " + to_string(cache()->hits); });
        on("set", [this](auto &words) {
            const auto value = static_cast<int32_t>(words.number(1));
            if (words[0] == "files") cache()->files = value;
            if (words[0] == "opens") cache()->opens = value;
            if (words[0] == "wanted") cache()->cleanup_wanted = static_cast<int16_t>(value);
        });
        on("timer", [this](auto &) {
            return string(timer()->period) + ", origin " + to_string(timer()->origin) + ", on " +
                   (timer()->threaded ? "a thread of its own" : "its scheduler's thread") +
                   ", hours: " + (memchr(timer()->hour, 1, 24) == nullptr ? "none" : "some");
        });
        on("clean", [this](auto &) { return timer()->function(library, timer()->name, timer()->argument); });
        on("without", [this](auto &words) {
            cm_hash *&table = words[0] == "files" ? cache()->file_table : cache()->page_table;
            cm_hash *const kept = std::exchange(table, nullptr);
            const string result = run(words.from(1));
            return table = kept, result;
        });
        on("advance", [this](auto &words) { clock.advance(words.number(0)); });
        on("clock", [this](auto &words) { clock.set(kNow + words.number(0)); });
        on("just-after", [this](auto &words) {
            cm::platform::FileStatus status = {};
            os.path_status(path(words).c_str(), true, &status);
            clock.set(status.mtime + words.number(1));
        });
        on("reset", [this](auto &) { return cm_cache_reset(library); });
        on("exit", [this](auto &) { return cm_cache_exit(library); });
        on("init", [this](auto &) { return cm_cache_init(library); });
        on("logged", [this](auto &words) {
            string line = words.rest(0);
            if (const size_t at = line.find("@f"); at != line.npos) line.replace(at, 2, library.folder().path("f"));
            return library.logged(line);
        });
    }

    // "*N": a text of N letters; "~N": a name whose path has N.
    string expanded(const string &word) {
        const size_t count = word.size() > 1 ? strtoul(word.c_str() + 1, nullptr, 10) : 0;
        return word[0] == '*'   ? string(count, 'x')
               : word[0] == '~' ? string(count - library.folder().path("").size() - 1, 'n')
                                : word;
    }
    string path(const Words &words) { return library.folder().path(expanded(words[0])); }
    cm_cache *cache() { return library.ctx()->file_cache; }
    cm_cron_rec *timer() {
        cm_cron_rec *task = library.ctx()->cron->periodic;
        while (task->name != string("Cache File Timer")) task = task->next;
        return task;
    }
    cm_file *opened(const string &path, const string &mode = "") {
        cm_file *file = nullptr;
        cm_fopenc(library, path.c_str(), kModes.at(mode), &file);
        return file;
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
    int16_t set_page(const Words &words, cm_cache_rec **out_held) {
        auto *data = new string(words[1]);
        const int16_t taken = cm_cache_setasp(library, path(words).c_str(), data, static_cast<int32_t>(words.number(2)),
                                              free_page, out_held);
        if (taken == 0) delete data;
        return taken;
    }

    FrozenClock clock{kNow};
    LeakCheck leaks;
    Library library;
    cm_file *held = nullptr;
    cm_cache_rec *page = nullptr;
};
SCENARIOS(CacheScenarios, Cache, "cache/steps");

TEST(CacheHandles, ReadInPlace) {
    Cache cache;
    cache.step("write f one\\ntwo");
    cm_file *first = cache.opened(cache.library.folder().path("f")), *second = cache.opened(first->name);
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

TEST(CacheHandles, WithACacheForAddressesAlone) {
    Cache cache({"", {"", "File Cache Size = -1\nCache DNS Interval = 30"}});
    cache.step("write f text");
    cm_file *file = cache.opened(cache.library.folder().path("f"));
    int16_t hit = 1;
    EXPECT_EQ(cm_cache_open(cache.library, file, kAny, &hit), 1);
    EXPECT_EQ(hit, 0);
    EXPECT_EQ(cm_cache_age(cache.library, file), 1);
    EXPECT_EQ(cache.read(file), "text");
}

TEST(CacheFailures, EveryOne) {
    Cache cache;
    cache.step("write f text");
    each_failure(
        Faults::kBoth & ~Faults::kClock,
        [&] {
            for (const char *step : {"open f", "open f seqbinary", "stat f", "setpage f page 5", "setaddr host"})
                cache.step(step);
        },
        [&](bool) {
            EXPECT_EQ(cache.step("open f"), "=text");
            cache.step("reset");
        });
    cache.step("exit");
    string made;
    each_failure(
        Faults::kAllocations | Faults::kLocks, [&] { made = cache.step("init"); },
        [&](bool failed) {
            EXPECT_EQ(made, cache.cache() == nullptr ? "0" : "1");
            EXPECT_TRUE(failed || made == "1");
            cache.step("exit");
        });
}

TEST(CacheThreads, SixteenSeeNoStaleByteAfterTheInterval) {
    Cache cache;
    std::atomic<int> oldest = 0;  // the version that everybody must see at least
    std::atomic<bool> done = false, replacing = false;
    cache.library.ctx()->max_cached_file = cache.library.ctx()->file_cache_size = 5000;
    const auto text_of = [](int version) {
        return to_string(version) + string(50 + static_cast<size_t>(version), '.');
    };
    const TempFolder &folder = cache.library.folder();
    folder.write("f", text_of(0));
    std::vector<std::thread> threads;
    for (int i = 0; i < 16; i++)
        threads.emplace_back([&, i] {
            for (int round = 0; !done; round++) {
                while (replacing) std::this_thread::sleep_for(std::chrono::milliseconds(1));
                const int least = oldest;
                string text = cache.step(i % 2 == 0 ? "open f" : "open f seqbinary");
                if (text[0] == '=') text.erase(0, 1);
                EXPECT_GE(atoi(text.c_str()), least);
                EXPECT_EQ(text, text_of(atoi(text.c_str())));
                if (i % 4 == 0) cache.step("stat f");
                if (i % 4 == 1) cache.step("setpage f page 5"), cache.step("page f");
                if (i == 2) cache.step("fopen f rdwr");
                if (i == 3 && round % 50 == 0) cache.step("reset");
            }
        });
    for (int version = 1; version <= 300; version++) {
        folder.write("new", text_of(version));
        replacing = cm::platform::kFoldsPathCase;  // such a system may refuse it while somebody has the file open
        EXPECT_EQ(os.path_rename(folder.path("new").c_str(), folder.path("f").c_str()), 0);
        replacing = false;
        cache.clock.advance(11);
        oldest = version;
        for (int i = 0; i < 20; i++) os.thread_yield();
    }
    done = true;
    for (std::thread &thread : threads) thread.join();
    EXPECT_EQ(cache.step("open f"), "=" + text_of(300));
}

}  // namespace
