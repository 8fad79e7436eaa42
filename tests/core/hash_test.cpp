// Hash tables: where keys go, what cursors see when entries come and go, and walks whose visitor changes the table.
#include <cstring>
#include <functional>
#include <optional>
#include <sstream>

#include "support/data.h"
#include "support/failures.h"

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

// A table in a pool or on the heap, spoken to in texts; "-" is a failure.
class Table {
public:
    explicit Table(uint32_t buckets, bool pooled = true) {
        destroyed.clear();
        if (pooled) cm_mem_init(nullptr, &pool_, 1024);
        EXPECT_EQ(cm_hash_alloc(nullptr, pool_, buckets, &table_), 1);
    }
    ~Table() {
        cm_hash_free(table_, destroy);
        cm_mem_exit(pool_);
    }
    cm_hash *operator->() const { return table_; }
    operator cm_hash *() const { return table_; }

    std::string set(const std::string &key, cm_value value = 1) {
        return cm_hash_entry(table_, CM_OP_SET, key.data(), static_cast<int32_t>(key.size()), value) != 0 ? "1" : "-";
    }
    std::string at_key(int32_t operation, const std::string &key) {
        cm_value value = 77;
        if (cm_hash_entry(table_, operation, key.data(), static_cast<int32_t>(key.size()), CM_OUT(&value)))
            return std::to_string(value);
        EXPECT_EQ(value, operation == CM_OP_FIND ? 0u : 77u);
        return "-";
    }
    std::string remove(const std::string &key) { return at_key(CM_OP_DELETE, key); }
    std::string step(int32_t operation, int32_t cursor) {
        cm_hash_entry_rec *entry = nullptr;
        if (!cm_hash_entry(table_, operation, &cursor, 0, CM_OUT(&entry))) return "-";
        return entry == nullptr ? "end" : std::string(entry->key, static_cast<size_t>(entry->key_length));
    }
    std::string remove_current(int32_t cursor) {
        cm_value value = 0;
        const int16_t result = cm_hash_entry(table_, CM_OP_DELETE_CURRENT, &cursor, 0, CM_OUT(&value));
        return result != 0 ? std::to_string(value) : "-";
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
    std::string call(const std::string &name, const std::string &argument, cm_value value) {
        const int cursor = atoi(argument.c_str());
        if (name == "set") return set(argument, value);
        if (name == "find") return at_key(CM_OP_FIND, argument);
        if (name == "delete") return remove(argument);
        if (name == "delete-current") return remove_current(cursor);
        return step(name == "first" ? CM_OP_FIRST : CM_OP_NEXT, cursor);
    }

private:
    cm_mem_pool *pool_ = nullptr;
    cm_hash *table_ = nullptr;
};

TEST(Hash, CallsAndTheirResults) {
    const cm::test::StandardErrorCapture quiet;
    for (const bool pooled : {true, false}) {
        std::optional<Table> table;
        for (const cm::test::Row &row : cm::test::rows("core/hash")) {
            const std::string &name = row[0];
            std::string result;
            if (name == "new") {
                table.emplace(static_cast<uint32_t>(row.number(1)), pooled);
                continue;
            } else if (name == "entries") {
                result = std::to_string((*table)->entries);
            } else if (name == "walk-removing") {
                result = table->walk([&](const std::string &key) { return row[1].find(key) != row[1].npos; });
            } else {
                std::istringstream arguments(row[1]);
                for (std::string argument; arguments >> argument;)
                    result += (result.empty() ? "" : " ") +
                              table->call(name, argument, row.fields.size() > 3 ? cm_value(row.number(3)) : 1);
            }
            EXPECT_EQ(result, row[2]) << row.where;
        }
    }
}

TEST(Hash, KeysGoToTheHeadOfTheStatedBucket) {
    for (const uint32_t buckets : {1u, 2u, 541u, 1021u, 13499u, 65536u}) {
        Table table(buckets);
        for (int length = 1; length <= 40; length++) {
            std::string key(static_cast<size_t>(length), '\0');
            for (int i = 0; i < length; i++)
                key[static_cast<size_t>(i)] = static_cast<char>(length * 37 + i * 91 + 200);
            table.set(key);
            const cm_hash_entry_rec *head = table->heads[hash_of(key) % buckets];
            ASSERT_NE(head, nullptr);
            EXPECT_EQ(std::string(head->key, static_cast<size_t>(head->key_length)), key);
            EXPECT_EQ(head->key[length], '\0');
        }
        EXPECT_EQ(table->entries, 40);
    }
}

TEST(Hash, WhatIsRefused) {
    Table table(7);
    cm_hash_entry_rec *entry = nullptr;
    std::string lengths;
    for (int i = 0; i < 14; i++) lengths += kBadLength;
    EXPECT_EQ(captured_standard_error([&] {
                  for (const int32_t operation : {CM_OP_FIND, CM_OP_SET, CM_OP_DELETE})
                      for (const int32_t length : {0, -1, -2, -4})
                          EXPECT_EQ(cm_hash_entry(table, operation, "a", length, 0), 0);
                  EXPECT_EQ(cm_hash_entry(table, CM_OP_SET, "", CM_LEN_TEXT, 0), 0);
                  EXPECT_EQ(cm_hash_entry(table, CM_OP_FIND, nullptr, 3, 0), 0);
                  for (const int32_t operation : {0, 7}) EXPECT_EQ(cm_hash_entry(table, operation, "a", 1, 0), 0);
                  for (const char *end : {"end", "-"}) EXPECT_EQ(table.step(CM_OP_NEXT, 0), end);
                  EXPECT_EQ(table.remove_current(0), "-");
                  EXPECT_EQ(cm_hash_entry(nullptr, CM_OP_FIND, "a", 1, 0), 0);
                  EXPECT_EQ(cm_hash_walk(table, 0, nullptr), 0);
                  EXPECT_EQ(cm_hash_entry(table, CM_OP_FIRST, nullptr, 0, CM_OUT(&entry)), 1) << "cursor 0";
              }),
              lengths + kBadIndex + kBadIndex);
}

TEST(HashWalk, StopsWhereTheVisitorSays) {
    Table table(5);
    for (const char *key : {"k", "f", "a", "d"}) table.set(key);
    for (const int32_t how :
         {CM_WALK_STOP_OK, CM_WALK_STOP_FAIL, CM_WALK_STOP_OK | CM_WALK_STOP_FAIL, CM_WALK_STOP_FAIL | CM_WALK_REMOVE})
        EXPECT_EQ(table.walk([&](auto &key) { return key == "a" ? how : 0; }, (how & CM_WALK_STOP_OK) != 0), "d a");
    EXPECT_EQ(table.at_key(CM_OP_FIND, "a"), "-");
}

TEST(HashWalk, VisitorMayChangeTheTable) {
    for (const bool pooled : {true, false}) {
        Table table(5, pooled);
        for (const char *key : {"u", "p", "k", "f", "a"}) table.set(key);
        EXPECT_EQ(table.walk([&](auto &key) {
            if (key == "a") table.remove("f");
            if (key == "k") return table.remove(key), CM_WALK_REMOVE;  // removed already: nothing more to take out
            if (key == "p") table.walk([&](auto &inner) { return inner == "u" ? CM_WALK_REMOVE : 0; });
            return 0;
        }),
                  "a k p");
        EXPECT_EQ(table.walk([&](auto &) { return cm_hash_clear(table, nullptr), CM_WALK_REMOVE; }), "a");
        EXPECT_EQ(table->entries, 0);
        EXPECT_EQ(table.set("new"), "1");
    }
}

TEST(Hash, RemovedEntriesAreUsedAgainWithTheirBuffers) {
    Table table(7);
    table.set("sixsix", 1);
    std::string old = "sixsix";
    const char *buffer = table->heads[hash_of(old) % 7]->key;
    const std::pair<const char *, bool> rows[] = {{"sixth.", true},
                                                  {"two", true},
                                                  {"five5", false},  // measured by the last key, not by the buffer
                                                  {"a key of 16 byte", false},  // the buffer is older than key_min
                                                  {"a", true},
                                                  {" key of 20 bytes ...", true}};
    for (const auto &[key, same_buffer] : rows) {
        if (old == "five5") table->key_min = 20;
        EXPECT_NE(table.remove(old), "-");
        EXPECT_EQ(table.set(key), "1");
        EXPECT_EQ(table->free_list, nullptr);
        const char *const now = table->heads[hash_of(key) % 7]->key;
        EXPECT_EQ(now == buffer, same_buffer) << key;
        buffer = now;
        old = key;
    }
}

TEST(Hash, ClearEmptiesAndFreeDestroys) {
    for (const bool pooled : {true, false}) {
        LeakCheck leaks;
        {
            Table table(3, pooled);
            for (const char *key : {"a", "b", "c", "d", "e"}) table.set(key);
            table.step(CM_OP_FIRST, 0);
            EXPECT_EQ(cm_hash_clear(table, destroy), 1);
            EXPECT_EQ(destroyed.size(), 5u);
            EXPECT_EQ(table->entries, 0);
            EXPECT_EQ(table.step(CM_OP_NEXT, 0), "end") << "a cursor never shows a cleared entry";
            EXPECT_EQ(cm_hash_clear(table, nullptr), 1);
            for (const char *key : {"a", "b", "c"}) table.set(key, static_cast<cm_value>(*key));
            table.walk([](auto &key) { return key == "b" ? CM_WALK_REMOVE : 0; });
            destroyed.clear();
        }
        EXPECT_EQ(destroyed.size(), 2u) << "not what the walk took out";
        EXPECT_EQ(leaks.outstanding(), 0u);
    }
}

TEST(Hash, EveryFailureOfMemoryLeavesTheTableWhole) {
    cm_hash *none = reinterpret_cast<cm_hash *>(1);
    EXPECT_EQ(captured_standard_error([&] {
                  EXPECT_EQ(cm_hash_alloc(nullptr, nullptr, 0, &none), 0);
                  EXPECT_EQ(none, nullptr);
                  EXPECT_EQ(cm_hash_alloc(nullptr, nullptr, UINT32_MAX, &none), 0);
              }),
              "Tilvar Server Error: cm_hash_alloc() An invalid memory hash size was specified.\n"
              "Tilvar Server Error: cm_mem_alloc() Failure allocating memory block.\n");
    int failures = 0, rounds = 0;
    const cm::test::StandardErrorCapture quiet;
    cm::test::each_failure(
        Faults::kAllocations,
        [&] {
            cm_hash *table = nullptr;
            if (!cm_hash_alloc(nullptr, nullptr, 3, &table)) {
                failures++;
                return;
            }
            for (const char *key : {"a", "bb", "ccc", "dddd", "", "a longer key"}) {
                if (*key == '\0')  // from here on, entries are used again
                    cm_hash_walk(table, 0, [](cm_hash *, cm_value, cm_hash_entry_rec *) { return CM_WALK_REMOVE; });
                const int32_t before = table->entries;
                if (*key == '\0' || cm_hash_entry(table, CM_OP_SET, key, CM_LEN_TEXT, 1)) continue;
                failures++;
                EXPECT_EQ(table->entries, before);
                EXPECT_EQ(cm_hash_entry(table, CM_OP_FIND, key, CM_LEN_TEXT, 0), 0);
            }
            EXPECT_EQ(cm_hash_free(table, nullptr), 1);
        },
        [&](bool injected, size_t leaked) {
            EXPECT_EQ(leaked, 0u);
            EXPECT_EQ(failures, rounds += injected);
        });
}

}  // namespace
