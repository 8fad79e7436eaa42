// Hardware addresses of the link.  Dial-up lines, which there are none of here.
#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netinet/in.h>
#include <netpacket/packet.h>
#include <stdio.h>
#include <string.h>

#include "posix.h"

namespace cm::platform::system {

namespace {

constexpr size_t kHardwareSize = 6;
constexpr char kNeighbours[] = "/proc/net/arp";

bool is_some_address(const uint8_t *hardware) {
    constexpr uint8_t kNone[kHardwareSize] = {};
    return memcmp(hardware, kNone, kHardwareSize) != 0;
}

// The interfaces of this host, as the system lists them.
class Interfaces {
public:
    Interfaces() {
        if (getifaddrs(&first_) != 0) first_ = nullptr;
    }
    ~Interfaces() {
        if (first_ != nullptr) freeifaddrs(first_);
    }
    Interfaces(const Interfaces &) = delete;
    Interfaces &operator=(const Interfaces &) = delete;

    const char *name_of(uint32_t address) const {
        for (const ifaddrs *at = first_; at != nullptr; at = at->ifa_next) {
            if (at->ifa_addr == nullptr || at->ifa_addr->sa_family != AF_INET) continue;
            sockaddr_in own;
            memcpy(&own, at->ifa_addr, sizeof own);
            if (own.sin_addr.s_addr == address) return at->ifa_name;
        }
        return nullptr;
    }

    bool hardware_of(const char *name, uint8_t *out) const {
        for (const ifaddrs *at = first_; at != nullptr; at = at->ifa_next) {
            if (at->ifa_addr == nullptr || at->ifa_addr->sa_family != AF_PACKET || strcmp(at->ifa_name, name) != 0)
                continue;
            sockaddr_ll link;
            memcpy(&link, at->ifa_addr, sizeof link);
            if (link.sll_halen != kHardwareSize || !is_some_address(link.sll_addr)) continue;
            memcpy(out, link.sll_addr, kHardwareSize);
            return true;
        }
        return false;
    }

private:
    posix::RegionGuard region_;  // the C library allocates
    ifaddrs *first_ = nullptr;
};

// One line of the kernel's table: address, type, flags, hardware address, mask, interface.
bool is_neighbour(const char *line, uint32_t address, uint8_t *out) {
    char text[16], hardware[18];
    unsigned flags = 0;
    in_addr parsed;
    if (sscanf(line, "%15s %*s %x %17s", text, &flags, hardware) != 3 || (flags & ATF_COM) == 0) return false;
    if (inet_pton(AF_INET, text, &parsed) != 1 || parsed.s_addr != address) return false;
    uint8_t bytes[kHardwareSize];
    if (sscanf(hardware, "%2hhx:%2hhx:%2hhx:%2hhx:%2hhx:%2hhx", &bytes[0], &bytes[1], &bytes[2], &bytes[3], &bytes[4],
               &bytes[5]) != 6)
        return false;
    memcpy(out, bytes, kHardwareSize);
    return is_some_address(bytes);
}

bool find_neighbour(int32_t descriptor, uint32_t address, uint8_t *out) {
    char buffer[4096];
    size_t used = 0, got = 0;
    while (os.file_read(descriptor, buffer + used, sizeof buffer - 1 - used, &got) == 0 && got > 0) {
        used += got;
        buffer[used] = '\0';
        char *line = buffer;
        for (char *end = nullptr; (end = strchr(line, '\n')) != nullptr; line = end + 1) {
            *end = '\0';
            if (is_neighbour(line, address, out)) return true;
        }
        used = static_cast<size_t>(buffer + used - line);
        if (used == sizeof buffer - 1) return false;  // no such table
        memmove(buffer, line, used);
    }
    return false;
}

}  // namespace

Error hardware_address(uint32_t address, uint8_t out[kHardwareSize]) {
    {
        const Interfaces interfaces;
        if (const char *name = interfaces.name_of(address))
            return interfaces.hardware_of(name, out) ? 0 : CM_EHOSTUNREACH;
    }
    int32_t descriptor = -1;
    if (os.file_open(kNeighbours, CM_O_RDONLY, &descriptor) != 0) return CM_EHOSTUNREACH;
    const bool found = find_neighbour(descriptor, address, out);
    os.file_close(descriptor);
    return found ? 0 : CM_EHOSTUNREACH;
}

Error line_dial(const char *, const char *, const char *, Line **) {
    return kNotSupported;
}

bool line_connected(Line *) {
    return false;
}

void line_hang_up(Line *) {}

void line_error_text(Error, char *out, size_t size) {
    if (size > 0) out[0] = '\0';
}

}  // namespace cm::platform::system
