// Hosts and mail-exchanger files of any bytes.
// Input: one byte of choices, then the file; its first word is also the name that is looked for.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "net/cmdns.h"

using namespace cm::dns;

namespace {

void require(bool condition) {
    if (!condition) std::abort();
}

struct Seen {
    const cm_dns_state *state;
    std::string wanted;
    int visits, most, matches;
};

bool take_host(void *self, uint32_t, std::string_view name) {
    auto *seen = static_cast<Seen *>(self);
    require(!name.empty() && name.size() < kNameSize);
    for (const char c : name) require(c != ' ' && c != '\t' && c != '\n' && c != '\r');
    seen->matches += names_match(seen->state, name, seen->wanted);
    return ++seen->visits < seen->most;
}

bool take_exchanger(void *self, std::string_view domain, uint16_t, std::string_view name) {
    require(is_host_name(name));
    return take_host(self, 0, domain);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1) return 0;
    const int choice = data[0];
    const auto length = static_cast<int32_t>(size - 1);
    const std::unique_ptr<char[]> text(new char[size]);
    for (int32_t i = 0; i < length; i++) text[static_cast<size_t>(i)] = static_cast<char>(data[i + 1]);
    cm_dns_state state = {};
    state.flags = (choice & 1) != 0 ? CM_DNS_WILDCARDS : 0;
    Seen seen = {&state, {text.get(), static_cast<size_t>(length) % 32}, 0, (choice & 2) != 0 ? 3 : INT32_MAX, 0};
    struct Rest {
        const char *at;
        size_t left;
    } rest = {text.get(), static_cast<size_t>(length)};
    const HostsSource source = {[](void *self, char *buffer, size_t room) {
                                    auto *from = static_cast<Rest *>(self);
                                    const size_t count = std::min(room, from->left);
                                    std::memcpy(buffer, from->at, count);
                                    from->at += count;
                                    from->left -= count;
                                    return count;
                                },
                                &rest};
    if ((choice & 4) != 0)
        read_hosts(source, {nullptr, take_exchanger, &seen});
    else
        read_hosts(source, {take_host, nullptr, &seen});
    require(seen.visits <= seen.most && seen.matches <= seen.visits);
    return 0;
}
