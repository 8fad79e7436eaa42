// Hash tables: chains of entries with copied keys.
//
// Every entry remembers its full hash, so that a chain is passed without touching the keys of others, and the length of
// its buffer.  Removed entries of a pool's table wait on `free_list` with their buffers.  Entries are unlinked with the
// predecessor that the search has just seen, never with `previous`, which a removing walk leaves stale.
#include <stddef.h>
#include <string.h>

#include "core/cmerror.h"
#include "core/cmmemory.h"
#include "core/cmstring.h"

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

// ---- hashing
// ---------------------------------------------------------------------------------------------------------

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

// h = h * 31 + byte for every byte, four at a time.
static uint32_t hash_bytes(const unsigned char *key, uint32_t length) {
    uint32_t h = 0;
    for (; length >= 4; key += 4, length -= 4)
        h = h * 923521u + key[0] * 29791u + key[1] * 961u + key[2] * 31u + key[3];
    for (; length > 0; key++, length--) h = h * 31u + *key;
    return h;
}

struct Key {
    const char *bytes;
    int32_t length;
    uint32_t hash;

    Key(const char *text, int32_t text_length) : bytes(text), length(text_length) {
        const auto *raw = reinterpret_cast<const unsigned char *>(text);
        hash = length == 4 ? hash_word(raw) : hash_bytes(raw, static_cast<uint32_t>(length));
    }
    bool is_of(const Entry &entry) const {
        return entry.hash == hash && entry.key_length == length &&
               memcmp(entry.key, bytes, static_cast<size_t>(length)) == 0;
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

struct Place {
    uint32_t bucket;
    Entry *before;
    Entry *entry;  // null: not there
};

static Place find(const cm_hash &table, const Key &key) {
    Place place = {bucket_of(table, key.hash), nullptr, nullptr};
    for (place.entry = table.heads[place.bucket]; place.entry != nullptr; place.entry = place.entry->next) {
        if (key.is_of(*place.entry)) break;
        place.before = place.entry;
    }
    return place;
}

// ---- entries
// ---------------------------------------------------------------------------------------------------------

static void put_on_free_list(cm_hash &table, Entry *entry) {
    entry->next = table.free_list;
    entry->previous = nullptr;
    table.free_list = entry;
}

static void free_entry(cm_hash &table, Entry *entry) {
    cm_mem_free(table.pool, entry->key);
    cm_mem_free(table.pool, entry);
}

// Gives the entry a buffer for the key, unless its own may be used: one that had a shorter key is not, even where its
// piece has room, unless `key_min` made it larger.
static bool ensure_buffer(cm_hash &table, Entry &entry, int32_t length) {
    const int32_t allowed = entry.key_length > table.key_min ? entry.key_length : table.key_min;
    if (entry.key != nullptr && length <= allowed && length <= entry.capacity) return true;
    const int32_t capacity = length > table.key_min ? length : table.key_min;
    auto *buffer = static_cast<char *>(cm_mem_alloc(table.pool, static_cast<uint32_t>(capacity) + 1));
    if (buffer == nullptr) return false;
    cm_mem_free(table.pool, entry.key);
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
    entry = static_cast<Entry *>(allocate_zeroed(table.pool, sizeof *entry));
    if (entry == nullptr) return nullptr;
    if (!ensure_buffer(table, *entry, length)) {
        cm_mem_free(table.pool, entry);
        return nullptr;
    }
    return entry;
}

static bool insert(cm_hash &table, uint32_t bucket, const Key &key, cm_value value) {
    Entry *const entry = obtain_entry(table, key.length);
    if (entry == nullptr) return false;
    memmove(entry->key, key.bytes, static_cast<size_t>(key.length));  // it may be the key of the recycled entry itself
    entry->key[key.length] = '\0';
    entry->key_length = key.length;
    entry->hash = key.hash;
    entry->value = value;
    entry->previous = nullptr;
    entry->next = table.heads[bucket];
    if (entry->next != nullptr) entry->next->previous = entry;
    table.heads[bucket] = entry;
    table.entries++;
    return true;
}

// Moves cursors and walks off an entry that leaves its chain.  A cursor steps back, so that its next step finds the
// entry that followed: to the entry before, or to the end of the bucket before.  At the head of bucket 0 there is no
// bucket before and the rest of bucket 0 is skipped: kept, hosts count on what a walk with deletions visits.
static void step_off(cm_hash &table, const Place &place) {
    for (int i = 0; i < 4; i++) {
        if (table.cursor_entry[i] != place.entry) continue;
        table.cursor_entry[i] = place.before;
        if (place.before == nullptr && table.cursor_bucket[i] > 0) table.cursor_bucket[i]--;
    }
    for (auto *walk = static_cast<Walk *>(table.walks); walk != nullptr; walk = walk->outer) {
        if (walk->current == place.entry) walk->current = nullptr;
        if (walk->next == place.entry) walk->next = place.entry->next;
    }
}

static void take_out(cm_hash &table, const Place &place) {
    step_off(table, place);
    (place.before != nullptr ? place.before->next : table.heads[place.bucket]) = place.entry->next;
}

static void remove(cm_hash &table, const Place &place, cm_value *out_value) {
    Entry *const entry = place.entry;
    take_out(table, place);
    if (entry->next != nullptr) entry->next->previous = place.before;
    if (out_value != nullptr) *out_value = entry->value;
    table.entries--;
    if (table.pool != nullptr)
        put_on_free_list(table, entry);
    else
        free_entry(table, entry);
}

static Place place_of(const cm_hash &table, uint32_t bucket, Entry *entry) {
    Place place = {bucket, nullptr, table.heads[bucket]};
    for (; place.entry != nullptr && place.entry != entry; place.entry = place.entry->next) place.before = place.entry;
    return place;
}

// ---- cursors
// ---------------------------------------------------------------------------------------------------------

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

static int16_t first(cm_hash &table, int cursor, Entry **out_entry) {
    return settle(table, cursor, 0, table.heads[0], out_entry);
}

static int16_t bad_index(const cm_hash &table) {
    report(table.owner, CM_ERROR, "cm_hash_entry() The hash index specified is invalid.");
    return 0;
}

static int16_t next(cm_hash &table, int cursor, Entry **out_entry) {
    if (table.cursor_bucket[cursor] > table.buckets) return bad_index(table);
    Entry *const entry = table.cursor_entry[cursor];
    return settle(table, cursor, table.cursor_bucket[cursor], entry != nullptr ? entry->next : nullptr, out_entry);
}

static int16_t remove_current(cm_hash &table, int cursor, cm_value *out_value) {
    const uint32_t bucket = table.cursor_bucket[cursor];
    if (bucket > table.buckets || table.cursor_entry[cursor] == nullptr) return bad_index(table);
    const Place place = place_of(table, bucket, table.cursor_entry[cursor]);
    if (place.entry == nullptr) return bad_index(table);
    remove(table, place, out_value);
    return 1;
}

// ---- operations by key
// -----------------------------------------------------------------------------------------------

static int16_t by_key(cm_hash &table, int32_t operation, const char *text, int32_t length, cm_value value) {
    auto *const out_value = operation == CM_OP_SET ? nullptr : reinterpret_cast<cm_value *>(value);
    if (operation == CM_OP_FIND && out_value != nullptr) *out_value = 0;
    const size_t measured = view(text, length).size();
    if (measured == 0 || measured > INT32_MAX) {
        report(table.owner, CM_ERROR, "cm_hash_entry() The key length specified is invalid.");
        return 0;
    }
    const Key key(text, static_cast<int32_t>(measured));
    const Place place = find(table, key);
    if (operation == CM_OP_SET) {
        if (place.entry == nullptr) return insert(table, place.bucket, key, value);
        place.entry->value = value;
        return 1;
    }
    if (place.entry == nullptr) return 0;
    if (operation == CM_OP_DELETE)
        remove(table, place, out_value);
    else if (out_value != nullptr)
        *out_value = place.entry->value;
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
    switch (operation) {
        case CM_OP_FIND:
        case CM_OP_SET:
        case CM_OP_DELETE:
            return by_key(*table, operation, static_cast<const char *>(key), key_length, value);
        case CM_OP_FIRST:
            return first(*table, cursor_number(key), reinterpret_cast<Entry **>(value));
        case CM_OP_NEXT:
            return next(*table, cursor_number(key), reinterpret_cast<Entry **>(value));
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
    int16_t result = 1;
    int32_t wish = 0;
    table->walks = &walk;
    for (uint32_t bucket = 0; bucket < table->buckets && !(wish & (CM_WALK_STOP_OK | CM_WALK_STOP_FAIL)); bucket++) {
        walk.next = table->heads[bucket];
        while (walk.next != nullptr && !(wish & (CM_WALK_STOP_OK | CM_WALK_STOP_FAIL))) {
            walk.current = walk.next;
            walk.next = walk.current->next;
            wish = visit(table, user, walk.current);
            if (!(wish & CM_WALK_REMOVE) || walk.current == nullptr) continue;
            const Place place = place_of(*table, bucket, walk.current);
            take_out(*table, place);
            put_on_free_list(*table, place.entry);
        }
    }
    if (wish & CM_WALK_STOP_FAIL && !(wish & CM_WALK_STOP_OK)) result = 0;
    table->walks = walk.outer;
    return result;
}
