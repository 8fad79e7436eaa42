// The lines of sectioned configuration files, as the reader and the rewriters tell them apart.
#pragma once

#include <stddef.h>

#include <string_view>

#include "core/cmstring.h"

namespace cm::props {

// In bytes, terminators not counted.
constexpr size_t kMaxLine = 1024;
constexpr size_t kMaxName = 255;  // of sections and of entries
constexpr size_t kMaxValue = 1024;

enum class LineKind { kBlank, kComment, kHead, kEntry };

struct Line {
    LineKind kind;
    std::string_view text;  // from the first byte that is no white space to the end of the line
    size_t indent;          // white space before it
};

inline Line classify(std::string_view line) {
    size_t indent = 0;
    while (indent < line.size() && is_space(line[indent])) indent++;
    line.remove_prefix(indent);
    if (line.empty()) return {LineKind::kBlank, line, indent};
    if (line.front() == '#') return {LineKind::kComment, line, indent};
    return {line.front() == '[' ? LineKind::kHead : LineKind::kEntry, line, indent};
}

inline std::string_view trim_end(std::string_view text) {
    while (!text.empty() && is_space(text.back())) text.remove_suffix(1);
    return text;
}

// The name between the "[" that a head's text begins with and its first "]".  False when there is none.
bool section_name(std::string_view head, std::string_view *out_name);

// The two sides of an entry's "=", trimmed.  False when there is no "=" where it is looked for, or no name before it.
bool split_entry(const Line &entry, std::string_view *out_name, std::string_view *out_value);

// Whether the reader gets past this line (which has no line feed) without an error.
bool is_readable(std::string_view line);

}  // namespace cm::props
