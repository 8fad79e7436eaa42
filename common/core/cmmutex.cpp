// Mutexes: the system's recursive lock under a handle.
#include "core/cmerror.h"
#include "platform/platform.h"

using cm::report;
using cm::platform::os;

namespace {

// The sizes that messages name are part of their text.
constexpr int kMutexSizeInMessage = 12, kLockSizeInMessage = 4;

}  // namespace

int16_t cm_create_mutex(cm_context *ctx, cm_mutex **out_mutex) {
    if (out_mutex == nullptr) return 0;
    *out_mutex = nullptr;
    auto *mutex = static_cast<cm_mutex *>(os.allocate_zeroed(sizeof(cm_mutex)));
    if (mutex == nullptr) {
        report(ctx, CM_ERROR, "cm_create_mutex(): MALLOC() of %d bytes failed.", kMutexSizeInMessage);
        return 0;
    }
    mutex->object = os.lock_create();
    if (mutex->object == nullptr) {
        report(ctx, CM_ERROR, "cm_create_mutex(): MALLOC() of %d bytes failed.", kLockSizeInMessage);
        os.release(mutex);
        return 0;
    }
    mutex->kind = 1;
    mutex->ctx = ctx;
    *out_mutex = mutex;
    return 1;
}

int16_t cm_take_mutex(cm_mutex *mutex) {
    if (mutex == nullptr) return 0;
    os.lock_acquire(static_cast<cm::platform::Lock *>(mutex->object));
    return 1;
}

int16_t cm_release_mutex(cm_mutex *mutex) {
    if (mutex == nullptr) return 0;
    os.lock_release(static_cast<cm::platform::Lock *>(mutex->object));
    return 1;
}

int16_t cm_delete_mutex(cm_mutex *mutex) {
    if (mutex == nullptr) return 0;
    os.lock_destroy(static_cast<cm::platform::Lock *>(mutex->object));
    *mutex = {};
    os.release(mutex);
    return 1;
}
