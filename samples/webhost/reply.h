// Answers to requests.
#pragma once

#include "host.h"
#include "request.h"

namespace webhost {

// Sends the answer and writes the access log line.  `keep`: the connection may go on.  Result: whether it really can.
bool answer(Host &host, cm_conn *conn, const Request &request, bool keep);

// Sends an error reply.
bool refuse(Host &host, cm_conn *conn, const Request &request, int status, bool keep);

}  // namespace webhost
