// Names of files: taking paths apart.
#pragma once

#include <string_view>

#include "core/cmstring.h"

namespace cm::files {

// What the path builder calls absolute: "c:..." and a doubled separator.  A single leading separator is not.
constexpr bool is_absolute(std::string_view path) {
    if (path.size() < 2) return false;
    return path[1] == ':' || (is_separator(path[0]) && path[1] == path[0]);
}

constexpr bool ends_in_separator(std::string_view path) {
    return !path.empty() && is_separator(path.back());
}
constexpr bool begins_with_separator(std::string_view path) {
    return !path.empty() && is_separator(path.front());
}

}  // namespace cm::files
