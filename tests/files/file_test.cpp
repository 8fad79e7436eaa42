// File handles of the three kinds: the system's, the cache's and texts in memory.
#include "files/cmfile.h"

#include <set>

#include "files/cache_hook.h"
#include "files/fixture.h"

namespace cm::test {
namespace {

constexpr int32_t kRewrite = CM_O_RDWR | CM_O_CREAT | CM_O_TRUNC;
const std::map<std::string, int32_t> kFlags = {{"read", CM_O_RDONLY},
                                               {"read-write", CM_O_RDWR},
                                               {"rewrite", kRewrite},
                                               {"sequential", CM_O_SEQ},
                                               {"sequential-binary", CM_O_SEQ | CM_O_BINARY},
                                               {"binary", CM_O_BINARY}};

// The cache above, as far as files see it; it holds "cached" whatever is asked for.
struct FakeCache {
    int16_t opens = 1, hits = 0, closes = 1;
    uint32_t mode = 0;
    int opened = 0, closed = 0, aged = 0;
} fake;

const files::CacheHook kFakeHook = {
    [](cm_context *, cm_file *file, int32_t, int16_t *hit) -> int16_t {
        fake.opened++;
        *hit = fake.hits;
        if (fake.hits != 0) {
            file->buffer = "cached";
            file->total = file->available = 6;
            file->kind = files::kCachedFile;
        }
        return fake.opens;
    },
    [](cm_context *, cm_file *) { return fake.closed++, fake.closes; },
    [](cm_context *, cm_file *) { return fake.aged++, int16_t{1}; },
    [](cm_context *, const char *, cm_stat_rec *record) -> int16_t {
        *record = {};
        record->mode = fake.mode;
        return fake.mode != 0;
    },
};

struct Handles : FilesWorld {
    explicit Handles(const Row &head = {"", {""}}) {
        const bool with_cache = head.fields.size() > 1 && head[1] == "cache";
        if (head.fields.size() > 1 && head[1] == "no context") ctx = nullptr;
        fake = {};
        files::cache_hook.store(with_cache ? &kFakeHook : nullptr);
        context->file_cache = reinterpret_cast<cm_cache *>(this);
        context->file_cache_size = with_cache;

        on("open", [this](auto &words) { return cm_fopen(ctx, at(words[0]), kFlags.at(words[1]), next()); });
        on("open-cached", [this](auto &words) { return cm_fopenc(ctx, at(words[0]), CM_O_RDONLY, next()); });
        on("open-text", [this](auto &words) { return text(words.rest(0)); });
        on("close", [this](auto &) {
            const int16_t closed = cm_fclose(file);
            if (ctx == nullptr) file = nullptr;
            return closed;
        });
        on("recycled", [this](auto &) { return file == previous; });
        on("position", [this](auto &) { return file->position; });
        on("counted", [this](auto &) { return file->lines; });
        on("own-buffer", [this](auto &) { return std::string(file->own_buffer); });
        on("back-to-own-buffer", [this](auto &) { return file->buffer == file->own_buffer; });
        on("kind", [this](auto &) { return file->kind; });
        on("named", [this](auto &words) {
            EXPECT_EQ(static_cast<int32_t>(at(words[0]).text.size()), file->name_length);
            return at(words[0]).text.substr(0, 255) == file->name;
        });
        on("read", [this](auto &words) {
            std::string bytes(static_cast<size_t>(words.number(0)), '?');
            int32_t got = -1;
            if (cm_fread(file, bytes.data(), number(words), &got) == 0) return std::string("failed");
            return bytes.substr(0, static_cast<size_t>(got));
        });
        on("seek", [this](auto &words) {
            const std::map<std::string, int32_t> from = {
                {"start", CM_SEEK_START}, {"current", CM_SEEK_CURRENT}, {"end", CM_SEEK_END}};
            const int16_t done = cm_lseek(file, number(words), from.at(words[1]));
            return std::to_string(done) + " " + std::to_string(file->position);
        });
        on("write", [this](auto &words) {
            int32_t written = -1;
            const int32_t length = words[0] == "*" ? CM_LEN_TEXT : number(words);
            const int16_t done = cm_fwrite(file, words.text(1), length, &written);
            return std::to_string(done) + " " + std::to_string(written);
        });
        on("hex", [this](auto &words) {
            const std::string bytes = words.rest(1);
            cm_mutex *const mutex = words[0] == "locked" ? context->file_mutex : nullptr;
            return cm_hexwrite(file, mutex, bytes.data(), static_cast<int32_t>(bytes.size()));
        });
        on("gather", [this](auto &words) {
            return cm_lwrite(file, words.text(0), static_cast<int32_t>(words[0].size()), 0, nullptr, 0);
        });
        on("last-line", [this](auto &words) { return lines_of(folder.read(words[0])).back(); });
        on("line", [this](auto &words) { return line(number(words), false); });
        on("long-line", [this](auto &words) { return line(number(words), true); });
        on("lines", [this](auto &words) { return lines(number(words)); });
        on("lines-of", [this](auto &words) {
            const std::string name = folder.write("lines", words[1]);
            EXPECT_EQ(1, cm_fopen(ctx, name.c_str(), CM_O_RDONLY, next()));
            const std::string of_file = lines(number(words));
            EXPECT_EQ(1, text(words[1]));
            EXPECT_EQ(of_file, lines(number(words))) << "of a text in memory";
            return of_file;
        });
        on("churn", [this](auto &words) {
            int16_t done = 1;
            for (int i = 0; i < 300; i++) {
                cm_file *own = nullptr;
                char first[10];
                int32_t got = 0;
                done &= cm_fopen(ctx, at(words[0]), CM_O_RDONLY, &own) && cm_fgetl(own, 0, first, 9, &got, nullptr) &&
                        first == words[1] && cm_fclose(own);
            }
            return done;
        });
        on("free-handles", [this](auto &words) {
            std::set<cm_file *> free;
            for (cm_file *one = ctx->file_free; one != nullptr; one = one->next) EXPECT_TRUE(free.insert(one).second);
            return free.size() <= static_cast<size_t>(words.number(0));
        });
        on("cache", [this](auto &words) {
            const auto value = static_cast<int16_t>(words.number(1));
            if (words[0] == "opens") fake.opens = value;
            if (words[0] == "hits") fake.hits = value;
            if (words[0] == "closes") fake.closes = value;
            if (words[0] == "mode") fake.mode = static_cast<uint32_t>(words.number(1));
            if (words[0] == "size") context->file_cache_size = value;
        });
        on("cache-calls", [](auto &) {
            return std::to_string(fake.opened) + " " + std::to_string(fake.closed) + " " + std::to_string(fake.aged);
        });
        on("status", [this](auto &words) {
            cm_stat_rec record;
            const auto cached = static_cast<int16_t>(words[1] == "cached");
            return std::to_string(cm_stat(ctx, at(words[0]), cached, &record)) + " " +
                   std::to_string(cm_isfile(ctx, at(words[0]), cached)) + " " +
                   std::to_string(cm_isexe(ctx, at(words[0]), cached));
        });
    }
    ~Handles() override {
        cm_fclose(file);
        files::cache_hook.store(nullptr);
    }

    static int32_t number(const Words &words) { return static_cast<int32_t>(words.number(0)); }
    // Where the next handle goes.
    cm_file **next() {
        cm_fclose(file);
        previous = std::exchange(file, nullptr);
        return &file;
    }
    int16_t text(const std::string &bytes) {
        kept = bytes;
        return cm_fopens(ctx, "text", kept.data(), static_cast<int32_t>(kept.size()), next());
    }
    // One line, "+" and its whole length where a long one is cut, "-" for the end.
    std::string line(int32_t size, bool allow_long) {
        std::vector<char> out(static_cast<size_t>(size) + 1, '?');
        int32_t got = -1, full = -1;
        if (cm_fgetl(file, allow_long, out.data(), size, &got, &full) == 0) return "failed";
        if (got == 0) return "-";
        EXPECT_EQ('\0', out[static_cast<size_t>(got)]);
        EXPECT_TRUE(full == got || (allow_long && full > got && got == size));
        const std::string cut(out.data(), static_cast<size_t>(got));
        return full == got ? cut : cut + "+" + std::to_string(full);
    }
    // All of them, then how many the handle has counted and the position.
    std::string lines(int32_t size) {
        std::string all, one;
        while ((one = line(size, false)) != "-") {
            if (one == "failed") return all + one;
            all += "[" + one + "]";
        }
        return all + " " + std::to_string(file->lines) + " " + std::to_string(file->position);
    }

    cm_file *file = nullptr, *previous = nullptr;
    std::string kept;
};
SCENARIOS(FileHandles, Handles, "files/handles");

}  // namespace
}  // namespace cm::test
