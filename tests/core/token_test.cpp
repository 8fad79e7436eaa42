// Token scanning: what is a token, where the position ends up, and that nothing outside the text is touched.
#include <cstring>
#include <memory>

#include "support/data.h"
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

    // What an operation of the table gives.
    std::string run(const std::string &operation, const std::string &argument, int32_t limit) {
        if (operation == "get") return all_tokens(!argument.empty(), limit);
        if (operation == "find") return cm_token_find(this, argument.c_str(), limit) ? "found" : "!";
        if (operation == "value") return value(argument, limit);
        if (operation == "list") return item(argument, limit);
        if (operation == "char") return character(argument, limit);
        const char *found = "?";
        int32_t size = 99;
        const char *const extra = argument.empty() ? nullptr : argument.c_str();
        if (cm_alnum_get(this, extra, &found, limit, &size)) return std::string(found, static_cast<size_t>(size));
        return size == 0 ? "!" : "! with a length";
    }

private:
    std::string all_tokens(bool comma_mode, int32_t limit) {
        for (std::string all;;) {
            const char *token = nullptr;
            int32_t size = 99;
            if (cm_token_get(this, comma_mode, &token, limit, &size)) {
                all += "{" + (token == nullptr ? "-" : std::string(token, static_cast<size_t>(size))) + "}";
            } else {
                all += "!";
                if (position == length) return all;
            }
        }
    }
    std::string value(const std::string &name, int32_t room) {
        const std::unique_ptr<char[]> buffer(new char[static_cast<size_t>(room)]);
        int32_t size = 99;
        const bool found = cm_token_findval(this, name.c_str(), CM_LEN_TEXT, buffer.get(), room, &size) != 0;
        EXPECT_EQ(static_cast<size_t>(size), found ? strlen(buffer.get()) : 0);
        return (found ? "" : "!") + std::string(buffer.get());
    }
    // Where the first character is from a position on, before the second one if there is one.
    std::string character(const std::string &wanted, int32_t from) {
        int32_t index = -1;
        position = from;
        const int16_t result = wanted.size() == 1 ? cm_token_strchr(this, wanted[0], &index)
                                                  : cm_token_findchr(this, wanted[0], wanted[1], &index);
        return std::to_string(result) + " " + std::to_string(index);
    }
    std::string item(const std::string &word, int32_t size) {
        const std::string list(text, static_cast<size_t>(length));
        const bool any = cm_token_inlist(list.c_str(), size, word.c_str(), CM_LEN_TEXT, 0) != 0,
                   same = cm_token_inlist(list.c_str(), size, word.c_str(), CM_LEN_TEXT, 1) != 0;
        return any ? same ? "any case, same case" : "any case" : same ? "same case" : "!";
    }

    std::unique_ptr<char[]> copy_;
};

TEST(Token, EveryOperation) {
    for (const cm::test::Row &row : cm::test::rows("core/tokens")) {
        Scanner scanner(row[1]);
        EXPECT_EQ(scanner.run(row[0], row[2], static_cast<int32_t>(row.number(3))), row[4]) << row.where;
        EXPECT_EQ(scanner.position, row.number(5)) << row.where;
    }
    for (const size_t size : {255u, 256u}) {
        Scanner scanner(std::string(size, 'x') + " a");
        EXPECT_EQ(cm_token_find(&scanner, "a", 1), size == 255);
        EXPECT_EQ(scanner.position, size == 255 ? 257 : 256);
    }
    EXPECT_EQ(cm_token_inlist(nullptr, CM_LEN_TEXT, "a", CM_LEN_TEXT, 0), 0);
}

TEST(Token, ScannersOutOfRangeFail) {
    char value[8] = "?";
    for (const int32_t position : {-1, INT32_MIN, 4, INT32_MAX}) {
        Scanner scanner("abc");
        scanner.position = position;
        int32_t index = 7;
        const char *token = nullptr;
        EXPECT_EQ(cm_token_get(&scanner, 0, &token, 255, &index), 0);
        EXPECT_EQ(cm_token_find(&scanner, "abc", 3), 0);
        EXPECT_EQ(cm_token_strchr(&scanner, 'a', &index), 0);
        EXPECT_EQ(index, 0);
        EXPECT_EQ(cm_token_findchr(&scanner, 'a', 'b', &index), 0);
        EXPECT_EQ(cm_token_findval(&scanner, "a", 1, value, sizeof value, &index), 0);
        EXPECT_EQ(cm_alnum_get(&scanner, nullptr, &token, 9, &index), 0);
        EXPECT_EQ(scanner.position, position);
    }
    cm_token negative = {0, -5, "abc"}, none = {0, 3, nullptr};
    for (cm_token *scanner : {&negative, &none, static_cast<cm_token *>(nullptr)})
        EXPECT_EQ(cm_token_get(scanner, 0, nullptr, 9, nullptr), 0);
    Scanner scanner("name=a");
    value[0] = '?';
    EXPECT_EQ(cm_token_findval(&scanner, "name=", 5, value, 0, nullptr), 0);
    EXPECT_EQ(value[0], '?') << "no room, nothing written";
}

}  // namespace
