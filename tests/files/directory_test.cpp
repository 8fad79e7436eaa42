// What is known of files and folders by their names, and what is done to them: listing, renaming, removing, copying.
#include "files/fixture.h"

namespace cm::test {
namespace {

constexpr uint32_t kType = 0170000, kRegular = 0100000;

struct Names : FilesWorld {
    explicit Names(const Row & = {}) {
        takes_path("is-folder", cm_isdirectory);
        takes_path("is-empty", cm_isempty);
        takes_path("is-readonly", cm_isreadonly);
        takes_path("make-folder", cm_mkdir);
        takes_path("remove-tree", cm_rmdir);
        takes_path("tree-size", cm_dirsize);
        takes_path("tree-files", cm_dirfiles);
        on("is-file", [this](auto &words) { return cm_isfile(nullptr, at(words[0]), 0); });
        on("is-program", [this](auto &words) { return cm_isexe(nullptr, at(words[0]), 0); });
        on("access", [this](auto &words) {
            return cm_access(at(words[0]), words[1] == "read" ? CM_ACCESS_READ : CM_ACCESS_EXISTS);
        });
        on("stat", [this](auto &words) -> std::string {
            cm_stat_rec record;
            if (cm_stat(nullptr, at(words[0]), 1, &record) == 0) return "-";
            EXPECT_EQ(kRegular, record.mode & kType);
            EXPECT_TRUE(record.index <= 0xFFFF && record.mtime > 1700000000);
            return std::to_string(record.size);
        });
        on("rename", [this](auto &words) { return cm_rename(at(words[0]), at(words[1])); });
        on("unlink", [this](auto &words) {
            const int64_t slept = clock.slept_ms();
            const int16_t removed = cm_unlink(at(words[0]), static_cast<int32_t>(words.number(1)));
            return std::to_string(removed) + " " + std::to_string(clock.slept_ms() - slept);
        });
        on("truncate",
           [this](auto &words) { return cm_ftruncate(ctx, at(words[0]), static_cast<int32_t>(words.number(1))); });
        on("copy", [this](auto &words) { return cm_cp(ctx, at(words[0]), at(words[1])); });
        on("copy-tree", [this](auto &words) { return cm_cpdir(ctx, at(words[0]), at(words[1])); });
        on("list", [this](auto &words) -> std::string {
            cm_dir listing;
            if (cm_opendir(at(words[0]), &listing) == 0) return "-";
            const std::string all = entries([&](cm_dirent *entry) { return cm_readdir(&listing, entry); });
            EXPECT_EQ(1, cm_closedir(&listing));
            EXPECT_EQ(0, cm_closedir(&listing));
            return all;
        });
        on("glob", [this](auto &words) -> std::string {
            cm_glob listing;
            if (cm_globinit(at(words[0]), words.text(1), &listing) == 0) return "-";
            const std::string all = entries([&](cm_dirent *entry) { return cm_globread(&listing, entry); });
            EXPECT_EQ(1, cm_globfree(&listing));
            EXPECT_EQ(0, cm_globfree(&listing));
            return all;
        });
    }

    // All entries with their kinds, those of files with their sizes, in the order of their names.
    template <class Next>
    static std::string entries(Next next) {
        cm_dirent entry;
        std::map<std::string, std::string> found;
        while (next(&entry) == 1 && entry.kind != 1) {
            std::string &kind = found[entry.name] = std::string(entry.name) + "=" + std::to_string(entry.kind);
            if (entry.kind != 3) continue;
            kind += "/" + std::to_string(entry.size);
            EXPECT_EQ(kRegular, entry.mode & kType);
            EXPECT_TRUE(entry.links == 1 && entry.mtime > 1700000000);
        }
        EXPECT_STREQ("", entry.name);
        EXPECT_EQ(1, next(&entry));  // once more at the end
        EXPECT_EQ(1, entry.kind);
        Strings all;
        for (const auto &[name, text] : found) all.push_back(text);
        return joined(all);
    }
};
SCENARIOS(FilesByName, Names, "files/names");

struct NamesTest : testing::Test, Names {};

TEST_F(NamesTest, StatIsOfPlainFilesAndSaturates) {
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

TEST(Listings, OfTheRootAndOfNothing) {
    cm_dir listing;
    EXPECT_EQ(1, cm_opendir("/", &listing));
    EXPECT_EQ(1, cm_closedir(&listing));
    EXPECT_EQ(0, cm_opendir("", &listing));
}

// Whatever fails, a copy that is said to be complete is, the source stays, and no file stays open.
TEST_F(NamesTest, CopyingAndRemovingWithEveryFailedStep) {
    const std::string bytes(2500, 'c');
    int16_t copied = 0, removed = 0;
    const auto prepare = [&] {
        folder.remove("tree");
        folder.remove("copy");
        folder.write("tree/a/f", bytes);
        folder.write("tree/b", "2");
    };
    for (const bool with_context : {true, false}) {
        cm_context *const owner = with_context ? ctx : nullptr;
        const size_t held = leaks.outstanding();
        prepare();
        each_failure(
            Faults::kBoth & ~Faults::kLocks,
            [&] {
                copied = cm_cpdir(owner, at("tree"), at("copy"));
                EXPECT_EQ(bytes, folder.read("tree/a/f"));
                removed = cm_rmdir(at("tree"));
            },
            [&](bool injected) {
                EXPECT_TRUE(copied == 0 ? injected : folder.read("copy/a/f") + folder.read("copy/b") == bytes + "2");
                // A folder that could not be examined counts as none.
                EXPECT_TRUE(injected || (copied != 0 && removed != 0 && !folder.exists("tree")));
                EXPECT_EQ(0, ctx->file_open);
                EXPECT_TRUE(with_context || leaks.outstanding() == held);
                prepare();
            });
    }
}

}  // namespace
}  // namespace cm::test
