#include "files/durable.h"

#include "files/fixture.h"

namespace cm::test {
namespace {

using files::DurableFile;
using files::folder_of;

class Durable : public Files {
protected:
    Durable() {
        folder.write("f", "old");
        folder.write("b", "older");
    }
    bool replace(const char *backup) {
        const std::string target = path("f"), kept = path(backup == nullptr ? "" : backup);
        DurableFile out;
        return out.open(target.c_str()) && out.write("new") && out.commit(backup == nullptr ? nullptr : kept.c_str());
    }
};

// Names in the order in which they are drawn.
class CountingUp {
    unsigned char drawn_ = 0;
    const Replace<&Table::random_bytes> random_{[this](void *out, size_t count) {
        memset(out, 0, count);
        static_cast<unsigned char *>(out)[count - 1] = ++drawn_;
        return true;
    }};
};

TEST_F(Durable, SyncsBeforeItRenamesAndTheFolderAfterwards) {
    const CountingUp names;
    const CallRecorder calls(folder.path() + "/");
    ASSERT_TRUE(replace("b"));
    EXPECT_EQ(
        "create .cm-0000000000000001.tmp\n"
        "write .cm-0000000000000001.tmp 3\n"
        "sync .cm-0000000000000001.tmp\n"
        "close .cm-0000000000000001.tmp\n"
        "link f .cm-0000000000000002.tmp\n"
        "link b .cm-0000000000000003.tmp\n"
        "rename .cm-0000000000000002.tmp b\n"
        "rename .cm-0000000000000001.tmp f\n"
        "sync-folder " +
            folder.path() +
            "\n"
            "remove .cm-0000000000000003.tmp\n",
        calls.text());
}

// Whatever fails: the old version is on disk, a failure changes nothing, and no temporary is left.
TEST_F(Durable, EveryFailedStep) {
    for (const char *backup : {static_cast<const char *>(nullptr), "b"}) {
        bool done = false;
        each_failure(
            Faults::kBoth, [&] { done = replace(backup); },
            [&](bool injected, size_t leaked) {
                EXPECT_EQ(0u, leaked);
                EXPECT_TRUE(done || injected);
                EXPECT_EQ(done ? "new" : "old", folder.read("f"));
                EXPECT_EQ(done && backup != nullptr ? "old" : "older", folder.read("b"));
                EXPECT_TRUE(injected || folder.names().size() == 2);
                for (const std::string &name : folder.names()) folder.remove(name);  // its removal may have failed
                folder.write("f", "old");
                folder.write("b", "older");
            });
    }
}

// A process that is killed, or a disk that is gone, from the k-th call on.
TEST_F(Durable, EveryInstantOfAKill) {
    each_failure(
        Faults::kFiles, [&] { replace("b"); },
        [&](bool injected) {
            const std::string target = folder.read("f"), backup = folder.read("b");
            EXPECT_TRUE(target == "old" || (target == "new" && backup == "old")) << target << ", " << backup;
            EXPECT_TRUE(backup == "old" || backup == "older") << backup;
            // What was left lying about does not stand in the way of the next one.
            EXPECT_TRUE(!injected || replace("b"));
            EXPECT_EQ("new", folder.read("f"));
            folder.write("f", "old");
            folder.write("b", "older");
        },
        Faults::kFromThenOn);
}

TEST_F(Durable, ABackupThatIsTheTargetsOtherName) {  // as a kill between the two renames leaves it
    folder.remove("b");
    ASSERT_EQ(0, os.path_link(path("f").c_str(), path("b").c_str()));
    EXPECT_TRUE(replace("b"));
    EXPECT_EQ("new", folder.read("f"));
    EXPECT_EQ("old", folder.read("b"));
    EXPECT_EQ((Strings{"b", "f"}), folder.names());
}

TEST_F(Durable, CopiesWhereThereAreNoSecondNames) {
    const Replace<&Table::path_link> link([](auto...) { return 1; });
    folder.write("f", std::string(100000, 'x'));
    EXPECT_TRUE(replace("b"));
    EXPECT_EQ(std::string(100000, 'x'), folder.read("b"));
    EXPECT_EQ((Strings{"b", "f"}), folder.names());
}

TEST_F(Durable, WithoutATargetTheBackupStays) {
    folder.remove("f");
    EXPECT_TRUE(replace("b"));
    EXPECT_EQ("new", folder.read("f"));
    EXPECT_EQ("older", folder.read("b"));
}

TEST_F(Durable, KeepsANarrowerMode) {
    if (const char *why = test::missing(test::Feature::kFileModes)) GTEST_SKIP() << why;
    platform::FileStatus fresh, status;
    const std::string target = path("f");
    ASSERT_EQ(0, os.path_status(path("b").c_str(), true, &fresh));
    for (const uint32_t mode : {0600u, 0640u, 0400u, 0666u}) {
        ASSERT_EQ(0, os.path_set_mode(target.c_str(), mode));
        ASSERT_TRUE(replace(nullptr));
        ASSERT_EQ(0, os.path_status(target.c_str(), true, &status));
        EXPECT_EQ(mode & fresh.mode & 0777, status.mode & 0777) << mode;
    }
}

TEST_F(Durable, NeverOpensWhatIsThere) {
    const std::string target = path("f"), taken = path("b");
    DurableFile named;
    EXPECT_FALSE(named.open(target.c_str(), taken.c_str()));
    EXPECT_NE(0, named.error());
    EXPECT_EQ("older", folder.read("b"));

    const CountingUp names;
    folder.write(".cm-0000000000000001.tmp", "someone else's");
    EXPECT_TRUE(replace(nullptr));
    EXPECT_EQ("new", folder.read("f"));
    EXPECT_EQ("someone else's", folder.read(".cm-0000000000000001.tmp"));
}

TEST_F(Durable, ANewFileNeverReplacesOne) {
    const std::string there = path("f"), missing = path("fresh"), temporary = path("x.fresh");
    DurableFile second;
    ASSERT_TRUE(second.open(there.c_str()) && second.write("new"));
    EXPECT_FALSE(second.commit_new());
    EXPECT_EQ("old", folder.read("f"));

    DurableFile first;
    ASSERT_TRUE(first.open(missing.c_str(), temporary.c_str()) && first.write("1") && first.write("2"));
    ASSERT_TRUE(first.seal());
    EXPECT_EQ("12", folder.read("x.fresh"));  // can be read back before the commit
    EXPECT_TRUE(first.commit_new());
    EXPECT_EQ("12", folder.read("fresh"));
    EXPECT_FALSE(folder.exists("x.fresh"));
}

TEST_F(Durable, GathersOutput) {
    const std::string target = path("f"), large(50000, 'l');
    const CallRecorder calls;
    DurableFile out;
    ASSERT_TRUE(out.open(target.c_str()));
    std::string expected;
    for (int i = 0; i < 10000; i++) {
        const std::string line = "line " + std::to_string(i) + "\n";
        EXPECT_TRUE(out.write(line));
        expected += line;
    }
    EXPECT_TRUE(out.write(large) && out.write({}) && out.commit());
    EXPECT_EQ(expected + large, folder.read("f"));
    EXPECT_LE(calls.lines("write ").size(), expected.size() / 16000 + 2);
}

TEST(FolderOf, Paths) {
    const struct {
        std::string_view path, folder;
    } rows[] = {
        {"f", "."}, {"/f", "/"}, {"d/f", "d"}, {"/d/e/f", "/d/e"}, {"d//f", "d/"}, {"c:/f", "c:/"},
    };
    for (const auto &row : rows) EXPECT_EQ(row.folder, folder_of(row.path)) << row.path;
}

}  // namespace
}  // namespace cm::test
