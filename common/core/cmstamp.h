// The clock as the log and the date texts need it: the local calendar of this second, and the stamp of a log line.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "tilvarcm.h"

namespace cm::time {

// The current local time.  The system's calendar is asked once a second and kept for all threads, so that a call costs
// little more than reading the clock.  False when the clock or the calendar cannot be read: `out` is then untouched.
bool local_now(int64_t *out_seconds, cm_tm *out);

// The calendar of a time in GMT, by arithmetic alone.  Good for every time within the years 0 to 9999; false beyond.
bool gmt_calendar(int64_t seconds, cm_tm *out);

// Two decimal digits of a number below 100.
char *put_two_digits(char *out, uint32_t number);

// Writes "[2002-07-04 09:05:00]" of the current local time, without a terminator: kStampLength bytes.  0: the clock
// cannot be read, and what is in `out` means nothing.
constexpr size_t kStampLength = 21;
size_t stamp(char out[kStampLength]);

// The same and a blank: what a log line begins with.
inline size_t log_stamp(char out[kStampLength + 1]) {
    const size_t length = stamp(out);
    if (length == 0) return 0;
    out[length] = ' ';
    return length + 1;
}

}  // namespace cm::time
