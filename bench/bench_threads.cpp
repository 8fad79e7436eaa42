// Mutexes beside pthread's recursive one, the thread pool beside apr_thread_pool.
#include <apr_general.h>
#include <apr_thread_pool.h>
#include <pthread.h>
#include <semaphore.h>

#include <atomic>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "core/cmthread.h"
#include "ratio.h"

namespace {

constexpr int kWorkers = 10;  // of both pools, so that neither grows

std::atomic<int64_t> done;

int16_t CM_CALL count_job(cm_context *, cm_conn *, cm_thread *, cm_value) {
    done.fetch_add(1, std::memory_order_relaxed);
    return 1;
}

void *APR_THREAD_FUNC count_task(apr_thread_t *, void *) {
    done.fetch_add(1, std::memory_order_relaxed);
    return nullptr;
}

int16_t CM_CALL post_job(cm_context *, cm_conn *, cm_thread *, cm_value semaphore) {
    sem_post(reinterpret_cast<sem_t *>(semaphore));
    return 1;
}

void *APR_THREAD_FUNC post_task(apr_thread_t *, void *semaphore) {
    sem_post(static_cast<sem_t *>(semaphore));
    return nullptr;
}

struct Ours {
    Ours() {
        ctx->max_threads = 200;
        ctx->idle_threads = kWorkers;
        ctx->trace_level = CM_INFO;
        cm_create_mutex(nullptr, &ctx->thread_mutex);
        cm_mem_init(nullptr, &ctx->thread_pool_mem, 256);
        cm_hash_alloc(nullptr, ctx->thread_pool_mem, 541, &ctx->thread_table);
        cm_mem_init(nullptr, &memory, 1024);
        cm_tpool_init(ctx.get(), nullptr, memory, kWorkers, &pool);
    }
    ~Ours() {
        cm_tpool_exit(pool);
        cm_free_threads(ctx.get());
    }
    void push() {
        while (cm_tpool_exec(pool, &connection, 1, "job", count_job) == 0) sched_yield();  // 500 at once
    }
    std::unique_ptr<cm_context> ctx = std::make_unique<cm_context>();
    cm_mem_pool *memory = nullptr;
    cm_tpool *pool = nullptr;
    cm_conn connection = {};
};

struct Apr {
    Apr() {
        apr_initialize();
        apr_pool_create(&memory, nullptr);
        apr_thread_pool_create(&pool, kWorkers, kWorkers, memory);
    }
    ~Apr() {
        apr_thread_pool_destroy(pool);
        apr_terminate();
    }
    void push() {
        while (apr_thread_pool_tasks_count(pool) > 490) sched_yield();  // held to as many jobs at once
        apr_thread_pool_push(pool, count_task, nullptr, APR_THREAD_TASK_PRIORITY_NORMAL, nullptr);
    }
    apr_pool_t *memory = nullptr;
    apr_thread_pool_t *pool = nullptr;
};

// `jobs` jobs from `producers` threads, until all have run.
void produce(int producers, int jobs, const std::function<void()> &push) {
    done = 0;
    std::vector<std::thread> threads;
    for (int p = 1; p < producers; p++)
        threads.emplace_back([&] {
            for (int i = 0; i < jobs / producers; i++) push();
        });
    for (int i = 0; i < jobs / producers; i++) push();
    for (auto &thread : threads) thread.join();
    while (done.load(std::memory_order_relaxed) < jobs / producers * producers) sched_yield();
}

void measure_mutexes(cm::bench::Rows &rows) {
    constexpr int kTimes = 20000;
    cm_mutex *ours = nullptr;
    cm_create_mutex(nullptr, &ours);
    pthread_mutex_t peer;
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&peer, &attributes);
    const auto use_ours = [&] {
        for (int i = 0; i < kTimes; i++) {
            cm_take_mutex(ours);
            cm_release_mutex(ours);
        }
    };
    const auto use_peer = [&] {
        for (int i = 0; i < kTimes; i++) {
            pthread_mutex_lock(&peer);
            pthread_mutex_unlock(&peer);
        }
    };
    const auto on_two = [](const auto &work) {
        std::thread other(work);
        work();
        other.join();
    };
    rows.pair("mutex, take and release", kTimes, use_ours, use_peer, "<= 1.1");
    rows.pair(
        "mutex, 2 threads", 2 * kTimes, [&] { on_two(use_ours); }, [&] { on_two(use_peer); }, "<= 1.1");
    pthread_mutex_destroy(&peer);
    cm_delete_mutex(ours);
}

void measure_pools(cm::bench::Rows &rows) {
    Ours ours;
    Apr apr;
    constexpr int kJobs = 8000;
    for (const int producers : {1, 2, 4, 8, 16})
        rows.pair(
            "thread pool, jobs of " + std::to_string(producers) + " producers", kJobs,
            [&] { produce(producers, kJobs, [&] { ours.push(); }); },
            [&] { produce(producers, kJobs, [&] { apr.push(); }); }, "<= 0.35");
    sem_t semaphore, there;
    sem_init(&semaphore, 0, 0);
    sem_init(&there, 0, 0);
    constexpr int kHandOffs = 50;
    const auto hand_off = [&] {
        for (int i = 0; i < kHandOffs; i++) {
            cm_tpool_exec(ours.pool, &ours.connection, reinterpret_cast<cm_value>(&semaphore), "job", post_job);
            sem_wait(&semaphore);
        }
    };
    std::atomic<bool> over{false};
    std::thread echo([&] {
        while (sem_wait(&there), !over) sem_post(&semaphore);
    });
    // What two wake-ups cost on this machine: no hand-off can be faster.
    rows.pair(
        "thread pool, hand-off (peer: semaphores)", kHandOffs, hand_off,
        [&] {
            for (int i = 0; i < kHandOffs; i++) {
                sem_post(&there);
                sem_wait(&semaphore);
            }
        },
        "");
    over = true;
    sem_post(&there);
    echo.join();
    rows.pair(
        "thread pool, hand-off of one job", kHandOffs, hand_off,
        [&] {
            for (int i = 0; i < kHandOffs; i++) {
                apr_thread_pool_push(apr.pool, post_task, &semaphore, APR_THREAD_TASK_PRIORITY_NORMAL, nullptr);
                sem_wait(&semaphore);
            }
        },
        "<= 0.5");
}

}  // namespace

int main(int argc, char **argv) {
    cm::bench::Rows rows(argc, argv);
    measure_mutexes(rows);
    measure_pools(rows);
    return rows.failures();
}
