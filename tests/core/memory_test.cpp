// Memory pools: where pieces lie, what is reported, and that nothing is lost when memory runs out.
#include <cstring>
#include <memory>

#include "core/cmblocks.h"
#include "core/cmmemory.h"
#include "support/data.h"
#include "support/failures.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#endif

namespace {

using cm::test::captured_standard_error;
using cm::test::Faults;
using cm::test::LeakCheck;

struct PoolDeleter {
    void operator()(cm_mem_pool *pool) const { cm_mem_exit(pool); }
};
using Pool = std::unique_ptr<cm_mem_pool, PoolDeleter>;

Pool make_pool(uint32_t block_size) {
    cm_mem_pool *pool = nullptr;
    EXPECT_EQ(cm_mem_init(nullptr, &pool, block_size), 1);
    return Pool(pool);
}

std::string message(const std::string &text) {
    return "Tilvar Server Error: " + text + "\n";
}

const std::string kBadAlloc = message("cm_mem_alloc() The memory handle provided is invalid.");
const std::string kNoBlock = message("cm__mem_getblock() Failure allocating memory block.");
const std::string kCorrupt = message("cm_mem_exit() The memory handle provided is corrupt.");

// "1" or "-" for a piece, then the block size and how much is used, of which total, in how many blocks.
std::string state_of(const cm_mem_pool &pool, bool allocated) {
    int blocks = 0;
    for (const cm_mem_block *block = pool.current; block != nullptr; block = block->next) blocks++;
    std::string text = allocated ? "1" : "-";
    for (const int64_t number :
         {int64_t{pool.block_size}, int64_t{pool.used}, int64_t{int32_t(pool.total)}, int64_t{blocks}})
        text += " " + std::to_string(number);
    return text;
}

TEST(Pool, RoundsRaisesItsBlockSizeAndStopsAtItsLimit) {
    Pool pool;
    for (const cm::test::Row &row : cm::test::rows("core/pools")) {
        const auto number = static_cast<uint32_t>(row.number(1));
        bool allocated = false;
        const auto step = [&] {
            if (row[0] == "new") pool = make_pool(number);
            if (row[0] == "limit") pool->limit = number;
            if (row[0] == "alloc") allocated = cm_mem_alloc(pool.get(), number) != nullptr;
        };
        EXPECT_EQ(captured_standard_error(step), "");
        EXPECT_EQ(state_of(*pool, allocated), row[2]) << row.where;
    }
}

TEST(Pool, PiecesLieEndToEndZeroedWithAGuardBehindEach) {
    const Pool pool = make_pool(96);
    auto *first = static_cast<unsigned char *>(cm_mem_alloc(pool.get(), 20));
    auto *second = static_cast<unsigned char *>(cm_mem_alloc(pool.get(), 60));
    EXPECT_EQ(first, reinterpret_cast<unsigned char *>(pool->current) + 32);
    EXPECT_EQ(second, first + 32);
    EXPECT_EQ(std::string(second, second + 60), std::string(60, 0));
    EXPECT_EQ(cm_mem_free(pool.get(), first), 1);
#if defined(__SANITIZE_ADDRESS__)
    EXPECT_FALSE(__asan_address_is_poisoned(first + 19));
    EXPECT_TRUE(__asan_address_is_poisoned(first + 20));
#else
    uint32_t guard = 0;
    memcpy(&guard, first + 28, sizeof guard);
    EXPECT_EQ(guard, CM_GUARD);
#endif
}

TEST(Pool, DamagedHandleIsReported) {
    void (*const damages[])(cm_mem_pool & pool) = {
        [](cm_mem_pool &pool) { pool.magic = 0x1234; },
        [](cm_mem_pool &pool) { pool.block_size = pool.current->size = 31; },
        [](cm_mem_pool &pool) { pool.block_size += 32; },
        [](cm_mem_pool &pool) { pool.used = pool.block_size + 1; },
        [](cm_mem_pool &pool) { pool.payload = nullptr; },
        [](cm_mem_pool &pool) { pool.current = nullptr; },
        [](cm_mem_pool &pool) { pool.current->used = pool.current->size + 1; },
        [](cm_mem_pool &pool) { pool.current->magic = 0; },
    };
    for (const auto &damage : damages) {
        const Pool pool = make_pool(64);
        const cm_mem_pool saved = *pool;
        const cm_mem_block saved_block = *pool->current;
        damage(*pool);
        EXPECT_EQ(captured_standard_error([&] { EXPECT_EQ(cm_mem_alloc(pool.get(), 8), nullptr); }), kBadAlloc)
            << &damage - damages;
        *pool = saved;
        *pool->current = saved_block;
        EXPECT_NE(cm_mem_alloc(pool.get(), 8), nullptr);
    }
}

TEST(Pool, SecondReleaseAndCorruptPoolsAreReported) {
    cm_mem_pool *pool = make_pool(64).release();
    const cm_mem_pool saved = *pool;
    pool->payload = nullptr;
    EXPECT_EQ(captured_standard_error([&] { EXPECT_EQ(cm_mem_exit(pool), 0); }), kCorrupt);
    *pool = saved;
    EXPECT_NE(cm_mem_alloc(pool, 8), nullptr) << "it was not freed";
    EXPECT_EQ(cm_mem_exit(pool), 1);
    EXPECT_EQ(captured_standard_error([&] {
                  EXPECT_EQ(cm_mem_exit(pool), 0);
                  EXPECT_EQ(cm_mem_alloc(pool, 8), nullptr);
                  EXPECT_EQ(cm_mem_exit(nullptr), 0);
              }),
              message("cm_mem_exit() The memory handle provided is invalid.") + kBadAlloc);
    const Pool next = make_pool(64);
    EXPECT_EQ(next.get(), pool) << "handles are recycled";
}

TEST(Pool, ReleaseStopsAtTheFirstCorruptBlock) {
    LeakCheck leaks;
    cm_mem_pool *pool = make_pool(28).release();
    for (int i = 0; i < 4; i++) cm_mem_alloc(pool, 28);
    cm_mem_block *const second = pool->current->next, *const third = second->next, *const oldest = third->next;
    second->magic = 0;
    EXPECT_EQ(captured_standard_error([&] { EXPECT_EQ(cm_mem_exit(pool), 0); }), kCorrupt);
    EXPECT_EQ(leaks.outstanding(), 3u) << "that block and the older ones stay";
    for (cm_mem_block *block : {second, third, oldest}) cm_mem_free(nullptr, block);
}

TEST(Pool, EveryFailureOfMemoryIsReportedAndLosesNothing) {
    auto quiet = std::make_unique<cm_context>();
    quiet->trace_level = CM_FATAL;
    EXPECT_EQ(captured_standard_error([&] {
                  cm_mem_pool *pool = reinterpret_cast<cm_mem_pool *>(1);
                  EXPECT_EQ(cm_mem_init(nullptr, &pool, 0), 0);
                  EXPECT_EQ(pool, nullptr);
                  EXPECT_EQ(cm_mem_init(quiet.get(), &pool, 0), 0) << "the owner's level decides what is reported";
              }),
              message("cm_mem_init() An invalid memory block size was specified."));
    for (const uint32_t absurd : {0x7FFFFFF0u, UINT32_MAX - 34, UINT32_MAX}) {
        const Pool pool = make_pool(64);
        cm_mem_pool *none = nullptr;
        EXPECT_EQ(captured_standard_error([&] {
                      EXPECT_EQ(cm_mem_alloc(pool.get(), absurd), nullptr);
                      EXPECT_NE(cm_mem_alloc(pool.get(), 28), nullptr);
                      EXPECT_EQ(cm_mem_init(nullptr, &none, absurd), 0);
                  }),
                  kNoBlock + kNoBlock);
    }
    bool ok = true;
    std::string told;
    const auto use_pool = [&] {
        cm_mem_pool *pool = nullptr;
        ok = cm_mem_init(nullptr, &pool, 64) != 0;
        if (!ok) return;
        for (const uint32_t size : {2000u, 28u, 1900u, 4000u}) {  // drops the first block, fills, raises
            const uint32_t before = pool->block_size;
            if (cm_mem_alloc(pool, size) != nullptr) continue;
            ok = false;
            EXPECT_EQ(pool->block_size, before);
            EXPECT_NE(cm_mem_alloc(pool, size), nullptr) << "the pool is whole and the next try succeeds";
        }
        EXPECT_EQ(cm_mem_exit(pool), 1);
    };
    cm::test::each_failure(
        Faults::kAllocations,
        [&] {
            cm::blocks::trim();
            told = captured_standard_error(use_pool);
        },
        [&](bool injected, size_t leaked) {
            EXPECT_EQ(leaked, 0u);
            EXPECT_NE(ok, injected);
            EXPECT_EQ(told, ok ? "" : kNoBlock);
        });
    Faults faults(Faults::kAllocations, 1);
    EXPECT_EQ(captured_standard_error([] { EXPECT_EQ(cm_mem_alloc(nullptr, 8), nullptr); }),
              message("cm_mem_alloc() Failure allocating memory block."));
}

TEST(Pool, HandlesThatCannotBeMadeAreReported) {
    std::vector<Pool> pools;
    std::string told = kNoBlock;
    for (; told == kNoBlock && pools.size() < 1000; pools.push_back(make_pool(32))) {
        cm::blocks::trim();
        Faults faults(Faults::kAllocations, 1);
        told = captured_standard_error([] {
            cm_mem_pool *pool = nullptr;
            EXPECT_EQ(cm_mem_init(nullptr, &pool, 32), 0);
        });
    }
    EXPECT_EQ(told, message("Failure allocating memory block."));
}

TEST(Pool, TextsAreCopiedAndEmptyOnesAreNone) {
    const Pool pool = make_pool(256);
    const struct {
        const char *text;
        int32_t length;
        const char *stored;
    } rows[] = {{"abc", CM_LEN_TEXT, "abc"}, {"abc", 2, "ab"},      {"", CM_LEN_TEXT, nullptr},     {"abc", 0, nullptr},
                {"abc", -1, nullptr},        {nullptr, 5, nullptr}, {nullptr, CM_LEN_TEXT, nullptr}};
    char *stored = nullptr;
    for (const auto &row : rows) {
        int32_t length = 99;
        stored = const_cast<char *>("old");
        EXPECT_EQ(cm_mem_savestr(pool.get(), row.text, row.length, &stored, &length), 1);
        EXPECT_STREQ(stored, row.stored);
        EXPECT_EQ(length, row.stored == nullptr ? 0 : static_cast<int32_t>(strlen(row.stored)));
    }
    auto ctx = std::make_unique<cm_context>();
    ctx->common_pool = pool.get();
    const char *text = nullptr;
    int32_t length = 0;
    EXPECT_TRUE(cm::shared_text(ctx.get(), "abc", 2, &text, &length));
    EXPECT_STREQ(text, "ab");
    EXPECT_EQ(pool->used, 96u) << "shared texts come from the context's pool";
    Faults faults(Faults::kAllocations, 1);
    captured_standard_error([&] { EXPECT_EQ(cm_mem_savestr(nullptr, "x", 1, &stored, nullptr), 0); });
    EXPECT_EQ(stored, nullptr);
}

TEST(Pool, HexadecimalPairsBecomeBytes) {
    for (const cm::test::Row &row : cm::test::rows("core/hex")) {
        for (const bool pooled : {true, false}) {
            const Pool pool = make_pool(64);
            cm_mem_pool *const from = pooled ? pool.get() : nullptr;
            unsigned char *bytes = nullptr;
            int32_t length = -1;
            const bool taken = cm_mem_savebin(from, row.text(0), CM_LEN_TEXT, &bytes, &length) == 1;
            EXPECT_EQ(bytes != nullptr, taken) << row.where;
            EXPECT_EQ(taken ? std::string(bytes, bytes + length) : "refused", row[1]) << row.where;
            cm_mem_free(from, bytes);
        }
    }
    unsigned char *bytes = reinterpret_cast<unsigned char *>(1);
    EXPECT_EQ(cm_mem_savebin(nullptr, nullptr, 4, &bytes, nullptr), 1);
    EXPECT_EQ(bytes, nullptr);
    EXPECT_EQ(cm_mem_savebin(nullptr, "41", -7, &bytes, nullptr), 0);
}

// ---- kept blocks ---------------------------------------------------------------------------------------------------

TEST(KeptBlocks, NextPoolFindsThemZeroed) {
    cm_mem_block *block = nullptr;
    for (int life = 0; life < 3; life++) {
        const Pool pool = make_pool(4096);
        if (cm::blocks::kKept && life > 0) {
            EXPECT_EQ(pool->current, block);
        }
        block = pool->current;
        auto *piece = static_cast<unsigned char *>(cm_mem_alloc(pool.get(), 4000));
        for (int i = 0; i < 4000; i++) ASSERT_EQ(piece[i], 0);
        memset(piece, 0xFF, 4000);
        EXPECT_EQ(block->next, nullptr);
    }
}

TEST(KeptBlocks, AreBoundedAndOtherSizesMakeWay) {
    LeakCheck leaks;
    const auto &os = cm::platform::os;
    constexpr size_t kLarge = 32768, kSmall = 1024;
    {
        cm::blocks::Visit visit;
        EXPECT_EQ(visit.take(kLarge), nullptr);
        for (int i = 0; i < 20; i++) visit.give(os.allocate(kLarge), kLarge);
        for (int i = 0; i < 40; i++) visit.give(os.allocate(kSmall), kSmall);
        visit.give(os.allocate(2 * cm::blocks::kShelfBytes), 2 * cm::blocks::kShelfBytes);
        EXPECT_EQ(visit.take(kSmall + 32), nullptr);
        size_t large = 0, small = 0;
        while (void *block = visit.take(kLarge)) os.release(block), large++;
        while (void *block = visit.take(kSmall)) os.release(block), small++;
        EXPECT_EQ(small, 40u);
        EXPECT_EQ(large, (cm::blocks::kShelfBytes - 40 * kSmall) / kLarge);
        visit.give(os.allocate(kSmall), kSmall);
    }
    cm::blocks::trim();
    EXPECT_EQ(leaks.outstanding(), 0u);
}

TEST(KeptBlocks, BusyShelfIsPassedBy) {
    LeakCheck leaks;
    cm::blocks::Visit holder, passer;
    passer.give(cm::platform::os.allocate(1024), 1024);
    EXPECT_EQ(leaks.outstanding(), 0u);
    EXPECT_EQ(passer.take(1024), nullptr);
}

}  // namespace
