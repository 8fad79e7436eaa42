// Buffered input: what a token is does not depend on how the bytes arrive.
#include <sstream>

#include "network/wire.h"

namespace cm::test {
namespace {

std::string read_tokens(const Row &row, std::deque<std::string> pieces) {
    Wire wire;
    std::erase(pieces, "");
    wire.arriving = std::move(pieces);
    const auto maximum = static_cast<int32_t>(row.number(4));
    std::string tokens;
    while (tokens.size() < row[5].size()) {
        std::string text(static_cast<size_t>(maximum) + 2, '~');
        int32_t length = -1;
        const auto truncate = static_cast<int16_t>(row.number(3));
        const int16_t result = cm_net_getarg(wire, wire, row[2][0], truncate, text.data(), maximum, &length);
        EXPECT_EQ(text.back(), '~') << "wrote past its room";
        if (result == 0) return tokens + "!";
        EXPECT_EQ(text[static_cast<size_t>(length)], '\0');
        tokens += text.substr(0, static_cast<size_t>(length)) + ";";
    }
    return tokens;
}

TEST(Input, TokensAreTheSameForEverySplit) {
    for (const Row &row : rows("network/tokens")) {
        SCOPED_TRACE(row.where + ": " + row[0]);
        const std::string &input = row[1];
        for (size_t a = 0; a <= input.size(); a++)
            for (size_t b = a; b <= input.size(); b++)
                EXPECT_EQ(read_tokens(row, {input.substr(0, a), input.substr(a, b - a), input.substr(b)}), row[5]);
        std::deque<std::string> single;
        for (const char c : input) single.emplace_back(1, c);
        EXPECT_EQ(read_tokens(row, single), row[5]);
    }
}

TEST(Input, ALongTokenSpansManyBuffers) {
    std::string line = sample(20000), token(30001, '\0');
    std::replace(line.begin(), line.end(), '\n', '.');
    Wire wire;
    wire.arriving = {line.substr(0, 4095), line.substr(4095) + "\r\nnext\n"};
    int32_t length = 0;
    ASSERT_EQ(cm_net_getarg(wire, wire, 0, 0, token.data(), 30000, &length), 1);
    EXPECT_TRUE(token.substr(0, static_cast<size_t>(length)) == line);
    ASSERT_EQ(cm_net_getarg(wire, wire, 0, 0, token.data(), 30000, nullptr), 1);
    EXPECT_STREQ(token.c_str(), "next");
}

TEST(Input, ReadTakesWhatIsBufferedFirst) {
    for (const Row &row : rows("network/reads")) {
        SCOPED_TRACE(row.where + ": " + row[0]);
        std::string text(20000, '\0'), expected, bytes;
        Wire wire;
        for (size_t i = 4; i < row.fields.size(); i++) expected += wire.arriving.emplace_back(row[i]);
        ASSERT_EQ(cm_net_getarg(wire, wire, 0, 0, text.data(), 10, nullptr), 1);
        std::istringstream counts(row[3]);
        for (int32_t wanted = 0, count = -1; counts >> wanted; bytes.append(text, 0, static_cast<size_t>(count))) {
            EXPECT_EQ(
                cm_net_read(wire, wire, row[1] == "fill", text.data(), static_cast<int32_t>(row.number(2)), &count), 1);
            EXPECT_EQ(count, wanted);
        }
        EXPECT_TRUE(expected.substr(6).starts_with(bytes));
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
