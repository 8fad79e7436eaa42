// Lists: values pushed in front, read newest first through four cursors, freed all at once.
#include <stddef.h>

#include "core/cmmemory.h"

namespace cm::list {

using Entry = cm_list_rec;

constexpr int32_t kCursors = 4;

static_assert(sizeof(void *) != 4 || (sizeof(cm_list) == 8 * 4 && sizeof(Entry) == 3 * 4));

static int16_t add(cm_list &list, cm_value value) {
    auto *const entry = static_cast<Entry *>(allocate_zeroed(list.pool, sizeof(Entry)));
    if (entry == nullptr) return 0;
    entry->value = value;
    entry->next = list.head;
    list.head = entry;
    list.count++;
    return 1;
}

static int16_t read(cm_list_rec *entry, cm_list_rec **cursor, cm_value *out_value) {
    if (entry == nullptr) return 0;
    if (out_value != nullptr) *out_value = entry->value;
    *cursor = entry->next;
    return 1;
}

}  // namespace cm::list

using namespace cm::list;

CM_API int16_t CM_CALL cm_list_alloc(cm_context *ctx, cm_mem_pool *pool, cm_list **out_list) {
    if (out_list == nullptr) return 0;
    auto *const list = static_cast<cm_list *>(cm::allocate_zeroed(pool, sizeof(cm_list)));
    *out_list = list;
    if (list == nullptr) return 0;
    list->pool = pool;
    list->owner = ctx;
    return 1;
}

CM_API int16_t CM_CALL cm_list_free(cm_list *list, cm_destroy_fn destroy) {
    if (list == nullptr) return 0;
    if (list->pool != nullptr && destroy == nullptr) return 1;
    for (Entry *entry = list->head; entry != nullptr;) {
        Entry *const older = entry->next;
        if (destroy != nullptr) destroy(entry->value);
        cm_mem_free(list->pool, entry);
        entry = older;
    }
    list->count = 0;
    list->head = nullptr;
    cm_mem_free(list->pool, list);
    return 1;
}

CM_API int16_t CM_CALL cm_list_entry(cm_list *list, int32_t operation, int32_t cursor, cm_value value) {
    if (list == nullptr) return 0;
    if (operation == CM_LIST_ADD) return add(*list, value);
    if (cursor < 0 || cursor >= kCursors) return 0;
    cm_list_rec **const at = &list->cursor[cursor];
    if (operation == CM_OP_FIRST) return read(list->head, at, reinterpret_cast<cm_value *>(value));
    if (operation == CM_OP_NEXT) return read(*at, at, reinterpret_cast<cm_value *>(value));
    return 0;
}
