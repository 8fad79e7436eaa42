// Servers at ports where tests cannot listen, which answer within the send of the request, so that nothing waits: what
// is there is there, and a wait for more only moves the frozen clock.
#pragma once

#include "network/net.h"

namespace cm::test {

// Leads what goes to one port to another one of 127.0.0.1, and what comes from there back.
struct Redirect {
    const int32_t from, to;
    std::function<void()> after_send = [] {};
    int sends = 0;
    const Replace<&Table::socket_send_to> send{
        [this](cm_socket socket, uint32_t address, int32_t port, const void *data, size_t length) {
            if (port != from) return send.real(socket, address, port, data, length);
            sends++;
            const uint32_t here = address == 0xFFFFFFFFu ? address_of("127.0.0.1") : address;
            const Error error = send.real(socket, here, to, data, length);
            if (error == 0) after_send();
            return error;
        }};
    const Replace<&Table::socket_receive_from> receive{[this](cm_socket socket, void *buffer, size_t size, bool now,
                                                              size_t *out_count, uint32_t *out_address,
                                                              int32_t *out_port) {
        const Error error = receive.real(socket, buffer, size, now, out_count, out_address, out_port);
        if (error == 0 && *out_port == to) *out_port = from;
        return error;
    }};
};

struct NoWaiting {
    FrozenClock &clock;
    const Replace<&Table::socket_wait> wait{
        [this](platform::WaitItem *items, int32_t count, int32_t timeout_ms, int32_t *out_ready) {
            const Error error = wait.real(items, count, 0, out_ready);
            if (error == 0 && *out_ready == 0) clock.advance_ms(timeout_ms);
            return error;
        }};
};

}  // namespace cm::test
