#include "platform/platform.h"

namespace cm::platform {

const LibraryPair kTlsLibraries[] = {{"libcrypto.so.3", "libssl.so.3"},
                                     {"libcrypto.so.1.1", "libssl.so.1.1"},
                                     {"libcrypto.so.1.0.2", "libssl.so.1.0.2"},
                                     {"libcrypto.so.1.0.0", "libssl.so.1.0.0"},
                                     {"libcrypto.so.10", "libssl.so.10"},
                                     {"libcrypto.so", "libssl.so"},
                                     {nullptr, nullptr}};

}  // namespace cm::platform
