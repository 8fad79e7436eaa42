// Hash tables: where keys go, what cursors see when entries come and go, and walks whose visitor changes the table.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "support/support.h"

namespace {

using cm::test::captured_standard_error;
using cm::test::Faults;
using cm::test::LeakCheck;

const std::string kBadLength = "Tilvar Server Error: cm_hash_entry() The key length specified is invalid.\n";
const std::string kBadIndex = "Tilvar Server Error: cm_hash_entry() The hash index specified is invalid.\n";

// The definition, byte by byte.
uint32_t hash_of(const std::string &key) {
    uint32_t h = 0;
    if (key.size() != 4) {
        for (const unsigned char c : key) h = h * 31 + c;
        return h;
    }
    memcpy(&h, key.data(), 4);
    h += h << 12, h ^= h >> 22, h += h << 4, h ^= h >> 9, h += h << 10, h ^= h >> 2, h += h << 7, h ^= h >> 12;
    return h;
}

std::vector<cm_value> destroyed;
void CM_CALL destroy(cm_value value) {
    destroyed.push_back(value);
}

// A table in a pool or on the heap, spoken to in std::strings; absent values read as -1.
class Table {
public:
    explicit Table(uint32_t buckets, bool pooled = true) {
        destroyed.clear();
        if (pooled) cm_mem_init(nullptr, &pool_, 1024);
        EXPECT_EQ(cm_hash_alloc(nullptr, pool_, buckets, &table_), 1);
    }
    ~Table() {
        cm_hash_free(table_, nullptr);
        cm_mem_exit(pool_);
    }
    cm_hash *operator->() const { return table_; }
    operator cm_hash *() const { return table_; }

    int16_t set(const std::string &key, cm_value value) {
        return cm_hash_entry(table_, CM_OP_SET, key.data(), static_cast<int32_t>(key.size()), value);
    }
    long find(const std::string &key) {
        cm_value value = 77;
        if (cm_hash_entry(table_, CM_OP_FIND, key.data(), static_cast<int32_t>(key.size()), CM_OUT(&value)))
            return static_cast<long>(value);
        EXPECT_EQ(value, 0u);
        return -1;
    }
    long remove(const std::string &key) {
        cm_value value = 0;
        const auto length = static_cast<int32_t>(key.size());
        return cm_hash_entry(table_, CM_OP_DELETE, key.data(), length, CM_OUT(&value)) ? static_cast<long>(value) : -1;
    }
    std::string step(int32_t operation, int32_t cursor = 0) {
        cm_hash_entry_rec *entry = nullptr;
        if (!cm_hash_entry(table_, operation, &cursor, 0, CM_OUT(&entry))) return "failed";
        return entry == nullptr ? "end" : std::string(entry->key, static_cast<size_t>(entry->key_length));
    }
    std::string first(int32_t cursor = 0) { return step(CM_OP_FIRST, cursor); }
    std::string next(int32_t cursor = 0) { return step(CM_OP_NEXT, cursor); }
    long remove_current(int32_t cursor = 0) {
        cm_value value = 0;
        return cm_hash_entry(table_, CM_OP_DELETE_CURRENT, &cursor, 0, CM_OUT(&value)) ? static_cast<long>(value) : -1;
    }
    // `count` keys of one bucket, in the order in which their chain will have them when they are set from the last on.
    std::vector<std::string> fill(uint32_t bucket, int count) {
        std::vector<std::string> keys;
        for (int i = 0; static_cast<int>(keys.size()) < count; i++)
            if (const std::string key = "key" + std::to_string(i); hash_of(key) % table_->buckets == bucket)
                keys.push_back(key);
        for (int i = count; i-- > 0;) set(keys[static_cast<size_t>(i)], static_cast<cm_value>(i));
        return keys;
    }
    std::string walk(const std::function<int32_t(const std::string &key)> &visit, int16_t result = 1) {
        struct State {
            const std::function<int32_t(const std::string &)> &visit;
            std::string seen;
        } state{visit, {}};
        EXPECT_EQ(cm_hash_walk(table_, reinterpret_cast<cm_value>(&state),
                               [](cm_hash *, cm_value user, cm_hash_entry_rec *entry) {
                                   auto *at = reinterpret_cast<State *>(user);
                                   const std::string key(entry->key, static_cast<size_t>(entry->key_length));
                                   at->seen += (at->seen.empty() ? "" : " ") + key;
                                   return at->visit(key);
                               }),
                  result);
        return state.seen;
    }

private:
    cm_mem_pool *pool_ = nullptr;
    cm_hash *table_ = nullptr;
};

TEST(Hash, KeysGoToTheHeadOfTheStatedBucket) {
    for (const uint32_t buckets : {1u, 2u, 541u, 1021u, 13499u, 65536u}) {
        Table table(buckets);
        for (int length = 1; length <= 40; length++) {
            std::string key(static_cast<size_t>(length), '\0');
            for (int i = 0; i < length; i++)
                key[static_cast<size_t>(i)] = static_cast<char>(length * 37 + i * 91 + 200);
            ASSERT_EQ(table.set(key, 1), 1);
            const cm_hash_entry_rec *head = table->heads[hash_of(key) % buckets];
            ASSERT_NE(head, nullptr);
            EXPECT_EQ(std::string(head->key, static_cast<size_t>(head->key_length)), key);
            EXPECT_EQ(head->key[length], '\0');
        }
        EXPECT_EQ(table->entries, 40);
    }
}

TEST(Hash, OperationsByKey) {
    Table table(7);
    EXPECT_EQ(table.find("a"), -1);
    EXPECT_EQ(table.set("a", 1), 1);
    EXPECT_EQ(table.set("a", 2), 1);
    EXPECT_EQ(table->entries, 1);
    EXPECT_EQ(table.find("a"), 2);
    EXPECT_EQ(table.find("A"), -1);
    EXPECT_EQ(cm_hash_entry(table, CM_OP_FIND, "a", CM_LEN_TEXT, 0), 1);
    EXPECT_EQ(table.set("abcd", 0), 1);
    EXPECT_EQ(table.set("abcde", 5), 1);
    EXPECT_EQ(table.find("abcd"), 0) << "0 is a value";
    EXPECT_EQ(table.set(std::string("a\0b", 3), 6), 1);
    EXPECT_EQ(table.find(std::string("a\0c", 3)), -1);
    EXPECT_EQ(table.remove("a"), 2);
    EXPECT_EQ(table.remove("a"), -1);
    EXPECT_EQ(table->entries, 3);
    EXPECT_EQ(captured_standard_error([&] {
                  EXPECT_EQ(cm_hash_entry(table, 7, "a", 1, 0), 0);
                  EXPECT_EQ(cm_hash_entry(table, 0, "a", 1, 0), 0);
                  EXPECT_EQ(cm_hash_entry(nullptr, CM_OP_FIND, "a", 1, 0), 0);
              }),
              "");
}

TEST(Hash, KeysWithoutLengthAreReported) {
    Table table(7);
    for (const int32_t operation : {CM_OP_FIND, CM_OP_SET, CM_OP_DELETE})
        for (const int32_t length : {0, -1, -2, -4}) {
            EXPECT_EQ(captured_standard_error([&] { EXPECT_EQ(cm_hash_entry(table, operation, "a", length, 0), 0); }),
                      kBadLength);
        }
    EXPECT_EQ(captured_standard_error([&] { cm_hash_entry(table, CM_OP_FIND, "", CM_LEN_TEXT, 0); }), kBadLength);
    EXPECT_EQ(captured_standard_error([&] { cm_hash_entry(table, CM_OP_FIND, nullptr, 3, 0); }), kBadLength);
}

TEST(HashCursor, VisitsEverythingThenEndsThenFails) {
    Table table(5);
    std::set<std::string> keys, seen;
    for (int i = 0; i < 30; i++) keys.insert("k" + std::to_string(i));
    for (const std::string &key : keys) table.set(key, 1);
    for (std::string key = table.first(3); key != "end"; key = table.next(3)) EXPECT_TRUE(seen.insert(key).second);
    EXPECT_EQ(seen, keys);
    EXPECT_EQ(captured_standard_error([&] { EXPECT_EQ(table.next(3), "failed"); }), kBadIndex);
    EXPECT_EQ(captured_standard_error([&] { EXPECT_EQ(table.remove_current(3), -1); }), kBadIndex);
    Table empty(5);
    EXPECT_EQ(empty.first(), "end");
}

TEST(HashCursor, NumbersOutOfRangeAreCursorZero) {
    Table table(5);
    const auto keys = table.fill(2, 3);
    EXPECT_EQ(table.first(0), keys[0]);
    EXPECT_EQ(table.next(4), keys[1]);
    EXPECT_EQ(table.next(-1), keys[2]);
    cm_hash_entry_rec *entry = nullptr;
    EXPECT_EQ(cm_hash_entry(table, CM_OP_NEXT, nullptr, 0, CM_OUT(&entry)), 1);
    EXPECT_EQ(entry, nullptr);
    EXPECT_EQ(table.next(1), keys[0]) << "a fresh cursor stands before bucket 1";
}

TEST(HashCursor, DeletionGoesOnWithTheFollower) {
    for (const bool pooled : {true, false}) {
        Table table(5, pooled);
        const auto keys = table.fill(2, 4);
        const auto last = table.fill(3, 1);
        EXPECT_EQ(table.first(), keys[0]);
        EXPECT_EQ(table.remove_current(), 0);
        EXPECT_EQ(table.next(), keys[1]) << "at the head of a chain";
        EXPECT_EQ(table.next(), keys[2]);
        EXPECT_EQ(table.remove_current(), 2);
        EXPECT_EQ(table.remove_current(), 1) << "the cursor stood on the entry before";
        EXPECT_EQ(captured_standard_error([&] { EXPECT_EQ(table.remove_current(), -1); }), kBadIndex);
        EXPECT_EQ(table.next(), keys[3]);
        EXPECT_EQ(table.remove(keys[3]), 3) << "by key, under the cursor";
        EXPECT_EQ(table.next(), last[0]);
        EXPECT_EQ(table.next(), "end");
        EXPECT_EQ(table->entries, 1);
    }
}

TEST(HashCursor, EveryCursorStepsOffADeletedEntry) {
    Table table(5);
    const auto keys = table.fill(1, 3);
    for (int32_t cursor = 0; cursor < 4; cursor++) {
        table.first(cursor);
        table.next(cursor);
    }
    EXPECT_EQ(table.remove_current(2), 1);
    for (int32_t cursor = 0; cursor < 4; cursor++) EXPECT_EQ(table.next(cursor), keys[2]) << cursor;
}

TEST(HashCursor, RestOfBucketZeroIsSkippedAfterItsHeadGoes) {
    Table table(5);
    const auto zero = table.fill(0, 3);
    const auto one = table.fill(1, 1);
    EXPECT_EQ(table.first(), zero[0]);
    EXPECT_EQ(table.remove_current(), 0);
    EXPECT_EQ(table.next(), one[0]);
    EXPECT_EQ(table.first(), zero[1]);
    EXPECT_EQ(table.next(), zero[2]);
    EXPECT_EQ(table.remove_current(), 2) << "not the head: nothing is skipped";
    EXPECT_EQ(table.next(), one[0]);
}

TEST(HashWalk, VisitsInBucketOrderAndStops) {
    Table table(5);
    const auto two = table.fill(2, 3);
    const auto zero = table.fill(0, 1);
    const std::string all = zero[0] + " " + two[0] + " " + two[1] + " " + two[2];
    EXPECT_EQ(table.walk([](auto &) { return 0; }), all);
    const std::string half = zero[0] + " " + two[0];
    const auto stop = [&](int32_t how) { return [&, how](const std::string &key) { return key == two[0] ? how : 0; }; };
    EXPECT_EQ(table.walk(stop(CM_WALK_STOP_OK), 1), half);
    EXPECT_EQ(table.walk(stop(CM_WALK_STOP_FAIL), 0), half);
    EXPECT_EQ(table.walk(stop(CM_WALK_STOP_OK | CM_WALK_STOP_FAIL), 1), half);
    EXPECT_EQ(table.walk(stop(CM_WALK_STOP_FAIL | CM_WALK_REMOVE), 0), half);
    EXPECT_EQ(table.find(two[0]), -1);
    EXPECT_EQ(table->entries, 4) << "an entry taken out by a walk still counts";
    EXPECT_EQ(cm_hash_walk(table, 0, nullptr), 0);
}

TEST(HashWalk, RemovedEntriesNeverComeBack) {
    for (const bool pooled : {true, false}) {
        Table table(5, pooled);
        const auto keys = table.fill(2, 6);
        EXPECT_EQ(table.first(1), keys[0]);
        EXPECT_EQ(table.next(1), keys[1]);
        table.walk([&](auto &key) { return key == keys[1] || key == keys[3] ? CM_WALK_REMOVE : 0; });
        EXPECT_EQ(table.next(1), keys[2]) << "a cursor steps off what a walk takes out";
        EXPECT_EQ(table.remove(keys[2]), 2) << "its previous link is stale";
        EXPECT_EQ(table.remove(keys[4]), 4);
        EXPECT_EQ(table.walk([](auto &) { return 0; }), keys[0] + " " + keys[5]);
        for (int i = 0; i < 8; i++) ASSERT_EQ(table.set("again" + std::to_string(i), 100), 1);
        std::set<std::string> seen;
        for (std::string key = table.first(); key != "end"; key = table.next()) EXPECT_TRUE(seen.insert(key).second);
        EXPECT_EQ(seen.size(), 10u);
    }
}

TEST(HashWalk, VisitorMayChangeTheTable) {
    for (const bool pooled : {true, false}) {
        Table table(5, pooled);
        const auto keys = table.fill(2, 5);
        std::string seen = table.walk([&](auto &key) {
            if (key == keys[0]) table.remove(keys[1]);
            if (key == keys[2]) return table.remove(key), CM_WALK_REMOVE;  // removed already: nothing more to take out
            if (key == keys[3]) table.walk([&](auto &inner) { return inner == keys[4] ? CM_WALK_REMOVE : 0; });
            return 0;
        });
        EXPECT_EQ(seen, keys[0] + " " + keys[2] + " " + keys[3]);
        EXPECT_EQ(table.walk([&](auto &) { return cm_hash_clear(table, nullptr), CM_WALK_REMOVE; }), keys[0]);
        EXPECT_EQ(table->entries, 0);
        EXPECT_EQ(table.set("new", 1), 1);
    }
}

TEST(Hash, RemovedEntriesAreUsedAgainWithTheirBuffers) {
    Table table(7);
    table.set("sixsix", 1);
    const char *buffer = table->heads[hash_of("sixsix") % 7]->key;
    const auto reuses = [&](const std::string &old, const std::string &key) {
        EXPECT_NE(table.remove(old), -1);
        EXPECT_EQ(table.set(key, 1), 1);
        EXPECT_EQ(table->free_list, nullptr);
        const char *now = table->heads[hash_of(key) % 7]->key;
        const bool same = now == buffer;
        buffer = now;
        return same;
    };
    EXPECT_TRUE(reuses("sixsix", "sixth."));
    EXPECT_TRUE(reuses("sixth.", "two"));
    EXPECT_FALSE(reuses("two", "five5")) << "measured by the last key, not by the buffer";
    table->key_min = 20;
    EXPECT_FALSE(reuses("five5", "a key of 16 byte")) << "the buffer is older than key_min";
    EXPECT_TRUE(reuses("a key of 16 byte", "a"));
    EXPECT_TRUE(reuses("a", "a key of 20 bytes ..." + 1));
}

TEST(Hash, ClearEmptiesAndFreeDestroys) {
    for (const bool pooled : {true, false}) {
        Table table(3, pooled);
        table.fill(0, 3);
        table.fill(1, 2);
        EXPECT_EQ(table.first(), table.first());
        EXPECT_EQ(cm_hash_clear(table, destroy), 1);
        EXPECT_EQ(destroyed.size(), 5u);
        EXPECT_EQ(table->entries, 0);
        EXPECT_EQ(table.next(), "end") << "a cursor never shows a cleared entry";
        table.fill(2, 4);
        EXPECT_EQ(cm_hash_clear(table, nullptr), 1);
    }
    cm_mem_pool *pool = nullptr;
    ASSERT_EQ(cm_mem_init(nullptr, &pool, 1024), 1);
    for (cm_mem_pool *from : {pool, static_cast<cm_mem_pool *>(nullptr)}) {
        LeakCheck leaks;
        destroyed.clear();
        cm_hash *table = nullptr;
        ASSERT_EQ(cm_hash_alloc(nullptr, from, 3, &table), 1);
        for (const char *key : {"a", "b", "c"}) cm_hash_entry(table, CM_OP_SET, key, 1, 9);
        cm_hash_walk(table, 0, [](cm_hash *, cm_value, cm_hash_entry_rec *) -> int32_t { return 3; });
        EXPECT_EQ(cm_hash_free(table, destroy), 1);
        EXPECT_EQ(destroyed.size(), 2u) << "not what the walk took out";
        EXPECT_EQ(leaks.outstanding(), 0u);
    }
    cm_mem_exit(pool);
}

TEST(Hash, EveryFailureOfMemoryLeavesTheTableWhole) {
    cm_hash *none = reinterpret_cast<cm_hash *>(1);
    EXPECT_EQ(captured_standard_error([&] { EXPECT_EQ(cm_hash_alloc(nullptr, nullptr, 0, &none), 0); }),
              "Tilvar Server Error: cm_hash_alloc() An invalid memory hash size was specified.\n");
    EXPECT_EQ(none, nullptr);
    EXPECT_EQ(captured_standard_error([&] { EXPECT_EQ(cm_hash_alloc(nullptr, nullptr, UINT32_MAX, &none), 0); }),
              "Tilvar Server Error: cm_mem_alloc() Failure allocating memory block.\n");
    LeakCheck leaks;
    for (int k = 1;; k++) {
        Faults faults(Faults::kAllocations, k);
        int failures = 0;
        captured_standard_error([&] {
            cm_hash *table = nullptr;
            if (!cm_hash_alloc(nullptr, nullptr, 3, &table)) {
                failures++;
                return;
            }
            for (const char *key : {"a", "bb", "ccc", "dddd"}) {
                const int32_t before = table->entries;
                if (cm_hash_entry(table, CM_OP_SET, key, CM_LEN_TEXT, 1)) continue;
                failures++;
                EXPECT_EQ(table->entries, before);
                EXPECT_EQ(cm_hash_entry(table, CM_OP_FIND, key, CM_LEN_TEXT, 0), 0);
            }
            cm_hash_walk(table, 0, [](cm_hash *, cm_value, cm_hash_entry_rec *) -> int32_t { return CM_WALK_REMOVE; });
            if (!cm_hash_entry(table, CM_OP_SET, "a longer key", CM_LEN_TEXT, 1)) failures++;
            EXPECT_EQ(cm_hash_free(table, nullptr), 1);
        });
        EXPECT_EQ(leaks.outstanding(), 0u) << k;
        EXPECT_EQ(failures, faults.injected()) << k;
        if (faults.injected() == 0) break;
    }
}

}  // namespace
