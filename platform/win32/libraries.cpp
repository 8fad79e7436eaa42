// Libraries loaded at run time: from the system's folder and the program's own, never from the working directory.
#include "win32.h"

namespace cm::platform::system {

using namespace win32;

void *library_open(const char *file) {
    Wide wide(file);
    if (!wide) return nullptr;
    return reinterpret_cast<void *>(
        LoadLibraryExW(wide.get(), nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32 | LOAD_LIBRARY_SEARCH_APPLICATION_DIR));
}

void *library_symbol(void *library, const char *name) {
    return reinterpret_cast<void *>(GetProcAddress(reinterpret_cast<HMODULE>(library), name));
}

void library_close(void *library) {
    FreeLibrary(reinterpret_cast<HMODULE>(library));
}

}  // namespace cm::platform::system
