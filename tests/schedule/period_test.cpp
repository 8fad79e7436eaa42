// Periods: fields, the day rule, and which minutes make tasks due.
#include <map>
#include <random>
#include <set>

#include "files/cmcron.h"
#include "support/data.h"
#include "support/replace.h"
#include "support/support.h"

using namespace cm::test;
using cm::platform::os;
using std::string;
using std::to_string;
using Strings = std::vector<string>;

namespace {

constexpr int64_t kHour = 3600, kDay = 86400;

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

// All that one item can be: numbers and names, alone and as ranges, with each step; and each one in a list.
TEST(Field, EveryValidItem) {
    for (const auto &entry : kFields) {
        const string &kind = entry.first;
        const Field &field = entry.second;
        string other_text = to_string(1 - field.offset);
        std::set<int> other = {1};
        const auto check = [&](const string &item, const std::set<int> &set) {
            for (const bool list : {false, true}) {
                const string text = list ? other_text + "," + item : item;
                uint8_t flags[60];
                std::string_view rest(text);
                ASSERT_TRUE(parse(rest, field, flags) && rest.empty()) << kind << " " << text;
                for (int i = 0; i < field.count; i++)
                    ASSERT_EQ(flags[i], set.count(i) > 0 || (list && other.count(i) > 0)) << kind << " " << text;
            }
            other_text = item, other = set;
        };
        for (int low = 0; low < field.count; low++)
            for (int high = 0; high < field.count; high++)
                for (int step = 1; step <= field.count + 1; step++)
                    for (int names = 0; names <= (field.names != nullptr); names++) {
                        const auto text = [&](int i) { return names ? field.names[i] : to_string(i - field.offset); };
                        const std::set<int> set = plain_set(low, high, step, field.count);
                        const string steps = step == 1 ? "" : "/" + to_string(step);
                        check(text(low) + "-" + text(high) + steps, set);
                        if (low == high) check(text(low) + steps, set);
                        if (low == 0 && high == field.count - 1) check("*" + steps, set);
                    }
    }
}

// A list of tasks with these periods.
struct Periods {
    explicit Periods(const Strings &texts) : tasks(texts.size()) {
        for (size_t i = 0; i < tasks.size(); i++) {
            tasks[i] = {};
            if (i > 0) tasks[i - 1].next = &tasks[i];
            std::string_view rest(texts[i]);
            EXPECT_TRUE(cm::cron::parse_period(rest, cm::cron::sets_of(&tasks[i]))) << texts[i];
            cm::cron::apply_day_rule(cm::cron::sets_of(&tasks[i]));
        }
    }
    string due(int64_t last, int64_t now) {
        cm::cron::mark_due(tasks.data(), last, now);
        string text;
        for (cm_cron_rec &task : tasks)
            text += std::exchange(task.state, cm::cron::kIdle) == cm::cron::kDue ? 'x' : '-';
        return text;
    }
    // The same by a look at each minute.
    string plainly_due(int64_t last, int64_t now) {
        string text(tasks.size(), '-');
        for (int64_t minute = last / 60 * 60 + 60; minute <= now; minute += 60) {
            cm_tm at;
            os.local_calendar(minute, &at);
            for (size_t i = 0; i < tasks.size(); i++)
                if (const cm_cron_rec &task = tasks[i]; (task.day[at.mday] || task.weekday[at.wday]) &&
                                                        task.minute[at.min] && task.hour[at.hour] && task.month[at.mon])
                    text[i] = 'x';
        }
        return text;
    }
    std::vector<cm_cron_rec> tasks;
};

constexpr int64_t kNewYear2024 = 1704067200;

TEST(Due, AJumpMarksWhatItsMinutesWouldHave) {
    // Five hours west; its clocks go forward on 10 March and back on 3 November 2024, at 2 o'clock.
    FrozenClock clock;
    clock.set_zone(5 * 3600, [](int64_t seconds) {
        return seconds >= kNewYear2024 + 69 * kDay + 7 * kHour && seconds < kNewYear2024 + 307 * kDay + 6 * kHour;
    });
    std::mt19937 random{1};
    const auto below = [&](int limit) { return static_cast<int>(random() % static_cast<unsigned>(limit)); };
    for (int round = 0; round < 60; round++) {
        Strings texts(8);
        for (string &text : texts)
            for (const int first_count : {60, 24, 32, 112, 7}) {
                const int first = first_count / 100, count = first_count % 100, low = below(count);
                const int high = below(2) == 0 ? low : below(count), step = 1 + below(3) * below(count);
                text += below(3) == 0 ? "* "
                                      : to_string(low + first) + "-" + to_string(high + first) + "/" + to_string(step) +
                                            "," + to_string(below(count) + first) + " ";
            }
        Periods periods(texts);
        const int64_t last = kNewYear2024 + static_cast<int64_t>(random() % (360 * kDay));
        const int64_t now = last + static_cast<int64_t>(random() % (round % 2 == 0 ? 4 * kHour : 12 * kDay));
        EXPECT_EQ(periods.due(last, now), periods.plainly_due(last, now)) << last << " to " << now << " " << texts[0];
    }
}

TEST(Due, AClockThatJumpedByTenYearsIsHandledAtOnce) {
    FrozenClock clock;
    clock.set_zone(0);
    int looks = 0;
    const Replace<&cm::platform::Table::local_calendar> counting(
        [&](int64_t seconds, cm_tm *out) { return looks++, counting.real(seconds, out); });
    Strings texts(500, "0 0 30 2 *");  // never comes
    texts.resize(999, "59 23 29 2 *");
    texts.push_back("0 0 31 12 *");
    Periods periods(texts);
    for (const int64_t last : {kNewYear2024, INT64_C(-62000000000)})  // the year 1 is no longer than ten years
        EXPECT_EQ(periods.due(last, kNewYear2024 + 3652 * kDay), string(500, '-') + string(500, 'x'));
    EXPECT_LT(looks, 40000);  // of more than ten million minutes
    EXPECT_EQ(periods.due(kNewYear2024, kNewYear2024 - kDay), string(1000, '-'));
    cm::cron::mark_due(nullptr, 0, kNewYear2024);
}

TEST(DayRule, RestrictedDaysWin) {
    for (const Row &row : rows("schedule/days")) {
        const Periods periods({row[0]});
        EXPECT_EQ(values(periods.tasks[0].day, 32), row[1]) << row.where;
        EXPECT_EQ(values(periods.tasks[0].weekday, 7), row[2]) << row.where;
    }
}

}  // namespace
