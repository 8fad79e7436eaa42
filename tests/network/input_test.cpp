// Buffered input: what a token is does not depend on how the bytes arrive.
#include <gtest/gtest.h>

#include "network/wire.h"

namespace cm::test {
namespace {

struct TokenCase {
    const char *name;
    std::string_view input;
    char delimiter;
    std::vector<std::string> tokens;  // "!" when the read fails, which ends the case
    int16_t truncate = 0;
    int32_t maximum = 20;
};

const TokenCase kTokenCases[] = {
    {"lines", "one\r\ntwo\nthree\r\n", 0, {"one", "two", "three"}},
    {"empty lines", "\r\n\n\r\nx\n", 0, {"", "", "", "x"}},
    {"delimiter, then the line end", "GET /x HTTP\r\n", ' ', {"GET", "/x", "HTTP"}},
    {"delimiter at the line end", "a \r\nb\n", ' ', {"a", "", "b"}},
    {"lone CR is dropped", "a\rb\r\n", 0, {"ab"}},
    {"CR CR LF", "a\r\r\nb\n", 0, {"a", "b"}},
    {"CR as delimiter comes first", "a\r\nb\r\n", '\r', {"a", "", "b", ""}},
    {"LF as delimiter", "a\r\nb\n", '\n', {"a", "b"}},
    {"NUL is a byte where there is no delimiter", std::string_view("a\0b\n", 4), 0, {std::string("a\0b", 3)}},
    {"high bytes", "\xff\x80\n", ' ', {"\xff\x80"}},
    {"just fits", "12345678901234567890\nx\n", 0, {"12345678901234567890", "x"}},
    {"too long", "123456789012345678901\n", 0, {"!"}},
    {"too long, cut", "123456789012345678901234\nx\n", 0, {"12345678901234567890", "x"}, 1},
    {"cut to nothing", "abc,d\n", ',', {"", ""}, 1, 0},
    {"the peer closes in a token", "abc\ndef", 0, {"abc", "def", "!"}},
    {"the peer closes after CR", "abc\r", 0, {"abc", "!"}},
    {"nothing at all", "", 0, {"", "!"}},
};

std::vector<std::string> read_tokens(const TokenCase &test, std::deque<std::string> pieces) {
    Wire wire;
    wire.arriving = std::move(pieces);
    std::vector<std::string> tokens;
    while (tokens.size() < test.tokens.size()) {
        std::string text(static_cast<size_t>(test.maximum) + 2, '~');
        int32_t length = -1;
        const int16_t result =
            cm_net_getarg(wire, wire, test.delimiter, test.truncate, text.data(), test.maximum, &length);
        EXPECT_EQ(text.back(), '~') << "wrote past its room";
        if (result == 0) return tokens.push_back("!"), tokens;
        EXPECT_EQ(text[static_cast<size_t>(length)], '\0');
        tokens.push_back(text.substr(0, static_cast<size_t>(length)));
    }
    return tokens;
}

TEST(Input, TokensAreTheSameForEverySplit) {
    for (const TokenCase &test : kTokenCases) {
        const std::string input(test.input);
        const auto check = [&](std::deque<std::string> pieces) {
            std::erase(pieces, "");
            EXPECT_EQ(read_tokens(test, pieces), test.tokens) << test.name << ", " << pieces.size() << " pieces";
        };
        for (size_t a = 0; a <= input.size(); a++)
            for (size_t b = a; b <= input.size(); b++)
                check({input.substr(0, a), input.substr(a, b - a), input.substr(b)});
        std::deque<std::string> single;
        for (const char c : input) single.emplace_back(1, c);
        check(single);
    }
}

TEST(Input, ALongTokenSpansManyBuffers) {
    const std::string text = sample(20000);
    std::string line = text;
    std::replace(line.begin(), line.end(), '\n', '.');
    Wire wire;
    wire.arriving = {line.substr(0, 4095), line.substr(4095) + "\r\nnext\n"};
    std::string token(30001, '\0');
    int32_t length = 0;
    ASSERT_EQ(cm_net_getarg(wire, wire, 0, 0, token.data(), 30000, &length), 1);
    EXPECT_TRUE(token.substr(0, static_cast<size_t>(length)) == line);
    ASSERT_EQ(cm_net_getarg(wire, wire, 0, 0, token.data(), 30000, nullptr), 1);
    EXPECT_STREQ(token.c_str(), "next");
}

TEST(Input, ReadTakesWhatIsBufferedFirst) {
    struct Case {
        const char *name;
        std::deque<std::string> arriving;
        int16_t fill;
        int32_t size;
        std::vector<int32_t> counts;  // of successive reads
    };
    const std::string big = sample(10000);
    const Case cases[] = {
        {"one receive without fill", {"first\n", "abc", "defg"}, 0, 10, {3, 4}},
        {"fill goes on", {"first\n", "abc", "defg"}, 1, 5, {5, 2}},
        {"fill stops where the peer closes", {"first\n", "abc"}, 1, 10, {3}},
        {"buffered bytes alone without fill", {"first\nabc", "defg"}, 0, 10, {3, 4}},
        {"buffered bytes and more with fill", {"first\nabc", "defg"}, 1, 7, {7}},
        {"a piece larger than asked stays", {"first\n", "abcdefg"}, 0, 4, {4, 3}},
        {"larger than the buffer", {"first\nab", big}, 1, 10002, {10002}},
        {"at most one buffer without fill", {"first\n", big}, 0, 10000, {4096, 4096, 1808}},
        {"nothing asked", {"first\n", "abc"}, 1, 0, {0, 0}},
        {"negative size", {"first\n", "abc"}, 1, -5, {0}},
    };
    for (const Case &test : cases) {
        std::string expected;
        for (const std::string &piece : test.arriving) expected += piece;
        expected.erase(0, 6);
        Wire wire;
        wire.arriving = test.arriving;
        char token[16];
        ASSERT_EQ(cm_net_getarg(wire, wire, 0, 0, token, 10, nullptr), 1);
        std::string bytes, buffer(20000, '\0');
        for (const int32_t wanted : test.counts) {
            int32_t count = -1;
            EXPECT_EQ(cm_net_read(wire, wire, test.fill, buffer.data(), test.size, &count), 1) << test.name;
            EXPECT_EQ(count, wanted) << test.name;
            bytes.append(buffer, 0, static_cast<size_t>(std::clamp(count, 0, test.size < 0 ? 0 : test.size)));
        }
        EXPECT_TRUE(bytes == expected.substr(0, bytes.size())) << test.name;
    }
}

TEST(Input, AClosedHandleFailsWithoutItsUnreadBytes) {
    Wire wire;
    wire.arriving = {"line\nunread"};
    wire.reset = true;
    char text[16];
    int32_t count = -1;
    ASSERT_EQ(cm_net_getarg(wire, wire, 0, 0, text, 10, nullptr), 1);
    EXPECT_EQ(cm_net_getarg(wire, wire, 0, 0, text, 10, nullptr), 0);  // takes "unread", then the reset
    EXPECT_TRUE(wire.closed());
    EXPECT_EQ(cm_net_read(wire, wire, 0, text, 10, &count), 0);
    EXPECT_EQ(count, 0);
}

}  // namespace
}  // namespace cm::test
