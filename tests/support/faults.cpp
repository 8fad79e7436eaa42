#include <atomic>

#include "core/cmblocks.h"
#include "support/support.h"

namespace cm::test {

using platform::Error;
using platform::os;
using platform::Table;

// ---- Faults ---------------------------------------------------------------------------------------------------------

namespace {

Table below;  // what the failing entries call through to
std::atomic<uint32_t> groups_on;
std::atomic<int64_t> fail_at, calls_made, failures_made;
std::atomic<Error> error_given;
std::atomic<bool> for_good;

// Counts a call and says whether it fails.
bool fails(uint32_t group) {
    if ((groups_on.load() & group) == 0) return false;
    const int64_t call = ++calls_made, at = fail_at.load();
    if (at == 0 || call < at || (call > at && !for_good.load())) return false;
    failures_made++;
    return true;
}

template <class Result>
Result failure() {
    if constexpr (std::is_same_v<Result, Error>)
        return error_given.load();
    else
        return Result{};
}

template <auto Entry, uint32_t kGroup, class = decltype(Entry)>
struct Failing;

template <auto Entry, uint32_t kGroup, class Result, class... Arguments>
struct Failing<Entry, kGroup, Result (*Table::*)(Arguments...)> {
    static Result instead(Arguments... arguments) {
        return fails(kGroup) ? failure<Result>() : (below.*Entry)(arguments...);
    }
    static Result afterwards(Arguments... arguments) {
        const Result result = (below.*Entry)(arguments...);
        return fails(kGroup) ? failure<Result>() : result;
    }
};

Error half_write(int32_t descriptor, const void *data, size_t count, size_t *out_written) {
    if (!fails(Faults::kFiles)) return below.file_write(descriptor, data, count, out_written);
    *out_written = 0;
    if (!for_good.load()) below.file_write(descriptor, data, count / 2, out_written);
    return error_given.load();
}

template <uint32_t kGroup, auto... Entries>
void install() {
    ((os.*Entries = Failing<Entries, kGroup>::instead), ...);
}

template <uint32_t kGroup, auto... Entries>
void install_closers() {
    ((os.*Entries = Failing<Entries, kGroup>::afterwards), ...);
}

void install_all() {
    using T = Table;
    install<Faults::kAllocations, &T::allocate, &T::allocate_zeroed>();
    install<Faults::kFiles, &T::file_open, &T::file_read, &T::file_seek, &T::file_resize, &T::file_sync,
            &T::file_status, &T::path_status, &T::path_access, &T::path_set_mode, &T::path_rename, &T::path_link,
            &T::path_remove, &T::directory_create, &T::directory_remove, &T::directory_sync, &T::directory_open>();
    install_closers<Faults::kFiles, &T::file_close>();
    os.file_write = half_write;
    install<Faults::kSockets, &T::network_start, &T::host_name, &T::host_by_name, &T::host_by_address, &T::socket_open,
            &T::socket_shutdown, &T::socket_bind, &T::socket_listen, &T::socket_accept, &T::socket_connect,
            &T::socket_connect_result, &T::socket_local, &T::socket_peer, &T::socket_set_blocking, &T::socket_option,
            &T::socket_raw_option, &T::socket_send, &T::socket_send_file, &T::socket_receive, &T::socket_send_to,
            &T::socket_receive_from, &T::socket_wait, &T::wake_create, &T::hardware_address>();
    install_closers<Faults::kSockets, &T::socket_close, &T::network_stop>();
    install<Faults::kThreads, &T::thread_start>();
    install<Faults::kLocks, &T::lock_create, &T::event_create>();
    install<Faults::kEnvironment, &T::working_directory, &T::random_bytes, &T::standard_handles_open>();
    install<Faults::kClock, &T::wall_clock, &T::local_calendar, &T::set_wall_clock>();
    install<Faults::kLibraries, &T::library_open, &T::library_symbol>();
    install<Faults::kProcesses, &T::process_start, &T::process_end, &T::line_dial>();
}

}  // namespace

Faults::Faults(uint32_t groups, int64_t k, Error error, Mode mode) : saved_(os) {
    below = os;
    groups_on = groups;
    fail_at = k;
    error_given = error;
    for_good = mode == kFromThenOn;
    calls_made = failures_made = 0;
    install_all();
}

Faults::~Faults() {
    os = saved_;
}

int64_t Faults::calls() const {
    return calls_made;
}
int64_t Faults::injected() const {
    return failures_made;
}

// ---- LeakCheck ------------------------------------------------------------------------------------------------------

LeakCheck::LeakCheck() {
    cm::blocks::trim();  // or what is used again would not be counted
}

void *LeakCheck::noted(void *block) {
    const std::lock_guard guard(mutex_);
    if (block != nullptr) blocks_.insert(block);
    return block;
}

void LeakCheck::forget(void *block) {
    auto *const release = release_.real;  // before the count says that all is given back
    {
        const std::lock_guard guard(mutex_);
        blocks_.erase(block);
    }
    release(block);
}

size_t LeakCheck::outstanding() const {
    cm::blocks::trim();  // what waits for the next pool is no leak
    const std::lock_guard guard(mutex_);
    return blocks_.size();
}

}  // namespace cm::test
