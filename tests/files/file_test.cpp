#include "files/cmfile.h"

#include <set>
#include <thread>

#include "files/cache_hook.h"
#include "files/fixture.h"

namespace cm::test {
namespace {

using files::FileCloser;

constexpr int32_t kRead = CM_O_RDONLY, kRewrite = CM_O_RDWR | CM_O_CREAT | CM_O_TRUNC;

// ---- lines ----------------------------------------------------------------------------------------------------------

struct Lines {
    Strings lines;
    int32_t counted = 0;  // by the handle
    bool failed = false;
};

Lines read_lines(cm_file *file, int32_t size, bool allow_long = false) {
    Lines result;
    std::vector<char> line(static_cast<size_t>(size) + 1, '?');
    int32_t got = -1, full = -1;
    for (;;) {
        if (cm_fgetl(file, allow_long ? 1 : 0, line.data(), size, &got, &full) == 0) {
            result.failed = true;
            break;
        }
        EXPECT_EQ('\0', line[static_cast<size_t>(got)]);
        EXPECT_TRUE(full == got || (allow_long && full > got && got == size));
        if (got == 0) break;
        result.lines.emplace_back(line.data(), static_cast<size_t>(got));
    }
    result.counted = file->lines;
    return result;
}

class LineReader : public Files {};

TEST_F(LineReader, Table) {
    const std::string x1022(1022, 'x'), x1023(1023, 'x'), x1024(1024, 'x'), x1025(1025, 'x');
    const struct {
        const char *name;
        std::string text;
        int32_t size;
        Strings lines;
        int32_t counted;
        bool failed = false;
    } rows[] = {
        {"nothing", "", 10, {}, 0},
        {"empty lines only", "\n\r\n\n", 10, {}, 3},
        {"mixed ends", "a\r\n\r\n\nb\n", 10, {"a\r", "b"}, 4},
        {"no last line feed", "a\r\n\r\n\nb", 10, {"a\r", "b"}, 3},
        {"carriage return alone at the end", "a\n\r", 10, {"a", "\r"}, 1},
        {"two carriage returns", "\r\r\n", 10, {"\r\r"}, 1},
        {"NUL inside", std::string("a\0b\n", 4), 10, {std::string("a\0b", 3)}, 1},
        {"exactly the size", "abc\nd", 3, {"abc", "d"}, 1},
        {"one too many", "abcd\nd", 3, {}, 0, true},
        {"too long without an end", "abcd", 3, {}, 0, true},
        {"line end is the last byte of a piece", x1023 + "\nb\n", 2000, {x1023, "b"}, 2},
        {"line end is the first byte of a piece", x1024 + "\nb\n", 2000, {x1024, "b"}, 2},
        {"line over two pieces", x1025 + "\nb\n", 2000, {x1025, "b"}, 2},
        {"1024 fit", x1024 + "\n", 1024, {x1024}, 1},
        {"1025 do not", x1025 + "\n", 1024, {}, 0, true},
        {"empty line at a border", x1023 + "\n" + "\nb", 2000, {x1023, "b"}, 2},
    };
    for (const auto &row : rows) {
        const std::string name = folder.write("lines", row.text);
        for (const bool in_memory : {false, true}) {
            FileCloser file;
            if (in_memory)
                ASSERT_EQ(
                    1, cm_fopens(nullptr, "text", row.text.data(), static_cast<int32_t>(row.text.size()), file.out()));
            else
                ASSERT_EQ(1, cm_fopen(nullptr, name.c_str(), kRead, file.out()));
            const Lines result = read_lines(file.get(), row.size);
            EXPECT_EQ(row.lines, result.lines) << row.name << (in_memory ? ", in memory" : "");
            EXPECT_EQ(row.counted, result.counted) << row.name;
            EXPECT_EQ(row.failed, result.failed) << row.name;
            EXPECT_EQ(row.failed ? "Tilvar Server Error: Failure reading line fgetl() - line too long.\n" : "",
                      errors());
            if (!row.failed) {
                EXPECT_EQ(row.text.size(), file.get()->position) << row.name;
            }
        }
    }
    // Kept: a carriage return that a piece ends with has been gathered when its line feed comes, so the line counts.
    const std::string name = folder.write("lines", x1022 + "\n\r\nb\n");
    FileCloser file;
    ASSERT_EQ(1, cm_fopen(nullptr, name.c_str(), kRead, file.out()));
    EXPECT_EQ((Strings{x1022, "\r", "b"}), read_lines(file.get(), 1024).lines);
}

TEST_F(LineReader, AllowLongCutsAndTellsTheLength) {
    const std::string text = std::string(3000, 'y') + "\nabc\n";
    const std::string name = folder.write("long", text);
    FileCloser file;
    ASSERT_EQ(1, cm_fopen(nullptr, name.c_str(), kRead, file.out()));
    char line[11];
    int32_t got = 0, full = 0;
    EXPECT_EQ(1, cm_fgetl(file.get(), 1, line, 10, &got, &full));
    EXPECT_EQ(std::string(10, 'y'), std::string(line, static_cast<size_t>(got)));
    EXPECT_EQ(3000, full);
    EXPECT_EQ(1, cm_fgetl(file.get(), 1, line, 10, &got, nullptr));
    EXPECT_STREQ("abc", line);
    EXPECT_EQ(1, cm_fgetl(file.get(), 1, line, 0, &got, &full));
    EXPECT_EQ(0, got);
}

TEST_F(LineReader, AReadErrorIsNotTheEnd) {
    const std::string name = folder.write("f", std::string(1024, 'x') + "tail\n");
    FileCloser file;
    ASSERT_EQ(1, cm_fopen(nullptr, name.c_str(), kRead, file.out()));
    char line[2001];
    int32_t got = 0;
    EXPECT_EQ(1, cm_fread(file.get(), line, 1000, &got));
    {
        const Replace<&Table::file_read> broken([](auto...) { return Faults::kInputOutput; });
        EXPECT_EQ(0, cm_fgetl(file.get(), 0, line, 2000, &got, nullptr));
        EXPECT_EQ("Tilvar Server Error: File read of '" + name + "' failed.\n", errors());
        EXPECT_EQ(0, cm_fread(file.get(), line, 10, &got));
    }
    EXPECT_EQ(1, cm_fgetl(file.get(), 0, line, 2000, &got, nullptr));
    EXPECT_STREQ("tail", line);
}

// ---- reading, writing, seeking --------------------------------------------------------------------------------------

TEST_F(Files, ReadsAcrossPieces) {
    std::string text;
    for (int i = 0; i < 3000; i++) text += static_cast<char>('a' + i % 26);
    const std::string name = folder.write("f", text);
    FileCloser file, memory;
    ASSERT_EQ(1, cm_fopen(nullptr, name.c_str(), kRead, file.out()));
    ASSERT_EQ(1, cm_fopens(nullptr, "m", text.c_str(), CM_LEN_TEXT, memory.out()));
    for (cm_file *source : {file.get(), memory.get()}) {
        std::string all;
        char piece[700];
        int32_t got = 0;
        do {
            ASSERT_EQ(1, cm_fread(source, piece, sizeof piece, &got));
            all.append(piece, static_cast<size_t>(got));
        } while (got > 0);
        EXPECT_EQ(text, all);
        EXPECT_EQ(3000u, source->position);
    }
    EXPECT_EQ('\0', file.get()->own_buffer[0]);
    EXPECT_EQ(0, cm_fwrite(memory.get(), "x", 1, nullptr));
    EXPECT_EQ(0, cm_hexwrite(memory.get(), nullptr, "x", 1));
}

TEST_F(Files, Seeking) {
    const std::string text = std::string(2000, 'x') + "0123456789";
    const std::string name = folder.write("f", text);
    const struct {
        int32_t offset, whence;
        bool memory;
        int16_t result;
        uint32_t position;
        std::string next;  // up to three bytes read afterwards
    } rows[] = {
        {2005, CM_SEEK_START, false, 1, 2005, "567"},
        {976, CM_SEEK_CURRENT, false, 1, 976, "012"},  // 1024 were read ahead for the first 10
        {-4, CM_SEEK_END, false, 1, static_cast<uint32_t>(-4), "678"},
        {-1, CM_SEEK_START, false, 0, static_cast<uint32_t>(-1), "xxx"},
        {2005, CM_SEEK_START, true, 1, 10, "567"},
        {2010, CM_SEEK_START, true, 1, 10, ""},
        {2011, CM_SEEK_START, true, 0, 10, "xxx"},
        {-1, CM_SEEK_START, true, 0, 10, "xxx"},
        {1, CM_SEEK_CURRENT, true, 0, 10, "xxx"},
    };
    for (const auto &row : rows) {
        FileCloser file;
        if (row.memory)
            ASSERT_EQ(1, cm_fopens(nullptr, "m", text.c_str(), CM_LEN_TEXT, file.out()));
        else
            ASSERT_EQ(1, cm_fopen(nullptr, name.c_str(), kRead, file.out()));
        char bytes[10] = {};
        int32_t got = 0;
        ASSERT_EQ(1, cm_fread(file.get(), bytes, 10, &got));
        EXPECT_EQ(row.result, cm_lseek(file.get(), row.offset, row.whence)) << row.offset << ", " << row.whence;
        EXPECT_EQ(row.position, file.get()->position);
        ASSERT_EQ(1, cm_fread(file.get(), bytes, 3, &got));
        EXPECT_EQ(row.next, std::string(bytes, static_cast<size_t>(got))) << row.offset << ", " << row.whence;
    }
}

TEST_F(Files, TheEndMarkOfTheLineReader) {
    const std::string name = folder.write("f", "one\ntwo\n");
    FileCloser file;
    ASSERT_EQ(1, cm_fopen(nullptr, name.c_str(), kRead, file.out()));
    EXPECT_EQ(1, cm_lseek(file.get(), -4, CM_SEEK_END));
    EXPECT_TRUE(read_lines(file.get(), 10).lines.empty());  // kept: the end is the end for lines
    EXPECT_EQ(1, cm_lseek(file.get(), 4, CM_SEEK_START));
    EXPECT_EQ((Strings{"two"}), read_lines(file.get(), 10).lines);
}

platform::Error full(int32_t, const void *, size_t, size_t *written) {
    *written = 0;
    return Faults::kNoSpace;
}

TEST_F(Files, Writing) {
    const std::string name = path("f");
    FileCloser file;
    ASSERT_EQ(1, cm_fopen(nullptr, name.c_str(), kRewrite, file.out()));
    int32_t written = -1;
    EXPECT_EQ(1, cm_fwrite(file.get(), "text", CM_LEN_TEXT, &written));
    EXPECT_EQ(4, written);
    EXPECT_EQ(1, cm_fwrite(file.get(), "text", -1, &written));
    EXPECT_EQ(0, written);
    {
        const Replace<&Table::file_write> disk([](int32_t descriptor, const void *data, size_t, size_t *out) {
            platform::kSystem.file_write(descriptor, data, 3, out);
            return Faults::kNoSpace;
        });
        EXPECT_EQ(1, cm_fwrite(file.get(), "12345", 5, &written));  // kept
        EXPECT_EQ(3, written);
        EXPECT_EQ("Tilvar Server Error: cm_fwrite(28) to file failed [3/5 bytes].\n", errors());
    }
    {
        const Replace<&Table::file_write> disk(full);
        EXPECT_EQ(0, cm_fwrite(file.get(), "12345", 5, &written));
        EXPECT_EQ(0, written);
        EXPECT_EQ("Tilvar Server Error: cm_fwrite(28) to file failed [5 bytes].\n", errors());
    }
    EXPECT_TRUE(file.close());
    EXPECT_EQ("text123", folder.read("f"));
}

TEST_F(FilesWithContext, HexDump) {
    const std::string name = path("dump");
    cm_mutex *mutex = nullptr;
    ASSERT_EQ(1, cm_create_mutex(ctx, &mutex));
    FileCloser file;
    ASSERT_EQ(1, cm_fopen(ctx, name.c_str(), kRewrite, file.out()));
    EXPECT_EQ(1, cm_lwrite(file.get(), "waiting", 7, 0, nullptr, 0));
    EXPECT_EQ(1, cm_hexwrite(file.get(), mutex, "GET / HTTP/1.0\r\n\xE4 ~\x7F", 20));
    EXPECT_EQ(1, cm_hexwrite(file.get(), mutex, "x", 0));
    EXPECT_EQ(
        "waiting\n"
        "000000:  47 45 54 20 2F 20 48 54 : 54 50 2F 31 2E 30 0D 0A   GET / HTTP/1.0..\n"
        "000010:  E4 20 7E 7F             :                           . ~.............\n",
        folder.read("dump"));
    EXPECT_EQ(3, file.get()->lines);

    ASSERT_EQ(1, cm_hexwrite(file.get(), nullptr, std::string(1000, 'x').data(), 1000));
    const Strings lines = lines_of(folder.read("dump"));
    ASSERT_EQ(3u + 63u, lines.size());
    EXPECT_EQ("0003E0:  78 78 78 78 78 78 78 78 :                           xxxxxxxx........", lines.back());
    const Replace<&Table::file_write> disk(full);
    EXPECT_EQ(0, cm_hexwrite(file.get(), nullptr, "x", 1));
    cm_delete_mutex(mutex);
}

// ---- handles --------------------------------------------------------------------------------------------------------

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
                EXPECT_EQ((Strings{"text"}), read_lines(file, 10).lines);
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
