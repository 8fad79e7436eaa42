#include "access_log.h"

#include "text.h"

namespace webhost {
namespace {

constexpr size_t kLine = 990;  // a log line of the library is cut at 992 bytes
constexpr size_t kLongestQuote = 300;

// Quotes a text of the client's: control bytes, quotes and backslashes are escaped, so that no request can forge a
// line.
template <size_t kSize>
void add_quoted(Text<kSize> &line, std::string_view text) {
    static constexpr char kHex[] = "0123456789abcdef";
    line.add('"');
    if (text.empty()) line.add('-');
    for (const char c : text.substr(0, kLongestQuote)) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x20 && byte < 0x7F && c != '"' && c != '\\') {
            line.add(c);
        } else {
            const char escape[] = {'\\', 'x', kHex[byte >> 4], kHex[byte & 15]};
            line.add(std::string_view(escape, sizeof escape));
        }
    }
    line.add('"');
}

}  // namespace

bool AccessLog::open(cm_context *ctx, const char *name) {
    // Appending: a restart goes on with the same file.
    return cm_create_mutex(ctx, &mutex_) != 0 &&
           cm_fopenl(ctx, name, CM_O_RDWR | CM_O_CREAT | CM_O_APPEND, &file_) != 0;
}

void AccessLog::write(const cm_conn *conn, const Request &request, int status, uint64_t body_bytes) {
    char stamp[64];
    int32_t stamp_length = 0;
    cm_timestamp(nullptr, stamp, sizeof stamp, &stamp_length);

    Text<kLine> line;
    line.add(conn->peer_text).add(" - - ").add(std::string_view(stamp, static_cast<size_t>(stamp_length))).add(' ');
    add_quoted(line, request.line);
    line.add(' ').number(static_cast<uint64_t>(status)).add(' ');
    if (body_bytes > 0)
        line.number(body_bytes);
    else
        line.add('-');
    line.add(' ');
    add_quoted(line, request.field("Referer"));
    line.add(' ');
    add_quoted(line, request.field("User-Agent"));
    cm_lwrite(file_, line.c_str(), line.length(), 0, mutex_, 0);
}

void AccessLog::flush() {
    if (file_ != nullptr) cm_lwrite(file_, "", 0, 0, mutex_, 1);
}

void AccessLog::close() {
    flush();
    if (file_ != nullptr) cm_fclose(file_);
    if (mutex_ != nullptr) cm_delete_mutex(mutex_);
    file_ = nullptr;
    mutex_ = nullptr;
}

}  // namespace webhost
