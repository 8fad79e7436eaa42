#include <pthread.h>
#include <time.h>

#include "posix.h"

namespace cm::platform::system {

namespace {

// The zone is read once: afterwards tzset's variables are constants, and conversions need no lock of ours.
void read_zone() {
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    pthread_once(&once, tzset);
}

}  // namespace

bool wall_clock(WallTime *out) {
    timespec now = {};
    if (clock_gettime(CLOCK_REALTIME, &now) != 0) return false;
    *out = {now.tv_sec, static_cast<int32_t>(now.tv_nsec / 1000000)};
    return true;
}

int64_t monotonic_ms() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * INT64_C(1000) + now.tv_nsec / 1000000;
}

bool local_calendar(int64_t seconds, cm_tm *out) {
    read_zone();
    const time_t when = seconds;
    tm fields = {};
    if (localtime_r(&when, &fields) == nullptr) return false;
    *out = {fields.tm_sec,  fields.tm_min,  fields.tm_hour, fields.tm_mday, fields.tm_mon,
            fields.tm_year, fields.tm_wday, fields.tm_yday, fields.tm_isdst};
    return true;
}

int32_t zone_bias_seconds() {
    read_zone();
    return static_cast<int32_t>(timezone);
}

Error set_wall_clock(const cm_tm *utc, int32_t milliseconds) {
    tm fields = {};
    fields.tm_sec = utc->sec;
    fields.tm_min = utc->min;
    fields.tm_hour = utc->hour;
    fields.tm_mday = utc->mday;
    fields.tm_mon = utc->mon;
    fields.tm_year = utc->year;
    timespec when = {};
    when.tv_sec = timegm(&fields);
    when.tv_nsec = milliseconds * 1000000L;
    return posix::result_error(clock_settime(CLOCK_REALTIME, &when));
}

bool sleep(int32_t milliseconds) {
    const posix::Deadline limit(milliseconds < 0 ? 0 : milliseconds);
    posix::Waiter &self = posix::own_waiter();
    while (!self.asked())
        if (!self.sleep_while(0, limit)) return !self.asked();
    return false;
}

}  // namespace cm::platform::system
