// Names, queries and answers as bytes.
#include "messages.h"

using namespace cm::test;
using namespace cm::dns;

namespace {

Message message_of(const string &bytes) {
    return {reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size()};
}

string head(uint32_t questions, uint32_t answers) {
    return be16(7) + be16(0x8180) + be16(questions) + be16(answers) + string(4, '\0');
}

// The name at the end of some bytes behind the header; "(none)" when it is malformed.
string expanded(const string &before, const string &name) {
    const string bytes = head(0, 0) + before + name;
    char text[kNameSize];
    size_t length = 0;
    const size_t end = expand_name(message_of(bytes), kHeaderSize + before.size(), text, &length);
    if (end == 0) return "(none)";
    EXPECT_EQ(expand_name(message_of(bytes), kHeaderSize + before.size(), nullptr, nullptr), end);
    EXPECT_EQ(end, bytes.size());
    EXPECT_EQ(text[length], 0);
    return {text, length};
}

TEST(Names, AreExpanded) {
    const string long_labels =
        wire(string(63, 'a') + "." + string(63, 'b') + "." + string(63, 'c') + "." + string(61, 'd'));
    string chain = wire("end");  // 130 names, each a pointer to the one before
    for (uint32_t i = 0, at = 12; i < 130; i++) {
        chain += be16(0xC000 | at);
        at = 12 + 5 + i * 2;
    }
    struct {
        const char *what;
        string before, name, text;
    } const rows[] = {
        {"labels", "", wire("www.some.host"), "www.some.host"},
        {"the root", "", string(1, '\0'), ""},
        {"a pointer", wire("some.host"), "\3www\xC0\x0C", "www.some.host"},
        {"a pointer into a name", wire("some.host"), "\3www\xC0\x11", "www.host"},
        {"stops and backslashes inside labels", "", string("\3a.b\2c\\\0", 8), "a\\.b.c\\\\"},
        {"any byte", "", string("\3a\0\n\0", 5), string("a\0\n", 3)},
        {"253 characters", "", long_labels,
         string(63, 'a') + "." + string(63, 'b') + "." + string(63, 'c') + "." + string(61, 'd')},
        {"255 characters by a pointer", long_labels, "\1x\xC0\x0C",
         "x." + string(63, 'a') + "." + string(63, 'b') + "." + string(63, 'c') + "." + string(61, 'd')},
        {"256 characters", long_labels, "\2xy\xC0\x0C", "(none)"},
        {"too long by its escapes", "",
         string("\x3F") + string(63, '.') + "\x3F" + string(63, '.') + "\2ab" + string(1, '\0'), "(none)"},
        {"a pointer to itself", "", "\xC0\x0C", "(none)"},
        {"a pointer to its own name", "", "\1a\xC0\x0C", "(none)"},
        {"a pointer forward", "", "\xC0\x0E" + wire("a"), "(none)"},
        {"a pointer into the header", "", "\xC0\x02", "(none)"},
        {"two pointers that lead to each other", "\xC0\x0E", "\xC0\x0C", "(none)"},
        {"a pointer cut off", "", "\xC0", "(none)"},
        {"a label cut off", "", "\3ww", "(none)"},
        {"no end", "", "\3www", "(none)"},
        {"nothing", "", "", "(none)"},
        {"a length byte of a kind that is not used", "", string("\x40\0", 2), "(none)"},
        {"the other one", "", string("\x80\0", 2), "(none)"},
        {"129 jumps", chain, be16(0xC000 | (12 + 5 + 129 * 2)), "(none)"},
        {"127 jumps", chain, be16(0xC000 | (12 + 5 + 125 * 2)), "end"},
    };
    for (const auto &row : rows) EXPECT_EQ(expanded(row.before, row.name), row.text) << row.what;
}

TEST(Names, AreWrittenOnceAndPointedTo) {
    uint8_t buffer[512];
    Writer out(buffer, sizeof buffer);
    EXPECT_TRUE(out.zeros(12) && out.name("www.some.host") && out.name("Some.Host.") && out.name("mail.SOME.host") &&
                out.name("www.other.host") && out.name("a\\.b") && out.name("www.some.host"));
    EXPECT_EQ(string(reinterpret_cast<char *>(buffer) + 12, out.length() - 12),
              wire("www.some.host") + "\xC0\x10" + "\4mail\xC0\x10" + "\3www\5other\xC0\x15" + string("\3a.b\0", 5) +
                  "\xC0\x0C");
    const size_t length = out.length();
    for (const string &name :
         {string(), string("."), string(".a"), string("a..b"), string("a.."), string(64, 'a'), string("\\"),
          string(63, 'a') + "." + string(63, 'b') + "." + string(63, 'c') + "." + string(62, 'd')})
        EXPECT_FALSE(out.name(name)) << name;
    EXPECT_EQ(out.length(), length);
}

TEST(Names, AreNotWrittenWithoutRoom) {
    uint8_t buffer[64];
    for (size_t room = 0; room < 15; room++) {
        memset(buffer, 0x55, sizeof buffer);
        EXPECT_EQ(build_query(buffer, 12 + room, 7, "some.host", 1), 0u);
        EXPECT_EQ(buffer[12 + room], 0x55);
        Writer out(buffer, 12 + room);
        EXPECT_TRUE(out.zeros(12));
        EXPECT_EQ(out.name("some.host"), room >= 11) << room;
    }
    // What was cut off is not pointed to any more.
    Writer out(buffer, sizeof buffer);
    EXPECT_TRUE(out.zeros(12) && out.name("some.host"));
    out.cut(12);
    EXPECT_TRUE(out.name("other.host"));
    EXPECT_EQ(out.length(), 12 + wire("other.host").size());
}

// The addresses or names of an answer to "host", " " between them; "(none)" when there is none to hand out.
string parsed(uint16_t type, const Strings &records, size_t cut = 0, uint32_t claimed = 0) {
    string bytes =
        head(1, claimed != 0 ? claimed : static_cast<uint32_t>(records.size())) + wire("host") + be16(type) + be16(1);
    for (const string &one : records) bytes += one;
    // In a block of its very size, so that a read behind it is caught.
    const std::vector<uint8_t> exact(bytes.begin(), bytes.end() - static_cast<ptrdiff_t>(cut));
    Answer answer;
    if (!parse_answer({exact.data(), exact.size()}, type, &answer)) return "(none)";
    string text;
    for (size_t i = 0; i < answer.count; i++)
        text += (text.empty() ? "" : " ") + (type == kTypeA ? dotted(answer.addresses[i]) : string(answer.names[i]));
    return text;
}

TEST(Answers, OfAddresses) {
    const string cname = record(kOwner, 5, wire("other"));
    const string a1 = a_record("10.0.0.1"), a2 = a_record("10.0.0.2");
    struct {
        const char *what;
        Strings records;
        string found;
        size_t cut;
        uint32_t claimed;
    } const rows[] = {
        {"one", {a1}, "10.0.0.1", 0, 0},
        {"behind a chain of aliases", {cname, cname, record(wire("other"), 1, four("10.0.0.3"))}, "10.0.0.3", 0, 0},
        {"four of five, in their order",
         {a2, a1, a_record("10.0.0.3"), a_record("10.0.0.4"), a_record("10.0.0.5")},
         "10.0.0.2 10.0.0.1 10.0.0.3 10.0.0.4",
         0,
         0},
        {"another length later", {a1, record(kOwner, 1, "abc"), a2}, "10.0.0.1 10.0.0.2", 0, 0},
        {"another class later", {a1, record(kOwner, 1, four("10.0.0.9"), 3), a2}, "10.0.0.1 10.0.0.2", 0, 0},
        {"the class of the first", {record(kOwner, 1, four("10.0.0.9"), 3), a1}, "10.0.0.9", 0, 0},
        {"another length first", {record(kOwner, 1, "abcde"), a1}, "(none)", 0, 0},
        {"no data", {record(kOwner, 1, "")}, "(none)", 0, 0},
        {"more promised than there", {a1}, "10.0.0.1", 0, 65535},
        {"the second cut off", {a1, a2}, "10.0.0.1", 1, 0},
        {"the first cut off", {a1}, "(none)", 1, 0},
        {"cut off in its fields", {a1}, "(none)", 5, 0},
        {"none", {}, "(none)", 0, 0},
        {"an owner that leads nowhere", {a1, record("\xC0\xFF", 1, four("10.0.0.9"))}, "10.0.0.1", 0, 0},
    };
    for (const auto &row : rows) EXPECT_EQ(parsed(kTypeA, row.records, row.cut, row.claimed), row.found) << row.what;
}

TEST(Answers, OfExchangers) {
    const string alias = record(kOwner, 5, wire("other"));
    struct {
        const char *what;
        Strings records;
        string found;
    } const rows[] = {
        {"by preference", {mx_record(20, "b"), mx_record(10, "a")}, "a b"},
        {"equals in their order", {mx_record(10, "a"), mx_record(10, "b"), mx_record(10, "c")}, "a b c"},
        {"the four best",
         {mx_record(9, "e"), mx_record(65535, "f"), mx_record(1, "a"), mx_record(2, "b"), mx_record(3, "c"),
          mx_record(4, "d")},
         "a b c d"},
        {"the name compressed", {record(kOwner, 15, be16(1) + "\4mail\xC0\x0C")}, "mail.host"},
        {"an alias first", {alias, mx_record(1, "a")}, "a"},
        {"an alias last", {mx_record(1, "a"), alias}, "(none)"},
        {"no room for a name", {record(kOwner, 15, be16(1)), mx_record(1, "a")}, "a"},
        {"one byte of data", {record(kOwner, 15, "x")}, "(none)"},
        {"the root", {mx_record(0, "")}, "(none)"},
        {"a name with a blank", {mx_record(1, "a b"), mx_record(2, "c")}, "c"},
        {"a name that ends before its data", {record(kOwner, 15, be16(1) + wire("a") + "x"), mx_record(2, "b")}, "b"},
        {"a name that goes on behind its data", {record(kOwner, 15, be16(1) + "\3a"), mx_record(2, "b")}, "b"},
    };
    for (const auto &row : rows) EXPECT_EQ(parsed(kTypeMx, row.records), row.found) << row.what;
    EXPECT_EQ(parsed(kTypePtr, {alias, record(kOwner, 12, wire("one.host")), record(kOwner, 12, wire("two"))}),
              "one.host");
}

TEST(Answers, CutAnywhereAreNeverReadBehindTheirEnd) {
    const Strings records = {a_record("10.0.0.1"), mx_record(1, "mail.host"), record("\1x\xC0\x0C", 12, "\1y\xC0\x0C")};
    size_t length = 0;
    for (const string &one : records) length += one.size();
    for (const uint16_t type : {kTypeA, kTypePtr, kTypeMx})
        for (size_t cut = 0; cut <= length + 10; cut++) parsed(type, records, cut);
}

TEST(Questions, AreReadFromRequests) {
    uint8_t query[512];
    const size_t length = build_query(query, sizeof query, 7, "www.host", 15);
    Question question;
    ASSERT_TRUE(read_question({query, length}, &question));
    EXPECT_STREQ(question.name, "www.host");
    EXPECT_EQ(question.type, 15);
    EXPECT_EQ(question.class_, 1);
    EXPECT_EQ(question.end, length);
    for (size_t cut = 1; cut <= length - kHeaderSize; cut++)
        EXPECT_FALSE(read_question({query, length - cut}, &question));
    for (const auto &[at, value] : {std::pair<size_t, uint8_t>{2, 0x81}, {2, 0x09}, {5, 0}, {5, 2}}) {
        uint8_t other[512];
        memcpy(other, query, length);
        other[at] = value;
        EXPECT_FALSE(read_question({other, length}, &question)) << at;
    }
}

// Types 65 and 97 differ by what makes a letter small; that is no reason to take one for the other.
TEST(Questions, OnlyNamesAreComparedWithoutCase) {
    uint8_t query[512], small[512], other[512];
    const size_t length = build_query(query, sizeof query, 7, "WWW.host", 65);
    build_query(small, sizeof small, 7, "www.HOST", 65);
    build_query(other, sizeof other, 7, "www.host", 97);
    small[2] = other[2] = 0x81;
    EXPECT_TRUE(answers_query({small, length}, {query, length}, length));
    EXPECT_FALSE(answers_query({other, length}, {query, length}, length));
}

}  // namespace
