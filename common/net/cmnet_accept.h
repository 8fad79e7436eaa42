// Accepting, as the accept loop does it: the connection first, what may take long on its worker.
#pragma once

#include "net/cmnet.h"

namespace cm::net {

// One connection or datagram of a listener.  `later`: the reverse look-up and the TLS handshake are left to
// finish_accept (and marked in the handle); they are done here otherwise.  Null: *out_error tells why, 0 when it was
// not the socket's fault.
cm_conn *accept_one(cm_net_state *state, cm_conn *listener, uint32_t flags, bool later, Error *out_error);

// Does what accept_one left.  False: the connection is to be closed.
bool finish_accept(cm_net_state *state, cm_conn *conn);

}  // namespace cm::net
