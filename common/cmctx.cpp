// Start-up and shut-down of the library, and the performance counters.
//
// Start-up is a table of stages that run in order.  A stage that fails ends the start, and what the stages before it
// created is undone: in reverse order up to the thread mutex, and after that, when threads may run already, in an order
// of its own in which whatever writes to the log goes before the log, and locks go before the memory that they guard.
// Every undo looks at the block for something to release, so that it may be called for a stage that did not run.
#include "cmctx_config.h"

#include <stddef.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>
#include <iterator>
#include <span>

#include "core/cmblocks.h"
#include "core/cmcontext.h"
#include "core/cmerror.h"
#include "core/cmmemory.h"
#include "core/cmstring.h"
#include "core/relaxed.h"
#include "files/cmcron.h"
#include "platform/platform.h"

using cm::platform::os;

namespace cm::context {
namespace {

// ---- the block ------------------------------------------------------------------------------------------------------

// The layout where pointers have 32 bits and a double stands at a multiple of 8.  Everything between the last field of
// the table and the counters is the library's own.
struct DoubleInside {
    char before;
    double number;
};
constexpr bool kFixedLayout = sizeof(void *) == 4 && offsetof(DoubleInside, number) == 8;

#define CM_STANDS_AT(field, offset) static_assert(!kFixedLayout || offsetof(cm_context, field) == (offset))
CM_STANDS_AT(thread_serial, 0);
CM_STANDS_AT(idle_threads, 4);
CM_STANDS_AT(error_depth, 8);
CM_STANDS_AT(log_size, 12);
CM_STANDS_AT(flags, 16);
CM_STANDS_AT(net_trace_level, 20);
CM_STANDS_AT(trace_level, 24);
CM_STANDS_AT(throttle_ips, 28);
CM_STANDS_AT(max_connections, 32);
CM_STANDS_AT(max_threads, 36);
CM_STANDS_AT(net_read_timeout, 40);
CM_STANDS_AT(start_time, 48);
CM_STANDS_AT(config_dir, 56);
CM_STANDS_AT(root_dir, 60);
CM_STANDS_AT(root_len, 64);
CM_STANDS_AT(log_dir, 68);
CM_STANDS_AT(tmp_dir, 72);
CM_STANDS_AT(net_log_file, 76);
CM_STANDS_AT(cookie_tag, 80);
CM_STANDS_AT(cookie_tag_len, 84);
CM_STANDS_AT(bind_address_len, 88);
CM_STANDS_AT(bind_address, 92);
CM_STANDS_AT(dial_timeout, 96);
CM_STANDS_AT(dial_busy_timeout, 100);
CM_STANDS_AT(dial_entry, 104);
CM_STANDS_AT(dial_entry_len, 108);
CM_STANDS_AT(dial_user, 112);
CM_STANDS_AT(dial_user_len, 116);
CM_STANDS_AT(dial_password, 120);
CM_STANDS_AT(dial_password_len, 124);
CM_STANDS_AT(cipher_phrase, 128);
CM_STANDS_AT(ntp_server, 132);
CM_STANDS_AT(ntp_cron, 136);
CM_STANDS_AT(ca_cert_file, 140);
CM_STANDS_AT(key_file, 144);
CM_STANDS_AT(cert_file, 148);
CM_STANDS_AT(cache_flush_interval, 152);
CM_STANDS_AT(max_cached_file, 156);
CM_STANDS_AT(file_cache_size, 160);
CM_STANDS_AT(cache_stat_interval, 164);
CM_STANDS_AT(cache_dns_interval, 168);
CM_STANDS_AT(file_cache, 172);
CM_STANDS_AT(aux_timeout, 176);
CM_STANDS_AT(sched_task_timeout, 180);
CM_STANDS_AT(alert_table, 184);
CM_STANDS_AT(alert_handler, 188);
CM_STANDS_AT(dns, 192);
CM_STANDS_AT(sccs, 196);
CM_STANDS_AT(dll_list, 200);
CM_STANDS_AT(log_file, 204);
CM_STANDS_AT(log_mutex, 208);
CM_STANDS_AT(net_log, 212);
CM_STANDS_AT(net_log_mutex, 216);
CM_STANDS_AT(net_table, 220);
CM_STANDS_AT(thread_mutex, 224);
CM_STANDS_AT(thread_table, 228);
CM_STANDS_AT(thread_spare, 232);
CM_STANDS_AT(file_mutex, 236);
CM_STANDS_AT(thread_pool_mem, 240);
CM_STANDS_AT(common_pool, 244);
CM_STANDS_AT(perf, 312);
#undef CM_STANDS_AT

constexpr long kBlockSize = 75192;  // as messages give it, whatever the size of a pointer
static_assert(!kFixedLayout || sizeof(cm_context) == kBlockSize);
static_assert(offsetof(cm_context, perf) + sizeof(cm_context::perf) == sizeof(cm_context));

constexpr int32_t kCommonBlockSize = 1024;
constexpr int32_t kThreadBlockSize = 256;
constexpr uint32_t kThreadBuckets = 541;
constexpr int32_t kPathSize = 1024;
constexpr char kHome[] = "TVHOME";
constexpr int32_t kTaskOfLibrary = 101;  // origin of tasks that no configuration file names
constexpr uint32_t kNoClock = UINT32_MAX;  // what cm_cursec gives when the clock cannot be read

// ---- one start ------------------------------------------------------------------------------------------------------

struct Start {
    cm_context *ctx;
    const char *config_dir;
    const char *log_name;
    bool setup;
    const char *home;  // TVHOME as it was set, or null
};

// A notice for whoever sits at the console, apart from the log.
void notice(std::string_view before, std::string_view text) {
    char line[2 * kPathSize];
    const int32_t length = cm_snprintf(line, sizeof line, "%.*s%.*s\n", static_cast<int>(before.size()), before.data(),
                                       static_cast<int>(text.size()), text.data());
    os.write_standard_error(line, static_cast<size_t>(length));
}

bool path_below_root(cm_context *ctx, const char *directory, const char *name, char (&out)[kPathSize]) {
    return cm_build_path(ctx, directory, name, out, sizeof out, nullptr) != 0;
}

// One level only; a folder that cannot be made shows when the log is opened in it.
bool make_directory(cm_context *ctx, const char *directory, bool may_create) {
    char path[kPathSize];
    if (!path_below_root(ctx, directory, "", path)) return false;
    if (may_create && cm_isdirectory(path) == 0) cm_mkdir(path);
    return true;
}

// ---- stages up to the thread mutex ----------------------------------------------------------------------------------

bool start_common_pool(Start &start) {
    cm_context *const ctx = start.ctx;
    if (cm_mem_init(ctx, &ctx->common_pool, kCommonBlockSize) == 0) {
        report(ctx, CM_FATAL, "cm_mem_init(%d) failed on Common initialization.", kCommonBlockSize);
        return false;
    }
    return start.config_dir == nullptr || shared_text(ctx, start.config_dir, CM_LEN_TEXT, &ctx->config_dir, nullptr);
}

void release_common_pool(cm_context *ctx) {
    if (ctx->common_pool != nullptr) cm_mem_exit(ctx->common_pool);
    ctx->common_pool = nullptr;
}

// A program that was started from its own folder finds the install root above it.  The first match counts, once.
std::string_view without_program_folder(std::string_view root) {
    for (const std::string_view folder : {"\\bin", "/bin", "\\devbin", "/linux"})
        if (root.size() > folder.size() && ends_folded(root, folder)) {
            root.remove_suffix(folder.size());
            break;
        }
    return root;
}

bool find_root(Start &start) {
    cm_context *const ctx = start.ctx;
    char working[kPathSize];
    std::string_view root;
    start.home = os.environment(kHome);
    if (start.home != nullptr) {
        root = start.home;
        notice("Tilvar Server: TVHOME environment variable set to: ", root);
    } else if (os.working_directory(working, sizeof working)) {
        root = working;
    } else {
        report(ctx, CM_FATAL, "%s environment variable not set!\n", kHome);
        return false;
    }
    root = without_program_folder(root);
    char *copy = nullptr;
    if (cm_mem_savestr(ctx->common_pool, root.data(), static_cast<int32_t>(root.size()), &copy, &ctx->root_len) == 0) {
        report(ctx, CM_FATAL, "cm_mem_savestr(%.*s) failed!", static_cast<int>(root.size()), root.data());
        return false;
    }
    // The first two bytes are a drive or the start of a network path.
    for (int32_t i = 2; i < ctx->root_len; i++)
        if (copy[i] == '\\') copy[i] = '/';
    ctx->root_dir = copy;
    return true;
}

bool start_thread_memory(Start &start) {
    if (cm_mem_init(start.ctx, &start.ctx->thread_pool_mem, kThreadBlockSize) != 0) return true;
    report(start.ctx, CM_FATAL, "cm_mem_init(%d) failed on threads initialization.", kThreadBlockSize);
    return false;
}

void release_thread_memory(cm_context *ctx) {
    if (ctx->thread_pool_mem != nullptr) cm_mem_exit(ctx->thread_pool_mem);
    ctx->thread_pool_mem = nullptr;
}

template <cm_mutex *cm_context::*Field>
bool create_mutex(Start &start) {
    return cm_create_mutex(start.ctx, &(start.ctx->*Field)) != 0;
}

template <cm_mutex *cm_context::*Field>
void delete_mutex(cm_context *ctx) {
    if (ctx->*Field != nullptr) cm_delete_mutex(ctx->*Field);
    ctx->*Field = nullptr;
}

bool start_resolver(Start &start) {
    if (cm_dns_init(start.ctx) != 0) return true;
    report(start.ctx, CM_FATAL, "Failure initializing DNS interface...");
    return false;
}

void stop_resolver(cm_context *ctx) {
    cm_dns_exit(ctx);
}

bool find_settings(Start &start) {
    cm_context *const ctx = start.ctx;
    char path[kPathSize];
    if (!path_below_root(ctx, ctx->config_dir, "config.ini", path)) return false;
    if (cm_access(path, CM_ACCESS_EXISTS) != 0) return true;
    ctx->flags |= CTX_NO_CONFIG;
    if (start.setup) notice("Tilvar Server: Warning! No configuration file found: ", path);
    return true;
}

bool load_settings(Start &start) {
    if (start.ctx->flags & CTX_NO_CONFIG) return true;
    return cm_props_load(start.ctx, "config.ini", "common", CM_LEN_TEXT, 0, cm__prop_load) != 0;
}

// Without a configuration file, temporary files and logs go where the system keeps temporary files.
bool choose_temporary_folder(cm_context *ctx) {
    if ((ctx->flags & CTX_NO_CONFIG) == 0) return true;
    const char *folder = os.environment("TEMP");
    if (folder == nullptr) folder = os.environment("TMP");
    if (folder == nullptr) folder = platform::kLastResortTemp;
    if (!shared_text(ctx, folder, CM_LEN_TEXT, &ctx->tmp_dir, nullptr)) return false;
    ctx->log_dir = ctx->tmp_dir;
    return true;
}

bool make_directories(Start &start) {
    cm_context *const ctx = start.ctx;
    return make_directory(ctx, ctx->config_dir, start.setup) && choose_temporary_folder(ctx) &&
           make_directory(ctx, ctx->tmp_dir, start.setup) && make_directory(ctx, ctx->log_dir, true);
}

bool open_log(Start &start) {
    cm_context *const ctx = start.ctx;
    int32_t flags = CM_O_RDWR | CM_O_CREAT | CM_O_TRUNC;
    // Without a configuration the folder is one that everybody may write to: a link that was put there is not followed.
    if (ctx->flags & CTX_NO_CONFIG) flags |= platform::kOpenNoFollow;
    if (cm_fopenl(ctx, start.log_name, flags, &ctx->log_file) != 0) return true;
    report(ctx, CM_FATAL, "Unable to open the log file: %s", start.log_name);
    return false;
}

template <cm_file *cm_context::*Field>
void close_file(cm_context *ctx) {
    cm_file *const file = ctx->*Field;
    ctx->*Field = nullptr;
    if (file != nullptr) cm_fclose(file);
}

bool publish(Start &start) {
    ctx_global.store(start.ctx, std::memory_order_release);
    ctx_refcount.fetch_add(1, std::memory_order_acq_rel);
    if (start.home != nullptr) report(start.ctx, CM_INFO, "%s environment variable is set to: %s\n", kHome, start.home);
    return true;
}

void withdraw(cm_context *ctx) {
    cm_context *published = ctx;
    if (ctx_global.compare_exchange_strong(published, nullptr)) ctx_refcount.fetch_sub(1, std::memory_order_acq_rel);
}

bool start_cipher(Start &start) {
    const char *const phrase = start.ctx->cipher_phrase;  // none when the file gives an empty one
    if (cm_twowayinit(start.ctx, phrase == nullptr ? "" : phrase) != 0) return true;
    report(start.ctx, CM_FATAL, "cm_twowayinit() failed!");
    return false;
}

bool read_clock(Start &start) {
    const uint32_t seconds = cm_cursec(nullptr);
    if (seconds == kNoClock) {
        report(start.ctx, CM_FATAL, "Startup failure: Check system clock.");
        return false;
    }
    start.ctx->start_time = seconds;
    return true;
}

// Whatever these set up on their first use is set up while only one thread runs.
bool use_generators_once(Start &) {
    char scratch[64];
    cm_random(1, 10);
    cm_random(1, 999);
    cm_crypt("Tilvar", nullptr, scratch, sizeof scratch);
    return true;
}

bool handle_abort(Start &) {
    os.handle_abort(cm__abort);
    return true;
}

// ---- stages that may have threads beside them -----------------------------------------------------------------------

bool start_thread_table(Start &start) {
    return cm_hash_alloc(start.ctx, start.ctx->thread_pool_mem, kThreadBuckets, &start.ctx->thread_table) != 0;
}

// False: one still runs, since it could not be stopped outside library locks.  Then whatever it may touch must stay.
bool end_threads(cm_context *ctx) {
    return ctx->thread_table == nullptr || cm_free_threads(ctx) != 0;
}

void free_thread_table(cm_context *ctx) {
    if (ctx->thread_table != nullptr) cm_hash_free(ctx->thread_table, nullptr);
    ctx->thread_table = nullptr;
}

bool tune_resolver(Start &start) {
    return cm_dns_optimize(start.ctx) != 0;
}

bool start_network_trace(Start &start) {
    return cm_net_trace(start.ctx, start.ctx->net_trace_level) != 0;
}

bool start_alerts(Start &start) {
    return cm_alerts_init(start.ctx) != 0;
}
void stop_alerts(cm_context *ctx) {
    cm_alerts_exit(ctx);
}

bool start_history_store(Start &) {
    return true;
}
void stop_history_store(cm_context *) {}

// The scheduler is not stopped: its threads end with all others, before anything is released.
bool start_scheduler(Start &start) {
    cm_context *const ctx = start.ctx;
    return cm_cron_init(ctx) != 0 && cm_cron_task(ctx, "Performance Monitor", cm__perf, reinterpret_cast<cm_value>(ctx),
                                                  kTaskOfLibrary, 0, "0 * * * *") != 0;
}

bool start_dial_up(Start &start) {
    return cm_ras_init(start.ctx) != 0;
}
void stop_dial_up(cm_context *ctx) {
    cm_ras_exit(ctx);
}

bool start_file_cache(Start &start) {
    return cm_cache_init(start.ctx) != 0;
}
void stop_file_cache(cm_context *ctx) {
    cm_cache_exit(ctx);
}

void unload_libraries(cm_context *ctx) {
    cm_dlls_free(ctx);
}

// ---- the tables -----------------------------------------------------------------------------------------------------

using Undo = void (*)(cm_context *ctx);

struct Stage {
    bool (*start)(Start &start);
    Undo undo;
};

constexpr Stage kStages[] = {
    {start_common_pool, release_common_pool},
    {find_root, nullptr},
    {start_thread_memory, release_thread_memory},
    {create_mutex<&cm_context::file_mutex>, delete_mutex<&cm_context::file_mutex>},
    {start_resolver, stop_resolver},
    {find_settings, nullptr},
    {load_settings, nullptr},
    {make_directories, nullptr},
    {open_log, close_file<&cm_context::log_file>},
    {publish, withdraw},
    {start_cipher, nullptr},
    {read_clock, nullptr},
    {use_generators_once, nullptr},
    {handle_abort, nullptr},
    {create_mutex<&cm_context::log_mutex>, delete_mutex<&cm_context::log_mutex>},
    {create_mutex<&cm_context::thread_mutex>, delete_mutex<&cm_context::thread_mutex>},
    // From here on kUndoLate undoes a failed start.
    {start_thread_table, nullptr},
    {tune_resolver, nullptr},
    {start_network_trace, nullptr},
    {start_alerts, nullptr},
    {start_history_store, nullptr},
    {start_scheduler, nullptr},
    {start_dial_up, nullptr},
    {start_file_cache, nullptr},
};
constexpr size_t kFirstLateStage = 16;
static_assert(kStages[kFirstLateStage].start == start_thread_table);

constexpr Undo kUndoLate[] = {
    stop_history_store,
    stop_alerts,
    stop_dial_up,
    stop_resolver,
    cron::release_all,
    close_file<&cm_context::log_file>,
    close_file<&cm_context::net_log>,
    delete_mutex<&cm_context::log_mutex>,
    delete_mutex<&cm_context::file_mutex>,
    delete_mutex<&cm_context::thread_mutex>,
    delete_mutex<&cm_context::net_log_mutex>,
    free_thread_table,
    release_thread_memory,
    unload_libraries,
    release_common_pool,
};

void say_exited(cm_context *ctx) {
    report(ctx, CM_INFO, "Common library exited...");
}

constexpr Undo kUndoAtExit[] = {
    stop_dial_up,
    stop_file_cache,
    stop_resolver,
    stop_alerts,
    stop_history_store,
    cron::release_all,
    say_exited,
    close_file<&cm_context::log_file>,
    close_file<&cm_context::net_log>,
    delete_mutex<&cm_context::log_mutex>,
    delete_mutex<&cm_context::file_mutex>,
    delete_mutex<&cm_context::thread_mutex>,
    delete_mutex<&cm_context::net_log_mutex>,
    free_thread_table,
    release_thread_memory,
    unload_libraries,
    release_common_pool,
};

// All threads have ended before anything is released.
void undo_late(cm_context *ctx, std::span<const Undo> order) {
    if (!end_threads(ctx)) return;
    for (const Undo undo : order) undo(ctx);
    memset(ctx, 0, sizeof *ctx);
    os.release(ctx);
    blocks::trim();
}

void undo_start(cm_context *ctx, size_t failed) {
    if (failed >= kFirstLateStage) {
        withdraw(ctx);
        undo_late(ctx, kUndoLate);
        return;
    }
    for (size_t stage = failed + 1; stage-- > 0;)
        if (kStages[stage].undo != nullptr) kStages[stage].undo(ctx);
    os.release(ctx);
}

// Gives a started context, or null with nothing left behind.
cm_context *start_library(Start &start) {
    auto *const ctx = static_cast<cm_context *>(os.allocate_zeroed(sizeof(cm_context)));
    if (ctx == nullptr) {
        report(nullptr, CM_FATAL, "MALLOC(%ld bytes) failed on Common initialization.", kBlockSize);
        return nullptr;
    }
    set_defaults(ctx);
    start.ctx = ctx;
    for (size_t stage = 0; stage < std::size(kStages); stage++)
        if (!kStages[stage].start(start)) {
            undo_start(ctx, stage);
            return nullptr;
        }
    report(ctx, CM_INFO, "Common library initalized...");  // spelled so: log readers look for it
    return ctx;
}

void seed_standard_generator() {
    platform::WallTime now{};
    os.wall_clock(&now);
    srand(static_cast<unsigned>(now.seconds));  // for programs that draw from it; nothing of the library does
}

// ---- counters -------------------------------------------------------------------------------------------------------

constexpr uint32_t kCounters = sizeof(cm_context::perf) / sizeof(uint32_t);

// The row of the minute that was last asked for: minutes since 1970 above, the row below.  A zone changes its offset at
// a whole minute, so a row holds for its minute.
std::atomic<uint64_t> last_row{UINT64_MAX};

bool find_row(uint32_t seconds, uint32_t *out_row) {
    const uint64_t minute = seconds / 60;
    const uint64_t last = last_row.load(std::memory_order_relaxed);
    if (last >> 32 == minute) {
        *out_row = static_cast<uint32_t>(last);
        return true;
    }
    cm_tm now;
    if (seconds == kNoClock || cm_time(seconds, 0, &now) == 0) return false;
    *out_row = static_cast<uint32_t>(now.hour * 60 + now.min);
    last_row.store(minute << 32 | *out_row, std::memory_order_relaxed);
    return true;
}

}  // namespace
}  // namespace cm::context

using namespace cm::context;

int16_t cm_ctx_init(cm_context **out_ctx, const char *config_dir, const char *log_name, int16_t setup,
                    int32_t *out_already) {
    if (cm_ctx_global(out_ctx) != 0) {
        if (out_already != nullptr) *out_already = 1;
        cm::ctx_refcount.fetch_add(1, std::memory_order_acq_rel);
        return 1;
    }
    if (out_already != nullptr) *out_already = 0;
    if (out_ctx != nullptr) *out_ctx = nullptr;
    os.standard_handles_open();  // a file of the library on 0, 1 or 2 would be taken for a standard one
    seed_standard_generator();
    last_row.store(UINT64_MAX, std::memory_order_relaxed);
    if (log_name == nullptr) {
        cm::report(nullptr, CM_FATAL, "No logfile name was provided!");
        return 0;
    }
    Start start{nullptr, config_dir, log_name, setup != 0, nullptr};
    cm_context *const ctx = start_library(start);
    if (ctx == nullptr) return 0;
    if (out_ctx != nullptr) *out_ctx = ctx;
    return 1;
}

// Any start of this process is the one that ends: the block given is not compared with it.
int16_t cm_ctx_exit(cm_context *ctx) {
    if (ctx == nullptr || cm::ctx_refcount.load(std::memory_order_acquire) <= 0) return 0;
    if (cm::ctx_refcount.fetch_sub(1, std::memory_order_acq_rel) > 1) return 1;
    undo_late(cm::ctx_global.exchange(nullptr), kUndoAtExit);
    return 1;
}

int16_t cm_perf(cm_context *ctx, int32_t counter, uint32_t amount) {
    uint32_t row;
    if (ctx == nullptr || (cm::load_relaxed(ctx->flags) & CTX_TRACE_PERF) == 0) return 0;
    if (!find_row(cm_cursec(nullptr), &row)) return 0;
    // A counter number beyond the row spills into the next minute, as it always did, but not out of the table.
    const int64_t index = int64_t{row} * CM_PERF_COUNTERS + counter;
    if (index < 0 || index >= kCounters) return 0;
    cm::add_relaxed(reinterpret_cast<uint32_t *>(ctx->perf)[index], amount);
    return 1;
}

int16_t cm__perf(cm_context *ctx, const char *, cm_value) {
    const uint32_t now = cm_cursec(nullptr);
    cm_tm next;
    if (ctx == nullptr || now == kNoClock || cm_time(now + 3600, 0, &next) == 0) return 1;
    for (auto &minute : ctx->perf[next.hour])
        for (uint32_t &counter : minute) cm::store_relaxed(counter, 0u);
    return 1;
}

void cm__abort(int) {
    os.exit_at_once(-1);
}
