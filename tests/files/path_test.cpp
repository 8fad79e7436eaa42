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

TEST_F(Files, WhatIsKnownOfAPath) {
    const std::string file = folder.write("f.txt", "12345"), empty = folder.write("e", ""), missing = path("m"),
                      device = folder.write("aux.txt", "x");
    cm_stat_rec record;
    EXPECT_EQ(1, cm_stat(nullptr, file.c_str(), 1, &record));
    EXPECT_EQ(5u, record.size);
    EXPECT_EQ(0100000u, record.mode & 0170000u);
    EXPECT_GE(0xFFFFu, record.index);
    EXPECT_GT(record.mtime, 1700000000u);
    EXPECT_EQ(0, cm_stat(nullptr, missing.c_str(), 0, &record));
    EXPECT_EQ(0, cm_stat(nullptr, device.c_str(), 0, &record));
    EXPECT_EQ(0, cm_isfile(nullptr, device.c_str(), 0));
    EXPECT_EQ(1, cm_isfile(nullptr, file.c_str(), 0));
    EXPECT_EQ(0, cm_isfile(nullptr, folder.path().c_str(), 0));
    EXPECT_EQ(0, cm_isexe(nullptr, folder.path().c_str(), 0));
    EXPECT_EQ(0, cm_isexe(nullptr, file.c_str(), 0));
    EXPECT_EQ(1, cm_isdirectory(folder.path().c_str()));
    EXPECT_EQ(0, cm_isdirectory(file.c_str()));
    EXPECT_EQ(1, cm_isempty(empty.c_str()));
    EXPECT_EQ(1, cm_isempty(missing.c_str()));
    EXPECT_EQ(0, cm_isempty(file.c_str()));
    EXPECT_EQ(1, cm_isreadonly(missing.c_str()));
    EXPECT_EQ(0, cm_isreadonly(file.c_str()));
    os.path_set_mode(file.c_str(), 0555);
    EXPECT_EQ(1, cm_isreadonly(file.c_str()));
    os.path_set_mode(file.c_str(), 0777);
    EXPECT_EQ(1, cm_access(file.c_str(), CM_ACCESS_READ));
    EXPECT_EQ(0, cm_access(missing.c_str(), CM_ACCESS_EXISTS));
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

TEST_F(Files, Renaming) {
    const std::string a = path("a"), b = path("b"), d = path("d");
    const CallRecorder calls(folder.path() + "/");
    folder.write("a", "1");
    folder.write("b", "2");
    EXPECT_EQ(1, cm_rename(a.c_str(), a.c_str()));
    EXPECT_EQ("1", folder.read("a"));
    calls.lines();
    EXPECT_EQ(1, cm_rename(a.c_str(), b.c_str()));
    EXPECT_EQ("1", folder.read("b"));
    EXPECT_FALSE(folder.exists("a"));
    EXPECT_TRUE(calls.lines("remove").empty());  // one step, never neither
    {
        const Faults faults(Faults::kFiles, 1, Faults::kInputOutput, Faults::kFromThenOn);
        EXPECT_EQ(0, cm_rename(b.c_str(), a.c_str()));
    }
    folder.write("a", "3");
    {
        const Faults faults(Faults::kFiles, 1);  // the rename itself
        EXPECT_EQ(0, cm_rename(b.c_str(), a.c_str()));
    }
    EXPECT_EQ("3", folder.read("a"));
    EXPECT_EQ("1", folder.read("b"));
    folder.make_folder("d");
    EXPECT_EQ(1, cm_rename(d.c_str(), b.c_str()));  // a folder in the place of a file
    EXPECT_EQ(1, cm_isdirectory(b.c_str()));
    EXPECT_EQ(0, cm_rename(path("missing").c_str(), a.c_str()));  // kept: the target goes first
    EXPECT_FALSE(folder.exists("a"));
    EXPECT_EQ(0, cm_rename(a.c_str(), a.c_str()));
}

TEST_F(Files, UnlinkTries) {
    int failures_left = 0;
    const Replace<&Table::path_remove> remove(
        [&](const char *path) { return failures_left-- > 0 ? CM_EACCES : platform::kSystem.path_remove(path); });
    const struct {
        const char *what;
        int32_t tries;
        int failures;
        int16_t result;
        int64_t slept_ms;
        bool there;
    } cases[] = {
        {"at once", 2, 0, 1, 0, false},
        {"never", 2, 9, 0, 2000, true},
        {"second try, mark kept, third finds nothing", 3, 1, 0, 2000, false},
        {"no tries", 0, 0, 1, 0, true},
    };
    for (const auto &[what, tries, failures, result, slept_ms, there] : cases) {
        const std::string name = folder.write("f", "x");
        const FrozenClock clock;
        failures_left = failures;
        EXPECT_EQ(result, cm_unlink(name.c_str(), tries)) << what;
        EXPECT_EQ(slept_ms, clock.slept_ms()) << what;
        EXPECT_EQ(there, folder.exists("f")) << what;
    }
    failures_left = 0;
}

class Copying : public FilesWithContext {};

TEST_F(Copying, Sizes) {
    for (const size_t size : {0u, 1u, 1023u, 1024u, 1025u, 5000u}) {
        const std::string from = folder.write("from", std::string(size, 'c')),
                          to = folder.write("to", "something longer");
        EXPECT_EQ(1, cm_cp(ctx, from.c_str(), to.c_str()));
        EXPECT_EQ(std::string(size, 'c'), folder.read("to"));
    }
    EXPECT_EQ(0, ctx->file_open);
    const std::string from = folder.write("f", "kept"), other = folder.path() + "/log/../f";
    EXPECT_EQ(0, cm_cp(ctx, from.c_str(), other.c_str()));  // never onto itself
    EXPECT_EQ("kept", folder.read("f"));
    EXPECT_EQ("Tilvar Server Error: cm_cp() '" + from + "' and '" + other + "' are the same file.\n", errors());
}

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

TEST_F(Copying, LongAndForeignNames) {
    const std::string deep = std::string(200, 'd') + "/" + std::string(200, 'e') + "/";
    for (const std::string &name : {deep + "long", std::string("gr\xC3\xBC\xC3\x9F\x65 \xE6\x97\xA5.txt")}) {
        const std::string from = folder.write(name, "content"), to = from + "2";
        cm_stat_rec record;
        EXPECT_EQ(1, cm_cp(ctx, from.c_str(), to.c_str()));
        EXPECT_EQ(1, cm_stat(ctx, to.c_str(), 0, &record));
        EXPECT_EQ(7u, record.size);
    }
}

TEST_F(Copying, Truncating) {
    const std::string name = path("f");
    EXPECT_EQ(1, cm_ftruncate(ctx, name.c_str(), 5));
    EXPECT_EQ(std::string(5, '\0'), folder.read("f"));
    folder.write("f", "123456");
    EXPECT_EQ(1, cm_ftruncate(ctx, name.c_str(), 2));
    EXPECT_EQ("12", folder.read("f"));
    EXPECT_EQ("", errors());
    EXPECT_EQ(0, cm_ftruncate(ctx, name.c_str(), -7));
    EXPECT_EQ("Tilvar Server Error: File chsize of '" + name + "(-7)' failed.\n", errors());
    EXPECT_EQ(0, cm_ftruncate(ctx, path("no/f").c_str(), 1));
    EXPECT_EQ("Tilvar Server Error: File open of '" + path("no/f") + "' failed.\n", errors());
    EXPECT_EQ(0, ctx->file_open);
}

}  // namespace
}  // namespace cm::test
