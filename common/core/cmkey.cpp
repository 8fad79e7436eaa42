// Key tables: a chain of entries with copied keys, searched from the newest on.
#include <stddef.h>
#include <string.h>

#include "core/cmerror.h"
#include "core/cmmemory.h"
#include "core/cmstring.h"

using cm::report;

namespace cm::keytab {

using Entry = cm_key_rec;

constexpr int kMessageTableBytes = 20;  // the number that the message names on every system

static_assert(sizeof(void *) != 4 || (sizeof(cm_keytab) == 5 * 4 && sizeof(Entry) == 5 * 4));

static Entry *find(const cm_keytab &table, std::string_view key) {
    for (Entry *entry = table.head; entry != nullptr; entry = entry->next)
        if (view(entry->key, entry->key_length) == key) return entry;
    return nullptr;
}

static bool copy_key(cm_keytab &table, std::string_view key, char **out_copy) {
    return cm_mem_savestr(table.pool, key.data(), static_cast<int32_t>(key.size()), out_copy, nullptr) != 0;
}

// A recycled entry keeps its buffer when its last key was at least as long.
static Entry *reuse_entry(cm_keytab &table, std::string_view key) {
    Entry *const entry = table.spare;
    if (static_cast<size_t>(entry->key_length) < key.size()) {
        char *copy = nullptr;
        if (!copy_key(table, key, &copy)) return nullptr;
        entry->key = copy;
    } else if (entry->key != nullptr) {  // an empty key never had a buffer
        memmove(entry->key, key.data(), key.size());
        entry->key[key.size()] = '\0';
    }
    table.spare = entry->next;
    return entry;
}

static Entry *new_entry(cm_keytab &table, std::string_view key) {
    auto *const entry = static_cast<Entry *>(allocate_zeroed(table.pool, sizeof(Entry)));
    if (entry == nullptr || copy_key(table, key, &entry->key)) return entry;
    cm_mem_free(table.pool, entry);
    return nullptr;
}

static int16_t set(cm_keytab &table, std::string_view key, cm_value value) {
    if (Entry *const known = find(table, key)) {
        known->value = value;
        return 1;
    }
    Entry *const entry = table.spare != nullptr ? reuse_entry(table, key) : new_entry(table, key);
    if (entry == nullptr) return 0;
    entry->key_length = static_cast<int32_t>(key.size());
    entry->value = value;
    entry->previous = nullptr;
    entry->next = table.head;
    if (table.head != nullptr) table.head->previous = entry;
    table.head = entry;
    return 1;
}

static int16_t remove(cm_keytab &table, std::string_view key, cm_value *out_value) {
    Entry *const entry = find(table, key);
    if (entry == nullptr) return 0;
    (entry->previous != nullptr ? entry->previous->next : table.head) = entry->next;
    if (entry->next != nullptr) entry->next->previous = entry->previous;
    if (out_value != nullptr) *out_value = entry->value;
    if (table.pool != nullptr) {
        entry->next = table.spare;
        table.spare = entry;
        return 1;
    }
    cm_mem_free(nullptr, entry->key);
    cm_mem_free(nullptr, entry);
    return 1;
}

static int16_t get(const cm_keytab &table, std::string_view key, cm_value *out_value) {
    const Entry *const entry = find(table, key);
    if (out_value != nullptr) *out_value = entry != nullptr ? entry->value : 0;
    return entry != nullptr;
}

static int16_t operate(cm_keytab &table, int32_t operation, std::string_view key, cm_value value) {
    switch (operation) {
        case CM_OP_FIND:
            return get(table, key, reinterpret_cast<cm_value *>(value));
        case CM_OP_SET:
            return set(table, key, value);
        case CM_OP_DELETE:
            return remove(table, key, reinterpret_cast<cm_value *>(value));
        default:
            return 0;
    }
}

}  // namespace cm::keytab

using namespace cm::keytab;

CM_API int16_t CM_CALL cm_key_alloc(cm_context *ctx, cm_mem_pool *pool, cm_mutex *lock, cm_keytab **out_keytab) {
    if (out_keytab == nullptr) return 0;
    *out_keytab = nullptr;
    auto *const table = static_cast<cm_keytab *>(cm::allocate_zeroed(pool, sizeof(cm_keytab)));
    if (table == nullptr) {
        report(ctx, CM_ERROR, "cm_key_alloc(): MALLOC() of %d bytes failed.", kMessageTableBytes);
        return 0;
    }
    table->pool = pool;
    table->lock = lock;
    table->owner = ctx;
    *out_keytab = table;
    return 1;
}

CM_API int16_t CM_CALL cm_key_free(cm_keytab *keytab, cm_destroy_fn destroy) {
    if (keytab == nullptr) return 0;
    if (keytab->pool != nullptr && destroy == nullptr) return 1;
    for (Entry *entry = keytab->head; entry != nullptr;) {
        Entry *const older = entry->next;
        if (destroy != nullptr) destroy(entry->value);
        cm_mem_free(keytab->pool, entry->key);
        cm_mem_free(keytab->pool, entry);
        entry = older;
    }
    keytab->head = nullptr;
    cm_mem_free(keytab->pool, keytab);
    return 1;
}

CM_API int16_t CM_CALL cm_key_entry(cm_keytab *keytab, int32_t operation, const char *key, int32_t key_length,
                                    cm_value value) {
    if (keytab == nullptr) return 0;
    if (operation == CM_OP_FIND && value != 0) *reinterpret_cast<cm_value *>(value) = 0;
    if (key_length < 0 && key_length != CM_LEN_TEXT) return 0;
    const std::string_view measured = cm::view(key, key_length);
    if (measured.size() > INT32_MAX) return 0;
    cm_mutex *const lock = keytab->lock;
    if (lock != nullptr && !cm_take_mutex(lock)) return 0;
    const int16_t result = operate(*keytab, operation, measured, value);
    if (lock != nullptr) cm_release_mutex(lock);
    return result;
}
