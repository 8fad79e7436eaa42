// Servers at ports where tests cannot listen, which answer within the send of the request.
#pragma once

#include "network/net.h"

namespace cm::test {

// Leads what goes to port 0 (of echo requests), 68 and 123 to another one of 127.0.0.1, and what comes from there back.
struct Redirect {
    const int32_t to;
    std::function<void()> after_send = [] {};
    int32_t from = -1;
    const Replace<&Table::socket_send_to> send{
        [this](cm_socket socket, uint32_t address, int32_t port, const void *data, size_t length) {
            if (port != 0 && port != 68 && port != 123) return send.real(socket, address, port, data, length);
            from = port;
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

}  // namespace cm::test
