#include "reply.h"

#include <climits>

#include "mime.h"
#include "text.h"

namespace webhost {
namespace {

constexpr uint64_t kWorthCompressing = 256;
constexpr uint32_t kTypeMask = 0170000, kRegular = 0100000, kDirectory = 0040000;
constexpr std::string_view kMethods = "GET, HEAD";
constexpr const char *kKnownMethods[] = {"POST", "PUT", "DELETE", "OPTIONS", "TRACE", "CONNECT", "PATCH"};

std::string_view reason(int status) {
    switch (status) {
        case 200:
            return "OK";
        case 206:
            return "Partial Content";
        case 301:
            return "Moved Permanently";
        case 304:
            return "Not Modified";
        case 400:
            return "Bad Request";
        case 404:
            return "Not Found";
        case 405:
            return "Method Not Allowed";
        case 412:
            return "Precondition Failed";
        case 413:
            return "Content Too Large";
        case 414:
            return "URI Too Long";
        case 416:
            return "Range Not Satisfiable";
        case 417:
            return "Expectation Failed";
        case 431:
            return "Request Header Fields Too Large";
        case 501:
            return "Not Implemented";
        case 505:
            return "HTTP Version Not Supported";
        default:
            return "Internal Server Error";
    }
}

using Tag = Text<64>;
using Head = Text<4096>;

void add_field(Head &head, std::string_view name, std::string_view value) {
    head.add(name).add(": ").add(value).add("\r\n");
}

void add_date(Head &head, std::string_view name, uint32_t seconds) {
    char date[64] = "";
    cm_curtime(seconds, date, sizeof date);
    if (date[0] != '\0') add_field(head, name, date);
}

// One reply under way: its head is gathered, handed to the output buffer, and what follows it is counted.
class Reply {
public:
    Reply(Host &host, cm_conn *conn, const Request &request, int status, bool keep)
        : host_(host), conn_(conn), request_(request), status_(status), keep_(keep) {
        uint32_t now = 0;
        cm_cursec(&now);
        head.add("HTTP/1.1 ").number(static_cast<uint64_t>(status)).add(' ').add(reason(status)).add("\r\n");
        add_date(head, "Date", now);
        if (!keep)
            add_field(head, "Connection", "close");
        else if (!request.http11)
            add_field(head, "Connection", "keep-alive");
    }

    bool without_body() const { return request_.method == "HEAD" || status_ == 304; }

    // The head goes out together with the first bytes of the body, unless it goes alone.
    bool send_head(bool alone) {
        head.add("\r\n");
        sent_before_ = conn_->bytes_sent;
        return !head.overflowed() && cm_net_putdata(host_.net, conn_, head.c_str(), head.length(), alone ? 1 : 0) != 0;
    }

    // Ends the reply.  `expected` bytes of body were announced; a file that shrank or grew meanwhile, or a client that
    // went away, ends the connection, since nobody could tell where the next reply begins.
    bool finish(bool sent, bool announced, uint64_t expected) {
        // The counter is 32 bits wide and so is the difference; larger bodies agree in their lower half.
        const uint32_t body = conn_->bytes_sent - sent_before_ - static_cast<uint32_t>(head.length());
        if (announced && body != static_cast<uint32_t>(expected)) sent = false;
        host_.log.write(conn_, request_, status_, sent && announced ? expected : body);
        return sent && keep_;
    }

    Head head;

private:
    Host &host_;
    cm_conn *const conn_;
    const Request &request_;
    const int status_;
    const bool keep_;
    uint32_t sent_before_ = 0;
};

bool reply_with_text(Reply &reply, Host &host, cm_conn *conn, int status) {
    Text<128> body;
    body.number(static_cast<uint64_t>(status)).add(' ').add(reason(status)).add('\n');
    add_field(reply.head, "Content-Type", "text/plain; charset=utf-8");
    reply.head.add("Content-Length: ").number(body.view().size()).add("\r\n");
    const bool alone = reply.without_body();
    bool sent = reply.send_head(alone);
    if (sent && !alone) sent = cm_net_putdata(host.net, conn, body.c_str(), body.length(), 1) != 0;
    return reply.finish(sent, true, alone ? 0 : body.view().size());
}

bool redirect_to_folder(Host &host, cm_conn *conn, const Request &request, const Path &path, bool keep) {
    static constexpr char kHex[] = "0123456789ABCDEF";
    Text<3 * kMaxPath + 2> location;
    location.add('/');
    for (const char c : path.view()) {
        const auto byte = static_cast<unsigned char>(c);
        const bool plain =
            (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || strchr("-._~/", c) != nullptr;
        if (plain)
            location.add(c);
        else
            location.add('%').add(kHex[byte >> 4]).add(kHex[byte & 15]);
    }
    location.add('/');
    Reply reply(host, conn, request, 301, keep);
    add_field(reply.head, "Location", location.view());
    return reply_with_text(reply, host, conn, 301);
}

// A file of the cache, when it takes it, or else of the disk.
struct OpenFile {
    OpenFile(Host &host, const char *path) { cm_fopenc(host.ctx, path, CM_O_RDONLY | CM_O_BINARY, &handle); }
    ~OpenFile() {
        if (handle != nullptr) cm_fclose(handle);
    }
    OpenFile(const OpenFile &) = delete;
    OpenFile &operator=(const OpenFile &) = delete;

    cm_file *handle = nullptr;
};

// A file that was found, and what the request makes of it.
struct Found {
    Found(const char *name, const cm_stat_rec &record) : path(name), status(record), type(media_type(name)) {}

    const char *const path;
    const cm_stat_rec status;
    const MediaType &type;
    bool ranged = false, satisfiable = true, gzip = false;
    ByteRange range;
    Tag tag;
};

uint32_t parse_date(std::string_view value) {
    char text[64] = "";
    if (value.empty() || value.size() >= sizeof text) return 0;
    memcpy(text, value.data(), value.size());
    text[value.size()] = '\0';
    return cm_parsedatetime(text);
}

// A compressed body is another representation, and its bytes may differ from one compressor to the next: its tag is
// weak. So is that of a file written so recently that it could change again within the same second.
void make_tag(Found &found, bool gzip) {
    uint32_t now = 0;
    cm_cursec(&now);
    found.tag = Tag();
    if (gzip || now < found.status.mtime + 2) found.tag.add("W/");
    found.tag.add('"').number(found.status.mtime, 16).add('-').number(found.status.size, 16);
    if (gzip) found.tag.add("-gz");
    found.tag.add('"');
}

// Chooses between the whole file, a range of it, and the compressed file.
void choose_form(Found &found, const Request &request) {
    const std::string_view range = request.field("Range");
    if (request.method == "GET" && !range.empty() && found.status.size <= INT32_MAX) {
        make_tag(found, false);
        const std::string_view condition = request.field("If-Range");
        const bool as_known =
            condition.empty() || tag_matches(condition, found.tag.view(), false) ||
            (condition.find('"') == std::string_view::npos && parse_date(condition) == found.status.mtime);
        const RangeResult result = as_known ? parse_range(range, found.status.size, &found.range) : RangeResult::kNone;
        found.ranged = result != RangeResult::kNone;
        found.satisfiable = result != RangeResult::kNotSatisfiable;
    }
    found.gzip = !found.ranged && found.type.compressible && found.status.size >= kWorthCompressing && request.http11 &&
                 accepts_gzip(request.field("Accept-Encoding"));
    make_tag(found, found.gzip);
}

// The conditions of RFC 9110, 13.2.2 in their order.  Result: 200 to go on, 304 or 412.
int check_conditions(const Found &found, const Request &request) {
    const std::string_view match = request.field("If-Match"), none_match = request.field("If-None-Match");
    const uint32_t modified = found.status.mtime;
    if (!match.empty()) {
        if (!tag_matches(match, found.tag.view(), false)) return 412;
    } else {
        const uint32_t limit = parse_date(request.field("If-Unmodified-Since"));
        if (limit != 0 && modified > limit) return 412;
    }
    if (!none_match.empty()) return tag_matches(none_match, found.tag.view(), true) ? 304 : 200;
    const uint32_t known = parse_date(request.field("If-Modified-Since"));
    return known != 0 && modified <= known ? 304 : 200;
}

void add_file_fields(Head &head, const Found &found) {
    add_date(head, "Last-Modified", found.status.mtime);
    add_field(head, "ETag", found.tag.view());
    if (found.type.compressible) add_field(head, "Vary", "Accept-Encoding");
}

bool send_gzip(Reply &reply, Host &host, cm_conn *conn, const Found &found) {
    add_field(reply.head, "Content-Encoding", "gzip");
    add_field(reply.head, "Transfer-Encoding", "chunked");
    bool sent = reply.send_head(true);  // the head must have left before the encodings are switched on
    if (sent && !reply.without_body()) {
        conn->flags |= CM_CONN_GZIP | CM_CONN_CHUNKED;
        sent = cm_net_putfile(host.net, conn, found.path, 0, 0, 1) != 0 && cm_net_enddata(host.net, conn) != 0;
    }
    return reply.finish(sent, false, 0);
}

// The first byte alone, which cm_net_putfile cannot be asked for: a last byte of 0 means the end of the file to it.
bool put_first_byte(Host &host, cm_conn *conn, const Found &found) {
    char byte = 0;
    int32_t got = 0;
    const OpenFile file(host, found.path);
    if (file.handle == nullptr) return false;
    cm_fread(file.handle, &byte, 1, &got);
    return got == 1 && cm_net_putdata(host.net, conn, &byte, 1, 1) != 0;
}

bool send_plain(Reply &reply, Host &host, cm_conn *conn, const Found &found) {
    const uint64_t size = found.status.size;
    const ByteRange range = found.ranged ? found.range : ByteRange{0, size == 0 ? 0 : size - 1};
    const uint64_t length = size == 0 ? 0 : range.last - range.first + 1;
    if (found.ranged) {
        reply.head.add("Content-Range: bytes ")
            .number(range.first)
            .add('-')
            .number(range.last)
            .add('/')
            .number(size)
            .add("\r\n");
    } else if (size <= INT32_MAX) {
        add_field(reply.head, "Accept-Ranges", "bytes");
    }
    reply.head.add("Content-Length: ").number(length).add("\r\n");

    const bool alone = reply.without_body() || length == 0;
    bool sent = reply.send_head(alone);
    if (sent && !alone) {
        if (range.last == 0 && size > 1) {
            sent = put_first_byte(host, conn, found);
        } else {
            const bool addressable = range.last <= INT32_MAX;
            const auto first = static_cast<int32_t>(addressable ? range.first : 0);
            const auto last = static_cast<int32_t>(addressable ? range.last : 0);
            sent = cm_net_putfile(host.net, conn, found.path, first, last, 1) != 0;
        }
    }
    return reply.finish(sent, true, alone ? 0 : length);
}

bool send_file(Host &host, cm_conn *conn, const Request &request, Found &found, bool keep) {
    choose_form(found, request);
    const int condition = check_conditions(found, request);
    if (condition == 412) return refuse(host, conn, request, 412, keep);
    if (condition == 304) {
        Reply reply(host, conn, request, 304, keep);
        add_file_fields(reply.head, found);
        return reply.finish(reply.send_head(true), true, 0);
    }
    if (!found.satisfiable) {
        Reply reply(host, conn, request, 416, keep);
        reply.head.add("Content-Range: bytes */").number(found.status.size).add("\r\n");
        return reply_with_text(reply, host, conn, 416);
    }
    Reply reply(host, conn, request, found.ranged ? 206 : 200, keep);
    add_field(reply.head, "Content-Type", found.type.name);
    add_field(reply.head, "X-Content-Type-Options", "nosniff");
    add_file_fields(reply.head, found);
    return found.gzip ? send_gzip(reply, host, conn, found) : send_plain(reply, host, conn, found);
}

}  // namespace

bool refuse(Host &host, cm_conn *conn, const Request &request, int status, bool keep) {
    Reply reply(host, conn, request, status, keep);
    if (status == 405) add_field(reply.head, "Allow", kMethods);
    return reply_with_text(reply, host, conn, status);
}

bool answer(Host &host, cm_conn *conn, const Request &request, bool keep) {
    if (request.method != "GET" && request.method != "HEAD") {
        for (const char *known : kKnownMethods)
            if (request.method == known) return refuse(host, conn, request, 405, keep);
        return refuse(host, conn, request, 501, keep);
    }
    Path path;
    const int status = decode_target(request.target, &path);
    if (status != 200) return refuse(host, conn, request, status, keep);

    Text<4096> name;
    name.add(host.folder).add('/').add(path.view());
    if (path.directory) name.add(path.length > 0 ? "/index.html" : "index.html");
    cm_stat_rec record;
    if (name.overflowed() || cm_stat(host.ctx, name.c_str(), 1, &record) == 0)
        return refuse(host, conn, request, 404, keep);
    const uint32_t kind = record.mode & kTypeMask;
    if (kind == kDirectory && !path.directory) return redirect_to_folder(host, conn, request, path, keep);
    if (kind != kRegular) return refuse(host, conn, request, 404, keep);
    // Until the cache looks at the disk again it may know the status of a file and not its content, or an older
    // content. Opening the file brings both together, and keeps them so while it is open.
    const OpenFile held(host, name.c_str());
    if (held.handle == nullptr || cm_stat(host.ctx, name.c_str(), 1, &record) == 0)
        return refuse(host, conn, request, 404, keep);
    if (record.size == UINT32_MAX) return refuse(host, conn, request, 500, keep);  // its length cannot be told
    Found found(name.c_str(), record);
    return send_file(host, conn, request, found, keep);
}

}  // namespace webhost
