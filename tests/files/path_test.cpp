#include "files/cmpath.h"

#include <memory>

#include "files/cmfile.h"
#include "files/fixture.h"

namespace cm::test {
namespace {

TEST(Paths, DeviceNames) {
    for (const char *name : {"con", "CON.txt", "x/lpt1.log", "clock$", "config$", "AUX", "nul.", "prn.a.b", "com9",
                             "a\\Com1", "/nul", "c:/LPT9"})
        EXPECT_TRUE(files::is_device_name(name)) << name;
    for (const char *name :
         {"console", "com10", "com0", "lpt", "comx", "con/a", "con ", "xcon", "", "clock", ".con", "a.con",
          "\xC3\xA4"
          "con"})
        EXPECT_FALSE(files::is_device_name(name)) << name;
}

// Runs a path function in storage of exactly `size` bytes, so that a sanitizer sees any byte too much.
template <class Run>
std::string in_exactly(int32_t size, Run run) {
    const std::unique_ptr<char[]> out(new char[static_cast<size_t>(size)]);
    int32_t length = -1;
    if (run(out.get(), size, &length) == 0) return "(fails)";
    EXPECT_EQ('\0', out[static_cast<size_t>(length)]);
    return {out.get(), static_cast<size_t>(length)};
}

const char *pointer(const std::string &field) {
    return field == "-" ? nullptr : field.c_str();
}

class BuildPath : public FilesWithContext {};

TEST_F(BuildPath, Table) {
    for (const Row &row : rows("files/build_path")) {
        SCOPED_TRACE(row.where);
        const char *const root = pointer(row[0]), *const directory = pointer(row[1]), *const name = pointer(row[2]);
        ctx->root_dir = root;
        ctx->root_len = root == nullptr ? 0 : CM_LEN_TEXT;
        const auto build = [&](char *out, int32_t size, int32_t *length) {
            return cm_build_path(root == nullptr ? nullptr : ctx, directory, name, out, size, length);
        };
        size_t room = 3;
        for (const char *part : {root, directory, name}) room += part == nullptr ? 0 : strlen(part);
        EXPECT_EQ(row[3], in_exactly(static_cast<int32_t>(room), build));
        EXPECT_EQ("", errors());
        EXPECT_EQ("(fails)", in_exactly(static_cast<int32_t>(room) - 1, build));
        EXPECT_EQ("Tilvar Server Error: cm_build_path() failed.  Buffer provided is too small.\n", errors());
    }
}

std::string clean(const char *base, const char *relative, int32_t size) {
    return in_exactly(size, [&](char *out, int32_t room, int32_t *length) {
        return cm_cleanup_path(nullptr, base, CM_LEN_TEXT, relative, CM_LEN_TEXT, out, room, length);
    });
}

TEST(CleanupPath, Table) {
    for (const Row &row : rows("files/cleanup_path"))
        EXPECT_EQ(row[2], clean(pointer(row[0]), pointer(row[1]), 64)) << row.where;
}

// Every short text of the bytes that matter: never longer, never outside its storage, and no parent step left behind
// the first byte that is not at the very end.
TEST(CleanupPath, EveryShortText) {
    const std::string_view alphabet = "/\\.a";
    std::string text;
    for (int length = 1; length <= 6; length++) {
        for (int number = 0; number < 1 << (2 * length); number++) {
            text.clear();
            for (int i = 0; i < length; i++) text += alphabet[static_cast<size_t>(number >> (2 * i) & 3)];
            const std::string result = clean(text.c_str(), nullptr, length + 1);
            if (result == "(fails)") continue;
            EXPECT_LE(result.size(), text.size()) << text;
            EXPECT_EQ(std::string::npos, result.find("/../", 1)) << text;
            EXPECT_EQ(std::string::npos, result.find('\\', 1)) << text;
        }
    }
    EXPECT_EQ("(fails)", clean("abcd", nullptr, 4));  // no room for the end
    EXPECT_EQ("(fails)", clean("abcde", nullptr, 4));
    EXPECT_EQ("(fails)", clean("ab", "c", 4));
    EXPECT_EQ("ab/c", clean("ab", "c", 5));
    EXPECT_EQ("abc/", in_exactly(8, [](char *out, int32_t size, int32_t *length) {
                  return cm_cleanup_path(nullptr, "abcdef", 3, "x", -1, out, size, length);
              }));
}

TEST_F(Files, StatIsOfPlainFilesAndSaturates) {
    const Replace<&Table::path_status> status([](std::string_view path, bool, platform::FileStatus *out) -> Error {
        *out = {};
        out->type = path == "tty" ? platform::FileType::kCharacterDevice : platform::FileType::kRegular;
        out->index = 0x123456789ABCD;
        out->size = 5ull << 32;
        out->mtime = -1;
        return 0;
    });
    cm_stat_rec record;
    EXPECT_EQ(0, cm_stat(nullptr, "tty", 0, &record));
    EXPECT_EQ(1, cm_stat(nullptr, "f", 0, &record));
    EXPECT_EQ(0xABCDu, record.index);
    EXPECT_EQ(UINT32_MAX, record.size);
    EXPECT_EQ(0u, record.mtime);
}

class Copying : public FilesWithContext {};

TEST_F(Copying, EveryFailedStep) {
    const std::string bytes(2500, 'c'), from = folder.write("from", bytes), to = path("to");
    int16_t copied = 0;
    each_failure(
        Faults::kBoth & ~Faults::kLocks, [&] { copied = cm_cp(ctx, from.c_str(), to.c_str()); },
        [&](bool injected) {
            EXPECT_TRUE(copied == 0 ? injected : folder.read("to") == bytes);
            EXPECT_EQ(0, ctx->file_open);
            EXPECT_EQ(bytes, folder.read("from"));
        });
}

}  // namespace
}  // namespace cm::test
