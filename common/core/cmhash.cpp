// Hash tables: chains of entries with copied keys.
//
// Every entry remembers its full hash, so that a chain is passed without touching the keys of others, and the length of
// its buffer.  Removed entries of a pool's table wait on `free_list` with their buffers.
#include <stddef.h>
#include <string.h>

#include <bit>

#include "core/cmerror.h"
#include "core/cmmemory.h"

using cm::report;

namespace cm::hash {

using Entry = cm_hash_entry_rec;

static_assert(sizeof(void *) != 4 || (offsetof(cm_hash, owner) == 15 * 4 && offsetof(cm_hash, cursor_entry) == 8 * 4 &&
                                      offsetof(Entry, previous) == 4 * 4 && offsetof(Entry, capacity) == 5 * 4));

// A walk under way, on the walker's stack.  Whatever its visitor removes is taken out of here too.
struct Walk {
    Entry *current;
    Entry *next;
    Walk *outer;
};

// ---- hashing -------------------------------------------------------------------------------------------------------

static uint32_t hash_word(const unsigned char *key) {
    uint32_t h;
    memcpy(&h, key, sizeof h);
    h += h << 12;
    h ^= h >> 22;
    h += h << 4;
    h ^= h >> 9;
    h += h << 10;
    h ^= h >> 2;
    h += h << 7;
    h ^= h >> 12;
    return h;
}

// What eight bytes add to the hash of those before them: neighbours are joined in lanes of 16, then 32, then 64 bits.
static uint32_t sum_of_eight(const unsigned char *bytes) {
    static_assert(std::endian::native == std::endian::little);
    constexpr uint64_t kBytes = 0x00FF00FF00FF00FF, kPairs = 0x0000FFFF0000FFFF;
    uint64_t x;
    memcpy(&x, bytes, sizeof x);
    x = (x & kBytes) * 31 + (x >> 8 & kBytes);
    x = (x & kPairs) * (31 * 31) + (x >> 16 & kPairs);
    return static_cast<uint32_t>(x) * (31u * 31 * 31 * 31) + static_cast<uint32_t>(x >> 32);
}

// h = h * 31 + byte for every byte, several at a time.
static uint32_t hash_bytes(const unsigned char *key, uint32_t length) {
    constexpr uint32_t kFour = 31u * 31 * 31 * 31, kEight = kFour * kFour;
    uint32_t h = 0;
    for (; length >= 8; key += 8, length -= 8) h = h * kEight + sum_of_eight(key);
    if (length >= 4) {
        h = h * kFour + key[0] * (31u * 31 * 31) + key[1] * (31u * 31) + key[2] * 31u + key[3];
        key += 4;
        length -= 4;
    }
    for (; length > 0; key++, length--) h = h * 31u + *key;
    return h;
}

struct Key {
    const unsigned char *bytes;
    int32_t length;
    uint32_t hash;

    Key(const void *text, int32_t text_length)
        : bytes(static_cast<const unsigned char *>(text)),
          length(text_length),
          hash(length == 4 ? hash_word(bytes) : hash_bytes(bytes, static_cast<uint32_t>(length))) {}
    // Every step of hash_word can be undone, so two keys of 4 bytes with one hash are the same key.
    bool is_of(const Entry &entry) const {
        return entry.hash == hash && entry.key_length == length &&
               (length == 4 || memcmp(entry.key, bytes, static_cast<size_t>(length)) == 0);
    }
};

// hash % buckets.  The reciprocal is 2^64 / buckets rounded up; its product with the hash keeps the remainder as a
// fraction in the lower 64 bits, exactly for all 32-bit operands.
static uint32_t bucket_of(const cm_hash &table, uint32_t hash) {
#ifdef __SIZEOF_INT128__
    __extension__ using Wide = unsigned __int128;
    return static_cast<uint32_t>(Wide{table.reciprocal * hash} * table.buckets >> 64);
#else
    return hash % table.buckets;
#endif
}

// What points to the entry of that key, or the null at the end of its chain.
[[gnu::always_inline]] static inline Entry **find_link(const cm_hash &table, const Key &key) {
    Entry **link = &table.heads[bucket_of(table, key.hash)];
    while (*link != nullptr && !key.is_of(**link)) link = &(*link)->next;
    return link;
}

static Entry **link_to(const cm_hash &table, uint32_t bucket, const Entry *entry) {
    Entry **link = &table.heads[bucket];
    while (*link != entry) link = &(*link)->next;
    return link;
}

// The entry whose `next` that link is; null for a chain's head.
static Entry *owner_of(const cm_hash &table, Entry **link) {
    if (link >= table.heads && link <= table.heads + table.buckets) return nullptr;
    return reinterpret_cast<Entry *>(reinterpret_cast<char *>(link) - offsetof(Entry, next));
}

// ---- entries -------------------------------------------------------------------------------------------------------

static void put_on_free_list(cm_hash &table, Entry *entry) {
    entry->next = table.free_list;
    entry->previous = nullptr;
    table.free_list = entry;
}

// A new entry and its buffer are one piece.  An entry that was recycled for a longer key has a buffer of its own, and
// what the first one took is lost to the pool.
static char *first_buffer(Entry &entry) {
    return reinterpret_cast<char *>(&entry + 1);
}

static void free_buffer(cm_hash &table, Entry &entry) {
    if (entry.key != first_buffer(entry)) cm_mem_free(table.pool, entry.key);
}

static void free_entry(cm_hash &table, Entry *entry) {
    free_buffer(table, *entry);
    cm_mem_free(table.pool, entry);
}

static int32_t capacity_for(const cm_hash &table, int32_t length) {
    return length > table.key_min ? length : table.key_min;
}

// Gives a recycled entry a new buffer, unless its own may be used: one that had a shorter key is not, even where its
// piece has room, unless `key_min` made it larger.
static bool ensure_buffer(cm_hash &table, Entry &entry, int32_t length) {
    if (length <= capacity_for(table, entry.key_length) && length <= entry.capacity) return true;
    const int32_t capacity = capacity_for(table, length);
    auto *buffer = static_cast<char *>(cm_mem_alloc(table.pool, static_cast<uint32_t>(capacity) + 1));
    if (buffer == nullptr) return false;
    free_buffer(table, entry);
    entry.key = buffer;
    entry.capacity = capacity;
    return true;
}

// An entry with room for the key, recycled or new, in no list.
static Entry *obtain_entry(cm_hash &table, int32_t length) {
    Entry *entry = table.free_list;
    if (entry != nullptr) {
        if (!ensure_buffer(table, *entry, length)) return nullptr;
        table.free_list = entry->next;
        return entry;
    }
    const int32_t capacity = capacity_for(table, length);
    entry = static_cast<Entry *>(allocate_zeroed(table.pool, sizeof(Entry) + static_cast<uint64_t>(capacity) + 1));
    if (entry == nullptr) return nullptr;
    entry->key = first_buffer(*entry);
    entry->capacity = capacity;
    return entry;
}

static int16_t insert(cm_hash &table, const Key &key, cm_value value) {
    Entry *const entry = obtain_entry(table, key.length);
    if (entry == nullptr) return 0;
    memmove(entry->key, key.bytes, static_cast<size_t>(key.length));  // it may be the key of the recycled entry itself
    entry->key[key.length] = '\0';
    entry->key_length = key.length;
    entry->hash = key.hash;
    entry->value = value;
    entry->previous = nullptr;
    const uint32_t bucket = bucket_of(table, key.hash);
    entry->next = table.heads[bucket];
    if (entry->next != nullptr) entry->next->previous = entry;
    table.heads[bucket] = entry;
    table.entries++;
    return 1;
}

// Moves cursors and walks off an entry that leaves its chain.  A cursor steps back, so that its next step finds the
// entry that followed: to the entry before, or to the end of the bucket before.  At the head of bucket 0 there is no
// bucket before and the rest of bucket 0 is skipped: kept, hosts count on what a walk with deletions visits.
static void step_off(cm_hash &table, const Entry *entry, Entry *before) {
    for (int i = 0; i < 4; i++) {
        if (table.cursor_entry[i] != entry) continue;
        table.cursor_entry[i] = before;
        if (before == nullptr && table.cursor_bucket[i] > 0) table.cursor_bucket[i]--;
    }
    for (auto *walk = static_cast<Walk *>(table.walks); walk != nullptr; walk = walk->outer) {
        if (walk->current == entry) walk->current = nullptr;
        if (walk->next == entry) walk->next = entry->next;
    }
}

// Takes the entry out of its chain that the link points to; gives the one before it.
static Entry *take_out(cm_hash &table, Entry **link) {
    Entry *const before = owner_of(table, link);
    step_off(table, *link, before);
    *link = (*link)->next;
    return before;
}

static void remove(cm_hash &table, Entry **link, cm_value *out_value) {
    Entry *const entry = *link;
    Entry *const before = take_out(table, link);
    if (entry->next != nullptr) entry->next->previous = before;
    if (out_value != nullptr) *out_value = entry->value;
    table.entries--;
    if (table.pool != nullptr)
        put_on_free_list(table, entry);
    else
        free_entry(table, entry);
}

// ---- cursors -------------------------------------------------------------------------------------------------------

static int cursor_number(const void *key) {
    int32_t number = 0;
    if (key != nullptr) memcpy(&number, key, sizeof number);
    return number >= 0 && number <= 3 ? number : 0;
}

// From `entry` of `bucket`, or from the next entry that there is, to the cursor.  The bucket behind the last is visited
// too; an index above it is the end.
static int16_t settle(cm_hash &table, int cursor, uint32_t bucket, Entry *entry, Entry **out_entry) {
    while (entry == nullptr && ++bucket <= table.buckets) entry = table.heads[bucket];
    table.cursor_bucket[cursor] = bucket;
    table.cursor_entry[cursor] = entry;
    if (out_entry != nullptr) *out_entry = entry;
    return 1;
}

[[gnu::cold, gnu::noinline]] static int16_t bad_index(const cm_hash &table) {
    report(table.owner, CM_ERROR, "cm_hash_entry() The hash index specified is invalid.");
    return 0;
}

static int16_t first(cm_hash &table, int cursor, Entry **out_entry) {
    return settle(table, cursor, 0, table.heads[0], out_entry);
}

static int16_t next(cm_hash &table, int cursor, Entry **out_entry) {
    const uint32_t bucket = table.cursor_bucket[cursor];
    if (bucket > table.buckets) return bad_index(table);
    const Entry *const entry = table.cursor_entry[cursor];
    return settle(table, cursor, bucket, entry != nullptr ? entry->next : nullptr, out_entry);
}

static int16_t remove_current(cm_hash &table, int cursor, cm_value *out_value) {
    const uint32_t bucket = table.cursor_bucket[cursor];
    if (bucket > table.buckets || table.cursor_entry[cursor] == nullptr) return bad_index(table);
    remove(table, link_to(table, bucket, table.cursor_entry[cursor]), out_value);
    return 1;
}

// ---- operations by key ---------------------------------------------------------------------------------------------
//
// Each is a function of its own with few registers to save, which a look-up would otherwise feel.

// The length of a key; 0, reported, when it is no key.
static int32_t measure(const cm_hash &table, const void *key, int32_t length) {
    if (length == CM_LEN_TEXT && key != nullptr) {
        const size_t measured = strlen(static_cast<const char *>(key));
        length = measured <= INT32_MAX ? static_cast<int32_t>(measured) : 0;
    }
    if (length > 0 && key != nullptr) return length;
    report(table.owner, CM_ERROR, "cm_hash_entry() The key length specified is invalid.");
    return 0;
}

[[gnu::noinline]] static int16_t get(const cm_hash &table, const void *text, int32_t length, cm_value *out_value) {
    if (out_value != nullptr) *out_value = 0;
    length = measure(table, text, length);
    if (length == 0) return 0;
    const Key key(text, length);
    const Entry *const entry = *find_link(table, key);
    if (entry == nullptr) return 0;
    if (out_value != nullptr) *out_value = entry->value;
    return 1;
}

[[gnu::noinline]] static int16_t set(cm_hash &table, const void *text, int32_t length, cm_value value) {
    length = measure(table, text, length);
    if (length == 0) return 0;
    const Key key(text, length);
    Entry *const entry = *find_link(table, key);
    if (entry == nullptr) return insert(table, key, value);
    entry->value = value;
    return 1;
}

[[gnu::noinline]] static int16_t remove_key(cm_hash &table, const void *text, int32_t length, cm_value *out_value) {
    length = measure(table, text, length);
    if (length == 0) return 0;
    const Key key(text, length);
    Entry **const link = find_link(table, key);
    if (*link == nullptr) return 0;
    remove(table, link, out_value);
    return 1;
}

// Calls `done` for every entry of every chain, each chain being off the table already.
template <class Function>
static void drain(cm_hash &table, Function done) {
    for (auto *walk = static_cast<Walk *>(table.walks); walk != nullptr; walk = walk->outer)
        walk->current = walk->next = nullptr;
    for (Entry *&entry : table.cursor_entry) entry = nullptr;  // the bucket indexes stay
    for (uint32_t bucket = 0; bucket <= table.buckets; bucket++) {
        Entry *entry = table.heads[bucket];
        table.heads[bucket] = nullptr;
        while (entry != nullptr) {
            Entry *const following = entry->next;
            done(entry);
            entry = following;
        }
    }
    table.entries = 0;
    table.spare = 0;
}

}  // namespace cm::hash

using namespace cm::hash;

CM_API int16_t CM_CALL cm_hash_alloc(cm_context *ctx, cm_mem_pool *pool, uint32_t buckets, cm_hash **out_table) {
    if (out_table == nullptr) return 0;
    *out_table = nullptr;
    if (buckets == 0) {
        report(ctx, CM_ERROR, "cm_hash_alloc() An invalid memory hash size was specified.");
        return 0;
    }
    auto *const table = static_cast<cm_hash *>(cm::allocate_zeroed(pool, sizeof(cm_hash)));
    if (table == nullptr) return 0;
    table->owner = ctx;
    table->buckets = buckets;
    table->pool = pool;
    table->reciprocal = UINT64_MAX / buckets + 1;
    table->heads = static_cast<Entry **>(cm::allocate_zeroed(pool, (uint64_t{buckets} + 1) * sizeof(Entry *)));
    if (table->heads == nullptr) {
        cm_mem_free(pool, table);
        return 0;
    }
    *out_table = table;
    return 1;
}

CM_API int16_t CM_CALL cm_hash_free(cm_hash *table, cm_destroy_fn destroy) {
    if (table == nullptr) return 0;
    if (table->pool != nullptr && destroy == nullptr) return 1;
    drain(*table, [&](Entry *entry) {
        if (destroy != nullptr) destroy(entry->value);
        free_entry(*table, entry);
    });
    for (Entry *entry = table->free_list; entry != nullptr;) {  // a table without a pool has what walks took out
        Entry *const following = entry->next;
        free_entry(*table, entry);
        entry = following;
    }
    cm_mem_free(table->pool, table->heads);
    table->heads = nullptr;
    table->free_list = nullptr;
    cm_mem_free(table->pool, table);
    return 1;
}

CM_API int16_t CM_CALL cm_hash_clear(cm_hash *table, cm_destroy_fn destroy) {
    if (table == nullptr) return 0;
    drain(*table, [&](Entry *entry) {
        if (destroy != nullptr) destroy(entry->value);
        if (table->pool != nullptr)
            put_on_free_list(*table, entry);
        else
            free_entry(*table, entry);
    });
    return 1;
}

CM_API int16_t CM_CALL cm_hash_entry(cm_hash *table, int32_t operation, const void *key, int32_t key_length,
                                     cm_value value) {
    if (table == nullptr) return 0;
    // Ahead of the others: a step of a walk is so short that finding its case would show.
    if (operation == CM_OP_NEXT) return next(*table, cursor_number(key), reinterpret_cast<Entry **>(value));
    switch (operation) {
        case CM_OP_FIND:
            return get(*table, key, key_length, reinterpret_cast<cm_value *>(value));
        case CM_OP_SET:
            return set(*table, key, key_length, value);
        case CM_OP_DELETE:
            return remove_key(*table, key, key_length, reinterpret_cast<cm_value *>(value));
        case CM_OP_FIRST:
            return first(*table, cursor_number(key), reinterpret_cast<Entry **>(value));
        case CM_OP_DELETE_CURRENT:
            return remove_current(*table, cursor_number(key), reinterpret_cast<cm_value *>(value));
        default:
            return 0;
    }
}

// An entry that is taken out here does not count as deleted: `entries` stays, and so does the `previous` of the entry
// that follows.
CM_API int16_t CM_CALL cm_hash_walk(cm_hash *table, cm_value user, cm_hash_visit_fn visit) {
    if (table == nullptr || visit == nullptr) return 0;
    Walk walk = {nullptr, nullptr, static_cast<Walk *>(table->walks)};
    constexpr int32_t kStop = CM_WALK_STOP_OK | CM_WALK_STOP_FAIL;
    int32_t wish = 0;
    table->walks = &walk;
    for (uint32_t bucket = 0; !(wish & kStop) && bucket < table->buckets; bucket++) {
        walk.next = table->heads[bucket];
        while (!(wish & kStop) && walk.next != nullptr) {
            walk.current = walk.next;
            walk.next = walk.current->next;
            wish = visit(table, user, walk.current);
            if (!(wish & CM_WALK_REMOVE) || walk.current == nullptr) continue;
            Entry *const entry = walk.current;
            take_out(*table, link_to(*table, bucket, entry));
            put_on_free_list(*table, entry);
        }
    }
    table->walks = walk.outer;
    return (wish & kStop) != CM_WALK_STOP_FAIL;
}
