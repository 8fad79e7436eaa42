// Hash tables: where keys go, what cursors see when entries come and go, and walks whose visitor changes the table.
#include <algorithm>
#include <set>
#include <utility>

#include "support/failures.h"
#include "support/scenario.h"

namespace {

using namespace cm::test;

std::multiset<cm_value> destroyed;
void CM_CALL destroy(cm_value value) {
    destroyed.insert(value);
}

std::string key_of(const cm_hash_entry_rec *entry) {
    EXPECT_EQ(entry->key[entry->key_length], '\0');
    return {entry->key, static_cast<size_t>(entry->key_length)};
}

// The steps of data/hash.txt: a table in a pool or on the heap.
struct Hash : World {
    Hash(const Row &head, bool in_pool) {
        destroyed.clear();
        if (in_pool) cm_mem_init(nullptr, &pool, 1024);
        EXPECT_EQ(cm_hash_alloc(nullptr, pool, static_cast<uint32_t>(head.number(1)), &table), 1);
        on("set", [this](auto &words) {
            return each(words, [&](const std::string &word) {
                const size_t equals = word.find('=');
                const cm_value value = equals == word.npos ? 1 : std::stoul(word.substr(equals + 1));
                return entry(CM_OP_SET, word.substr(0, equals), value) != 0 ? "1" : "-";
            });
        });
        on("find", [this](auto &words) { return each(words, [&](auto &key) { return found(CM_OP_FIND, key); }); });
        on("delete", [this](auto &words) { return each(words, [&](auto &key) { return found(CM_OP_DELETE, key); }); });
        on("first", [this](auto &words) { return each(words, [&](auto &at) { return step(CM_OP_FIRST, stoi(at)); }); });
        on("next", [this](auto &words) { return each(words, [&](auto &at) { return step(CM_OP_NEXT, stoi(at)); }); });
        on("delete-current", [this](auto &words) {
            return each(words, [&](auto &at) {
                cm_value value = 0;
                const int32_t cursor = stoi(at);
                const int16_t done = cm_hash_entry(table, CM_OP_DELETE_CURRENT, &cursor, 0, CM_OUT(&value));
                return done != 0 ? std::to_string(value) : "-";
            });
        });
        on("entry", [this](auto &words) {
            const int32_t length = static_cast<int32_t>(words.number(2));
            return cm_hash_entry(table, static_cast<int32_t>(words.number(0)), words.text(1), length, 0);
        });
        on("entries", [this](auto &) { return table->entries; });
        on("walk", [this](auto &words) { return walk(words); });
        on("told", [this](auto &words) {
            const size_t before = errors.text().size();
            const std::string result = run(words);
            return result + " " + errors.text().substr(before);
        });
        on("hold", [this](auto &) { buffer = first()->key; });
        on("buffer", [this](auto &words) {
            const bool same = first()->key == buffer;
            return table->free_list == nullptr && (pool == nullptr || same == (words[0] == "same"));
        });
        on("shortest", [this](auto &words) { table->key_min = static_cast<int32_t>(words.number(0)); });
        on("clear", [this](auto &) { return cm_hash_clear(table, destroy); });
        on("free", [this](auto &) { return cm_hash_free(std::exchange(table, nullptr), destroy); });
        on("destroyed", [](auto &) {
            std::string values;
            for (const cm_value value : std::exchange(destroyed, {})) values += std::to_string(value) + " ";
            return values;
        });
    }
    ~Hash() {
        cm_hash_free(table, destroy);
        cm_mem_exit(pool);
        EXPECT_EQ(leaks.outstanding(), 0u);
    }

    // The results of a call for each word.
    template <class Call>
    static std::string each(const Words &words, Call call) {
        std::string results;
        for (size_t i = 0; i < words.count(); i++) results += (i > 0 ? " " : "") + std::string(call(words[i]));
        return results;
    }
    int16_t entry(int32_t operation, const std::string &key, cm_value value) {
        return cm_hash_entry(table, operation, key.data(), static_cast<int32_t>(key.size()), value);
    }
    std::string found(int32_t operation, const std::string &key) {
        cm_value value = 77;
        if (entry(operation, key, CM_OUT(&value)) != 0) return std::to_string(value);
        EXPECT_EQ(value, operation == CM_OP_FIND ? 0u : 77u);
        return "-";
    }
    std::string step(int32_t operation, int32_t cursor) {
        cm_hash_entry_rec *entry = nullptr;
        if (!cm_hash_entry(table, operation, &cursor, 0, CM_OUT(&entry))) return "-";
        return entry == nullptr ? "end" : key_of(entry);
    }
    const cm_hash_entry_rec *first() {
        cm_hash_entry_rec *entry = nullptr;
        EXPECT_EQ(cm_hash_entry(table, CM_OP_FIRST, nullptr, 0, CM_OUT(&entry)), 1);
        return entry;
    }

    struct Walk {
        Hash &world;
        const Words &answers;  // "KEY:BITS", with "/STEP" behind when it does something before
        std::string seen;
    };
    std::string walk(const Words &answers) {
        Walk walk{*this, answers, {}};
        const auto visit = [](cm_hash *, cm_value user, cm_hash_entry_rec *entry) {
            auto &at = *reinterpret_cast<Walk *>(user);
            const std::string key = key_of(entry);
            at.seen += key + " ";
            for (size_t i = 0; i < at.answers.count(); i++)
                if (at.answers[i].starts_with(key + ":")) return at.world.answer(at.answers[i].substr(key.size() + 1));
            return 0;
        };
        if (cm_hash_walk(table, reinterpret_cast<cm_value>(&walk), visit) == 0) walk.seen += "fails";
        return walk.seen;
    }
    int32_t answer(std::string bits) {
        std::replace(bits.begin(), bits.end(), '/', ' ');
        if (const size_t step = bits.find(' '); step != bits.npos) run(Words(bits.substr(step)));
        return stoi(bits);
    }

    LeakCheck leaks;
    StandardErrorCapture errors;
    cm_mem_pool *pool = nullptr;
    cm_hash *table = nullptr;
    const char *buffer = nullptr;
};
SCENARIOS(HashesInAPool, Hash, "core/hash", true);
SCENARIOS(HashesOnTheHeap, Hash, "core/hash", false);

TEST(HashMemory, EveryFailureOfMemoryLeavesTheTableWhole) {
    cm_hash *none = reinterpret_cast<cm_hash *>(1);
    EXPECT_EQ(captured_standard_error([&] {
                  EXPECT_EQ(cm_hash_alloc(nullptr, nullptr, 0, &none), 0);
                  EXPECT_EQ(none, nullptr);
                  EXPECT_EQ(cm_hash_alloc(nullptr, nullptr, UINT32_MAX, &none), 0);
              }),
              "Tilvar Server Error: cm_hash_alloc() An invalid memory hash size was specified.\n"
              "Tilvar Server Error: cm_mem_alloc() Failure allocating memory block.\n");
    EXPECT_EQ(cm_hash_entry(nullptr, CM_OP_FIND, "a", 1, 0), 0);
    int failures = 0, rounds = 0;
    const StandardErrorCapture quiet;
    each_failure(
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
            EXPECT_EQ(cm_hash_entry(table, CM_OP_FIND, nullptr, 3, 0) + cm_hash_walk(table, 0, nullptr), 0);
            EXPECT_EQ(cm_hash_free(table, nullptr), 1);
        },
        [&](bool injected, size_t leaked) {
            EXPECT_EQ(leaked, 0u);
            EXPECT_EQ(failures, rounds += injected);
        });
}

}  // namespace
