// Pools, hash tables and token scanning beside what a C program would use instead.
//
// Pool rows have two peers each, the heap and the zeroing pool of the portable runtime.  Run with a row's name the
// program does nothing else before it, which is where giving memory back to the system shows.
#include <apr_hash.h>
#include <apr_pools.h>
#include <apr_strings.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "ratio.h"
#include "tilvarcm.h"

namespace {

using cm::bench::keep;
using cm::bench::Rows;

// ---- pools ---------------------------------------------------------------------------------------------------------

std::vector<uint32_t> mixed_sizes(size_t count) {
    std::mt19937 random(1);
    std::uniform_int_distribution<uint32_t> size(16, 512);
    std::vector<uint32_t> sizes(count);
    for (uint32_t &s : sizes) s = size(random);
    return sizes;
}

void touch(void *piece) {
    *static_cast<volatile char *>(piece) = 1;
}

void pool_life(uint32_t block_size, const std::vector<uint32_t> &sizes) {
    cm_mem_pool *pool = nullptr;
    cm_mem_init(nullptr, &pool, block_size);
    for (const uint32_t size : sizes) touch(cm_mem_alloc(pool, size));
    cm_mem_exit(pool);
}

void heap_life(std::vector<void *> &pieces, const std::vector<uint32_t> &sizes) {
    for (size_t i = 0; i < sizes.size(); i++) touch(pieces[i] = std::malloc(sizes[i]));
    for (void *piece : pieces) std::free(piece);
}

void apr_life(apr_pool_t *parent, const std::vector<uint32_t> &sizes) {
    apr_pool_t *pool = nullptr;
    apr_pool_create(&pool, parent);
    for (const uint32_t size : sizes) touch(apr_pcalloc(pool, size));
    apr_pool_destroy(pool);
}

void pools(Rows &rows, apr_pool_t *root) {
    const struct {
        const char *name;
        uint32_t block_size;
        std::vector<uint32_t> sizes;
        const char *heap_goal, *apr_goal;
    } table[] = {
        {"pool 16-byte pieces, 1 KB blocks", 1024, std::vector<uint32_t>(1000, 16), "<= 0.40", ""},
        {"pool mixed, 8 KB blocks", 8192, mixed_sizes(1000), "<= 0.45", "<= 1.3"},
        {"pool mixed, 1 KB blocks", 1024, mixed_sizes(1000), "<= 0.95", ""},
        {"pool 100,000 mixed, 8 KB blocks", 8192, mixed_sizes(100000), "<= 0.20", ""},
    };
    for (const auto &row : table) {
        const auto count = static_cast<double>(row.sizes.size());
        std::vector<void *> pieces(row.sizes.size());
        const auto ours = [&] { pool_life(row.block_size, row.sizes); };
        rows.pair(
            std::string(row.name) + ", heap", count, ours, [&] { heap_life(pieces, row.sizes); }, row.heap_goal);
        rows.pair(
            std::string(row.name) + ", apr", count, ours, [&] { apr_life(root, row.sizes); }, row.apr_goal);
    }
    const std::vector<uint32_t> few(20, 64);
    std::vector<void *> pieces(few.size());
    rows.pair(
        "pool of 20 pieces, 1 KB, with init and exit, heap", 1, [&] { pool_life(1024, few); },
        [&] { heap_life(pieces, few); }, "");
}

// ---- hash tables ---------------------------------------------------------------------------------------------------

constexpr uint32_t kBuckets = 13499;
constexpr int kEntries = 8000;

// Full paths, as the file cache has them.  Look-ups come with texts of their own, in another order.
struct Keys {
    std::vector<std::string> texts, asked;

    Keys(const char *prefix, uint32_t seed) {
        std::mt19937 random(seed);
        for (int i = 0; i < kEntries; i++)
            texts.push_back("/var/www/" + std::string(prefix) + "/htdocs/" + word(random) + "/" + word(random) +
                            ".html");
        asked = texts;
        std::shuffle(asked.begin(), asked.end(), random);
    }

    static std::string word(std::mt19937 &random) {
        std::string letters(4 + random() % 12, ' ');
        for (char &letter : letters) letter = static_cast<char>('a' + random() % 26);
        return letters;
    }
};

// Ours copies its keys, so the peer gets copies too.
cm_hash *make_table(cm_mem_pool *pool, const Keys *keys) {
    cm_hash *table = nullptr;
    cm_hash_alloc(nullptr, pool, kBuckets, &table);
    if (keys != nullptr)
        for (const std::string &key : keys->texts)
            cm_hash_entry(table, CM_OP_SET, key.data(), static_cast<int32_t>(key.size()),
                          reinterpret_cast<cm_value>(&key));
    return table;
}

apr_hash_t *make_apr(apr_pool_t *pool, const Keys *keys) {
    apr_hash_t *table = apr_hash_make(pool);
    if (keys != nullptr)
        for (const std::string &key : keys->texts)
            apr_hash_set(table, apr_pstrmemdup(pool, key.data(), key.size()), static_cast<apr_ssize_t>(key.size()),
                         &key);
    return table;
}

void look_up(cm_hash *table, const Keys &keys) {
    for (const std::string &key : keys.asked) {
        cm_value value = 0;
        cm_hash_entry(table, CM_OP_FIND, key.data(), static_cast<int32_t>(key.size()), CM_OUT(&value));
        keep(value);
    }
}

void look_up(apr_hash_t *table, const Keys &keys) {
    for (const std::string &key : keys.asked)
        keep(apr_hash_get(table, key.data(), static_cast<apr_ssize_t>(key.size())));
}

void churn(cm_hash *table, const Keys &keys) {
    for (const std::string &key : keys.asked) {
        const auto length = static_cast<int32_t>(key.size());
        cm_hash_entry(table, CM_OP_DELETE, key.data(), length, 0);
        cm_hash_entry(table, CM_OP_SET, key.data(), length, reinterpret_cast<cm_value>(&key));
    }
}

void churn(apr_hash_t *table, const Keys &keys) {
    for (const std::string &key : keys.asked) {
        const auto length = static_cast<apr_ssize_t>(key.size());
        apr_hash_set(table, key.data(), length, nullptr);
        apr_hash_set(table, key.data(), length, &key);
    }
}

// Gets key, length and value of every entry.
void walk(cm_hash *table) {
    cm_hash_entry_rec *entry = nullptr;
    for (cm_hash_entry(table, CM_OP_FIRST, nullptr, 0, CM_OUT(&entry)); entry != nullptr;
         cm_hash_entry(table, CM_OP_NEXT, nullptr, 0, CM_OUT(&entry)))
        keep(reinterpret_cast<cm_value>(entry->key) + static_cast<cm_value>(entry->key_length) + entry->value);
}

void walk(apr_hash_t *table) {
    for (apr_hash_index_t *at = apr_hash_first(nullptr, table); at != nullptr; at = apr_hash_next(at)) {
        const void *key = nullptr;
        void *value = nullptr;
        apr_ssize_t length = 0;
        apr_hash_this(at, &key, &length, &value);
        keep(reinterpret_cast<cm_value>(key) + static_cast<cm_value>(length) + reinterpret_cast<cm_value>(value));
    }
}

// Four-byte keys: thread handles and addresses.
std::vector<uint32_t> numbers() {
    std::vector<uint32_t> all(kEntries);
    std::mt19937 random(3);
    for (uint32_t &number : all) number = static_cast<uint32_t>(random());
    return all;
}

std::vector<uint32_t> shuffled(std::vector<uint32_t> all) {
    std::shuffle(all.begin(), all.end(), std::mt19937(4));
    return all;
}

void hash_tables(Rows &rows, apr_pool_t *root) {
    const Keys keys("site", 1), absent("gone", 2);
    cm_mem_pool *pool = nullptr;
    cm_mem_init(nullptr, &pool, 8192);
    apr_pool_t *apr = nullptr;
    apr_pool_create(&apr, root);
    cm_hash *ours = make_table(pool, &keys);
    apr_hash_t *peer = make_apr(apr, &keys);
    rows.pair(
        "hash text find", kEntries, [&] { look_up(ours, keys); }, [&] { look_up(peer, keys); }, "<= 1.05");
    rows.pair(
        "hash text miss", kEntries, [&] { look_up(ours, absent); }, [&] { look_up(peer, absent); }, "<= 0.85");
    rows.pair(
        "hash churn (delete and set)", kEntries, [&] { churn(ours, keys); }, [&] { churn(peer, keys); }, "<= 1.15");
    rows.pair(
        "hash walk by cursor", kEntries, [&] { walk(ours); }, [&] { walk(peer); }, "<= 0.6");

    rows.pair(
        "hash text set, fresh table", kEntries,
        [&] {
            cm_mem_pool *own = nullptr;
            cm_mem_init(nullptr, &own, 8192);
            keep(make_table(own, &keys));
            cm_mem_exit(own);
        },
        [&] {
            apr_pool_t *own = nullptr;
            apr_pool_create(&own, root);
            keep(make_apr(own, &keys));
            apr_pool_destroy(own);
        },
        "<= 0.75");

    const std::vector<uint32_t> handles = numbers();
    const auto fill = [&](cm_mem_pool *from) {
        cm_hash *table = nullptr;
        cm_hash_alloc(nullptr, from, kBuckets, &table);
        for (const uint32_t &handle : handles) cm_hash_entry(table, CM_OP_SET, &handle, 4, 1);
        return table;
    };
    const auto fill_apr = [&](apr_pool_t *from) {
        apr_hash_t *table = apr_hash_make(from);
        for (const uint32_t &handle : handles) apr_hash_set(table, apr_pmemdup(from, &handle, 4), 4, &handle);
        return table;
    };
    const std::vector<uint32_t> asked = shuffled(handles);
    cm_hash *our_numbers = fill(pool);
    apr_hash_t *peer_numbers = fill_apr(apr);
    rows.pair(
        "hash 4-byte find", kEntries,
        [&] {
            for (const uint32_t &handle : asked) {
                cm_value value = 0;
                cm_hash_entry(our_numbers, CM_OP_FIND, &handle, 4, CM_OUT(&value));
                keep(value);
            }
        },
        [&] {
            for (const uint32_t &handle : asked) keep(apr_hash_get(peer_numbers, &handle, 4));
        },
        "<= 0.95");
    rows.pair(
        "hash 4-byte set, fresh table", kEntries,
        [&] {
            cm_mem_pool *own = nullptr;
            cm_mem_init(nullptr, &own, 8192);
            keep(fill(own));
            cm_mem_exit(own);
        },
        [&] {
            apr_pool_t *own = nullptr;
            apr_pool_create(&own, root);
            keep(fill_apr(own));
            apr_pool_destroy(own);
        },
        "<= 0.8");
    apr_pool_destroy(apr);
    cm_mem_exit(pool);
}

// Names that collide are trivial to make for this hash; a full chain must stay bearable.
void collisions(Rows &rows) {
    std::vector<std::string> keys;
    for (int i = 0; i < 8192; i++) {
        std::string key;
        for (int bit = 0; bit < 13; bit++) key += (i >> bit & 1) ? "Aa" : "BB";  // the same hash
        keys.push_back(key);
    }
    cm_mem_pool *pool = nullptr;
    cm_mem_init(nullptr, &pool, 8192);
    cm_hash *table = nullptr;
    cm_hash_alloc(nullptr, pool, kBuckets, &table);
    for (const std::string &key : keys) cm_hash_entry(table, CM_OP_SET, key.data(), 26, 1);
    rows.pair(
        "hash, 8,192 colliding keys, against 200 us", 1,
        [&] { keep(cm_hash_entry(table, CM_OP_FIND, keys[0].data(), 26, 0)); },
        [] {
            using Clock = std::chrono::steady_clock;
            for (const auto end = Clock::now() + std::chrono::microseconds(200); Clock::now() < end;) {
            }
        },
        "<= 1.0");
    cm_mem_exit(pool);
}

// ---- tokens --------------------------------------------------------------------------------------------------------

// Header values as servers see them, without quotes and delimiters, so that both sides find the same tokens.
const char kHeader[] =
    "text/html, application/xhtml+xml, application/xml;q0.9, image/webp, */*;q0.8 gzip, deflate, br, zstd "
    "en-GB, en;q0.7, de;q0.3 keep-alive Upgrade max-age:0, no-cache, no-store, must-revalidate 192.168.17.201 "
    "Mon, 14 Jul 2025 10:11:12 GMT bytes 0-1023/146515 W/5f3e-1a2b3c4d Server/1.0.12 (X11; Linux x86_64)";

void tokens(Rows &rows) {
    std::string text = kHeader;
    std::erase_if(text, [](char c) { return std::strchr("=!%><()", c) != nullptr; });
    const auto length = static_cast<int32_t>(text.size());
    std::string copy = text;
    int count = 0;
    const auto ours = [&](bool counting) {
        cm_token scanner = {0, length, text.data()};
        const char *token = nullptr;
        int32_t token_length = 0;
        while (cm_token_get(&scanner, 1, &token, 255, &token_length)) {
            keep(token);
            count += counting;
        }
    };
    ours(true);
    rows.pair(
        "token scanning", count * 100.0,
        [&] {
            for (int i = 0; i < 100; i++) ours(false);
        },
        [&] {
            for (int i = 0; i < 100; i++) {
                std::memcpy(copy.data(), text.data(), text.size());  // it writes into its text
                char *rest = nullptr;
                for (char *token = strtok_r(copy.data(), ", \t\r\n\v\f=!%><()", &rest); token != nullptr;
                     token = strtok_r(nullptr, ", \t\r\n\v\f=!%><()", &rest))
                    keep(token);
            }
        },
        "<= 0.9");
}

}  // namespace

int main(int argc, char **argv) {
    apr_initialize();
    apr_pool_t *root = nullptr;
    apr_pool_create(&root, nullptr);
    Rows rows(argc, argv);
    pools(rows, root);
    hash_tables(rows, root);
    collisions(rows);
    tokens(rows);
    apr_terminate();
    return rows.failures();
}
