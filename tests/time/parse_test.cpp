// The two date parsers.
#include <stdio.h>

#include "support/data.h"
#include "tilvarcm.h"

namespace {

TEST(ParseDate, TablesOfDates) {
    for (const cm::test::Row &row : cm::test::rows("time/http_dates"))
        EXPECT_EQ(cm_parsedatetime(row.text(0)), row.number(1)) << row.where;
    for (const cm::test::Row &row : cm::test::rows("time/calendar_dates"))
        EXPECT_EQ(cm_parsedate(row.text(0)), row.number(1)) << row.where;
    EXPECT_EQ(cm_parsedatetime(nullptr), 0u);
    EXPECT_EQ(cm_parsedate(nullptr), 0u);
}

TEST(ParseDate, EveryDayOfEveryYearInEveryForm) {
    for (uint32_t seconds = 86400; seconds < 2145916800u; seconds += 86400 + 3661) {
        char rfc822[64], text[64];
        cm_tm date;
        ASSERT_EQ(cm_time(seconds, 1, &date), 1);
        ASSERT_EQ(cm_curtime(seconds, rfc822, sizeof rfc822), 1);
        ASSERT_EQ(cm_parsedatetime(rfc822), seconds) << rfc822;
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
