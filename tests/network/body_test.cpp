// Bodies: framing to the byte, compression by decoding, and every way in which a body can fail.
#include <gtest/gtest.h>

#include "network/wire.h"
#include "support/support.h"

namespace cm::test {
namespace {

std::string hex(size_t number) {
    char text[20];
    snprintf(text, sizeof text, "%zx", number);
    return text;
}

std::string chunk(std::string_view bytes) {
    return hex(bytes.size()) + "\r\n" + std::string(bytes) + "\r\n";
}

TEST(Body, PiecesBecomeSends) {
    struct Case {
        const char *name;
        std::vector<size_t> pieces;  // 0: a final piece of nothing
        std::vector<size_t> sends;   // plain, without heads and line ends
    };
    const Case cases[] = {
        {"small pieces gather", {100, 200, 300, 0}, {600}},
        {"a final piece of nothing sends nothing", {0}, {}},
        {"the last that fits", {15950, 0}, {15950}},
        {"the first that does not fit an empty buffer", {15951, 0}, {15951}},
        {"the last that is buffered", {15990, 0}, {15990}},
        {"the first that passes by", {15991, 0}, {15991}},
        {"does not fit with what is there", {51, 15900, 0}, {51, 15900}},
        {"fits with what is there", {50, 15900, 0}, {15950}},
        {"4 KB pieces", {4096, 4096, 4096, 4096, 0}, {12288, 4096}},
        {"a large one behind a small one", {10, 200000, 0}, {10, 200000}},
    };
    for (const bool chunked : {false, true}) {
        for (const bool traced : {false, true}) {
            for (const Case &test : cases) {
                Wire wire;
                const auto ctx = std::make_unique<cm_context>();
                ctx->net_trace_level = CM_NTRACE_PACKETS;
                if (traced) wire.state->ctx = ctx.get();
                if (chunked) wire.conn->flags |= CM_CONN_CHUNKED;
                std::string body;
                for (const size_t piece : test.pieces) {
                    body += sample(piece);
                    ASSERT_EQ(wire.put(sample(piece), piece == 0), 1);
                }
                std::string expected;
                size_t at = 0, traced_sends = 0;
                for (const size_t size : test.sends) {
                    expected += chunked ? chunk(body.substr(at, size)) : body.substr(at, size);
                    at += size;
                    traced_sends += chunked ? 2 : 1;  // the head is a piece of its own
                }
                EXPECT_TRUE(wire.sent == expected) << test.name;
                if (traced) {
                    EXPECT_EQ(wire.sends.size(), traced_sends) << test.name;
                } else {
                    EXPECT_LE(wire.sends.size(), test.sends.size()) << test.name;
                }
                wire.sent.clear();
                ASSERT_EQ(cm_net_enddata(wire, wire), 1);
                EXPECT_EQ(wire.sent, chunked ? "0\r\n\r\n" : "") << test.name;
            }
        }
    }
}

TEST(Body, EveryLengthAroundTheLimitsIsOneWholeChunk) {
    for (size_t size = 15940; size <= 16012; size++) {
        Wire wire;
        wire.conn->flags |= CM_CONN_CHUNKED;
        ASSERT_EQ(wire.put(sample(size)), 1);
        ASSERT_EQ(cm_net_enddata(wire, wire), 1);
        EXPECT_TRUE(wire.sent == chunk(sample(size)) + "0\r\n\r\n") << size;
    }
}

TEST(Body, TheConnectionIsPlainAgainAfterTheBody) {
    Wire wire;
    wire.conn->flags |= CM_CONN_CHUNKED | CM_CONN_GZIP;
    ASSERT_EQ(wire.put("body"), 1);
    ASSERT_EQ(cm_net_enddata(wire, wire), 1);
    wire.sent.clear();
    ASSERT_EQ(cm_net_putdata(wire, wire, "HTTP/1.1 200 OK", CM_LEN_TEXT, 1), 1);
    EXPECT_EQ(wire.sent, "HTTP/1.1 200 OK");
}

TEST(Body, GzipDecodesToItsInput) {
    std::vector<size_t> sizes = {0, 1, 1000000};
    for (const size_t n : {1, 2, 3, 10})
        for (const int more : {-1, 0, 1}) sizes.push_back(n * 15936 + static_cast<size_t>(more));
    for (const size_t size : sizes) {
        for (const bool noise : {false, true}) {
            for (const size_t step : {size_t{1000}, size_t{15936}, size_t{50000}}) {
                const std::string input = sample(size, noise);
                Wire wire;
                wire.conn->flags |= CM_CONN_CHUNKED | CM_CONN_GZIP;
                for (size_t at = 0; at < size; at += step) ASSERT_EQ(wire.put(input.substr(at, step)), 1);
                ASSERT_EQ(cm_net_enddata(wire, wire), 1);
                const std::vector<std::string> chunks = chunks_of(wire.sent);
                EXPECT_TRUE(gunzip(joined(chunks)) == input) << size;
                ASSERT_GE(chunks.size(), 2u);
                EXPECT_EQ(chunks.back().size(), 8u);  // the trailer is a chunk of its own
                for (size_t i = 0; i + 2 < chunks.size(); i++) EXPECT_EQ(chunks[i].size(), 16000u);
            }
        }
    }
}

TEST(Body, GzipOfNothing) {
    for (const bool with_call : {false, true}) {
        Wire wire;
        wire.conn->flags |= CM_CONN_GZIP;
        if (with_call) {
            ASSERT_EQ(wire.put("", 1), 1);
        }
        ASSERT_EQ(cm_net_enddata(wire, wire), 1);
        const unsigned char expected[] = {0x1F, 0x8B, 8, 0, 0, 0, 0, 0, 0, 0x0B, 3, 0, 0, 0, 0, 0, 0, 0, 0, 0};
        EXPECT_EQ(wire.sent, std::string(reinterpret_cast<const char *>(expected), sizeof expected));
    }
}

TEST(Body, AHeaderLeftInTheBufferGoesOutPlainBeforeACompressedBody) {
    Wire wire;
    ASSERT_EQ(wire.put("HTTP/1.1 200 OK\r\n\r\n"), 1);
    wire.conn->flags |= CM_CONN_CHUNKED | CM_CONN_GZIP;
    ASSERT_EQ(wire.put("text"), 1);
    EXPECT_EQ(wire.sent, "HTTP/1.1 200 OK\r\n\r\n");
    EXPECT_TRUE(wire.more[0]);
    ASSERT_EQ(cm_net_enddata(wire, wire), 1);
    EXPECT_EQ(gunzip(joined(chunks_of(wire.sent.substr(19)))), "text");
}

TEST(Body, ACompressorThatCannotStartClosesTheHandle) {
    for (int k = 1;; k++) {
        Wire wire;
        const LeakCheck leaks;
        wire.conn->flags |= CM_CONN_GZIP;
        int16_t result = 1;
        int64_t injected = 0;
        const std::string output = captured_standard_error([&] {
            const Faults faults(Faults::kAllocations, k);
            result = wire.put("text");
            injected = faults.injected();
        });
        if (injected == 0) {
            EXPECT_EQ(result, 1);
            EXPECT_GT(k, 6);  // stream, stage and what the compressor itself asks for
            break;
        }
        EXPECT_EQ(result, 0);
        EXPECT_TRUE(wire.closed());
        EXPECT_EQ(leaks.outstanding(), 0u);
        EXPECT_NE(output.find("ZLIB deflateInit2() failure."), std::string::npos) << output;
        EXPECT_EQ(cm_net_enddata(wire, wire), 0);
    }
}

TEST(Body, ABodyThatIsNeverEndedGivesItsMemoryBack) {
    const LeakCheck leaks;
    Wire wire;
    wire.conn->flags |= CM_CONN_GZIP;
    ASSERT_EQ(wire.put(sample(100000)), 1);
    EXPECT_GT(leaks.outstanding(), 0u);
    net::release_body(wire);
    EXPECT_EQ(leaks.outstanding(), 0u);
    EXPECT_EQ(wire.conn->gz_staged, 0);
    net::release_body(wire);
}

// The compressor fails only when its state is damaged, so the tests damage it: without room, then without a state.
class DamagedCompressor : public testing::Test {
protected:
    DamagedCompressor() {
        wire.conn->flags |= CM_CONN_GZIP | CM_CONN_CHUNKED;
        EXPECT_EQ(wire.put("text"), 1);
        stream = static_cast<z_stream *>(wire.conn->gz);
    }

    Wire wire;
    z_stream *stream;
};

TEST_F(DamagedCompressor, OnTheStream) {
    stream->next_out = nullptr;
    int16_t result = 1;
    const std::string output = captured_standard_error([&] { result = wire.put(sample(20000)); });
    EXPECT_EQ(result, 0);
    EXPECT_TRUE(wire.closed());
    EXPECT_EQ(output, "Tilvar Server Error: ZLIB deflate error on stream: -2\n");
}

TEST_F(DamagedCompressor, AtTheEnd) {
    stream->next_out = nullptr;
    int16_t result = 1;
    const std::string output = captured_standard_error([&] { result = cm_net_enddata(wire, wire); });
    EXPECT_EQ(result, 0);
    EXPECT_TRUE(wire.closed());
    EXPECT_EQ(output, "Tilvar Server Error: ZLIB deflate error (-2)\n");
}

TEST(Body, ACompressorThatCannotBeFreedIsReported) {
    Wire wire;
    static std::vector<void *> blocks;
    static z_stream *stream;
    blocks.clear();
    platform::os.allocate = [](size_t bytes) { return blocks.emplace_back(platform::kSystem.allocate(bytes)); };
    platform::os.release = [](void *block) {
        std::erase(blocks, block);
        platform::kSystem.release(block);
    };
    static auto next_send = platform::os.socket_send;
    platform::os.socket_send = [](cm_socket socket, const platform::Slice *slices, int32_t count, bool more,
                                  size_t *out) {
        if (stream != nullptr) stream->state = nullptr;
        stream = nullptr;
        return next_send(socket, slices, count, more, out);
    };
    cm_context traced = {};  // so that the rest of the body is a send of its own, before the compressor is freed
    traced.net_trace_level = CM_NTRACE_PACKETS;
    wire.state->ctx = &traced;
    traced.trace_level = CM_INFO;
    wire.conn->flags |= CM_CONN_GZIP;
    ASSERT_EQ(wire.put("text"), 1);
    stream = static_cast<z_stream *>(wire.conn->gz);
    const std::string output = captured_standard_error([&] { EXPECT_EQ(cm_net_enddata(wire, wire), 1); });
    EXPECT_EQ(output, "Tilvar Server Error: ZLIB deflateEnd error (-2)\n");
    EXPECT_EQ(gunzip(wire.sent), "text");
    for (void *block : blocks) platform::kSystem.release(block);
}

TEST(Body, AFailedSendClosesTheHandleAndDropsWhatWaited) {
    struct Case {
        const char *name;
        uint32_t flags;
        size_t room;
    };
    const Case cases[] = {{"plain", 0, 20000},
                          {"chunked", CM_CONN_CHUNKED, 20000},
                          {"gzip", CM_CONN_GZIP, 20000},
                          {"the end of a body", CM_CONN_CHUNKED | CM_CONN_GZIP, 90000}};
    const std::string input = sample(100000, true);
    for (const Case &test : cases) {
        Wire wire;
        wire.conn->flags |= test.flags;
        wire.room = test.room;
        int16_t result = 1;
        for (int i = 0; i < 10 && result != 0; i++)
            result = wire.put(input.substr(static_cast<size_t>(i) * 10000, 10000));
        if (result != 0) result = cm_net_enddata(wire, wire);
        EXPECT_EQ(result, 0) << test.name;
        EXPECT_TRUE(wire.closed()) << test.name;
        const size_t sends = wire.sends.size();
        EXPECT_EQ(wire.put("x", 1), 0);
        EXPECT_EQ(cm_net_enddata(wire, wire), 0);
        EXPECT_EQ(wire.sends.size(), sends) << test.name;
    }
}

TEST(Body, ArgumentsThatAreNoData) {
    Wire wire;
    EXPECT_EQ(cm_net_putdata(wire, wire, nullptr, CM_LEN_TEXT, 1), 0);
    EXPECT_EQ(cm_net_putdata(wire, wire, nullptr, 5, 1), 0);
    EXPECT_EQ(cm_net_putdata(wire, wire, nullptr, 0, 1), 1);
    EXPECT_EQ(cm_net_putdata(wire, wire, "text", -7, 1), 1);
    EXPECT_EQ(wire.sent, "");
}

}  // namespace
}  // namespace cm::test
