// HTTP requests as bytes: nothing in here touches a connection or a file, so it can be tested and fuzzed by itself.
//
// Whoever sends a request decides what is in it, so anything that two programs could read in two ways is refused: a
// line end that is not CR LF, a folded field, white space before a colon, a second Content-Length, Content-Length
// together with Transfer-Encoding (RFC 9112, 2.2, 5.2 and 6.3).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace webhost {

constexpr size_t kMaxHead = 16384;  // request line and fields together
constexpr int kMaxFields = 100;
constexpr size_t kMaxPath = 1000;

struct Field {
    std::string_view name, value;
};

// A parsed head.  The texts point into the bytes that were parsed.
struct Request {
    std::string_view line;            // the whole request line, for the log
    std::string_view method, target;  // the target is origin-form or "*"
    bool http11 = false;
    bool keep_alive = false;
    bool chunked = false;  // the body's framing: chunks, or content_length bytes (0: none)
    bool expects_continue = false;
    uint64_t content_length = 0;
    int field_count = 0;
    Field fields[kMaxFields];

    // The value of a field, empty when there is none.  (Of the first one; a field that must not be repeated was
    // counted.)
    std::string_view field(std::string_view name) const;
};

// Parses the head at the start of `bytes`.  Result: 0 when more bytes are needed, 200 when the head is complete and
// takes `*head_length` bytes, else the status to refuse it with, after which the connection cannot be used any more.
int parse_head(std::string_view bytes, Request *request, size_t *head_length);

// A path below the served folder: decoded, without "." and ".." and empty steps, without a leading slash.
struct Path {
    char text[kMaxPath + 32];  // room for the name of an index page
    size_t length = 0;
    bool directory = false;  // the target ended in a slash

    std::string_view view() const { return {text, length}; }
};

// Result: 200, or the status to refuse the target with.
int decode_target(std::string_view target, Path *path);

// A body in chunks, to be read and dropped.
class ChunkReader {
public:
    enum class State { kMore, kDone, kBad };

    // Looks at the next bytes; `*used` of them belong to the body.
    State take(std::string_view bytes, size_t *used);
    uint64_t data_bytes() const { return data_bytes_; }

private:
    enum class Step {
        kSize,
        kExtension,
        kSizeEnd,
        kData,
        kDataEnd,
        kDataEndLine,
        kTrailer,
        kTrailerText,
        kTrailerEnd,
        kLastEnd
    };

    State step(char byte);
    State size_byte(char byte);

    Step step_ = Step::kSize;
    uint64_t size_ = 0, data_bytes_ = 0;
    int digits_ = 0, line_ = 0;
};

// One range of a file, both ends included.
struct ByteRange {
    uint64_t first = 0, last = 0;
};
enum class RangeResult { kNone, kRange, kNotSatisfiable };

// A Range field of one range (RFC 9110, 14.1.2).  Anything else, several ranges included, counts as none.
RangeResult parse_range(std::string_view value, uint64_t size, ByteRange *range);

// Whether an entity tag stands in an If-Match or If-None-Match list ("*" matches any).
bool tag_matches(std::string_view list, std::string_view tag, bool weak_comparison);

// Whether an Accept-Encoding field allows gzip.
bool accepts_gzip(std::string_view value);

bool same_word(std::string_view a, std::string_view b);  // without regard to case

}  // namespace webhost
