// The dial-up line, inside the library.
#pragma once

#include "tilvarcm.h"

namespace cm::dialup {

// The task that hangs the line up when its time has come.
int16_t CM_CALL look_after_line(cm_context *ctx, const char *name, cm_value argument);

}  // namespace cm::dialup
