#include <stdlib.h>

#include "posix.h"

namespace cm::platform::system {

// A thread is not parked inside the allocator, whose locks it may hold.

void *allocate(size_t bytes) {
    posix::RegionGuard region;
    return malloc(bytes);
}

void *allocate_zeroed(size_t bytes) {
    posix::RegionGuard region;
    return calloc(1, bytes);
}

void release(void *block) {
    posix::RegionGuard region;
    free(block);
}

}  // namespace cm::platform::system
