// The pull parser and cm_props_load.
#include "config_files.h"
#include "support/data.h"
#include "support/failures.h"

namespace {

using namespace cm::test;
using namespace config_test;

std::string schedule_lines(const std::string &text) {
    cm_file *file = nullptr;
    EXPECT_EQ(cm_fopens(nullptr, "memory.ini", text.data(), static_cast<int32_t>(text.size()), &file), 1);
    std::string lines;
    char line[1025];
    int32_t found = 0;
    for (cm_next_section(file, line, &found); found == 1;) {
        const int16_t result = cm_next_line(file, line, &found);
        EXPECT_EQ(found == -1, result == 0);
        if (found != 0) lines += found == 1 ? std::string(line) + "\n" : "failed";
    }
    cm_fclose(file);
    return lines;
}

TEST(ConfigReader, SectionsEntriesAndLines) {
    for (const Row &row : rows("config/reader")) {
        const std::string head = row[0] == "sections" ? "" : "[s]\n", text = head + row[1];
        std::string read;
        const std::string error =
            captured_standard_error([&] { read = row[0] == "lines" ? head + schedule_lines(text) : read_all(text); });
        EXPECT_EQ(read, head + row[2]) << row.where;
        EXPECT_EQ(messages_of(error), row.fields.size() > 3 ? row[3] : "") << row.where;
    }
}

TEST(ConfigReader, PushedBackHeadIsForTheNextSectionAlone) {
    const std::string text = "[s]\na=b\n[t]\nc=d\n";
    cm_file *file = nullptr;
    ASSERT_EQ(cm_fopens(nullptr, "memory.ini", text.data(), CM_LEN_TEXT, &file), 1);
    char name[256], value[1025];
    int32_t found = 0;
    EXPECT_EQ(cm_next_entry(file, name, value, &found), 1);  // no section was asked for: the head is pushed back
    EXPECT_EQ(found, 0);
    EXPECT_EQ(cm_next_entry(file, name, value, &found), 1);  // entries come from the file
    EXPECT_STREQ(name, "a");
    EXPECT_EQ(cm_next_section(file, name, &found), 1);
    EXPECT_STREQ(name, "s");
    EXPECT_EQ(cm_next_section(file, name, &found), 1);
    EXPECT_STREQ(name, "t");
    EXPECT_EQ(cm_next_entry(file, nullptr, nullptr, nullptr), 1);
    EXPECT_EQ(cm_next_section(file, name, &found), 1);
    EXPECT_EQ(found, 0);
    cm_fclose(file);
    EXPECT_EQ(cm_next_section(nullptr, name, &found), 0);
    EXPECT_EQ(cm_next_entry(nullptr, name, value, &found), 0);
    EXPECT_EQ(cm_next_line(nullptr, value, &found), 0);
}

TEST(ConfigReader, NoMemoryForThePushBackFailsQuietly) {
    for (const bool section_first : {true, false}) {
        cm_file *file = nullptr;
        ASSERT_EQ(cm_fopens(nullptr, "memory.ini", "[s]\n[t]\n", CM_LEN_TEXT, &file), 1);
        char name[1025];
        int32_t found = 0;
        EXPECT_EQ(captured_standard_error([&] {
                      Faults faults(Faults::kAllocations, 1);
                      EXPECT_EQ(section_first ? cm_next_section(file, name, &found) : cm_next_line(file, name, &found),
                                0);
                  }),
                  "");
        EXPECT_EQ(found, -1);
        cm_fclose(file);
    }
}

// ---- cm_props_load --------------------------------------------------------------------------------------------------

struct Loaded {
    std::string entries;
    std::string stop_at;
};

int16_t CM_CALL collect(cm_context *, cm_value user, const char *name, const char *value) {
    Loaded &loaded = *reinterpret_cast<Loaded *>(user);
    if (loaded.stop_at == name) return static_cast<int16_t>(value[0] - '0');
    loaded.entries += std::string(name) + "=" + value + "|";
    return 1;
}

TEST(ConfigLoad, SectionsByName) {
    TempFolder folder;
    const std::string path = folder.absolute("a.ini"), none = folder.absolute("none.ini");
    for (const Row &row : rows("config/load")) {
        folder.write("a.ini", row[0]);
        Loaded loaded{"", "stop"};
        const std::string error = captured_standard_error([&] {
            EXPECT_EQ(cm_props_load(nullptr, path.c_str(), "commonly", 6, CM_OUT(&loaded), collect), row.number(2))
                << row.where;
        });
        EXPECT_EQ(loaded.entries, row[1]) << row.where;
        std::string expected = row.fields.size() > 3 ? row[3] : "";
        if (const size_t at = expected.find("%s"); at != std::string::npos) expected.replace(at, 2, path);
        EXPECT_EQ(messages_of(error), expected) << row.where;
    }
    EXPECT_EQ(messages_of(captured_standard_error([&] {
                  EXPECT_EQ(cm_props_load(nullptr, none.c_str(), "s", -3, 0, collect), 0);
                  EXPECT_EQ(cm_props_load(nullptr, nullptr, "s", -3, 0, collect), 0);
                  EXPECT_EQ(cm_props_load(nullptr, none.c_str(), "s", -3, 0, nullptr), 0);
              })),
              "File open of '" + none + "' failed.\nFailure opening configuration file '" + none + "'.\n");
}

TEST(ConfigLoad, EveryFailureOnTheWay) {
    TempFolder folder;
    std::string text = "[s]\na=1\n";
    for (int i = 0; i < 300; i++) text += "name = a value of some length\n";
    folder.write("a.ini", text + "[t]\nb=2\n");
    const std::string path = folder.absolute("a.ini");
    Loaded loaded;
    std::string error;
    int16_t result = -1;
    each_failure(
        Faults::kAllocations | Faults::kFiles,
        [&] {
            loaded.entries = "";
            error = captured_standard_error(
                [&] { result = cm_props_load(nullptr, path.c_str(), "t", -3, CM_OUT(&loaded), collect); });
        },
        [&](bool injected, size_t leaked) {
            EXPECT_EQ(leaked, 0u);
            EXPECT_TRUE(result == 0 || loaded.entries == "b=2|");
            EXPECT_EQ(result == 0, error != "");
            EXPECT_TRUE(injected || result == 1);  // only the close of what was read may fail unseen
        });
}

// A started library looks below its configuration folder, and its level decides which messages come through.
TEST(ConfigInALibrary, FilesBelowTheConfigurationFolderAndMessagesOfItsLevel) {
    Library library("Trace Level=ERROR", [](TempFolder &folder) {
        folder.write("config/good.ini", "[s]\na=1\n");
        folder.write("config/bad.ini", "[s]\nnonsense\n");
    });
    ASSERT_TRUE(library.ok());
    const std::string config = library.folder().path("config/"), bad = config + "bad.ini", bak = config + "bad.bak";
    const cm_prop_entry change = {1, 1, "a", "1"};
    Loaded loaded;
    EXPECT_EQ(cm_props_load(library, "good.ini", "S", -3, CM_OUT(&loaded), collect), 1);
    EXPECT_EQ(loaded.entries, "a=1|");
    const size_t before = library.log().size();
    for (const int32_t level : {CM_ERROR - 1, CM_ERROR}) {
        EXPECT_EQ(library.log().size(), before);
        library.ctx()->trace_level = level;
        for (const char *name : {"bad.ini", "none.ini"})
            EXPECT_EQ(cm_props_load(library, name, "s", -3, CM_OUT(&loaded), collect), 0);
        EXPECT_EQ(cm_update_section(library, bad.c_str(), bak.c_str(), "s", -3, &change, 1), 0);
    }
    for (const std::string &line : {std::string("cm_next_entry(): There was no entry found in the section."),
                                    "cm_props_load(): Error processing '" + bad + "' (line 2)",
                                    "Failure opening configuration file '" + config + "none.ini'.",
                                    std::string("cm_update_section(): No entry was found in the section.")})
        EXPECT_TRUE(library.logged("ERROR: " + line)) << line;
    EXPECT_EQ(library.ctx()->file_open, 1);  // the log
}

}  // namespace
