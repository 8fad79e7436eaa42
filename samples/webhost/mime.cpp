#include "mime.h"

#include "request.h"

namespace webhost {
namespace {

constexpr MediaType kTypes[] = {
    {"html", "text/html; charset=utf-8", true},
    {"htm", "text/html; charset=utf-8", true},
    {"css", "text/css; charset=utf-8", true},
    {"js", "text/javascript; charset=utf-8", true},
    {"mjs", "text/javascript; charset=utf-8", true},
    {"json", "application/json", true},
    {"txt", "text/plain; charset=utf-8", true},
    {"md", "text/markdown; charset=utf-8", true},
    {"csv", "text/csv; charset=utf-8", true},
    {"xml", "application/xml", true},
    {"svg", "image/svg+xml", true},
    {"wasm", "application/wasm", true},
    {"png", "image/png", false},
    {"jpg", "image/jpeg", false},
    {"jpeg", "image/jpeg", false},
    {"gif", "image/gif", false},
    {"webp", "image/webp", false},
    {"ico", "image/x-icon", false},
    {"pdf", "application/pdf", false},
    {"zip", "application/zip", false},
    {"gz", "application/gzip", false},
    {"mp3", "audio/mpeg", false},
    {"mp4", "video/mp4", false},
    {"webm", "video/webm", false},
    {"woff2", "font/woff2", false},
};
constexpr MediaType kUnknown = {"", "application/octet-stream", false};

}  // namespace

const MediaType &media_type(std::string_view path) {
    const size_t dot = path.find_last_of("./");
    if (dot == std::string_view::npos || path[dot] != '.') return kUnknown;
    const std::string_view ending = path.substr(dot + 1);
    for (const MediaType &type : kTypes)
        if (same_word(type.ending, ending)) return type;
    return kUnknown;
}

}  // namespace webhost
