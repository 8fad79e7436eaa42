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

// What is kept.
struct Moment {
    int64_t seconds;
    decltype(platform::Table::local_calendar) calendar;  // the entry that answered: a replaced one is asked anew
    char stamp[24];                                      // empty when the year has no four digits
    cm_tm local;
    uint32_t unused;
};

using Word = uintptr_t;
constexpr size_t kWords = sizeof(Moment) / sizeof(Word);
static_assert(sizeof(Moment) % sizeof(Word) == 0 && offsetof(Moment, stamp) % sizeof(Word) == 0 &&
              offsetof(Moment, local) % sizeof(Word) == 0);

// The words are stored with release and loaded with acquire: a reader that sees a new word also sees the odd number
// written before it.
std::atomic<uint32_t> g_sequence{0};  // odd while somebody writes; 0: nothing kept yet
std::atomic<Word> g_words[kWords];

// Loads `kLength` bytes at an offset of the kept moment, word by word into the place where they are wanted: gathering
// them first and copying them together would make the processor wait for its own stores.
template <size_t kOffset, size_t kLength>
inline void take(void *out) {
    char *bytes = static_cast<char *>(out);
#pragma GCC unroll 8
    for (size_t at = 0; at < kLength; at += sizeof(Word)) {
        const Word word = g_words[(kOffset + at) / sizeof(Word)].load(std::memory_order_acquire);
        memcpy(bytes + at, &word, kLength - at < sizeof word ? kLength - at : sizeof word);
    }
}

// Whether the field at an offset could be taken whole and is of this second.
template <size_t kOffset, size_t kLength>
inline bool take_of(int64_t seconds, void *out) {
    const uint32_t before = g_sequence.load(std::memory_order_acquire);
    if (before == 0 || (before & 1) != 0) return false;
    int64_t kept;
    decltype(Moment::calendar) calendar;
    take<offsetof(Moment, seconds), sizeof kept>(&kept);
    take<offsetof(Moment, calendar), sizeof calendar>(&calendar);
    take<kOffset, kLength>(out);
    return g_sequence.load(std::memory_order_relaxed) == before && kept == seconds && calendar == os.local_calendar;
}

void store(const Moment &moment) {
    uint32_t before = g_sequence.load(std::memory_order_relaxed);
    if ((before & 1) != 0) return;
    if (!g_sequence.compare_exchange_strong(before, before + 1, std::memory_order_acq_rel)) return;
    Word words[kWords];
    memcpy(words, &moment, sizeof moment);
    for (size_t i = 0; i < kWords; i++) g_words[i].store(words[i], std::memory_order_release);
    const uint32_t after = before + 2;
    g_sequence.store(after == 0 ? 2 : after, std::memory_order_release);
}

void write_stamp(const cm_tm &now, char *out) {
    const uint32_t year = static_cast<uint32_t>(now.year) + 1900;
    if (year > 9999) return;
    const auto two = [&out](char before, int32_t number) {
        *out++ = before;
        out = put_two_digits(out, static_cast<uint32_t>(number) % 100);
    };
    two('[', static_cast<int32_t>(year / 100));
    out = put_two_digits(out, year % 100);
    two('-', now.mon + 1);
    two('-', now.mday);
    two(' ', now.hour);
    two(':', now.min);
    two(':', now.sec);
    *out = ']';
}

// Asks the system.
bool make(int64_t seconds, Moment *out) {
    memset(out, 0, sizeof *out);
    out->seconds = seconds;
    out->calendar = os.local_calendar;
    if (!out->calendar(seconds, &out->local)) return false;
    write_stamp(out->local, out->stamp);
    store(*out);
    return true;
}

}  // namespace

bool local_now(int64_t *out_seconds, cm_tm *out) {
    platform::WallTime now;
    if (!os.wall_clock(&now)) return false;
    cm_tm local;
    if (!take_of<offsetof(Moment, local), sizeof local>(now.seconds, &local)) {
        Moment moment;
        if (!make(now.seconds, &moment)) return false;
        local = moment.local;
    }
    *out_seconds = now.seconds;
    *out = local;
    return true;
}

size_t stamp(char out[kStampLength]) {
    platform::WallTime now;
    if (!os.wall_clock(&now)) return 0;
    if (!take_of<offsetof(Moment, stamp), kStampLength>(now.seconds, out)) {
        Moment moment;
        if (!make(now.seconds, &moment)) return 0;
        memcpy(out, moment.stamp, kStampLength);
    }
    return out[0] == '\0' ? 0 : kStampLength;
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

}  // namespace cm::time
