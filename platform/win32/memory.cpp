// Memory: the process heap.  A thread inside the heap counts as inside a library lock, since the heap has one.
#include "win32.h"

namespace cm::platform::system {

using namespace win32;

void *allocate(size_t bytes) {
    enter_region();
    void *block = HeapAlloc(GetProcessHeap(), 0, bytes);
    leave_region();
    return block;
}

void *allocate_zeroed(size_t bytes) {
    enter_region();
    void *block = HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, bytes);
    leave_region();
    return block;
}

void release(void *block) {
    if (block == nullptr) return;
    enter_region();
    HeapFree(GetProcessHeap(), 0, block);
    leave_region();
}

}  // namespace cm::platform::system
