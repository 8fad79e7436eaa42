// Reply bodies over a loopback connection, beside the least that has to be done for the same bytes.
#include <zlib.h>

#include <cstdio>
#include <string>
#include <thread>

#include "net/cmnet.h"
#include "ratio.h"

namespace {

using cm::platform::os;
using cm::platform::Slice;

// A connection whose peer reads and drops everything.
class Drained {
public:
    Drained() {
        cm_net_init(nullptr, 0, &state);
        cm_net_listen(state, "127.0.0.1", 0, 1, 60, 0, &listener_);
        cm_net_connect(state, "127.0.0.1", static_cast<int32_t>(listener_->peer_port), 60, 0, 0, &conn, nullptr);
        cm_net_accept(state, listener_, 0, &peer_);
        reader_ = std::thread([this] {
            static char buffer[262144];
            size_t got = 1;
            while (got > 0 && os.socket_receive(*peer_->sock, buffer, sizeof buffer, false, &got) == 0) continue;
        });
    }
    ~Drained() {
        cm_net_close(state, conn, 0);
        reader_.join();
        cm_net_closeall(state);
        cm_net_exit(state);
    }

    void send(const Slice *slices, int32_t count) {
        size_t sent = 0, total = 0;
        for (int32_t i = 0; i < count; i++) total += slices[i].length;
        if (os.socket_send(*conn->sock, slices, count, false, &sent) != 0 || sent != total) std::abort();
    }

    cm_net_state *state = nullptr;
    cm_conn *conn = nullptr;

private:
    cm_conn *listener_ = nullptr, *peer_ = nullptr;
    std::thread reader_;
};

std::string prose(size_t size) {
    static const char *const kWords[] = {
        "the",   "of", "and",  "connection", "to", "a",  "in",  "server",  "is",   "that",  "it",    "was", "for",
        "reply", "as", "with", "header",     "be", "on", "not", "request", "this", "which", "bytes", "from"};
    std::string text;
    uint32_t seed = 7;
    while (text.size() < size) {
        seed = seed * 1664525 + 1013904223;
        text += kWords[(seed >> 16) % 25];
        text += (seed >> 28) == 0 ? ".\n" : " ";
        if ((seed >> 29) == 3) text += std::to_string(seed % 10007) + " ";
    }
    text.resize(size);
    return text;
}

constexpr size_t kMebibyte = 1 << 20;

void chunked(cm::bench::Rows &rows, Drained &drained) {
    const std::string piece = prose(4096);
    rows.pair(
        "chunked body in 4 KB pieces, per MiB", 1,
        [&] {
            drained.conn->flags |= CM_CONN_CHUNKED;
            for (size_t i = 0; i < kMebibyte / 4096; i++)
                cm_net_putdata(drained.state, drained.conn, piece.data(), 4096, 0);
            cm_net_enddata(drained.state, drained.conn);
        },
        [&] {
            static char buffer[16002];
            size_t used = 0;
            const auto flush = [&] {
                char head[16];
                const int length = snprintf(head, sizeof head, "%zx\r\n", used);
                buffer[used] = '\r';
                buffer[used + 1] = '\n';
                const Slice slices[] = {{head, static_cast<size_t>(length)}, {buffer, used + 2}};
                drained.send(slices, 2);
                used = 0;
            };
            for (size_t i = 0; i < kMebibyte / 4096; i++) {
                if (used + 4096 > 15950) flush();
                memcpy(buffer + used, piece.data(), 4096);
                used += 4096;
            }
            flush();
            const Slice last[] = {{"0\r\n\r\n", 5}};
            drained.send(last, 1);
        },
        "<= 1.4");
}

void compressed(cm::bench::Rows &rows, Drained &drained) {
    constexpr size_t kSize = 4 * kMebibyte;
    static const std::string text = prose(kSize);
    rows.pair(
        "gzip body, per MiB", 4,
        [&] {
            drained.conn->flags |= CM_CONN_CHUNKED | CM_CONN_GZIP;
            for (size_t at = 0; at < kSize; at += 4096)
                cm_net_putdata(drained.state, drained.conn, text.data() + at, 4096, 0);
            cm_net_enddata(drained.state, drained.conn);
        },
        [&] {
            static Bytef out[16000];
            z_stream stream = {};
            deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY);
            for (size_t at = 0; at < kSize;) {
                const size_t step = std::min<size_t>(15936, kSize - at);
                stream.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(text.data() + at));
                stream.avail_in = static_cast<uInt>(step);
                at += step;
                do {
                    stream.next_out = out;
                    stream.avail_out = sizeof out;
                    deflate(&stream, at == kSize ? Z_FINISH : Z_NO_FLUSH);
                } while (stream.avail_in > 0 || (at == kSize && stream.avail_out == 0));
            }
            deflateEnd(&stream);
        },
        "<= 1.03");
}

void files(cm::bench::Rows &rows, Drained &drained) {
    const std::string header(250, 'h');
    for (const size_t size : {size_t{1024}, size_t{65536}, kMebibyte}) {
        const std::string path = "bench_body.tmp";
        FILE *file = fopen(path.c_str(), "wb");
        const std::string text = prose(size);
        fwrite(text.data(), 1, size, file);
        fclose(file);
        rows.pair(
            "header and file of " + std::to_string(size) + " bytes", 1,
            [&] {
                cm_net_putdata(drained.state, drained.conn, header.data(), 250, 0);
                cm_net_putfile(drained.state, drained.conn, path.c_str(), 0, static_cast<int32_t>(size - 1), 0);
            },
            [&] {
                int32_t descriptor = -1;
                os.file_open(path.c_str(), CM_O_RDONLY, &descriptor);
                static char buffer[2048];
                const bool small = size < sizeof buffer - 250;
                memcpy(buffer, header.data(), 250);
                size_t got = 0, sent = 0;
                if (small) os.file_read(descriptor, buffer + 250, size, &got);
                const Slice slices[] = {{buffer, 250 + got}};
                os.socket_send(*drained.conn->sock, slices, 1, !small, &sent);
                for (size_t at = got; at < size; at += sent)
                    os.socket_send_file(*drained.conn->sock, descriptor, static_cast<int64_t>(at), size - at, &sent);
                os.file_close(descriptor);
            },
            "<= 1.15");
        remove(path.c_str());
    }
}

}  // namespace

int main(int argc, char **argv) {
    cm::bench::Rows rows(argc, argv);
    Drained drained;
    if (drained.conn == nullptr) return 1;
    chunked(rows, drained);
    files(rows, drained);
    compressed(rows, drained);
    return rows.failures();
}
