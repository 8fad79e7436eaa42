// Locks and threads inside the library.
#pragma once

#include "tilvarcm.h"

namespace cm {

// Holds a mutex for a scope.  A null mutex is "nothing to lock" and counts as held.
class MutexGuard {
public:
    explicit MutexGuard(cm_mutex *mutex) : mutex_(mutex) {
        if (mutex_ != nullptr) cm_take_mutex(mutex_);
    }
    ~MutexGuard() {
        if (mutex_ != nullptr) cm_release_mutex(mutex_);
    }
    MutexGuard(const MutexGuard &) = delete;
    MutexGuard &operator=(const MutexGuard &) = delete;

private:
    cm_mutex *mutex_;
};

namespace thread {

// How many threads the table holds.
int32_t count(cm_context *ctx);

}  // namespace thread
}  // namespace cm
