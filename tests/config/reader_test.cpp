// The pull parser and cm_props_load.
#include "config_files.h"

namespace {

using namespace cm::test;
using namespace config_test;

std::string times(size_t count, const char *text = "x") {
    std::string out;
    while (count-- > 0) out += text;
    return out;
}

struct Case {
    const char *title;
    std::string text;
    std::string read;           // as read_all gives it
    std::string messages = "";  // each with a line feed
};

constexpr char kNoEntry[] = "cm_next_entry(): There was no entry found in the section.\n";
constexpr char kNoEnd[] = "cm_next_section(): End of section not found.\n";
constexpr char kLongSection[] = "cm_next_section(): The name argument is > 256 bytes.\n";
constexpr char kLongName[] = "cm_next_entry(): The name arguemnt is > 256 bytes.\n";
constexpr char kLongLine[] = "Failure reading line fgetl() - line too long.\n";

void check(const std::vector<Case> &cases) {
    for (const Case &row : cases) {
        std::string read;
        const std::string error = captured_standard_error([&] { read = read_all(row.text); });
        EXPECT_EQ(read, row.read) << row.title;
        EXPECT_EQ(messages_of(error), row.messages) << row.title;
    }
}

TEST(ConfigReader, Sections) {
    check({
        {"nothing", "", ""},
        {"no head at all", "a=b\nnonsense\n", ""},
        {"lines before the first head", "x\n=\n a = b\n[s]\nc=d\n", "[s]\nc=d\n"},
        {"head without line feed", "[s]", "[s]\n"},
        {"white space inside brackets is name", "[ s t ]\n", "[ s t ]\n"},
        {"empty name", "[]\na=b\n", "[]\na=b\n"},
        {"first closing bracket ends the name", "[a[b]c]d\n", "[a[b]\n"},
        {"text behind the head", "[s] a=b # c\nx=y\n", "[s]\nx=y\n"},
        {"indented heads", " \t[s]\n\v\f[t]\n", "[s]\n[t]\n"},
        {"heads one after the other", "[s]\n[t]\n[s]\na=b\n", "[s]\n[t]\n[s]\na=b\n"},
        {"carriage returns", "[s]\r\na=b\r\n\r\n[t]\r\n c = d \r\n", "[s]\na=b\n[t]\nc=d\n"},
        {"no bracket", "[s]\na=b\n[t\nc=d\n", "[s]\na=b\nfailed", kNoEnd},
        {"255 bytes", "[" + times(255) + "]\n", "[" + times(255) + "]\n"},
        {"256 bytes", "[" + times(256) + "]\n", "failed", kLongSection},
        {"256 bytes, pushed back", "[s]\n[" + times(256) + "]\n", "[s]\nfailed", kLongSection},
        {"a pushed-back head of 1024 bytes", "[s]\na=b\n[t]" + times(1021) + "\nc=d\n", "[s]\na=b\n[t]\nc=d\n"},
        {"a head of 1025 bytes", "[s]\na=b\n[t]" + times(1022) + "\n", "[s]\na=b\nfailed", kLongLine},
    });
}

TEST(ConfigReader, Entries) {
    const auto section = [](const std::string &text) { return "[s]\n" + text; };
    const std::vector<Case> cases = {
        {"plain", "a=b\n", "a=b\n"},
        {"blanks around", "a \t = \t b c \n", "a=b c\n"},
        {"empty value", "a=\n", "a=\n"},
        {"blank value", "a= \t \n", "a=\n"},
        {"last line", "a=b", "a=b\n"},
        {"second equals", "a=b=c\n", "a=b=c\n"},
        {"hash in the value", "a=b # c\n", "a=b # c\n"},
        {"comments and blank lines", "# a=b\n  #c=d\n \t \n\n\r\na=b\n", "a=b\n"},
        {"quotes stay", "\"a\"=\"b\"\n", "\"a\"=\"b\"\n"},
        {"equals in quotes", "\"a=b\" = c\n", "\"a=b\"=c\n"},
        {"quotes opened twice", "\"a\"=\"=\"\n", "\"a\"=\"=\"\n"},
        {"quotes in the middle", "a\"=\"b=c\n", "a\"=\"b=c\n"},
        {"open quote", "\"a=b\n", "failed", kNoEntry},
        {"no equals", "nonsense\n", "failed", kNoEntry},
        {"no name", "=b\n", "failed", kNoEntry},
        {"blank name", "  =bcdef\n", "failed", kNoEntry},
        {"names as written", "MiXeD=cAsE\n", "MiXeD=cAsE\n"},
        {"duplicates", "a=1\na=2\n", "a=1\na=2\n"},
        {"NUL in the value", std::string("a=b\0c\n", 6), "a=b\n"},
        {"name of 255", times(255) + "=v\n", times(255) + "=v\n"},
        {"name of 256", times(256) + "=v\n", "failed", kLongName},
        {"longest value that fits a line", "a=" + times(1022) + "\n", "a=" + times(1022) + "\n"},
        {"line of 1025", "a=" + times(1023) + "\n", "failed", kLongLine},
        {"line of 1024 without line feed", "a=" + times(1022), "a=" + times(1022) + "\n"},
        {"empty name and value of 1023", "=" + times(1023) + "\n", "failed", kNoEntry},
        // The search for the equals sign: as many bytes as the line is indented are not looked at.
        {"seven bytes, three of them blank", "   ab=c\n", "failed", kNoEntry},
        {"seven bytes, equals at the only place", "   =abc\n", "failed", kNoEntry},
        {"two blanks, five bytes", "  a=b\n", "failed", kNoEntry},
        {"two blanks, six bytes", "  a=bc\n", "a=bc\n"},
        {"a carriage return makes the line longer", "  a=b\r\n", "a=b\n"},
        {"one tab", "\ta=\n", "failed", kNoEntry},
        {"one tab and a value", "\ta=b\n", "a=b\n"},
        {"indented more than half", "      a=bc\n", "failed", kNoEntry},
    };
    for (Case row : cases) {
        row.text = section(row.text);
        row.read = section(row.read);
        check({row});
    }
}

TEST(ConfigReader, LinesOfASchedule) {
    struct Row {
        const char *title;
        std::string text, lines;
        const char *message = "";
    };
    constexpr char kNoLine[] = "cm_next_line(): There was no entry found in the section.\n";
    const std::vector<Row> rows = {
        {"trimmed", " a b \t\r\n", "a b|"},
        {"no equals needed", "ab\n# c\n \nde = f\n", "ab|de = f|"},
        {"ends at a head", "ab\n [t]\ncd\n", "ab|"},
        {"one byte", "a\n", "failed", kNoLine},
        {"one byte and white space", " a \n", "failed", kNoLine},
        {"two bytes", "ab\n", "ab|"},
        {"a whole line", times(1024) + "\n", times(1024) + "|"},
        {"too long", times(1025) + "\n", "failed", kLongLine},
    };
    for (const Row &row : rows) {
        const std::string text = "[s]\n" + row.text;
        cm_file *file = nullptr;
        ASSERT_EQ(cm_fopens(nullptr, "memory.ini", text.data(), static_cast<int32_t>(text.size()), &file), 1);
        std::string lines;
        const std::string error = captured_standard_error([&] {
            char line[1025];
            int32_t found = 0;
            ASSERT_EQ(cm_next_section(file, line, &found), 1);
            for (;;) {
                const int16_t result = cm_next_line(file, line, &found);
                EXPECT_EQ(found == -1, result == 0) << row.title;
                if (found == 1) lines += std::string(line) + "|";
                if (result == 0) lines += "failed";
                if (found != 1) break;
            }
        });
        EXPECT_EQ(lines, row.lines) << row.title;
        EXPECT_EQ(messages_of(error), row.message) << row.title;
        cm_fclose(file);
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
    const std::string path = folder.absolute("a.ini");
    struct Row {
        const char *title, *text, *entries;
        int16_t result = 1;
        const char *messages = "";  // "%s" stands for the path
    };
    const Row rows[] = {
        {"every section of the name", "[common]\na=1\n[x]\nb=2\n[COMMON]\nc=3\n", "a=1|c=3|"},
        {"directly one after the other", "[common]\na=1\n[Common]\nb=2\n", "a=1|b=2|"},
        {"blanks in the brackets", "[ common ]\na=1\n[common2]\nb=2\n[commo]\nc=3\n", ""},
        {"no such section", "[x]\na=1\n", ""},
        {"an empty file", "", ""},
        {"other sections are not parsed", "[x]\nnonsense\n=\n[common]\na=1\n", "a=1|"},
        {"a bad entry", "[common]\na=1\nnonsense\nb=2\n", "a=1|", 0,
         "cm_next_entry(): There was no entry found in the section.\n"
         "cm_props_load(): Error processing '%s' (line 3)\n\n"},
        {"a bad last line is not counted", "[common]\na=1\nnonsense", "a=1|", 0,
         "cm_next_entry(): There was no entry found in the section.\n"
         "cm_props_load(): Error processing '%s' (line 2)\n\n"},
        {"a bad head, empty lines counted", "\n\n[common]\na=1\n\r\n[x\n", "a=1|", 0,
         "cm_next_section(): End of section not found.\ncm_props_load(): Error processing '%s' (line 6)\n\n"},
        {"a bad head in another section", "[x]\n[y\n[common]\na=1\n", "", 0,
         "cm_next_section(): End of section not found.\ncm_props_load(): Error processing '%s' (line 2)\n\n"},
        {"refused by the callback", "[common]\na=1\nstop=0\nb=2\n", "a=1|", 0,
         "cm_props_load(stop): Error processing '%s' file (line 3)\n"},
        {"anything but 1 refuses", "[common]\na=1\nstop=2\nb=2\n", "a=1|", 0,
         "cm_props_load(stop): Error processing '%s' file (line 3)\n"},
    };
    for (const Row &row : rows) {
        folder.write("a.ini", row.text);
        Loaded loaded{"", "stop"};
        const std::string error = captured_standard_error([&] {
            EXPECT_EQ(cm_props_load(nullptr, path.c_str(), "commonly", 6, CM_OUT(&loaded), collect), row.result)
                << row.title;
        });
        EXPECT_EQ(loaded.entries, row.entries) << row.title;
        std::string expected = row.messages;
        if (const size_t at = expected.find("%s"); at != std::string::npos) expected.replace(at, 2, path);
        EXPECT_EQ(messages_of(error), expected) << row.title;
    }
}

TEST(ConfigLoad, FileThatCannotBeOpened) {
    TempFolder folder;
    const std::string path = folder.absolute("none.ini");
    Loaded loaded;
    EXPECT_EQ(messages_of(captured_standard_error(
                  [&] { EXPECT_EQ(cm_props_load(nullptr, path.c_str(), "s", -3, CM_OUT(&loaded), collect), 0); })),
              "File open of '" + path + "' failed.\nFailure opening configuration file '" + path + "'.\n");
    EXPECT_EQ(cm_props_load(nullptr, nullptr, "s", -3, 0, collect), 0);
    EXPECT_EQ(cm_props_load(nullptr, path.c_str(), "s", -3, 0, nullptr), 0);
}

TEST(ConfigLoad, EveryFailureOnTheWay) {
    TempFolder folder;
    folder.write("a.ini", "[s]\na=1\n" + times(300, "name = a value of some length\n") + "[t]\nb=2\n");
    const std::string path = folder.absolute("a.ini");
    for (int k = 1;; k++) {
        LeakCheck leaks;
        Loaded loaded;
        int16_t result = -1;
        int64_t injected = 0;
        const std::string error = captured_standard_error([&] {
            Faults faults(Faults::kAllocations | Faults::kFiles, k);
            result = cm_props_load(nullptr, path.c_str(), "t", -3, CM_OUT(&loaded), collect);
            injected = faults.injected();
        });
        EXPECT_EQ(leaks.outstanding(), 0u) << k;
        // Only the close of what was read may fail unseen.
        EXPECT_EQ(loaded.entries, result == 1 ? "b=2|" : loaded.entries) << k;
        if (result == 1 && injected == 0) break;
        EXPECT_EQ(result == 0, error != "") << k;
        ASSERT_LT(k, 100);
    }
}

}  // namespace
