// The five rewriters: what they write, what they keep, and what a failure leaves behind.
#include <functional>

#include "config_files.h"

namespace {

using namespace cm::test;
using namespace config_test;

constexpr char kBefore[] = "the version before the last\n";

// A folder with a configuration file and an older backup, and the rewriters on them.
class Rewriters : public testing::Test {
protected:
    void put(const std::string &text) {
        // A failed rewrite may have left two names of one file.
        for (const char *name : {"a.ini", "a.bak"})
            if (folder.exists(name)) folder.remove(name);
        folder.write("a.ini", text);
        folder.write("a.bak", kBefore);
    }
    std::string file() const { return folder.read("a.ini"); }
    std::string backup() const { return folder.read("a.bak"); }

    int16_t delete_section(const char *section) {
        return cm_delete_section(nullptr, path.c_str(), bak.c_str(), section, -3, &deleted);
    }
    int16_t update_section(const char *section, const std::vector<cm_prop_entry> &entries) {
        return cm_update_section(nullptr, path.c_str(), bak.c_str(), section, -3, entries.data(),
                                 static_cast<int32_t>(entries.size()));
    }
    int16_t replace_section(const char *section, const std::vector<cm_prop_entry> &entries) {
        return cm_replace_section(nullptr, path.c_str(), bak.c_str(), section, -3, entries.data(),
                                  static_cast<int32_t>(entries.size()));
    }
    int16_t delete_entry(const char *section, const char *name) {
        return cm_delete_entry(nullptr, path.c_str(), bak.c_str(), section, name, &deleted);
    }
    int16_t update_entry(const char *section, const char *name, const char *value) {
        return cm_update_entry(nullptr, path.c_str(), bak.c_str(), section, name, value);
    }

    struct Row {
        const char *title;
        std::string before, after;
    };
    // Runs an operation that succeeds over each file, and looks at the file, its backup and the folder.
    void check(const std::vector<Row> &rows, const std::function<int16_t()> &operation) {
        for (const Row &row : rows) {
            put(row.before);
            EXPECT_EQ(captured_standard_error([&] { EXPECT_EQ(operation(), 1) << row.title; }), "") << row.title;
            EXPECT_EQ(file(), row.after) << row.title;
            EXPECT_EQ(backup(), row.before) << row.title;
            EXPECT_EQ(folder.names(), (std::vector<std::string>{"a.bak", "a.ini"})) << row.title;
        }
    }
    // Runs one that fails and changes nothing, and compares its messages.
    void check_refused(const std::string &before, const std::string &messages,
                       const std::function<int16_t()> &operation) {
        put(before);
        EXPECT_EQ(messages_of(captured_standard_error([&] { EXPECT_EQ(operation(), 0); })), messages);
        EXPECT_EQ(file(), before);
        EXPECT_EQ(backup(), kBefore);
        EXPECT_EQ(folder.names(), (std::vector<std::string>{"a.bak", "a.ini"}));
    }

    TempFolder folder;
    const std::string path = folder.path("a.ini"), bak = folder.path("a.bak");
    int32_t deleted = -1;
};

cm_prop_entry entry(const char *name, const char *value) {
    return {static_cast<int32_t>(strlen(name)), static_cast<int32_t>(strlen(value)), name, value};
}

TEST_F(Rewriters, DeleteSection) {
    check(
        {
            {"in the middle", "x\n[a]\n1=1\n[s]\n# c\n2=2\n \n[b]\n3=3\n", "x\n[a]\n1=1\n[b]\n3=3\n"},
            {"by case, indented", "  [S] tail\n2=2\n[b]\n", "[b]\n"},
            {"the next of the same name survives", "[s]\n1=1\n[s]\n2=2\n[s]\n3=3\n", "[s]\n2=2\n"},
            {"one after another section goes too", "[s]\n1=1\n[b]\n[s]\n2=2\n", "[b]\n"},
            {"at the end, no line feed", "[a]\n[s]\n1=1", "[a]\n"},
            {"the only one", "[s]\n", ""},
        },
        [&] {
            const int16_t result = delete_section("s");
            EXPECT_EQ(deleted, 1);
            return result;
        });
    check(
        {
            {"absent: line ends are put right", "\n[a]\n\r\n1=1\r\n\n[b]", "[a]\n1=1\r\n[b]\n"},
            {"blanks in the brackets, other lengths", "[ s]\n[s ]\n[ss]\n[]\n[s\n", "[ s]\n[s ]\n[ss]\n[]\n[s\n"},
            {"an empty file", "", ""},
        },
        [&] {
            const int16_t result = delete_section("s");
            EXPECT_EQ(deleted, 0);
            return result;
        });
    put("[long]\n[lo]\n[b]\n");
    EXPECT_EQ(cm_delete_section(nullptr, path.c_str(), bak.c_str(), "long", 2, nullptr), 1);
    EXPECT_EQ(file(), "[long]\n[b]\n");
}

TEST_F(Rewriters, UpdateSection) {
    check(
        {
            {"changed, kept, never added", "[s]\nA = old\nother=1\n[b]\na=1\n", "[s]\na = new \nother=1\n[b]\na=1\n"},
            {"any spelling of the entry", "[S]\n  A=old\n", "[S]\na = new \n"},
            {"comments and blank lines stay", "[s]\n#a=1\n \na=1\n", "[s]\n#a=1\n \na = new \n"},
            {"every entry of the name", "[s]\na=1\na=2\n", "[s]\na = new \na = new \n"},
            {"quotes are no rule here", "[s]\na\"=\"a=1\n", "[s]\na\"=\"a=1\n"},
            {"an empty name", "[s]\n=1\n", "[s]\n=1\n"},
            {"the next of the same name is no target", "[s]\na=1\n[s]\na=2\n[b]\n[s]\na=3\n",
             "[s]\na = new \n[s]\na=2\n[b]\n[s]\na = new \n"},
            {"a section that lacks it", "[s]\n\nb=1\n\n", "[s]\nb=1\n"},
            {"no such section", "[b]\na=1", "[b]\na=1\n\n[s]\na = new \ngone =  \n"},
            {"an empty file", "", "\n[s]\na = new \ngone =  \n"},
            {"entries of other sections may be malformed", "[b]\nnonsense\n[s]\na=1\n",
             "[b]\nnonsense\n[s]\na = new \n"},
        },
        [&] {
            return update_section("s", {entry("a", "new"), entry("gone", "")});
        });
    check({{"one line for each element", "[s]\na=1\n", "[s]\na = 1 \nA = 2 \n"}}, [&] {
        return update_section("s", {entry("a", "1"), entry("A", "2")});
    });
    check({{"without a value", "[s]\na=1\nb=1\n", "[s]\na =  \nb =  \n"}}, [&] {
        return update_section("s", {{1, 0, "a", "x"}, {1, -3, "b", nullptr}});
    });
    check({{"nothing to change", "[s]\na=1\n", "[s]\na=1\n"}}, [&] { return update_section("s", {}); });
}

TEST_F(Rewriters, UpdateSectionAndLengths) {
    const std::string fits(1022, 'v'), too_long(1023, 'v'), huge(3000, 'v');
    put("[s]\na=1\n");
    EXPECT_EQ(update_section("s", {entry("a", too_long.c_str())}), 1);
    EXPECT_EQ(file(), "[s]\na=1\n");
    put("[s]\na=1\n");
    EXPECT_EQ(update_section("s", {entry("a", too_long.c_str()), entry("a", "2"), entry("a", fits.c_str())}), 1);
    EXPECT_EQ(file(), "[s]\na = 2 \na = " + fits + " \n");
    // A new section gets every element, and a line is cut at 2047 bytes.
    put("");
    EXPECT_EQ(update_section("s", {entry("a", huge.c_str()), entry("b", "1")}), 1);
    EXPECT_EQ(file(), "\n[s]\na = " + huge.substr(0, 2043) + "b = 1 \n");
    // The lengths match, the terminated texts are printed.
    put("[s]\na=1\nab=1\n");
    EXPECT_EQ(update_section("s", {{1, 1, "ab", "xyz"}}), 1);
    EXPECT_EQ(file(), "[s]\nab = xyz \nab=1\n");
}

TEST_F(Rewriters, UpdateSectionOfWhatCannotBeRead) {
    check_refused("[s]\na=1\nnonsense\n", "cm_update_section(): No entry was found in the section.\n",
                  [&] { return update_section("s", {entry("a", "2")}); });
    check_refused("[s]\na=1\n" + std::string(1025, 'x') + "\n[b]\n",
                  "Failure reading line fgetl() - line too long.\n"
                  "cm_update_section(): Error processing '" +
                      bak + "' file (line 2)\n",
                  [&] { return update_section("s", {entry("a", "2")}); });
    // A name of 255 bytes is looked at.
    const std::string name(255, 'n');
    put("[s]\n" + name + "=1\n");
    EXPECT_EQ(update_section("s", {entry(name.c_str(), "2")}), 1);
    EXPECT_EQ(file(), "[s]\n" + name + " = 2 \n");
}

TEST_F(Rewriters, UpdateSectionStopsHalfWayAtALongName) {
    const std::string text = "[s]\na=1\n" + std::string(256, 'n') + "=1\nb=1\n";
    put(text);
    EXPECT_EQ(messages_of(captured_standard_error([&] { EXPECT_EQ(update_section("s", {entry("a", "2")}), 0); })),
              "cm_update_section(): The name argument is > 256 bytes\n");
    EXPECT_EQ(backup(), text);
    EXPECT_EQ(file(), "[s]\na = 2 \n");
    EXPECT_EQ(folder.names(), (std::vector<std::string>{"a.bak", "a.ini"}));
}

TEST_F(Rewriters, ReplaceSection) {
    check(
        {
            {"in the middle", "x\n[a]\n1=1\n[s]\n# c\n2=2\n \n[b]\n3=3\n",
             "x\n\n[a]\n1=1\n\n[s]\na = new \nb =  \n\n\n[b]\n3=3\n"},
            {"the head as it is", " [S]tail\n2=2", "\n [S]tail\na = new \nb =  \n\n"},
            {"the next of the same name is kept", "[s]\n1=1\n[s]\n2=2\n[b]\n[s]\n3=3\n",
             "\n[s]\na = new \nb =  \n\n\n[s]\n2=2\n\n[b]\n\n[s]\na = new \nb =  \n\n"},
            {"absent", "[b]\n1=1\n", "\n[b]\n1=1\n\n[s]\na = new \nb =  \n"},
            {"empty lines come back once", "\n\n[b]\n\n\n[c]\n", "\n[b]\n\n[c]\n\n[s]\na = new \nb =  \n"},
        },
        [&] {
            return replace_section("s", {entry("a", "new"), entry("b", "")});
        });
    check({{"with nothing", "[s]\n1=1\n", "\n[s]\n\n"}}, [&] { return replace_section("s", {}); });
}

TEST_F(Rewriters, DeleteEntry) {
    check(
        {
            {"in every section of the name", "[s]\nk = 1\n[b]\nk = 2\n[S]\n K =3\n[s]\nk = 4\nz = 5\n",
             "[s]\n[b]\nk = 2\n[S]\n[s]\nz = 5\n"},
            {"one blank before the equals sign only", "[s]\nk=1\nk  = 2\nk\t= 3\nk = 4\nkk = 5\n",
             "[s]\nk=1\nk  = 2\nk\t= 3\nkk = 5\n"},
            {"without a value", "[s]\nk =", "[s]\n"},
            {"nothing after the blank", "[s]\nk \nk\nk =", "[s]\nk \nk\n"},
            {"comments stay", "[s]\n#k = 1\nk = 1\n", "[s]\n#k = 1\n"},
            {"leading white space", "[s]\n \t k = 1\n", "[s]\n"},
        },
        [&] {
            const int16_t result = delete_entry("s", "k");
            EXPECT_EQ(deleted, 1);
            return result;
        });
    check({{"absent", "[b]\nk = 1\n\n[s]\nk=1", "[b]\nk = 1\n[s]\nk=1\n"}}, [&] {
        const int16_t result = delete_entry("s", "k");
        EXPECT_EQ(deleted, 0);
        return result;
    });
    check({{"a comment is no entry", "[s]\n#k = 1\n", "[s]\n#k = 1\n"}}, [&] { return delete_entry("s", "#k"); });
}

TEST_F(Rewriters, UpdateEntry) {
    check(
        {
            {"becomes the first line", "[s]\na=1\nK = old\n", "[s]\nk = new\na=1\n"},
            {"the first section gets it, all lose the old", "[s]\nk = 1\n[b]\nk = 2\n[S]\nk = 3\n[s]\nk = 4\n",
             "[s]\nk = new\n[b]\nk = 2\n[S]\n[s]\n"},
            {"an old one without the blank stays", "[s]\nk=1\nk  = 2\n", "[s]\nk = new\nk=1\nk  = 2\n"},
            {"a section without it", "[s]\n# c\n\nb=1", "[s]\nk = new\n# c\nb=1\n"},
            {"no such section", "[b]\nk = 1", "[b]\nk = 1\n\n[s]\nk = new\n"},
            {"an empty file", "", "\n[s]\nk = new\n"},
            {"carriage returns stay", "[s]\r\nk = old\r\nb=1\r\n", "[s]\r\nk = new\nb=1\r\n"},
        },
        [&] { return update_entry("s", "k", "new"); });
    check({{"an empty value", "[s]\n", "[s]\nk = \n"}}, [&] { return update_entry("s", "k", ""); });
}

TEST_F(Rewriters, ReadErrorsNameTheBackupAndSomeASibling) {
    const std::string text = "[s]\n\n" + std::string(1025, 'x') + "\n";
    const struct {
        const char *function;
        std::function<int16_t()> run;
    } rows[] = {
        {"cm_delete_section()", [&] { return delete_section("s"); }},
        {"cm_update_section()", [&] { return update_section("s", {}); }},
        {"cm_update_section()", [&] { return replace_section("s", {}); }},
        {"cm_delete_entry()", [&] { return delete_entry("s", "k"); }},
        {"cm_delete_entry()", [&] { return update_entry("s", "k", "v"); }},
    };
    for (const auto &row : rows)
        check_refused(text,
                      "Failure reading line fgetl() - line too long.\n" + std::string(row.function) +
                          ": Error processing '" + bak + "' file (line 2)\n",
                      row.run);
}

TEST_F(Rewriters, MissingFileLeavesTheBackupAlone) {
    const struct {
        std::string messages;
        std::function<int16_t()> run;
    } rows[] = {
        {"", [&] { return delete_section("s"); }},
        {"", [&] { return update_section("s", {}); }},
        {"", [&] { return replace_section("s", {}); }},
        {"", [&] { return delete_entry("s", "k"); }},
        {"File open of '" + bak + "' failed.\n", [&] { return update_entry("s", "k", "v"); }},
    };
    folder.write("a.bak", kBefore);
    for (const auto &row : rows) {
        EXPECT_EQ(messages_of(captured_standard_error([&] { EXPECT_EQ(row.run(), 0); })), row.messages);
        EXPECT_EQ(backup(), kBefore);
        EXPECT_EQ(folder.names(), std::vector<std::string>{"a.bak"});
    }
    folder.make_folder("a.ini");
    EXPECT_EQ(messages_of(captured_standard_error([&] { EXPECT_EQ(delete_section("s"), 0); })),
              "File open of '" + bak + "' failed.\n");
}

TEST_F(Rewriters, RefusedBeforeAnythingIsTouched) {
    const std::string text = "[s]\nk = 1\n", long_value(1020, 'v'), long_name(256, 'n');
    const cm_prop_entry in_name = entry("a\nb", "c"), in_value = entry("a", "b\n[evil]"), in_head = entry("[evil]", "");
    const std::function<int16_t()> refused[] = {
        [&] { return update_entry("s", "k", "v\n[evil]\nx = 1"); },
        [&] { return update_entry("s", "k\n", "v"); },
        [&] { return update_entry("s\n", "k", "v"); },
        [&] { return delete_entry("s", "k\n"); },
        [&] { return delete_entry("s\n", "k"); },
        [&] { return delete_section("s\n"); },
        [&] { return update_section("s\n", {}); },
        [&] { return update_section("s", {in_name}); },
        [&] { return update_section("s", {in_value}); },
        [&] { return replace_section("s\n", {}); },
        [&] { return replace_section("s", {in_name}); },
        [&] { return replace_section("s", {in_value}); },
        [&] { return update_section("s", {in_head}); },
        [&] { return replace_section("s", {in_head}); },
        [&] { return update_entry("s", " [evil]", "v"); },
        // Lines that the reader would stop at.
        [&] { return update_entry("s", "k", (long_value + "v").c_str()); },
        [&] { return update_entry("s", long_name.c_str(), "v"); },
        [&] { return update_entry("s", "", "v"); },
        [&] { return update_entry(long_name.c_str(), "k", "v"); },
        [&] { return replace_section("s", {entry("k", long_value.c_str())}); },
        [&] { return replace_section("s", {entry("", "v")}); },
        [&] { return replace_section(long_name.c_str(), {}); },
        // Names that are missing, or the same.
        [&] { return update_entry(nullptr, "k", "v"); },
        [&] { return update_entry("s", nullptr, "v"); },
        [&] { return delete_section(nullptr); },
        [&] { return cm_update_section(nullptr, path.c_str(), bak.c_str(), "s", -3, nullptr, 1); },
        [&] { return cm_delete_section(nullptr, path.c_str(), nullptr, "s", -3, nullptr); },
        [&] { return cm_delete_section(nullptr, path.c_str(), "", "s", -3, nullptr); },
        [&] { return cm_delete_section(nullptr, nullptr, bak.c_str(), "s", -3, nullptr); },
        [&] { return cm_delete_section(nullptr, path.c_str(), path.c_str(), "s", -3, nullptr); },
    };
    for (const auto &run : refused) check_refused(text, "", run);
    EXPECT_EQ(update_entry("s", "k", long_value.c_str()), 1);
    EXPECT_EQ(read_all(file()), "[s]\nk=" + long_value + "\n");
}

// ---- on the disk ----------------------------------------------------------------------------------------------------

// The name of the file that is being made is drawn by lot.
std::string with_plain_names(std::string text) {
    for (size_t at; (at = text.find(".cm-")) != std::string::npos;) text.replace(at, text.find(".tmp") + 4 - at, "NEW");
    return text;
}

TEST_F(Rewriters, TheNewFileIsSyncedBeforeItTakesThePlace) {
    put("[s]\nk = 1\n");
    CallRecorder calls(folder.path() + "/");
    ASSERT_EQ(update_entry("s", "k", "2"), 1);
    std::string order;
    for (const char *step : {"create NEW", "write NEW 10", "sync NEW", "close NEW", "link a.ini NEW",
                             "rename NEW a.bak", "rename NEW a.ini", "sync-folder "}) {
        const size_t at = with_plain_names(calls.text()).find(step, order.size());
        ASSERT_NE(at, std::string::npos) << step << " in\n" << with_plain_names(calls.text());
        order = with_plain_names(calls.text()).substr(0, at + 1);
    }
    EXPECT_EQ(calls.lines("write").size(), 1u);
}

TEST_F(Rewriters, OutputIsGathered) {
    std::string text = "[s]\n";
    for (int i = 0; i < 2000; i++) text += "name " + std::to_string(i) + " = value\n";
    put(text);
    CallRecorder calls;
    ASSERT_EQ(update_entry("t", "k", "2"), 1);
    EXPECT_LE(calls.lines("write").size(), text.size() / 4096 + 1);
}

TEST_F(Rewriters, ANarrowModeStays) {
    if (const char *why = cm::test::missing(cm::test::Feature::kFileModes)) GTEST_SKIP() << why;
    put("[s]\nk = 1\n");
    ASSERT_EQ(cm::platform::os.path_set_mode(path.c_str(), 0600), 0);
    ASSERT_EQ(update_entry("s", "k", "2"), 1);
    cm::platform::FileStatus status;
    ASSERT_EQ(cm::platform::os.path_status(path.c_str(), true, &status), 0);
    EXPECT_EQ(status.mode & 0777, 0600u);
}

class Failures : public Rewriters, public testing::WithParamInterface<int> {
protected:
    int16_t run() {
        switch (GetParam()) {
            case 0:
                return delete_section("s");
            case 1:
                return update_section("s", {entry("k", "2")});
            case 2:
                return replace_section("s", {entry("k", "2")});
            case 3:
                return delete_entry("s", "k");
            default:
                return update_entry("s", "k", "2");
        }
    }
};

TEST_P(Failures, EveryCallThatFailsLeavesTheOldFile) {
    std::string before = "[s]\nk = 1\n[t]\n";
    for (int i = 0; i < 3000; i++) before += "name = value\n";  // several blocks of output
    put(before);
    ASSERT_EQ(run(), 1);
    const std::string after = file();
    for (const auto mode : {Faults::kOnce, Faults::kFromThenOn}) {
        for (int k = 1;; k++) {
            put(before);
            LeakCheck leaks;
            int16_t result = -1;
            int64_t injected = 0;
            captured_standard_error([&] {
                Faults faults(Faults::kAllocations | Faults::kFiles | Faults::kEnvironment, k, Faults::kNoSpace, mode);
                result = run();
                injected = faults.injected();
            });
            const std::string what = "call " + std::to_string(k) + " mode " + std::to_string(mode);
            ASSERT_EQ(leaks.outstanding(), 0u) << what;
            ASSERT_TRUE(file() == (result == 1 ? after : before)) << what;
            // When nothing works any more, the backup is what it was or this version, and temporary files stay.
            const bool kept = backup() == before, older = backup() == kBefore;
            ASSERT_TRUE(result == 1 ? kept : older || (kept && mode == Faults::kFromThenOn)) << what;
            for (const std::string &name : folder.names()) {
                if (name[0] != '.') continue;
                // Where one call fails that is its removal, after everything else was done.
                ASSERT_TRUE(mode == Faults::kFromThenOn || result == 1) << what << " left " << name;
                folder.remove(name);
            }
            if (injected == 0) break;
            ASSERT_LT(k, 500);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Each, Failures, testing::Range(0, 5));

}  // namespace
