// An FTP server in the place of the system's sockets: what it says is written down before, what it is told is compared.
//
// A script is steps with " ; " between them:
//     >TEXT     sends the line                  <TEXT      wants this command
//     )TEXT     sends the bytes                 *N TEXT    sends the line N times
//     pasv      sends where data goes           connect    connects to the client; "foreign": somebody else does
//     data:TEXT sends the bytes as data         recv:TEXT  wants these bytes as data
//     break     the data connection is reset    end        closes the control connection
//     !TEXT     what is sent or written beginning with TEXT fails; so do "connect", "listen", "rename"
// Without a step to go on with, the server is silent.
#pragma once

#include <deque>
#include <string>
#include <vector>

#include "net/cmftp.h"
#include "support/replace.h"
#include "support/sockets.h"

namespace cm::test {

class FtpWire {
    using Table = platform::Table;
    using Error = platform::Error;

public:
    explicit FtpWire(const std::string &script) {
        for (size_t from = 0, end; from < script.size(); from = end + 3) {
            end = std::min(script.find(" ; ", from), script.size());
            steps_.push_back(script.substr(from, end - from));
            if (steps_.back()[0] == '!') failing_ = steps_.back().substr(1);
        }
        restart();
    }
    void restart() {
        for (std::string *text : {&control, &data, &stored_, &problem_}) text->clear();
        next_ = 0;
        control_ = 0;
        go_on();
    }
    // What did not go as it should; to be asked when the client is done.
    std::string problem() const {
        return problem_.empty() && next_ < steps_.size() ? "never came to " + steps_[next_] : problem_;
    }

    std::string control, data;  // still to be received
    std::string given;          // all of the data
    bool ended = false, broken = false, any_address = false;
    int32_t last_wait_ms = 0;  // of a wait in vain

private:
    void want(const std::string &wanted, const std::string &got) {
        if (wanted != got && problem_.empty()) problem_ = "wanted '" + wanted + "', got '" + got + "'";
    }
    // Takes all steps up to the next one that the client has to do something for.
    void go_on() {
        for (; next_ < steps_.size(); next_++) {
            const std::string &step = steps_[next_], rest = step.substr(1);
            if (step[0] == '<' || step.starts_with("recv:")) return;
            if (step[0] == '>') control += rest + "\r\n";
            if (step[0] == ')') control += rest;
            if (step[0] == '*')
                for (int i = std::stoi(rest); i > 0; i--) control += rest.substr(rest.find(' ') + 1) + "\n";
            if (step == "pasv") control += "227 Entering Passive Mode (127,0,0,9,4,1).\r\n";
            if (step == "connect") callers_.push_back(address_of("127.0.0.1"));
            if (step == "foreign") callers_.push_back(address_of("127.0.0.2"));
            if (step.starts_with("data:")) data = given = step.substr(5);
            if (step == "break") broken = true;
            if (step == "end") ended = true;
        }
    }
    Error told(cm_socket socket, const std::string &bytes) {
        if (!failing_.empty() && bytes.starts_with(failing_)) return CM_ECONNRESET;
        if (socket != control_) {
            stored_ += bytes;
        } else if (next_ < steps_.size() && steps_[next_][0] == '<') {
            want(steps_[next_++].substr(1) + "\r\n", bytes);
            go_on();
        } else if (!any_address) {
            want("QUIT\r\n", bytes);
        }
        return 0;
    }
    void closed(cm_socket socket) {
        if (socket != data_ || next_ >= steps_.size() || steps_[next_][0] != 'r') return;
        want(steps_[next_++].substr(5), stored_);
        go_on();
    }
    bool ready(const platform::WaitItem &item) const {
        if (item.for_write || item.socket == control_) return item.for_write || ended || !control.empty();
        return item.socket == data_ || (item.socket == listener_ && !callers_.empty());
    }
    Error received(cm_socket socket, void *buffer, size_t size, size_t *count) {
        std::string &bytes = socket == control_ ? control : data;
        *count = bytes.copy(static_cast<char *>(buffer), size);
        bytes.erase(0, *count);
        if (*count > 0 || (socket == control_ && ended)) return 0;
        return socket == control_ ? CM_EWOULDBLOCK : broken ? CM_ECONNRESET : 0;
    }
    Error connects(cm_socket socket, uint32_t to, int32_t port) {
        if (failing_ == "connect") return CM_ECONNREFUSED;
        if (control_ == 0 && port == ftp::kPort) return control_ = socket, 0;
        if (!any_address && (to != address_of("127.0.0.9") || port != 1025)) return CM_ECONNREFUSED;
        return data_ = socket, 0;
    }

    std::vector<std::string> steps_;
    size_t next_ = 0;
    std::string failing_, problem_, stored_;
    std::deque<uint32_t> callers_;
    cm_socket sockets_ = 1000, control_ = 0, listener_ = 0, data_ = 0;

    const Replace<&Table::socket_open> open_{[this](auto, auto *out) { return *out = ++sockets_, 0; }};
    const Replace<&Table::socket_close> close_{[this](auto socket) { return closed(socket), 0; }};
    const Replace<&Table::socket_shutdown> shutdown_{[](auto) { return 0; }};
    const Replace<&Table::socket_bind> bind_{[](auto...) { return 0; }};
    const Replace<&Table::socket_listen> listen_{
        [this](auto socket, auto) { return listener_ = socket, failing_ == "listen" ? CM_EADDRINUSE : 0; }};
    const Replace<&Table::socket_accept> accept_{[this](auto, auto *out, auto *from, auto *port) {
        if (callers_.empty()) return CM_EWOULDBLOCK;
        *from = callers_.front(), *port = 20, *out = ++sockets_, callers_.pop_front();
        if (*from == address_of("127.0.0.1")) data_ = *out;
        return 0;
    }};
    const Replace<&Table::socket_connect> connect_{
        [this](auto socket, auto to, auto port) { return connects(socket, to, port); }};
    const Replace<&Table::socket_local> local_{
        [](auto, auto *own, auto *port) { return *own = address_of("127.0.0.1"), *port = 19 * 256 + 4, 0; }};
    const Replace<&Table::socket_set_blocking> blocking_{[](auto...) { return 0; }};
    const Replace<&Table::socket_option> option_{[](auto...) { return 0; }};
    const Replace<&Table::socket_all_confirmed> confirmed_{[](auto) { return true; }};
    const Replace<&Table::socket_send> send_{[this](auto socket, auto *slices, auto count, bool, auto *sent) {
        std::string bytes;
        for (int i = 0; i < count; i++) bytes.append(static_cast<const char *>(slices[i].data), slices[i].length);
        return *sent = bytes.size(), told(socket, bytes);
    }};
    const Replace<&Table::socket_send_file> send_file_{[](auto...) { return CM_EINVAL; }};
    const Replace<&Table::socket_receive> receive_{[this](auto socket, auto *buffer, auto size, bool, auto *count) {
        return received(socket, buffer, size, count);
    }};
    const Replace<&Table::socket_wait> wait_{[this](auto *items, auto, auto timeout_ms, auto *count) {
        *count = items[0].ready = ready(items[0]);
        if (!items[0].ready) last_wait_ms = timeout_ms;
        return 0;
    }};
    const Replace<&Table::file_write> write_{[this](auto file, auto *bytes, auto count, auto *written) {
        const bool full =
            !failing_.empty() && std::string_view(static_cast<const char *>(bytes), count).starts_with(failing_);
        const Error error = write_.real(file, bytes, count - full, written);
        return full ? 28 : error;
    }};
    const Replace<&Table::path_rename> rename_{
        [this](auto *from, auto *to) { return failing_ == "rename" ? CM_EACCES : rename_.real(from, to); }};
};

}  // namespace cm::test
