// Bodies where a step of a scenario would not do: every length, every range of a file, every call that can fail.
#include "network/wire.h"

namespace cm::test {
namespace {

TEST(Body, EveryLengthAroundTheLimitsIsOneWholeChunk) {
    for (size_t size = 15940; size <= 16012; size++) {
        Wire wire(CM_CONN_CHUNKED);
        ASSERT_TRUE(wire.put(sample(size)) == 1 && wire.end() == 1);
        EXPECT_TRUE(wire.sent == chunk(sample(size)) + "0\r\n\r\n") << size;
    }
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

int16_t put_file(Wire &wire, const std::string &path, int64_t first, int64_t last, bool cached = false) {
    return cm_net_putfile(wire, wire, path.c_str(), static_cast<int32_t>(first), static_cast<int32_t>(last), cached);
}

// What a range means, in the words of the interface: last 0 is the end, a last before the first is nothing.
std::string range_of(const std::string &content, int64_t first, int64_t last) {
    if (first >= static_cast<int64_t>(content.size()) || (last > 0 && last < first)) return "";
    return content.substr(static_cast<size_t>(first),
                          last > 0 ? static_cast<size_t>(last - first + 1) : std::string::npos);
}

TEST(Files, EveryWayCarriesTheSameBytes) {
    const Library library("File Cache Size = 10000000\nMaximum Cached File = 100000\nCache Stat Interval = 3600");
    const TempFolder folder;
    ASSERT_EQ(cm_net_trace(library, CM_NTRACE_PACKETS), 1);
    const auto carried = [&](const std::string &path, int64_t first, int64_t last, std::string_view way) {
        const bool cached = way.starts_with("cached"), chunked = way.ends_with("chunked"), gzip = way.ends_with("gzip");
        Wire wire;
        if (cached || way == "traced") wire.state->ctx = library;
        library.ctx()->net_trace_level = way == "traced" ? CM_NTRACE_PACKETS : CM_NTRACE_NONE;
        wire.no_file_sends = way == "no file sends";
        EXPECT_EQ(wire.put("header", chunked), 1);
        wire.conn->flags |= (chunked ? CM_CONN_CHUNKED : 0) | (gzip ? CM_CONN_GZIP : 0);
        EXPECT_TRUE(put_file(wire, path, first, last, cached) == 1 && wire.end() == 1);
        EXPECT_TRUE(wire.sent.starts_with("header"));
        const std::string body = wire.sent.substr(6);
        return chunked ? joined(chunks_of(body)) : gzip ? gunzip(body) : body;
    };
    for (const int64_t size : {0, 1, 1023, 1024, 1025, 4096, 15980, 15981, 15982, 16000, 16001, 32768, 33000, 200000}) {
        const std::string content = sample(static_cast<size_t>(size));
        const std::string path = folder.write("file" + std::to_string(size), content);
        for (const int64_t first : {int64_t{0}, int64_t{1}, size / 2, size - 1, size, size + 10})
            for (const int64_t last :
                 {int64_t{0}, first - 1, first, size / 2, size - 1, size, size + 100, int64_t{INT32_MAX}})
                for (const char *way : {"plain", "no file sends", "traced", "chunked", "gzip", "cached", "cached, gzip",
                                        "cached, chunked"})
                    EXPECT_TRUE(first < 0 || last < 0 ||
                                carried(path, first, last, way) == range_of(content, first, last))
                        << way << " " << size << ": " << first << "-" << last;
    }
}

TEST(Files, EveryFailureClosesThemAndIsReported) {
    const TempFolder folder;
    const std::string path = folder.write("file", sample(40000));
    const StandardErrorCapture quiet;
    for (const uint32_t flags : {0, CM_CONN_CHUNKED, CM_CONN_GZIP}) {
        bool good = false;
        each_failure(
            Faults::kFiles | Faults::kAllocations,
            [&] {
                Wire wire(flags);
                good = put_file(wire, path, 1, 0) == 1 && wire.end() == 1;
                // Only the close may go unreported.
                EXPECT_TRUE(!good || flags != 0 || wire.sent == sample(40000).substr(1));
            },
            [&](bool injected, size_t leaked) {
                EXPECT_TRUE(good || injected);
                EXPECT_EQ(leaked, 0u);
            });
    }
}

}  // namespace
}  // namespace cm::test
