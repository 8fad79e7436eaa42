// The sample host's request parsing: nothing unsafe is accepted, and how the bytes arrive makes no difference.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "samples/webhost/request.cpp"

namespace {

using namespace webhost;

void require(bool holds) {
    if (!holds) abort();
}

void check_head(std::string_view bytes) {
    Request request, early;
    size_t length = 0, early_length = 0;
    if (parse_head(bytes, &request, &length) != 200) return;
    require(length >= 4 && length <= bytes.size() && bytes.substr(length - 4, 4) == "\r\n\r\n");
    require(!request.chunked || request.content_length == 0);
    require(request.target.front() == '/' || request.target == "*");
    for (int i = 0; i < request.field_count; i++) {
        require(!request.fields[i].name.empty());
        require(request.fields[i].value.find_first_of(std::string_view("\r\n\0", 3)) == std::string_view::npos);
    }
    for (const size_t cut : {length - 1, length - 2, length - 3, length / 2})
        require(parse_head(bytes.substr(0, cut), &early, &early_length) == 0);
    ByteRange range;
    if (parse_range(request.field("Range"), 1000, &range) == RangeResult::kRange)
        require(range.first <= range.last && range.last < 1000);
    tag_matches(request.field("If-None-Match"), "\"abc\"", true);
    accepts_gzip(request.field("Accept-Encoding"));
}

void check_target(std::string_view target) {
    Path path;
    if (decode_target(target, &path) != 200) return;
    const std::string text = "/" + std::string(path.view()) + "/";
    require(path.length <= kMaxPath && path.text[path.length] == '\0');
    require(text.find("/../") == std::string::npos && text.find("/.") == std::string::npos);
    require(text == "//" || text.find("//") == std::string::npos);
    require(text.find_first_of(std::string_view("\\:\0\r\n", 5)) == std::string::npos);
}

void check_chunks(std::string_view bytes) {
    ChunkReader whole, single;
    size_t used = 0, used_singly = 0;
    const ChunkReader::State state = whole.take(bytes, &used);
    ChunkReader::State last = ChunkReader::State::kMore;
    while (last == ChunkReader::State::kMore && used_singly < bytes.size()) {
        size_t one = 0;
        last = single.take(bytes.substr(used_singly, 1), &one);
        used_singly += one;
    }
    require(state == last && used == used_singly && whole.data_bytes() == single.data_bytes());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string_view bytes(reinterpret_cast<const char *>(data), size);
    check_head(bytes);
    check_target(bytes.substr(0, bytes.find('\n')));
    check_chunks(bytes);
    return 0;
}
