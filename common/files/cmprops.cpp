// The reader of sectioned configuration files: a pull parser over an open file.
//
// The caller takes the next head, then the entries of that section until they end.  They end at the next head, which
// has been read by then: it waits in the handle's push-back buffer for the next cm_next_section.
#include "files/cmprops.h"

#include <string.h>

#include "core/cmerror.h"
#include "core/cmmemory.h"
#include "core/cmstring.h"
#include "files/cmfile.h"
#include "platform/platform.h"

namespace cm::props {

bool section_name(std::string_view head, std::string_view *out_name) {
    head.remove_prefix(1);
    const size_t length = head.find(']');
    if (length == std::string_view::npos) return false;
    *out_name = {head.data(), length};
    return true;
}

namespace {

// The first "=" outside double quotes; npos when there is none.
size_t find_separator(std::string_view text) {
    const size_t first = text.find('=');
    if (first == std::string_view::npos || memchr(text.data(), '"', first) == nullptr) return first;
    bool quoted = false;
    for (size_t i = 0; i < text.size(); i++) {
        if (text[i] == '"') quoted = !quoted;
        if (text[i] == '=' && !quoted) return i;
    }
    return std::string_view::npos;
}

}  // namespace

bool split_entry(const Line &entry, std::string_view *out_name, std::string_view *out_value) {
    // Kept: on an indented line the last bytes, as many as the indentation, are not searched for the "=".  Files that
    // load today must go on to load, and those that fail to fail.
    std::string_view text = entry.text;
    const size_t searched = text.size() > entry.indent ? text.size() - entry.indent : 0;
    const size_t separator = find_separator({text.data(), searched});
    if (separator == std::string_view::npos) return false;
    *out_name = trim_end({text.data(), separator});
    text.remove_prefix(separator + 1);
    *out_value = trim_end(classify(text).text);
    return !out_name->empty();
}

bool is_readable(std::string_view line) {
    if (line.size() > kMaxLine) return false;
    const Line parts = classify(line);
    std::string_view name, value;
    if (parts.kind == LineKind::kHead) return section_name(parts.text, &name) && name.size() <= kMaxName;
    if (parts.kind != LineKind::kEntry) return true;
    return split_entry(parts, &name, &value) && name.size() <= kMaxName && value.size() <= kMaxValue;
}

namespace {

using platform::os;

// Room for a line and its terminator.
using LineBuffer = char[kMaxLine + 1];

// A head is a whole line at most; its length is kept beside it, so it needs no terminator.
bool reserve_push_back(cm_file *file) {
    if (file->push_back != nullptr) return true;
    void *buffer = file->ctx != nullptr ? shared_allocate(file->ctx, kMaxLine) : os.allocate(kMaxLine);
    file->push_back = static_cast<char *>(buffer);
    return buffer != nullptr;
}

bool push_back(cm_file *file, std::string_view head) {
    if (!reserve_push_back(file)) return false;
    memcpy(file->push_back, head.data(), head.size());
    file->push_length = static_cast<int32_t>(head.size());
    return true;
}

void hand_out(std::string_view text, char *out) {
    if (out == nullptr) return;
    if (!text.empty()) memcpy(out, text.data(), text.size());
    out[text.size()] = '\0';
}

enum class Next { kLine, kEnd, kFailure };

Next next_line(cm_file *file, LineBuffer &buffer, Line *out) {
    int32_t length = 0;
    if (cm_fgetl(file, 0, buffer, kMaxLine, &length, nullptr) == 0) return Next::kFailure;
    if (length < 1) return Next::kEnd;
    *out = classify({buffer, static_cast<size_t>(length)});
    return Next::kLine;
}

// The next line that belongs to the section; a head is pushed back and ends it.
Next next_in_section(cm_file *file, LineBuffer &buffer, Line *out) {
    for (;;) {
        const Next next = next_line(file, buffer, out);
        if (next != Next::kLine || out->kind == LineKind::kEntry) return next;
        if (out->kind == LineKind::kHead) return push_back(file, out->text) ? Next::kEnd : Next::kFailure;
    }
}

struct Entry {
    std::string_view name, value;  // in the buffer of the line, a byte behind each of them is free for a terminator
};

Next next_entry(cm_file *file, LineBuffer &buffer, Entry *out) {
    Line line;
    const Next next = next_in_section(file, buffer, &line);
    if (next != Next::kLine) return next;
    const char *wrong = nullptr;
    if (!split_entry(line, &out->name, &out->value))
        wrong = "cm_next_entry(): There was no entry found in the section.";
    else if (out->name.size() > kMaxName)
        wrong = "cm_next_entry(): The name arguemnt is > 256 bytes.";
    else if (out->value.size() > kMaxValue)
        wrong = "cm_next_entry(): The value arguemnt is > 1024 bytes.";
    if (wrong == nullptr) return Next::kLine;
    report(nullptr, CM_ERROR, "%s", wrong);
    return Next::kFailure;
}

int16_t end_of_section(Next next, int32_t *found) {
    if (next == Next::kFailure) return 0;
    *found = 0;
    return 1;
}

int16_t hand_out_section(std::string_view head, char *name, int32_t *found) {
    std::string_view text;
    if (!section_name(head, &text)) {
        report(nullptr, CM_ERROR, "cm_next_section(): End of section not found.");
        return 0;
    }
    if (text.size() > kMaxName) {
        report(nullptr, CM_ERROR, "cm_next_section(): The name argument is > 256 bytes.");
        return 0;
    }
    hand_out(text, name);
    *found = 1;
    return 1;
}

struct Loader {
    cm_context *ctx;
    cm_value user;
    cm_props_callback callback;
    cm_file *file;

    int16_t malformed() const {
        report(ctx, CM_ERROR, "cm_props_load(): Error processing '%s' (line %ld)\n", file->name,
               static_cast<long>(file->lines));
        return 0;
    }

    int16_t load_section() const {
        LineBuffer buffer;
        const auto terminated = [&buffer](std::string_view text) {
            char *const begin = buffer + (text.data() - buffer);
            begin[text.size()] = '\0';
            return begin;
        };
        for (;;) {
            Entry entry;
            const Next next = next_entry(file, buffer, &entry);
            if (next == Next::kFailure) return malformed();
            if (next == Next::kEnd) return 1;
            const char *const name = terminated(entry.name);
            if (callback(ctx, user, name, terminated(entry.value)) == 1) continue;
            report(ctx, CM_ERROR, "cm_props_load(%s): Error processing '%s' file (line %ld)", name, file->name,
                   static_cast<long>(file->lines));
            return 0;
        }
    }

    int16_t load(std::string_view section) const {
        char name[kMaxName + 1];
        for (;;) {
            int32_t found;
            if (cm_next_section(file, name, &found) == 0) return malformed();
            if (found == 0) return 1;
            if (equal_folded(name, section) && load_section() == 0) return 0;
        }
    }
};

}  // namespace
}  // namespace cm::props

using namespace cm::props;

CM_API int16_t CM_CALL cm_next_section(cm_file *file_handle, char *name, int32_t *found) {
    int32_t ignored;
    if (found == nullptr) found = &ignored;
    *found = -1;
    if (file_handle == nullptr || !reserve_push_back(file_handle)) return 0;
    if (file_handle->push_length > 0) {
        const std::string_view head(file_handle->push_back, static_cast<size_t>(file_handle->push_length));
        file_handle->push_length = 0;
        return hand_out_section(head, name, found);
    }
    LineBuffer buffer;
    for (;;) {
        Line line;
        const Next next = next_line(file_handle, buffer, &line);
        if (next != Next::kLine) return end_of_section(next, found);
        if (line.kind == LineKind::kHead) return hand_out_section(line.text, name, found);
    }
}

CM_API int16_t CM_CALL cm_next_entry(cm_file *file_handle, char *name, char *value, int32_t *found) {
    int32_t ignored;
    if (found == nullptr) found = &ignored;
    *found = -1;
    if (file_handle == nullptr) return 0;
    LineBuffer buffer;
    Entry entry;
    const Next next = next_entry(file_handle, buffer, &entry);
    if (next != Next::kLine) return end_of_section(next, found);
    hand_out(entry.name, name);
    hand_out(entry.value, value);
    *found = 1;
    return 1;
}

CM_API int16_t CM_CALL cm_next_line(cm_file *file_handle, char *line, int32_t *found) {
    int32_t ignored;
    if (found == nullptr) found = &ignored;
    *found = -1;
    if (file_handle == nullptr) return 0;
    LineBuffer buffer;
    Line read;
    const Next next = next_in_section(file_handle, buffer, &read);
    if (next != Next::kLine) return end_of_section(next, found);
    const std::string_view text = trim_end(read.text);
    // Kept: a line of a single byte is refused.  No schedule entry is that short.
    if (text.size() < 2) {
        cm::report(nullptr, CM_ERROR, "cm_next_line(): There was no entry found in the section.");
        return 0;
    }
    hand_out(text, line);
    *found = 1;
    return 1;
}

CM_API int16_t CM_CALL cm_props_load(cm_context *ctx, const char *file, const char *section, int32_t section_len,
                                     cm_value user, cm_props_callback callback) {
    if (file == nullptr || callback == nullptr) return 0;
    char path[1024];
    const char *directory = ctx != nullptr ? ctx->config_dir : nullptr;
    if (cm_build_path(ctx, directory, file, path, sizeof path, nullptr) == 0) return 0;
    cm::files::FileCloser open;
    if (cm_fopen(ctx, path, cm::files::kReadSequential, open.out()) == 0) {
        cm::report(ctx, CM_ERROR, "Failure opening configuration file '%s'.", path);
        return 0;
    }
    return Loader{ctx, user, callback, open.get()}.load(cm::view(section, section_len));
}
