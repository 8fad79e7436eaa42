// Paths as texts: devices, joining, tidying, patterns, the folder part.
#include "files/cmpath.h"

#include "files/cmdir.h"
#include "files/cmfile.h"
#include "files/durable.h"
#include "files/fixture.h"

namespace cm::test {
namespace {

TEST(Paths, DevicesAndFolderParts) {
    for (const Row &row : rows("files/paths")) {
        EXPECT_EQ(row[1], files::folder_of(row[0])) << row.where;
        EXPECT_EQ(row[2] == "device", files::is_device_name(row[0])) << row.where;
    }
    EXPECT_TRUE(files::is_device_name("a\\Com1"));
}

TEST(Paths, Patterns) {
    for (const Row &row : rows("files/patterns"))
        EXPECT_EQ(row.number(2), files::matches_pattern(row.text(0), row.text(1))) << row.where;
    std::string stars;
    for (int i = 0; i < 120; i++) stars += "*a";
    EXPECT_FALSE(files::matches_pattern(stars + "b", std::string(259, 'a')));  // at once
}

// Runs a path function in storage of exactly `size` bytes, so that a sanitizer sees any byte too much.
template <class Run>
std::string in_exactly(size_t size, Run run) {
    const std::unique_ptr<char[]> out(new char[size]);
    int32_t length = -1;
    if (run(out.get(), static_cast<int32_t>(size), &length) == 0) return "(fails)";
    EXPECT_EQ('\0', out[static_cast<size_t>(length)]);
    return {out.get(), static_cast<size_t>(length)};
}

const char *pointer(const std::string &field) {
    return field == "-" ? nullptr : field.c_str();
}

struct BuildPath : testing::Test, FilesWorld {};

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
        EXPECT_EQ(row[3], in_exactly(room, build));
        EXPECT_EQ("", told());
        EXPECT_EQ("(fails)", in_exactly(room - 1, build));
        EXPECT_EQ("Tilvar Server Error: cm_build_path() failed.  Buffer provided is too small.\n", told());
    }
}

std::string clean(const char *base, const char *relative, size_t size, int32_t base_length = CM_LEN_TEXT) {
    return in_exactly(size, [&](char *out, int32_t room, int32_t *length) {
        return cm_cleanup_path(nullptr, base, base_length, relative, CM_LEN_TEXT, out, room, length);
    });
}

TEST(CleanupPath, Table) {
    for (const Row &row : rows("files/cleanup_path"))
        EXPECT_EQ(row[2], clean(pointer(row[0]), pointer(row[1]), 64)) << row.where;
    EXPECT_EQ("(fails)", clean("abcd", nullptr, 4));  // no room for the end
    EXPECT_EQ("(fails)", clean("abcde", nullptr, 4));
    EXPECT_EQ("(fails)", clean("ab", "c", 4));
    EXPECT_EQ("ab/c", clean("ab", "c", 5));
    EXPECT_EQ("abc/", clean("abcdef", "", 8, 3));
}

// Every short text of the bytes that matter: never longer, never outside its storage, and no parent step left behind
// the first byte that is not at the very end.
TEST(CleanupPath, EveryShortText) {
    for (int length = 1; length <= 6; length++) {
        for (int number = 0; number < 1 << (2 * length); number++) {
            std::string text;
            for (int i = 0; i < length; i++) text += "/\\.a"[number >> (2 * i) & 3];
            const std::string result = clean(text.c_str(), nullptr, text.size() + 1);
            if (result == "(fails)") continue;
            EXPECT_LE(result.size(), text.size()) << text;
            EXPECT_EQ(std::string::npos, result.find("/../", 1)) << text;
            EXPECT_EQ(std::string::npos, result.find('\\', 1)) << text;
        }
    }
}

}  // namespace
}  // namespace cm::test
