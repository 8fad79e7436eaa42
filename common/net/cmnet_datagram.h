// Datagrams inside the library.
#pragma once

#include "net/cmnet.h"

namespace cm::net {

// The next datagram until `deadline_ms` (monotonic).  Without `out_address` only those of the peer that the handle was
// last sent to count; others, and those that do not fit, are dropped and gain nobody any time.  False: time is up, the
// network stops, the socket failed; the handle is marked closed then, unless it is a listener.
bool receive_datagram(cm_net_state *state, cm_conn *conn, void *buffer, size_t size, int64_t deadline_ms,
                      size_t *out_count, uint32_t *out_address = nullptr, int32_t *out_port = nullptr);

// A new handle with a datagram socket, alerted under "connect" when there is none.  Null: failed.
cm_conn *open_datagram(cm_net_state *state);

}  // namespace cm::net
