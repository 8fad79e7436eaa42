// Libraries loaded at run time, inside the library.
#pragma once

namespace cm::dll {

// From now on `file` is what a look-up in `module` opens; null: what it is again.  Both texts are kept.  False: there
// are too many.  For tests, which thereby have no TLS library, or half of one; while no other thread looks anything up.
bool map(const char *module, const char *file);

}  // namespace cm::dll
