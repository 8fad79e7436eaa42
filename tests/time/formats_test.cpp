// The formats of the current time and of calendar records.
#include <ctime>
#include <limits>
#include <thread>

#include "core/cmstamp.h"
#include "support/data.h"
#include "support/replace.h"
#include "support/support.h"

namespace {

using cm::platform::os;
using cm::platform::Table;
using cm::platform::WallTime;
using cm::test::Replace;

constexpr int32_t kBerlin = -3600, kIndia = -19800;
constexpr int64_t kNow = 1025773505;  // Thu, 04 Jul 2002 09:05:05 GMT

class Formats : public testing::Test {
protected:
    Formats() { set(kNow); }
    // The library keeps the calendar of a second, so it is shown another one before.
    void set(int64_t seconds, int32_t bias = 0, bool summer = false) {
        int64_t ignored;
        cm_tm record;
        clock.set_zone(bias, [summer](int64_t) { return summer; });
        clock.set(0);
        cm::time::local_now(&ignored, &record);
        clock.set(seconds);
    }
    std::string datetime(int32_t code, int32_t size = 64) {
        char text[64] = "untouched";
        int32_t length = -1;
        const int16_t result = cm_datetime(code, text, size, &length);
        EXPECT_EQ(length, static_cast<int32_t>(strlen(text))) << "code " << code;
        EXPECT_EQ(result, text[0] != '\0') << "code " << code;
        return text;
    }

    cm::test::FrozenClock clock;
};

TEST_F(Formats, EveryCodeInEveryZone) {
    for (const cm::test::Row &row : cm::test::rows("time/formats")) {
        set(row.number(0), static_cast<int32_t>(row.number(1)), row[2] == "summer");
        char stamp[64] = "";
        const auto code = static_cast<int32_t>(row.number(3));
        EXPECT_EQ(cm_timestamp(nullptr, stamp, sizeof stamp, nullptr), 1);
        EXPECT_EQ(code == 0 ? std::string(stamp + 22) : datetime(code), code == 0 ? row[4] + "]" : row[4]) << row.where;
    }
    for (const int32_t unknown : {0, 16, -1}) EXPECT_EQ(datetime(unknown), "") << unknown;
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

TEST_F(Formats, AccessLogStampAndNumbers) {
    uint32_t out = 0;
    clock.set(kNow, 250);
    EXPECT_EQ(cm_cursec(&out), 1025773505u);
    EXPECT_EQ(out, 1025773505u);
    EXPECT_EQ(cm_curmsec(&out), 1);
    EXPECT_EQ(out, static_cast<uint32_t>(1025773505250u));
    set(1041379199 - 3600, kBerlin);  // the last second of 2002 in Berlin
    char text[64];
    int32_t length = 0;
    cm_stamp record;
    ASSERT_EQ(cm_timestamp(&record, text, sizeof text, &length), 1);
    EXPECT_STREQ(text, "[31/Dec/2002:23:59:59 +0100]");
    EXPECT_EQ(length, 28);
    EXPECT_EQ((std::vector<int32_t>{record.sec, record.min, record.hour, record.mday, record.wday, record.mon,
                                    record.year, record.yday}),
              (std::vector<int32_t>{59, 59, 23, 31, 2, 12, 2002, 365}));
    EXPECT_EQ(cm_timestamp(nullptr, text, 5, &length), 1);
    EXPECT_STREQ(text, "[31/");
    EXPECT_EQ(length, 4);
    EXPECT_EQ(cm_timestamp(&record, text, 0, &length), 1);
    EXPECT_STREQ(text, "[31/");
    EXPECT_EQ(length, 0);
    EXPECT_EQ(cm_timestamp(&record, nullptr, 64, nullptr), 1);
}

TEST_F(Formats, RecordsAsIsoAndRfc822) {
    const int32_t least = std::numeric_limits<int32_t>::min();
    const cm_tm record = {7, 5, 9, 4, 6, 102, 4, 184, 0}, strange = {least, 100, -5, least, 0, least, 0, 0, 0};
    char text[128];
    const auto made = [&](int16_t result) {
        EXPECT_EQ(result == 1, text[0] != '\0');
        return std::string(text);
    };
    const auto rfc822 = [&](const cm_tm *of) { return made(cm_time822(text, sizeof text, of)); };
    const auto iso8601 = [&](const cm_tm *of) { return made(cm_timeISO8601(text, sizeof text, of)); };
    EXPECT_EQ(iso8601(&record), "2002-07-04T09:05:07Z");
    EXPECT_EQ(rfc822(&record), "Thu, 04 Jul 2002 09:05:07 GMT");
    EXPECT_EQ(made(cm_time822(text, 12, &record)), "Thu, 04 Jul");
    EXPECT_EQ(iso8601(nullptr), "2002-07-04T09:05:05Z");
    EXPECT_EQ(rfc822(nullptr), "Thu, 04 Jul 2002 09:05:05 GMT");
    for (const int32_t bad : {-1, 12, std::numeric_limits<int32_t>::max()}) {
        cm_tm month{}, day{};
        month.mon = day.wday = bad;
        EXPECT_EQ(rfc822(&month) + iso8601(&month) + rfc822(&day), "");
    }
    // Whatever else a record holds is printed as the number that it is.
    EXPECT_EQ(rfc822(&strange), "Sun, -2147483648 Jan -2147481748 -05:100:-2147483648 GMT");
    EXPECT_EQ(made(cm_curtime(784111777, text, sizeof text)), "Sun, 06 Nov 1994 08:49:37 GMT");
    EXPECT_EQ(made(cm_curtime(0xFFFFFFFF, text, sizeof text)), "");
}

TEST_F(Formats, AClockThatCannotBeReadGivesEmptyTexts) {
    char text[64] = "x";
    cm_tm record;
    const auto expect_nothing = [&](bool gmt_too) {
        for (int32_t code = 1; code <= 15; code++)
            EXPECT_TRUE((code == 9 && !gmt_too) || datetime(code).empty()) << "code " << code;
        cm_stamp stamp;
        int32_t length = 7;
        EXPECT_EQ(cm_timestamp(&stamp, text, sizeof text, &length), 0);
        EXPECT_STREQ(text, "");
        EXPECT_EQ(length, 0);
        EXPECT_EQ(cm::time::log_stamp(text), 0u);
        EXPECT_EQ(cm_time(0, 0, &record), 0);
        EXPECT_EQ(record.mday, 1);
        EXPECT_EQ(record.year, 0);
    };
    const Replace<&Table::local_calendar> calendar([](auto...) { return false; });
    clock.set(kNow + 1);
    expect_nothing(false);
    clock.fail(true);
    expect_nothing(true);
    uint32_t out = 0;
    EXPECT_EQ(cm_cursec(&out), 0xFFFFFFFFu);
    EXPECT_EQ(out, 0xFFFFFFFFu);
    EXPECT_EQ(cm_curmsec(&out), 0);
    text[0] = 'x';
    EXPECT_EQ(cm_time822(text, sizeof text, nullptr), 0);
    EXPECT_STREQ(text, "");
}

TEST_F(Formats, TheCalendarIsAskedOnceASecond) {
    set(1025773600, kBerlin);
    int conversions = 0;
    const Replace<&Table::local_calendar> counted(
        [&](int64_t seconds, cm_tm *out) { return conversions++, counted.real(seconds, out); });
    char stamp[32] = {};
    for (int i = 0; i < 10; i++) ASSERT_EQ(cm::time::log_stamp(stamp), 22u);
    EXPECT_STREQ(stamp, "[2002-07-04 10:06:40] ");
    EXPECT_EQ(conversions, 1);
    clock.advance(1);
    EXPECT_EQ(datetime(14), "[2002-07-04 10:06:41]");
    clock.set(clock.seconds() - 3600);
    EXPECT_EQ(datetime(14), "[2002-07-04 09:06:41]");
    EXPECT_EQ(conversions, 3);
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
}

TEST(Calendar, EdgesOfTheStep) {
    cm_tm record;
    const auto calendar = [&](int64_t seconds) -> std::vector<int32_t> {
        if (!cm::time::gmt_calendar(seconds, &record)) return {};
        return {record.year, record.mon, record.mday, record.sec, record.wday, record.yday};
    };
    EXPECT_EQ(calendar(-62167219200), (std::vector<int32_t>{-1900, 0, 1, 0, 6, 0}));
    EXPECT_EQ(calendar(-62167219201), (std::vector<int32_t>{}));
    EXPECT_EQ(calendar(-1), (std::vector<int32_t>{69, 11, 31, 59, 3, 364}));
    EXPECT_EQ(calendar(253402300799), (std::vector<int32_t>{8099, 11, 31, 59, 5, 364}));
    EXPECT_EQ(calendar(253402300800), (std::vector<int32_t>{}));
}

TEST_F(Formats, RecordOfGivenSecondsInLocalTime) {
    set(kNow, kIndia);
    cm_tm record;
    for (const int32_t local : {0, 2}) {  // anything but 1 is local
        EXPECT_EQ(cm_time(784111777, local, &record), 1);
        EXPECT_EQ(record.hour * 100 + record.min, 1419);
    }
    EXPECT_EQ(cm_time(0, 1, &record), 1);
    EXPECT_EQ(record.hour * 100 + record.min, 905);
    EXPECT_EQ(cm_time(0xFFFFFFFF, 1, &record), 0);
    EXPECT_EQ(record.year * 100 + record.mday, 1);
    const Replace<&Table::local_calendar> calendar([](auto...) { return false; });
    EXPECT_EQ(cm_time(784111777, 0, &record), 0);
    EXPECT_EQ(record.mday, 1);
    EXPECT_EQ(cm_time(1, 1, nullptr), 0);
}

TEST(Calendar, SecondsOfARecordThatIsNoDate) {
    const int32_t most = std::numeric_limits<int32_t>::max();
    const std::pair<cm_tm, uint32_t> rows[] = {
        {{0, 0, 0, 31, 11, 69, 0, 0, 0}, 0},          {{59, 59, 23, 31, 11, 137, 0, 0, 0}, 2145916799},
        {{0, 0, 0, 1, 0, 138, 0, 0, 0}, 0},           {{0, 0, 0, 1, 12, 100, 0, 0, 0}, 0},
        {{0, 0, 0, 1, -1, 100, 0, 0, 0}, 0},          {{0, 0, -1, 1, 0, 70, 0, 0, 0}, 0},
        {{0, 0, 0, 31, 1, 102, 0, 0, 0}, 1015113600},  // 3 March
        {{0, 0, 25, 1, 0, 70, 0, 0, 0}, 90000},       {{most, most, most, most, 11, 137, 0, 0, 0}, 0}};
    for (const auto &[record, seconds] : rows) EXPECT_EQ(cm_tm2sec(&record), seconds) << &record - &rows[0].first;
    EXPECT_EQ(cm_tm2sec(nullptr), 0u);
}

}  // namespace
