// Tagged messages, and the look at what comes next.
#include <gtest/gtest.h>

#include "network/wire.h"
#include "support/support.h"

namespace cm::test {
namespace {

std::string be32(uint32_t value) {
    std::string bytes;
    for (int shift = 24; shift >= 0; shift -= 8) bytes += static_cast<char>(value >> shift);
    return bytes;
}

std::string tagged(int tag, const std::string &rest = "") {
    return static_cast<char>(tag) + rest;
}

std::string in_memory(const auto &value) {
    return {reinterpret_cast<const char *>(&value), sizeof value};
}

struct Value {
    int32_t tag;
    std::string value;  // as it stands in memory
    int32_t length;     // as it is put
    std::string wire;
    int32_t read_tag;  // what comes out of it again
    std::string read;
};

const Value kValues[] = {
    {2, in_memory(int32_t{0x01020304}), 4, tagged(2, "\1\2\3\4"), 2, in_memory(int32_t{0x01020304})},
    {2, in_memory(int32_t{-2}), -3, tagged(2, be32(0xFFFFFFFE)), 2, in_memory(int32_t{-2})},
    {3, "text", -3, tagged(3, be32(4) + "text"), 3, "text"},
    {3, "text", 2, tagged(3, be32(2) + "te"), 3, "te"},
    {3, "text", -2, tagged(3, be32(0)), 3, ""},
    {4, std::string("a\0b", 3), 3, tagged(4, be32(3) + std::string("a\0b", 3)), 4, std::string("a\0b", 3)},
    {5, in_memory(int16_t{1}), 2, tagged(5, "\1"), 5, in_memory(int16_t{1})},
    {5, in_memory(int16_t{2}), 2, tagged(5, std::string(1, '\0')), 5, in_memory(int16_t{0})},
    {6, "\1\2\3\4", 4, tagged(6, "\1\2\3\4"), 6, "\1\2\3\4"},
    {9, "", 0, "\x09", 9, ""},
    {3, "text", -1, "\x09", 9, ""},
    {12, "", -1, "\x09", 9, ""},
};

TEST(Tags, WhatIsPutComesOutAgain) {
    for (const Value &test : kValues) {
        Wire wire;
        ASSERT_EQ(cm_net_put(wire, wire, test.tag, test.value.data(), test.length), 1) << test.wire;
        EXPECT_EQ(wire.sent, "");
        for (const int32_t end : {10, 12, 14}) EXPECT_EQ(cm_net_put(wire, wire, end, nullptr, 0), 1);
        EXPECT_EQ(wire.sent, test.wire + "\x0A\x0C\x0E");
        EXPECT_EQ(wire.sends, (std::vector<size_t>{test.wire.size() + 1, 1, 1}));

        const int32_t room = std::max<int32_t>(1, static_cast<int32_t>(test.read.size()));
        std::string value(static_cast<size_t>(room), '~');
        int32_t tag = 0, length = 0;
        wire.arriving = {wire.sent};
        ASSERT_EQ(cm_net_get(wire, wire, &tag, nullptr, 0, &length), 1);
        EXPECT_EQ(tag, test.read_tag) << "a look";
        ASSERT_EQ(cm_net_get(wire, wire, &tag, value.data(), room, &length), 1) << test.wire;
        EXPECT_EQ(tag, test.read_tag);
        EXPECT_EQ(length, test.read_tag == 9 ? -1 : static_cast<int32_t>(test.read.size()));
        EXPECT_EQ(value.substr(0, test.read.size()), test.read);
        for (const int32_t end : {10, 12, 14}) {
            EXPECT_EQ(cm_net_get(wire, wire, &tag, nullptr, 0, nullptr), 1);
            EXPECT_EQ(tag, end);
        }
        EXPECT_EQ(cm_net_get(wire, wire, &tag, value.data(), room, &length), 1);
        EXPECT_EQ(tag + length, 0) << "the end of the input";
        EXPECT_EQ(cm_net_get(wire, wire, &tag, value.data(), room, &length), 0);
    }
}

TEST(Tags, PutKeepsItsLimits) {
    const std::string bytes = sample(16000);
    const cm_net_notice notice = {{1, 2, 3}, 15990, bytes.data()}, long_notice = {{1, 2, 3}, 15991, bytes.data()};
    struct Case {
        int32_t before;  // bytes that are buffered
        int32_t tag;
        const void *value;
        int32_t length;
        int16_t result;
        std::vector<size_t> sends;
        int32_t after;
    };
    const Case cases[] = {
        {0, 3, bytes.data(), 15990, 1, {}, 15995},
        {0, 3, bytes.data(), 15991, 0, {}, 0},
        {20, 4, bytes.data(), 15990, 1, {}, 16015},
        {21, 4, bytes.data(), 15990, 1, {21}, 15995},
        {16006, 2, bytes.data(), 4, 1, {}, 16011},
        {16007, 2, bytes.data(), 4, 1, {16007}, 5},
        {16009, 5, bytes.data(), 2, 1, {}, 16011},
        {16010, 9, nullptr, 0, 1, {}, 16011},
        {16011, 3, nullptr, -1, 1, {16011}, 1},
        {16010, 10, nullptr, 0, 1, {16011}, 0},
        {16011, 10, nullptr, 0, 1, {16011, 1}, 0},
        {0, 1, &notice, 0, 1, {16007}, 0},
        {7, 1, &notice, 0, 1, {7, 16007}, 0},
        {7, 1, &long_notice, 0, 0, {}, 7},
        {7, 1, nullptr, 0, 0, {}, 7},
        {7, 2, bytes.data(), 15991, 0, {}, 7},
        {7, 3, nullptr, 1, 0, {}, 7},
        {7, 3, nullptr, -3, 0, {}, 7},
        {7, 2, nullptr, 4, 0, {}, 7},
        {7, 7, bytes.data(), 4, 0, {}, 7},
        {7, 8, bytes.data(), 4, 0, {}, 7},
        {7, 11, bytes.data(), 4, 0, {}, 7},
        {7, 13, bytes.data(), 4, 0, {}, 7},
        {7, 0, bytes.data(), 4, 0, {}, 7},
        {7, 256 + 2, bytes.data(), 4, 0, {}, 7},
    };
    for (const Case &test : cases) {
        Wire wire;
        wire.conn->out_count = test.before;
        EXPECT_EQ(cm_net_put(wire, wire, test.tag, test.value, test.length), test.result);
        EXPECT_EQ(wire.sends, test.sends) << "tag " << test.tag << " behind " << test.before;
        EXPECT_EQ(wire.conn->out_count, test.after) << "tag " << test.tag << " behind " << test.before;
    }
    Wire gone;
    gone.room = 0;
    EXPECT_EQ(cm_net_put(gone, gone, 10, nullptr, 0), 0);
    EXPECT_TRUE(gone.closed());
    EXPECT_EQ(cm_net_put(gone, gone, 9, nullptr, 0), 0);
}

TEST(Tags, GetKeepsItsLimits) {
    const std::string big = sample(9000);
    struct Case {
        const char *name;
        std::deque<std::string> arriving;
        int32_t maximum;
        int16_t result;
        int32_t length = 0;
        bool closed = false;
        const char *complaint = "";
    };
    const Case cases[] = {
        {"exactly the room", {tagged(3, be32(4) + "text")}, 4, 1, 4},
        {"too long closes", {tagged(3, be32(5) + "texts")}, 4, 0, 0, true},
        {"too long of the second kind", {tagged(4, be32(5) + "texts")}, 4, 0},
        {"a negative length", {tagged(4, be32(0xFFFFFFFF) + "texts")}, 4, 0},
        {"no room for an integer", {tagged(2, "\1\2\3\4")}, 3, 0},
        {"no room for a truth", {tagged(5, "\1")}, 1, 0},
        {"no room for a word", {tagged(6, "\1\2\3\4")}, 3, 0},
        {"two pieces", {tagged(3, be32(4) + "t"), "ext"}, 9, 1, 4},
        {"cut in the length", {tagged(3, std::string(2, '\0')), std::string("\0\4text", 6)}, 9, 1, 4},
        {"three pieces", {tagged(3, be32(4) + "t"), "ex", "t"}, 9, 0},
        {"as much as two receives bring",
         {tagged(3, be32(8000) + big.substr(0, 4091)), big.substr(0, 3909)},
         9000,
         1,
         8000},
        {"more", {tagged(3, be32(8188) + big.substr(0, 4091)), big.substr(0, 4096), "x"}, 9000, 0},
        {"the peer closes in an item", {tagged(3, be32(4) + "te")}, 9, 1, 0, true},
        {"a notice that is too long", {tagged(1, be32(1) + be32(2) + be32(3) + be32(15991))}, 9, 0, 0, true},
        {"a notice that cannot come whole",
         {tagged(1, be32(1) + be32(2) + be32(3) + be32(9000) + big.substr(0, 4079)), big},
         9,
         0},
        {"an unknown tag", {"\x07"}, 9, 0, 0, false, "Unknown network type 7\n"},
        {"a large one", {"\xFE"}, 9, 0, 0, false, "Unknown network type FE\n"},
    };
    for (const Case &test : cases) {
        Wire wire;
        wire.arriving = test.arriving;
        std::string value(static_cast<size_t>(test.maximum) + 1, '~');
        int32_t tag = -1, length = -1;
        const std::string said = captured_standard_error([&] {
            EXPECT_EQ(cm_net_get(wire, wire, &tag, value.data(), test.maximum, &length), test.result) << test.name;
        });
        EXPECT_EQ(said, test.complaint) << test.name;
        EXPECT_EQ(length, test.length) << test.name;
        EXPECT_EQ(value.back(), '~') << test.name;
        EXPECT_EQ(wire.closed(), test.closed) << test.name;
    }
}

std::vector<std::string> notices;

void CM_CALL hear(cm_net_state *, cm_conn *, const cm_net_notice *notice) {
    EXPECT_EQ(strlen(notice->text), static_cast<size_t>(notice->length));
    notices.push_back(std::to_string(notice->number[0]) + notice->text + std::to_string(notice->number[2]));
}

TEST(Tags, NoticesGoToTheHandlerAndTheNextItemComesInTheirPlace) {
    Wire sender;
    const cm_net_notice notice = {{-7, 8, 9}, CM_LEN_TEXT, " news "};
    ASSERT_EQ(cm_net_put(sender, sender, CM_TAG_NOTICE, &notice, 0), 1);
    EXPECT_EQ(sender.sent, tagged(1, be32(0xFFFFFFF9) + be32(8) + be32(9) + be32(6) + " news "));
    Wire wire;
    wire.state->notice = hear;
    notices.clear();
    int32_t tag = 0, length = 0, value = 0;
    wire.arriving = {sender.sent + sender.sent, sender.sent + tagged(2, be32(5)) + sender.sent};
    EXPECT_EQ(cm_net_get(wire, wire, &tag, &value, sizeof value, &length), 1);
    EXPECT_EQ(tag + value + length, 2 + 5 + 4);
    EXPECT_EQ(notices, (std::vector<std::string>(3, "-7 news 9")));
    wire.state->notice = nullptr;
    EXPECT_EQ(cm_net_flush(wire, wire), 1);
    EXPECT_EQ(notices.size(), 3u);
}

TEST(Tags, FlushDropsWhatIsBufferedAndTheRestOfAnItem) {
    Wire wire;
    EXPECT_EQ(cm_net_flush(wire, wire), 1);
    EXPECT_FALSE(wire.closed()) << "nothing was buffered, so nothing was read";
    const std::string items = "\x09" + tagged(2, be32(1)) + tagged(3, be32(20) + "0123456789");
    wire.arriving = {items, "0123456789\x0A", "\x0C"};
    int32_t tag = 0;
    EXPECT_EQ(cm_net_get(wire, wire, &tag, nullptr, 0, nullptr), 1);
    EXPECT_EQ(cm_net_flush(wire, wire), 1);
    EXPECT_EQ(cm_net_get(wire, wire, &tag, nullptr, 0, nullptr), 1);
    EXPECT_EQ(tag, 12);
}

TEST(Tags, ValueTypesAndTags) {
    const int32_t tags[] = {0, 3, 2, 5, 4, 6, 0};
    for (int32_t type = 0; type <= 6; type++) {
        EXPECT_EQ(cm_cmtonettype(type), tags[type]);
        EXPECT_EQ(cm_nettocmtype(tags[type]), tags[type] != 0 ? type : 0);
    }
    for (const int32_t tag : {-1, 0, 1, 7, 9}) EXPECT_EQ(cm_nettocmtype(tag), 0);
}

TEST(Peek, LooksWithoutReading) {
    const std::string full = sample(4096);
    struct Case {
        std::deque<std::string> arriving;
        int32_t read_first;
        std::string text;
        int16_t result, match;
        std::string left;  // what can be read afterwards
    };
    const Case cases[] = {
        {{"xGE", "T", " /"}, 1, "GET", 1, 1, "GET"},
        {{"xGET /"}, 1, "PUT", 1, 0, "GET /"},
        {{"xGET"}, 1, "", 1, 1, "GET"},
        {{"xGE"}, 1, "GET", 1, 0, ""},                                      // the peer closes before
        {{full}, 1, full.substr(1, 2), 0, 0, full.substr(1)},               // together over 4096 bytes
        {{full.substr(6) + "abc", "def"}, 4090, "abcdef", 1, 1, "abcdef"},  // no room behind
    };
    for (const Case &test : cases) {
        Wire wire;
        wire.arriving = test.arriving;
        char bytes[5000];
        int16_t match = -1;
        int32_t count = 0;
        ASSERT_EQ(cm_net_read(wire, wire, 0, bytes, test.read_first, nullptr), 1);
        EXPECT_EQ(cm_net_peek(wire, wire, test.text.c_str(), CM_LEN_TEXT, &match), test.result) << test.text;
        EXPECT_EQ(match, test.match) << test.text;
        cm_net_read(wire, wire, 0, bytes, sizeof bytes, &count);
        EXPECT_EQ(std::string_view(bytes, static_cast<size_t>(count)), test.left);
    }
}

}  // namespace
}  // namespace cm::test
