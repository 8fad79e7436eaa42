// The file cache: whole small files, stat results and compiled pages by path, resolved addresses by host name.
//
// Every table and counter is changed under the cache's mutex.  An entry is shared read-only by everybody who holds it
// and stays as long as somebody does: an entry that the cache gives up while it is in use (reset, exit, a page
// replaced) leaves its table as an orphan and is freed by its last holder.
//
// An entry is believed for "Cache Stat Interval" seconds; then the disk is asked, and time, size and file number must
// be those of the file that was read.  A file that changed within two seconds of being read is not believed even then,
// since a second change in the same second would look the same.
#include <stddef.h>
#include <string.h>

#include <initializer_list>

#include "core/cmerror.h"
#include "core/cmstring.h"
#include "core/cmthread.h"
#include "core/relaxed.h"
#include "files/cache_hook.h"
#include "files/cmfile.h"
#include "platform/platform.h"

namespace cm::cache {

namespace {

using platform::FileStatus;
using platform::os;

constexpr size_t kPathLimit = 256;   // paths of this length and more are never cached
constexpr int32_t kKeyMinimum = 64;  // bytes of a key buffer, so that recycled entries take most paths
constexpr uint32_t kAddressBuckets = 1021, kFileBuckets = 13499;
constexpr uint32_t kPoolBlock = 256;
constexpr int32_t kMaximumFiles = 8192, kMaximumAddresses = 1024;
constexpr int64_t kRacySeconds = 2;
constexpr int32_t kReadForm = CM_O_BINARY | CM_O_RDONLY | CM_O_SEQ;

uint32_t now_seconds() {
    platform::WallTime now = {};
    os.wall_clock(&now);
    return static_cast<uint32_t>(now.seconds);
}

// The table key of a path: folded where the file system folds, and one letter for the form of the open.
class Key {
public:
    Key(std::string_view path, char form) {
        if (path.empty() || path.size() >= kPathLimit) return;
        path_ = path;
        if (platform::kFoldsPathCase) {
            for (size_t i = 0; i < path.size(); i++) text_[i] = path[i] == '/' ? '\\' : fold(path[i]);
        } else {
            memcpy(text_, path.data(), path.size());
        }
        text_[path.size()] = form;
        length_ = static_cast<int32_t>(path.size()) + 1;
    }
    explicit operator bool() const { return length_ > 0; }
    std::string_view path() const { return path_; }
    const char *text() const { return text_; }
    int32_t length() const { return length_; }

private:
    std::string_view path_;
    char text_[kPathLimit + 1];
    int32_t length_ = 0;
};

char form_of(int32_t flags) {
    return flags == kReadForm ? 'r' : 'a';
}

bool examine(const char *path, FileStatus *out) {
    return os.path_status(path, true, out) == 0;
}

void remember(cm_cache_rec *entry, const FileStatus &status, uint32_t now) {
    cm_stat_rec record;
    files::fill_stat(status, &record);
    entry->file_index = static_cast<uint32_t>(status.index);
    entry->file_mode = record.mode;
    entry->file_size = record.size;
    entry->file_mtime = record.mtime;
    entry->file_ctime = record.ctime;
    entry->file_atime = record.atime;
    entry->validated = now;
    entry->racy = int64_t{record.mtime} + kRacySeconds > int64_t{now};
}

bool is_unchanged(const cm_cache_rec &entry, const FileStatus &status) {
    cm_stat_rec record;
    files::fill_stat(status, &record);
    return !entry.racy && entry.file_mtime == record.mtime && entry.file_size == record.size &&
           entry.file_index == static_cast<uint32_t>(status.index);
}

// "Older than" is strict: with an interval of 0 an entry still holds for the second that it was checked in.  A time
// that lies ahead proves that the clock was set back; one second ahead is another thread that read the clock a little
// later.
bool is_older(uint32_t since, int32_t seconds, uint32_t now) {
    const int64_t age = int64_t{now} - int64_t{since};
    return age > int64_t{seconds} || age < -1;
}

// Folded keys meet for paths that may, for all the cache knows, be two files.  The path as it was given stands behind
// the entry then.
bool is_same_path(const cm_cache_rec *entry, const Key &key) {
    return !platform::kFoldsPathCase || key.path() == reinterpret_cast<const char *>(entry + 1);
}

cm_cache_rec *find(cm_hash *table, const Key &key) {
    cm_value value = 0;
    cm_hash_entry(table, CM_OP_FIND, key.text(), key.length(), CM_OUT(&value));
    return reinterpret_cast<cm_cache_rec *>(value);
}

void free_entry(cm_cache_rec *entry) {
    if (entry->free_fn != nullptr)
        entry->free_fn(entry->data);
    else
        os.release(entry->data);
    os.release(entry);
}

// The entry has left its table.
void give_up(cm_cache_rec *entry) {
    if (entry->in_use > 0)
        entry->orphan = 1;
    else
        free_entry(entry);
}

void CM_CALL give_up_value(cm_value value) {
    give_up(reinterpret_cast<cm_cache_rec *>(value));
}

void CM_CALL free_address(cm_value value) {
    os.release(reinterpret_cast<void *>(value));
}

void drop_hold(cm_cache_rec *entry) {
    if (entry->in_use > 0) entry->in_use--;
    if (entry->in_use == 0 && entry->orphan) free_entry(entry);
}

// Takes an entry out of the file or page table.
void remove(cm_cache *cache, cm_hash *table, const Key &key, cm_cache_rec *entry) {
    cm_hash_entry(table, CM_OP_DELETE, key.text(), key.length(), 0);
    (table == cache->file_table ? cache->files : cache->pages)--;
    cache->bytes -= entry->size;
    give_up(entry);
}

cm_cache_rec *make_entry(const Key &key, void *data, int32_t size, const FileStatus &status, uint32_t now) {
    const size_t path_size = platform::kFoldsPathCase ? key.path().size() + 1 : 0;
    auto *entry = static_cast<cm_cache_rec *>(os.allocate_zeroed(sizeof(cm_cache_rec) + path_size));
    if (entry == nullptr) return nullptr;
    if (path_size > 0) memcpy(entry + 1, key.path().data(), path_size - 1);
    entry->data = data;
    entry->size = size;
    entry->last_access = now;
    remember(entry, status, now);
    return entry;
}

bool enter(cm_cache *cache, cm_hash *table, const Key &key, cm_cache_rec *entry) {
    if (!cm_hash_entry(table, CM_OP_SET, key.text(), key.length(), reinterpret_cast<cm_value>(entry))) return false;
    (table == cache->file_table ? cache->files : cache->pages)++;
    cache->bytes += entry->size;
    return true;
}

bool fits(const cm_cache *cache, int64_t size) {
    return int64_t{cache->bytes} + size <= int64_t{cache->ctx->file_cache_size};
}

void attach(cm_file *handle, cm_cache_rec *entry) {
    entry->in_use++;
    handle->cache_entry = entry;
    handle->buffer = static_cast<const char *>(entry->data);
    handle->read_offset = 0;
    handle->available = entry->size;
    handle->total = entry->size;
    handle->kind = 2;
}

// Whether that is still the file that was examined, and not one that took its place or was written to meanwhile.
bool is_examined(int32_t descriptor, const FileStatus &status) {
    FileStatus opened;
    return os.file_status(descriptor, &opened) == 0 && opened.index == status.index && opened.size == status.size &&
           opened.mtime == status.mtime;
}

// Reads the whole file in one read; null when it is not what was examined or that much did not arrive.
void *read_whole(cm_context *ctx, const char *path, int32_t flags, const FileStatus &status) {
    const auto size = static_cast<size_t>(status.size);
    auto *data = static_cast<char *>(os.allocate(size + 1));
    if (data == nullptr) {
        report(ctx, CM_ERROR, "cm_cache_open() Memory allocation of file buffer failed.");
        return nullptr;
    }
    int32_t descriptor;
    size_t got = 0;
    if (os.file_open(path, flags, &descriptor) != 0) {
        report(ctx, CM_ERROR, "cm_cache_open() File open of '%s' failed.", path);
        os.release(data);
        return nullptr;
    }
    const bool whole =
        is_examined(descriptor, status) && os.file_read(descriptor, data, size, &got) == 0 && got == size;
    os.file_close(descriptor);
    if (!whole) {
        os.release(data);
        return nullptr;
    }
    data[size] = '\0';
    return data;
}

// A file that is not in the table.  False: the open must fail.
bool load(cm_cache *cache, cm_file *handle, const Key &key, int32_t flags, const FileStatus &status, uint32_t now,
          int16_t *hit) {
    cm_context *ctx = cache->ctx;
    if (status.type != platform::FileType::kRegular || status.size == 0) return true;
    if (status.size > static_cast<uint64_t>(ctx->max_cached_file)) return true;
    if (!fits(cache, static_cast<int64_t>(status.size))) {
        cache->cleanup_wanted = 1;
        return true;
    }
    cm_cache_rec *entry = make_entry(key, nullptr, static_cast<int32_t>(status.size), status, now);
    if (entry == nullptr) {
        report(ctx, CM_ERROR, "cm_cache_open() Memory allocation of cache handle failed.");
        return false;
    }
    entry->data = read_whole(ctx, handle->name, flags, status);
    if (entry->data == nullptr || !enter(cache, cache->file_table, key, entry)) {
        free_entry(entry);
        return true;
    }
    attach(handle, entry);
    *hit = 1;
    return true;
}

void count_open(cm_cache *cache) {
    if (cache->opens == INT32_MAX - 1)
        cache->opens = cache->hits = 0;
    else
        cache->opens++;
}

bool open_cached(cm_cache *cache, cm_file *handle, const Key &key, int32_t flags, int16_t *hit) {
    const uint32_t now = now_seconds();
    const MutexGuard guard(cache->mutex);
    count_open(cache);
    FileStatus status;
    cm_cache_rec *entry = find(cache->file_table, key);
    if (entry != nullptr && !is_same_path(entry, key)) return true;
    if (entry != nullptr && (entry->size == 0 || is_older(entry->validated, cache->ctx->cache_stat_interval, now))) {
        if (!examine(handle->name, &status)) {
            if (entry->in_use == 0) remove(cache, cache->file_table, key, entry);
            return false;
        }
        if (entry->size < 1 || !is_unchanged(*entry, status)) {
            if (entry->in_use > 0) return true;
            remove(cache, cache->file_table, key, entry);
            return load(cache, handle, key, flags, status, now, hit);
        }
        entry->validated = now;
    }
    if (entry == nullptr) return examine(handle->name, &status) && load(cache, handle, key, flags, status, now, hit);
    cache->hits++;
    entry->last_access = now;
    attach(handle, entry);
    *hit = 1;
    return true;
}

void fill(cm_stat_rec *record, const cm_cache_rec &entry) {
    *record = {entry.file_index & 0xFFFF, entry.file_mode,  entry.file_size,
               entry.file_mtime,          entry.file_ctime, entry.file_atime};
}

// Adds what an examination found as an entry without data.
void add_stat_entry(cm_cache *cache, const Key &key, const FileStatus &status, uint32_t now) {
    if (!fits(cache, 0) || cache->files > kMaximumFiles) {
        cache->cleanup_wanted = 1;
        return;
    }
    cm_cache_rec *entry = make_entry(key, nullptr, 0, status, now);
    if (entry != nullptr && !enter(cache, cache->file_table, key, entry)) free_entry(entry);
}

bool stat_cached(cm_cache *cache, const char *path, const Key &key, cm_stat_rec *record) {
    const uint32_t now = now_seconds();
    const MutexGuard guard(cache->mutex);
    cm_cache_rec *entry = find(cache->file_table, key);
    const bool stranger = entry != nullptr && !is_same_path(entry, key);
    if (entry != nullptr && !stranger && !is_older(entry->validated, cache->ctx->cache_stat_interval, now)) {
        entry->last_access = now;
        fill(record, *entry);
        return true;
    }
    FileStatus status;
    const bool exists = examine(path, &status);
    if (entry != nullptr && exists && !stranger && is_unchanged(*entry, status)) {
        entry->last_access = entry->validated = now;
        fill(record, *entry);
        return true;
    }
    const bool kept = entry != nullptr && (stranger || entry->in_use > 0);
    if (entry != nullptr && !kept) remove(cache, cache->file_table, key, entry);
    if (!exists) return false;
    if (!kept) add_stat_entry(cache, key, status, now);
    cm_cache_rec fresh = {};
    remember(&fresh, status, now);
    fill(record, fresh);
    return true;
}

// ---- making and unmaking --------------------------------------------------------------------------------------------

// Empties the tables; what is still held is left to its holders.
void empty(cm_cache *cache) {
    if (cache->file_table != nullptr) cm_hash_clear(cache->file_table, give_up_value);
    if (cache->page_table != nullptr) cm_hash_clear(cache->page_table, give_up_value);
    if (cache->addresses != nullptr) cm_hash_clear(cache->addresses, free_address);
    cache->hits = cache->files = cache->pages = cache->opens = cache->bytes = 0;
    cache->cleanup_wanted = 0;
}

bool make_table(cm_cache *cache, uint32_t buckets, cm_hash **out_table) {
    if (!cm_hash_alloc(cache->ctx, cache->pool, buckets, out_table)) return false;
    (*out_table)->key_min = kKeyMinimum;
    return true;
}

bool make_tables(cm_cache *cache) {
    const cm_context *ctx = cache->ctx;
    if (ctx->cache_dns_interval > 0 && !make_table(cache, kAddressBuckets, &cache->addresses)) return false;
    if (ctx->file_cache_size < 1) return true;
    return make_table(cache, kFileBuckets, &cache->file_table) && make_table(cache, kFileBuckets, &cache->page_table);
}

// Whether a visited entry has been idle for a whole flush interval; then it leaves the table.
int32_t CM_CALL visit_idle(cm_hash *table, cm_value user, cm_hash_entry_rec *record) {
    auto *cache = reinterpret_cast<cm_cache *>(user);
    auto *entry = reinterpret_cast<cm_cache_rec *>(record->value);
    const int64_t limit = int64_t{cache->last_cleanup} - cache->ctx->cache_flush_interval;
    if (entry->in_use > 0 || int64_t{entry->last_access} >= limit) return 0;
    (table == cache->file_table ? cache->files : cache->pages)--;
    cache->bytes -= entry->size;
    free_entry(entry);
    return CM_WALK_REMOVE;
}

int16_t CM_CALL clean_up(cm_context *ctx, const char *name, cm_value argument) {
    cm_cache *cache = __atomic_load_n(&ctx->file_cache, __ATOMIC_ACQUIRE);
    if (cache == nullptr || ctx->file_cache_size < 1) return 1;
    const uint32_t now = now_seconds();
    const MutexGuard guard(cache->mutex);
    if (!cache->cleanup_wanted || int64_t{now} <= int64_t{cache->last_cleanup} + ctx->cache_flush_interval) return 1;
    cache->cleanup_wanted = 0;
    cache->last_cleanup = now;
    report(ctx, CM_TRACE, "Cache cleanup in progress...");
    if (!cm_hash_walk(cache->file_table, reinterpret_cast<cm_value>(cache), visit_idle)) {
        report(ctx, CM_ERROR, "File cache cleanup failed.");
        return 0;
    }
    if (!cm_hash_walk(cache->page_table, reinterpret_cast<cm_value>(cache), visit_idle)) {
        report(ctx, CM_ERROR, "ASP cache cleanup failed.");
        return 0;
    }
    report(ctx, CM_TRACE, "Cache cleanup completed [%ld bytes remain in cache]", static_cast<long>(cache->bytes));
    return 1;
}

void destroy(cm_cache *cache) {
    empty(cache);
    if (cache->mutex != nullptr) cm_delete_mutex(cache->mutex);
    cm_mem_exit(cache->pool);
}

constexpr files::CacheHook kHook = {cm_cache_open, cm_cache_close, cm_cache_age, cm_cache_stat};

cm_cache *cache_of(const cm_context *ctx) {
    return ctx == nullptr ? nullptr : __atomic_load_n(&ctx->file_cache, __ATOMIC_ACQUIRE);
}

// What guards the holds on entries; those that outlive their cache are orphans under the mutex of the file handles.
cm_mutex *mutex_of_holds(const cm_context *ctx) {
    const cm_cache *cache = cache_of(ctx);
    return cache != nullptr ? cache->mutex : ctx != nullptr ? ctx->file_mutex : nullptr;
}

cm_cache *file_cache_of(const cm_context *ctx) {
    cm_cache *cache = cache_of(ctx);
    return cache != nullptr && cache->file_table != nullptr ? cache : nullptr;
}

}  // namespace

}  // namespace cm::cache

using namespace cm;
using namespace cm::cache;

CM_API int16_t CM_CALL cm_cache_init(cm_context *ctx) {
    if (ctx == nullptr) return 0;
    if (ctx->file_cache != nullptr || (ctx->file_cache_size < 1 && ctx->cache_dns_interval < 1)) return 1;
    cm_mem_pool *pool = nullptr;
    if (!cm_mem_init(ctx, &pool, kPoolBlock)) return 0;
    auto *cache = static_cast<cm_cache *>(cm_mem_alloc(pool, sizeof(cm_cache)));
    if (cache == nullptr) {
        cm_mem_exit(pool);
        return 0;
    }
    memset(cache, 0, sizeof *cache);
    cache->pool = pool;
    cache->ctx = ctx;
    cache->last_cleanup = now_seconds();
    if (!make_tables(cache) || !cm_create_mutex(ctx, &cache->mutex) ||
        !cm_cron_task(ctx, "Cache File Timer", clean_up, 0, 101, 0, "1-60/4 * * * *")) {
        destroy(cache);
        return 0;
    }
    files::cache_hook.store(&kHook, std::memory_order_release);
    __atomic_store_n(&ctx->file_cache, cache, __ATOMIC_RELEASE);
    return 1;
}

CM_API int16_t CM_CALL cm_cache_exit(cm_context *ctx) {
    cm_cache *cache = cache_of(ctx);
    if (cache == nullptr) return 1;
    store_relaxed(ctx->file_cache, static_cast<cm_cache *>(nullptr));
    destroy(cache);
    return 1;
}

CM_API int16_t CM_CALL cm_cache_reset(cm_context *ctx) {
    cm_cache *cache = cache_of(ctx);
    if (cache == nullptr) return 1;
    const MutexGuard guard(cache->mutex);
    empty(cache);
    cache->last_cleanup = now_seconds();
    return 1;
}

CM_API int16_t CM_CALL cm_cache_open(cm_context *ctx, cm_file *handle, int32_t flags, int16_t *hit) {
    int16_t ignored;
    if (hit == nullptr) hit = &ignored;
    *hit = 0;
    if (handle == nullptr) return 0;
    cm_cache *cache = file_cache_of(ctx);
    if (cache == nullptr || handle->name_length >= static_cast<int32_t>(kPathLimit)) return 1;
    const Key key(handle->name, form_of(flags));
    return !key || open_cached(cache, handle, key, flags, hit);
}

CM_API int16_t CM_CALL cm_cache_close(cm_context *ctx, cm_file *handle) {
    if (handle == nullptr || handle->cache_entry == nullptr) return 0;
    cm_cache_rec *entry = handle->cache_entry;
    handle->cache_entry = nullptr;
    const MutexGuard guard(mutex_of_holds(ctx));
    drop_hold(entry);
    return 1;
}

CM_API int16_t CM_CALL cm_cache_age(cm_context *ctx, cm_file *handle) {
    cm_cache *cache = file_cache_of(ctx);
    if (cache == nullptr || handle == nullptr || handle->name_length >= static_cast<int32_t>(kPathLimit)) return 1;
    const MutexGuard guard(cache->mutex);
    for (const char form : {'r', 'a'}) {
        const Key key(handle->name, form);
        if (!key) return 1;
        cm_cache_rec *entry = find(cache->file_table, key);
        if (entry != nullptr && entry->in_use == 0) remove(cache, cache->file_table, key, entry);
    }
    return 1;
}

CM_API int16_t CM_CALL cm_cache_stat(cm_context *ctx, const char *path, cm_stat_rec *record) {
    cm_cache *cache = file_cache_of(ctx);
    if (path == nullptr || record == nullptr) return 0;
    const Key key(path, 'a');
    if (cache != nullptr && key) return stat_cached(cache, path, key, record);
    FileStatus status;
    if (!examine(path, &status)) return 0;
    cm_cache_rec fresh = {};
    remember(&fresh, status, 0);
    fill(record, fresh);
    return 1;
}

CM_API int16_t CM_CALL cm_cache_getasp(cm_context *ctx, const char *path, void **out_data, cm_cache_rec **out_entry) {
    if (out_data != nullptr) *out_data = nullptr;
    if (out_entry != nullptr) *out_entry = nullptr;
    cm_cache *cache = file_cache_of(ctx);
    if (cache == nullptr || path == nullptr || out_entry == nullptr) return 0;
    const Key key(path, 'a');
    if (!key) return 0;
    const uint32_t now = now_seconds();
    const MutexGuard guard(cache->mutex);
    cm_cache_rec *entry = find(cache->page_table, key);
    if (entry == nullptr || !is_same_path(entry, key)) return 0;
    if (is_older(entry->validated, ctx->cache_stat_interval, now)) {
        FileStatus status;
        if (!examine(path, &status) || !is_unchanged(*entry, status)) {
            remove(cache, cache->page_table, key, entry);
            return 0;
        }
        entry->validated = now;
    }
    entry->in_use++;
    entry->last_access = now;
    if (out_data != nullptr) *out_data = entry->data;
    *out_entry = entry;
    return 1;
}

CM_API int16_t CM_CALL cm_cache_setasp(cm_context *ctx, const char *path, void *data, int32_t size,
                                       cm_cache_free_fn free_fn, cm_cache_rec **out_entry) {
    if (out_entry != nullptr) *out_entry = nullptr;
    cm_cache *cache = file_cache_of(ctx);
    if (cache == nullptr || path == nullptr || data == nullptr || free_fn == nullptr || size < 0) return 0;
    const Key key(path, 'a');
    FileStatus status;
    if (!key || !examine(path, &status) || status.size > static_cast<uint64_t>(ctx->max_cached_file)) return 0;
    const uint32_t now = now_seconds();
    const MutexGuard guard(cache->mutex);
    cm_cache_rec *old = find(cache->page_table, key);
    if (!fits(cache, int64_t{size} - (old != nullptr ? old->size : 0))) {
        cache->cleanup_wanted = 1;
        return 0;
    }
    cm_cache_rec *entry = make_entry(key, data, size, status, now);
    if (entry == nullptr) {
        report(ctx, CM_ERROR, "cm_cache_setasp() Memory allocation of cache handle failed.");
        return 0;
    }
    if (old != nullptr) remove(cache, cache->page_table, key, old);
    if (!enter(cache, cache->page_table, key, entry)) {
        os.release(entry);  // the data stays the caller's
        return 0;
    }
    entry->free_fn = free_fn;
    if (out_entry != nullptr) {
        entry->in_use = 1;
        *out_entry = entry;
    }
    return 1;
}

CM_API int16_t CM_CALL cm_cache_freeasp(cm_context *ctx, cm_cache_rec *entry) {
    if (entry == nullptr) return 0;
    const MutexGuard guard(mutex_of_holds(ctx));
    drop_hold(entry);
    return 1;
}

CM_API int16_t CM_CALL cm_cache_getaddr(cm_context *ctx, const char *host, uint32_t *out1, uint32_t *out2,
                                        uint32_t *out3) {
    cm_cache *cache = cache_of(ctx);
    if (cache == nullptr || cache->addresses == nullptr || host == nullptr) return 0;
    const size_t length = strlen(host);
    if (length == 0 || length >= kPathLimit) return 0;
    const uint32_t now = now_seconds();
    const MutexGuard guard(cache->mutex);
    cm_value value = 0;
    if (!cm_hash_entry(cache->addresses, CM_OP_FIND, host, static_cast<int32_t>(length), CM_OUT(&value))) return 0;
    auto *address = reinterpret_cast<cm_cache_addr *>(value);
    if (is_older(address->created, ctx->cache_dns_interval, now)) {
        cm_hash_entry(cache->addresses, CM_OP_DELETE, host, static_cast<int32_t>(length), 0);
        os.release(address);
        return 0;
    }
    if (out1 != nullptr) *out1 = address->v[0];
    if (out2 != nullptr) *out2 = address->v[1];
    if (out3 != nullptr) *out3 = address->v[2];
    return 1;
}

CM_API int16_t CM_CALL cm_cache_setaddr(cm_context *ctx, const char *host, uint32_t v1, uint32_t v2, uint32_t v3) {
    cm_cache *cache = cache_of(ctx);
    if (cache == nullptr || cache->addresses == nullptr || host == nullptr) return 0;
    const size_t length = strlen(host);
    if (length == 0 || length >= kPathLimit) return 0;
    const uint32_t now = now_seconds();
    const MutexGuard guard(cache->mutex);
    cm_value value = 0;
    cm_hash_entry(cache->addresses, CM_OP_FIND, host, static_cast<int32_t>(length), CM_OUT(&value));
    auto *address = reinterpret_cast<cm_cache_addr *>(value);
    if (address == nullptr) {
        if (cache->addresses->entries >= kMaximumAddresses) {
            cache->cleanup_wanted = 1;
            return 0;
        }
        address = static_cast<cm_cache_addr *>(os.allocate(sizeof(cm_cache_addr)));
        if (address == nullptr) return 0;
        if (!cm_hash_entry(cache->addresses, CM_OP_SET, host, static_cast<int32_t>(length),
                           reinterpret_cast<cm_value>(address))) {
            os.release(address);
            return 0;
        }
    }
    *address = {now, {v1, v2, v3}};
    return 1;
}
