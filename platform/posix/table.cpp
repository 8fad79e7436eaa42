#include "platform/system.h"

namespace cm::platform {

const char *const kLastResortTemp = "//tmp";
const bool kFoldsPathCase = false;

constinit const Table kSystem = system::kTable;
constinit Table os = system::kTable;

}  // namespace cm::platform
