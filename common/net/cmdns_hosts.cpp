// The hosts file and the mail-exchanger file.  They are read anew for every look-up, so that an edit counts at once;
// but of a file that held no line, as most do, it is enough to see that it is still the same.
#include <string.h>

#include "core/cmstring.h"
#include "core/cmthread.h"
#include "files/cmdir.h"
#include "net/address.h"
#include "net/cmdns.h"
#include "platform/platform.h"

using cm::platform::FileStatus;
using cm::platform::os;

namespace cm::dns {
namespace {

constexpr size_t kLongestLine = 1024, kLongestAddress = 30, kLongestName = kNameSize - 1;
constexpr size_t kPieceSize = 4096;
constexpr int64_t kRacySeconds = 2;  // a second change that soon might leave the same time behind

// An open file, without the handle that callers of the library get: a look-up has no time for that.
class File {
public:
    explicit File(const char *path) {
        if (os.file_open(path, CM_O_RDONLY | CM_O_BINARY | CM_O_SEQ, &descriptor_) != 0) descriptor_ = kNone;
    }
    ~File() {
        if (is_open()) os.file_close(descriptor_);
    }
    File(const File &) = delete;
    File &operator=(const File &) = delete;

    bool is_open() const { return descriptor_ != kNone; }
    bool status(FileStatus *out) const { return os.file_status(descriptor_, out) == 0; }
    bool failed() const { return failed_; }  // not all of it could be read
    static size_t read(void *self, char *buffer, size_t size) {
        auto *file = static_cast<File *>(self);
        size_t got = 0;
        file->failed_ = os.file_read(file->descriptor_, buffer, size, &got) != 0;
        return file->failed_ ? 0 : got;
    }

private:
    static constexpr int32_t kNone = -1;
    int32_t descriptor_ = kNone;
    bool failed_ = false;
};

// Lines of a file, cut to 1024 bytes.  A carriage return before the line feed belongs to the line's end.
class Lines {
public:
    explicit Lines(const HostsSource &source) : source_(source) {}

    bool next(std::string_view *out) {
        bool whole = false, any = false;
        *out = {};
        while (!whole && (begin_ < end_ || fill())) {
            const std::string_view rest(piece_ + begin_, end_ - begin_);
            const size_t feed = rest.find('\n');
            whole = feed != rest.npos;
            const size_t length = whole ? feed : rest.size();
            begin_ += length + (whole ? 1 : 0);
            *out = whole && !any ? std::string_view(rest.data(), length) : join(*out, {rest.data(), length});
            any = true;
        }
        if (out->ends_with('\r')) out->remove_suffix(1);
        if (out->size() > kLongestLine) *out = {out->data(), kLongestLine};
        return any;
    }

private:
    bool fill() {
        begin_ = 0;
        end_ = ended_ ? 0 : source_.read(source_.self, piece_, sizeof piece_);
        ended_ = end_ < sizeof piece_;  // less than asked for is the end
        return end_ > 0;
    }
    // A line that began in the piece before.
    std::string_view join(std::string_view begun, std::string_view more) {
        const size_t room = kLongestLine - begun.size();
        const size_t taken = more.size() < room ? more.size() : room;
        memcpy(joined_ + begun.size(), more.data(), taken);
        return {joined_, begun.size() + taken};
    }

    const HostsSource source_;
    size_t begin_ = 0, end_ = 0;
    bool ended_ = false;
    char piece_[kPieceSize];
    char joined_[kLongestLine];
};

std::string_view next_token(std::string_view *rest) {
    while (!rest->empty() && is_space(rest->front())) rest->remove_prefix(1);
    size_t length = 0;
    while (length < rest->size() && !is_space((*rest)[length])) length++;
    const std::string_view token(rest->data(), length);
    rest->remove_prefix(length);
    return token;
}

bool parse_preference(std::string_view text, uint16_t *out) {
    uint32_t value = 0;
    if (text.empty() || text.size() > 5) return false;
    for (const char c : text) {
        if (!is_digit(c)) return false;
        value = value * 10 + static_cast<uint32_t>(c - '0');
    }
    *out = static_cast<uint16_t>(value);
    return value <= UINT16_MAX;
}

// False ends the reading.
bool visit_hosts(std::string_view first, std::string_view rest, const HostsVisitor &visitor) {
    uint32_t address = 0;
    if (first.size() > kLongestAddress || !net::parse_dotted(first, &address)) return true;
    for (std::string_view name = next_token(&rest); !name.empty(); name = next_token(&rest))
        if (name.size() <= kLongestName && !visitor.host(visitor.self, address, name)) return false;
    return true;
}

bool visit_exchangers(std::string_view domain, std::string_view rest, const HostsVisitor &visitor) {
    const std::string_view number = next_token(&rest), name = next_token(&rest);
    uint16_t preference = 0;
    if (domain.size() > kLongestName || name.size() > kLongestName || !is_host_name(name)) return true;
    return !parse_preference(number, &preference) || visitor.exchanger(visitor.self, domain, preference, name);
}

// Remembers a file that was read and held no line.  What changed a moment ago may change again without looking
// different, and is not remembered.
void remember_empty(cm_dns_state *state, const File &file, Stamp *empty) {
    FileStatus status;
    platform::WallTime now = {};
    if (!file.status(&status) || !os.wall_clock(&now) || status.mtime + kRacySeconds > now.seconds) return;
    const MutexGuard guard(state->mutex);
    *empty = stamp_of(status);
}

bool is_known_empty(cm_dns_state *state, const char *path, const Stamp *empty) {
    Stamp known;
    {
        const MutexGuard guard(state->mutex);
        known = *empty;
    }
    return known.exists && stamp_of(path) == known;
}

// A file of a look-up.
void search(cm_dns_state *state, const char *path, Stamp *empty, const HostsVisitor &visitor) {
    if (path == nullptr || is_known_empty(state, path, empty)) return;
    File file(path);
    if (file.is_open() && read_hosts({File::read, &file}, visitor) && !file.failed())
        remember_empty(state, file, empty);
}

}  // namespace

bool read_hosts(const HostsSource &source, const HostsVisitor &visitor) {
    Lines lines(source);
    std::string_view line;
    bool any = false;
    // Kept: an empty line hides everything behind it.
    while (lines.next(&line) && !line.empty()) {
        const std::string_view first = next_token(&line);
        if (first.empty() || first.front() == '#') continue;
        any = true;
        const bool go_on =
            visitor.host != nullptr ? visit_hosts(first, line, visitor) : visit_exchangers(first, line, visitor);
        if (!go_on) break;
    }
    return !any;
}

bool read_hosts(const char *path, const HostsVisitor &visitor) {
    if (path == nullptr) return false;
    File file(path);
    if (file.is_open()) read_hosts({File::read, &file}, visitor);
    return file.is_open() && !file.failed();
}

Stamp stamp_of(const FileStatus &status) {
    return {true, status.mtime_ns, status.mtime, status.size, status.index};
}

Stamp stamp_of(const char *path) {
    FileStatus status;
    if (path == nullptr || os.path_status(path, true, &status) != 0) return {};
    return stamp_of(status);
}

bool names_match(const cm_dns_state *state, std::string_view of_line, std::string_view name) {
    if ((state->flags & CM_DNS_WILDCARDS) == 0) return equal_folded(of_line, name);
    // Of paths "*.*" means everything; of names it means a full stop somewhere.
    if (of_line == "*.*") return name.find('.') != name.npos;
    return files::matches_pattern(of_line, name);
}

bool hosts_address(cm_context *ctx, std::string_view name, uint32_t *out_address) {
    struct Search {
        const cm_dns_state *state;
        std::string_view name;
        uint32_t *out;
        bool found;
    } asked = {ctx->dns, name, out_address, false};
    const auto take = [](void *self, uint32_t address, std::string_view of_line) {
        auto *wanted = static_cast<Search *>(self);
        if (!names_match(wanted->state, of_line, wanted->name)) return true;
        *wanted->out = address;
        wanted->found = true;
        return false;
    };
    search(ctx->dns, ctx->dns->hosts_path, &state_of(ctx)->empty_hosts, {take, nullptr, &asked});
    return asked.found;
}

bool hosts_name(cm_context *ctx, uint32_t address, char *out_name) {
    struct Search {
        uint32_t address;
        char *out;
        bool found;
    } asked = {address, out_name, false};
    const auto take = [](void *self, uint32_t of_line, std::string_view name) {
        auto *wanted = static_cast<Search *>(self);
        // A pattern or the beginning of a remark is no name to give out.
        if (of_line != wanted->address || !is_host_name(name)) return true;
        memcpy(wanted->out, name.data(), name.size());
        wanted->out[name.size()] = 0;
        wanted->found = true;
        return false;
    };
    search(ctx->dns, ctx->dns->hosts_path, &state_of(ctx)->empty_hosts, {take, nullptr, &asked});
    return asked.found;
}

bool hosts_exchangers(cm_context *ctx, std::string_view domain, Answer *out) {
    struct Search {
        const cm_dns_state *state;
        std::string_view domain;
        Answer *out;
    } asked = {ctx->dns, domain, out};
    const auto take = [](void *self, std::string_view of_line, uint16_t preference, std::string_view name) {
        auto *wanted = static_cast<Search *>(self);
        if (names_match(wanted->state, of_line, wanted->domain)) add_exchanger(wanted->out, preference, name);
        return true;
    };
    out->count = 0;
    search(ctx->dns, ctx->dns->mx_path, &state_of(ctx)->empty_exchangers, {nullptr, take, &asked});
    return out->count > 0;
}

}  // namespace cm::dns
