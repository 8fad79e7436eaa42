// The sample host's request parsing.
#include "samples/webhost/request.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "samples/webhost/mime.h"

namespace webhost {
namespace {

struct HeadCase {
    const char *name;
    int status;
    std::string head;
};

const std::string kHost = "Host: a\r\n";

const HeadCase kHeads[] = {
    {"plain", 200, "GET / HTTP/1.1\r\n" + kHost + "\r\n"},
    {"one empty line before", 200, "\r\nGET / HTTP/1.1\r\n" + kHost + "\r\n"},
    {"two empty lines before", 400, "\r\n\r\nGET / HTTP/1.1\r\n" + kHost + "\r\n"},
    {"1.0 needs no host", 200, "GET / HTTP/1.0\r\n\r\n"},
    {"absolute form", 200, "GET http://a:80/x HTTP/1.1\r\n" + kHost + "\r\n"},
    {"absolute form without a path", 200, "GET http://a HTTP/1.1\r\n" + kHost + "\r\n"},
    {"another scheme", 400, "GET ftp://a/ HTTP/1.1\r\n" + kHost + "\r\n"},
    {"no slash", 400, "GET x HTTP/1.1\r\n" + kHost + "\r\n"},
    {"asterisk", 200, "OPTIONS * HTTP/1.1\r\n" + kHost + "\r\n"},
    {"two blanks", 400, "GET  / HTTP/1.1\r\n" + kHost + "\r\n"},
    {"tab", 400, "GET\t/ HTTP/1.1\r\n" + kHost + "\r\n"},
    {"blank at the end", 400, "GET / HTTP/1.1 \r\n" + kHost + "\r\n"},
    {"no version", 400, "GET /\r\n\r\n"},
    {"lower-case version", 400, "GET / http/1.1\r\n" + kHost + "\r\n"},
    {"version 2", 505, "GET / HTTP/2.0\r\n" + kHost + "\r\n"},
    {"long version", 400, "GET / HTTP/1.10\r\n" + kHost + "\r\n"},
    {"method of odd characters", 400, "G(T / HTTP/1.1\r\n" + kHost + "\r\n"},
    {"control byte in the target", 400, "GET /\x01 HTTP/1.1\r\n" + kHost + "\r\n"},
    {"byte above 127 in the target", 400, "GET /\xC3\xA4 HTTP/1.1\r\n" + kHost + "\r\n"},
    {"bare LF", 400, "GET / HTTP/1.1\n" + kHost + "\r\n"},
    {"bare LF after a field", 400, "GET / HTTP/1.1\r\nHost: a\n\r\n"},
    {"bare CR in a value", 400, "GET / HTTP/1.1\r\nHost: a\rX: b\r\n\r\n"},
    {"bare CR in the request line", 400, "GET /\r HTTP/1.1\r\n" + kHost + "\r\n"},
    {"NUL in a value", 400, "GET / HTTP/1.1\r\n" + kHost + "X: a" + std::string(1, '\0') + "b\r\n\r\n"},
    {"folded field", 400, "GET / HTTP/1.1\r\n" + kHost + "X: a\r\n b\r\n\r\n"},
    {"folded before any field", 400, "GET / HTTP/1.1\r\n Host: a\r\n\r\n"},
    {"blank before the colon", 400, "GET / HTTP/1.1\r\nHost : a\r\n\r\n"},
    {"no colon", 400, "GET / HTTP/1.1\r\n" + kHost + "what\r\n\r\n"},
    {"empty name", 400, "GET / HTTP/1.1\r\n" + kHost + ": x\r\n\r\n"},
    {"no host", 400, "GET / HTTP/1.1\r\n\r\n"},
    {"two hosts", 400, "GET / HTTP/1.1\r\n" + kHost + kHost + "\r\n"},
    {"two hosts in 1.0", 400, "GET / HTTP/1.0\r\n" + kHost + kHost + "\r\n"},
    {"host of two names", 400, "GET / HTTP/1.1\r\nHost: a b\r\n\r\n"},
    {"host with a slash", 400, "GET / HTTP/1.1\r\nHost: a/b\r\n\r\n"},
    {"length", 200, "GET / HTTP/1.1\r\n" + kHost + "Content-Length: 5\r\n\r\n"},
    {"two lengths", 400, "GET / HTTP/1.1\r\n" + kHost + "Content-Length: 5\r\nContent-Length: 5\r\n\r\n"},
    {"list of lengths", 400, "GET / HTTP/1.1\r\n" + kHost + "Content-Length: 5, 5\r\n\r\n"},
    {"signed length", 400, "GET / HTTP/1.1\r\n" + kHost + "Content-Length: +5\r\n\r\n"},
    {"negative length", 400, "GET / HTTP/1.1\r\n" + kHost + "Content-Length: -5\r\n\r\n"},
    {"hexadecimal length", 400, "GET / HTTP/1.1\r\n" + kHost + "Content-Length: 0x5\r\n\r\n"},
    {"empty length", 400, "GET / HTTP/1.1\r\n" + kHost + "Content-Length:\r\n\r\n"},
    {"huge length", 400, "GET / HTTP/1.1\r\n" + kHost + "Content-Length: 99999999999999999999\r\n\r\n"},
    {"chunked", 200, "GET / HTTP/1.1\r\n" + kHost + "Transfer-Encoding: Chunked\r\n\r\n"},
    {"chunked and length", 400,
     "GET / HTTP/1.1\r\n" + kHost + "Transfer-Encoding: chunked\r\nContent-Length: 5\r\n\r\n"},
    {"length and chunked", 400,
     "GET / HTTP/1.1\r\n" + kHost + "Content-Length: 5\r\nTransfer-Encoding: chunked\r\n\r\n"},
    {"chunked twice", 400,
     "GET / HTTP/1.1\r\n" + kHost + "Transfer-Encoding: chunked\r\nTransfer-Encoding: chunked\r\n\r\n"},
    {"another coding", 501, "GET / HTTP/1.1\r\n" + kHost + "Transfer-Encoding: gzip, chunked\r\n\r\n"},
    {"identity", 501, "GET / HTTP/1.1\r\n" + kHost + "Transfer-Encoding: identity\r\n\r\n"},
    {"chunked in 1.0", 400, "GET / HTTP/1.0\r\nTransfer-Encoding: chunked\r\n\r\n"},
    {"coding with a vertical tab", 400,
     "GET / HTTP/1.1\r\n" + kHost +
         "Transfer-Encoding: \x0b"
         "chunked\r\n\r\n"},
    {"expectation", 200, "GET / HTTP/1.1\r\n" + kHost + "Expect: 100-continue\r\n\r\n"},
    {"another expectation", 417, "GET / HTTP/1.1\r\n" + kHost + "Expect: 200-ok\r\n\r\n"},
};

TEST(Request, Heads) {
    for (const HeadCase &test : kHeads) {
        Request request;
        size_t length = 0;
        EXPECT_EQ(parse_head(test.head + "rest", &request, &length), test.status) << test.name;
        if (test.status == 200) {
            EXPECT_EQ(length, test.head.size()) << test.name;
        }
        // A head that is cut off anywhere needs more, or is refused for what is there already; never accepted.
        for (size_t cut = 0; cut < test.head.size(); cut++) {
            const int early = parse_head(std::string_view(test.head).substr(0, cut), &request, &length);
            EXPECT_TRUE(early == 0 || (early == test.status && early != 200)) << test.name << " cut at " << cut;
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
    struct Case {
        std::string target;
        int status;
        const char *path;
        bool directory = false;
    };
    const Case cases[] = {
        {"/", 200, "", true},
        {"/a/b.html", 200, "a/b.html"},
        {"/a/b/?x=/../y", 200, "a/b", true},
        {"//a///b", 200, "a/b"},
        {"/./a/./b", 200, "a/b"},
        {"/a/../b", 200, "b"},
        {"/a/b/..", 200, "a", true},
        {"/a/.", 200, "a", true},
        {"/%61%2Fb", 200, "a/b"},
        {"/a%20b+c", 200, "a b+c"},
        {"/%C3%A4", 200, "\xC3\xA4"},
        {"/%252e%252e/x", 200, "%2e%2e/x"},
        {"/..", 400, ""},
        {"/../etc/passwd", 400, ""},
        {"/a/../../etc/passwd", 400, ""},
        {"/%2e%2e/etc/passwd", 400, ""},
        {"/..%2fetc", 400, ""},
        {"/%2e%2e%2fetc", 400, ""},
        {"/..\\etc", 404, ""},
        {"/..%5cetc", 404, ""},
        {"/a%00.html", 400, ""},
        {"/a%0d%0aX", 400, ""},
        {"/a%7f", 400, ""},
        {"/%", 400, ""},
        {"/%2", 400, ""},
        {"/%zz", 400, ""},
        {"/a#b", 400, ""},
        {"/c:/x", 404, ""},
        {"/a:stream", 404, ""},
        {"/.git/config", 404, ""},
        {"/a/.htpasswd", 404, ""},
        {"/.DAV/s.x", 404, ""},
        {"/...", 404, ""},
        {"/index.html.", 404, ""},
        {"/index.html%20", 404, ""},
        {"*", 400, ""},
        {"/" + std::string(kMaxPath, 'a'), 414, ""},
    };
    for (const Case &test : cases) {
        Path path;
        EXPECT_EQ(decode_target(test.target, &path), test.status) << test.target;
        if (test.status != 200) continue;
        EXPECT_EQ(path.view(), test.path) << test.target;
        EXPECT_EQ(path.directory, test.directory) << test.target;
    }
}

TEST(Request, Chunks) {
    struct Case {
        std::string bytes;
        ChunkReader::State state;
        size_t rest = 0;  // bytes behind the body
    };
    using enum ChunkReader::State;
    const Case cases[] = {
        {"0\r\n\r\n", kDone},
        {"5\r\nhello\r\n0\r\n\r\nGET", kDone, 3},
        {"1\r\na\r\nA\r\n0123456789\r\n0\r\n\r\n", kDone},
        {"5;a=b;c\r\nhello\r\n000\r\nX: y\r\nZ: w\r\n\r\n", kDone},
        {"5\r\nhel", kMore},
        {"5\nhello\r\n0\r\n\r\n", kBad},
        {"5\r\nhello!\r\n0\r\n\r\n", kBad},
        {"5\r\nhello\n0\r\n\r\n", kBad},
        {"\r\nhello", kBad},
        {"0x5\r\nhello\r\n", kBad},
        {" 5\r\nhello\r\n", kBad},
        {"5 \r\nhello\r\n", kBad},
        {"-1\r\n", kBad},
        {"100000000\r\n", kBad},
        {"0\r\n X: folded\r\n\r\n", kBad},
        {"0\r\nX: y\n\r\n", kBad},
        {"0\r\n\rX", kBad},
        {"5;" + std::string(2000, 'a') + "\r\n", kBad},
    };
    for (const Case &test : cases) {
        for (size_t step = 1; step <= test.bytes.size(); step++) {  // whatever arrives together
            ChunkReader reader;
            ChunkReader::State state = kMore;
            size_t at = 0;
            while (state == kMore && at < test.bytes.size()) {
                size_t used = 0;
                state = reader.take(std::string_view(test.bytes).substr(at, step), &used);
                at += used;
            }
            EXPECT_EQ(state, test.state) << test.bytes << " by " << step;
            if (state == kDone) {
                EXPECT_EQ(test.bytes.size() - at, test.rest) << test.bytes;
            }
        }
    }
}

TEST(Request, Ranges) {
    struct Case {
        const char *value;
        uint64_t size;
        RangeResult result;
        uint64_t first = 0, last = 0;
    };
    using enum RangeResult;
    const Case cases[] = {
        {"bytes=0-0", 10, kRange, 0, 0},
        {"bytes=2-5", 10, kRange, 2, 5},
        {"Bytes=2-", 10, kRange, 2, 9},
        {"bytes=-3", 10, kRange, 7, 9},
        {"bytes=-30", 10, kRange, 0, 9},
        {"bytes=5-500", 10, kRange, 5, 9},
        {"bytes=9-9", 10, kRange, 9, 9},
        {"bytes=10-", 10, kNotSatisfiable},
        {"bytes=-0", 10, kNotSatisfiable},
        {"bytes=0-", 0, kNotSatisfiable},
        {"bytes=-1", 0, kNotSatisfiable},
        {"bytes=5-2", 10, kNone},
        {"bytes=1-2,4-5", 10, kNone},
        {"bytes=", 10, kNone},
        {"bytes=-", 10, kNone},
        {"bytes=a-b", 10, kNone},
        {"bytes=1-2-3", 10, kNone},
        {"lines=1-2", 10, kNone},
        {"bytes=99999999999999999999-", 10, kNone},
    };
    for (const Case &test : cases) {
        ByteRange range;
        EXPECT_EQ(parse_range(test.value, test.size, &range), test.result) << test.value;
        if (test.result != kRange) continue;
        EXPECT_EQ(range.first, test.first) << test.value;
        EXPECT_EQ(range.last, test.last) << test.value;
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
