// An FTP server that says what it is told to.
//
// A script is steps with " ; " between them:
//     >TEXT         sends the line              <TEXT         wants this command ("<PORT": any address, which is kept)
//     )TEXT         sends the bytes             *N TEXT       sends the line N times
//     pasv          listens for data, says where     connect  connects to the PORT address
//     data:TEXT     sends the bytes as data, closes  foreign  the same from another address
//     break:TEXT    the same, with a reset           end      closes the control connection
//     recv:TEXT     wants these bytes as data
//     !TEXT         no step: what the client sends or writes beginning with TEXT fails; "listen", "rename" fail
// "{N}" is N times the letter n.  After the last step only QUIT may come.
#pragma once

#include "net/cmftp.h"
#include "network/net.h"

namespace cm::test {

inline std::string expanded(std::string text) {
    for (size_t at; (at = text.find('{')) != text.npos;)
        text.replace(at, text.find('}') - at + 1, std::stoul(text.substr(at + 1)), 'n');
    return text;
}

inline std::vector<std::string> parts_of(const std::string &text, const std::string &between) {
    std::vector<std::string> parts;
    for (size_t from = 0, end; from < text.size(); from = end + between.size()) {
        end = std::min(text.find(between, from), text.size());
        parts.push_back(expanded(text.substr(from, end - from)));
    }
    return parts;
}

// Uses the system itself, so that failures meant for the client do not happen to the server.
struct Socket {
    static constexpr const platform::Table &sys = platform::kSystem;

    ~Socket() { close(); }
    void close() {
        if (socket != platform::kNoSocket) sys.socket_close(std::exchange(socket, platform::kNoSocket));
    }
    // Listens on a port of its own, or connects.
    void open(const char *address = "127.0.0.1", int32_t connect_to = 0) {
        sys.socket_open(platform::SocketKind::kStream, &socket);
        sys.socket_bind(socket, address_of(address), 0);
        uint32_t own = 0;
        sys.socket_local(socket, &own, &port);
        EXPECT_EQ(connect_to == 0 ? sys.socket_listen(socket, 5)
                                  : sys.socket_connect(socket, address_of("127.0.0.1"), connect_to),
                  0);
    }
    void accept(cm_socket listener) {
        uint32_t address = 0;
        if (ready(listener)) sys.socket_accept(listener, &socket, &address, &port);
    }
    void say(std::string_view text) const {  // as far as the client listens
        for (size_t count = 0; !text.empty(); text.remove_prefix(count)) {
            const platform::Slice slice = {text.data(), text.size()};
            if (sys.socket_send(socket, &slice, 1, false, &count) != 0) return;
        }
    }
    // Up to a line end, or to the end of the stream.
    std::string heard(bool all) const {
        std::string text;
        char byte = 0;
        for (size_t got = 0; ready(socket) && sys.socket_receive(socket, &byte, 1, true, &got) == 0 && got == 1;) {
            text += byte;
            if (byte == '\n' && !all) break;
        }
        return text;
    }
    bool ready(cm_socket awaited) const {
        platform::WaitItem items[] = {{awaited, false, false, false}, {stop.read_end, false, false, false}};
        int32_t count = 0;
        return sys.socket_wait(items, 2, 20000, &count) == 0 && items[0].ready;
    }

    inline static platform::Wake stop;  // the client is done: nothing more is waited for
    cm_socket socket = platform::kNoSocket;
    int32_t port = 0;
};

class ScriptedServer {
public:
    explicit ScriptedServer(const std::string &script) : steps_(parts_of(script, " ; ")) {
        EXPECT_EQ(Socket::sys.wake_create(&Socket::stop), 0);
        listener_.open();
        ftp::server_port = listener_.port;
        thread_ = std::thread([this] { play(); });
    }
    ~ScriptedServer() {
        end();
        Socket::sys.wake_destroy(&Socket::stop);
        ftp::server_port = ftp::kPort;
    }
    ScriptedServer(const ScriptedServer &) = delete;
    ScriptedServer &operator=(const ScriptedServer &) = delete;

    // What did not go as it should; to be asked when the client is done.
    std::string end() {
        Socket::sys.wake_set(&Socket::stop);
        if (thread_.joinable()) thread_.join();
        return problem_;
    }

private:
    void want(const std::string &wanted, const std::string &got) {
        if (wanted != got && problem_.empty()) problem_ = "wanted '" + wanted + "', got '" + got + "'";
    }
    void want_command(const std::string &wanted) {
        const std::string line = control_.heard(false);
        int high = 0, low = 0;
        const bool port = sscanf(line.c_str(), "PORT 127,0,0,1,%d,%d\r\n", &high, &low) == 2;
        if (port) client_port_ = high * 256 + low;
        want(wanted + "\r\n", port ? "PORT\r\n" : line);
    }
    void transfer(char verb, const std::string &bytes) {
        if (data_.socket == platform::kNoSocket) data_.accept(passive_.socket);
        if (verb == 'r') return want(bytes, data_.heard(true)), data_.close();
        data_.say(bytes);
        if (verb == 'b') Socket::sys.socket_option(data_.socket, platform::SocketOption::kLinger, 0);
        data_.close();
    }
    void step(const std::string &text) {
        const std::string rest = text.substr(1);
        switch (text[0]) {
            case '>':
                return control_.say(rest + "\r\n");
            case ')':
                return control_.say(rest);
            case '<':
                return want_command(rest);
            case '*':
                for (int i = std::stoi(rest); i > 0; i--) control_.say(rest.substr(rest.find(' ') + 1) + "\n");
                return;
            case 'p':
                passive_.open();
                return control_.say("227 Entering Passive Mode (127,0,0,1," + std::to_string(passive_.port / 256) +
                                    "," + std::to_string(passive_.port % 256) + ").\r\n");
            case 'c':
                return data_.open("127.0.0.1", client_port_);
            case 'f':
                return foreign_.open("127.0.0.2", client_port_);
            case 'e':
                return control_.close();
            case 'd':
            case 'b':
            case 'r':
                return transfer(text[0], text.substr(text.find(':') + 1));
            default:
                return want("!", text.substr(0, 1));
        }
    }
    void play() {
        control_.accept(listener_.socket);
        for (const std::string &text : steps_)
            if (problem_.empty()) step(text);
        if (control_.socket == platform::kNoSocket) return;
        const std::string rest = control_.heard(true);
        if (!rest.empty()) want("QUIT\r\n", rest);
    }

    Socket listener_, control_, passive_, data_, foreign_;
    int32_t client_port_ = 0;
    const std::vector<std::string> steps_;
    std::string problem_;
    std::thread thread_;
};

}  // namespace cm::test
