// Path and pattern functions over any bytes: nothing outside the storage they were given, and their promises kept.
// Input: two size bytes, then up to four texts separated by line feeds.
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "files/cmdir.h"
#include "files/cmfile.h"
#include "tilvarcm.h"

namespace {

void require(bool condition) {
    if (!condition) std::abort();
}

std::string clean(const std::string &base, const std::string *relative, int32_t size) {
    const std::unique_ptr<char[]> out(new char[static_cast<size_t>(size)]);
    int32_t length = -1;
    const char *rest = relative == nullptr ? nullptr : relative->data();
    const int32_t rest_length = relative == nullptr ? 0 : static_cast<int32_t>(relative->size());
    if (cm_cleanup_path(nullptr, base.data(), static_cast<int32_t>(base.size()), rest, rest_length, out.get(), size,
                        &length) == 0)
        return {};
    require(length >= 0 && length < size && out[static_cast<size_t>(length)] == '\0');
    return {out.get(), static_cast<size_t>(length)};
}

void check_cleanup(const std::string &base, const std::string *relative, int32_t size) {
    const std::string result = clean(base, relative, size);
    require(result.size() <= base.size() + (relative == nullptr ? 0 : relative->size() + 1));
    require(result.find("/../", 1) == std::string::npos && result.find('\\', 1) == std::string::npos);
}

void check_build(cm_context *ctx, const char *directory, const std::string &name, int32_t size) {
    const std::unique_ptr<char[]> out(new char[static_cast<size_t>(size)]);
    int32_t length = -1;
    if (cm_build_path(ctx, directory, name.c_str(), out.get(), size, &length) != 0)
        require(length >= 0 && length < size && out[static_cast<size_t>(length)] == '\0');
}

// The obvious matcher: a table over both texts.
bool matches_slowly(std::string_view pattern, std::string_view name) {
    if (pattern == "*.*") return true;
    std::vector<bool> row(name.size() + 1);
    row[0] = true;
    for (const char p : pattern) {
        std::vector<bool> next(name.size() + 1);
        next[0] = p == '*' && row[0];
        for (size_t i = 1; i <= name.size(); i++) {
            const char a = p >= 'A' && p <= 'Z' ? static_cast<char>(p + 32) : p;
            const char b = name[i - 1] >= 'A' && name[i - 1] <= 'Z' ? static_cast<char>(name[i - 1] + 32) : name[i - 1];
            next[i] = p == '*' ? next[i - 1] || row[i] : row[i - 1] && (p == '?' || a == b);
        }
        row = next;
    }
    return row[name.size()];
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 2) return 0;
    const int32_t room = 1 + data[0] % 96, choice = data[1];
    std::string texts[4];
    size_t index = 0;
    for (size_t i = 2; i < size && index < 4; i++) {
        if (data[i] == '\n')
            index++;
        else
            texts[index] += static_cast<char>(data[i]);
    }
    check_cleanup(texts[0], (choice & 1) != 0 ? &texts[1] : nullptr, room);
    static cm_context context;
    context.root_dir = texts[2].data();
    context.root_len = static_cast<int32_t>(texts[2].size());
    context.trace_level = 0;
    check_build(&context, (choice & 2) != 0 ? texts[0].c_str() : nullptr, texts[1], room);
    (void)cm::files::is_device_name(texts[0]);
    // A "?" takes a whole character of UTF-8, which the table does not know about.
    bool plain = true;
    for (const char c : texts[1]) plain = plain && static_cast<signed char>(c) >= 0;
    if (plain && texts[0].size() < 300 && texts[1].size() < 300)
        require(cm::files::matches_pattern(texts[0], texts[1]) == matches_slowly(texts[0], texts[1]));
    return 0;
}
