// What buffered calls make of bytes, over the scripted connection of wire.h.  As scenarios:
// data/{input,tags,bodies}.txt.
#include "network/wire.h"
#include "support/scenario.h"

using namespace cm::test;

namespace {

using std::string;
using std::to_string;

// The setting of a case is section "common" of the configuration; without one the connection has no context.
//     arrive PIECE...               what the next receives bring; behind the last the peer has closed
//     resets, room BYTES            or has reset; the peer is gone when more than that is sent
//     token DELIMITER MOST [cut], tokens BYTES DELIMITER MOST [cut]      all of them; "!": failed
//     read SIZE, fill SIZE, peek TEXT                                    peek: result and match
//     item TAG [VALUE|null [LENGTH]], notice LENGTH TEXT, next [ROOM]    next: tag, length and value, or "!"
//     flush, heard                  heard: the notices that the handler got
//     flags [chunked] [gzip], put PIECE..., noise SIZE... (which cannot be compressed), final [PIECE], end
//     file NAME TEXT, putfile NAME [cached]
//     sent, unpacked, back          what was sent since; as a compressed chunked body; so that it arrives again
//     sends, buffered               bytes of each send since ("+": it said that more follows); what is not sent yet
//     closed, damage (the compressor), trace LEVEL, traced
//     complains STEP                what the step writes to the standard error stream, and gives
class Scripted : public World {
public:
    explicit Scripted(const Row &head) {
        if (head.fields.size() > 1) wire_.state->ctx = library_.emplace(head.text(1)).ctx();
        wire_.state->notice = [](cm_net_state *, cm_conn *, const cm_net_notice *notice) {
            heard += to_string(notice->number[0]) + " " + to_string(notice->length) + " " + notice->text + ";";
        };
        input();
        tags();
        bodies();
        on("sent", [this](auto &) { return std::exchange(wire_.sent, ""); });
        on("unpacked", [this](auto &) { return gunzip(joined(chunks_of(std::exchange(wire_.sent, "")))); });
        on("back", [this](auto &) { wire_.arriving.push_back(std::exchange(wire_.sent, "")); });
        on("sends", [this](auto &) {
            string sizes;
            for (size_t i = 0; i < wire_.sends.size(); i++)
                sizes += (i > 0 ? " " : "") + to_string(wire_.sends[i]) + (wire_.more[i] ? "+" : "");
            wire_.sends.clear();
            wire_.more.clear();
            return sizes;
        });
        on("buffered", [this](auto &) { return wire_.conn->out_count; });
        on("closed", [this](auto &) { return wire_.closed(); });
        on("complains", [this](auto &words) {
            string result;
            return captured_standard_error([&] { result = run(words); }) + result;
        });
        on("trace", [this](auto &words) { return cm_net_trace(*library_, static_cast<int32_t>(words.number(0))); });
        on("traced", [this](auto &) { return library_->folder().read("log/network.log"); });
    }

private:
    static string token(const Wire &wire, const string &delimiter, size_t most, bool cut) {
        string text(most + 2, '~');
        int32_t length = -1;
        const int16_t result =
            cm_net_getarg(wire, wire, delimiter[0], cut, text.data(), static_cast<int32_t>(most), &length);
        EXPECT_EQ(text.back(), '~') << "wrote past its room";
        EXPECT_TRUE(result == 0 || text[static_cast<size_t>(length)] == '\0');
        return result == 0 ? "!" : text.substr(0, static_cast<size_t>(length));
    }
    // Each with ";" behind it, until that fails; the same for every way in which the bytes can arrive in three pieces.
    static string tokens(const Words &words) {
        const string &bytes = words[0];
        string common;
        for (size_t a = 0; a <= bytes.size(); a++)
            for (size_t b = a; b <= bytes.size(); b++) {
                Wire wire;
                wire.arriving = {bytes.substr(0, a), bytes.substr(a, b - a), bytes.substr(b)};
                std::erase(wire.arriving, "");
                string all;
                for (string one; one != "!"; all += one + ";")
                    one = token(wire, words[1], static_cast<size_t>(words.number(2)), words[3] == "cut");
                if (a + b > 0 && all != common) return all + " instead of " + common;
                common = all;
            }
        return common;
    }
    string read(bool fill, int64_t size) {
        string bytes(20000, '\0');
        int32_t count = -1;
        if (cm_net_read(wire_, wire_, fill, bytes.data(), static_cast<int32_t>(size), &count) == 0)
            return count == 0 ? "!" : "?";
        return bytes.substr(0, static_cast<size_t>(count));
    }
    void input() {
        on("arrive", [this](auto &words) {
            for (size_t i = 0; i < words.count(); i++) wire_.arriving.push_back(words[i]);
        });
        on("resets", [this](auto &) { wire_.reset = true; });
        on("token", [this](auto &words) {
            return token(wire_, words[0], static_cast<size_t>(words.number(1)), words[2] == "cut");
        });
        on("tokens", tokens);
        on("read", [this](auto &words) { return read(false, words.number(0)); });
        on("fill", [this](auto &words) { return read(true, words.number(0)); });
        on("peek", [this](auto &words) {
            int16_t match = -1;
            const int16_t result = cm_net_peek(wire_, wire_, words.text(0), CM_LEN_TEXT, &match);
            return to_string(result) + " " + to_string(match);
        });
    }
    void tags() {
        on("item", [this](auto &words) {
            return cm_net_put(wire_, wire_, static_cast<int32_t>(words.number(0)),
                              words[1] == "null" ? nullptr : words.text(1),
                              static_cast<int32_t>(words.count() > 2 ? words.number(2) : words[1].size()));
        });
        on("notice", [this](auto &words) {
            const cm_net_notice notice = {{-7, 8, 9}, static_cast<int32_t>(words.number(0)), words.text(1)};
            return cm_net_put(wire_, wire_, CM_TAG_NOTICE, &notice, 0);
        });
        on("next", [this](auto &words) -> string {
            const std::unique_ptr<char[]> value(new char[static_cast<size_t>(words.number(0))]);
            int32_t tag = -1, length = -2;
            if (cm_net_get(wire_, wire_, &tag, value.get(), static_cast<int32_t>(words.number(0)), &length) == 0)
                return "!";
            const string head = to_string(tag) + " " + to_string(length);
            return length > 0 ? head + " " + string(value.get(), static_cast<size_t>(length)) : head;
        });
        on("flush", [this](auto &) { return cm_net_flush(wire_, wire_); });
        on("heard", [](auto &) { return std::exchange(heard, ""); });
    }
    void bodies() {
        on("room", [this](auto &words) { wire_.room = static_cast<size_t>(words.number(0)); });
        on("flags", [this](auto &words) {
            wire_.conn->flags = 0;
            for (size_t i = 0; i < words.count(); i++)
                wire_.conn->flags |= words[i] == "gzip" ? CM_CONN_GZIP : CM_CONN_CHUNKED;
        });
        on("put", [this](auto &words) {
            int16_t result = 1;
            for (size_t i = 0; i < words.count() && result == 1; i++) result = wire_.put(words[i]);
            return result;
        });
        on("noise", [this](auto &words) { return wire_.put(sample(static_cast<size_t>(words.number(0)), true)); });
        on("final", [this](auto &words) { return wire_.put(words[0], 1); });
        on("end", [this](auto &) { return wire_.end(); });
        on("file", [this](auto &words) { folder_.write(words[0], words[1]); });
        on("putfile", [this](auto &words) {
            return cm_net_putfile(wire_, wire_, folder_.path(words[0]).c_str(), 0, 0, words[1] == "cached");
        });
        on("damage", [this](auto &) { static_cast<z_stream *>(wire_.conn->gz)->next_out = nullptr; });
    }

    inline static string heard;
    TempFolder folder_;
    std::optional<Library> library_;
    Wire wire_;
};

SCENARIOS(Input, Scripted, "network/input");
SCENARIOS(Tags, Scripted, "network/tags");
SCENARIOS(Bodies, Scripted, "network/bodies");

TEST(ValueTypes, HaveTags) {
    string tags, types;
    for (int32_t i = 0; i <= 7; i++) {
        tags += to_string(cm_cmtonettype(i));
        types += to_string(cm_nettocmtype(i));
    }
    EXPECT_EQ(tags + " " + types, "03254600 00214350");
}

}  // namespace
