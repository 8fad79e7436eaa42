#include "platform/platform.h"

namespace cm::platform {

const LibraryPair kTlsLibraries[] = {
#ifdef _WIN64
    {"libcrypto-3-x64.dll", "libssl-3-x64.dll"},
    {"libcrypto-1_1-x64.dll", "libssl-1_1-x64.dll"},
#else
    {"libcrypto-3.dll", "libssl-3.dll"},
    {"libcrypto-1_1.dll", "libssl-1_1.dll"},
#endif
    {"libeay32.dll", "ssleay32.dll"},
    {nullptr, nullptr}};

}  // namespace cm::platform
