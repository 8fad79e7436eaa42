// The table of this side.
#include "platform/system.h"

namespace cm::platform {

constinit Table os = system::kTable;
constinit const Table kSystem = system::kTable;

}  // namespace cm::platform
