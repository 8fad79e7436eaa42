#include "files/cmdir.h"

#include <algorithm>
#include <filesystem>
#include <map>

#include "files/fixture.h"

namespace cm::test {
namespace {

TEST(Patterns, Table) {
    for (const Row &row : rows("files/patterns"))
        EXPECT_EQ(row.number(2), files::matches_pattern(row.text(0), row.text(1))) << row.where;
    std::string stars;
    for (int i = 0; i < 120; i++) stars += "*a";
    EXPECT_FALSE(files::matches_pattern(stars + "b", std::string(259, 'a')));  // at once
}

class Directories : public FilesWithContext {
protected:
    Directories() : top(folder.make_folder("top")) {
        folder.write("top/one.txt", "1");
        folder.write("top/two.TXT", "22");
        folder.write("top/.hidden", "333");
        folder.write("top/sub/three", "4444");
    }
    // A link, or a skipped test where there are none.
    bool link(const std::string &to, const std::string &name) const {
        std::error_code error;
        std::filesystem::create_symlink(to, path(name), error);
        return !error;
    }
    std::map<std::string, cm_dirent> list() const {
        std::map<std::string, cm_dirent> all;
        cm_dir listing;
        cm_dirent entry;
        EXPECT_EQ(1, cm_opendir((top + "/").c_str(), &listing));
        while (cm_readdir(&listing, &entry) == 1 && entry.kind != 1) all[entry.name] = entry;
        EXPECT_STREQ("", entry.name);
        EXPECT_EQ(1, cm_readdir(&listing, &entry));
        EXPECT_EQ(1, entry.kind);
        EXPECT_EQ(1, cm_closedir(&listing));
        EXPECT_EQ(0, cm_closedir(&listing));
        return all;
    }

    std::string top;
};

TEST_F(Directories, Listing) {
    const auto all = list();
    ASSERT_EQ(6u, all.size());
    EXPECT_EQ(2, all.at(".").kind);
    EXPECT_EQ(2, all.at("..").kind);
    EXPECT_EQ(2, all.at("sub").kind);
    const cm_dirent &file = all.at("two.TXT");
    EXPECT_EQ(3, file.kind);
    EXPECT_EQ(2u, file.size);
    EXPECT_EQ(1u, file.links);
    EXPECT_EQ(0100000u, file.mode & 0170000u);
    EXPECT_GT(file.mtime, 1700000000u);
    const Replace<&Table::path_status> status([](auto...) { return 5; });
    EXPECT_EQ(5, list().at("two.TXT").kind);
}

TEST_F(Directories, PatternsWithFailures) {
    for (int k = 1; k <= 3; k++) {
        const LeakCheck leaks;
        const Faults faults(Faults::kBoth, k);
        cm_glob listing;
        if (cm_globinit(top.c_str(), "*", &listing) != 0) cm_globfree(&listing);
        EXPECT_EQ(0u, leaks.outstanding());
    }
}

TEST_F(Directories, LongestPaths) {
    cm_dir listing;
    EXPECT_EQ(0, cm_opendir("", &listing));
    EXPECT_EQ(0, cm_opendir(nullptr, &listing));
    EXPECT_EQ(0, cm_opendir(path("missing").c_str(), &listing));
    EXPECT_EQ(1, cm_opendir("/", &listing));
    EXPECT_EQ(1, cm_closedir(&listing));
    for (const size_t length : {258u, 259u, 260u, 261u}) {
        std::string name = folder.path() + "/" + std::to_string(length) + "/";
        name += std::string(200, 'd') + "/";
        name += std::string(length - name.size(), 'e');
        const std::string relative = name.substr(folder.path().size() + 1);
        folder.write(relative + "/f", "12");
        ASSERT_EQ(length <= 259 ? 1 : 0, cm_opendir(name.c_str(), &listing)) << length;
        EXPECT_EQ(length <= 259 ? 2u : UINT32_MAX, length <= 259 ? cm_dirsize(name.c_str()) : UINT32_MAX);
        if (length > 259) continue;
        // Together with "f" the path is examined up to 260 bytes, with ".." up to 258.
        cm_dirent entry;
        while (cm_readdir(&listing, &entry) == 1 && entry.kind != 1)
            EXPECT_EQ(length + strlen(entry.name) < 261 ? (entry.name[0] == 'f' ? 3 : 2) : 5, entry.kind)
                << length << entry.name;
        EXPECT_EQ(1, cm_closedir(&listing));
        EXPECT_EQ(1, cm_rmdir(name.c_str())) << length;
    }
}

TEST_F(Directories, RemovingAndCopyingWithEveryFailedStep) {
    int16_t copied = 0, removed = 0;
    const auto prepare = [&] {
        folder.remove("tree");
        folder.remove("copy");
        folder.write("tree/a/f", "1");
        folder.write("tree/b", "2");
    };
    prepare();
    each_failure(
        Faults::kFiles | Faults::kAllocations,
        [&] {
            const FrozenClock clock;
            copied = cm_cpdir(nullptr, path("tree").c_str(), path("copy").c_str());
            removed = cm_rmdir(path("tree").c_str());
        },
        [&](bool injected, size_t leaked) {
            EXPECT_EQ(0u, leaked);
            EXPECT_TRUE(copied == 0 || folder.read("copy/a/f") + folder.read("copy/b") == "12");
            // A folder that could not be examined counts as none.
            EXPECT_TRUE(injected || (copied != 0 && removed != 0 && !folder.exists("tree")));
            prepare();
        });
}

TEST_F(Directories, LinksAreNeverFollowed) {
    folder.write("outside/precious", "12345678");
    if (const char *why = test::missing(test::Feature::kSymbolicLinks)) GTEST_SKIP() << why;
    ASSERT_TRUE(link(path("outside"), "top/sub/away"));
    ASSERT_TRUE(link(path("outside/precious"), "top/sub/file") && link(top, "top/sub/round"));
    EXPECT_EQ(2, [&] {
        cm_dir listing;
        cm_dirent entry;
        cm_opendir((top + "/sub").c_str(), &listing);
        while (cm_readdir(&listing, &entry) == 1 && entry.kind != 1 && strcmp(entry.name, "away") != 0) {
        }
        cm_closedir(&listing);
        return entry.kind;  // a listing shows what a link leads to
    }());
    platform::FileStatus before, status;
    ASSERT_EQ(0, os.path_status(path("outside/precious").c_str(), true, &before));
    EXPECT_EQ(3, cm_dirfiles(top.c_str()));
    EXPECT_LT(cm_dirsize(top.c_str()), 1000u);
    EXPECT_EQ(0, cm_cpdir(ctx, top.c_str(), path("copy").c_str()));
    EXPECT_FALSE(folder.exists("copy/sub/away/precious"));
    EXPECT_EQ(1, cm_rmdir((top + "/sub/away").c_str()));  // a link is no folder
    EXPECT_TRUE(folder.exists("top/sub/away"));
    EXPECT_EQ(1, cm_rmdir(top.c_str()));
    EXPECT_FALSE(folder.exists("top"));
    EXPECT_EQ("12345678", folder.read("outside/precious"));
    ASSERT_EQ(0, os.path_status(path("outside/precious").c_str(), true, &status));
    EXPECT_EQ(before.mode, status.mode);

    folder.make_folder("broken");
    ASSERT_TRUE(link(path("nowhere"), "broken/link"));
    EXPECT_EQ(0, cm_rmdir(path("broken").c_str()));  // kept: what cannot be examined stays
    EXPECT_EQ((Strings{"link"}), folder.names("broken"));

    folder.write("from/f", "new");
    folder.make_folder("to");
    ASSERT_TRUE(link(path("outside/precious"), "to/f"));
    EXPECT_EQ(0, cm_cpdir(ctx, path("from").c_str(), path("to").c_str()));
    EXPECT_EQ("12345678", folder.read("outside/precious"));
}

}  // namespace
}  // namespace cm::test
