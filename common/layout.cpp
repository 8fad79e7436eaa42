// Where the fields of public records stand.  Programs that were written for 32-bit systems know the records by the
// number of each 32-bit word, so on such a system every field stands there, and our own fields follow; records of plain
// numbers are the same on every system.  The context has its own list in cmctx.cpp.
#include <stddef.h>

#include "tilvarcm.h"

namespace {

constexpr bool kWordsArePointers = sizeof(void *) == 4;

#define CM_WORD(record, field, word) static_assert(!kWordsArePointers || offsetof(record, field) == (word) * 4)

CM_WORD(cm_hash, key_min, 0);
CM_WORD(cm_hash, buckets, 1);
CM_WORD(cm_hash, entries, 2);
CM_WORD(cm_hash, spare, 3);
CM_WORD(cm_hash, cursor_bucket, 4);
CM_WORD(cm_hash, cursor_entry, 8);
CM_WORD(cm_hash, free_list, 12);
CM_WORD(cm_hash, pool, 13);
CM_WORD(cm_hash, heads, 14);
CM_WORD(cm_hash, owner, 15);

CM_WORD(cm_hash_entry_rec, key_length, 0);
CM_WORD(cm_hash_entry_rec, key, 1);
CM_WORD(cm_hash_entry_rec, value, 2);
CM_WORD(cm_hash_entry_rec, next, 3);
CM_WORD(cm_hash_entry_rec, previous, 4);

CM_WORD(cm_mem_pool, magic, 0);
CM_WORD(cm_mem_pool, current, 1);
CM_WORD(cm_mem_pool, block_size, 2);
CM_WORD(cm_mem_pool, used, 3);
CM_WORD(cm_mem_pool, total, 4);
CM_WORD(cm_mem_pool, limit, 5);
CM_WORD(cm_mem_pool, payload, 6);
CM_WORD(cm_mem_pool, owner, 7);

CM_WORD(cm_thread, serial, 0);
CM_WORD(cm_thread, jobs, 1);
CM_WORD(cm_thread, table_key, 2);
CM_WORD(cm_thread, label, 3);
CM_WORD(cm_thread, argument, 4);
CM_WORD(cm_thread, handle, 5);
CM_WORD(cm_thread, function, 6);
CM_WORD(cm_thread, ctx, 7);
CM_WORD(cm_thread, next, 8);

CM_WORD(cm_mutex, kind, 0);
CM_WORD(cm_mutex, object, 1);
CM_WORD(cm_mutex, ctx, 2);

CM_WORD(cm_tpool, busy, 0);
CM_WORD(cm_tpool, busy_peak, 1);
CM_WORD(cm_tpool, workers, 2);
CM_WORD(cm_tpool, max_workers, 3);
CM_WORD(cm_tpool, queue_head, 4);
CM_WORD(cm_tpool, queue_tail, 5);
CM_WORD(cm_tpool, job_spare, 6);
CM_WORD(cm_tpool, lock, 7);
CM_WORD(cm_tpool, net, 8);
CM_WORD(cm_tpool, pool, 9);
CM_WORD(cm_tpool, ctx, 10);
CM_WORD(cm_tpool, wake, 11);

CM_WORD(cm_job, next, 0);
CM_WORD(cm_job, argument, 1);
CM_WORD(cm_job, connection, 2);
CM_WORD(cm_job, label, 3);
CM_WORD(cm_job, function, 4);

CM_WORD(cm_token, position, 0);
CM_WORD(cm_token, length, 1);
CM_WORD(cm_token, text, 2);

CM_WORD(cm_keytab, head, 0);
CM_WORD(cm_keytab, spare, 1);
CM_WORD(cm_keytab, pool, 2);
CM_WORD(cm_keytab, lock, 3);
CM_WORD(cm_keytab, owner, 4);

CM_WORD(cm_list, count, 0);
CM_WORD(cm_list, cursor, 1);
CM_WORD(cm_list, head, 5);
CM_WORD(cm_list, pool, 6);
CM_WORD(cm_list, owner, 7);

CM_WORD(cm_alert, timestamp, 0);
CM_WORD(cm_alert, category, 1);
CM_WORD(cm_alert, subject, 2);
CM_WORD(cm_alert, message, 3);
CM_WORD(cm_alert, connections, 4);
CM_WORD(cm_alert, threads, 5);

CM_WORD(cm_prop_entry, name_length, 0);
CM_WORD(cm_prop_entry, value_length, 1);
CM_WORD(cm_prop_entry, name, 2);
CM_WORD(cm_prop_entry, value, 3);

CM_WORD(cm_poll_entry, handler, 0);
CM_WORD(cm_poll_entry, listener, 1);
CM_WORD(cm_poll_entry, argument, 2);
CM_WORD(cm_poll_entry, label, 3);

CM_WORD(cm_cron, stamp, 0);
CM_WORD(cm_cron, stop, 1);
CM_WORD(cm_cron, functions, 2);
CM_WORD(cm_cron, thread, 3);
CM_WORD(cm_cron, periodic, 4);
CM_WORD(cm_cron, startup, 5);
CM_WORD(cm_cron, shutdown, 6);

CM_WORD(cm_cron_rec, next, 0);
CM_WORD(cm_cron_rec, state, 1);
CM_WORD(cm_cron_rec, origin, 2);
CM_WORD(cm_cron_rec, threaded, 3);
CM_WORD(cm_cron_rec, argument, 4);
CM_WORD(cm_cron_rec, name, 5);
CM_WORD(cm_cron_rec, period, 6);
CM_WORD(cm_cron_rec, thread, 7);
CM_WORD(cm_cron_rec, function, 8);
CM_WORD(cm_cron_rec, minute, 9);

CM_WORD(cm_cache, hits, 0);
CM_WORD(cm_cache, files, 1);
CM_WORD(cm_cache, pages, 2);
CM_WORD(cm_cache, opens, 3);
CM_WORD(cm_cache, last_cleanup, 4);
CM_WORD(cm_cache, bytes, 5);
CM_WORD(cm_cache, cleanup_wanted, 6);
CM_WORD(cm_cache, addresses, 7);
CM_WORD(cm_cache, file_table, 8);
CM_WORD(cm_cache, page_table, 9);
CM_WORD(cm_cache, mutex, 10);
CM_WORD(cm_cache, pool, 11);
CM_WORD(cm_cache, ctx, 12);

CM_WORD(cm_cache_rec, data, 0);
CM_WORD(cm_cache_rec, in_use, 1);
CM_WORD(cm_cache_rec, last_access, 2);
CM_WORD(cm_cache_rec, validated, 3);
CM_WORD(cm_cache_rec, size, 4);
CM_WORD(cm_cache_rec, file_index, 5);
CM_WORD(cm_cache_rec, file_mode, 6);
CM_WORD(cm_cache_rec, file_size, 7);
CM_WORD(cm_cache_rec, file_mtime, 8);
CM_WORD(cm_cache_rec, free_fn, 9);

#undef CM_WORD

// Whole records: callers make them, or their size is told in messages.
static_assert(!kWordsArePointers || sizeof(cm_mutex) == 12);
static_assert(!kWordsArePointers || sizeof(cm_token) == 12);
static_assert(!kWordsArePointers || sizeof(cm_prop_entry) == 16);
static_assert(!kWordsArePointers || sizeof(cm_poll_entry) == 16);
static_assert(!kWordsArePointers || sizeof(cm_keytab) == 20);
static_assert(!kWordsArePointers || sizeof(cm_alert) == 24);
static_assert(sizeof(cm_stat_rec) == 24);
static_assert(sizeof(cm_tm) == 36);
static_assert(sizeof(cm_stamp) == 32);
static_assert(sizeof(cm_dirent) == 5 * 4 + 260);
static_assert(offsetof(cm_mem_block, magic) == 8 && sizeof(cm_mem_block) == 32);

}  // namespace
