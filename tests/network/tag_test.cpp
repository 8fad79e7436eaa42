// Tagged messages, and the look at what comes next.
#include <sstream>

#include "network/wire.h"
#include "support/support.h"

namespace cm::test {
namespace {

int32_t number(const Row &row, size_t field) {
    return static_cast<int32_t>(row.number(field));
}

// The bytes, cut where the numbers in `at` say.
std::deque<std::string> cut(const std::string &bytes, const std::string &at) {
    std::deque<std::string> pieces;
    std::istringstream numbers(at);
    size_t from = 0;
    for (size_t to = 0; numbers >> to; from = to) pieces.push_back(bytes.substr(from, to - from));
    if (from < bytes.size()) pieces.push_back(bytes.substr(from));
    return pieces;
}

// The next item, as "tag length value"; "!" for a failure.
std::string next(Wire &wire, int32_t room) {
    const std::unique_ptr<char[]> value(new char[static_cast<size_t>(room)]);
    int32_t tag = -1, length = -2;
    if (cm_net_get(wire, wire, &tag, value.get(), room, &length) == 0) return "!";
    return std::to_string(tag) + " " + std::to_string(length) + " " +
           std::string(value.get(), static_cast<size_t>(std::max(length, 0)));
}

TEST(Tags, WhatIsPutComesOutAgain) {
    for (const Row &row : rows("network/tags")) {
        SCOPED_TRACE(row.where);
        Wire wire;
        EXPECT_EQ(cm_net_put(wire, wire, number(row, 0), row.text(1), number(row, 2)), 1);
        EXPECT_EQ(wire.sent, "");
        for (const int32_t end : {10, 12, 14}) EXPECT_EQ(cm_net_put(wire, wire, end, nullptr, 0), 1);
        EXPECT_EQ(wire.sent, row[3] + "\x0A\x0C\x0E");
        EXPECT_EQ(wire.sends, (std::vector<size_t>{row[3].size() + 1, 1, 1}));
        wire.arriving = {wire.sent};
        EXPECT_EQ(next(wire, 0), row[4].substr(0, 1) + " 0 ") << "a look";
        EXPECT_EQ(next(wire, 9), row[4]);
        for (const char *end : {"10 0 ", "12 0 ", "14 0 "}) EXPECT_EQ(next(wire, 0), end);
    }
}

TEST(Tags, PutKeepsItsLimits) {
    const std::string bytes(16000, 'x');
    for (const Row &row : rows("network/tag_output")) {
        SCOPED_TRACE(row.where);
        Wire wire;
        wire.conn->out_count = number(row, 0);
        const cm_net_notice notice = {{1, 2, 3}, number(row, 2), bytes.data()};
        const void *value = row[2] == "null"    ? nullptr
                            : row[2] == "bytes" ? bytes.data()
                                                : static_cast<const void *>(&notice);
        EXPECT_EQ(cm_net_put(wire, wire, number(row, 1), value, number(row, 3)), row.number(4));
        std::string sends;
        for (const size_t count : wire.sends) sends += (sends.empty() ? "" : " ") + std::to_string(count);
        EXPECT_EQ(sends, row[5]);
        EXPECT_EQ(wire.conn->out_count, row.number(6));
    }
    Wire gone;
    gone.room = 0;
    EXPECT_EQ(cm_net_put(gone, gone, 10, nullptr, 0), 0);
    EXPECT_EQ(cm_net_put(gone, gone, 9, nullptr, 0), 0) << "closed by then";
}

TEST(Tags, GetKeepsItsLimits) {
    for (const Row &row : rows("network/tag_input")) {
        SCOPED_TRACE(row.where + ": " + row[0]);
        Wire wire;
        wire.arriving = cut(row[1] + std::string(static_cast<size_t>(row.number(2)), 'x'), row[3]);
        EXPECT_EQ(captured_standard_error([&] { EXPECT_EQ(next(wire, number(row, 4)), row[5]); }), row[7]);
        EXPECT_EQ(wire.closed(), row[6] == "closed");
    }
}

std::string heard;

void CM_CALL hear(cm_net_state *, cm_conn *, const cm_net_notice *notice) {
    heard += std::to_string(notice->number[0]) + notice->text + std::to_string(notice->length);
}

TEST(Tags, NoticesGoToTheHandlerAndTheNextItemComesInTheirPlace) {
    Wire wire;
    const cm_net_notice notice = {{-7, 8, 9}, CM_LEN_TEXT, " news "};
    ASSERT_EQ(cm_net_put(wire, wire, CM_TAG_NOTICE, &notice, 0), 1);
    const std::string bytes = wire.sent;
    EXPECT_EQ(bytes, std::string("\1\xFF\xFF\xFF\xF9\0\0\0\x8\0\0\0\x9\0\0\0\6 news ", 23));
    wire.state->notice = hear;
    wire.arriving = {bytes + bytes, bytes + "\x0A" + bytes};
    EXPECT_EQ(next(wire, 9), "10 0 ");
    EXPECT_EQ(heard, "-7 news 6-7 news 6-7 news 6");
    EXPECT_EQ(cm_net_flush(wire, wire), 1);
    EXPECT_EQ(heard.size(), 4 * 9u);
}

TEST(Tags, FlushDropsWhatIsBufferedAndTheRestOfAnItem) {
    Wire wire;
    EXPECT_EQ(cm_net_flush(wire, wire), 1) << "nothing is buffered, so nothing is received";
    wire.arriving = cut(std::string("\x09\x02\0\0\0\1\x03\0\0\0\4text\x0A\x0C", 17), "13 16");
    EXPECT_EQ(next(wire, 0), "9 0 ");
    EXPECT_EQ(cm_net_flush(wire, wire), 1);
    EXPECT_EQ(next(wire, 0), "12 0 ");
}

TEST(Tags, ValueTypesAndTags) {
    std::string tags, types;
    for (int32_t i = 0; i <= 7; i++) {
        tags += static_cast<char>('0' + cm_cmtonettype(i));
        types += static_cast<char>('0' + cm_nettocmtype(i));
    }
    EXPECT_EQ(tags + " " + types, "03254600 00214350");
}

TEST(Peek, LooksWithoutReading) {
    for (const Row &row : rows("network/peeks")) {
        SCOPED_TRACE(row.where);
        Wire wire;
        wire.arriving = cut(std::string(static_cast<size_t>(row.number(0)), 'x') + row[1], row[2]);
        char bytes[5000];
        int16_t match = -1;
        int32_t count = 0;
        ASSERT_EQ(cm_net_read(wire, wire, 0, bytes, number(row, 3), nullptr), 1);
        const int16_t result = cm_net_peek(wire, wire, row.text(4), CM_LEN_TEXT, &match);
        EXPECT_EQ(std::to_string(result) + " " + std::to_string(match), row[5]);
        if (result == 0) continue;
        cm_net_read(wire, wire, 0, bytes, sizeof bytes, &count);
        EXPECT_EQ(std::string(bytes, static_cast<size_t>(count)), row[6]);
    }
}

}  // namespace
}  // namespace cm::test
