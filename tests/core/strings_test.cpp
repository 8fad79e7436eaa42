// The bounded formatters, the locale-free helpers and random numbers.
#include <gtest/gtest.h>

#include <array>
#include <set>
#include <string>
#include <vector>

#include "core/cmstring.h"
#include "support/support.h"

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

TEST(Strings, FormatsThatWriteBackAreRefused) {
    char out[16] = "old";
    int written = 77;
    const char *volatile format = "ab%-08.3hnc";  // out of the compiler's sight
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    EXPECT_EQ(cm_snprintf(out, sizeof out, format, &written), 0);
    EXPECT_STREQ(out, "");
    EXPECT_EQ(written, 77);
    format = "100%%n %s";
    EXPECT_EQ(cm_snprintf(out, sizeof out, format, "x"), 7);
    EXPECT_STREQ(out, "100%n x");
    format = "%s";
    EXPECT_EQ(cm_snprintf(out, sizeof out, format, static_cast<const char *>(nullptr)), 6);
#pragma GCC diagnostic pop
    EXPECT_STREQ(out, "(null)");
}

// ---- 16-bit characters ---------------------------------------------------------------------------------------------

const uint16_t *wide(const char16_t *text) {
    return reinterpret_cast<const uint16_t *>(text);
}

template <class... Arguments>
std::string formatted(int32_t size, const char16_t *format, Arguments... arguments) {
    std::array<uint16_t, 64> out;
    out.fill('#');
    const int32_t stored = cm_wsnprintf(out.data(), size, wide(format), arguments...);
    EXPECT_EQ(out[static_cast<size_t>(stored)], 0);
    EXPECT_EQ(out[static_cast<size_t>(size)], '#') << "written beyond its room";
    return std::string(out.begin(), out.begin() + stored);
}

TEST(WideStrings, ConversionsAreThoseOfTheNarrowFormatter) {
    const char *const flags[] = {"", "-", "0", "+", " ", "#", "-0", "0+", "-+#", "0 #"};
    const char *const sizes[] = {"", "7", "12", ".0", ".3", "9.5", "3.8"};
    const struct {
        const char *conversion;
        long long number;
    } rows[] = {{"d", 0},   {"d", 42},          {"i", -42},         {"d", INT32_MIN}, {"u", 4000000000},
                {"x", 0},   {"x", 48879},       {"X", 0xBEEF},      {"hd", 70000},    {"hu", 70000},
                {"ld", -5}, {"lld", INT64_MIN}, {"llu", INT64_MAX}, {"llx", -1}};
    for (const auto &row : rows)
        for (const char *flag : flags)
            for (const char *size : sizes) {
                const std::string format = std::string("<%") + flag + size + row.conversion + ">";
                char expected[64];
                const bool wide_number = format.find('l') != format.npos;
                const auto narrow = static_cast<int>(row.number);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
                wide_number ? cm_snprintf(expected, sizeof expected, format.c_str(), row.number)
                            : cm_snprintf(expected, sizeof expected, format.c_str(), narrow);
#pragma GCC diagnostic pop
                const std::u16string format16(format.begin(), format.end());
                EXPECT_EQ(
                    wide_number ? formatted(60, format16.c_str(), row.number) : formatted(60, format16.c_str(), narrow),
                    expected)
                    << format;
            }
}

TEST(WideStrings, TextsStarsAndRefusals) {
    EXPECT_EQ(formatted(60, u"%ls|%5ls|%-5ls|%.2ls|", wide(u"abc"), wide(u"de"), wide(u"f"), wide(u"ghi")),
              "abc|   de|f    |gh|");
    EXPECT_EQ(formatted(60, u"%ls", static_cast<const uint16_t *>(nullptr)), "(null)");
    EXPECT_EQ(formatted(60, u"%*d|%-*d|%.*d|%*d|", 4, 1, 4, 2, 3, 3, -3, 4), "   1|2   |003|4  |");
    EXPECT_EQ(formatted(60, u"%c%3c%-3c%%", 'a', 'b', 'c'), "a  bc  %");
    EXPECT_EQ(formatted(5, u"%ls", wide(u"abcdefgh")), "abcd");
    EXPECT_EQ(formatted(5, u"%2147483647d", 1), "    ");
    EXPECT_EQ(formatted(1, u"x"), "");
    for (const char16_t *bad : {u"ab%s", u"ab%hs", u"ab%n", u"ab%f", u"ab%", u"ab%l", u"ab%5"})
        EXPECT_EQ(formatted(60, bad, nullptr), "");
    uint16_t out[2] = {'x', 'x'};
    EXPECT_EQ(cm_wsnprintf(out, 0, wide(u"a")), 0);
    EXPECT_EQ(out[0], 'x');
    EXPECT_EQ(cm_wsnprintf(out, 2, nullptr), 0);
    EXPECT_EQ(out[0], 0);
}

// ---- random numbers ------------------------------------------------------------------------------------------------

namespace {

// What the replaced generator hands out, one after the other.
std::vector<uint64_t> drawn;

bool draw(void *out, size_t count) {
    if (drawn.empty()) return false;
    EXPECT_EQ(count, sizeof(uint64_t));
    memcpy(out, &drawn.front(), count);
    drawn.erase(drawn.begin());
    return true;
}

class Random : public testing::Test {
protected:
    void SetUp() override { cm::platform::os.random_bytes = draw; }
    void TearDown() override { cm::platform::os = cm::platform::kSystem; }
};

}  // namespace

TEST_F(Random, DrawsCoverTheRangeInEitherOrder) {
    const struct {
        int32_t low, high;
        uint64_t draw;
        int32_t result;
    } rows[] = {{1, 6, 0, 1},
                {1, 6, 5, 6},
                {1, 6, 6, 1},
                {6, 1, 5, 6},
                {-3, 3, 6, 3},
                {7, 7, 12345, 7},
                {INT32_MIN, INT32_MAX, UINT32_MAX, INT32_MAX},
                {INT32_MIN, INT32_MAX, UINT64_MAX, INT32_MAX},
                {INT32_MAX, INT32_MIN, 0, INT32_MIN}};
    for (const auto &row : rows) {
        drawn = {row.draw};
        EXPECT_EQ(cm_random(row.low, row.high), row.result) << row.low << " " << row.high << " " << row.draw;
    }
}

TEST_F(Random, DrawsThatWouldFavourSmallNumbersAreRepeated) {
    drawn = {UINT64_MAX, UINT64_MAX - 3, 4};  // 2^64 is 4 modulo 6: the last four numbers are too many
    EXPECT_EQ(cm_random(1, 6), 5);
    drawn = {UINT64_MAX - 4};
    EXPECT_EQ(cm_random(1, 6), 6);
    drawn = {UINT64_MAX, UINT64_MAX, UINT64_MAX, 0};
    EXPECT_GE(cm_random(1, 6), 1) << "a broken generator does not hang it";
    EXPECT_EQ(drawn.size(), 1u);
}

TEST_F(Random, StandInDiffersFromCallToCall) {
    drawn.clear();
    std::set<int32_t> seen;
    for (int i = 0; i < 100; i++) seen.insert(cm_random(0, INT32_MAX));
    EXPECT_GT(seen.size(), 95u);
}
