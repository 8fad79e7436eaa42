// Token scanning: what is a token, where the position ends up, and that nothing outside the text is touched.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "tilvarcm.h"

namespace {

// A scanner over a copy of exactly the text's size, so that a read beyond it is one beyond the allocation.
class Scanner : public cm_token {
public:
    explicit Scanner(const std::string &characters) : cm_token{}, copy_(new char[characters.size()]) {
        memcpy(copy_.get(), characters.data(), characters.size());
        text = copy_.get();
        length = static_cast<int32_t>(characters.size());
    }
    // The next token, "!" for a failure, "-" for the empty rest.
    std::string get(bool comma_mode = false, int32_t max_length = 255) {
        const char *token = nullptr;
        int32_t token_length = 99;
        if (!cm_token_get(this, comma_mode, &token, max_length, &token_length)) return "!";
        if (token == nullptr) return token_length == 0 ? "-" : "?";
        return std::string(token, static_cast<size_t>(token_length));
    }

private:
    std::unique_ptr<char[]> copy_;
};

TEST(Token, TokensOfATextUntilItFails) {
    const struct {
        const char *name, *text;
        bool comma_mode;
        std::vector<std::string> tokens;
    } rows[] = {
        {"commas", "a, 'b c',d=e", true, {"a", "b c", "d", "=", "e", "!"}},
        {"commas are ordinary", "a,b c", false, {"a,b", "c", "!"}},
        {"trailing blanks", "x  ", false, {"x", "-", "!"}},
        {"trailing commas", "x,, ", true, {"x", "-", "!"}},
        {"all white space", " \t\r\n\v\fa", false, {"a", "!"}},
        {"delimiters", "(a)", false, {"(", "a", ")", "!"}},
        {"every delimiter", "=!%><()", false, {"=", "!", "%", ">", "<", "(", ")", "!"}},
        {"unterminated", "'abc", false, {"!", "!"}},
        {"terminated by the wrong one", "\"abc'", false, {"!"}},
        {"lone quote", "a '", false, {"a", "!"}},
        {"empty quotes", "'' \"\"x", false, {"", "", "x", "!"}},
        {"quote inside", "a'b c'", false, {"a'b", "c'", "!"}},
        {"quotes within quotes", "\"it's\"'\"'", false, {"it's", "\"", "!"}},
        {"bytes", "\xE4\x80 b", false, {"\xE4\x80", "b", "!"}},
        {"empty", "", false, {"!"}},
    };
    for (const auto &row : rows) {
        Scanner scanner(row.text);
        for (const std::string &token : row.tokens) {
            ASSERT_EQ(scanner.get(row.comma_mode), token) << row.name;
            if (token == "!" && &token == &row.tokens.back()) {
                EXPECT_EQ(scanner.position, scanner.length) << row.name;
            }
        }
    }
}

TEST(Token, LongTokensArePassedAndFail) {
    Scanner scanner("abcd 'efgh' ij");
    EXPECT_EQ(scanner.get(false, 3), "!");
    EXPECT_EQ(scanner.position, 4);
    EXPECT_EQ(scanner.get(false, 3), "!");
    EXPECT_EQ(scanner.get(false, 0), "!");
    EXPECT_EQ(scanner.position, scanner.length);
    Scanner exact("abcd");
    EXPECT_EQ(exact.get(false, 4), "abcd");
}

TEST(Token, ScannersOutOfRangeFail) {
    for (const int32_t position : {-1, INT32_MIN, 4, INT32_MAX}) {
        Scanner scanner("abc");
        scanner.position = position;
        char value[8];
        int32_t index = 7;
        const char *token = nullptr;
        EXPECT_EQ(scanner.get(), "!");
        EXPECT_EQ(cm_token_find(&scanner, "abc", 3), 0);
        EXPECT_EQ(cm_token_strchr(&scanner, 'a', &index), 0);
        EXPECT_EQ(index, 0);
        EXPECT_EQ(cm_token_findchr(&scanner, 'a', 'b', &index), 0);
        EXPECT_EQ(cm_token_findval(&scanner, "a", 1, value, sizeof value, &index), 0);
        EXPECT_EQ(cm_alnum_get(&scanner, nullptr, &token, 9, &index), 0);
        EXPECT_EQ(scanner.position, position);
    }
    cm_token negative = {0, -5, "abc"}, none = {0, 3, nullptr};
    EXPECT_EQ(cm_token_get(&negative, 0, nullptr, 9, nullptr), 0);
    EXPECT_EQ(cm_token_get(&none, 0, nullptr, 9, nullptr), 0);
    EXPECT_EQ(cm_token_get(nullptr, 0, nullptr, 9, nullptr), 0);
}

TEST(Token, FindStopsBehindTheWord) {
    const struct {
        const char *text, *word;
        int32_t length, found, position;
    } rows[] = {
        {"gzip, deflate, br", "deflate", CM_LEN_TEXT, 1, 13},
        {"gzip, Deflate", "deflate", 7, 0, 13},
        {"gzip deflated", "deflate", 7, 0, 13},
        {"a 'b", "b", 1, 0, 4},
        {"a=b", "=", 1, 1, 2},
        {"a ", "", 0, 1, 2},
        {"a", "", 0, 0, 1},
        {"a b", "a", -7, 0, 0},
    };
    for (const auto &row : rows) {
        Scanner scanner(row.text);
        EXPECT_EQ(cm_token_find(&scanner, row.word, row.length), row.found) << row.text;
        EXPECT_EQ(scanner.position, row.position) << row.text;
    }
    Scanner long_token(std::string(256, 'x') + " a");
    EXPECT_EQ(cm_token_find(&long_token, "a", 1), 0);
    EXPECT_EQ(long_token.position, 256);
    Scanner fits(std::string(255, 'x') + " a");
    EXPECT_EQ(cm_token_find(&fits, "a", 1), 1);
}

TEST(Token, CharactersAreFoundFromThePositionOn) {
    Scanner scanner("a,b;c");
    scanner.position = 1;
    int32_t index = -1;
    EXPECT_EQ(cm_token_strchr(&scanner, ';', &index), 1);
    EXPECT_EQ(index, 3);
    EXPECT_EQ(cm_token_strchr(&scanner, 'a', &index), 0);
    EXPECT_EQ(index, 0);
    EXPECT_EQ(cm_token_findchr(&scanner, ';', ',', &index), 0) << "the other one comes first";
    EXPECT_EQ(cm_token_findchr(&scanner, ';', 'c', &index), 1);
    EXPECT_EQ(index, 3);
    EXPECT_EQ(cm_token_findchr(&scanner, ';', ';', &index), 0) << "stop is looked for first";
    EXPECT_EQ(cm_token_findchr(&scanner, 'x', 'y', &index), 1);
    EXPECT_EQ(index, 5) << "absent is not failed";
    EXPECT_EQ(scanner.position, 1);
}

TEST(Token, ValuesOfNames) {
    const struct {
        const char *text, *name;
        int32_t max_value, found;
        const char *value;
        int32_t position;
    } rows[] = {
        {"filename='x.txt'", "name=", 64, 1, "x.txt", 15},
        {"NAME=abc; size=1\r\nmore", "name=", 64, 1, "abc; size=1", 16},
        {"name=\"a'b\"", "name=", 64, 1, "a'b", 9},
        {"name=\"a\nb\"", "name=", 64, 1, "a", 7},
        {"name='abc", "name=", 64, 1, "abc", 9},
        {"name='", "name=", 64, 1, "", 6},
        {"a name=", "name=", 64, 0, "", 1},
        {"nothing here", "name=", 64, 0, "", 6},
        {"x", "name=", 64, 0, "", 0},
        {"name=12345", "name=", 6, 1, "12345", 10},
        {"name=12345", "name=", 5, 0, "1234", 9},
        {"name=1", "name=", 1, 0, "", 5},
        {"abc", "", 64, 1, "abc", 3},
    };
    for (const auto &row : rows) {
        Scanner scanner(row.text);
        const std::unique_ptr<char[]> value(new char[static_cast<size_t>(row.max_value)]);
        int32_t length = 99;
        EXPECT_EQ(cm_token_findval(&scanner, row.name, CM_LEN_TEXT, value.get(), row.max_value, &length), row.found)
            << row.text;
        EXPECT_STREQ(value.get(), row.value) << row.text;
        EXPECT_EQ(length, row.found ? static_cast<int32_t>(strlen(row.value)) : 0) << row.text;
        EXPECT_EQ(scanner.position, row.position) << row.text;
    }
    Scanner scanner(std::string("name=ab\0cd", 10));
    char value[16] = "?";
    EXPECT_EQ(cm_token_findval(&scanner, "name=", 5, value, 0, nullptr), 0);
    EXPECT_STREQ(value, "?") << "no room, nothing written";
    EXPECT_EQ(cm_token_findval(&scanner, "name=", 5, value, sizeof value, nullptr), 1);
    EXPECT_STREQ(value, "ab");
}

TEST(Token, ItemsOfAList) {
    const struct {
        const char *list;
        int32_t list_length;
        const char *word;
        int16_t any_case, same_case;
    } rows[] = {
        {"keep-alive, Close", CM_LEN_TEXT, "close", 1, 0},
        {"keep-alive,Close", 13, "close", 0, 0},
        {"a\tb c", CM_LEN_TEXT, "b", 0, 0},
        {"a\tb c", CM_LEN_TEXT, "c", 1, 1},
        {"closed close", CM_LEN_TEXT, "close", 1, 1},
        {",, close ,", CM_LEN_TEXT, "close", 1, 1},
        {"", CM_LEN_TEXT, "a", 0, 0},
        {"a", CM_LEN_TEXT, "", 0, 0},
        {"a", -9, "a", 0, 0},
        {nullptr, CM_LEN_TEXT, "a", 0, 0},
    };
    for (const auto &row : rows) {
        const char *shown = row.list == nullptr ? "null" : row.list;
        EXPECT_EQ(cm_token_inlist(row.list, row.list_length, row.word, CM_LEN_TEXT, 0), row.any_case) << shown;
        EXPECT_EQ(cm_token_inlist(row.list, row.list_length, row.word, CM_LEN_TEXT, 1), row.same_case) << shown;
    }
}

TEST(Token, RunsOfLettersAndDigits) {
    const struct {
        const char *text, *extra;
        int32_t max_length, found;
        const char *run;
        int32_t position;
    } rows[] = {
        {"  abc1-2", nullptr, 9, 1, "abc1", 6},
        {"abc-1_2 x", "-_", 9, 1, "abc-1_2", 7},
        {"-a", nullptr, 9, 0, "", 0},
        {"  ", nullptr, 9, 0, "", 2},
        {"abcd e", nullptr, 3, 0, "", 4},
        {"\xE4", nullptr, 9, 0, "", 0},
        {"__", "_", 9, 1, "__", 2},
    };
    for (const auto &row : rows) {
        Scanner scanner(row.text);
        const char *run = nullptr;
        int32_t length = 99;
        EXPECT_EQ(cm_alnum_get(&scanner, row.extra, &run, row.max_length, &length), row.found) << row.text;
        EXPECT_EQ(std::string(row.found ? run : "", static_cast<size_t>(length)), row.run) << row.text;
        EXPECT_EQ(scanner.position, row.position) << row.text;
    }
    Scanner scanner(std::string("a\0b", 3));
    int32_t length = 0;
    EXPECT_EQ(cm_alnum_get(&scanner, "_", nullptr, 9, &length), 1);
    EXPECT_EQ(length, 1) << "the terminator of the extra characters is none of them";
}

}  // namespace
