// The local calendar of the current second, and the stamp made of it.
//
// Turning seconds into a local date costs several times what reading the clock does, and a busy server asks for the
// same second thousands of times.  The last answer is kept for the whole process under a sequence number: a reader
// takes the words and looks whether the number stood still and was even; the thread that meets a new second writes it,
// and whoever comes at the same moment asks the system for itself instead of waiting.  A thread that is stopped for
// good while it writes leaves the number odd: from then on nobody uses the copy, and everything else stays right.
#include "core/cmstamp.h"

#include <string.h>

#include <atomic>

#include "platform/platform.h"

namespace cm::time {
namespace {

using platform::os;

// What is kept: the second, the calendar entry that answered, and the nine fields.
struct Moment {
    int64_t seconds;
    decltype(platform::Table::local_calendar) calendar;  // a replaced entry asks anew
    cm_tm local;
};

constexpr size_t kWords = sizeof(Moment) / sizeof(uint32_t);
static_assert(sizeof(Moment) % sizeof(uint32_t) == 0);

// The words are stored with release and loaded with acquire: a reader that sees a new word also sees the odd number
// written before it.
std::atomic<uint32_t> g_sequence{0};  // odd while somebody writes; 0: nothing kept yet
std::atomic<uint32_t> g_words[kWords];

bool load_moment(Moment *out) {
    const uint32_t before = g_sequence.load(std::memory_order_acquire);
    if (before == 0 || (before & 1) != 0) return false;
    uint32_t words[kWords];
    for (size_t i = 0; i < kWords; i++) words[i] = g_words[i].load(std::memory_order_acquire);
    if (g_sequence.load(std::memory_order_relaxed) != before) return false;
    memcpy(out, words, sizeof *out);
    return true;
}

void store_moment(const Moment &moment) {
    uint32_t before = g_sequence.load(std::memory_order_relaxed);
    if ((before & 1) != 0) return;
    if (!g_sequence.compare_exchange_strong(before, before + 1, std::memory_order_acq_rel)) return;
    uint32_t words[kWords];
    memcpy(words, &moment, sizeof moment);
    for (size_t i = 0; i < kWords; i++) g_words[i].store(words[i], std::memory_order_release);
    const uint32_t after = before + 2;
    g_sequence.store(after == 0 ? 2 : after, std::memory_order_release);
}

}  // namespace

bool local_now(int64_t *out_seconds, cm_tm *out) {
    platform::WallTime now;
    if (!os.wall_clock(&now)) return false;
    Moment moment;
    if (!load_moment(&moment) || moment.seconds != now.seconds || moment.calendar != os.local_calendar) {
        moment = Moment{};
        moment.seconds = now.seconds;
        moment.calendar = os.local_calendar;
        if (!moment.calendar(now.seconds, &moment.local)) return false;
        store_moment(moment);
    }
    *out_seconds = now.seconds;
    *out = moment.local;
    return true;
}

bool gmt_calendar(int64_t seconds, cm_tm *out) {
    constexpr int64_t kFirst = -62167219200, kLast = 253402300799;  // the years 0 to 9999
    if (seconds < kFirst || seconds > kLast) return false;
    // Days and years are counted from 1 March of year 0, so that the leap day is the last of its year.
    const uint32_t days_from_zero = static_cast<uint32_t>((seconds - kFirst) / 86400);  // 1 January of year 0 is 0
    const uint32_t second = static_cast<uint32_t>((seconds - kFirst) % 86400);
    const uint32_t shifted = days_from_zero + 146097 - 60;  // one cycle of 400 years keeps January of year 0 positive
    const uint32_t cycle = shifted / 146097, day_of_cycle = shifted % 146097;
    const uint32_t year_of_cycle =
        (day_of_cycle - day_of_cycle / 1460 + day_of_cycle / 36524 - day_of_cycle / 146096) / 365;
    const uint32_t march_day = day_of_cycle - (365 * year_of_cycle + year_of_cycle / 4 - year_of_cycle / 100);
    const uint32_t march_month = (5 * march_day + 2) / 153;
    const uint32_t month = march_month < 10 ? march_month + 2 : march_month - 10;
    const uint32_t year = cycle * 400 - 400 + year_of_cycle + (month < 2 ? 1 : 0);
    const bool leap = year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
    out->sec = static_cast<int32_t>(second % 60);
    out->min = static_cast<int32_t>(second / 60 % 60);
    out->hour = static_cast<int32_t>(second / 3600);
    out->mday = static_cast<int32_t>(march_day - (153 * march_month + 2) / 5 + 1);
    out->mon = static_cast<int32_t>(month);
    out->year = static_cast<int32_t>(year) - 1900;
    out->wday = static_cast<int32_t>((days_from_zero + 6) % 7);  // year 0 began on a Saturday
    out->yday = static_cast<int32_t>(month < 2 ? march_day - 306 : march_day + 59 + (leap ? 1 : 0));
    out->isdst = 0;
    return true;
}

char *put_two_digits(char *out, uint32_t number) {
    static constexpr char kPairs[] =
        "0001020304050607080910111213141516171819202122232425262728293031323334353637383940414243444546474849"
        "5051525354555657585960616263646566676869707172737475767778798081828384858687888990919293949596979899";
    memcpy(out, kPairs + number * 2, 2);
    return out + 2;
}

size_t stamp(char out[kStampLength]) {
    int64_t seconds;
    cm_tm now;
    if (!local_now(&seconds, &now)) return 0;
    const uint32_t year = static_cast<uint32_t>(now.year) + 1900;
    if (year > 9999) return 0;
    const auto two = [](char *at, int32_t number) { return put_two_digits(at, static_cast<uint32_t>(number) % 100); };
    *out++ = '[';
    out = put_two_digits(put_two_digits(out, year / 100), year % 100);
    *out++ = '-';
    out = two(out, now.mon + 1);
    *out++ = '-';
    out = two(out, now.mday);
    *out++ = ' ';
    out = two(out, now.hour);
    *out++ = ':';
    out = two(out, now.min);
    *out++ = ':';
    out = two(out, now.sec);
    *out = ']';
    return kStampLength;
}

}  // namespace cm::time
