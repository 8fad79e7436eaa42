// The bounded formatters, the locale-free helpers and random numbers.
#include <array>
#include <set>
#include <sstream>

#include "core/cmstring.h"
#include "support/data.h"
#include "support/replace.h"

namespace {

TEST(Strings, ComparisonsNumbersAndCopies) {
    EXPECT_EQ(cm_strcasecmp("Content-Type", "cONTENT-tYPE"), 0);
    EXPECT_NE(cm_strcasecmp("[", "{"), 0);
    EXPECT_NE(cm_strcasecmp("\xC4", "\xE4"), 0);
    EXPECT_EQ(cm_strncasecmp("abcX", "ABCY", 3), 0);
    EXPECT_LT(cm_strncasecmp("ab", "abc", 9), 0);
    EXPECT_GT(cm_strcasecmp("\xFF", "a"), 0);
    EXPECT_EQ(cm_atoi("12345", 3), 123);
    EXPECT_EQ(cm_atoi(" -7x", CM_LEN_TEXT), -7);
    EXPECT_EQ(cm_atoi("99999999999999999999", CM_LEN_TEXT), INT32_MAX);
    EXPECT_EQ(cm_atoi("-99999999999999999999", CM_LEN_TEXT), INT32_MIN);
    EXPECT_DOUBLE_EQ(cm_atof("2.5e3zz", CM_LEN_TEXT), 2500.0);
    EXPECT_DOUBLE_EQ(cm_atof("2.59", 3), 2.5);
    char out[4] = "zzz";
    EXPECT_EQ(cm_strncpy(out, "abcdef", sizeof out), 3);
    EXPECT_STREQ(out, "abc");
    EXPECT_EQ(cm_strncpy(out, nullptr, sizeof out), 0);
    EXPECT_STREQ(out, "");
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"

template <class... Arguments>
std::string narrow(int32_t size, const char *format, Arguments... arguments) {
    char out[64] = "old";
    const auto stored = static_cast<size_t>(cm_snprintf(out, size, format, arguments...));
    EXPECT_EQ(stored, size > 0 ? strlen(out) : 0);
    return out;
}

#pragma GCC diagnostic pop

TEST(Strings, FormatterTerminatesAndRefusesToWriteBack) {
    int written = 77;
    EXPECT_EQ(narrow(8, "%s", "1234567890"), "1234567");
    EXPECT_EQ(narrow(1, "%d", 42), "");
    EXPECT_EQ(narrow(0, "x"), "old");
    EXPECT_EQ(narrow(16, "ab%-08.3hnc", &written), "");
    EXPECT_EQ(written, 77);
    EXPECT_EQ(narrow(16, "100%%n %s", "x"), "100%n x");
    EXPECT_EQ(narrow(16, "%s", static_cast<const char *>(nullptr)), "(null)");
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
    EXPECT_EQ(size == 0 ? 0 : out[static_cast<size_t>(stored)], 0);
    EXPECT_EQ(out[static_cast<size_t>(size)], '#') << "written beyond its room";
    return std::string(out.begin(), out.begin() + stored);
}

TEST(WideStrings, ConversionsAreThoseOfTheNarrowFormatter) {
    const std::pair<const char *, long long> rows[] = {
        {"d", 0},   {"d", 42},          {"i", -42},         {"d", INT32_MIN}, {"u", 4000000000},
        {"x", 0},   {"x", 48879},       {"X", 0xBEEF},      {"hd", 70000},    {"hu", 70000},
        {"ld", -5}, {"lld", INT64_MIN}, {"llu", INT64_MAX}, {"llx", -1}};
    for (const auto &[conversion, number] : rows)
        for (const char *flag : {"", "-", "0", "+", " ", "#", "-0", "0+", "-+#", "0 #"})
            for (const char *size : {"", "7", "12", ".0", ".3", "9.5", "3.8"}) {
                // What signs do to a number without one is the system's own.
                if (strpbrk(flag, "+ ") != nullptr && strpbrk(conversion, "di") == nullptr) continue;
                const std::string format = std::string("<%") + flag + size + conversion + ">";
                const std::u16string format16(format.begin(), format.end());
                const auto small = static_cast<int>(number);
                if (format.find('l') != format.npos)
                    EXPECT_EQ(formatted(60, format16.c_str(), number), narrow(60, format.c_str(), number)) << format;
                else
                    EXPECT_EQ(formatted(60, format16.c_str(), small), narrow(60, format.c_str(), small)) << format;
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
    for (const char16_t *bad : {u"ab%s", u"ab%hs", u"ab%n", u"ab%f", u"ab%", u"ab%l", u"ab%5"})
        EXPECT_EQ(formatted(60, bad, nullptr), "");
    for (const int32_t size : {0, 1}) EXPECT_EQ(formatted(size, u"x"), "");
    uint16_t out[2] = {'x', 'x'};
    EXPECT_EQ(cm_wsnprintf(out, 2, nullptr), 0);
    EXPECT_EQ(out[0], 0);
}

// ---- random numbers ------------------------------------------------------------------------------------------------

TEST(Random, DrawsCoverTheRangeAndFavourNothing) {
    std::istringstream drawn;
    const cm::test::Replace<&cm::platform::Table::random_bytes> draw([&](void *out, size_t count) {
        uint64_t number = 0;
        if (!(drawn >> number)) return false;
        memcpy(out, &number, count);
        return true;
    });
    for (const cm::test::Row &row : cm::test::rows("core/random")) {
        drawn = std::istringstream(row[2]);
        const auto low = static_cast<int32_t>(row.number(0)), high = static_cast<int32_t>(row.number(1));
        EXPECT_EQ(cm_random(low, high), row.number(3)) << row.where;
        EXPECT_TRUE(drawn.eof()) << row.where;
    }
    // When there is none, the stand-in differs from call to call
    std::set<int32_t> seen;
    for (int i = 0; i < 100; i++) seen.insert(cm_random(0, INT32_MAX));
    EXPECT_GT(seen.size(), 95u);
}

}  // namespace
