// The thread pool: growth, refusals, dropped jobs, the ends of workers and pools.
#include <deque>

#include "core/cmblocks.h"
#include "core/cmtpool.h"
#include "support/scenario.h"
#include "threads/host.h"

using namespace cm;
using namespace cm::test;
using platform::os;

namespace {

// What the network does with closed connections, counted.
std::atomic<int> closed, closed_gracefully;

int16_t CM_CALL count_close(cm_net_state *, cm_conn *connection, int16_t graceful) {
    add_relaxed(connection->bytes_sent, 1u);  // stands in for "times closed"
    closed++;
    if (graceful != 0) closed_gracefully++;
    return 1;
}

class Pool {
public:
    explicit Pool(Host &host, int32_t max_workers) : host_(host) {
        closed = closed_gracefully = 0;
        thread_pool::close_connection = count_close;
        EXPECT_EQ(cm_mem_init(host.ctx(), &memory_, 1024), 1);
        const int16_t made = cm_tpool_init(host.ctx(), nullptr, memory_, max_workers, &pool_);
        EXPECT_EQ(made, pool_ != nullptr);
    }
    ~Pool() {
        EXPECT_EQ(cm_tpool_exit(pool_), pool_ != nullptr);
        host_.settle();
        cm_mem_exit(memory_);
    }
    cm_tpool *get() const { return pool_; }
    cm_tpool *operator->() const { return pool_; }

    int16_t exec(cm_conn *connection, cm_value argument, cm_job_fn function, const char *label = "job") {
        return cm_tpool_exec(pool_, connection, argument, label, function);
    }
    int32_t busy() const { return load_relaxed(pool_->busy); }
    int32_t workers() const { return load_relaxed(pool_->workers); }

private:
    Host &host_;
    cm_mem_pool *memory_ = nullptr;
    cm_tpool *pool_ = nullptr;
};

int16_t CM_CALL wait_at(cm_context *, cm_conn *, cm_thread *, cm_value gate) {
    reinterpret_cast<Gate *>(gate)->pass();
    return 1;
}

int16_t CM_CALL count_up(cm_context *, cm_conn *, cm_thread *, cm_value count) {
    ++*reinterpret_cast<std::atomic<int> *>(count);
    return 1;
}

template <class T>
cm_value value_of(T &object) {
    return reinterpret_cast<cm_value>(&object);
}

// The steps of data/tpool.txt.
struct PoolSteps : World {
    explicit PoolSteps(const Row &head) {
        const auto number = [&](size_t index) { return static_cast<int32_t>(head.number(index)); };
        host->idle_threads = number(1);
        if (head.fields.size() > 3) host->max_threads = number(3);
        pool.emplace(host, number(2));
        on("pool", [this](auto &) { return pool->get() != nullptr; });
        on("hold", [this](auto &words) { return hold(words.number(0)); });
        on("submit", [this](auto &words) { return submit(words[0], std::max(words.number(1), 1LL)); });
        on("open", [this](auto &) { gate.open(); });
        on("workers", [this](auto &) { return pool->workers(); });
        on("busy", [this](auto &) { return pool->busy(); });
        on("peak", [this](auto &) { return (*pool)->busy_peak; });
        on("threads", [this](auto &) { return host.threads(); });
        on("ran", [this](auto &) { return ran.load(); });
        on("closed", [](auto &) { return std::to_string(closed) + " " + std::to_string(closed_gracefully); });
        on("each-once", [this](auto &) {
            return std::all_of(conns.begin(), conns.end(), [](auto &conn) { return conn.bytes_sent == 1; });
        });
        on("left-alone", [this](auto &words) { return conns[words.number(0)].bytes_sent == 0; });
        on("flags", [this](auto &) { return load_relaxed(host->flags); });
        on("logged", [this](auto &words) { return host.logged(words.rest(0)); });
        on("exit", [this](auto &) { return cm_tpool_exit(pool->get()); });
        on("free-threads", [this](auto &) { return cm_free_threads(host.ctx()); });
        on("forget-threads", [this](auto &) {
            const MutexGuard guard(host->thread_mutex);
            return cm_hash_clear(host->thread_table, nullptr);
        });
        on("settle", [this](auto &) { host.settle(); });
    }
    // Jobs that wait at the gate, each with a connection of its own; gives how many were taken.
    int hold(int64_t count) {
        int taken = 0;
        for (; count > 0 && pool->exec(&conns.emplace_back(), value_of(gate), wait_at) == 1; count--, taken++)
            await([&, held = ++holding] { return gate.waiting() == std::min(held, pool->workers()); });
        return taken;
    }
    int submit(const std::string &what, int64_t count) {
        const auto give_back = [](cm_context *, cm_conn *connection, cm_thread *, cm_value) -> int16_t {
            add_relaxed(connection->serial, 1u);  // closed, and handed out to somebody else
            return 1;
        };
        int taken = 0;
        for (; count > 0; count--) {
            cm_conn *conn = what == "unconnected" ? nullptr : &conns.emplace_back();
            const cm_value argument = what == "without-argument" ? 0 : value_of(ran);
            taken += pool->exec(conn, argument,
                                what == "without-function" ? nullptr
                                : what == "giving-back"    ? cm_job_fn{give_back}
                                                           : count_up);
        }
        return taken;
    }

    Host host;
    Gate gate;
    std::deque<cm_conn> conns;
    std::atomic<int> ran = 0;
    int holding = 0;
    std::optional<Pool> pool;
};
SCENARIOS(ThreadPools, PoolSteps, "threads/tpool");

TEST(ThreadPool, AWorkerIsNamedAfterItsJobAndCountsThem) {
    Host host;
    host->idle_threads = 1;
    cm_conn conn = {};
    Pool pool(host, 1);
    static std::atomic<cm_thread *> worker;
    const auto look = [](cm_context *ctx, cm_conn *connection, cm_thread *self, cm_value number) -> int16_t {
        EXPECT_STREQ(self->label, "request");
        EXPECT_EQ(self->argument, reinterpret_cast<cm_value>(connection));
        EXPECT_EQ(self->ctx, ctx);
        EXPECT_EQ(self->jobs, static_cast<int32_t>(number));
        if (number == 2) self->jobs = 999998;
        worker = self;
        return 1;
    };
    for (const cm_value number : {1, 2, 999999, 1}) {
        const uint32_t before = load_relaxed(conn.bytes_sent);
        EXPECT_EQ(pool.exec(&conn, number, look, "request"), 1);
        await([&] { return load_relaxed(conn.bytes_sent) > before && pool.busy() == 0; });
    }
    EXPECT_STREQ(load_relaxed(worker.load()->label), "IDLE-Worker");
    EXPECT_EQ(load_relaxed(worker.load()->argument), 0u);
}

TEST(ThreadPool, AFailedStartUndoesItselfAndTheServerGoesOn) {
    int64_t failures = 0, told = 0;
    for (bool failed = true; failed;) {
        LeakCheck leaks;
        {
            Host host;
            cm_mem_pool *memory = nullptr;
            cm_tpool *pool = nullptr;
            ASSERT_EQ(cm_mem_init(host.ctx(), &memory, 1024), 1);
            int16_t result;
            {
                Faults faults(Faults::kAllocations | Faults::kThreads | Faults::kLocks, failures + 1);
                result = cm_tpool_init(host.ctx(), nullptr, memory, 50, &pool);
                EXPECT_EQ(load_relaxed(host->flags), 0u);
                if (pool != nullptr) cm_tpool_exit(pool);
                host.settle();
                failed = faults.injected() > 0;
            }
            EXPECT_EQ(result, failed ? 0 : 1) << failures;
            EXPECT_EQ(pool == nullptr, failed);
            cm_mem_exit(memory);
            told += host.logged("ERROR: cm_tpool_init(): MALLOC() of 48 bytes failed.");
            failures += failed;
        }
        blocks::trim();
        EXPECT_EQ(leaks.outstanding(), 0u) << failures;
    }
    EXPECT_GT(failures, 20);  // blocks of the jobs; crew, event, lock; each worker's record, cell and thread
    EXPECT_GE(told, 1);
    Host host;
    cm_tpool *none = nullptr;
    EXPECT_EQ(cm_tpool_init(nullptr, nullptr, host->thread_pool_mem, 5, &none), 0);
    EXPECT_EQ(cm_tpool_init(host.ctx(), nullptr, nullptr, 5, &none), 0);
    EXPECT_EQ(cm_tpool_init(host.ctx(), nullptr, host->thread_pool_mem, 5, nullptr), 0);
    EXPECT_EQ(cm_tpool_exec(nullptr, nullptr, 1, "x", wait_at) + cm_tpool_exit(nullptr), 0);
}

// ---- many at once ---------------------------------------------------------------------------------------------------

// Submitters that now and then wait until all of theirs is done catch the pool with every worker just about to wait.
TEST(ThreadPool, NoJobIsStranded) {
    Host host;
    host->trace_level = CM_INFO;
#ifdef TILVARCM_SANITIZED
    constexpr int kSubmitters = 8, kJobs = 2500;
#else
    constexpr int kSubmitters = 8, kJobs = 12500;
#endif
    std::vector<cm_conn> conns(kSubmitters);
    Pool pool(host, 12);
    std::vector<std::thread> submitters;
    std::atomic<int> refused{0};
    for (size_t s = 0; s < kSubmitters; s++)
        submitters.emplace_back([&, s] {
            std::atomic<int> done{0};
            uint32_t random = static_cast<uint32_t>(s) + 1;
            for (int i = 0; i < kJobs; i++) {
                while (pool.exec(&conns[s], value_of(done), count_up) == 0) {
                    refused++;
                    os.thread_yield();
                }
                random = random * 1664525 + 1013904223;
                if (random >> 30 == 0) await([&] { return done == i + 1; });
            }
            await([&] { return done == kJobs; });
        });
    for (auto &submitter : submitters) submitter.join();
    await([&] { return pool.busy() == 0; });
    EXPECT_EQ(closed_gracefully, kSubmitters * kJobs);
    EXPECT_EQ(closed, kSubmitters * kJobs + refused);
}

TEST(ThreadPool, ClosingAmongSubmittersClosesEachConnectionOnce) {
    for (int round = 0; round < 20; round++) {
        Host host;
        host->trace_level = CM_INFO;
        constexpr size_t kSubmitters = 4, kEach = 100;
        std::vector<cm_conn> conns(kSubmitters * kEach);
        Pool pool(host, 6);
        std::atomic<int> ran{0}, submitted{0};
        std::vector<std::thread> submitters;
        for (size_t s = 0; s < kSubmitters; s++)
            submitters.emplace_back([&, s] {
                for (size_t i = 0; i < kEach; i++) {
                    pool.exec(&conns[s * kEach + i], value_of(ran), count_up);
                    submitted++;
                }
            });
        await([&] { return submitted >= round * 15; });
        EXPECT_EQ(cm_tpool_exit(pool.get()), 1);
        for (auto &submitter : submitters) submitter.join();
        host.settle();
        for (const auto &conn : conns) EXPECT_EQ(conn.bytes_sent, 1u);
    }
}

}  // namespace
