// A context with what threads need: the table, its lock, a log.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "core/cmthread.h"
#include "core/relaxed.h"
#include "support/support.h"

namespace cm::test {

// Waits, without a limit of its own, until a condition holds that other threads bring about.
template <class Condition>
void await(Condition condition) {
    while (!condition()) std::this_thread::yield();
}

// A thread that has left the table is still on its way out and uses the `os` table, which tests must not change then.
// So what the library lets go of is kept here, to be waited for.  There from the start of the program.  Each thread
// waits for those before it, so that they never pile up.
class Leavers {
public:
    Leavers() {
        platform::os.thread_release = [](platform::Thread *thread) {
            join();
            const std::lock_guard guard(mutex_);
            threads_.push_back(thread);
        };
    }
    static void join() {
        std::vector<platform::Thread *> threads;
        {
            const std::lock_guard guard(mutex_);
            threads.swap(threads_);
        }
        for (platform::Thread *thread : threads) {
            EXPECT_TRUE(platform::kSystem.thread_join(thread, platform::kForever));
            platform::kSystem.thread_release(thread);
        }
    }
    static void forget() {  // those that will never end
        const std::lock_guard guard(mutex_);
        threads_.clear();
    }

private:
    static inline std::mutex mutex_;
    static inline std::vector<platform::Thread *> threads_;
};
inline Leavers leavers;

class Host {
public:
    Host() {
        EXPECT_EQ(platform::os.file_open(folder_.path("log").c_str(), CM_O_CREAT | CM_O_RDWR | CM_O_BINARY,
                                         &file_.descriptor),
                  0);
        file_.kind = file_.open_mark = 1;
        file_.own_buffer = buffer_;
        file_.ctx = ctx_.get();
        ctx_->trace_level = CM_TRACE;
        ctx_->max_threads = 200;
        ctx_->idle_threads = 3;
        ctx_->log_file = &file_;
        EXPECT_EQ(cm_create_mutex(ctx_.get(), &ctx_->log_mutex), 1);
        EXPECT_EQ(cm_create_mutex(ctx_.get(), &ctx_->thread_mutex), 1);
        EXPECT_EQ(cm_mem_init(ctx_.get(), &ctx_->thread_pool_mem, 256), 1);
        EXPECT_EQ(cm_hash_alloc(ctx_.get(), ctx_->thread_pool_mem, 541, &ctx_->thread_table), 1);
    }
    ~Host() {
        EXPECT_EQ(cm_free_threads(ctx_.get()), 1);
        Leavers::join();
        cm_hash_free(ctx_->thread_table, nullptr);
        cm_mem_exit(ctx_->thread_pool_mem);
        cm_delete_mutex(ctx_->thread_mutex);
        cm_delete_mutex(ctx_->log_mutex);
        platform::os.file_close(file_.descriptor);
    }
    Host(const Host &) = delete;
    Host &operator=(const Host &) = delete;

    cm_context *ctx() { return ctx_.get(); }
    cm_context *operator->() { return ctx_.get(); }
    // Waits until every thread of the table has ended.
    void settle() {
        await([this] { return threads() == 0; });
        Leavers::join();
    }
    int32_t threads() { return thread::count(ctx_.get()); }
    std::vector<std::string> log() { return log_lines(folder_.path("log")); }
    int64_t logged(const std::string &line) {
        const std::vector<std::string> lines = log();
        return std::count(lines.begin(), lines.end(), line);
    }

private:
    TempFolder folder_;
    std::unique_ptr<cm_context> ctx_ = std::make_unique<cm_context>();
    cm_file file_ = {};
    char buffer_[1025];
};

// Holds threads up until it is opened.  It does not use the `os` table.
class Gate {
public:
    void open() {
        const std::lock_guard guard(mutex_);
        open_ = true;
        changed_.notify_all();
    }
    void pass() {
        std::unique_lock lock(mutex_);
        waiting_++;
        changed_.wait(lock, [this] { return open_; });
        waiting_--;
    }
    int waiting() {
        const std::lock_guard guard(mutex_);
        return waiting_;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool open_ = false;
    int waiting_ = 0;
};

}  // namespace cm::test
