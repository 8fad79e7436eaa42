// Periods: fields, the day rule, and which minutes make tasks due.
#include <chrono>
#include <random>

#include "scheduler.h"

using namespace cm::test;
using cm::cron::parse_field;
using std::string;

namespace {

struct Field {
    int32_t count, offset;
    const char *const *names;
};
const Field kMinutes = {60, 0, nullptr}, kHours = {24, 0, nullptr}, kDays = {32, 0, nullptr},
            kMonths = {12, -1, MonAry}, kWeekdays = {7, 0, DowAry};

struct Parsed {
    bool valid;
    std::set<int> set;
    string rest;
};

Parsed parse(const string &text, const Field &field) {
    uint8_t flags[60];
    memset(flags, 1, sizeof flags);
    std::string_view rest(text);
    const bool valid = parse_field(rest, flags, field.count, field.offset, field.names);
    for (int i = field.count; i < 60; i++) EXPECT_EQ(flags[i], 1) << text;
    return {valid, set_of(flags, field.count), string(rest)};
}

TEST(Field, Table) {
    const std::set<int> fours = {1, 5, 9, 13, 17, 21, 25, 29, 33, 37, 41, 45, 49, 53, 57}, none;
    const struct {
        const char *text;
        const Field &field;
        bool valid;
        std::set<int> set;
        const char *rest = "";
    } rows[] = {
        {"*", kMinutes, true, range(0, 59)},
        {"*/15 next", kMinutes, true, {0, 15, 30, 45}, "next"},
        {"*/7", kMinutes, true, {0, 7, 14, 21, 28, 35, 42, 49, 56}},
        {"5,7,5 \t\n x", kMinutes, true, {5, 7}, "x"},
        {"22-2 ", kHours, true, {0, 1, 2, 22, 23}},
        {"22-4/3", kHours, true, {1, 4, 22}},
        {"22-5/3", kHours, true, {1, 4, 22}},
        {"58-1,30", kMinutes, true, {0, 1, 30, 58, 59}},
        {"007", kMinutes, true, {7}},
        {"9/3", kMinutes, true, {9}},
        {"jan", kMonths, true, {0}},
        {"December", kMonths, true, {11}},
        {"NOV-feb", kMonths, true, {0, 1, 10, 11}},
        {"1-12/3", kMonths, true, {0, 3, 6, 9}},
        {"dec-1", kMonths, true, {0, 11}},
        {"mon-fri", kWeekdays, true, range(1, 5)},
        {"sunday,3", kWeekdays, true, {0, 3}},
        {"6-1", kWeekdays, true, {0, 1, 6}},
        {"1-31", kDays, true, range(1, 31)},
        {"*", kDays, true, range(0, 31)},
        {"0", kDays, true, {0}},
        // A high value that no walk reaches fails, and leaves what the walk has set.
        {"1-60/4", kMinutes, false, fours},
        {"1-60/7", kMinutes, false, range(0, 59)},
        {"60", kMinutes, false, range(0, 59)},
        {"75/60", kMinutes, false, {15}},
        {"24", kHours, false, range(0, 23)},
        {"32", kDays, false, range(0, 31)},
        {"13", kMonths, false, range(0, 11)},
        {"0", kMonths, false, range(0, 11)},
        {"7", kWeekdays, false, range(0, 6)},
        {"7/7", kWeekdays, false, {0}},
        {"5,99999999999999999999", kMinutes, false, range(0, 59)},
        // Not a field.
        {"*/0", kMinutes, false, none},
        {"5/0", kMinutes, false, none},
        {"*/", kMinutes, false, none},
        {"*/x", kMinutes, false, none},
        {"", kMinutes, false, none},
        {",5", kMinutes, false, none},
        {"5,", kMinutes, false, {5}},
        {"5-", kMinutes, false, none},
        {"-5", kMinutes, false, none},
        {"*-5", kMinutes, false, range(0, 59)},
        {"5x", kMinutes, false, {5}},
        {"5\r", kMinutes, false, {5}},
        {"5-6-7", kMinutes, false, {5, 6}},
        {"mon", kMinutes, false, none},
        {"mo", kWeekdays, false, none},
        {"feb", kWeekdays, false, none},
        {"+5", kMinutes, false, none},
    };
    for (const auto &row : rows) {
        const Parsed parsed = parse(row.text, row.field);
        EXPECT_EQ(parsed.valid, row.valid) << row.text;
        EXPECT_EQ(parsed.set, row.set) << row.text << " of " << row.field.count;
        if (row.valid) {
            EXPECT_EQ(parsed.rest, row.rest) << row.text;
        }
    }
    EXPECT_TRUE(parse("*/4294967297", kMinutes).valid);  // a step beyond the field: its first value alone
    EXPECT_EQ(parse("*/4294967297", kMinutes).set, std::set<int>{0});
}

TEST(Field, EveryRangeAndStepAsAPlainReadingHasIt) {
    for (const Field &field : {kMinutes, kHours, kDays, kMonths, kWeekdays})
        for (int low = 0; low < field.count; low++)
            for (int high = 0; high < field.count; high++)
                for (int step = 1; step <= field.count + 1; step++) {
                    const string text = std::to_string(low - field.offset) + "-" + std::to_string(high - field.offset) +
                                        "/" + std::to_string(step);
                    uint8_t flags[60];
                    std::string_view rest(text);
                    ASSERT_TRUE(parse_field(rest, flags, field.count, field.offset, field.names)) << text;
                    ASSERT_EQ(set_of(flags, field.count), plain_set({{low, high, step}}, field.count)) << text;
                }
}

// A period with its sets as a plain reading has them.
struct Plain {
    string text;
    std::set<int> minute, hour, day, month, weekday;
    bool either_day = false;  // both restricted

    bool matches(const cm_tm &at) const {
        const bool by_day = day.count(at.mday) > 0, by_weekday = weekday.count(at.wday) > 0;
        const bool all_days = day.size() == 32, all_weekdays = weekday.size() == 7;
        const bool that_day = all_days && all_weekdays ? true
                              : all_days               ? by_weekday
                              : all_weekdays           ? by_day
                                                       : by_day || by_weekday;
        return that_day && minute.count(at.min) > 0 && hour.count(at.hour) > 0 && month.count(at.mon) > 0;
    }
};

class Periods {
public:
    explicit Periods(unsigned seed) : random_(seed) {}

    Plain draw(bool busy) {
        Plain plain;
        plain.minute = field(plain.text, 60, 0, busy ? 2 : 9);
        plain.hour = field(plain.text, 24, 0, 3);
        plain.day = field(plain.text, 32, 0, 2);
        plain.month = field(plain.text, 12, 1, 3);
        plain.weekday = field(plain.text, 7, 0, 2);
        return plain;
    }

private:
    int up_to(int last) { return std::uniform_int_distribution<int>(0, last)(random_); }

    std::set<int> field(string &text, int count, int shown_from, int often_restricted) {
        std::vector<PlainItem> items;
        if (!text.empty()) text += " ";
        if (up_to(often_restricted) == 0) {
            text += "*";
            return range(0, count - 1);
        }
        for (int i = up_to(2); i >= 0; i--) {
            PlainItem item = {up_to(count - 1), 0, 1};
            item.high = up_to(1) == 0 ? item.low : up_to(count - 1);
            if (up_to(2) == 0) item.step = 1 + up_to(count);
            text += (items.empty() ? "" : ",") + std::to_string(item.low + shown_from) + "-" +
                    std::to_string(item.high + shown_from) + "/" + std::to_string(item.step);
            items.push_back(item);
        }
        return plain_set(items, count);
    }

    std::mt19937 random_;
};

struct Tasks {
    std::vector<Plain> plain;
    std::vector<cm_cron_rec> records;

    explicit Tasks(std::vector<Plain> periods) : plain(std::move(periods)), records(plain.size()) {
        for (size_t i = 0; i < records.size(); i++) {
            records[i] = {};
            records[i].next = i + 1 < records.size() ? &records[i + 1] : nullptr;
            std::string_view rest(plain[i].text);
            EXPECT_TRUE(cm::cron::parse_period(rest, cm::cron::sets_of(&records[i]))) << plain[i].text;
            cm::cron::apply_day_rule(cm::cron::sets_of(&records[i]));
        }
    }
    static Tasks random(size_t count, unsigned seed, bool busy = true) {
        Periods periods(seed);
        std::vector<Plain> drawn;
        for (size_t i = 0; i < count; i++) drawn.push_back(periods.draw(busy));
        return Tasks(std::move(drawn));
    }
    bool take_due(size_t i) {
        const bool due = records[i].state == cm::cron::kDue;
        records[i].state = cm::cron::kIdle;
        return due;
    }
};

cm_tm utc(int64_t seconds) {
    using namespace std::chrono;
    const sys_seconds time{std::chrono::seconds(seconds)};
    const auto day = floor<days>(time);
    const year_month_day date(day);
    const hh_mm_ss clock(time - day);
    cm_tm out = {};
    out.min = static_cast<int32_t>(clock.minutes().count());
    out.hour = static_cast<int32_t>(clock.hours().count());
    out.mday = static_cast<int32_t>(unsigned(date.day()));
    out.mon = static_cast<int32_t>(unsigned(date.month())) - 1;
    out.wday = static_cast<int32_t>(weekday(day).c_encoding());
    return out;
}

constexpr int64_t kNewYear2024 = 1704067200;  // a leap year

TEST(Due, EveryMinuteOfAYear) {
    FrozenClock clock;
    clock.set_zone(0);
    Tasks tasks = Tasks::random(12, 1);
    for (int64_t minute = kNewYear2024; minute < kNewYear2024 + 366 * kDay; minute += kMinute) {
        cm::cron::mark_due(tasks.records.data(), minute - kMinute, minute);
        const cm_tm at = utc(minute);
        for (size_t i = 0; i < tasks.records.size(); i++)
            ASSERT_EQ(tasks.take_due(i), tasks.plain[i].matches(at)) << tasks.plain[i].text << " at " << minute;
    }
}

// A zone five hours west whose clocks go forward on 10 March and back on 3 November 2024, at 2 o'clock.
constexpr int64_t kForward = kNewYear2024 + 69 * kDay + 7 * kHour, kBack = kNewYear2024 + 307 * kDay + 6 * kHour;
bool is_summer(int64_t seconds) {
    return seconds >= kForward && seconds < kBack;
}
cm_tm new_york(int64_t seconds) {
    return utc(seconds - 5 * kHour + (is_summer(seconds) ? kHour : 0));
}

TEST(Due, AJumpMarksWhatItsMinutesWouldHave) {
    FrozenClock clock;
    clock.set_zone(5 * 3600, is_summer);
    std::mt19937 random(2);
    for (int round = 0; round < 60; round++) {
        Tasks tasks = Tasks::random(8, 100 + static_cast<unsigned>(round), false);
        const int64_t last = kNewYear2024 + static_cast<int64_t>(random() % (360 * kDay));
        const int64_t now = last + static_cast<int64_t>(random() % (round % 2 == 0 ? 4 * kHour : 12 * kDay));
        cm::cron::mark_due(tasks.records.data(), last, now);
        std::vector<bool> due(tasks.records.size());
        for (int64_t minute = last / 60 * 60 + 60; minute <= now; minute += 60) {
            const cm_tm at = new_york(minute);
            for (size_t i = 0; i < due.size(); i++) due[i] = due[i] || tasks.plain[i].matches(at);
        }
        for (size_t i = 0; i < due.size(); i++)
            EXPECT_EQ(tasks.take_due(i), due[i]) << tasks.plain[i].text << " from " << last << " to " << now;
    }
}

Plain every(const char *text) {
    Plain plain;
    plain.text = text;
    return plain;
}

int times_due(Tasks &tasks, int64_t from, int64_t to) {
    int times = 0;
    for (int64_t minute = from; minute < to; minute += kMinute) {
        cm::cron::mark_due(tasks.records.data(), minute - kMinute, minute);
        times += tasks.take_due(0);
    }
    return times;
}

TEST(Due, SummerTime) {
    FrozenClock clock;
    clock.set_zone(5 * 3600, is_summer);
    Tasks in_the_gap({every("30 2 * * *")}), twice({every("30 1 * * *")}), other({every("30 3 * * *")});
    EXPECT_EQ(times_due(in_the_gap, kForward - 6 * kHour, kForward + 6 * kHour), 0);  // half past two never comes
    EXPECT_EQ(times_due(other, kForward - 6 * kHour, kForward + 6 * kHour), 1);
    EXPECT_EQ(times_due(twice, kBack - 6 * kHour, kBack + 6 * kHour), 2);  // half past one comes twice
    EXPECT_EQ(times_due(in_the_gap, kBack - 6 * kHour, kBack + 6 * kHour), 1);
    // One walk over the whole day sees the same.
    cm::cron::mark_due(in_the_gap.records.data(), kForward - 6 * kHour, kForward + 6 * kHour);
    EXPECT_FALSE(in_the_gap.take_due(0));
    cm::cron::mark_due(twice.records.data(), kBack - 6 * kHour, kBack + 6 * kHour);
    EXPECT_TRUE(twice.take_due(0));
}

TEST(Due, ADayThatTheZoneLeavesOut) {
    // A zone that moves to the other side of the date line: after the 29th comes the 31st.
    FrozenClock clock;
    constexpr int64_t kMove = 1325239200;  // 2011-12-30 10:00 UTC
    os.local_calendar = [](int64_t seconds, cm_tm *out) {
        *out = utc(seconds + (seconds < kMove ? -10 : 14) * kHour);
        return true;
    };
    Tasks tasks({every("0 0 31 12 *")}), never({every("0 12 30 12 *")});
    cm::cron::mark_due(tasks.records.data(), kMove - 2 * kDay, kMove);
    EXPECT_TRUE(tasks.take_due(0));
    cm::cron::mark_due(never.records.data(), kMove - 5 * kDay, kMove + 5 * kDay);
    EXPECT_FALSE(never.take_due(0));
}

TEST(Due, AClockThatJumpedByYears) {
    FrozenClock clock;
    clock.set_zone(5 * 3600, is_summer);
    std::vector<Plain> periods(500, every("0 0 30 2 *"));  // never comes
    periods.resize(999, every("59 23 29 2 *"));
    periods.push_back(every("0 0 31 12 *"));
    Tasks tasks(std::move(periods));
    const auto began = std::chrono::steady_clock::now();
    cm::cron::mark_due(tasks.records.data(), kNewYear2024, kNewYear2024 + 3652 * kDay);
    EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::seconds(1));
    EXPECT_FALSE(tasks.take_due(0));
    EXPECT_TRUE(tasks.take_due(500));
    EXPECT_TRUE(tasks.take_due(999));
    // Since the year 1 is no longer than that.
    cm::cron::mark_due(tasks.records.data(), -62000000000, kNewYear2024);
    EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::seconds(2));
    EXPECT_TRUE(tasks.take_due(500));
}

TEST(Due, OnlyIdleTasksAndOnlyMinutesAfterTheLast) {
    FrozenClock clock;
    clock.set_zone(0);
    Tasks tasks({every("* * * * *"), every("* * * * *"), every("* * * * *")});
    tasks.records[1].state = cm::cron::kRunning;
    cm::cron::mark_due(tasks.records.data(), kNewYear2024, kNewYear2024 + 59);
    EXPECT_EQ(tasks.records[0].state, cm::cron::kIdle);
    cm::cron::mark_due(tasks.records.data(), kNewYear2024 + 59, kNewYear2024 + 60);
    EXPECT_EQ(tasks.records[0].state, cm::cron::kDue);
    EXPECT_EQ(tasks.records[1].state, cm::cron::kRunning);
    EXPECT_EQ(tasks.records[2].state, cm::cron::kDue);
    cm::cron::mark_due(tasks.records.data(), kNewYear2024 + 120, kNewYear2024);  // backwards
    cm::cron::mark_due(nullptr, 0, kNewYear2024);
}

TEST(DayRule, RestrictedDaysWin) {
    const struct {
        const char *period;
        std::set<int> day, weekday;
    } rows[] = {
        {"0 0 * * *", range(0, 31), range(0, 6)},
        {"0 0 * * mon-fri", {}, range(1, 5)},
        {"0 0 1 * *", {1}, {}},
        {"0 0 1 * mon", {1}, {1}},
        {"0 0 1-31 * *", range(1, 31), {}},  // counts as restricted
        {"0 0 0-31 * mon", {}, {1}},         // does not
        {"0 0 * * 0-6", range(0, 31), range(0, 6)},
    };
    for (const auto &row : rows) {
        const Tasks tasks({every(row.period)});
        EXPECT_EQ(set_of(tasks.records[0].day, 32), row.day) << row.period;
        EXPECT_EQ(set_of(tasks.records[0].weekday, 7), row.weekday) << row.period;
    }
}

TEST(DayRule, FirstOfTheMonthAndEveryMonday) {
    FrozenClock clock;
    clock.set_zone(0);
    Tasks tasks({every("0 0 1 * mon")});
    int expected = 0;
    for (int64_t day = kNewYear2024; day < kNewYear2024 + 366 * kDay; day += kDay)
        expected += utc(day).mday == 1 || utc(day).wday == 1;
    EXPECT_EQ(times_due(tasks, kNewYear2024, kNewYear2024 + 366 * kDay), expected);
}

}  // namespace
