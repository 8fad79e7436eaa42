// Periods: the five fields of a crontab line, and the minutes that they match.
#include <string.h>

#include <algorithm>

#include "core/cmstring.h"
#include "core/relaxed.h"
#include "files/cmcron.h"
#include "platform/platform.h"

extern "C" {
const char *const DowAry[8] = {"sun", "mon", "tue", "wed", "thu", "fri", "sat", nullptr};
const char *const MonAry[13] = {"jan", "feb", "mar", "apr", "may", "jun",  "jul",
                                "aug", "sep", "oct", "nov", "dec", nullptr};
}

namespace cm::cron {

namespace {

constexpr int32_t kMinutes = 60, kHours = 24, kDays = 32, kMonths = 12, kWeekdays = 7;
constexpr int32_t kMaximumSteps = 1024;    // of the walk from the low to the high value
constexpr int32_t kLargestNumber = 99999;  // more digits change nothing: no field reaches it
constexpr int64_t kQuarterHour = 900;      // zone changes happen on quarters of an hour
constexpr int64_t kLookBack =
    int64_t{3660} * 86400;  // in ten years every minute that a period can name comes at least once

bool is_blank(char c) {
    return c == ' ' || c == '\t' || c == '\n';
}

bool take_number(std::string_view &text, int32_t *out) {
    if (text.empty() || !is_digit(text.front())) return false;
    int32_t number = 0;
    for (; !text.empty() && is_digit(text.front()); text.remove_prefix(1))
        if (number < kLargestNumber) number = number * 10 + (text.front() - '0');
    *out = number;
    return true;
}

// A word that begins with one of the names stands for the name's index ("monday", "mon").
bool take_name(std::string_view &text, const char *const *names, int32_t *out) {
    for (int32_t i = 0; names != nullptr && names[i] != nullptr; i++) {
        const std::string_view name(names[i]);
        if (text.size() < name.size() || !equal_folded({text.data(), name.size()}, name)) continue;
        while (!text.empty() && is_letter(text.front())) text.remove_prefix(1);
        *out = i;
        return true;
    }
    return false;
}

bool take_value(std::string_view &text, int32_t offset, const char *const *names, int32_t *out) {
    if (!take_number(text, out)) return take_name(text, names, out);
    *out += offset;
    return true;
}

// Walks upwards from low, wrapping, and sets every step-th value, until it stands on high.  A high value that no walk
// reaches (60 in a minute field) fails, and what was set on the way stays set: such a period is still registered for a
// function, and must stay as silent, or as busy, as it is now.
bool fill(uint8_t *flags, int32_t count, int32_t low, int32_t high, int32_t step) {
    int32_t value = (low % count + count) % count;
    for (int32_t i = 0; i <= kMaximumSteps; i++) {
        if (i % step == 0) flags[value] = 1;
        if (value == high) return true;
        value = value + 1 == count ? 0 : value + 1;
    }
    return false;
}

bool take_item(std::string_view &text, uint8_t *flags, int32_t count, int32_t offset, const char *const *names) {
    int32_t low = 0, high = count - 1, step = 1;
    if (!text.empty() && text.front() == '*') {
        text.remove_prefix(1);
    } else {
        if (!take_value(text, offset, names, &low)) return false;
        high = low;
        if (!text.empty() && text.front() == '-') {
            text.remove_prefix(1);
            if (!take_value(text, offset, names, &high)) return false;
        }
    }
    if (!text.empty() && text.front() == '/') {
        text.remove_prefix(1);
        if (!take_number(text, &step) || step < 1) return false;
    }
    return fill(flags, count, low, high, step);
}

bool all_set(const uint8_t *flags, int32_t count) {
    return memchr(flags, 0, static_cast<size_t>(count)) == nullptr;
}

bool matches_day(const cm_cron_rec &task, const cm_tm &local) {
    return task.month[local.mon] && (task.day[local.mday] || task.weekday[local.wday]);
}

bool is_idle(const cm_cron_rec &task) {
    return load_relaxed(task.state) == kIdle;
}

// What the idle tasks have to do with a time: the nearest of them decides.
enum class Outlook { kNobodyIdle, kNotThatDay, kNotThatHour, kPossible };

Outlook outlook(const cm_cron_rec *tasks, const cm_tm &local) {
    Outlook best = Outlook::kNobodyIdle;
    for (const cm_cron_rec *task = tasks; task != nullptr; task = task->next) {
        if (!is_idle(*task)) continue;
        if (!matches_day(*task, local))
            best = best == Outlook::kNobodyIdle ? Outlook::kNotThatDay : best;
        else if (!task->hour[local.hour])
            best = Outlook::kNotThatHour;
        else
            return Outlook::kPossible;
    }
    return best;
}

int64_t next_quarter(int64_t minute) {
    return minute + kQuarterHour - minute % kQuarterHour;
}

// The first minute of the next day, or of the next quarter of an hour on a day that the zone cuts short.
int64_t next_day(int64_t minute, const cm_tm &local) {
    const int64_t midnight = minute + int64_t{(24 * 60 - local.hour * 60 - local.min)} * 60;
    cm_tm before;
    const bool whole = platform::os.local_calendar(midnight - 60, &before) && before.mday == local.mday;
    return whole ? midnight : next_quarter(minute);
}

void mark_minute(cm_cron_rec *tasks, const cm_tm &local) {
    for (cm_cron_rec *task = tasks; task != nullptr; task = task->next)
        if (task->minute[local.min] && task->hour[local.hour] && matches_day(*task, local) && is_idle(*task))
            store_relaxed(task->state, int32_t{kDue});
}

}  // namespace

bool parse_field(std::string_view &text, uint8_t *flags, int32_t count, int32_t offset, const char *const *names) {
    memset(flags, 0, static_cast<size_t>(count));
    for (;;) {
        if (!take_item(text, flags, count, offset, names)) return false;
        if (text.empty() || is_blank(text.front())) break;
        if (text.front() != ',') return false;
        text.remove_prefix(1);
    }
    while (!text.empty() && is_blank(text.front())) text.remove_prefix(1);
    return true;
}

bool parse_period(std::string_view &text, const Sets &sets) {
    memset(sets.minute, 0, kMinutes);
    memset(sets.hour, 0, kHours);
    memset(sets.day, 0, kDays);
    memset(sets.month, 0, kMonths);
    memset(sets.weekday, 0, kWeekdays);
    return parse_field(text, sets.minute, kMinutes, 0, nullptr) && parse_field(text, sets.hour, kHours, 0, nullptr) &&
           parse_field(text, sets.day, kDays, 0, nullptr) && parse_field(text, sets.month, kMonths, -1, MonAry) &&
           parse_field(text, sets.weekday, kWeekdays, 0, DowAry);
}

void apply_day_rule(const Sets &sets) {
    const bool every_day = all_set(sets.day, kDays), every_weekday = all_set(sets.weekday, kWeekdays);
    if (!every_weekday && every_day) memset(sets.day, 0, kDays);
    if (!every_day && every_weekday) memset(sets.weekday, 0, kWeekdays);
}

void mark_due(cm_cron_rec *tasks, int64_t last, int64_t now) {
    int64_t minute = std::max(last - last % 60 + 60, now - now % 60 - kLookBack);
    while (minute <= now) {
        cm_tm local;
        if (!platform::os.local_calendar(minute, &local)) return;
        switch (outlook(tasks, local)) {
            case Outlook::kNobodyIdle:
                return;
            case Outlook::kNotThatDay:
                minute = next_day(minute, local);
                break;
            case Outlook::kNotThatHour:
                minute = next_quarter(minute);
                break;
            case Outlook::kPossible:
                mark_minute(tasks, local);
                minute += 60;
        }
    }
}

}  // namespace cm::cron
