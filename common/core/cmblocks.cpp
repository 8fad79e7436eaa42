#include "core/cmblocks.h"

#include <atomic>

#include "platform/platform.h"

namespace cm::blocks {

using platform::os;

namespace {

constexpr uint32_t kShelves = 64, kBins = 16;
constexpr uint32_t kSpread = 0x9E3779B9u;  // multiplicative hashing: the upper bits of the product are well mixed

struct Waiting {
    Waiting *next;
};

// Blocks of one size.  Two sizes that share a bin drive each other out.
struct Bin {
    size_t block_bytes;
    Waiting *first;
};

uint32_t bin_of(size_t bytes) {
    return static_cast<uint32_t>(bytes / 32) * kSpread >> 28;
}

}  // namespace

struct alignas(64) Shelf {
    std::atomic<bool> busy;
    uint32_t hand;  // the bin that loses a block next when the shelf is full
    size_t bytes;   // of all blocks that wait here
    Bin bins[kBins];

    bool enter() { return !busy.load(std::memory_order_relaxed) && !busy.exchange(true, std::memory_order_acquire); }
    void leave() { busy.store(false, std::memory_order_release); }

    void *pop(Bin &bin) {
        Waiting *block = bin.first;
        bin.first = block->next;
        bytes -= bin.block_bytes;
        return block;
    }

    void empty(Bin &bin) {
        while (bin.first != nullptr) os.release(pop(bin));
    }

    // Makes room by sending blocks of other sizes away, one at a time and each size in turn.
    bool make_room(const Bin &wanted, size_t more) {
        for (uint32_t idle = 0; bytes + more > kShelfBytes && idle < kBins; hand = (hand + 1) % kBins) {
            Bin &bin = bins[hand];
            const bool loses = &bin != &wanted && bin.first != nullptr;
            if (loses) os.release(pop(bin));
            idle = loses ? 0 : idle + 1;
        }
        return bytes + more <= kShelfBytes;
    }
};

static constinit Shelf shelves[kShelves] = {};

// Stacks lie far apart, so the place of a local variable tells threads apart.  A thread whose stack crosses one of the
// steps changes its shelf, which is harmless.
static Shelf &own_shelf() {
    const char here = 0;
    const auto step = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(&here) >> 18);
    return shelves[step * kSpread >> 26];
}

Visit::Visit() : shelf_(nullptr) {
    Shelf &shelf = own_shelf();
    if (shelf.enter()) shelf_ = &shelf;
}

Visit::~Visit() {
    if (shelf_ != nullptr) shelf_->leave();
}

void *Visit::take(size_t bytes) {
    if (shelf_ == nullptr) return nullptr;
    Bin &bin = shelf_->bins[bin_of(bytes)];
    return bin.block_bytes == bytes && bin.first != nullptr ? shelf_->pop(bin) : nullptr;
}

void Visit::give(void *block, size_t bytes) {
    if (shelf_ == nullptr || bytes > kShelfBytes) return os.release(block);
    Bin &bin = shelf_->bins[bin_of(bytes)];
    if (bin.block_bytes != bytes) {
        shelf_->empty(bin);
        bin.block_bytes = bytes;
    }
    if (shelf_->bytes + bytes > kShelfBytes && !shelf_->make_room(bin, bytes)) return os.release(block);
    auto *waiting = static_cast<Waiting *>(block);
    waiting->next = bin.first;
    bin.first = waiting;
    shelf_->bytes += bytes;
}

void trim() {
    for (Shelf &shelf : shelves)
        if (shelf.enter()) {
            for (Bin &bin : shelf.bins) shelf.empty(bin);
            shelf.leave();
        }
}

}  // namespace cm::blocks
