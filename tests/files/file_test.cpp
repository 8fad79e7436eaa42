#include "files/cmfile.h"

#include <set>
#include <thread>

#include "files/cache_hook.h"
#include "files/fixture.h"

namespace cm::test {
namespace {

using files::FileCloser;

constexpr int32_t kRead = CM_O_RDONLY, kRewrite = CM_O_RDWR | CM_O_CREAT | CM_O_TRUNC;

TEST_F(FilesWithContext, HandlesAreRecycled) {
    const std::string name = folder.write("f", "text");
    cm_file *first = nullptr, *second = nullptr;
    ASSERT_EQ(1, cm_fopen(ctx, name.c_str(), kRead, &first));
    EXPECT_EQ(1, ctx->file_open);
    char *const buffer = first->own_buffer;
    EXPECT_EQ(1, cm_fclose(first));
    EXPECT_EQ(0, cm_fclose(first));  // a second close changes nothing
    EXPECT_EQ(0, ctx->file_open);
    EXPECT_EQ(nullptr, first->next);
    ASSERT_EQ(1, cm_fopens(ctx, "m", "abc", CM_LEN_TEXT, &second));
    EXPECT_EQ(first, second);
    EXPECT_EQ(0u, second->position);
    EXPECT_EQ(1, cm_fclose(second));
    EXPECT_EQ(buffer, second->buffer);
    EXPECT_EQ(0, cm_fopen(ctx, path("missing").c_str(), kRead, &first));
    EXPECT_EQ(0, ctx->file_open);
    EXPECT_EQ("Tilvar Server Error: File open of '" + path("missing") + "' failed.\n", errors());
    EXPECT_EQ(0, cm_fopenc(ctx, path("missing").c_str(), kRead, &first));
    EXPECT_EQ("Tilvar Server Error: File openc of '" + path("missing") + "' failed.\n", errors());
    EXPECT_EQ(0, cm_fopen(ctx, folder.path().c_str(), kRead, &first));
    EXPECT_EQ(0, cm_fclose(nullptr));
}

TEST_F(FilesWithContext, HandlesOfManyThreads) {
    const std::string name = folder.write("f", "text\n");
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; i++) {
        threads.emplace_back([&] {
            for (int n = 0; n < 300; n++) {
                cm_file *file = nullptr;
                ASSERT_EQ(1, cm_fopen(ctx, name.c_str(), kRead, &file));
                char text[10] = "";
                int32_t got = 0;
                EXPECT_EQ(1, cm_fread(file, text, sizeof text, &got));
                EXPECT_STREQ("text\n", text);
                EXPECT_EQ(1, cm_fclose(file));
            }
        });
    }
    for (std::thread &thread : threads) thread.join();
    EXPECT_EQ(0, ctx->file_open);
    std::set<cm_file *> free;
    for (cm_file *file = ctx->file_free; file != nullptr; file = file->next) EXPECT_TRUE(free.insert(file).second);
    EXPECT_LE(free.size(), 4u);
}

TEST_F(FilesWithContext, NamesAreCutAndTheirLengthIsNot) {
    const std::string name =
        folder.write(std::string(150, 'd') + "/" + std::string(150, 'e') + "/" + std::string(100, 'f'), "1");
    ASSERT_GT(name.size(), 400u);
    FileCloser file;
    ASSERT_EQ(1, cm_fopen(ctx, name.c_str(), kRead, file.out()));
    EXPECT_EQ(static_cast<int32_t>(name.size()), file.get()->name_length);
    EXPECT_EQ(name.substr(0, 255), file.get()->name);
}

TEST_F(FilesWithContext, FailedAllocations) {
    const std::string name = folder.write("f", "text");
    for (cm_context *const owner : {static_cast<cm_context *>(nullptr), ctx}) {
        std::string messages;
        int16_t opened = 0;
        each_failure(
            Faults::kAllocations,
            [&] {
                cm_file *file = nullptr;
                opened = cm_fopen(owner, name.c_str(), kRead, &file);
                EXPECT_EQ(owner == nullptr ? 0 : opened, ctx->file_open);
                EXPECT_EQ(opened, cm_fclose(file));
            },
            [&](bool injected, size_t leaked) {
                EXPECT_TRUE(opened == 0 ? injected : !injected || owner != nullptr);
                EXPECT_TRUE(leaked == 0 || owner != nullptr);
                messages += errors();
            });
        if (owner == nullptr) {
            EXPECT_EQ(
                "Tilvar Server Error: Memory allocation of file handle failed.\n"
                "Tilvar Server Error: Memory allocation of file buffer failed.\n",
                messages);
        } else {  // nothing of the pool's is said twice
            EXPECT_EQ(std::string::npos, messages.find("file handle failed"));
        }
    }
}

// ---- the cache above ------------------------------------------------------------------------------------------------

struct FakeCache {
    int16_t open_result = 1, hit = 0, close_result = 1;
    uint32_t mode = 0;
    int opened = 0, closed = 0, aged = 0;
};
FakeCache fake;
const char *const kCached = "cached";

const files::CacheHook kFakeHook = {
    [](cm_context *, cm_file *file, int32_t, int16_t *hit) -> int16_t {
        fake.opened++;
        *hit = fake.hit;
        if (fake.hit != 0) {
            file->buffer = kCached;
            file->total = file->available = 6;
            file->kind = files::kCachedFile;
        }
        return fake.open_result;
    },
    [](cm_context *, cm_file *) -> int16_t {
        fake.closed++;
        return fake.close_result;
    },
    [](cm_context *, cm_file *) -> int16_t {
        fake.aged++;
        return 1;
    },
    [](cm_context *, const char *, cm_stat_rec *record) -> int16_t {
        *record = {};
        record->mode = fake.mode;
        return fake.mode != 0;
    },
};

class WithCache : public FilesWithContext {
protected:
    WithCache() {
        fake = {};
        files::cache_hook.store(&kFakeHook);
        ctx->file_cache = reinterpret_cast<cm_cache *>(this);
        ctx->file_cache_size = 1;
    }
    ~WithCache() override { files::cache_hook.store(nullptr); }
};

TEST_F(WithCache, OpensThroughIt) {
    const std::string name = folder.write("f", "on disk");
    char line[20];
    int32_t got = 0;
    for (const int16_t hit : {0, 1}) {
        fake.hit = hit;
        cm_file *file = nullptr;
        ASSERT_EQ(1, cm_fopenc(ctx, name.c_str(), kRead, &file));
        EXPECT_EQ(1, cm_fgetl(file, 0, line, 19, &got, nullptr));
        EXPECT_STREQ(hit != 0 ? "cached" : "on disk", line);
        EXPECT_EQ(hit != 0 ? 2 : 1, file->kind);
        if (hit != 0) {
            fake.close_result = 0;
            EXPECT_EQ(0, cm_fclose(file));  // refused, and still open
            EXPECT_EQ(1, ctx->file_open);
            fake.close_result = 1;
        }
        EXPECT_EQ(1, cm_fclose(file));
        EXPECT_EQ(file->own_buffer, file->buffer);
    }
    EXPECT_EQ(2, fake.closed);
    fake.open_result = 0;
    cm_file *file = nullptr;
    EXPECT_EQ(0, cm_fopenc(ctx, name.c_str(), kRead, &file));
    EXPECT_EQ(0, ctx->file_open);
    ctx->file_cache_size = 0;  // an address cache alone
    EXPECT_EQ(1, cm_fopenc(ctx, name.c_str(), kRead, &file));
    EXPECT_EQ(1, cm_fclose(file));
    EXPECT_EQ(3, fake.opened);
}

TEST_F(WithCache, OnlySequentialReadersDoNotAgeIt) {
    const std::string name = folder.write("f", "");
    const struct {
        int32_t flags;
        int aged;
    } rows[] = {
        {CM_O_SEQ, 0}, {CM_O_SEQ | CM_O_BINARY, 0}, {CM_O_RDONLY, 1}, {CM_O_BINARY, 1}, {kRewrite, 1},
    };
    for (const auto &row : rows) {
        fake.aged = 0;
        FileCloser file;
        ASSERT_EQ(1, cm_fopen(ctx, name.c_str(), row.flags, file.out()));
        EXPECT_EQ(row.aged, fake.aged) << row.flags;
    }
}

TEST_F(WithCache, AnswersStat) {
    const std::string name = folder.write("con.txt", "12");
    cm_stat_rec record;
    const struct {
        uint32_t mode;
        int16_t stat, file, exe;
    } rows[] = {
        {0100644, 1, 1, 0},
        {0100755, 1, 1, 1},
        {0040755, 1, 0, 1},
        {0, 0, 0, 0},
    };
    for (const auto &row : rows) {
        fake.mode = row.mode;
        EXPECT_EQ(row.stat, cm_stat(ctx, name.c_str(), 1, &record));
        EXPECT_EQ(row.file, cm_isfile(ctx, name.c_str(), 1));
        EXPECT_EQ(row.exe, cm_isexe(ctx, name.c_str(), 1));  // kept: the bit alone
    }
    EXPECT_EQ(0, cm_stat(ctx, name.c_str(), 0, &record));
    EXPECT_EQ(0, cm_isfile(ctx, name.c_str(), 0));
}

}  // namespace
}  // namespace cm::test
