// One of the five rewriters on any file, compared with a plain model: what it writes, what it keeps as
// the backup, and that it touches nothing when it fails.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "platform/platform.h"
#include "rewrite_model.h"
#include "support/support.h"
#include "tilvarcm.h"

namespace {

using config_test::Change;
using config_test::Outcome;
using config_test::RewriteModel;

void check(bool holds) {
    if (!holds) abort();
}

// The input: the kind, then lines up to an empty one (section; name and value of each entry), then the file.
struct Input {
    Change change;
    std::string file;
};

Input split(const uint8_t *data, size_t size) {
    Input input{{static_cast<Change::Kind>(size > 0 ? data[0] % 5 : 0), "", {}}, ""};
    std::string rest(reinterpret_cast<const char *>(data) + (size > 0 ? 1 : 0), size > 0 ? size - 1 : 0);
    const auto take = [&rest] {
        const size_t end = rest.find('\n');
        const std::string line = rest.substr(0, end);
        rest.erase(0, end == std::string::npos ? end : end + 1);
        return std::string(line.c_str());  // without what follows a NUL
    };
    input.change.section = take();
    const bool one = input.change.kind == Change::kDeleteEntry || input.change.kind == Change::kUpdateEntry;
    while (input.change.entries.size() < (one ? 1 : 4) && !rest.empty() && (one || rest[0] != '\n')) {
        const std::string name = take();
        input.change.entries.emplace_back(name, take());
    }
    if (one && input.change.entries.empty()) input.change.entries.emplace_back();
    if (!one && !rest.empty() && rest[0] == '\n') rest.erase(0, 1);
    input.file = rest;
    return input;
}

int16_t apply(const Change &change, const std::string &path, const std::string &bak, int32_t *deleted) {
    std::vector<cm_prop_entry> entries;
    for (const auto &[name, value] : change.entries)
        entries.push_back(
            {static_cast<int32_t>(name.size()), static_cast<int32_t>(value.size()), name.c_str(), value.c_str()});
    const char *const file = path.c_str(), *const backup = bak.c_str(), *const section = change.section.c_str();
    const int32_t count = static_cast<int32_t>(entries.size());
    const cm_prop_entry none{}, *const first = count > 0 ? entries.data() : &none;
    switch (change.kind) {
        case Change::kDeleteSection:
            return cm_delete_section(nullptr, file, backup, section, CM_LEN_TEXT, deleted);
        case Change::kUpdateSection:
            return cm_update_section(nullptr, file, backup, section, CM_LEN_TEXT, first, count);
        case Change::kReplaceSection:
            return cm_replace_section(nullptr, file, backup, section, CM_LEN_TEXT, first, count);
        case Change::kDeleteEntry:
            return cm_delete_entry(nullptr, file, backup, section, first->name, deleted);
        default:
            return cm_update_entry(nullptr, file, backup, section, first->name, first->value);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    auto &os = cm::platform::os;
    os.write_standard_error = [](const char *, size_t) {};
    os.file_sync = [](int32_t) { return 0; };
    os.directory_sync = [](const char *) { return 0; };
    static const cm::test::TempFolder folder;
    static const std::string path = folder.path("a.ini"), bak = folder.path("a.bak");
    const Input input = split(data, size);
    // Where both names are one file, writing the one would write the other.
    os.path_remove(bak.c_str());
    os.path_remove(path.c_str());
    folder.write("a.ini", input.file);
    folder.write("a.bak", "older");
    const Outcome expected = RewriteModel(input.change).apply(input.file);
    int32_t deleted = 0;
    check(apply(input.change, path, bak, &deleted) == expected.result);
    check(deleted == expected.deleted);
    check(folder.read("a.ini") == expected.file);
    check(folder.read("a.bak") == (expected.result == 1 || expected.partial ? input.file : "older"));
    check(folder.names().size() == 2);
    return 0;
}
