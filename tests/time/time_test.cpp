// Times and dates: the formats of the current time and of calendar records, calendars, and the parsers.
#include <ctime>

#include "core/cmstamp.h"
#include "support/replace.h"
#include "support/scenario.h"

namespace {

using namespace cm::test;
using cm::platform::Table;
using std::string;

constexpr int64_t kNow = 1025773505;  // Thu, 04 Jul 2002 09:05:05 GMT

// A clock and a zone, and every function of time; the steps of data/times.txt and data/formats.txt.
struct Times : World {
    explicit Times(const Row & = {}) {
        zone(kNow, 0, false);
        on("now",
           [this](auto &words) { zone(words.number(0), static_cast<int32_t>(words.number(1)), words[2] == "summer"); });
        on("later", [this](auto &words) { clock.set(clock.seconds() + words.number(0), 250); });
        on("no-clock", [this](auto &) { clock.fail(true); });
        on("no-calendar", [this](auto &words) {
            const Replace<&Table::local_calendar> broken([](auto...) { return false; });
            return run(words);
        });
        on("datetime", [this](auto &words) { return datetime(static_cast<int32_t>(words.number(0))); });
        on("every-datetime", [this](auto &) {
            string all;
            for (int32_t code = 1; code <= 15; code++) all += datetime(code);
            return all;
        });
        on("stamp", [this](auto &words) {
            int32_t length = 7;
            const int16_t done = cm_timestamp(nullptr, text, static_cast<int32_t>(words.number(0)), &length);
            return std::to_string(done) + " " + text + " " + std::to_string(length);
        });
        on("stamp-zone", [this](auto &) {
            EXPECT_EQ(cm_timestamp(nullptr, text, sizeof text, nullptr), 1);
            return string(text + 22);
        });
        on("stamp-fields", [](auto &) {
            cm_stamp one;
            const int16_t done = cm_timestamp(&one, nullptr, 64, nullptr);
            return numbers({done, one.sec, one.min, one.hour, one.mday, one.wday, one.mon, one.year, one.yday});
        });
        on("log-stamp", [this](auto &) { return string(text, cm::time::log_stamp(text)); });
        on("conversions", [this](auto &) {
            int32_t count = 0;
            const Replace<&Table::local_calendar> counted(
                [&](int64_t seconds, cm_tm *out) { return count++, counted.real(seconds, out); });
            for (int i = 0; i < 10; i++) EXPECT_EQ(cm::time::log_stamp(text), 22u);
            datetime(14);
            return count;
        });
        on("seconds", [](auto &) {
            uint32_t out = 0;
            EXPECT_EQ(cm_cursec(&out), out);
            return out;
        });
        on("milliseconds", [](auto &) {
            uint32_t out = 0;
            return cm_curmsec(&out) == 1 ? std::to_string(out) : "-";
        });
        on("iso8601", [this](auto &words) { return made(cm_timeISO8601(text, sizeof text, record(words, 0))); });
        on("rfc822", [this](auto &words) {
            return made(cm_time822(text, static_cast<int32_t>(words.number(0)), record(words, 1)));
        });
        on("curtime",
           [this](auto &words) { return made(cm_curtime(static_cast<uint32_t>(words.number(0)), text, sizeof text)); });
        on("fields", [this](auto &words) {
            const bool made = cm_time(static_cast<uint32_t>(words.number(0)), words.number(1) != 0 ? 1 : 2, &calendar);
            return (made ? "" : "refused ") + fields();
        });
        on("calendar",
           [this](auto &words) { return cm::time::gmt_calendar(words.number(0), &calendar) ? fields() : "-"; });
        on("seconds-of", [this](auto &words) { return cm_tm2sec(record(words, 0)); });
    }
    // The library keeps the calendar of a second, so it is shown another one before.
    void zone(int64_t seconds, int32_t bias, bool summer) {
        int64_t ignored;
        clock.set_zone(bias, [summer](int64_t) { return summer; });
        clock.set(0);
        cm::time::local_now(&ignored, &calendar);
        clock.set(seconds);
    }
    string datetime(int32_t code) {
        int32_t length = -1;
        const string done = made(cm_datetime(code, text, sizeof text, &length));
        EXPECT_EQ(length, static_cast<int32_t>(done.size())) << "code " << code;
        return done;
    }
    string made(int16_t result) const {
        EXPECT_EQ(result == 1, text[0] != '\0');
        return text;
    }
    // Null without words.
    const cm_tm *record(const Words &words, size_t first) {
        const auto number = [&](size_t index) { return static_cast<int32_t>(words.number(first + index)); };
        calendar = {number(0), number(1), number(2), number(3), number(4), number(5), number(6), 0, 0};
        return words.count() > first ? &calendar : nullptr;
    }
    static string numbers(const std::vector<int32_t> &all) {
        string out;
        for (const int32_t number : all) out += (out.empty() ? "" : " ") + std::to_string(number);
        return out;
    }
    string fields() const {
        return numbers({calendar.sec, calendar.min, calendar.hour, calendar.mday, calendar.mon, calendar.year,
                        calendar.wday, calendar.yday});
    }

    FrozenClock clock;
    char text[128] = "untouched";
    cm_tm calendar;
};
SCENARIOS(Formats, Times, "time/formats");
SCENARIOS(TimesAndCalendars, Times, "time/times");

struct TimesTest : testing::Test, Times {};

TEST_F(TimesTest, TextsAreCutToTheSizeButTheShortNumbersAreNot) {
    for (const int32_t code : {1, 9, 10, 11, 12, 13, 14, 15}) {
        const string whole = datetime(code);
        const int32_t length = static_cast<int32_t>(whole.size());
        for (int32_t size = 1; size <= length + 2; size++) {
            memset(text, '#', sizeof text);
            int32_t stored = -1;
            EXPECT_EQ(cm_datetime(code, text, size, &stored), 1);
            EXPECT_EQ(text, whole.substr(0, static_cast<size_t>(size - 1))) << code << " in " << size;
            EXPECT_EQ(stored, std::min(size - 1, length));
            EXPECT_EQ(text[size <= length ? size : length + 1], '#') << code << " in " << size;
        }
    }
    EXPECT_EQ(cm_datetime(8, text, 0, nullptr), 1);
    EXPECT_STREQ(text, "2002");
    EXPECT_EQ(cm_datetime(10, text, 0, nullptr), 0);
    EXPECT_STREQ(text, "2002");
    EXPECT_EQ(cm_datetime(10, nullptr, 10, nullptr), 0);
}

TEST(TimesOfManyThreads, AreNeverTorn) {
    // Minute, second and day of month move together with the clock's second, so a mixture of two seconds shows.
    static std::atomic<int64_t> now{0};
    const Replace<&Table::wall_clock> wall([](cm::platform::WallTime *out) {
        *out = {now.fetch_add(1) % 7 * 90061 + 1000000000, 0};
        return true;
    });
    const Replace<&Table::local_calendar> local(cm::time::gmt_calendar);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++)
        threads.emplace_back([] {
            for (int i = 0; i < 50000; i++) {
                int64_t seconds = 0;
                cm_tm got, expected;
                ASSERT_TRUE(cm::time::local_now(&seconds, &got));
                ASSERT_TRUE(cm::time::gmt_calendar(seconds, &expected));
                ASSERT_EQ(memcmp(&got, &expected, sizeof got), 0);
            }
        });
    for (auto &thread : threads) thread.join();
}

TEST(Calendar, AgreesWithTheSystemOnEveryDay) {
    for (int64_t seconds = 1; seconds < 0xFFFFFFFF; seconds += 86400 - 7) {
        const std::time_t t = static_cast<std::time_t>(seconds);
        const std::tm expected = *std::gmtime(&t);
        cm_tm got;
        ASSERT_EQ(cm_time(static_cast<uint32_t>(seconds), 1, &got), 1);
        const int32_t fields[] = {expected.tm_sec,  expected.tm_min,  expected.tm_hour,
                                  expected.tm_mday, expected.tm_mon,  expected.tm_year,
                                  expected.tm_wday, expected.tm_yday, expected.tm_isdst};
        ASSERT_EQ(memcmp(&got, fields, sizeof got), 0) << seconds;
        ASSERT_EQ(cm_tm2sec(&got), got.year < 138 ? seconds : 0) << seconds;
    }
    EXPECT_EQ(cm_time(1, 1, nullptr), 0);
}

// ---- the two parsers ------------------------------------------------------------------------------------------------

TEST(ParseDate, TablesOfDates) {
    for (const Row &row : rows("time/http_dates")) EXPECT_EQ(cm_parsedatetime(row.text(0)), row.number(1)) << row.where;
    for (const Row &row : rows("time/calendar_dates")) EXPECT_EQ(cm_parsedate(row.text(0)), row.number(1)) << row.where;
    EXPECT_EQ(cm_parsedatetime(nullptr), 0u);
    EXPECT_EQ(cm_parsedate(nullptr), 0u);
}

TEST(ParseDate, EveryDayOfEveryYearInEveryForm) {
    for (uint32_t seconds = 86400; seconds < 2145916800u; seconds += 86400 + 3661) {
        char text[64];
        cm_tm date;
        ASSERT_EQ(cm_time(seconds, 1, &date), 1);
        ASSERT_EQ(cm_curtime(seconds, text, sizeof text), 1);
        ASSERT_EQ(cm_parsedatetime(text), seconds) << text;
        snprintf(text, sizeof text, "%s %s %2d %02d:%02d:%02d %d", CM__DAY[date.wday], CM__MON[date.mon], date.mday,
                 date.hour, date.min, date.sec, date.year + 1900);
        ASSERT_EQ(cm_parsedatetime(text), seconds) << text;
        snprintf(text, sizeof text, "Xday, %d-%s-%02d %02d:%02d:%02d", date.mday, CM__MON[date.mon], date.year % 100,
                 date.hour, date.min, date.sec);
        ASSERT_EQ(cm_parsedatetime(text), seconds) << text;
        snprintf(text, sizeof text, "%d/%d/%d", date.year + 1900, date.mon + 1, date.mday);
        ASSERT_EQ(cm_parsedate(text), seconds - seconds % 86400) << text;
        snprintf(text, sizeof text, "%02d/%d/%d", date.mon + 1, date.mday, date.year + 1900);
        ASSERT_EQ(cm_parsedate(text), seconds - seconds % 86400) << text;
    }
}

}  // namespace
