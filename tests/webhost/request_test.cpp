// The sample host's request parsing.
#include "samples/webhost/request.h"

#include <gtest/gtest.h>

#include <string>

#include "samples/webhost/mime.h"
#include "support/data.h"

namespace webhost {
namespace {

using cm::test::Row;
using cm::test::rows;

const std::string kHost = "Host: a\r\n";

TEST(Request, Heads) {
    for (const Row &row : rows("webhost/heads")) {
        const testing::ScopedTrace where(__FILE__, __LINE__, row.where + ": " + row[0]);
        const std::string &head = row[2];
        const int status = static_cast<int>(row.number(1));
        Request request;
        size_t length = 0;
        EXPECT_EQ(parse_head(head + "rest", &request, &length), status);
        EXPECT_TRUE(status != 200 || length == head.size());
        // A head that is cut off anywhere needs more, or is refused for what is there already; never accepted.
        for (size_t cut = 0; cut < head.size(); cut++) {
            const int early = parse_head(std::string_view(head).substr(0, cut), &request, &length);
            EXPECT_TRUE(early == 0 || (early == status && early != 200)) << "cut at " << cut;
        }
    }
}

TEST(Request, Limits) {
    Request request;
    size_t length = 0;
    EXPECT_EQ(parse_head("GET /" + std::string(kMaxHead, 'a'), &request, &length), 414);
    EXPECT_EQ(parse_head("GET / HTTP/1.1\r\nX: " + std::string(kMaxHead, 'a'), &request, &length), 431);
    std::string head = "GET / HTTP/1.1\r\n" + kHost;
    for (int i = 0; i < kMaxFields - 1; i++) head += "a: b\r\n";
    EXPECT_EQ(parse_head(head + "\r\n", &request, &length), 200);
    EXPECT_EQ(parse_head(head + "a: b\r\n\r\n", &request, &length), 431);
}

TEST(Request, Meaning) {
    Request request;
    size_t length = 0;
    std::string kept;  // what the request's texts point into
    const auto keeps = [&](const std::string &head) {
        kept = head;
        EXPECT_EQ(parse_head(kept, &request, &length), 200);
        return request.keep_alive;
    };
    EXPECT_TRUE(keeps("GET / HTTP/1.1\r\n" + kHost + "\r\n"));
    EXPECT_FALSE(keeps("GET / HTTP/1.1\r\n" + kHost + "Connection: x, Close\r\n\r\n"));
    EXPECT_FALSE(keeps("GET / HTTP/1.0\r\n\r\n"));
    EXPECT_TRUE(keeps("GET / HTTP/1.0\r\nConnection: Keep-Alive\r\n\r\n"));
    EXPECT_FALSE(keeps("GET / HTTP/1.1\r\n" + kHost + "Connection: close\r\nConnection: keep-alive\r\n\r\n"));

    EXPECT_TRUE(keeps("GET http://b/p?q HTTP/1.1\r\nHost:   a \t\r\nx-Y:\r\n\r\n"));
    EXPECT_EQ(request.target, "/p?q");
    EXPECT_EQ(request.field("host"), "a");
    EXPECT_EQ(request.field("X-y"), "");
    EXPECT_EQ(request.line, "GET http://b/p?q HTTP/1.1");
}

TEST(Request, TargetsStayBelowTheFolder) {
    for (const Row &row : rows("webhost/targets")) {
        Path path;
        EXPECT_EQ(decode_target(row[0], &path), row.number(1)) << row.where;
        if (row.number(1) != 200) continue;
        EXPECT_EQ(path.view(), row[2]) << row.where;
        EXPECT_EQ(path.directory, row.fields.size() > 3) << row.where;
    }
    Path path;
    EXPECT_EQ(decode_target("/" + std::string(kMaxPath, 'a'), &path), 414);
}

TEST(Request, Chunks) {
    using enum ChunkReader::State;
    for (const Row &row : rows("webhost/chunks")) {
        const std::string &bytes = row[0];
        const auto expected = row[1] == "done" ? kDone : row[1] == "more" ? kMore : kBad;
        for (size_t step = 1; step <= bytes.size(); step++) {  // whatever arrives together
            ChunkReader reader;
            ChunkReader::State state = kMore;
            size_t at = 0;
            while (state == kMore && at < bytes.size()) {
                size_t used = 0;
                state = reader.take(std::string_view(bytes).substr(at, step), &used);
                at += used;
            }
            EXPECT_EQ(state, expected) << row.where << " by " << step;
            const size_t behind = row.fields.size() > 2 ? static_cast<size_t>(row.number(2)) : 0;
            EXPECT_TRUE(state != kDone || bytes.size() - at == behind) << row.where;
        }
    }
}

TEST(Request, Ranges) {
    for (const Row &row : rows("webhost/ranges")) {
        ByteRange range;
        const RangeResult result = parse_range(row[0], static_cast<uint64_t>(row.number(1)), &range);
        const std::string got = result == RangeResult::kNone ? "all"
                                : result == RangeResult::kNotSatisfiable
                                    ? "416"
                                    : std::to_string(range.first) + " " + std::to_string(range.last);
        EXPECT_EQ(got, row[2]) << row.where;
    }
}

TEST(Request, TagsAndCodings) {
    EXPECT_TRUE(tag_matches("\"a\", \"b\"", "\"b\"", false));
    EXPECT_TRUE(tag_matches("*", "\"b\"", false));
    EXPECT_FALSE(tag_matches("\"bb\"", "\"b\"", true));
    EXPECT_FALSE(tag_matches("W/\"b\"", "\"b\"", false));
    EXPECT_FALSE(tag_matches("W/\"b\"", "W/\"b\"", false));
    EXPECT_TRUE(tag_matches("W/\"b\"", "\"b\"", true));
    EXPECT_TRUE(tag_matches("\"b\"", "W/\"b\"", true));

    for (const char *yes :
         {"gzip", "deflate, GZIP", "x-gzip", "*", "gzip;q=0.5", "br;q=1, gzip ; q=0.001", "identity, *;q=0.1"})
        EXPECT_TRUE(accepts_gzip(yes)) << yes;
    for (const char *no : {"", "identity", "gzip;q=0", "gzip;q=0.000, *", "*;q=0", "gzipped", "br"})
        EXPECT_FALSE(accepts_gzip(no)) << no;

    EXPECT_EQ(media_type("a/b.HTML").name, "text/html; charset=utf-8");
    EXPECT_EQ(media_type("a.b/c").name, "application/octet-stream");
    EXPECT_FALSE(media_type("x.png").compressible);
}

}  // namespace
}  // namespace webhost
