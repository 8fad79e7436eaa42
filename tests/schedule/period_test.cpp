// Periods: fields, the day rule, and which minutes make tasks due.
#include <map>
#include <random>
#include <set>

#include "scheduler.h"
#include "support/data.h"
#include "support/replace.h"

using namespace cm::test;
using std::string;
using std::to_string;

namespace {

struct Field {
    int32_t count, offset;
    const char *const *names;
};
const std::map<string, Field> kFields = {{"minute", {60, 0, nullptr}},
                                         {"hour", {24, 0, nullptr}},
                                         {"day", {32, 0, nullptr}},
                                         {"month", {12, -1, MonAry}},
                                         {"weekday", {7, 0, DowAry}}};

// "0-2,22,23"
string values(const uint8_t *flags, int count) {
    string text;
    for (int i = 0, last; i < count; i = last + 1) {
        for (last = i; last < count && flags[last] != 0;) last++;
        if (last == i) continue;
        text += (text.empty() ? "" : ",") + to_string(i);
        if (last - i > 1) text += (last - i > 2 ? "-" : ",") + to_string(last - 1);
    }
    return text;
}

bool parse(std::string_view &text, const Field &field, uint8_t *flags) {
    return cm::cron::parse_field(text, flags, field.count, field.offset, field.names);
}

TEST(Field, Table) {
    for (const Row &row : rows("schedule/fields")) {
        const Field &field = kFields.at(row[0]);
        uint8_t flags[61];
        memset(flags, 1, sizeof flags);
        std::string_view rest(row[1]);
        EXPECT_EQ(parse(rest, field, flags), row.fields.size() > 3) << row.where;
        EXPECT_EQ(values(flags, field.count), row[2]) << row.where;
        EXPECT_TRUE(row.fields.size() < 4 || rest == row[3]) << row.where;
        EXPECT_EQ(flags[field.count], 1) << row.where;
    }
}

// A second, plain reading of "low-high/step".
std::set<int> plain_set(int low, int high, int step, int count) {
    std::set<int> set;
    for (int i = 0; i <= (high - low + count) % count; i += step) set.insert((low + i) % count);
    return set;
}

TEST(Field, EveryRangeAndStep) {
    for (const auto &[name, field] : kFields)
        for (int low = 0; low < field.count; low++)
            for (int high = 0; high < field.count; high++)
                for (int step = 1; step <= field.count + 1; step++) {
                    const string text =
                        to_string(low - field.offset) + "-" + to_string(high - field.offset) + "/" + to_string(step);
                    uint8_t flags[60];
                    std::string_view rest(text);
                    ASSERT_TRUE(parse(rest, field, flags)) << text;
                    const std::set<int> expected = plain_set(low, high, step, field.count);
                    for (int i = 0; i < field.count; i++) ASSERT_EQ(flags[i], expected.count(i)) << name << text << i;
                }
}

// Tasks with the sets of a plain reading beside them.
struct Tasks {
    struct Plain {
        string text;
        std::set<int> minute, hour, day, month, weekday;
    };
    std::vector<Plain> plain;
    std::vector<cm_cron_rec> records;

    explicit Tasks(std::vector<Plain> periods) : plain(std::move(periods)), records(plain.size()) {
        for (size_t i = 0; i < records.size(); i++) {
            records[i] = {};
            if (i > 0) records[i - 1].next = &records[i];
            std::string_view rest(plain[i].text);
            EXPECT_TRUE(cm::cron::parse_period(rest, cm::cron::sets_of(&records[i]))) << plain[i].text;
            cm::cron::apply_day_rule(cm::cron::sets_of(&records[i]));
        }
    }
    explicit Tasks(const char *period) : Tasks(std::vector<Plain>{{period, {}, {}, {}, {}, {}}}) {}
    Tasks(size_t count, std::mt19937 &random) : Tasks(drawn(count, random)) {}

    void mark(int64_t last, int64_t now) { cm::cron::mark_due(records.data(), last, now); }
    bool take_due(size_t i = 0) { return std::exchange(records[i].state, cm::cron::kIdle) == cm::cron::kDue; }
    bool matches(size_t i, const cm_tm &at) const {
        const Plain &task = plain[i];
        const bool day = task.day.count(at.mday) > 0, weekday = task.weekday.count(at.wday) > 0;
        const bool any_day = task.day.size() == 32, any_weekday = task.weekday.size() == 7;
        return (any_day       ? weekday
                : any_weekday ? day
                              : day || weekday) &&
               task.minute.count(at.min) > 0 && task.hour.count(at.hour) > 0 && task.month.count(at.mon) > 0;
    }
    // One walk over these minutes, beside a look at each of them.
    void check(int64_t last, int64_t now) {
        std::vector<bool> expected(records.size());
        for (int64_t minute = last / 60 * 60 + 60; minute <= now; minute += 60) {
            cm_tm at;
            os.local_calendar(minute, &at);
            for (size_t i = 0; i < records.size(); i++) expected[i] = expected[i] || matches(i, at);
        }
        mark(last, now);
        for (size_t i = 0; i < records.size(); i++)
            ASSERT_EQ(take_due(i), expected[i]) << plain[i].text << " from " << last << " to " << now;
    }

private:
    static std::set<int> draw(string &text, int count, int shown_from, std::mt19937 &random) {
        const auto below = [&](int limit) { return static_cast<int>(random() % static_cast<unsigned>(limit)); };
        std::set<int> set;
        text += text.empty() ? "" : " ";
        if (below(3) == 0) return text += "*", plain_set(0, count - 1, 1, count);
        for (int items = below(3); items >= 0; items--) {
            const int low = below(count), high = below(2) == 0 ? low : below(count), step = 1 + below(3) * below(count);
            text += to_string(low + shown_from) + "-" + to_string(high + shown_from) + "/" + to_string(step);
            text += items > 0 ? "," : "";
            set.merge(plain_set(low, high, step, count));
        }
        return set;
    }
    static std::vector<Plain> drawn(size_t count, std::mt19937 &random) {
        std::vector<Plain> periods(count);
        for (Plain &plain : periods) {
            plain.minute = draw(plain.text, 60, 0, random);
            plain.hour = draw(plain.text, 24, 0, random);
            plain.day = draw(plain.text, 32, 0, random);
            plain.month = draw(plain.text, 12, 1, random);
            plain.weekday = draw(plain.text, 7, 0, random);
        }
        return periods;
    }
};

// A zone five hours west whose clocks go forward on 10 March and back on 3 November 2024, at 2 o'clock.
constexpr int64_t kNewYear2024 = 1704067200;
constexpr int64_t kForward = kNewYear2024 + 69 * kDay + 7 * kHour, kBack = kNewYear2024 + 307 * kDay + 6 * kHour;

struct Due : testing::Test {
    Due() {
        clock.set_zone(5 * 3600, [](int64_t seconds) { return seconds >= kForward && seconds < kBack; });
    }
    FrozenClock clock;
    std::mt19937 random{1};
};

TEST_F(Due, EveryMinuteOfAYearWithSummerTime) {
    Tasks tasks(12, random);
    for (int64_t minute = kNewYear2024; minute < kNewYear2024 + 366 * kDay; minute += kMinute)
        tasks.check(minute - kMinute, minute);
}

TEST_F(Due, AJumpMarksWhatItsMinutesWouldHave) {
    for (int round = 0; round < 60; round++) {
        const int64_t last = kNewYear2024 + static_cast<int64_t>(random() % (360 * kDay));
        Tasks(8, random).check(last, last + static_cast<int64_t>(random() % (round % 2 == 0 ? 4 * kHour : 12 * kDay)));
    }
}

TEST_F(Due, ADayThatTheZoneLeavesOut) {
    // A zone that moves to the other side of the date line: after the 29th comes the 31st.
    constexpr int64_t kMove = 1325239200;  // 2011-12-30 10:00 UTC
    clock.set_zone(0);
    const auto zoned = os.local_calendar;
    const Replace<&cm::platform::Table::local_calendar> moving(
        [&](int64_t seconds, cm_tm *out) { return zoned(seconds + (seconds < kMove ? -10 : 14) * kHour, out); });
    Tasks tasks("0 0 31 12 *"), never("0 12 30 12 *");
    tasks.mark(kMove - 2 * kDay, kMove);
    EXPECT_TRUE(tasks.take_due());
    never.mark(kMove - 5 * kDay, kMove + 5 * kDay);
    EXPECT_FALSE(never.take_due());
}

TEST_F(Due, AClockThatJumpedByYears) {
    int looks = 0;
    const auto zoned = os.local_calendar;
    const Replace<&cm::platform::Table::local_calendar> counting(
        [&](int64_t seconds, cm_tm *out) { return looks++, zoned(seconds, out); });
    std::vector<Tasks::Plain> periods(500, {"0 0 30 2 *", {}, {}, {}, {}, {}});  // never comes
    periods.resize(999, {"59 23 29 2 *", {}, {}, {}, {}, {}});
    periods.push_back({"0 0 31 12 *", {}, {}, {}, {}, {}});
    Tasks tasks(std::move(periods));
    for (const int64_t last : {kNewYear2024, INT64_C(-62000000000)}) {  // the year 1 is no longer than ten years
        tasks.mark(last, kNewYear2024 + 3652 * kDay);
        EXPECT_FALSE(tasks.take_due(0));
        EXPECT_TRUE(tasks.take_due(500));
        EXPECT_TRUE(tasks.take_due(999));
    }
    EXPECT_LT(looks, 40000);  // of more than ten million minutes
    tasks.mark(kNewYear2024, kNewYear2024 - kDay);
    cm::cron::mark_due(nullptr, 0, kNewYear2024);
}

TEST(DayRule, RestrictedDaysWin) {
    for (const Row &row : rows("schedule/days")) {
        const Tasks tasks(row.text(0));
        EXPECT_EQ(values(tasks.records[0].day, 32), row[1]) << row.where;
        EXPECT_EQ(values(tasks.records[0].weekday, 7), row[2]) << row.where;
    }
}

}  // namespace
