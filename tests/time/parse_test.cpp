// The two date parsers.
#include <gtest/gtest.h>

#include "tilvarcm.h"

namespace {

constexpr uint32_t kSunday = 784111777;  // Sun, 06 Nov 1994 08:49:37 GMT

TEST(ParseDate, HttpDates) {
    const struct {
        const char *text;
        uint32_t seconds;
    } rows[] = {
        {"Sun, 06 Nov 1994 08:49:37 GMT", kSunday},
        {"Sunday, 06-Nov-94 08:49:37 GMT", kSunday},
        {"Sun Nov  6 08:49:37 1994", kSunday},
        {"Sun, 6 Nov 1994 08:49:37 GMT", kSunday},
        {"Sunday, 6-Nov-94 08:49:37 GMT", kSunday},
        {"Sun Nov 06 08:49:37 1994", kSunday},
        {"06 Nov 1994 08:49:37", kSunday},
        {"6-Nov-94 08:49:37", kSunday},
        {" \t\r\n06 Nov 1994 08:49:37", kSunday},
        {"Mon,   06 Nov 1994 08:49:37 GMT", kSunday},          // the day name is not looked at
        {"What-ever 06 Nov 1994 08:49:37+0200 PST", kSunday},  // nor is the zone
        {"Nov Nov  6 08:49:37 1994", kSunday},
        {"Nov  6 08:49:37 1994", 0},  // "Nov" is taken for the day name
        {"06 nov 1994 08:49:37 GMT", 0},
        {"06 NOV 1994 08:49:37 GMT", 0},
        {"06 Nox 1994 08:49:37 GMT", 0},
        {"Sun,06 Nov 1994 08:49:37 GMT", 0},
        {"06  Nov 1994 08:49:37 GMT", 0},
        {"06 Nov 94 08:49:37 GMT", 0},
        {"06-Nov-1994 08:49:37 GMT", 0},
        {"## @$$ #### ##:##:##", 0},
        {"0? Nov 1994 08:49:37", 0},
        {"06 Nov 1994 08:49:3\xB7", 0},
        {"06 \xCEov 1994 08:49:37", 0},
        {"06 Nov 1994 8:49:37 GMT", 0},
        {"06 Nov 1994 08:49:3", 0},
        {"06 Nov 1994 08:49", 0},
        {"Sun", 0},
        {"Sun   ", 0},
        {"", 0},
        {"   ", 0},
        {"1", 0},
        {"Thu, 01 Jan 1970 00:00:00 GMT", 0},
        {"Thu, 01 Jan 1970 00:00:01 GMT", 1},
        {"31 Apr 2002 00:00:00 GMT", 0},
        {"31 Jun 2002 00:00:00 GMT", 0},
        {"31 Sep 2002 00:00:00 GMT", 0},
        {"31 Nov 2002 00:00:00 GMT", 0},
        {"31 Oct 2002 00:00:00 GMT", 1036022400},
        {"30 Apr 2002 00:00:00 GMT", 1020124800},
        {"29 Feb 2000 00:00:00 GMT", 951782400},
        {"29 Feb 2004 00:00:00 GMT", 1078012800},
        {"29 Feb 1900 00:00:00 GMT", 0},
        {"29 Feb 2001 00:00:00 GMT", 0},
        {"30 Feb 2000 00:00:00 GMT", 0},
        {"31 Feb 2000 00:00:00 GMT", 0},
        {"00 Nov 1994 08:49:37 GMT", 0},
        {"0 Nov 1994 08:49:37 GMT", 0},
        {"32 Dec 1994 08:49:37 GMT", 0},
        {"06 Nov 1994 24:00:00 GMT", 0},
        {"06 Nov 1994 23:60:00 GMT", 0},
        {"06 Nov 1994 08:49:61 GMT", kSunday + 24},
        {"06 Nov 1994 08:49:62 GMT", 0},
        {"06-Nov-70 00:00:00", 26697600},
        {"06-Nov-69 00:00:00", 0},  // 2069 is beyond the last year
        {"06-Nov-37 00:00:00", 2141078400},
        {"31 Dec 2037 23:59:59 GMT", 2145916799},
        {"01 Jan 2038 00:00:00 GMT", 0},
        {"01 Jan 2100 00:00:00 GMT", 0},
        {"01 Jan 9999 00:00:00 GMT", 0},
        {"06 Nov 1899 08:49:37 GMT", 0},
        {"06 Nov 1969 08:49:37 GMT", 0},
    };
    for (const auto &row : rows) EXPECT_EQ(cm_parsedatetime(row.text), row.seconds) << row.text;
    EXPECT_EQ(cm_parsedatetime(nullptr), 0u);
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

TEST(ParseDate, CalendarDates) {
    constexpr uint32_t kFourth = 1025740800;  // 2002-07-04
    const struct {
        const char *text;
        uint32_t seconds;
    } rows[] = {
        {"2002/07/04", kFourth},
        {"2002/7/04", kFourth},
        {"2002/07/4", kFourth},
        {"2002/7/4", kFourth},
        {"07/04/2002", kFourth},
        {"7/04/2002", kFourth},
        {"07/4/2002", kFourth},
        {"7/4/2002", kFourth},
        {" \t\n7/4/2002", kFourth},
        {"2002-07-04", 0},
        {"7/4/2002 ", 0},
        {"2002/7/4 00:00", 0},
        {"7/4/02", 0},
        {"", 0},
        {"  ", 0},
        {"2002/7", 0},
        {"2002/7/", 0},
        {"2002//4", 0},
        {"2002/0/4", 0},
        {"2002/13/4", 0},
        {"2002/7/0", 0},
        {"2002/7/32", 0},
        {"2002/02/31", 1015113600},  // 3 March
        {"1899/12/31", 0},
        {"1900/1/1", 0},
        {"1969/12/31", 0},
        {"1970/1/2", 86400},
        {"2037/12/31", 2145830400},
        {"2038/1/1", 0},
        {"9999/1/1", 0},
        {"2002/007/04", 0},
        {"20020/7/4", 0},
        {"+7/4/2002", 0},
        {"a/b/cdef", 0},
    };
    for (const auto &row : rows) EXPECT_EQ(cm_parsedate(row.text), row.seconds) << row.text;
    EXPECT_EQ(cm_parsedate(nullptr), 0u);
}

}  // namespace
