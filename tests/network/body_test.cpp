// Bodies: framing to the byte, compression by decoding, and every way in which a body can fail.
#include <sstream>

#include "network/wire.h"

namespace cm::test {
namespace {

std::vector<size_t> numbers(const std::string &text) {
    std::istringstream in(text);
    return {std::istream_iterator<size_t>(in), {}};
}

TEST(Body, PiecesBecomeSends) {
    const auto ctx = std::make_unique<cm_context>();
    ctx->net_trace_level = CM_NTRACE_PACKETS;
    for (const Row &row : rows("network/pieces")) {
        for (const auto &[chunked, traced] : {std::pair(false, false), {false, true}, {true, false}, {true, true}}) {
            SCOPED_TRACE(row.where + ": " + row[0]);
            Wire wire(chunked ? CM_CONN_CHUNKED : 0);
            if (traced) wire.state->ctx = ctx.get();
            std::string body, expected;
            for (const size_t piece : numbers(row[1])) {
                body += sample(piece);
                ASSERT_EQ(wire.put(sample(piece)), 1);
            }
            if (!traced) {
                EXPECT_EQ(wire.sends.size(), static_cast<size_t>(row.number(3)));
            }
            ASSERT_EQ(wire.put("", 1), 1);
            const std::vector<size_t> sends = numbers(row[2]);
            size_t at = 0;
            for (const size_t size : sends) {
                expected += chunked ? chunk(body.substr(at, size)) : body.substr(at, size);
                at += size;
            }
            EXPECT_TRUE(wire.sent == expected);
            EXPECT_LE(wire.sends.size(), sends.size() * (traced && chunked ? 2 : 1));
            if (traced) {
                EXPECT_EQ(wire.sends.size(), sends.size() * (chunked ? 2 : 1));  // the head is a piece of its own
            }
            wire.sent.clear();
            ASSERT_EQ(wire.end(), 1);
            EXPECT_EQ(wire.sent, chunked ? "0\r\n\r\n" : "");
        }
    }
}

TEST(Body, EveryLengthAroundTheLimitsIsOneWholeChunk) {
    for (size_t size = 15940; size <= 16012; size++) {
        Wire wire(CM_CONN_CHUNKED);
        ASSERT_TRUE(wire.put(sample(size)) == 1 && wire.end() == 1);
        EXPECT_TRUE(wire.sent == chunk(sample(size)) + "0\r\n\r\n") << size;
    }
}

TEST(Body, WhatStandsBeforeAndAfterACompressedBodyIsPlain) {
    Wire wire;
    ASSERT_EQ(wire.put("HTTP/1.1 200 OK\r\n\r\n"), 1);
    wire.conn->flags |= CM_CONN_CHUNKED | CM_CONN_GZIP;
    ASSERT_EQ(wire.put("text"), 1);
    EXPECT_EQ(wire.sent, "HTTP/1.1 200 OK\r\n\r\n");
    EXPECT_TRUE(wire.more[0]);
    ASSERT_EQ(wire.end(), 1);
    EXPECT_EQ(gunzip(joined(chunks_of(wire.sent.substr(19)))), "text");
    wire.sent.clear();
    ASSERT_EQ(cm_net_putdata(wire, wire, "HTTP/1.1 200 OK", CM_LEN_TEXT, 1), 1);
    EXPECT_EQ(wire.sent, "HTTP/1.1 200 OK");
}

TEST(Body, GzipDecodesToItsInput) {
    std::vector<size_t> sizes = {0, 1, 1000000};
    for (const size_t n : {1, 2, 3, 10}) sizes.insert(sizes.end(), {n * 15936 - 1, n * 15936, n * 15936 + 1});
    for (const size_t size : sizes) {
        for (const auto &[noise, step] : {std::pair(false, 1000u), {true, 1000u}, {true, 15936u}, {true, 50000u}}) {
            const std::string input = sample(size, noise);
            Wire wire(CM_CONN_CHUNKED | CM_CONN_GZIP);
            for (size_t at = 0; at < size; at += step) ASSERT_EQ(wire.put(input.substr(at, step)), 1);
            ASSERT_EQ(wire.end(), 1);
            const std::vector<std::string> chunks = chunks_of(wire.sent);
            EXPECT_TRUE(gunzip(joined(chunks)) == input) << size;
            ASSERT_GE(chunks.size(), 2u);
            EXPECT_EQ(chunks.back().size(), 8u);  // the trailer is a chunk of its own
            for (size_t i = 0; i + 2 < chunks.size(); i++) EXPECT_EQ(chunks[i].size(), 16000u);
        }
    }
    for (const bool with_call : {false, true}) {
        Wire wire(CM_CONN_GZIP);
        if (with_call) wire.put("", 1);
        ASSERT_EQ(wire.end(), 1);
        EXPECT_EQ(wire.sent, std::string("\x1F\x8B\x08\0\0\0\0\0\0\x0B\x03\0\0\0\0\0\0\0\0\0\0", 20));
    }
}

TEST(Body, ACompressorThatCannotStartClosesTheHandle) {
    std::string output;
    int rounds = 0;
    bool good = true;
    each_failure(
        Faults::kAllocations,
        [&] {
            Wire wire(CM_CONN_GZIP);
            output = captured_standard_error([&] { good = wire.put("text") == 1; });
            EXPECT_NE(wire.closed(), good);
            EXPECT_EQ(wire.end(), good);
        },
        [&](bool injected, size_t leaked) {
            rounds++;
            EXPECT_NE(injected, good);
            EXPECT_EQ(output, injected ? "Tilvar Server Error: ZLIB deflateInit2() failure.\n" : "");
            EXPECT_EQ(leaked, 0u);
        });
    EXPECT_GT(rounds, 6);  // stream, stage and what the compressor itself asks for
}

TEST(Body, ABodyThatIsNeverEndedGivesItsMemoryBack) {
    const LeakCheck leaks;
    Wire wire(CM_CONN_GZIP);
    ASSERT_EQ(wire.put(sample(100000)), 1);
    EXPECT_GT(leaks.outstanding(), 0u);
    for (int i = 0; i < 2; i++) net::release_body(wire);
    EXPECT_EQ(leaks.outstanding(), 0u);
    EXPECT_EQ(wire.conn->gz_staged, 0);
}

// The compressor fails only when its state is damaged, so the tests damage it: without room, then without a state.
TEST(Body, ADamagedCompressorClosesTheHandle) {
    for (const bool at_end : {false, true}) {
        Wire wire(CM_CONN_GZIP | CM_CONN_CHUNKED);
        EXPECT_EQ(wire.put("text"), 1);
        static_cast<z_stream *>(wire.conn->gz)->next_out = nullptr;
        EXPECT_EQ(captured_standard_error([&] { EXPECT_EQ(at_end ? wire.end() : wire.put(sample(20000)), 0); }),
                  at_end ? "Tilvar Server Error: ZLIB deflate error (-2)\n"
                         : "Tilvar Server Error: ZLIB deflate error on stream: -2\n");
        EXPECT_TRUE(wire.closed());
    }
}

TEST(Body, ACompressorThatCannotBeFreedIsReported) {
    Wire wire(CM_CONN_GZIP);
    std::vector<void *> blocks;
    const Replace<&Table::allocate> allocate(
        [&](size_t bytes) { return blocks.emplace_back(platform::kSystem.allocate(bytes)); });
    const Replace<&Table::release> release([&](void *block) {
        std::erase(blocks, block);
        platform::kSystem.release(block);
    });
    const auto traced = std::make_unique<cm_context>();  // so that the rest is sent before the compressor is freed
    traced->net_trace_level = CM_NTRACE_PACKETS;
    traced->trace_level = CM_INFO;
    wire.state->ctx = traced.get();
    ASSERT_EQ(wire.put("text"), 1);
    auto *const stream = static_cast<z_stream *>(wire.conn->gz);
    const auto send = platform::os.socket_send;
    bool damaged = false;
    const Replace<&Table::socket_send, 1> damage([&](auto... arguments) {
        if (!std::exchange(damaged, true)) stream->state = nullptr;
        return send(arguments...);
    });
    EXPECT_EQ(captured_standard_error([&] { EXPECT_EQ(wire.end(), 1); }),
              "Tilvar Server Error: ZLIB deflateEnd error (-2)\n");
    EXPECT_EQ(gunzip(wire.sent), "text");
    for (void *block : blocks) platform::kSystem.release(block);
}

TEST(Body, AFailedSendClosesTheHandleAndDropsWhatWaited) {
    const std::string input = sample(100000, true);
    for (const auto &[flags, room] : {std::pair(0u, 20000u),
                                      {CM_CONN_CHUNKED, 20000u},
                                      {CM_CONN_GZIP, 20000u},
                                      {CM_CONN_CHUNKED | CM_CONN_GZIP, 90000u}}) {  // the end of a body
        Wire wire(flags);
        wire.room = room;
        int16_t result = 1;
        for (size_t i = 0; i < 10 && result != 0; i++) result = wire.put(input.substr(i * 10000, 10000));
        if (result != 0) result = wire.end();
        EXPECT_EQ(result, 0) << flags;
        EXPECT_TRUE(wire.closed()) << flags;
        const size_t sends = wire.sends.size();
        EXPECT_EQ(wire.put("x", 1), 0);
        EXPECT_EQ(wire.end(), 0);
        EXPECT_EQ(wire.sends.size(), sends) << flags;
    }
}

}  // namespace
}  // namespace cm::test
