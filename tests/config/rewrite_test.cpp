// The five rewriters: what they write, what they keep, and what a failure leaves behind.
#include <functional>
#include <sstream>

#include "config_files.h"
#include "support/data.h"
#include "support/failures.h"

namespace {

using namespace cm::test;
using namespace config_test;

const std::vector<std::string> kBothFiles = {"a.bak", "a.ini"};
constexpr char kBefore[] = "the version before the last\n";

cm_prop_entry entry(const char *name, const char *value) {
    return {static_cast<int32_t>(strlen(name)), static_cast<int32_t>(strlen(value)), name, value};
}

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

    // A rewriter and its arguments, as a file of cases has them; gives its result.
    int16_t call(const std::string &words) {
        std::istringstream in(words + "  ");
        std::string what, section, word;
        std::vector<std::string> rest;
        std::getline(in, what, ' ');
        std::getline(in, section, ' ');
        while (std::getline(in, word, ' ') && !word.empty()) rest.push_back(word);
        const std::string first = rest.empty() ? "" : rest[0], second = rest.size() < 2 ? "" : rest[1];
        const char *const file = path.c_str(), *const kept = bak.c_str(), *const in_section = section.c_str();
        if (what == "delete-section") return cm_delete_section(nullptr, file, kept, in_section, -3, &deleted);
        if (what == "delete-entry") return cm_delete_entry(nullptr, file, kept, in_section, first.c_str(), &deleted);
        if (what == "update-entry")
            return cm_update_entry(nullptr, file, kept, in_section, first.c_str(), second.c_str());
        std::vector<cm_prop_entry> entries;
        for (std::string &pair : rest) {
            const size_t equals = pair.find('=');
            pair[equals] = '\0';
            entries.push_back(entry(pair.c_str(), pair.c_str() + equals + 1));
        }
        const auto rewrite = what == "update-section" ? cm_update_section : cm_replace_section;
        return rewrite(nullptr, file, kept, in_section, -3, entries.data(), static_cast<int32_t>(entries.size()));
    }
    // Runs one that fails and changes nothing, and compares its messages.
    void check_refused(const std::string &before, const std::string &messages,
                       const std::function<int16_t()> &operation) {
        put(before);
        EXPECT_EQ(messages_of(captured_standard_error([&] { EXPECT_EQ(operation(), 0); })), messages);
        EXPECT_EQ(file(), before);
        EXPECT_EQ(backup(), kBefore);
        EXPECT_EQ(folder.names(), kBothFiles);
    }

    TempFolder folder;
    const std::string path = folder.path("a.ini"), bak = folder.path("a.bak");
    int32_t deleted = -1;
};

TEST_F(Rewriters, EveryCase) {
    for (const Row &row : rows("config/rewrites")) {
        put(row[2]);
        deleted = -1;
        EXPECT_EQ(captured_standard_error([&] { EXPECT_EQ(call(row[1]), 1) << row[0]; }), "") << row[0];
        EXPECT_EQ(file(), row[3]) << row[0];
        EXPECT_EQ(backup(), row[2]) << row[0];
        EXPECT_EQ(deleted, row.fields.size() > 4 ? row.number(4) : -1) << row[0];
        EXPECT_EQ(folder.names(), kBothFiles) << row[0];
    }
}

TEST_F(Rewriters, LengthsOfSectionsEntriesAndLines) {
    const std::string fits(1022, 'v'), too_long(1023, 'v'), huge(3000, 'v'), name(255, 'n');
    const auto update = [&](const std::string &text, const std::vector<cm_prop_entry> &entries) {
        put(text);
        EXPECT_EQ(
            cm_update_section(nullptr, path.c_str(), bak.c_str(), "s", -3, entries.data(), int32_t(entries.size())), 1);
        return file();
    };
    EXPECT_EQ(update("[s]\na=1\nb=1\n", {{1, 0, "a", "x"}, {1, -3, "b", nullptr}}), "[s]\na =  \nb =  \n");
    EXPECT_EQ(update("[s]\na=1\n", {entry("a", too_long.c_str())}), "[s]\na=1\n");
    EXPECT_EQ(update("[s]\na=1\n", {entry("a", too_long.c_str()), entry("a", "2"), entry("a", fits.c_str())}),
              "[s]\na = 2 \na = " + fits + " \n");
    // A new section gets every element, and a line is cut at 2047 bytes.
    EXPECT_EQ(update("", {entry("a", huge.c_str()), entry("b", "1")}),
              "\n[s]\na = " + huge.substr(0, 2043) + "b = 1 \n");
    // The lengths match, the terminated texts are printed.
    EXPECT_EQ(update("[s]\na=1\nab=1\n", {{1, 1, "ab", "xyz"}}), "[s]\nab = xyz \nab=1\n");
    EXPECT_EQ(update("[s]\n" + name + "=1\n", {entry(name.c_str(), "2")}), "[s]\n" + name + " = 2 \n");
    put("[long]\n[lo]\n[b]\n");
    EXPECT_EQ(cm_delete_section(nullptr, path.c_str(), bak.c_str(), "long", 2, nullptr), 1);
    EXPECT_EQ(file(), "[long]\n[b]\n");
}

TEST_F(Rewriters, UpdateSectionStopsHalfWayAtALongName) {
    const std::string text = "[s]\na=1\n" + std::string(256, 'n') + "=1\nb=1\n";
    put(text);
    EXPECT_EQ(messages_of(captured_standard_error([&] { EXPECT_EQ(call("update-section s a=2"), 0); })),
              "cm_update_section(): The name argument is > 256 bytes\n");
    EXPECT_EQ(backup(), text);
    EXPECT_EQ(file(), "[s]\na = 2 \n");
    EXPECT_EQ(folder.names(), kBothFiles);
}

TEST_F(Rewriters, ErrorsOnTheWay) {
    const std::string text = "[s]\n\n" + std::string(1025, 'x') + "\n",
                      no_file = "File open of '" + bak + "' failed.\n";
    const char *const rows[][2] = {{"delete-section s", "cm_delete_section()"},  // the name in the message is that of
                                   {"update-section s", "cm_update_section()"},  // a sibling for some
                                   {"replace-section s", "cm_update_section()"},
                                   {"delete-entry s k", "cm_delete_entry()"},
                                   {"update-entry s k v", "cm_delete_entry()"}};
    for (const auto &row : rows) {
        const char *const words = row[0], *const function = row[1];
        check_refused(text,
                      "Failure reading line fgetl() - line too long.\n" + std::string(function) +
                          ": Error processing '" + bak + "' file (line 2)\n",
                      [&] { return call(words); });
        folder.remove("a.ini");
        EXPECT_EQ(messages_of(captured_standard_error([&] { EXPECT_EQ(call(words), 0); })),
                  words[0] == 'u' && words[7] == 'e' ? no_file : "");
        EXPECT_EQ(backup(), kBefore) << "a file that is missing leaves it alone";
        EXPECT_EQ(folder.names(), std::vector<std::string>{"a.bak"});
    }
    check_refused("[s]\na=1\nnonsense\n", "cm_update_section(): No entry was found in the section.\n",
                  [&] { return call("update-section s a=2"); });
    folder.remove("a.ini");
    folder.make_folder("a.ini");
    EXPECT_EQ(messages_of(captured_standard_error([&] { EXPECT_EQ(call("delete-section s"), 0); })), no_file);
}

TEST_F(Rewriters, RefusedBeforeAnythingIsTouched) {
    const std::string text = "[s]\nk = 1\n", long_value(1020, 'v');
    for (const Row &row : rows("config/refused")) check_refused(text, "", [&] { return call(row[0]); });
    const char *const file_name = path.c_str(), *const kept = bak.c_str();
    const std::function<int16_t()> refused[] = {
        // Names that are missing, or the same.
        [&] { return cm_update_entry(nullptr, file_name, kept, nullptr, "k", "v"); },
        [&] { return cm_update_entry(nullptr, file_name, kept, "s", nullptr, "v"); },
        [&] { return cm_delete_section(nullptr, file_name, kept, nullptr, -3, nullptr); },
        [&] { return cm_update_section(nullptr, file_name, kept, "s", -3, nullptr, 1); },
        [&] { return cm_delete_section(nullptr, file_name, nullptr, "s", -3, nullptr); },
        [&] { return cm_delete_section(nullptr, file_name, "", "s", -3, nullptr); },
        [&] { return cm_delete_section(nullptr, nullptr, kept, "s", -3, nullptr); },
        [&] { return cm_delete_section(nullptr, file_name, file_name, "s", -3, nullptr); },
    };
    for (const auto &run : refused) check_refused(text, "", run);
    EXPECT_EQ(call("update-entry s k " + long_value), 1);
    EXPECT_EQ(read_all(file()), "[s]\nk=" + long_value + "\n");
}

// ---- on the disk ----------------------------------------------------------------------------------------------------

TEST_F(Rewriters, TheNewFileIsGatheredAndSyncedWithItsFolder) {
    std::string text = "[s]\n";
    for (int i = 0; i < 2000; i++) text += "name " + std::to_string(i) + " = value\n";
    put(text);
    CallRecorder calls(folder.path() + "/");
    ASSERT_EQ(call("update-entry t k 2"), 1);
    EXPECT_LE(calls.lines("write").size(), text.size() / 4096 + 1);
    EXPECT_EQ(calls.lines("sync .cm-").size(), 1u) << calls.text();
    EXPECT_EQ(calls.lines("sync-folder").size(), 1u) << calls.text();
}

class Failures : public Rewriters, public testing::WithParamInterface<const char *> {};

TEST_P(Failures, EveryCallThatFailsLeavesTheOldFile) {
    std::string before = "[s]\nk = 1\n[t]\n";
    for (int i = 0; i < 3000; i++) before += "name = value\n";  // several blocks of output
    put(before);
    ASSERT_EQ(call(GetParam()), 1);
    const std::string after = file();
    for (const auto mode : {Faults::kOnce, Faults::kFromThenOn}) {
        int16_t result = -1;
        put(before);
        each_failure(
            Faults::kAllocations | Faults::kFiles | Faults::kEnvironment,
            [&] { captured_standard_error([&] { result = call(GetParam()); }); },
            [&](bool, size_t leaked) {
                ASSERT_EQ(leaked, 0u);
                ASSERT_TRUE(file() == (result == 1 ? after : before));
                // When nothing works any more, the backup is what it was or this version, and temporary files stay.
                const bool kept = backup() == before, older = backup() == kBefore;
                ASSERT_TRUE(result == 1 ? kept : older || (kept && mode == Faults::kFromThenOn));
                for (const std::string &name : folder.names()) {
                    if (name[0] != '.') continue;
                    // Where one call fails that is its removal, after everything else was done.
                    ASSERT_TRUE(mode == Faults::kFromThenOn || result == 1) << name << " is left";
                    folder.remove(name);
                }
                put(before);
            },
            mode);
    }
}

INSTANTIATE_TEST_SUITE_P(Each, Failures,
                         testing::Values("delete-section s", "update-section s k=2", "replace-section s k=2",
                                         "delete-entry s k", "update-entry s k 2"));

}  // namespace
