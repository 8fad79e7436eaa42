// Libraries loaded at run time, one record for each module name on the context's list.
//
// The file mutex guards the list, and only that: a library is opened and closed outside of it, since its own start-up
// code runs then.  Of two threads that open the same one, the second gives its own back.
#include "core/cmdll.h"

#include <string.h>

#include <new>

#include "core/cmstring.h"
#include "core/cmthread.h"
#include "platform/platform.h"

struct cm_dll_rec {
    cm_dll_rec *next;
    void *library;
    char name[];
};

namespace cm::dll {
namespace {

using platform::LibraryPair;
using platform::os;

constexpr char kCryptoModule[] = "libeay32.dll", kTlsModule[] = "ssleay32.dll";

struct Mapping {
    const char *module, *file;
};
Mapping mappings[4];

bool same(const char *a, const char *b) {
    return platform::kFoldsPathCase ? equal_folded(a, b) : strcmp(a, b) == 0;
}

const char *mapped(const char *module) {
    for (const Mapping &mapping : mappings)
        if (mapping.module != nullptr && same(mapping.module, module)) return mapping.file;
    return nullptr;
}

// A library until somebody takes it over.
class Library {
public:
    explicit Library(void *library) : library_(library) {}
    ~Library() {
        if (library_ != nullptr) os.library_close(library_);
    }
    Library(const Library &) = delete;
    Library &operator=(const Library &) = delete;
    explicit operator bool() const { return library_ != nullptr; }
    void *release() {
        void *library = library_;
        library_ = nullptr;
        return library;
    }

private:
    void *library_;
};

// With the lock.
cm_dll_rec **find(cm_context *ctx, const char *module) {
    cm_dll_rec **at = &ctx->dll_list;
    while (*at != nullptr && !same((*at)->name, module)) at = &(*at)->next;
    return at;
}

void *opened(cm_context *ctx, const char *module) {
    const MutexGuard guard(ctx->file_mutex);
    const cm_dll_rec *record = *find(ctx, module);
    return record == nullptr ? nullptr : record->library;
}

// Gives what is open under that name afterwards.
void *enter(cm_context *ctx, const char *module, Library &library) {
    const size_t size = strlen(module) + 1;
    auto *record = static_cast<cm_dll_rec *>(os.allocate(sizeof(cm_dll_rec) + size));
    if (record == nullptr) return nullptr;
    memcpy(record->name, module, size);
    void *other = nullptr;
    {
        const MutexGuard guard(ctx->file_mutex);
        const cm_dll_rec *there = *find(ctx, module);
        if (there == nullptr) {
            record->library = library.release();
            record->next = ctx->dll_list;
            ctx->dll_list = record;
            return record->library;
        }
        other = there->library;
    }
    os.release(record);
    return other;
}

// The newest TLS library whose two modules are both here; a module of one version does not go with one of another.
void *open_tls_library(cm_context *ctx, const char *module) {
    const bool crypto_wanted = same(module, kCryptoModule);
    for (const LibraryPair *pair = platform::kTlsLibraries; pair->crypto != nullptr; pair++) {
        Library crypto(os.library_open(pair->crypto));
        if (!crypto) continue;
        Library tls(os.library_open(pair->tls));
        if (tls) return enter(ctx, module, crypto_wanted ? crypto : tls);
    }
    return nullptr;
}

void *open(cm_context *ctx, const char *module) {
    const char *file = mapped(module);
    if (file == nullptr && (same(module, kCryptoModule) || same(module, kTlsModule)))
        return open_tls_library(ctx, module);
    Library library(os.library_open(file != nullptr ? file : module));
    return library ? enter(ctx, module, library) : nullptr;
}

bool is_text(const char *text) {
    return text != nullptr && text[0] != '\0';
}

int16_t look_up(cm_context *ctx, const char *module, const char *function, void **out_function, bool may_open) {
    if (out_function == nullptr) return 0;
    *out_function = nullptr;
    if (ctx == nullptr || !is_text(module) || !is_text(function)) return 0;
    void *library = opened(ctx, module);
    if (library == nullptr && may_open) library = open(ctx, module);
    if (library != nullptr) *out_function = os.library_symbol(library, function);
    return *out_function != nullptr ? 1 : 0;
}

void close(cm_dll_rec *record) {
    os.library_close(record->library);
    os.release(record);
}

}  // namespace

bool map(const char *module, const char *file) {
    for (Mapping &mapping : mappings)
        if (mapping.module != nullptr && same(mapping.module, module)) mapping = {};
    for (Mapping &mapping : mappings) {
        if (file == nullptr) break;
        if (mapping.module != nullptr) continue;
        mapping = {module, file};
        return true;
    }
    return file == nullptr;
}

}  // namespace cm::dll

using namespace cm::dll;

CM_API int16_t CM_CALL cm_dll_lookup(cm_context *ctx, const char *module, const char *function, void **out_function) {
    return look_up(ctx, module, function, out_function, true);
}

CM_API int16_t CM_CALL cm_dllfunc_lookup(cm_context *ctx, const char *module, const char *function,
                                         void **out_function) {
    return look_up(ctx, module, function, out_function, false);
}

CM_API int16_t CM_CALL cm_dll_close(cm_context *ctx, const char *module) {
    if (ctx == nullptr || !is_text(module)) return 0;
    cm_dll_rec *record = nullptr;
    {
        const cm::MutexGuard guard(ctx->file_mutex);
        cm_dll_rec **at = find(ctx, module);
        record = *at;
        if (record == nullptr) return 0;
        *at = record->next;
    }
    close(record);
    return 1;
}

CM_API int16_t CM_CALL cm_dlls_free(cm_context *ctx) {
    if (ctx == nullptr) return 0;
    cm_dll_rec *record = nullptr;
    {
        const cm::MutexGuard guard(ctx->file_mutex);
        record = ctx->dll_list;
        ctx->dll_list = nullptr;
    }
    while (record != nullptr) {
        cm_dll_rec *next = record->next;
        close(record);
        record = next;
    }
    return 1;
}
