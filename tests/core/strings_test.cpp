// The bounded formatter and the locale-free helpers.
#include <gtest/gtest.h>

#include "core/cmstring.h"

TEST(Strings, FormatterTerminatesAndCountsWhatItStored) {
    char out[8];
    EXPECT_EQ(cm_snprintf(out, sizeof out, "%s", "1234567890"), 7);
    EXPECT_STREQ(out, "1234567");
    EXPECT_EQ(cm_snprintf(out, 1, "%d", 42), 0);
    EXPECT_STREQ(out, "");
    EXPECT_EQ(cm_snprintf(out, 0, "x"), 0);
}

TEST(Strings, CaseIsFoldedForAsciiOnly) {
    EXPECT_EQ(cm_strcasecmp("Content-Type", "cONTENT-tYPE"), 0);
    EXPECT_NE(cm_strcasecmp("[", "{"), 0);
    EXPECT_NE(cm_strcasecmp("\xC4", "\xE4"), 0);
    EXPECT_EQ(cm_strncasecmp("abcX", "ABCY", 3), 0);
    EXPECT_LT(cm_strncasecmp("ab", "abc", 9), 0);
    EXPECT_GT(cm_strcasecmp("\xFF", "a"), 0);
}

TEST(Strings, NumbersStopAtTheLengthAndSaturate) {
    EXPECT_EQ(cm_atoi("12345", 3), 123);
    EXPECT_EQ(cm_atoi(" -7x", CM_LEN_TEXT), -7);
    EXPECT_EQ(cm_atoi("99999999999999999999", CM_LEN_TEXT), INT32_MAX);
    EXPECT_EQ(cm_atoi("-99999999999999999999", CM_LEN_TEXT), INT32_MIN);
    EXPECT_DOUBLE_EQ(cm_atof("2.5e3zz", CM_LEN_TEXT), 2500.0);
    EXPECT_DOUBLE_EQ(cm_atof("2.59", 3), 2.5);
}

TEST(Strings, BoundedCopyAlwaysTerminates) {
    char out[4] = "zzz";
    EXPECT_EQ(cm_strncpy(out, "abcdef", sizeof out), 3);
    EXPECT_STREQ(out, "abc");
    EXPECT_EQ(cm_strncpy(out, nullptr, sizeof out), 0);
    EXPECT_STREQ(out, "");
}
