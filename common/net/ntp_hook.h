// The clock's task as the network's start registers it.
#pragma once

#include "tilvarcm.h"

namespace cm::net {

// What "NTP Synchronization" runs on a thread of its own: cm_ntp_cron, unless a test replaces it.  Its argument is the
// network state, which may be stopping while it runs.
extern cm_task_fn ntp_task;

}  // namespace cm::net
