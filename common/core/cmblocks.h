// Released pool blocks, kept for the next pool.
//
// Pools come and go with requests and reloads.  A large one that lies at the top of the heap would give its memory back
// to the system when it is released, and its successor would fault every page in again, which costs more than all of its
// pieces together.  So up to kShelfBytes of released blocks per thread wait here.
//
// A thread works with the shelf that its stack points to; there are no thread-local variables, which would need a hook at
// the end of every thread.  A shelf that is busy is passed by: the block comes from, or goes to, the system instead.  So
// nobody ever waits, a thread that is stopped in the middle costs the others nothing but its shelf, and the whole stock
// is bounded by the number of shelves.  What waits hangs on static memory and is no leak.
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace cm::blocks {

constexpr size_t kShelfBytes = 256 * 1024;

// Off where a sanitizer should see every block come and go.
#ifdef TILVARCM_SANITIZED
constexpr bool kKept = false;
#else
constexpr bool kKept = true;
#endif

struct Shelf;

// Holds the calling thread's shelf for a scope; blocks under it are of any size and of unspecified content.
class Visit {
public:
    Visit();
    ~Visit();
    Visit(const Visit &) = delete;
    Visit &operator=(const Visit &) = delete;

    // A block that was kept with exactly that size, or null.
    void *take(size_t bytes);
    // Takes a block of os.allocate over, for later or back to the system.
    void give(void *block, size_t bytes);

private:
    Shelf *shelf_;  // null: busy
};

// Gives everything that waits back to the system.
void trim();

}  // namespace cm::blocks
