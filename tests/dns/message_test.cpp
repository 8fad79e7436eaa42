// Names, queries and answers as bytes.
#include <gtest/gtest.h>

#include "messages.h"

using namespace cm::test;
using namespace cm::dns;

namespace {

// A block of its very size, so that a read behind it is caught.
struct Exact {
    explicit Exact(const string &text) : bytes(text.begin(), text.end()) { bytes.shrink_to_fit(); }
    operator Message() const { return {bytes.data(), bytes.size()}; }
    std::vector<uint8_t> bytes;
};

// The steps of data/messages.txt.
struct Messages : World {
    explicit Messages(const Row &) {
        on("expand", [](auto &words) { return expanded(bytes_of(words[0]), bytes_of(words[1])); });
        on("follow", [](auto &words) {  // a chain of names, each a pointer to the one before
            string chain = wire("end");
            for (int64_t i = 0, at = 12; i < words.number(0) - 1; at = 12 + 5 + i++ * 2)
                chain += be16(0xC000 | static_cast<uint32_t>(at));
            return expanded(chain, be16(0xC000 | static_cast<uint32_t>(12 + chain.size() - 2)));
        });
        on("write", [](auto &words) {
            uint8_t buffer[512];
            Writer out(buffer, sizeof buffer);
            out.zeros(kHeaderSize);
            for (size_t i = 0, length = kHeaderSize; i < words.count(); i++, length = out.length()) {
                if (out.name(words[i])) continue;
                EXPECT_EQ(out.length(), length);
                return string("(none)");
            }
            return string(buffer + kHeaderSize, buffer + out.length());
        });
        on("addresses", [](auto &words) { return found(kTypeA, words); });
        on("name", [](auto &words) { return found(kTypePtr, words); });
        on("exchangers", [](auto &words) { return found(kTypeMx, words); });
        on("question", [](auto &words) {
            const string whole = composed(query_of("www.host", 15), words);
            Question question;
            for (size_t length = kHeaderSize; length < whole.size(); length++)
                EXPECT_FALSE(read_question(Exact(whole.substr(0, length)), &question)) << length;
            if (!read_question(Exact(whole), &question)) return string("(none)");
            EXPECT_EQ(question.end, whole.size());
            return question.name + (" " + std::to_string(question.type) + " " + std::to_string(question.class_));
        });
    }
    // The name at the end of some bytes behind the header; "(none)" when it is malformed.
    static string expanded(const string &before, const string &name) {
        const size_t at = kHeaderSize + before.size();
        const Exact message(string(kHeaderSize, '\0') + before + name);
        char text[kNameSize];
        size_t length = 0;
        const size_t end = expand_name(message, at, text, &length);
        EXPECT_EQ(expand_name(message, at, nullptr, nullptr), end);
        if (end == 0) return "(none)";
        EXPECT_EQ(end, message.bytes.size());
        EXPECT_EQ(text[length], 0);
        return {text, length};
    }
    // What an answer to a question for "host" holds; all pieces of it are read too.
    static string found(uint16_t type, const Words &words) {
        const string whole = composed(answer_to(query_of("host", type)), words);
        Answer answer;
        for (size_t length = kHeaderSize; length < whole.size(); length++)
            parse_answer(Exact(whole.substr(0, length)), type, &answer);
        if (!parse_answer(Exact(whole), type, &answer)) return "(none)";
        string text;
        for (size_t i = 0; i < answer.count; i++)
            text += (i > 0 ? " " : "") + (type == kTypeA ? dotted(answer.addresses[i]) : string(answer.names[i]));
        return text;
    }
};
SCENARIOS(OfBytes, Messages, "dns/messages");

TEST(Names, AreNotWrittenWithoutRoom) {
    uint8_t buffer[64];
    for (size_t room = 0; room < 15; room++) {
        memset(buffer, 0x55, sizeof buffer);
        EXPECT_EQ(build_query(buffer, kHeaderSize + room, 7, "some.host", 1), 0u);
        EXPECT_EQ(buffer[kHeaderSize + room], 0x55);
        Writer out(buffer, kHeaderSize + room);
        EXPECT_TRUE(out.zeros(kHeaderSize));
        EXPECT_EQ(out.name("some.host"), room >= 11) << room;
    }
    // What was cut off is not pointed to any more.
    Writer out(buffer, sizeof buffer);
    EXPECT_TRUE(out.zeros(kHeaderSize) && out.name("some.host"));
    out.cut(kHeaderSize);
    EXPECT_TRUE(out.name("a.some.host"));
    EXPECT_EQ(out.length(), kHeaderSize + wire("a.some.host").size());
}

}  // namespace
