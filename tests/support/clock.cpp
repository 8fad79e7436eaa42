#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>

#include "support/support.h"

namespace cm::test {

using platform::os;
using platform::Table;
using platform::WallTime;

namespace {

Table below;
std::atomic<int64_t> wall_ms, running_ms, slept;
std::atomic<bool> broken;
std::thread::id owner;

std::mutex zone_mutex;  // guards what follows
int32_t zone_bias;
std::function<bool(int64_t)> daylight_in_force;
WallTime set_value;

bool wall_clock(WallTime *out) {
    if (broken) return false;
    const int64_t now = wall_ms;
    *out = {now / 1000, static_cast<int32_t>(now % 1000)};
    return true;
}

void move(int64_t milliseconds) {
    wall_ms += milliseconds;
    running_ms += milliseconds;
}

// For a thread that does not own the clock: until the clock says so, the thread is asked to end, or `done`.
template <class Done>
bool wait_until(int64_t end, Done done) {
    while (running_ms < end)
        if (done() || os.thread_asked()) return true;
    return false;
}

bool sleep(int32_t milliseconds) {
    if (os.thread_asked()) return false;
    if (std::this_thread::get_id() == owner) {
        move(milliseconds);
        slept += milliseconds;
        return true;
    }
    wait_until(running_ms + milliseconds, [] { return !below.sleep(1); });
    return !os.thread_asked();
}

bool event_wait(platform::Event *event, int32_t timeout_ms) {
    if (timeout_ms <= 0 || std::this_thread::get_id() == owner) return below.event_wait(event, timeout_ms);
    bool set = false;
    wait_until(running_ms + timeout_ms, [&] { return set = below.event_wait(event, 1); });
    return set || below.event_wait(event, 0);
}

bool zoned_calendar(int64_t seconds, cm_tm *out) {
    using namespace std::chrono;
    std::lock_guard guard(zone_mutex);
    const bool daylight = daylight_in_force && daylight_in_force(seconds);
    const sys_seconds local{std::chrono::seconds(seconds - zone_bias + (daylight ? 3600 : 0))};
    const sys_days day = floor<days>(local);
    const year_month_day date(day);
    const hh_mm_ss time(local - day);
    out->sec = static_cast<int32_t>(time.seconds().count());
    out->min = static_cast<int32_t>(time.minutes().count());
    out->hour = static_cast<int32_t>(time.hours().count());
    out->mday = static_cast<int32_t>(static_cast<unsigned>(date.day()));
    out->mon = static_cast<int32_t>(static_cast<unsigned>(date.month())) - 1;
    out->year = static_cast<int32_t>(date.year()) - 1900;
    out->wday = static_cast<int32_t>(weekday(day).c_encoding());
    out->yday = static_cast<int32_t>((day - sys_days(date.year() / January / 1)).count());
    out->isdst = daylight;
    return true;
}

platform::Error note_set(const cm_tm *utc, int32_t milliseconds) {
    using namespace std::chrono;
    const sys_days day(year(utc->year + 1900) / month(static_cast<unsigned>(utc->mon + 1)) /
                       std::chrono::day(static_cast<unsigned>(utc->mday)));
    std::lock_guard guard(zone_mutex);
    set_value = {day.time_since_epoch().count() * INT64_C(86400) + utc->hour * 3600 + utc->min * 60 + utc->sec,
                 milliseconds};
    return 0;
}

}  // namespace

FrozenClock::FrozenClock(int64_t seconds, int32_t milliseconds) : saved_(os) {
    below = os;
    wall_ms = seconds * 1000 + milliseconds;
    running_ms = 1000000;
    slept = 0;
    set_value = {};
    broken = false;
    owner = std::this_thread::get_id();
    os.wall_clock = wall_clock;
    os.monotonic_ms = [] { return running_ms.load(); };
    os.sleep = sleep;
    os.event_wait = event_wait;
    os.set_wall_clock = note_set;
}

FrozenClock::~FrozenClock() {
    os = saved_;
}

void FrozenClock::set(int64_t seconds, int32_t milliseconds) {
    wall_ms = seconds * 1000 + milliseconds;
}
void FrozenClock::advance_ms(int64_t milliseconds) {
    move(milliseconds);
}
int64_t FrozenClock::seconds() const {
    return wall_ms / 1000;
}
int64_t FrozenClock::slept_ms() const {
    return slept;
}
void FrozenClock::fail(bool now_broken) {
    broken = now_broken;
}

void FrozenClock::set_zone(int32_t bias_seconds, std::function<bool(int64_t seconds)> in_force) {
    {
        std::lock_guard guard(zone_mutex);
        zone_bias = bias_seconds;
        daylight_in_force = std::move(in_force);
    }
    os.local_calendar = zoned_calendar;
    os.zone_bias_seconds = [] {
        std::lock_guard guard(zone_mutex);
        return zone_bias;
    };
}

WallTime FrozenClock::set_to() const {
    std::lock_guard guard(zone_mutex);
    return set_value;
}

}  // namespace cm::test
