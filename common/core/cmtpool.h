// What the thread pool needs from the floor above it.
#pragma once

#include "tilvarcm.h"

namespace cm::thread_pool {

// Closes a job's connection.  The network sets it to cm_net_close before it makes a pool; until then connections are
// left alone.
using CloseConnection = int16_t(CM_CALL *)(cm_net_state *net, cm_conn *connection, int16_t graceful);
extern CloseConnection close_connection;

}  // namespace cm::thread_pool
