// Random rewrites against a plain model of them, and what every rewrite must leave readable.
#include <random>

#include "config_files.h"
#include "rewrite_model.h"

namespace {

using namespace cm::test;
using namespace config_test;

class RandomChange {
public:
    explicit RandomChange(uint32_t seed) : random_(seed) {}

    std::string file() {
        std::string text;
        for (int lines = pick(25); lines > 0; lines--) text += line() + (pick(12) == 0 ? "\r\n" : "\n");
        if (pick(4) == 0 && !text.empty()) text.pop_back();
        return text;
    }

    Change change() {
        Change made{static_cast<Change::Kind>(pick(5)), name(), {}};
        const bool many = made.kind == Change::kUpdateSection || made.kind == Change::kReplaceSection;
        for (int count = many ? pick(4) + 1 : 1; count > 0; count--) made.entries.emplace_back(name(), value());
        return made;
    }

private:
    int pick(int below) { return static_cast<int>(random_() % static_cast<uint32_t>(below)); }
    std::string one_of(std::initializer_list<const char *> texts) {
        return texts.begin()[pick(static_cast<int>(texts.size()))];
    }
    std::string name() {
        if (pick(3) == 0) return "a";
        if (pick(20) == 0) return std::string(static_cast<size_t>(253 + pick(5)), 'n');
        return one_of({"a", "A", "b", "alpha", "ALPHA", "alpha beta", "s", "S", "sec", "", " a", "#a", "a]b", "a=b",
                       "\"a=b\"", "[a]", "a\nb", "\xC3\xA4"});
    }
    std::string value() {
        if (pick(20) == 0) return std::string(static_cast<size_t>(1010 + pick(20)), 'v');
        if (pick(100) == 0) return std::string(static_cast<size_t>(2030 + pick(20)), 'v');
        return one_of({"", "1", "two words", "x=y", "# z", "[a]", " padded ", "a\n[evil]"});
    }
    std::string line() {
        const std::string indent = one_of({"", "", "", "", " ", "\t", "   "});
        switch (pick(12)) {
            case 0:
                return "";
            case 1:
                return one_of({" ", "\t ", "\r"});
            case 2:
                return indent + "# " + name();
            case 3:
            case 4:
            case 5:
                return indent + "[" + name() + one_of({"]", "]", "]", "]", "] tail", "] tail", " ]", ""});
            case 6:
                return pick(8) == 0 ? std::string(static_cast<size_t>(1020 + pick(8)), 'x') : indent + "nonsense";
            default:
                return indent + name() + one_of({" = ", " = ", "=", " =", "  = ", "\t= "}) + value();
        }
    }

    std::mt19937 random_;
};

// What the reader finds in a file outside the sections of a name, adjacent ones and all.
std::string other_sections(const std::string &text, const std::string &section) {
    std::string out;
    bool other = true;
    for (const std::string &line : RewriteModel::lines(text)) {
        const std::string whole = RewriteModel::trimmed(line);
        if (!whole.empty() && whole[0] == '[') {
            other = whole.size() < section.size() + 2 ||
                    !RewriteModel::same(whole.substr(1, section.size()), section) || whole[section.size() + 1] != ']';
        }
        if (other && line != "\r") out += line + "\n";  // one at the very end is an empty line once it has a line feed
    }
    return out;
}

TEST(RandomRewrites, AgreeWithTheModelAndStayReadable) {
    cm::platform::os.file_sync = [](int32_t) { return 0; };
    cm::platform::os.directory_sync = [](const char *) { return 0; };
    TempFolder folder;
    const std::string path = folder.path("a.ini"), bak = folder.path("a.bak");
    int succeeded = 0, partial = 0, readable = 0;
    for (uint32_t seed = 0; seed < 1500; seed++) {
        RandomChange random(seed);
        const std::string before = random.file();
        const Change change = random.change();
        const Outcome expected = RewriteModel(change).apply(before);
        folder.write("a.ini", before);
        folder.write("a.bak", "older");
        std::vector<cm_prop_entry> entries;
        for (const auto &[name, value] : change.entries)
            entries.push_back(
                {static_cast<int32_t>(name.size()), static_cast<int32_t>(value.size()), name.c_str(), value.c_str()});
        const char *const section = change.section.c_str(), *const name = entries[0].name;
        const int32_t length = static_cast<int32_t>(change.section.size()),
                      count = static_cast<int32_t>(entries.size());
        int32_t deleted = 0;
        int16_t result = -1;
        captured_standard_error([&] {
            switch (change.kind) {
                case Change::kDeleteSection:
                    result = cm_delete_section(nullptr, path.c_str(), bak.c_str(), section, length, &deleted);
                    break;
                case Change::kUpdateSection:
                    result =
                        cm_update_section(nullptr, path.c_str(), bak.c_str(), section, length, entries.data(), count);
                    break;
                case Change::kReplaceSection:
                    result =
                        cm_replace_section(nullptr, path.c_str(), bak.c_str(), section, length, entries.data(), count);
                    break;
                case Change::kDeleteEntry:
                    result = cm_delete_entry(nullptr, path.c_str(), bak.c_str(), section, name, &deleted);
                    break;
                default:
                    result = cm_update_entry(nullptr, path.c_str(), bak.c_str(), section, name, entries[0].value);
            }
        });
        const std::string after = folder.read("a.ini");
        SCOPED_TRACE("kind " + std::to_string(change.kind) + " [" + change.section + "] " + entries[0].name);
        ASSERT_EQ(result, expected.result) << "seed " << seed << "\n" << before;
        ASSERT_EQ(after, expected.file) << "seed " << seed << "\n" << before;
        ASSERT_EQ(deleted, expected.deleted) << "seed " << seed;
        ASSERT_EQ(folder.read("a.bak"), result == 1 || expected.partial ? before : "older") << "seed " << seed;
        ASSERT_EQ(folder.names().size(), 2u) << "seed " << seed;
        partial += expected.partial;
        if (result != 1) continue;
        succeeded++;
        std::string had, has;
        captured_standard_error([&] {
            had = read_all(before);
            has = read_all(after);
        });
        if (had.find("failed") != std::string::npos) continue;
        readable++;
        // Only the section update writes a line that the reader stops at, by its own rule of lengths.
        const bool stops = has.find("failed") != std::string::npos;
        ASSERT_FALSE(stops && change.kind != Change::kUpdateSection) << "seed " << seed;
        if (change.kind == Change::kReplaceSection || change.kind == Change::kUpdateSection) continue;
        ASSERT_EQ(other_sections(after, change.section), other_sections(before, change.section)) << "seed " << seed;
    }
    EXPECT_GT(succeeded, 400);
    EXPECT_GT(partial, 0);
    EXPECT_GT(readable, 25);
    cm::platform::os = cm::platform::kSystem;
}

}  // namespace
