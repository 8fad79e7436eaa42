// The scheduler as lower floors reach it: registering the library's own tasks.  Null until the scheduler is there; then
// nothing is registered.
#pragma once

#include "tilvarcm.h"

namespace cm {

constexpr int32_t kTaskOfLibrary = 101;  // origin of tasks that no configuration file names

struct Scheduler {
    int16_t(CM_CALL *add_task)(cm_context *ctx, const char *name, cm_task_fn function, cm_value argument,
                               int32_t origin, int32_t threaded, const char *period);
    int16_t(CM_CALL *remove_task)(cm_context *ctx, const char *name);
};

extern const Scheduler *scheduler;

// What "NTP Synchronization" runs; its argument is the network state.
extern cm_task_fn ntp_task;

}  // namespace cm
