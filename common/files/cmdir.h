// Directories inside the library.
#pragma once

#include <string_view>

namespace cm::files {

// Whether a name matches a pattern of "*" (any text) and "?" (one character), letters compared without regard to case.
// "*.*" is every name, with or without a full stop.  Takes time in proportion to both lengths at most.
bool matches_pattern(std::string_view pattern, std::string_view name);

}  // namespace cm::files
