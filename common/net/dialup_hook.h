// The dial-up line as the network layer uses it.  Null: there is no line, and nothing needs dialling.
#pragma once

#include "tilvarcm.h"

namespace cm::net {

struct Dialup {
    int16_t(CM_CALL *dial)(cm_context *ctx);          // before an outgoing connection
    int16_t(CM_CALL *hang_up)(cm_context *ctx);       // when that connection closes
    int16_t(CM_CALL *check_status)(cm_context *ctx);  // after a connect over the line failed
};

extern const Dialup *dialup;

}  // namespace cm::net
