// The pull parser over a text in memory.  Names and values keep their promises of length and trimming, and an entry
// that was read can be written in its plain form and read back.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/platform.h"
#include "tilvarcm.h"

namespace {

void check(bool holds) {
    if (!holds) abort();
}

bool is_trimmed(const char *text) {
    const size_t length = strlen(text);
    return length == 0 ||
           (strchr(" \t\n\v\f\r", text[0]) == nullptr && strchr(" \t\n\v\f\r", text[length - 1]) == nullptr);
}

bool quotes_match(const std::string &text) {
    return std::count(text.begin(), text.end(), '"') % 2 == 0;
}

cm_file *open_text(const std::string &text) {
    cm_file *file = nullptr;
    if (cm_fopens(nullptr, "fuzz.ini", text.data(), static_cast<int32_t>(text.size()), &file) == 0) return nullptr;
    return file;
}

void read_back(const char *name, const char *value) {
    const std::string text = std::string("[s]\n") + name + "=" + value;
    if (text.size() > 4 + 1024) return;
    cm_file *file = open_text(text);
    char got_name[256], got_value[1025];
    int32_t found = 0;
    check(cm_next_section(file, got_name, &found) == 1 && found == 1);
    check(cm_next_entry(file, got_name, got_value, &found) == 1 && found == 1);
    check(strcmp(got_name, name) == 0 && strcmp(got_value, value) == 0);
    cm_fclose(file);
}

// By the first byte every section is read as entries, as lines, or not at all.
bool read_section(cm_file *file, uint8_t how) {
    char name[256], value[1025];
    int32_t found = 1;
    while (how != 2) {
        const int16_t result = how == 0 ? cm_next_entry(file, name, value, &found) : cm_next_line(file, value, &found);
        check(result == (found == -1 ? 0 : 1));
        if (found != 1) return found == 0;
        check(strlen(value) <= 1024);
        if (how != 0) continue;
        check(strlen(name) <= 255 && strchr(name, '\n') == nullptr);
        // A NUL in the file cuts what is handed out, and may leave a blank at its end or half of a quotation.
        if (name[0] != '\0' && is_trimmed(name) && is_trimmed(value) && quotes_match(name)) read_back(name, value);
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0) return 0;
    cm::platform::os.write_standard_error = [](const char *, size_t) {};
    const std::string text(reinterpret_cast<const char *>(data) + 1, size - 1);
    cm_file *file = open_text(text);
    if (file == nullptr) return 0;
    char name[256];
    int32_t found = 1;
    for (int32_t lines = -1; cm_next_section(file, name, &found) == 1 && found == 1; lines = file->lines) {
        check(strlen(name) <= 255 && strchr(name, ']') == nullptr);
        check(file->lines >= lines);
        if (!read_section(file, data[0] % 3)) break;
    }
    cm_fclose(file);
    return 0;
}
