// Memory pools: where pieces lie, what is reported, and that nothing is lost when memory runs out.
#include <cstring>
#include <memory>

#include "core/cmblocks.h"
#include "core/cmmemory.h"
#include "support/failures.h"
#include "support/scenario.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#endif

namespace {

using namespace cm::test;

struct PoolDeleter {
    void operator()(cm_mem_pool *pool) const { cm_mem_exit(pool); }
};
using Pool = std::unique_ptr<cm_mem_pool, PoolDeleter>;

Pool make_pool(uint32_t block_size) {
    cm_mem_pool *pool = nullptr;
    EXPECT_EQ(cm_mem_init(nullptr, &pool, block_size), 1);
    return Pool(pool);
}

const std::string kPrefix = "Tilvar Server Error: ";
const std::string kNoBlock = kPrefix + "cm__mem_getblock() Failure allocating memory block.\n";
const std::string kCorrupt = kPrefix + "cm_mem_exit() The memory handle provided is corrupt.\n";

// The steps of data/pools.txt.
struct Pools : World {
    explicit Pools(const Row &) {
        on("new", [this](auto &words) {
            cm_mem_exit(pool);
            return said([&] { return cm_mem_init(nullptr, &pool, size(words)); });
        });
        on("limit", [this](auto &words) { pool->limit = size(words); });
        on("alloc", [this](auto &words) { return said([&] { return cm_mem_alloc(pool, size(words)) != nullptr; }); });
        on("state", [this](auto &) {
            const auto blocks = [](const cm_mem_block *block) {
                int count = 0;
                for (; block != nullptr; block = block->next) count++;
                return std::to_string(count);
            };
            return std::to_string(pool->block_size) + " " + std::to_string(pool->used) + " " +
                   std::to_string(static_cast<int32_t>(pool->total)) + " " + blocks(pool->current);
        });
        on("damaged", [this](auto &words) {
            const cm_mem_pool saved = *pool;
            const cm_mem_block saved_block = *pool->current;
            const std::string field = words[0];
            if (field == "magic") pool->magic = 0x1234;
            if (field == "size") pool->block_size = pool->current->size = 31;
            if (field == "block-size") pool->block_size += 32;
            if (field == "used") pool->used = pool->block_size + 1;
            if (field == "payload") pool->payload = nullptr;
            if (field == "current") pool->current = nullptr;
            if (field == "block-used") pool->current->used = pool->current->size + 1;
            if (field == "block-magic") pool->current->magic = 0;
            const std::string result = run(words.from(1));
            *pool = saved;
            *saved.current = saved_block;
            return result;
        });
        on("exit", [this](auto &) { return said([&] { return cm_mem_exit(pool); }); });
        on("recycled", [this](auto &) {
            cm_mem_pool *const before = pool;
            return cm_mem_init(nullptr, &pool, 64) == 1 && pool == before;
        });
        on("none", [this](auto &) { pool = nullptr; });
        on("text", [this](auto &words) {
            char *stored = const_cast<char *>("old");
            int32_t length = 99;
            const std::string text = words.rest(1);
            const int16_t done = cm_mem_savestr(pool, text == "-" ? nullptr : text.c_str(),
                                                static_cast<int32_t>(words.number(0)), &stored, &length);
            EXPECT_EQ(length, stored == nullptr ? 0 : static_cast<int32_t>(strlen(stored)));
            return done == 0 ? "refused" : stored == nullptr ? "(none)" : stored;
        });
        on("bytes", [this](auto &words) -> std::string {
            auto *bytes = reinterpret_cast<unsigned char *>(1);
            int32_t length = -1;
            const int16_t done = cm_mem_savebin(pool, words[1] == "-" ? nullptr : words.text(1),
                                                static_cast<int32_t>(words.number(0)), &bytes, &length);
            if (bytes == nullptr) return done == 0 ? "refused" : "(none)";
            const std::string text(bytes, bytes + length);
            cm_mem_free(pool, bytes);
            return text;
        });
    }
    ~Pools() { cm_mem_exit(pool); }

    static uint32_t size(const Words &words) { return static_cast<uint32_t>(words.number(0)); }
    // 1 or 0, and the message without what stands before each.
    template <class Call>
    std::string said(Call call) {
        std::string result;
        const std::string text = captured_standard_error([&] { result = std::to_string(call()); });
        return text.empty() ? result : result + " " + text.substr(kPrefix.size());
    }

    cm_mem_pool *pool = nullptr;
};
SCENARIOS(PoolSteps, Pools, "core/pools");

TEST(Pool, PiecesHaveAGuardBehindThem) {
    const Pool pool = make_pool(96);
    auto *first = static_cast<unsigned char *>(cm_mem_alloc(pool.get(), 20));
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
    each_failure(
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
    EXPECT_EQ(told, kPrefix + "Failure allocating memory block.\n");
}

TEST(Pool, TextsOfAContextComeFromItsPool) {
    const Pool pool = make_pool(256);
    auto ctx = std::make_unique<cm_context>(), quiet = std::make_unique<cm_context>();
    ctx->common_pool = pool.get();
    const char *text = nullptr;
    int32_t length = 0;
    EXPECT_TRUE(cm::shared_text(ctx.get(), "abc", 2, &text, &length));
    EXPECT_STREQ(text, "ab");
    EXPECT_EQ(pool->used, 32u);
    quiet->trace_level = CM_FATAL;
    cm_mem_pool *none = nullptr;
    EXPECT_EQ(captured_standard_error([&] { EXPECT_EQ(cm_mem_init(quiet.get(), &none, 0), 0); }), "");
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
