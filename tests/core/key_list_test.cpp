// Key tables and lists.
#include "support/failures.h"
#include "support/replace.h"
#include "support/scenario.h"

namespace {

using namespace cm::test;
using cm::platform::Lock;
using cm::platform::Table;
using std::string;

string destroyed;
void CM_CALL destroy(cm_value value) {
    destroyed += std::to_string(value) + " ";
}

// The steps of data/containers.txt: one key table and one list, on the heap or in a pool.
struct Containers : World {
    Containers(const Row &, bool in_pool) {
        EXPECT_EQ(cm_mem_init(nullptr, in_pool ? &pool : nullptr, 256), in_pool);
        EXPECT_EQ(cm_create_mutex(nullptr, &lock), 1);
        EXPECT_EQ(cm_key_alloc(nullptr, pool, lock, &keys), 1);
        EXPECT_EQ(cm_list_alloc(nullptr, pool, &list), 1);
        destroyed.clear();
        on("set", [this](auto &words) { return key(CM_OP_SET, words, static_cast<cm_value>(words.number(1))); });
        on("find", [this](auto &words) { return found(CM_OP_FIND, words); });
        on("delete", [this](auto &words) { return found(CM_OP_DELETE, words); });
        on("key-entry", [this](auto &words) {
            const auto number = [&](size_t index) { return static_cast<int32_t>(words.number(index)); };
            return cm_key_entry(keys, number(0), "a", number(1), 0);
        });
        on("hold", [this](auto &) { buffer = keys->head->key; });
        on("buffer",
           [this](auto &words) { return pool == nullptr || (keys->head->key == buffer) == (words[0] == "same"); });
        on("spare", [this](auto &) { return (keys->spare != nullptr) == (pool != nullptr); });
        on("locked", [this](auto &words) {
            string calls;
            const Replace<&Table::lock_acquire> acquire([&](Lock *) { calls += "("; });
            const Replace<&Table::lock_release> release([&](Lock *) { calls += ")"; });
            run(words);
            return calls;
        });
        on("add", [this](auto &words) {
            return cm_list_entry(list, CM_LIST_ADD, 99, static_cast<cm_value>(words.number(0)));
        });
        on("first", [this](auto &words) { return read(CM_OP_FIRST, words.number(0)); });
        on("next", [this](auto &words) { return read(CM_OP_NEXT, words.number(0)); });
        on("list-entry", [this](auto &words) { return read(static_cast<int32_t>(words.number(0)), 0); });
        on("free", [this](auto &) {
            EXPECT_EQ(cm_key_free(keys, destroy) + cm_list_free(list, destroy), 2);
            return destroyed;
        });
    }
    ~Containers() {
        cm_delete_mutex(lock);
        cm_mem_exit(pool);
        EXPECT_EQ(leaks.outstanding(), 0u);
    }
    int16_t key(int32_t operation, const Words &words, cm_value value) {
        return cm_key_entry(keys, operation, words.text(0), static_cast<int32_t>(words[0].size()), value);
    }
    string found(int32_t operation, const Words &words) {
        cm_value value = 77;
        if (key(operation, words, CM_OUT(&value))) return std::to_string(value);
        EXPECT_EQ(value, operation == CM_OP_FIND ? 0u : 77u);
        return "-";
    }
    string read(int32_t operation, int64_t cursor) {
        cm_value value = 77;
        if (cm_list_entry(list, operation, static_cast<int32_t>(cursor), CM_OUT(&value))) return std::to_string(value);
        EXPECT_EQ(value, 77u) << "a failure leaves the value alone";
        return "-";
    }

    LeakCheck leaks;
    cm_mem_pool *pool = nullptr;
    cm_mutex *lock = nullptr;
    cm_keytab *keys = nullptr;
    cm_list *list = nullptr;
    const char *buffer = nullptr;
};
SCENARIOS(ContainersOnTheHeap, Containers, "core/containers", false);
SCENARIOS(ContainersInAPool, Containers, "core/containers", true);

TEST(KeyTable, FailuresOfMemory) {
    const std::string no_memory = "Tilvar Server Error: cm_mem_alloc() Failure allocating memory block.\n";
    LeakCheck leaks;
    const StandardErrorCapture capture;
    each_failure(
        Faults::kAllocations,
        [] {
            cm_keytab *keys = nullptr;
            cm_list *list = nullptr;
            if (cm_key_alloc(nullptr, nullptr, nullptr, &keys)) {
                const int16_t set = cm_key_entry(keys, CM_OP_SET, "a", 1, 1);
                EXPECT_EQ(cm_key_entry(keys, CM_OP_FIND, "a", 1, 0), set);
                EXPECT_EQ(cm_key_free(keys, nullptr), 1);
            }
            if (cm_list_alloc(nullptr, nullptr, &list)) {
                const int16_t added = cm_list_entry(list, CM_LIST_ADD, 0, 1);
                EXPECT_EQ(list->count, added);
                EXPECT_EQ(cm_list_free(list, nullptr), 1);
            }
        },
        [&](bool) { EXPECT_EQ(leaks.outstanding(), 0u); });
    EXPECT_EQ(capture.text(), no_memory + "Tilvar Server Error: cm_key_alloc(): MALLOC() of 20 bytes failed.\n" +
                                  no_memory + no_memory + no_memory + no_memory);
}

}  // namespace
