// Section "common" of config.ini.
#pragma once

#include "tilvarcm.h"

namespace cm::context {

// The settings that hold without a configuration file.
void set_defaults(cm_context *ctx);

}  // namespace cm::context
