// What every connection of the host shares.
#pragma once

#include <atomic>
#include <string>

#include "access_log.h"
#include "tilvarcm.h"

namespace webhost {

struct Host {
    cm_context *ctx = nullptr;
    cm_net_state *net = nullptr;
    std::string folder;  // served files lie below it; without a slash at the end
    AccessLog log;
    std::atomic<int> connections{0};  // handlers at work
};

// The handler of the listener: serves one connection until either side ends it.  `argument` is the Host.
int16_t CM_CALL serve_connection(cm_context *ctx, cm_conn *conn, cm_thread *self, cm_value argument);

}  // namespace webhost
