// Memory pools: pieces cut off the newest of a list of blocks, given back all at once.
//
// A block is 32 bytes of header and the payload.  A piece is the request, four bytes of guard at its end and what
// rounds them up to 32.  Nothing is kept per piece and nothing is searched; room that is left in a block when the next
// one is obtained is abandoned.  Handles and headers carry magic numbers that every call checks, so that a stale or
// overwritten pool is reported.  Under AddressSanitizer the bytes behind each piece and the unused room are poisoned.
#include "core/cmmemory.h"

#include <string.h>

#include <atomic>
#include <bit>

#include "core/cmblocks.h"
#include "core/cmerror.h"
#include "core/cmstring.h"
#include "core/cmthread.h"
#include "platform/platform.h"

#if defined(__SANITIZE_ADDRESS__)
#define CM_POISONS 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define CM_POISONS 1
#endif
#endif
#ifdef CM_POISONS
#include <sanitizer/asan_interface.h>
#else
#define ASAN_POISON_MEMORY_REGION(address, size) (static_cast<void>(address), static_cast<void>(size))
#define ASAN_UNPOISON_MEMORY_REGION(address, size) (static_cast<void>(address), static_cast<void>(size))
#endif

using cm::report;
using cm::platform::os;

namespace cm::memory {

constexpr uint32_t kGuard = CM_GUARD, kGuardBytes = sizeof kGuard;
constexpr uint32_t kGrain = 32;             // what pieces are rounded up to, and the smallest block
constexpr uint32_t kMaxPiece = 0x7FFFFF00;  // beyond it rounding and headers would overflow
constexpr uint32_t kHeaderBytes = sizeof(cm_mem_block);

static_assert(kHeaderBytes == 32 && offsetof(cm_mem_block, magic) == 8);
static_assert(sizeof(void *) != 4 || (offsetof(cm_mem_block, next) == 16 && sizeof(cm_mem_pool) == 8 * 4 &&
                                      offsetof(cm_mem_pool, owner) == 7 * 4));

static uint32_t round_piece(uint32_t size) {
    return (size + kGuardBytes + kGrain - 1) & ~(kGrain - 1);
}

// ---- handles -------------------------------------------------------------------------------------------------------
//
// Handles are recycled and their memory stays handles for good, so that a second release of a pool always finds a magic
// number to look at.  The free ones form a stack that any thread pushes to and pops from without a lock.  Links are
// indexes, not pointers: an index leaves room beside it for a count that changes with every pop, without which a pop
// could be fooled by a handle that was taken and given back in between.

struct Handle {
    cm_mem_pool pool;            // first: a pool is its handle
    uint32_t index;              // from 1; 0 is none
    std::atomic<uint32_t> next;  // the free handle below
};

constexpr uint32_t kFirstSegment = 64;  // handles; every further segment has twice as many
constexpr uint32_t kSegments = 26;

static constinit Handle first_segment[kFirstSegment] = {};
static constinit std::atomic<Handle *> segments[kSegments] = {first_segment};
static constinit std::atomic<uint32_t> handles_made = 0;
static constinit std::atomic<uint64_t> free_handles = 0;  // pops in the upper half, index of the top one in the lower

static uint32_t segment_of(uint32_t index) {
    return static_cast<uint32_t>(std::bit_width((index - 1) / kFirstSegment + 1)) - 1;
}

static Handle &handle_at(uint32_t index) {
    const uint32_t segment = segment_of(index);
    const uint32_t first = ((1u << segment) - 1) * kFirstSegment;
    return segments[segment].load(std::memory_order_acquire)[index - 1 - first];
}

static bool ensure_segment(uint32_t segment) {
    if (segment >= kSegments) return false;
    if (segments[segment].load(std::memory_order_acquire) != nullptr) return true;
    auto *made = static_cast<Handle *>(os.allocate_zeroed(size_t{kFirstSegment << segment} * sizeof(Handle)));
    if (made == nullptr) return false;
    Handle *none = nullptr;
    if (!segments[segment].compare_exchange_strong(none, made, std::memory_order_acq_rel)) os.release(made);
    return true;
}

static Handle *make_handle() {
    uint32_t made = handles_made.load(std::memory_order_relaxed);
    do {
        if (!ensure_segment(segment_of(made + 1))) return nullptr;
    } while (!handles_made.compare_exchange_weak(made, made + 1, std::memory_order_relaxed));
    Handle &handle = handle_at(made + 1);
    handle.index = made + 1;
    return &handle;
}

static Handle *take_handle() {
    uint64_t top = free_handles.load(std::memory_order_acquire);
    while (static_cast<uint32_t>(top) != 0) {
        Handle &handle = handle_at(static_cast<uint32_t>(top));
        const uint64_t pops = (top >> 32) + 1;
        const uint64_t below = pops << 32 | handle.next.load(std::memory_order_relaxed);
        if (free_handles.compare_exchange_weak(top, below, std::memory_order_acquire)) return &handle;
    }
    return make_handle();
}

static void give_handle(cm_mem_pool *pool) {
    auto *handle = reinterpret_cast<Handle *>(pool);
    uint64_t top = free_handles.load(std::memory_order_relaxed), with_it;
    do {
        handle->next.store(static_cast<uint32_t>(top), std::memory_order_relaxed);
        with_it = (top & ~uint64_t{UINT32_MAX}) | handle->index;
    } while (!free_handles.compare_exchange_weak(top, with_it, std::memory_order_release, std::memory_order_relaxed));
}

// ---- blocks --------------------------------------------------------------------------------------------------------

static cm_mem_block *new_block(uint32_t payload) {
    const size_t bytes = size_t{kHeaderBytes} + payload;
    if (blocks::kKept) {
        void *kept = blocks::Visit().take(bytes);
        if (kept != nullptr) return static_cast<cm_mem_block *>(memset(kept, 0, bytes));
    }
    return static_cast<cm_mem_block *>(os.allocate_zeroed(bytes));
}

// Puts one block, or all blocks of a pool, away.
class BlockRelease {
public:
    void operator()(cm_mem_block *block) {
        const size_t bytes = size_t{kHeaderBytes} + block->size;
        block->magic = 0;  // whoever still points to it finds no block
        if constexpr (blocks::kKept)
            visit_.give(block, bytes);
        else
            os.release(block);
    }

private:
    blocks::Visit visit_;
};

static bool is_intact(const cm_mem_block &block) {
    return block.size >= kGrain && block.used <= block.size && block.magic == CM_BLOCK_MAGIC;
}

// ---- pools ---------------------------------------------------------------------------------------------------------

static bool is_valid(const cm_mem_pool &pool) {
    if (pool.magic != CM_POOL_MAGIC || pool.block_size < kGrain || pool.used > pool.block_size) return false;
    if (pool.payload == nullptr || pool.current == nullptr) return false;
    return pool.current->size == pool.block_size && is_intact(*pool.current);
}

// Whose log hears of a bad handle.  The owner field of what is no pool at all is not followed.
static cm_context *owner_of(const cm_mem_pool &pool) {
    return pool.magic == CM_POOL_MAGIC || pool.magic == CM_POOL_GONE ? pool.owner : nullptr;
}

static void report_error(cm_context *ctx, const char *text) {
    report(ctx, CM_ERROR, "%s", text);
}

// A piece that is larger than the blocks so far makes all later blocks that large.  An empty block makes way for the
// new one, which is obtained first: when there is none, the pool stays what it was.
static bool grow(cm_mem_pool &pool, uint32_t rounded) {
    cm_mem_block *const old = pool.current;
    const uint32_t old_size = pool.block_size;
    const bool drops = pool.used == 0;
    pool.block_size = rounded;
    if (drops) pool.total -= old_size;
    if (!cm__mem_getblock(&pool)) {
        pool.block_size = old_size;
        if (drops) pool.total += old_size;
        return false;
    }
    if (drops) {
        pool.current->next = old->next;
        BlockRelease()(old);
    }
    return true;
}

static bool make_room(cm_mem_pool &pool, uint32_t rounded) {
    return rounded > pool.block_size ? grow(pool, rounded) : cm__mem_getblock(&pool) != 0;
}

static void *allocate_piece(cm_mem_pool &pool, uint32_t size) {
    if (!is_valid(pool)) {
        report_error(owner_of(pool), "cm_mem_alloc() The memory handle provided is invalid.");
        return nullptr;
    }
    if (size > kMaxPiece) {
        report_error(pool.owner, "cm__mem_getblock() Failure allocating memory block.");
        return nullptr;
    }
    const uint32_t rounded = round_piece(size);
    if (rounded > pool.block_size - pool.used && !make_room(pool, rounded)) return nullptr;
    unsigned char *const piece = pool.payload + pool.used;
    ASAN_UNPOISON_MEMORY_REGION(piece, rounded);
    memcpy(piece + rounded - kGuardBytes, &kGuard, kGuardBytes);
    ASAN_POISON_MEMORY_REGION(piece + size, rounded - size);
    pool.used += rounded;
    pool.current->used = pool.used;
    return piece;
}

static void *allocate_plain(uint64_t size, bool zeroed) {
    void *piece = nullptr;
    if (size <= UINT32_MAX) piece = (zeroed ? os.allocate_zeroed : os.allocate)(static_cast<size_t>(size));
    if (piece == nullptr) report_error(nullptr, "cm_mem_alloc() Failure allocating memory block.");
    return piece;
}

static int hex_digit(char c) {  // capitals only
    if (is_digit(c)) return c - '0';
    return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

}  // namespace cm::memory

using namespace cm::memory;

CM_API int16_t CM_CALL cm_mem_init(cm_context *ctx, cm_mem_pool **out_pool, uint32_t block_size) {
    if (out_pool == nullptr) return 0;
    *out_pool = nullptr;
    if (block_size == 0) {
        report_error(ctx, "cm_mem_init() An invalid memory block size was specified.");
        return 0;
    }
    Handle *const handle = take_handle();
    if (handle == nullptr) {
        report_error(ctx, "Failure allocating memory block.");
        return 0;
    }
    handle->pool = {};
    handle->pool.owner = ctx;
    handle->pool.magic = CM_POOL_MAGIC;
    handle->pool.block_size = block_size > kMaxPiece ? UINT32_MAX : round_piece(block_size);
    if (!cm__mem_getblock(&handle->pool)) {
        handle->pool.magic = CM_POOL_GONE;
        give_handle(&handle->pool);
        return 0;
    }
    *out_pool = &handle->pool;
    return 1;
}

CM_API int16_t CM_CALL cm__mem_getblock(cm_mem_pool *pool) {
    if (pool == nullptr) return 0;
    if (pool->limit != 0 && pool->total > pool->limit) return 0;
    pool->total += kHeaderBytes;
    cm_mem_block *const block = pool->block_size > kMaxPiece + kGrain ? nullptr : new_block(pool->block_size);
    if (block == nullptr) {
        report_error(pool->owner, "cm__mem_getblock() Failure allocating memory block.");
        return 0;
    }
    block->size = pool->block_size;
    block->magic = CM_BLOCK_MAGIC;
    block->next = pool->current;
    pool->current = block;
    pool->used = 0;
    pool->payload = reinterpret_cast<unsigned char *>(block) + kHeaderBytes;
    ASAN_POISON_MEMORY_REGION(pool->payload, pool->block_size);
    return 1;
}

CM_API void *CM_CALL cm_mem_alloc(cm_mem_pool *pool, uint32_t size) {
    if (size == 0) return nullptr;
    return pool != nullptr ? allocate_piece(*pool, size) : allocate_plain(size, false);
}

CM_API int16_t CM_CALL cm_mem_free(cm_mem_pool *pool, void *piece) {
    if (pool == nullptr) os.release(piece);
    return 1;
}

CM_API int16_t CM_CALL cm_mem_exit(cm_mem_pool *pool) {
    if (pool == nullptr) return 0;
    if (pool->magic != CM_POOL_MAGIC) {
        report_error(owner_of(*pool), "cm_mem_exit() The memory handle provided is invalid.");
        return 0;
    }
    cm_context *const owner = pool->owner;
    cm_mem_block *block = pool->current;
    const char *const corrupt = "cm_mem_exit() The memory handle provided is corrupt.";
    if (block == nullptr || pool->block_size < kGrain || pool->payload == nullptr) {
        report_error(owner, corrupt);
        return 0;
    }
    pool->magic = CM_POOL_GONE;
    pool->owner = nullptr;  // which may be gone itself when a second release is reported
    give_handle(pool);
    BlockRelease release;
    while (block != nullptr) {
        if (!is_intact(*block)) {  // the older blocks cannot be trusted to be where it says: they stay
            report_error(owner, corrupt);
            return 0;
        }
        cm_mem_block *const older = block->next;
        release(block);
        block = older;
    }
    return 1;
}

CM_API int16_t CM_CALL cm_mem_savestr(cm_mem_pool *pool, const char *text, int32_t length, char **out_text,
                                      int32_t *out_length) {
    const std::string_view copied = cm::view(text, length);
    if (out_text != nullptr) *out_text = nullptr;
    if (out_length != nullptr) *out_length = 0;
    if (copied.empty() || out_text == nullptr) return 1;
    if (copied.size() > kMaxPiece) {
        report_error(pool != nullptr ? pool->owner : nullptr, "cm_mem_alloc() Failure allocating memory block.");
        return 0;
    }
    auto *out = static_cast<char *>(cm_mem_alloc(pool, static_cast<uint32_t>(copied.size() + 1)));
    if (out == nullptr) return 0;
    memcpy(out, copied.data(), copied.size());
    out[copied.size()] = '\0';
    *out_text = out;
    if (out_length != nullptr) *out_length = static_cast<int32_t>(copied.size());
    return 1;
}

// Kept to the letter, since values are stored in this form: a capital in second place counts twice and drops the first
// digit (4A and AA are both 0x14), and a last half pair is written but not counted.
CM_API int16_t CM_CALL cm_mem_savebin(cm_mem_pool *pool, const char *text, int32_t length, unsigned char **out_bytes,
                                      int32_t *out_length) {
    if (out_bytes == nullptr) return 0;
    *out_bytes = nullptr;
    if (text == nullptr) return 1;
    const std::string_view digits = cm::view(text, length);
    if (digits.empty() || digits.size() > kMaxPiece) return 0;
    auto *out = static_cast<unsigned char *>(cm_mem_alloc(pool, static_cast<uint32_t>(digits.size())));
    if (out == nullptr) return 0;
    int32_t stored = 0;
    bool in_pair = false;
    for (const char c : digits) {
        const int digit = hex_digit(c);
        if (!in_pair && digit >= 0) {
            out[stored] = static_cast<unsigned char>(digit * 16);
            in_pair = true;
        } else if (in_pair && digit < 0) {
            cm_mem_free(pool, out);
            return 0;
        } else if (in_pair) {
            const int first = cm::is_digit(c) ? out[stored] : digit;
            out[stored++] = static_cast<unsigned char>(first + digit);
            in_pair = false;
        } else {
            out[stored++] = static_cast<unsigned char>(c);
        }
    }
    *out_bytes = out;
    if (out_length != nullptr) *out_length = stored;
    return 1;
}

namespace cm {

void *allocate_zeroed(cm_mem_pool *pool, uint64_t size) {
    if (size == 0) return nullptr;
    if (pool == nullptr) return allocate_plain(size, true);
    // A piece is cut off a zeroed block and never handed out twice.
    return allocate_piece(*pool, size > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(size));
}

void *shared_allocate(cm_context *ctx, uint32_t size) {
    const MutexGuard guard(ctx != nullptr ? ctx->file_mutex : nullptr);
    return cm_mem_alloc(ctx != nullptr ? ctx->common_pool : nullptr, size);
}

bool shared_text(cm_context *ctx, const char *text, int32_t length, const char **out_text, int32_t *out_length) {
    const MutexGuard guard(ctx != nullptr ? ctx->file_mutex : nullptr);
    char *copy = nullptr;
    const bool saved =
        cm_mem_savestr(ctx != nullptr ? ctx->common_pool : nullptr, text, length, &copy, out_length) != 0;
    *out_text = copy;
    return saved;
}

void *shared_allocate(cm_net_state *state, uint32_t size) {
    const MutexGuard guard(state != nullptr ? state->table_mutex : nullptr);
    return cm_mem_alloc(state != nullptr ? state->pool : nullptr, size);
}

}  // namespace cm
