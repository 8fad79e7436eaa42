// Threads, the thread table, mutexes.
#include <deque>

#include "core/cmblocks.h"
#include "support/replace.h"
#include "support/scenario.h"
#include "threads/host.h"

using namespace cm;
using namespace cm::test;
using platform::os;

namespace {

int16_t CM_CALL wait_at(cm_thread *, cm_value gate) {
    reinterpret_cast<Gate *>(gate)->pass();
    return 1;
}

int16_t CM_CALL end_at_once(cm_thread *, cm_value) {
    return 0;
}

int16_t CM_CALL sleep_long(cm_thread *, cm_value asleep) {
    ++*reinterpret_cast<std::atomic<int> *>(asleep);
    os.sleep(3600 * 1000);
    return 1;
}

cm_value value_of(void *pointer) {
    return reinterpret_cast<cm_value>(pointer);
}

void run_to_end(Host &host) {
    ASSERT_EQ(cm_create_thread(host.ctx(), end_at_once, 0, "short", nullptr), 1);
    host.settle();
}

// Threads that do not leave when they are asked: the entries that wait for them and stop them are replaced.
struct Stubborn {
    int asked = 0, parked = 0;
    int64_t now_ms = 0;
    bool can_be_parked = true;

    const Replace<&platform::Table::thread_ask> ask{[this](platform::Thread *) { asked++; }};
    const Replace<&platform::Table::thread_join> join{[this](platform::Thread *, int32_t timeout_ms) {
        EXPECT_GE(timeout_ms, 0);
        EXPECT_LE(timeout_ms, 2000);
        now_ms += timeout_ms;
        return false;
    }};
    const Replace<&platform::Table::monotonic_ms> clock{[this] { return now_ms; }};
    const Replace<&platform::Table::thread_park> park{[this](platform::Thread *) {
        parked++;
        return can_be_parked;
    }};
};

// The steps of data/threads.txt.
struct ThreadSteps : World {
    explicit ThreadSteps(const Row &) {
        on("limit", [this](auto &words) { host->max_threads = static_cast<int32_t>(words.number(0)); });
        on("start", [this](auto &words) {
            static std::deque<Gate> &made = *new std::deque<Gate>;  // they stay for threads that never leave
            Gate *const gate = gates[words[0]] = &made.emplace_back();
            const int16_t started = cm_create_thread(host.ctx(), wait_at, value_of(gate), "test", &threads[words[0]]);
            await([&] { return started == 0 || gate->waiting() > 0; });
            return started;
        });
        on("sleeper", [this](auto &words) {
            return cm_create_thread(host.ctx(), sleep_long, value_of(&asleep), "test", &threads[words[0]]);
        });
        on("open", [this](auto &words) { gates[words[0]]->open(); });
        on("record", [this](auto &words) {
            const cm_thread *thread = threads[words[0]];
            if (thread == nullptr) return std::string("-");
            cm_value found = 0;
            const MutexGuard guard(host->thread_mutex);
            cm_hash_entry(host->thread_table, CM_OP_FIND, &thread->table_key, sizeof(cm_value), value_of(&found));
            const bool whole = thread->table_key == value_of(thread->handle) && found == value_of(threads[words[0]]) &&
                               thread->ctx == host.ctx();
            return (whole ? thread->label : "?") + (" " + std::to_string(thread->serial));
        });
        on("serial", [this](auto &words) { host->thread_serial = static_cast<int32_t>(words.number(0)); });
        on("same", [this](auto &words) { return threads[words[0]] == threads[words[1]]; });
        on("spare", [this](auto &) -> std::string {
            const cm_thread *spare = host->thread_spare;
            if (spare == nullptr) return "-";
            if (spare->next != nullptr) return "many";
            return std::find_if(threads.begin(), threads.end(), [&](auto &it) { return it.second == spare; })->first;
        });
        on("threads", [this](auto &) { return host.threads(); });
        on("settle", [this](auto &) { host.settle(); });
        on("terminate", [this](auto &words) { return cm_terminate_thread(threads[words[0]]); });
        on("free", [this](auto &) { return cm_free_threads(host.ctx()); });
        on("wait", [this](auto &words) {  // for all; with a name: that one may go in the first second
            const Replace<&platform::Table::sleep> sleep([&](int32_t milliseconds) {
                slept += milliseconds;
                if (words.count() > 0) gates[words[0]]->open(), host.settle();
                return true;
            });
            slept = 0;
            return cm_waitfor_threads(host.ctx());
        });
        on("slept", [this](auto &) { return slept; });
        on("stubborn", [this](auto &words) { stubborn.emplace().can_be_parked = words[0] != "unparkable"; });
        on("waited", [this](auto &) { return stubborn->now_ms; });
        on("asked", [this](auto &) { return stubborn->asked; });
        on("parked", [this](auto &) { return stubborn->parked; });
        on("leaves-when-parked", [this](auto &words) {
            leaves.emplace([this, gate = gates[words[0]]](platform::Thread *left) {
                gate->open();
                EXPECT_TRUE(stubborn->join.real(left, platform::kForever));
                return false;
            });
        });
        on("forget", [this](auto &) {
            stubborn.reset();
            Leavers::forget();
        });
        on("logged", [this](auto &words) { return host.logged(words.rest(0)); });
        on("log", [this](auto &) {
            std::string text;
            for (const std::string &line : host.log()) text += line + "\n";
            return text;
        });
    }

    Host host;
    std::map<std::string, Gate *> gates;
    std::map<std::string, cm_thread *> threads;
    std::atomic<int> asleep = 0;
    int slept = 0;
    std::optional<Stubborn> stubborn;
    std::optional<Replace<&platform::Table::thread_park, 1>> leaves;
};
SCENARIOS(ThreadRecords, ThreadSteps, "threads/threads");

// ---- mutexes
// --------------------------------------------------------------------------------------------------------

TEST(Mutexes, MayBeTakenAgainByTheirHolderAndTellWhichPartFoundNoMemory) {
    cm_mutex *mutex = nullptr;
    ASSERT_EQ(cm_create_mutex(nullptr, &mutex), 1);
    for (int i = 0; i < 2; i++) EXPECT_EQ(cm_take_mutex(mutex), 1);
    for (int i = 0; i < 2; i++) EXPECT_EQ(cm_release_mutex(mutex), 1);
    EXPECT_EQ(cm_delete_mutex(mutex), 1);
    EXPECT_EQ(cm_take_mutex(nullptr) + cm_release_mutex(nullptr) + cm_delete_mutex(nullptr), 0);
    EXPECT_EQ(cm_create_mutex(nullptr, nullptr), 0);
    const char *told[] = {"Tilvar Server Error: cm_create_mutex(): MALLOC() of 12 bytes failed.\n",
                          "Tilvar Server Error: cm_create_mutex(): MALLOC() of 4 bytes failed.\n"};
    for (int64_t k = 1; k <= 2; k++) {
        LeakCheck leaks;
        EXPECT_EQ(captured_standard_error([&] {
                      Faults faults(Faults::kAllocations, k);
                      EXPECT_EQ(cm_create_mutex(nullptr, &mutex), 0);
                  }),
                  told[k - 1]);
        EXPECT_EQ(mutex, nullptr);
        EXPECT_EQ(leaks.outstanding(), 0u);
    }
}

// ---- records
// --------------------------------------------------------------------------------------------------------

TEST(Threads, EveryFailureOfAStartIsUndone) {
    int failures = 0;
    for (bool failed = true; failed;) {
        blocks::trim();
        LeakCheck leaks;
        {
            Host host;
            cm_thread *thread = nullptr;
            {
                Faults faults(Faults::kAllocations | Faults::kThreads, failures + 1);
                const int16_t result = cm_create_thread(host.ctx(), end_at_once, 0, "x", &thread);
                host.settle();
                failed = faults.injected() > 0;
                EXPECT_EQ(result, failed ? 0 : 1);
            }
            EXPECT_EQ(thread == nullptr, failed);
            EXPECT_EQ(host->thread_spare == nullptr, failed);
            EXPECT_EQ(host.logged("ERROR: cm_create_thread(): MALLOC() of 36 bytes failed."), failures == 0);
            EXPECT_EQ(host.logged("ERROR: cm_create_thread(): MALLOC() of 4 bytes failed."), failures == 1);
            if (failed) run_to_end(host);
            failures += failed;
        }
        blocks::trim();
        EXPECT_EQ(leaks.outstanding(), 0u) << failures;
    }
    EXPECT_GE(failures, 4);  // record, cell, what the table needs, thread
}

TEST(Threads, WithoutAContextNothingIsKept) {
    LeakCheck leaks;
    std::atomic<int> ran{0};
    for (int i = 0; i < 50; i++) {
        const auto count = [](cm_thread *self, cm_value ran_at) -> int16_t {
            EXPECT_EQ(self->ctx, nullptr);
            ++*reinterpret_cast<std::atomic<int> *>(ran_at);
            return 1;
        };
        EXPECT_EQ(cm_create_thread(nullptr, count, value_of(&ran), "loose", nullptr), 1);
    }
    await([&] {
        Leavers::join();
        return ran == 50 && leaks.outstanding() == 0;
    });
    for (int64_t k = 1; k <= 3; k++) {
        cm_thread *thread = nullptr;
        captured_standard_error([&] {
            Faults faults(Faults::kAllocations | Faults::kThreads, k);
            EXPECT_EQ(cm_create_thread(nullptr, end_at_once, 0, "x", &thread), 0) << k;
        });
        EXPECT_EQ(thread, nullptr);
        EXPECT_EQ(leaks.outstanding(), 0u);
    }
}

TEST(Threads, WrongArguments) {
    Host host;
    cm_thread *none = nullptr;
    const auto empty = std::make_unique<cm_context>();
    EXPECT_EQ(cm_create_thread(host.ctx(), nullptr, 0, "x", &none), 0);
    EXPECT_EQ(cm_create_thread(empty.get(), end_at_once, 0, "x", &none), 0);
    EXPECT_EQ(cm_free_threads(empty.get()), 1);
    EXPECT_EQ(cm_terminate_thread(nullptr) + cm_free_threads(nullptr) + cm_waitfor_threads(nullptr), 0);
}

// ---- ends from outside ----------------------------------------------------------------------------------------------

TEST(Threads, AThreadThatTerminatesItselfGoesWhenItsFunctionReturns) {
    Host host;
    const auto itself = [](cm_thread *self, cm_value) -> int16_t {
        EXPECT_EQ(cm_terminate_thread(self), 1);
        EXPECT_TRUE(os.thread_asked());
        return 1;
    };
    EXPECT_EQ(cm_create_thread(host.ctx(), itself, 0, "x", nullptr), 1);
    host.settle();
    EXPECT_NE(host->thread_spare, nullptr);
    LeakCheck leaks;
    cm_thread *loose = nullptr;
    std::atomic<int> asleep{0};
    EXPECT_EQ(cm_create_thread(nullptr, itself, 0, "x", nullptr), 1);
    EXPECT_EQ(cm_create_thread(nullptr, sleep_long, value_of(&asleep), "loose", &loose), 1);
    EXPECT_EQ(cm_terminate_thread(loose), 1);
    await([&] {
        Leavers::join();
        return leaks.outstanding() == 0;
    });
}

TEST(Threads, EndsFromBothSidesGiveARecordBackOnce) {
    Host host;
    for (int round = 0; round < 200; round++) {
        cm_thread *thread = nullptr;
        ASSERT_EQ(cm_create_thread(host.ctx(), end_at_once, 0, "x", &thread), 1);
        EXPECT_EQ(cm_terminate_thread(thread), 1);
        EXPECT_EQ(host.threads(), 0);
        const MutexGuard guard(host->thread_mutex);
        EXPECT_EQ(host->thread_spare, thread);
        EXPECT_EQ(thread->next, nullptr);
    }
}

TEST(Threads, FreeingEndsAllButTheCallersOwn) {
    Host host;
    std::atomic<int> asleep{0};
    for (int i = 0; i < 5; i++)
        EXPECT_EQ(cm_create_thread(host.ctx(), sleep_long, value_of(&asleep), "sleeper", nullptr), 1);
    const auto free_all = [](cm_thread *self, cm_value) -> int16_t {
        EXPECT_EQ(cm_free_threads(self->ctx), 1);
        EXPECT_FALSE(os.thread_asked());
        return 1;
    };
    EXPECT_EQ(cm_create_thread(host.ctx(), free_all, 0, "caller", nullptr), 1);
    await([&] { return host.threads() == 5; });  // their entries stay, that of the caller goes as always
    cm_hash_entry_rec *entry = nullptr;
    const MutexGuard guard(host->thread_mutex);
    EXPECT_EQ(cm_hash_entry(host->thread_table, CM_OP_FIRST, nullptr, 0, value_of(&entry)), 1);
    for (; entry != nullptr; cm_hash_entry(host->thread_table, CM_OP_NEXT, nullptr, 0, value_of(&entry)))
        EXPECT_EQ(entry->value, 0u);
}

TEST(Threads, FreeingAlsoFindsThreadsThatEndingOnesStart) {
    Host host;
    static std::atomic<int> asleep;
    asleep = 0;
    const auto start_another = [](cm_thread *self, cm_value) -> int16_t {
        ++asleep;
        os.sleep(3600 * 1000);
        EXPECT_EQ(cm_create_thread(self->ctx, sleep_long, value_of(&asleep), "late", nullptr), 1);
        return 1;
    };
    EXPECT_EQ(cm_create_thread(host.ctx(), start_another, 0, "early", nullptr), 1);
    await([] { return asleep == 1; });
    EXPECT_EQ(cm_free_threads(host.ctx()), 1);
    EXPECT_EQ(host->thread_spare, nullptr);
}

// ---- many at once ---------------------------------------------------------------------------------------------------

TEST(Threads, ManyLogAtOnceAndNoLineIsTorn) {
    Host host;
    constexpr int kThreads = 16, kLines = 200;
    const auto write_lines = [](cm_thread *self, cm_value number) -> int16_t {
        char text[128];
        for (int i = 0; i < kLines; i++) {
            cm_snprintf(text, sizeof text, "%s %d line %d %s", self->label, static_cast<int>(number), i,
                        std::string(static_cast<size_t>(i % 60), 'x').c_str());
            cm_log(self->ctx, CM_INFO, text, CM_LEN_TEXT);
        }
        return 1;
    };
    for (cm_value i = 0; i < kThreads; i++)
        EXPECT_EQ(cm_create_thread(host.ctx(), write_lines, i, "writer", nullptr), 1);
    host.settle();
    std::vector<int> next(kThreads, 0);
    int good = 0;
    for (const std::string &line : host.log()) {
        int number = -1, i = -1;
        if (sscanf(line.c_str(), "INFO:  writer %d line %d ", &number, &i) != 2) continue;
        ASSERT_LT(static_cast<size_t>(number), next.size());
        EXPECT_EQ(i, next[static_cast<size_t>(number)]++);
        good += line.size() == line.find_last_of(' ') + 1 + static_cast<size_t>(i % 60);
    }
    EXPECT_EQ(good, kThreads * kLines);
}

}  // namespace
