// Files as bodies: every way to the wire carries the same bytes.
#include <gtest/gtest.h>

#include "network/wire.h"
#include "support/support.h"

namespace cm::test {
namespace {

class PutFile : public testing::Test {
protected:
    int16_t put(Wire &wire, int32_t first = 0, int32_t last = 0) {
        return cm_net_putfile(wire, wire, path.c_str(), first, last, 0);
    }
    void make(size_t size) { path = folder.write("file" + std::to_string(size), content = sample(size)); }

    TempFolder folder;
    std::string path, content;
};

// What a range means, in the words of the interface: last 0 is the end, a last before the first is nothing.
std::string range_of(const std::string &content, int64_t first, int64_t last) {
    if (first >= static_cast<int64_t>(content.size())) return "";
    if (last > 0 && last < first) return "";
    return content.substr(static_cast<size_t>(first),
                          last > 0 ? static_cast<size_t>(last - first + 1) : std::string::npos);
}

TEST_F(PutFile, EveryWayCarriesTheSameBytes) {
    constexpr std::string_view kHeader = "HTTP/1.1 200 OK\r\n\r\n";
    const Library library("File Cache Size = 10000000\nMaximum Cached File = 100000\nCache Stat Interval = 3600\n");
    ASSERT_TRUE(library.ok());
    ASSERT_EQ(cm_net_trace(library, CM_NTRACE_PACKETS), 1);
    const int64_t sizes[] = {0, 1, 1023, 1024, 1025, 4096, 15980, 15981, 15982, 16000, 16001, 32768, 33000, 200000};
    for (const int64_t size : sizes) {
        make(static_cast<size_t>(size));
        for (const int64_t first : {int64_t{0}, int64_t{1}, size / 2, size - 1, size, size + 10}) {
            for (const int64_t last :
                 {int64_t{0}, first - 1, first, size / 2, size - 1, size, size + 100, int64_t{INT32_MAX}}) {
                if (first < 0 || last < 0) continue;
                const std::string expected = range_of(content, first, last);
                for (const std::string_view way : {"plain", "no file sends", "traced", "chunked", "gzip", "cached",
                                                   "cached, gzip", "cached, chunked"}) {
                    Wire wire;
                    const bool cached = way.starts_with("cached"), chunked = way.ends_with("chunked");
                    if (cached || way == "traced") wire.state->ctx = library;
                    library.ctx()->net_trace_level = way == "traced" ? CM_NTRACE_PACKETS : CM_NTRACE_NONE;
                    wire.no_file_sends = way == "no file sends";
                    ASSERT_EQ(wire.put(kHeader, chunked), 1);
                    if (chunked) wire.conn->flags |= CM_CONN_CHUNKED;
                    if (way.ends_with("gzip")) wire.conn->flags |= CM_CONN_GZIP;
                    ASSERT_EQ(cm_net_putfile(wire, wire, path.c_str(), static_cast<int32_t>(first),
                                             static_cast<int32_t>(last), cached),
                              1)
                        << way;
                    ASSERT_EQ(cm_net_enddata(wire, wire), 1);
                    ASSERT_EQ(wire.sent.substr(0, kHeader.size()), kHeader);
                    std::string body = wire.sent.substr(kHeader.size());
                    if (chunked) body = joined(chunks_of(body));
                    if (way.ends_with("gzip")) body = gunzip(body);
                    EXPECT_TRUE(body == expected)
                        << way << " " << size << ": " << first << "-" << last << ", " << body.size();
                }
            }
        }
    }
}

TEST_F(PutFile, HeaderAndSmallFileAreOneSend) {
    make(1000);
    Wire wire;
    ASSERT_EQ(wire.put("header"), 1);
    ASSERT_EQ(put(wire), 1);
    EXPECT_EQ(wire.sends, std::vector<size_t>{1006});
    EXPECT_FALSE(wire.more[0]);
}

TEST_F(PutFile, ALargeFileFollowsItsHeaderWithoutPassingThroughMemory) {
    make(200000);
    Wire wire;
    ASSERT_EQ(wire.put("header"), 1);
    ASSERT_EQ(put(wire), 1);
    EXPECT_EQ(wire.sends[0], 6u);
    EXPECT_TRUE(wire.more[0]);  // so that both share their first packet
    EXPECT_EQ(wire.file_sends, 3);
}

TEST_F(PutFile, ACachedFileLeavesWithItsHeader) {
    const Library library("File Cache Size = 10000000\nMaximum Cached File = 100000\nCache Stat Interval = 3600\n");
    ASSERT_TRUE(library.ok());
    make(60000);
    for (const bool known : {false, true}) {
        Wire wire;
        wire.state->ctx = library;
        ASSERT_EQ(wire.put("header"), 1);
        ASSERT_EQ(cm_net_putfile(wire, wire, path.c_str(), 0, 0, 1), 1);
        if (known) {
            EXPECT_EQ(wire.sends, std::vector<size_t>{60006});
        }
        EXPECT_TRUE(wire.sent == "header" + content);
    }
}

TEST_F(PutFile, PiecesDecideChunksAndTraceLines) {
    make(20000);
    Wire chunked;
    chunked.conn->flags |= CM_CONN_CHUNKED;
    ASSERT_EQ(put(chunked), 1);
    ASSERT_EQ(cm_net_enddata(chunked, chunked), 1);
    std::vector<size_t> sizes;
    for (const std::string &chunk : chunks_of(chunked.sent)) sizes.push_back(chunk.size());
    EXPECT_EQ(sizes, (std::vector<size_t>{12288, 7712}));
}

TEST_F(PutFile, ALineOfTheTraceIsAPiece) {
    Library library;
    ASSERT_TRUE(library.ok());
    ASSERT_EQ(cm_net_trace(library, CM_NTRACE_PACKETS), 1);
    make(20000);
    Wire wire;
    wire.state->ctx = library;
    ASSERT_EQ(put(wire), 1);
    wire.conn->flags |= CM_CONN_CHUNKED;
    ASSERT_EQ(wire.put("text", 1), 1);
    ASSERT_EQ(cm_net_enddata(wire, wire), 1);
    EXPECT_EQ(wire.file_sends, 0);
    const char *const kLines[] = {"12288", "7712", "3", "6", "5"};
    std::string expected;
    for (const char *bytes : kLines) expected += "TCP WRITE [0] -> 127.0.0.9:0 [" + std::string(bytes) + " bytes]\n";
    EXPECT_EQ(library.folder().read("log/network.log"), expected);
}

TEST_F(PutFile, WhatCannotBeSentFails) {
    make(200000);
    Wire wire;
    std::string output = captured_standard_error(
        [&] { EXPECT_EQ(cm_net_putfile(wire, wire, folder.path("missing").c_str(), 0, 0, 0), 0); });
    EXPECT_NE(output.find("File open of '" + folder.path("missing") + "' failed."), std::string::npos) << output;
    EXPECT_EQ(wire.sent, "");
    EXPECT_FALSE(wire.closed());
    wire.room = 100000;
    EXPECT_EQ(put(wire), 0);
    EXPECT_TRUE(wire.closed());
    EXPECT_EQ(put(wire), 0);
}

TEST_F(PutFile, EveryFailureClosesTheFileAndIsReported) {
    make(40000);
    for (const uint32_t flags : {0u, uint32_t{CM_CONN_CHUNKED}, uint32_t{CM_CONN_GZIP}}) {
        for (int k = 1;; k++) {
            Wire wire;
            wire.conn->flags |= flags;
            const LeakCheck leaks;
            const StandardErrorCapture quiet;
            int16_t result = 1;
            bool injected = false;
            {
                const Faults faults(Faults::kFiles | Faults::kAllocations, k);
                result = put(wire, 1, 0);
                if (result != 0) result = cm_net_enddata(wire, wire);
                injected = faults.injected() > 0;
            }
            net::release_body(wire);
            EXPECT_EQ(leaks.outstanding(), 0u);
            if (!injected) {
                EXPECT_EQ(result, 1);
                break;
            }
            if (result != 0) {  // only the close may go unreported
                const std::string_view body(wire.sent);
                EXPECT_TRUE(flags != 0 || body == std::string_view(content).substr(1)) << k;
            }
        }
    }
}

}  // namespace
}  // namespace cm::test
