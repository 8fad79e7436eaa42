#include <dlfcn.h>
#include <string.h>

#include "posix.h"

namespace cm::platform::system {

// A bare name is looked for by the loader in the system's folders.  A relative path would depend on the working
// directory, so it is refused.
void *library_open(const char *file) {
    if (file[0] == '\0' || (file[0] != '/' && strchr(file, '/') != nullptr)) return nullptr;
    return dlopen(file, RTLD_NOW | RTLD_LOCAL);
}

void *library_symbol(void *library, const char *name) {
    return dlsym(library, name);
}

void library_close(void *library) {
    dlclose(library);
}

}  // namespace cm::platform::system
