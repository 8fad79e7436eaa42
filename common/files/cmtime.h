// Dates inside the library: the pattern language of the date parsers.
#pragma once

namespace cm::time {

// Whether a text follows a pattern from its first byte on.  "#" is a digit, "~" a digit or a blank, "@" a capital, "$"
// a small letter, "&" a hexadecimal digit, "*" the rest whatever it is; every other byte stands for itself, and the end
// of the pattern for the end of the text.  A pattern of more than 256 positions never matches.
bool matches(const char *text, const char *pattern);

}  // namespace cm::time
