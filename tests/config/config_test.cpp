// Configuration files: the pull parser, cm_props_load and the five rewriters.
#include <deque>

#include "files/fixture.h"

namespace cm::test {
namespace {

constexpr char kOlder[] = "the version before the last\n";

const char *pointer(const std::string &word) {
    return word == "-" ? nullptr : word.c_str();
}

struct Loaded {
    std::string entries;
    static int16_t CM_CALL entry(cm_context *, cm_value user, const char *name, const char *value) {
        if (name == std::string("stop")) return static_cast<int16_t>(value[0] - '0');
        reinterpret_cast<Loaded *>(user)->entries += std::string(name) + "=" + value + ",";
        return 1;
    }
};

struct Config : FilesWorld {
    explicit Config(const Row & = {}) {
        on("open", [this](auto &words) { open(words.rest(0)); });
        on("section", [this](auto &) { return section(); });
        on("entry", [this](auto &) { return entry(); });
        on("skip-entry", [this](auto &) { return cm_next_entry(file, nullptr, nullptr, nullptr); });
        on("line", [this](auto &) { return line(); });
        on("sections", [this](auto &words) {
            open(words.rest(0));
            return all([this] {
                const std::string head = section();
                return head[0] == '[' ? head + all([this] { return entry(); }) : head;
            });
        });
        on("entries", [this](auto &words) {
            open("[s]\n" + words.rest(0));
            EXPECT_EQ("[s]\n", section());
            return all([this] { return entry(); });
        });
        on("lines", [this](auto &words) {
            open("[s]\n" + words.rest(0));
            EXPECT_EQ("[s]\n", section());
            return all([this] { return line(); });
        });
        on("load", [this](auto &words) {
            Loaded loaded;
            const char *const wanted = words.count() > 1 ? words.text(1) : "commonly";
            const int32_t length = words.count() > 1 ? CM_LEN_TEXT : 6;
            const int16_t done = cm_props_load(nullptr, at(words[0]), wanted, length, CM_OUT(&loaded), Loaded::entry);
            return std::to_string(done) + (loaded.entries.empty() ? "" : " " + loaded.entries);
        });
        on("delete-section", [this](auto &words) {
            return counted(cm_delete_section(nullptr, path, backup, pointer(words[0]), CM_LEN_TEXT, &deleted));
        });
        on("delete-entry", [this](auto &words) {
            return counted(cm_delete_entry(nullptr, path, backup, pointer(words[0]), words.text(1), &deleted));
        });
        on("update-entry", [this](auto &words) {
            return cm_update_entry(nullptr, path, backup, pointer(words[0]), pointer(words[1]), words.text(2));
        });
        on("update-section", [this](auto &words) { return rewrite(cm_update_section, words); });
        on("replace-section", [this](auto &words) { return rewrite(cm_replace_section, words); });
    }
    ~Config() override { cm_fclose(file); }

    void open(const std::string &bytes) {
        cm_fclose(file);
        text = bytes;
        EXPECT_EQ(1, cm_fopens(nullptr, "memory.ini", text.data(), static_cast<int32_t>(text.size()), &file));
    }
    // "-" for none.
    static std::string found(int16_t done, int32_t found, const std::string &item) {
        EXPECT_EQ(done == 0, found == -1);
        return done == 0 ? "failed" : found == 0 ? "-" : item + "\n";
    }
    std::string section() {
        const int16_t done = cm_next_section(file, name, &state);
        return found(done, state, "[" + std::string(name) + "]");
    }
    std::string entry() {
        const int16_t done = cm_next_entry(file, name, value, &state);
        return found(done, state, std::string(name) + "=" + value);
    }
    std::string line() {
        const int16_t done = cm_next_line(file, value, &state);
        return found(done, state, value);
    }
    template <class Next>
    static std::string all(const Next &next) {
        std::string items, item;
        while (!items.ends_with("failed") && (item = next()) != "-") items += item;
        return items;
    }
    std::string counted(int16_t done) const { return done == 0 ? "0" : "1 " + std::to_string(deleted); }
    template <class Function>
    int16_t rewrite(Function function, const Words &words) const {
        std::deque<std::string> texts;
        std::vector<cm_prop_entry> entries;
        const auto keep = [&](const std::string &part) { return texts.emplace_back(part).c_str(); };
        for (size_t i = 1; i < words.count(); i++) {
            const size_t equals = words[i].find('=');
            const char *const left = keep(words[i].substr(0, equals)), *const right = keep(words[i].substr(equals + 1));
            entries.push_back({static_cast<int32_t>(strlen(left)), static_cast<int32_t>(strlen(right)), left, right});
        }
        return function(nullptr, path, backup, pointer(words[0]), CM_LEN_TEXT, entries.data(),
                        static_cast<int32_t>(entries.size()));
    }

    // The file, and an older backup.  A failed rewrite may have left two names of one file.
    void reset(const std::string &bytes) {
        for (const std::string &left : folder.names()) folder.remove(left);
        folder.write("a.ini", bytes);
        folder.write("a.bak", kOlder);
    }
    // Both files, and nothing else beside them.
    void expect(const std::string &now, const std::string &before) const {
        EXPECT_EQ(now, folder.read("a.ini"));
        EXPECT_EQ(before, folder.read("a.bak"));
        EXPECT_EQ((Strings{"a.bak", "a.ini"}), folder.names());
    }

    cm_file *file = nullptr;
    std::string text;
    char name[256] = "", value[1025] = "";
    int32_t state = 7, deleted = -1;
    const Path path = at("a.ini"), backup = at("a.bak");
};
SCENARIOS(ConfigReader, Config, "config/reader");
SCENARIOS(ConfigLoad, Config, "config/load");
SCENARIOS(ConfigRewriting, Config, "config/rewriting");

struct ConfigTest : testing::Test, Config {};

TEST_F(ConfigTest, EveryRewrite) {
    for (const Row &row : raw_rows("config/rewrites")) {
        SCOPED_TRACE(row.where + ": " + row[0]);
        const std::string before = unescaped(row[2]);
        reset(before);
        EXPECT_EQ(row.fields.size() > 4 ? "1 " + row[4] : "1", run(Words(row[1])));
        expect(unescaped(row[3]), before);
    }
    // The lengths match, the terminated texts are printed.
    const cm_prop_entry entries[] = {{1, 0, "a", "x"}, {1, CM_LEN_TEXT, "b", nullptr}, {1, 1, "cd", "xyz"}};
    reset("[s]\na=1\nb=1\nc=1\ncd=1\n");
    EXPECT_EQ(1, cm_update_section(nullptr, path, backup, "s", 1, entries, 3));
    EXPECT_EQ("[s]\na =  \nb =  \ncd = xyz \ncd=1\n", folder.read("a.ini"));
    reset("[long]\n[lo]\n[b]\n");
    EXPECT_EQ(1, cm_delete_section(nullptr, path, backup, "long", 2, nullptr));
    EXPECT_EQ("[long]\n[b]\n", folder.read("a.ini"));
}

TEST_F(ConfigTest, RefusedBeforeAnythingIsTouched) {
    const std::string before = "[s]\nk = 1\n";
    reset(before);
    for (const Row &row : raw_rows("config/refused")) EXPECT_EQ("0", run(Words(row[0]))) << row.where;
    EXPECT_EQ(0, cm_update_section(nullptr, path, backup, "s", CM_LEN_TEXT, nullptr, 1));
    for (const auto &[from, to] :
         {std::pair<const char *, const char *>{path, nullptr}, {path, ""}, {path, path}, {nullptr, backup}})
        EXPECT_EQ(0, cm_delete_section(nullptr, from, to, "s", CM_LEN_TEXT, nullptr));
    EXPECT_EQ("", told());
    expect(before, kOlder);
}

TEST_F(ConfigTest, EveryCallThatFailsOnTheWayToASection) {
    std::string bytes = "[s]\na=1\n";
    for (int i = 0; i < 300; i++) bytes += "name = a value of some length\n";
    folder.write("a.ini", bytes + "[t]\nb=2\n");
    EXPECT_EQ(0, cm_props_load(nullptr, at("a.ini"), "t", 1, 0, nullptr));
    const size_t held = leaks.outstanding();
    std::string result;
    each_failure(
        Faults::kAllocations | Faults::kFiles, [&] { result = run(Words("load a.ini t")); },
        [&](bool injected) {
            EXPECT_EQ(held, leaks.outstanding());
            // Only the close of what was read may fail unseen.
            EXPECT_TRUE(result == "1 b=2," || (injected && result[0] == '0' && result.find("Error: ") != result.npos))
                << result;
        });
}

struct ConfigFailures : ConfigTest, testing::WithParamInterface<const char *> {};

TEST_P(ConfigFailures, LeaveTheOldFile) {
    const Words rewriter(GetParam());
    std::string before = "[s]\nk = 1\n[t]\n", result;
    for (int i = 0; i < 3000; i++) before += "name = value\n";  // several blocks of output
    reset(before);
    EXPECT_EQ('1', run(rewriter)[0]);
    const std::string after = folder.read("a.ini");
    for (const auto mode : {Faults::kOnce, Faults::kFromThenOn}) {
        reset(before);
        const size_t held = leaks.outstanding();
        each_failure(
            Faults::kAllocations | Faults::kFiles | Faults::kEnvironment, [&] { result = run(rewriter); },
            [&](bool) {
                const bool done = result[0] == '1', lost = mode == Faults::kFromThenOn;
                EXPECT_EQ(held, leaks.outstanding());
                EXPECT_TRUE(folder.read("a.ini") == (done ? after : before)) << "mode " << mode;
                // When nothing works any more, the backup is what it was or this version, and temporary files stay.
                const bool kept = folder.read("a.bak") == before, older = folder.read("a.bak") == kOlder;
                EXPECT_TRUE(done ? kept : older || (kept && lost)) << "mode " << mode;
                // Where one call fails that is its removal, after everything else was done.
                EXPECT_TRUE(folder.names().size() == 2 || lost || done) << "mode " << mode;
                reset(before);
            },
            mode);
    }
}
INSTANTIATE_TEST_SUITE_P(, ConfigFailures,
                         testing::Values("delete-section s", "update-section s k=2", "replace-section s k=2",
                                         "delete-entry s k", "update-entry s k 2"));

// ---- in a started library -------------------------------------------------------------------------------------------

TEST(ConfigInALibrary, MessagesFollowTheLevelAndFilesAreBelowTheConfigurationFolder) {
    Library library("Trace Level=ERROR", [](TempFolder &folder) {
        folder.write("config/good.ini", "[s]\na=1\n");
        folder.write("config/bad.ini", "[s]\nnonsense\n");
    });
    ASSERT_TRUE(library.ok());
    const std::string bad = library.folder().path("config/bad.ini"), backup = library.folder().path("a.bak");
    const cm_prop_entry change = {1, 1, "a", "1"};
    const auto load = [&](const char *name) {
        Loaded loaded;
        const int16_t done = cm_props_load(library, name, "S", CM_LEN_TEXT, CM_OUT(&loaded), Loaded::entry);
        return std::to_string(done) + loaded.entries;
    };
    const auto fail = [&] {
        EXPECT_EQ("00", load("bad.ini") + load("none.ini"));
        EXPECT_EQ(0, cm_update_section(library, bad.c_str(), backup.c_str(), "s", 1, &change, 1));
    };
    const size_t lines = library.log().size();
    EXPECT_EQ("1a=1,", load("good.ini"));
    library.ctx()->trace_level = 19;
    fail();
    EXPECT_EQ(lines, library.log().size());
    library.ctx()->trace_level = 20;
    fail();
    for (const std::string &line :
         {std::string("cm_next_entry(): There was no entry found in the section."),
          "cm_props_load(): Error processing '" + bad + "' (line 2)",
          "Failure opening configuration file '" + library.folder().path("config/none.ini") + "'.",
          std::string("cm_update_section(): No entry was found in the section.")})
        EXPECT_TRUE(library.logged("ERROR: " + line)) << line;
    EXPECT_EQ(1, library.ctx()->file_open);  // the log
}

}  // namespace
}  // namespace cm::test
