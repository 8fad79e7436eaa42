#include <chrono>
#include <mutex>
#include <thread>

#include "core/cmstamp.h"
#include "support/support.h"

namespace cm::test {

using platform::os;
using platform::Table;
using platform::WallTime;

namespace {

Table below;
std::thread::id owner;

std::mutex zone_mutex;  // guards what follows
int32_t zone_bias;
std::function<bool(int64_t)> daylight_in_force;
WallTime set_value;

bool zoned_calendar(int64_t seconds, cm_tm *out) {
    std::lock_guard guard(zone_mutex);
    const bool daylight = daylight_in_force && daylight_in_force(seconds);
    if (!cm::time::gmt_calendar(seconds - zone_bias + (daylight ? 3600 : 0), out)) return false;
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
    set(seconds, milliseconds);
    running_ms_ = 1000000;
    slept_ms_ = 0;
    set_value = {};
    broken_ = false;
    owner = std::this_thread::get_id();
    os.wall_clock = [](WallTime *out) {
        const int64_t now = wall_ms_;
        if (!broken_) *out = {now / 1000, static_cast<int32_t>(now % 1000)};
        return !broken_;
    };
    os.monotonic_ms = [] { return running_ms_.load(); };
    os.sleep = [](int32_t ms) {
        const int64_t end = running_ms_ + ms;
        if (os.thread_asked()) return false;
        if (std::this_thread::get_id() == owner) {
            move(ms);
            slept_ms_ += ms;
            return true;
        }
        while (running_ms_ < end && below.sleep(1)) {
        }
        return !os.thread_asked();
    };
    os.event_wait = [](platform::Event *event, int32_t timeout_ms) {
        if (timeout_ms <= 0 || std::this_thread::get_id() == owner) return below.event_wait(event, timeout_ms);
        const int64_t end = running_ms_ + timeout_ms;
        while (running_ms_ < end && !os.thread_asked())
            if (below.event_wait(event, 1)) return true;
        return below.event_wait(event, 0);
    };
    os.set_wall_clock = note_set;
}

FrozenClock::~FrozenClock() {
    os = saved_;
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
