// Files as bodies: every way to the wire carries the same bytes.
#include "network/wire.h"

namespace cm::test {
namespace {

constexpr char kCached[] = "File Cache Size = 10000000\nMaximum Cached File = 100000\nCache Stat Interval = 3600\n";

class PutFile : public testing::Test {
protected:
    static int16_t put(Wire &wire, const std::string &path, int64_t first = 0, int64_t last = 0, bool cached = false) {
        return cm_net_putfile(wire, wire, path.c_str(), static_cast<int32_t>(first), static_cast<int32_t>(last),
                              cached);
    }
    std::string make(size_t size) { return folder.write("file" + std::to_string(size), sample(size)); }

    TempFolder folder;
};

// What a range means, in the words of the interface: last 0 is the end, a last before the first is nothing.
std::string range_of(const std::string &content, int64_t first, int64_t last) {
    if (first >= static_cast<int64_t>(content.size()) || (last > 0 && last < first)) return "";
    return content.substr(static_cast<size_t>(first),
                          last > 0 ? static_cast<size_t>(last - first + 1) : std::string::npos);
}

TEST_F(PutFile, EveryWayCarriesTheSameBytes) {
    constexpr std::string_view kHeader = "HTTP/1.1 200 OK\r\n\r\n";
    const Library library(kCached);
    ASSERT_TRUE(library.ok());
    ASSERT_EQ(cm_net_trace(library, CM_NTRACE_PACKETS), 1);
    const auto check = [&](const std::string &path, int64_t first, int64_t last, std::string_view way) {
        const bool cached = way.starts_with("cached"), chunked = way.ends_with("chunked"), gzip = way.ends_with("gzip");
        Wire wire;
        if (cached || way == "traced") wire.state->ctx = library;
        library.ctx()->net_trace_level = way == "traced" ? CM_NTRACE_PACKETS : CM_NTRACE_NONE;
        wire.no_file_sends = way == "no file sends";
        ASSERT_EQ(wire.put(kHeader, chunked), 1);
        wire.conn->flags |= (chunked ? CM_CONN_CHUNKED : 0) | (gzip ? CM_CONN_GZIP : 0);
        ASSERT_EQ(put(wire, path, first, last, cached), 1);
        ASSERT_EQ(wire.end(), 1);
        ASSERT_EQ(wire.sent.substr(0, kHeader.size()), kHeader);
        std::string body = wire.sent.substr(kHeader.size());
        if (chunked) body = joined(chunks_of(body));
        if (gzip) body = gunzip(body);
        EXPECT_TRUE(body == range_of(folder.read(path.substr(folder.path().size() + 1)), first, last));
    };
    for (const int64_t size : {0, 1, 1023, 1024, 1025, 4096, 15980, 15981, 15982, 16000, 16001, 32768, 33000, 200000}) {
        const std::string path = make(static_cast<size_t>(size));
        for (const int64_t first : {int64_t{0}, int64_t{1}, size / 2, size - 1, size, size + 10})
            for (const int64_t last :
                 {int64_t{0}, first - 1, first, size / 2, size - 1, size, size + 100, int64_t{INT32_MAX}})
                for (const char *way : {"plain", "no file sends", "traced", "chunked", "gzip", "cached", "cached, gzip",
                                        "cached, chunked"}) {
                    SCOPED_TRACE(way + (" " + std::to_string(size)) + ": " + std::to_string(first) + "-" +
                                 std::to_string(last));
                    if (first >= 0 && last >= 0) check(path, first, last, way);
                }
    }
}

TEST_F(PutFile, TheHeaderLeavesWithTheFile) {
    const Library library(kCached);
    struct {
        size_t size;
        std::vector<size_t> sends;  // what the system sends past the memory shares its first packet with the header
        int file_sends;
        bool cached;
    } const cases[] = {
        {1000, {1006}, 0, false}, {200000, {6, 70000, 70000, 60000}, 3, false}, {60000, {60006}, 0, true}};
    for (const auto &[size, sends, file_sends, cached] : cases) {
        for (bool known = !cached;; known = true) {  // a file gets into the cache the first time
            Wire wire;
            if (cached) wire.state->ctx = library;
            ASSERT_TRUE(wire.put("header") == 1 && put(wire, make(size), 0, 0, cached) == 1);
            EXPECT_TRUE(wire.sent == "header" + sample(size));
            if (!known) continue;
            EXPECT_EQ(wire.sends, sends);
            EXPECT_EQ(wire.more[0], file_sends > 0);
            EXPECT_EQ(wire.file_sends, file_sends);
            break;
        }
    }
}

TEST_F(PutFile, PiecesDecideChunksAndTraceLines) {
    Library library;
    ASSERT_EQ(cm_net_trace(library, CM_NTRACE_PACKETS), 1);
    const std::string path = make(20000);
    {
        Wire wire(CM_CONN_CHUNKED);
        ASSERT_TRUE(put(wire, path) == 1 && wire.end() == 1);
        EXPECT_TRUE(wire.sent ==
                    chunk(sample(20000).substr(0, 12288)) + chunk(sample(20000).substr(12288)) + "0\r\n\r\n");
    }
    Wire wire;
    wire.state->ctx = library;
    ASSERT_EQ(put(wire, path), 1);
    wire.conn->flags |= CM_CONN_CHUNKED;
    ASSERT_TRUE(wire.put("text", 1) == 1 && wire.end() == 1);
    EXPECT_EQ(wire.file_sends, 0);
    std::string expected;
    for (const char *bytes : {"12288", "7712", "3", "6", "5"})
        expected += "TCP WRITE [0] -> 127.0.0.9:0 [" + std::string(bytes) + " bytes]\n";
    EXPECT_EQ(library.folder().read("log/network.log"), expected);
}

TEST_F(PutFile, EveryFailureClosesTheFileAndIsReported) {
    const std::string path = make(40000);
    const StandardErrorCapture quiet;
    for (const uint32_t flags : {0, CM_CONN_CHUNKED, CM_CONN_GZIP}) {
        bool good = false;
        each_failure(
            Faults::kFiles | Faults::kAllocations,
            [&] {
                Wire wire(flags);
                good = put(wire, path, 1) == 1 && wire.end() == 1;
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
