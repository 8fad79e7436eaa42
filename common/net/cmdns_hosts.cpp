// The hosts file and the mail-exchanger file.  They are read anew for every look-up, so that an edit counts at once.
#include <string.h>

#include "core/cmstring.h"
#include "files/cmdir.h"
#include "net/address.h"
#include "net/cmdns.h"

namespace cm::dns {
namespace {

constexpr size_t kLongestLine = 1024, kLongestAddress = 30, kLongestName = kNameSize - 1;
constexpr int32_t kPieceSize = 4096;

class FileCloser {
public:
    ~FileCloser() {
        if (file_ != nullptr) cm_fclose(file_);
    }
    cm_file **out() { return &file_; }
    cm_file *get() const { return file_; }

private:
    cm_file *file_ = nullptr;
};

// Lines of a file, cut to 1024 bytes.  A carriage return before the line feed belongs to the line's end.
class Lines {
public:
    explicit Lines(cm_file *file) : file_(file) {}

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
        int32_t got = 0;
        begin_ = end_ = 0;
        if (cm_fread(file_, piece_, kPieceSize, &got) != 0 && got > 0) end_ = static_cast<size_t>(got);
        return end_ > 0;
    }
    // A line that began in the piece before.
    std::string_view join(std::string_view begun, std::string_view more) {
        const size_t room = kLongestLine - begun.size();
        const size_t taken = more.size() < room ? more.size() : room;
        memcpy(joined_ + begun.size(), more.data(), taken);
        return {joined_, begun.size() + taken};
    }

    cm_file *const file_;
    size_t begin_ = 0, end_ = 0;
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

}  // namespace

void read_hosts(cm_file *file, const HostsVisitor &visitor) {
    Lines lines(file);
    std::string_view line;
    // Kept: an empty line hides everything behind it.
    while (lines.next(&line) && !line.empty()) {
        const std::string_view first = next_token(&line);
        if (first.empty() || first.front() == '#') continue;
        const bool go_on =
            visitor.host != nullptr ? visit_hosts(first, line, visitor) : visit_exchangers(first, line, visitor);
        if (!go_on) return;
    }
}

void read_hosts(cm_context *ctx, const char *path, const HostsVisitor &visitor) {
    FileCloser file;
    if (path != nullptr && cm_fopen(ctx, path, CM_O_RDONLY | CM_O_BINARY | CM_O_SEQ, file.out()) != 0)
        read_hosts(file.get(), visitor);
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
    } search = {ctx->dns, name, out_address, false};
    const auto take = [](void *self, uint32_t address, std::string_view of_line) {
        auto *wanted = static_cast<Search *>(self);
        if (!names_match(wanted->state, of_line, wanted->name)) return true;
        *wanted->out = address;
        wanted->found = true;
        return false;
    };
    read_hosts(ctx, ctx->dns->hosts_path, {take, nullptr, &search});
    return search.found;
}

bool hosts_name(cm_context *ctx, uint32_t address, char *out_name) {
    struct Search {
        uint32_t address;
        char *out;
        bool found;
    } search = {address, out_name, false};
    const auto take = [](void *self, uint32_t of_line, std::string_view name) {
        auto *wanted = static_cast<Search *>(self);
        // A pattern or the beginning of a remark is no name to give out.
        if (of_line != wanted->address || !is_host_name(name)) return true;
        memcpy(wanted->out, name.data(), name.size());
        wanted->out[name.size()] = 0;
        wanted->found = true;
        return false;
    };
    read_hosts(ctx, ctx->dns->hosts_path, {take, nullptr, &search});
    return search.found;
}

bool hosts_exchangers(cm_context *ctx, std::string_view domain, Answer *out) {
    struct Search {
        const cm_dns_state *state;
        std::string_view domain;
        Answer *out;
    } search = {ctx->dns, domain, out};
    const auto take = [](void *self, std::string_view of_line, uint16_t preference, std::string_view name) {
        auto *wanted = static_cast<Search *>(self);
        if (names_match(wanted->state, of_line, wanted->domain)) add_exchanger(wanted->out, preference, name);
        return true;
    };
    out->count = 0;
    read_hosts(ctx, ctx->dns->mx_path, {nullptr, take, &search});
    return out->count > 0;
}

}  // namespace cm::dns
