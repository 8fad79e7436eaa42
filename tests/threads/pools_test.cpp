// Pools of many threads at once: handles and kept blocks pass from one to another.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

#include "core/cmblocks.h"
#include "platform/platform.h"
#include "tilvarcm.h"

namespace {

constexpr int kThreads = 4, kRounds = 3000;

void run_threads(const std::function<void(int id)> &run) {
    std::vector<std::thread> threads;
    for (int id = 1; id <= kThreads; id++) threads.emplace_back(run, id);
    for (std::thread &thread : threads) thread.join();
}

TEST(PoolThreads, NoHandleIsHandedOutTwice) {
    std::atomic<cm_mem_pool *> exchange{nullptr};
    std::atomic<int> failures{0};
    run_threads([&](int id) {
        for (int i = 0; i < kRounds; i++) {
            cm_mem_pool *pool = nullptr;
            if (!cm_mem_init(nullptr, &pool, 64)) failures++;
            auto *mark = static_cast<int *>(cm_mem_alloc(pool, sizeof(int)));
            *mark = id;
            std::this_thread::yield();
            if (*mark != id || pool->magic != CM_POOL_MAGIC) failures++;
            cm_mem_pool *other = exchange.exchange(pool);  // most pools are released by another thread
            if (other != nullptr && !cm_mem_exit(other)) failures++;
        }
    });
    EXPECT_EQ(cm_mem_exit(exchange.load()), 1);
    EXPECT_EQ(failures, 0);
}

TEST(PoolThreads, KeptBlocksBelongToOneThreadAtATime) {
    std::atomic<int> clashes{0};
    run_threads([&](int id) {
        for (int i = 0; i < kRounds; i++) {
            void *block = cm::blocks::Visit().take(256);
            if (block == nullptr) block = cm::platform::os.allocate(256);
            auto *bytes = static_cast<volatile unsigned char *>(block);
            bytes[0] = static_cast<unsigned char>(id);
            bytes[255] = static_cast<unsigned char>(id);
            std::this_thread::yield();
            if (bytes[0] != id || bytes[255] != id) clashes++;
            cm::blocks::Visit().give(block, 256);
        }
    });
    cm::blocks::trim();
    EXPECT_EQ(clashes, 0);
}

}  // namespace
