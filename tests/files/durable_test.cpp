// Files that are replaced whole or not at all.
#include "files/durable.h"

#include "files/fixture.h"

namespace cm::test {
namespace {

using files::DurableFile;

struct Durable : FilesWorld {
    explicit Durable(const Row & = {}) {
        reset();
        on("replace", [this](auto &words) { return replace(words.count() > 0 ? words.text(0) : nullptr); });
        on("open", [this](auto &words) {
            DurableFile out;
            const bool opened = out.open(at(words[0]), at(words[1]));
            EXPECT_EQ(opened, out.error() == 0);
            return opened;
        });
        // Can be read back before the commit.
        on("create", [this](auto &words) {
            DurableFile out;
            EXPECT_TRUE(out.open(at(words[0]), at(words[1])) && out.write("1") && out.write("2") && out.seal());
            EXPECT_EQ("12", folder.read(words[1]));
            return out.commit_new();
        });
        on("same-mode",
           [this](auto &words) { return run(Words("mode " + words[0])) == run(Words("mode " + words[1])); });
    }
    bool replace(const char *backup) {
        const std::string target = folder.path("f"), kept = folder.path(backup == nullptr ? "" : backup);
        DurableFile out;
        return out.open(target.c_str()) && out.write("new") && out.commit(backup == nullptr ? nullptr : kept.c_str());
    }
    void reset() {
        for (const std::string &name : folder.names()) folder.remove(name);
        folder.write("f", "old");
        folder.write("b", "older");
    }
};
SCENARIOS(DurableFiles, Durable, "files/durable");

struct DurableTest : testing::Test, Durable {};

// Whatever fails: the old version is on disk, a failure changes nothing, and no temporary is left.
TEST_F(DurableTest, EveryFailedStep) {
    for (const char *backup : {"-", "b", "fresh"}) {
        const bool wanted = *backup != '-';
        const size_t held = leaks.outstanding();
        bool done = false;
        each_failure(
            Faults::kBoth, [&] { done = replace(wanted ? backup : nullptr); },
            [&](bool injected) {
                EXPECT_EQ(held, leaks.outstanding());
                EXPECT_TRUE(done || injected);
                EXPECT_EQ(done ? "new" : "old", folder.read("f"));
                EXPECT_EQ(done && *backup == 'b' ? "old" : "older", folder.read("b"));
                EXPECT_EQ(done && *backup == 'f' ? "old" : "", folder.read("fresh"));
                EXPECT_TRUE(injected || folder.names().size() == (*backup == 'f' ? 3 : 2));
                reset();  // the removal of a temporary may be what failed
            });
    }
}

// A process that is killed, or a disk that is gone, from the k-th call on.
TEST_F(DurableTest, EveryInstantOfAKill) {
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

TEST_F(DurableTest, GathersOutput) {
    const std::string target = folder.path("f"), large(50000, 'l');
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

}  // namespace
}  // namespace cm::test
