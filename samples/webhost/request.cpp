#include "request.h"

#include <algorithm>
#include <cstring>

namespace webhost {
namespace {

char lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
}
bool is_digit(char c) {
    return c >= '0' && c <= '9';
}
bool is_letter(char c) {
    return lower(c) >= 'a' && lower(c) <= 'z';
}
bool is_blank(char c) {
    return c == ' ' || c == '\t';
}

int hex_digit(char c) {
    if (is_digit(c)) return c - '0';
    const char folded = lower(c);
    return folded >= 'a' && folded <= 'f' ? folded - 'a' + 10 : -1;
}

// RFC 9110, 5.6.2.
bool is_token_char(char c) {
    return is_letter(c) || is_digit(c) || (c != 0 && strchr("!#$%&'*+-.^_`|~", c) != nullptr);
}

bool is_token(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), is_token_char);
}

// A field value may hold blanks and tabs, printable characters and bytes above 127.
bool is_value_char(char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte == '\t' || (byte >= 0x20 && byte != 0x7F);
}

bool is_host_char(char c) {
    return is_letter(c) || is_digit(c) || (c != 0 && strchr("-._~:[]%!$&'()*+,;=", c) != nullptr);
}

std::string_view trim(std::string_view text) {
    while (!text.empty() && is_blank(text.front())) text.remove_prefix(1);
    while (!text.empty() && is_blank(text.back())) text.remove_suffix(1);
    return text;
}

// Takes the part up to `separator` off the front of `text`.
std::string_view split(std::string_view *text, char separator) {
    const size_t at = text->find(separator);
    const std::string_view part = text->substr(0, at);
    text->remove_prefix(at == std::string_view::npos ? text->size() : at + 1);
    return part;
}

bool parse_number(std::string_view text, uint64_t *number) {
    if (text.empty() || text.size() > 18) return false;
    *number = 0;
    for (const char c : text) {
        if (!is_digit(c)) return false;
        *number = *number * 10 + static_cast<uint64_t>(c - '0');
    }
    return true;
}

// Takes one line off the front.  Result: 0 when there is no whole line yet, 200, or 400 when it does not end in CR LF.
int take_line(std::string_view bytes, size_t *position, std::string_view *line) {
    const size_t end = bytes.find('\n', *position);
    if (end == std::string_view::npos) return 0;
    if (end == *position || bytes[end - 1] != '\r') return 400;
    *line = bytes.substr(*position, end - 1 - *position);
    *position = end + 1;
    return 200;
}

// An absolute-form target ("http://host/path", RFC 9112, 3.2.2) is served like its path.
bool reduce_target(std::string_view *target) {
    if (target->front() == '/' || *target == "*") return true;
    for (const std::string_view scheme : {std::string_view("http://"), std::string_view("https://")}) {
        if (!same_word(target->substr(0, scheme.size()), scheme)) continue;
        std::string_view rest = target->substr(scheme.size());
        const size_t end = std::min(rest.find_first_of("/?"), rest.size());
        if (end == 0 || !std::all_of(rest.begin(), rest.begin() + static_cast<std::ptrdiff_t>(end), is_host_char))
            return false;
        rest.remove_prefix(end);
        *target = rest.empty() || rest.front() == '?' ? std::string_view("/") : rest;
        return true;
    }
    return false;
}

int parse_request_line(std::string_view line, Request *request) {
    request->line = line;
    std::string_view rest = line;
    request->method = split(&rest, ' ');
    request->target = split(&rest, ' ');
    if (!is_token(request->method) || request->target.empty()) return 400;
    const auto printable = [](char c) { return c > 0x20 && c < 0x7F; };
    if (!std::all_of(request->target.begin(), request->target.end(), printable)) return 400;
    if (rest.size() != 8 || rest.substr(0, 5) != "HTTP/" || !is_digit(rest[5]) || rest[6] != '.' || !is_digit(rest[7]))
        return 400;
    if (rest[5] != '1') return 505;
    request->http11 = rest[7] != '0';
    return reduce_target(&request->target) ? 200 : 400;
}

int parse_field(std::string_view line, Request *request) {
    if (request->field_count == kMaxFields) return 431;
    const size_t colon = line.find(':');
    if (colon == std::string_view::npos) return 400;
    const Field field = {line.substr(0, colon), trim(line.substr(colon + 1))};
    if (!is_token(field.name)) return 400;  // also a folded line and a blank before the colon
    if (!std::all_of(field.value.begin(), field.value.end(), is_value_char)) return 400;
    request->fields[request->field_count++] = field;
    return 200;
}

bool has_word(std::string_view list, std::string_view word) {
    while (!list.empty())
        if (same_word(trim(split(&list, ',')), word)) return true;
    return false;
}

// What the fields say about the connection and the body.
int interpret(Request *request) {
    int hosts = 0, lengths = 0, encodings = 0;
    bool close = false, keep = false;
    for (int i = 0; i < request->field_count; i++) {
        const Field &field = request->fields[i];
        if (same_word(field.name, "Host")) {
            hosts++;
            if (!std::all_of(field.value.begin(), field.value.end(), is_host_char)) return 400;
        } else if (same_word(field.name, "Content-Length")) {
            lengths++;
            if (!parse_number(field.value, &request->content_length)) return 400;
        } else if (same_word(field.name, "Transfer-Encoding")) {
            encodings++;
            if (!same_word(field.value, "chunked")) return 501;
            request->chunked = true;
        } else if (same_word(field.name, "Connection")) {
            close = close || has_word(field.value, "close");
            keep = keep || has_word(field.value, "keep-alive");
        } else if (same_word(field.name, "Expect")) {
            if (!same_word(field.value, "100-continue")) return 417;
            request->expects_continue = request->http11;
        }
    }
    if (hosts > 1 || (hosts == 0 && request->http11)) return 400;
    if (lengths + encodings > 1 || (encodings > 0 && !request->http11)) return 400;
    request->keep_alive = !close && (request->http11 || keep);
    return 200;
}

}  // namespace

bool same_word(std::string_view a, std::string_view b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) { return lower(x) == lower(y); });
}

std::string_view Request::field(std::string_view name) const {
    for (int i = 0; i < field_count; i++)
        if (same_word(fields[i].name, name)) return fields[i].value;
    return {};
}

int parse_head(std::string_view bytes, Request *request, size_t *head_length) {
    request->field_count = 0;
    request->chunked = request->expects_continue = false;
    request->content_length = 0;
    request->line = {};

    size_t position = 0;
    std::string_view line;
    int status = 0;
    bool first = true;
    for (;;) {
        if ((status = take_line(bytes, &position, &line)) != 200) break;
        if (first && line.empty() && position == 2)
            continue;  // one empty line before a request is forgiven (RFC 9112, 2.2)
        if (!first && line.empty()) {
            *head_length = position;
            return interpret(request);
        }
        if ((status = first ? parse_request_line(line, request) : parse_field(line, request)) != 200) break;
        first = false;
    }
    if (status == 0 && bytes.size() >= kMaxHead) return first ? 414 : 431;
    return status;
}

namespace {

// Adds one decoded step to the path.  Names that begin with a dot stay private (.git, .htpasswd and their like), names
// that end in a dot or a blank are other spellings of a shorter name on some systems, and ":" and "\" have a meaning of
// their own there.
int add_step(std::string_view step, Path *path) {
    if (step.empty() || step == ".") return 200;
    if (step == "..") {
        if (path->length == 0) return 400;
        const size_t slash = path->view().rfind('/');
        path->length = slash == std::string_view::npos ? 0 : slash;
        return 200;
    }
    if (step.front() == '.' || step.back() == '.' || step.back() == ' ') return 404;
    if (step.find_first_of("\\:") != std::string_view::npos) return 404;
    if (path->length + 1 + step.size() > kMaxPath) return 414;
    if (path->length > 0) path->text[path->length++] = '/';
    memcpy(path->text + path->length, step.data(), step.size());
    path->length += step.size();
    return 200;
}

}  // namespace

int decode_target(std::string_view target, Path *path) {
    path->length = 0;
    target = target.substr(0, target.find('?'));
    if (target.empty() || target.front() != '/' || target.find('#') != std::string_view::npos) return 400;
    if (target.size() > kMaxPath) return 414;

    char decoded[kMaxPath];
    size_t length = 0;
    for (size_t i = 0; i < target.size(); i++) {
        char c = target[i];
        if (c == '%') {
            if (i + 2 >= target.size()) return 400;
            const int high = hex_digit(target[i + 1]), low = hex_digit(target[i + 2]);
            if (high < 0 || low < 0) return 400;
            c = static_cast<char>(high * 16 + low);
            i += 2;
        }
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) return 400;
        decoded[length++] = c;
    }

    // The steps are told apart after decoding, so that an encoded dot or slash means what a plain one means.
    std::string_view rest(decoded, length), step;
    while (!rest.empty()) {
        step = split(&rest, '/');
        const int status = add_step(step, path);
        if (status != 200) return status;
    }
    path->directory = path->length == 0 || decoded[length - 1] == '/' || step == "." || step == "..";
    path->text[path->length] = '\0';
    return 200;
}

ChunkReader::State ChunkReader::size_byte(char byte) {
    const int digit = hex_digit(byte);
    if (digit >= 0) {
        if (++digits_ > 8) return State::kBad;
        size_ = size_ * 16 + static_cast<uint64_t>(digit);
        return State::kMore;
    }
    if (digits_ == 0) return State::kBad;
    if (byte == '\r') {
        step_ = Step::kSizeEnd;
        return State::kMore;
    }
    if (byte != ';') return State::kBad;
    step_ = Step::kExtension;
    return State::kMore;
}

ChunkReader::State ChunkReader::step(char byte) {
    const auto expect = [&](char wanted, Step next) {
        step_ = next;
        line_ = 0;
        return byte == wanted ? State::kMore : State::kBad;
    };
    switch (step_) {
        case Step::kSize:
            return size_byte(byte);
        case Step::kExtension:
        case Step::kTrailerText:
            if (byte == '\r')
                step_ = step_ == Step::kExtension ? Step::kSizeEnd : Step::kTrailerEnd;
            else if (!is_value_char(byte) || ++line_ > 1024)
                return State::kBad;
            return State::kMore;
        case Step::kSizeEnd:
            digits_ = 0;
            return expect('\n', size_ > 0 ? Step::kData : Step::kTrailer);
        case Step::kData:
            data_bytes_++;
            if (--size_ == 0) step_ = Step::kDataEnd;
            return State::kMore;
        case Step::kDataEnd:
            return expect('\r', Step::kDataEndLine);
        case Step::kDataEndLine:
            return expect('\n', Step::kSize);
        case Step::kTrailer:
            if (byte == '\r') return expect('\r', Step::kLastEnd);
            if (!is_token_char(byte)) return State::kBad;
            step_ = Step::kTrailerText;
            return State::kMore;
        case Step::kTrailerEnd:
            return expect('\n', Step::kTrailer);
        case Step::kLastEnd:
            return byte == '\n' ? State::kDone : State::kBad;
    }
    return State::kBad;
}

ChunkReader::State ChunkReader::take(std::string_view bytes, size_t *used) {
    size_t at = 0;
    State state = State::kMore;
    while (state == State::kMore && at < bytes.size()) {
        if (step_ == Step::kData && size_ > 1) {  // all but a chunk's last byte at once
            const size_t count = static_cast<size_t>(std::min<uint64_t>(size_ - 1, bytes.size() - at));
            at += count;
            size_ -= count;
            data_bytes_ += count;
            if (at == bytes.size()) break;
        }
        state = step(bytes[at++]);
    }
    *used = at;
    return state;
}

RangeResult parse_range(std::string_view value, uint64_t size, ByteRange *range) {
    constexpr std::string_view kUnit = "bytes=";
    if (!same_word(value.substr(0, kUnit.size()), kUnit)) return RangeResult::kNone;
    std::string_view rest = trim(value.substr(kUnit.size()));
    if (rest.find('-') == std::string_view::npos || rest.find(',') != std::string_view::npos) return RangeResult::kNone;
    const std::string_view first = split(&rest, '-'), last = rest;

    if (first.empty()) {  // the last so many bytes
        uint64_t count = 0;
        if (!parse_number(last, &count)) return RangeResult::kNone;
        if (count == 0 || size == 0) return RangeResult::kNotSatisfiable;
        *range = {size - std::min(count, size), size - 1};
        return RangeResult::kRange;
    }
    uint64_t end = UINT64_MAX;
    if (!parse_number(first, &range->first) || (!last.empty() && !parse_number(last, &end))) return RangeResult::kNone;
    if (end < range->first) return RangeResult::kNone;
    if (range->first >= size) return RangeResult::kNotSatisfiable;
    range->last = std::min(end, size - 1);
    return RangeResult::kRange;
}

bool tag_matches(std::string_view list, std::string_view tag, bool weak_comparison) {
    const auto strip = [](std::string_view text) { return text.substr(0, 2) == "W/" ? text.substr(2) : text; };
    if (trim(list) == "*") return true;
    while (!list.empty()) {
        const std::string_view one = trim(split(&list, ','));
        if (weak_comparison ? strip(one) == strip(tag) : one == tag && tag.substr(0, 2) != "W/") return true;
    }
    return false;
}

bool accepts_gzip(std::string_view value) {
    bool any = false;
    while (!value.empty()) {
        std::string_view weight = split(&value, ',');
        const std::string_view coding = trim(split(&weight, ';'));
        weight = trim(weight);
        // "q=0", "q=0.0" ... "q=0.000" refuse a coding; any other weight will do.
        const bool refused =
            same_word(weight.substr(0, 3), "q=0") && weight.find_first_of("123456789") == std::string_view::npos;
        if (same_word(coding, "gzip") || same_word(coding, "x-gzip")) return !refused;
        if (coding == "*") any = !refused;
    }
    return any;
}

}  // namespace webhost
