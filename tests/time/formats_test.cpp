// The formats of the current time and of calendar records.
#include <ctime>
#include <limits>
#include <thread>
#include <vector>

#include "clock.h"

namespace {

constexpr int32_t kBerlin = -3600, kIndia = -19800, kNewYork = 18000, kNewfoundland = 12600;

class Formats : public ClockTest {};

TEST_F(Formats, EveryCodeOfTheCurrentTime) {
    set(1025773505, kBerlin, true);  // 09:05:05 GMT is 11:05:05 in a Berlin summer
    const struct {
        int32_t code;
        const char *text;
    } rows[] = {{1, "Thu, 04 Jul 2002 11:05:05"},
                {2, "5"},
                {3, "11"},
                {4, "5"},
                {5, "5"},
                {6, "4"},
                {7, "7"},
                {8, "2002"},
                {9, "Thu, 04 Jul 2002 09:05:05"},
                {10, "2002-07-04 11:05:05"},
                {11, "Thu Jul 04 11:05:05 2002"},
                {12, "02:00"},
                {13, "02/07/04 11:05:05"},
                {14, "[2002-07-04 11:05:05]"},
                {15, "1025773505"}};
    for (const auto &row : rows) EXPECT_EQ(datetime(row.code), row.text) << "code " << row.code;
    for (const int32_t unknown : {0, 16, -1}) EXPECT_EQ(datetime(unknown), "") << unknown;
}

TEST_F(Formats, TwoDigitYearOfCode13) {
    set(915148800);  // 1999-01-01
    EXPECT_EQ(datetime(13), "99/01/01 00:00:00");
    set(946684800);  // 2000-01-01
    EXPECT_EQ(datetime(13), "00/01/01 00:00:00");
}

TEST_F(Formats, TextsAreCutToTheSizeButTheShortNumbersAreNot) {
    for (const int32_t code : {1, 9, 10, 11, 12, 13, 14, 15}) {
        const std::string whole = datetime(code);
        const int32_t length = static_cast<int32_t>(whole.size());
        for (int32_t size = 1; size <= length + 2; size++) {
            char text[64];
            memset(text, '#', sizeof text);
            int32_t stored = -1;
            EXPECT_EQ(cm_datetime(code, text, size, &stored), 1);
            EXPECT_EQ(std::string(text), whole.substr(0, static_cast<size_t>(size - 1))) << code << " in " << size;
            EXPECT_EQ(stored, std::min(size - 1, length));
            EXPECT_EQ(text[size <= length ? size : length + 1], '#') << code << " in " << size;
        }
    }
    EXPECT_EQ(datetime(8, 0), "2002");
    char text[4] = "abc";
    EXPECT_EQ(cm_datetime(10, text, 0, nullptr), 0);
    EXPECT_STREQ(text, "abc");
    EXPECT_EQ(cm_datetime(10, nullptr, 10, nullptr), 0);
}

TEST_F(Formats, ZoneFieldsKeepTheirPeculiarities) {
    const struct {
        const char *zone;
        int32_t bias;
        bool summer;
        const char *code12, *stamp;
    } rows[] = {{"GMT", 0, false, "00:00", "+0000"},
                {"Berlin", kBerlin, false, "01:00", "+0100"},
                {"Berlin in summer", kBerlin, true, "02:00", "+0200"},
                {"India: half hours vanish", kIndia, false, "05:00", "+0500"},
                {"New York", kNewYork, false, "-5:00", "-0500"},
                {"New York in summer", kNewYork, true, "-4:00", "-0400"},
                {"Newfoundland: the sign stays in both fields", kNewfoundland, false, "-3:-1800", "-0300"},
                {"London in summer", 0, true, "01:00", "+0100"},
                {"a hundred seconds", -100, false, "00:100", "+00100"},
                {"a hundred and one", -101, false, "00:00", "+0000"},
                {"a hundred hours", -360000, false, "100:00", "+10000"},
                {"over a hundred hours", -363600, false, "00:00", "+0000"},
                {"half an hour west", 1800, false, "00:-1800", "-0000"}};
    int64_t second = 1025773505;
    for (const auto &row : rows) {
        set(second++, row.bias, row.summer);
        EXPECT_EQ(datetime(12), row.code12) << row.zone;
        char text[64];
        int32_t length = 0;
        EXPECT_EQ(cm_timestamp(nullptr, text, sizeof text, &length), 1);
        EXPECT_EQ(std::string(text).substr(22), row.stamp + std::string("]")) << row.zone;
    }
}

TEST_F(Formats, AccessLogStamp) {
    set(1041379199 - 3600, kBerlin);  // the last second of 2002 in Berlin
    char text[64];
    int32_t length = 0;
    cm_stamp record;
    ASSERT_EQ(cm_timestamp(&record, text, sizeof text, &length), 1);
    EXPECT_STREQ(text, "[31/Dec/2002:23:59:59 +0100]");
    EXPECT_EQ(length, 28);
    EXPECT_EQ(record.sec, 59);
    EXPECT_EQ(record.min, 59);
    EXPECT_EQ(record.hour, 23);
    EXPECT_EQ(record.mday, 31);
    EXPECT_EQ(record.wday, 2);
    EXPECT_EQ(record.mon, 12);
    EXPECT_EQ(record.year, 2002);
    EXPECT_EQ(record.yday, 365);

    EXPECT_EQ(cm_timestamp(nullptr, text, 5, &length), 1);
    EXPECT_STREQ(text, "[31/");
    EXPECT_EQ(length, 4);
    EXPECT_EQ(cm_timestamp(&record, text, 0, &length), 1);
    EXPECT_STREQ(text, "[31/");
    EXPECT_EQ(length, 0);
    EXPECT_EQ(cm_timestamp(&record, nullptr, 64, nullptr), 1);
}

TEST_F(Formats, RecordsAsIsoAndRfc822) {
    const cm_tm record = {7, 5, 9, 4, 6, 102, 4, 184, 0};
    char text[64];
    EXPECT_EQ(cm_timeISO8601(text, sizeof text, &record), 1);
    EXPECT_STREQ(text, "2002-07-04T09:05:07Z");
    EXPECT_EQ(cm_time822(text, sizeof text, &record), 1);
    EXPECT_STREQ(text, "Thu, 04 Jul 2002 09:05:07 GMT");
    EXPECT_EQ(cm_time822(text, 12, &record), 1);
    EXPECT_STREQ(text, "Thu, 04 Jul");
    EXPECT_EQ(cm_timeISO8601(text, sizeof text, nullptr), 1);
    EXPECT_STREQ(text, "2002-07-04T09:05:05Z");
    EXPECT_EQ(cm_time822(text, sizeof text, nullptr), 1);
    EXPECT_STREQ(text, "Thu, 04 Jul 2002 09:05:05 GMT");
    EXPECT_EQ(cm_curtime(784111777, text, sizeof text), 1);
    EXPECT_STREQ(text, "Sun, 06 Nov 1994 08:49:37 GMT");
    EXPECT_EQ(cm_curtime(0xFFFFFFFF, text, sizeof text), 0);
    EXPECT_STREQ(text, "");
}

TEST_F(Formats, RecordsThatAreNoDates) {
    char text[128];
    for (const int32_t bad : {-1, 12, std::numeric_limits<int32_t>::max()}) {
        cm_tm record{};
        record.mon = bad;
        EXPECT_EQ(cm_time822(text, sizeof text, &record), 0);
        EXPECT_STREQ(text, "");
        EXPECT_EQ(cm_timeISO8601(text, sizeof text, &record), 0);
        record.mon = 0;
        record.wday = bad;
        EXPECT_EQ(cm_time822(text, sizeof text, &record), 0);
    }
    // Whatever else a record holds is printed as the number that it is.
    const int32_t least = std::numeric_limits<int32_t>::min();
    const cm_tm record = {least, 100, -5, least, 0, least, 0, 0, 0};
    EXPECT_EQ(cm_time822(text, sizeof text, &record), 1);
    EXPECT_STREQ(text, "Sun, -2147483648 Jan -2147481748 -05:100:-2147483648 GMT");
}

TEST_F(Formats, AClockThatCannotBeReadGivesEmptyTexts) {
    const auto expect_nothing = [this](bool gmt_too) {
        for (int32_t code = 1; code <= 15; code++) {
            if (code == 9 && !gmt_too) continue;
            EXPECT_EQ(datetime(code), "") << "code " << code;
        }
        char text[64] = "x";
        cm_stamp stamp;
        int32_t length = 7;
        EXPECT_EQ(cm_timestamp(&stamp, text, sizeof text, &length), 0);
        EXPECT_STREQ(text, "");
        EXPECT_EQ(length, 0);
        EXPECT_EQ(cm::time::log_stamp(text), 0u);
        cm_tm record;
        EXPECT_EQ(cm_time(0, 0, &record), 0);
        EXPECT_EQ(record.mday, 1);
        EXPECT_EQ(record.year, 0);
    };
    set(1025773506);
    state().convertible = false;
    expect_nothing(false);
    state().readable = false;
    expect_nothing(true);
    uint32_t seconds = 0;
    EXPECT_EQ(cm_cursec(&seconds), 0xFFFFFFFFu);
    EXPECT_EQ(seconds, 0xFFFFFFFFu);
    EXPECT_EQ(cm_curmsec(&seconds), 0);
    char text[8] = "x";
    EXPECT_EQ(cm_time822(text, sizeof text, nullptr), 0);
    EXPECT_STREQ(text, "");
}

TEST_F(Formats, SecondsAndMilliseconds) {
    state().milliseconds = 250;
    uint32_t out = 0;
    EXPECT_EQ(cm_cursec(&out), 1025773505u);
    EXPECT_EQ(out, 1025773505u);
    EXPECT_EQ(cm_curmsec(&out), 1);
    EXPECT_EQ(out, static_cast<uint32_t>(1025773505250u));
    // Past 2038 and past the last second that 32 bits hold, texts stay right.
    set(4294967296);
    EXPECT_EQ(datetime(10), "2106-02-07 06:28:16");
    EXPECT_EQ(datetime(14), "[2106-02-07 06:28:16]");
    EXPECT_EQ(datetime(15), "4294967296");
}

TEST_F(Formats, TheCalendarIsAskedOnceASecond) {
    set(1025773600, kBerlin);
    char stamp[32] = {};
    for (int i = 0; i < 10; i++) ASSERT_EQ(cm::time::log_stamp(stamp), 22u);
    EXPECT_STREQ(stamp, "[2002-07-04 10:06:40] ");
    EXPECT_EQ(datetime(10), "2002-07-04 10:06:40");
    EXPECT_EQ(state().conversions, 1);
    state().seconds++;
    EXPECT_EQ(datetime(14), "[2002-07-04 10:06:41]");
    state().seconds -= 3600;  // a clock set back
    EXPECT_EQ(datetime(14), "[2002-07-04 09:06:41]");
    EXPECT_EQ(state().conversions, 3);
}

TEST_F(Formats, StampsOfManyThreadsAreNeverTorn) {
    // Minute, second and day of month move together with the clock's second, so a mixture of two seconds shows.
    static std::atomic<int64_t> now{0};
    os.wall_clock = [](WallTime *out) {
        *out = {now.fetch_add(1) % 7 * 90061 + 1000000000, 0};
        return true;
    };
    os.local_calendar = [](int64_t seconds, cm_tm *out) { return cm::time::gmt_calendar(seconds, out); };
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

// ---- calendars ------------------------------------------------------------------------------------------------------

// The calendar one second at a time, as a clock on a wall would do it.
void tick_day(cm_tm *day) {
    static constexpr int32_t kDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    const int32_t year = day->year + 1900;
    const bool leap = year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
    day->wday = (day->wday + 1) % 7;
    day->yday++;
    if (++day->mday <= kDays[day->mon] + (day->mon == 1 && leap ? 1 : 0)) return;
    day->mday = 1;
    if (++day->mon < 12) return;
    day->mon = day->yday = 0;
    day->year++;
}

TEST(Calendar, EveryDayOfSecondsIn32Bits) {
    cm_tm day = {0, 0, 0, 1, 0, 70, 4, 0, 0};  // Thu, 1 Jan 1970
    for (int64_t number = 0; number < 49711; number++, tick_day(&day)) {
        for (const int64_t second : {int64_t{0}, int64_t{86399}, number * 7919 % 86400}) {
            const int64_t seconds = number * 86400 + second;
            if (seconds >= 0xFFFFFFFF || seconds == 0) continue;
            cm_tm expected = day, got;
            expected.hour = static_cast<int32_t>(second / 3600);
            expected.min = static_cast<int32_t>(second / 60 % 60);
            expected.sec = static_cast<int32_t>(second % 60);
            ASSERT_EQ(cm_time(static_cast<uint32_t>(seconds), 1, &got), 1);
            ASSERT_EQ(memcmp(&got, &expected, sizeof got), 0) << seconds;
            ASSERT_EQ(cm_tm2sec(&got), got.year < 138 ? seconds : 0) << seconds;
        }
    }
}

TEST(Calendar, AgreesWithTheSystem) {
    for (int64_t seconds = 1; seconds < 0xFFFFFFFF; seconds += 86477 * 3) {
        const std::time_t t = static_cast<std::time_t>(seconds);
        const std::tm expected = *std::gmtime(&t);
        cm_tm got;
        ASSERT_EQ(cm_time(static_cast<uint32_t>(seconds), 1, &got), 1);
        const int32_t fields[] = {expected.tm_sec,  expected.tm_min,  expected.tm_hour,
                                  expected.tm_mday, expected.tm_mon,  expected.tm_year,
                                  expected.tm_wday, expected.tm_yday, expected.tm_isdst};
        ASSERT_EQ(memcmp(&got, fields, sizeof got), 0) << seconds;
    }
}

TEST(Calendar, EdgesOfTheStep) {
    cm_tm record;
    EXPECT_TRUE(cm::time::gmt_calendar(-62167219200, &record));  // 0000-01-01
    EXPECT_EQ(record.year, -1900);
    EXPECT_EQ(record.mon * 100 + record.mday, 1);
    EXPECT_EQ(record.wday, 6);
    EXPECT_FALSE(cm::time::gmt_calendar(-62167219201, &record));
    EXPECT_TRUE(cm::time::gmt_calendar(253402300799, &record));  // 9999-12-31
    EXPECT_EQ(record.year, 8099);
    EXPECT_EQ(record.yday, 364);
    EXPECT_FALSE(cm::time::gmt_calendar(253402300800, &record));
    EXPECT_TRUE(cm::time::gmt_calendar(-1, &record));
    EXPECT_EQ(record.year, 69);
    EXPECT_EQ(record.sec, 59);
}

TEST_F(Formats, RecordOfGivenSecondsInLocalTime) {
    state().bias = kIndia;
    cm_tm record;
    EXPECT_EQ(cm_time(784111777, 0, &record), 1);
    EXPECT_EQ(record.hour * 100 + record.min, 1419);
    EXPECT_EQ(cm_time(784111777, 2, &record), 1);  // anything but 1 is local
    EXPECT_EQ(record.hour, 14);
    EXPECT_EQ(cm_time(0, 1, &record), 1);
    EXPECT_EQ(record.hour * 100 + record.min, 905);
    EXPECT_EQ(cm_time(0xFFFFFFFF, 1, &record), 0);
    EXPECT_EQ(record.mday, 1);
    EXPECT_EQ(record.year, 0);
    state().convertible = false;
    EXPECT_EQ(cm_time(784111777, 0, &record), 0);
    EXPECT_EQ(record.mday, 1);
    EXPECT_EQ(cm_time(1, 1, nullptr), 0);
}

TEST(Calendar, SecondsOfARecordThatIsNoDate) {
    EXPECT_EQ(cm_tm2sec(nullptr), 0u);
    const int32_t most = std::numeric_limits<int32_t>::max();
    const struct {
        const char *what;
        cm_tm record;
        uint32_t seconds;
    } rows[] = {{"1969", {0, 0, 0, 31, 11, 69, 0, 0, 0}, 0},
                {"the last year", {59, 59, 23, 31, 11, 137, 0, 0, 0}, 2145916799},
                {"2038", {0, 0, 0, 1, 0, 138, 0, 0, 0}, 0},
                {"month 12", {0, 0, 0, 1, 12, 100, 0, 0, 0}, 0},
                {"month -1", {0, 0, 0, 1, -1, 100, 0, 0, 0}, 0},
                {"before 1970", {0, 0, -1, 1, 0, 70, 0, 0, 0}, 0},
                {"31 February is 3 March", {0, 0, 0, 31, 1, 102, 0, 0, 0}, 1015113600},
                {"the next day's hour", {0, 0, 25, 1, 0, 70, 0, 0, 0}, 90000},
                {"too big to say", {most, most, most, most, 11, 137, 0, 0, 0}, 0}};
    for (const auto &row : rows) EXPECT_EQ(cm_tm2sec(&row.record), row.seconds) << row.what;
}

}  // namespace
