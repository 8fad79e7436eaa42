// The FTP client beside libcurl, both in this process, against one vsftpd that stays for both.
//
// It needs vsftpd in the path, in /usr/sbin or unpacked (scripts/lib.sh, unpack).
#include <curl/curl.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "net/address.h"
#include "net/cmftp.h"
#include "platform/platform.h"
#include "ratio.h"
#include "tilvarcm.h"

using cm::platform::os;
using std::string;

namespace {

const char kFolder[] = "bench_ftp.files";
string url;  // of the server, with "/" at its end
cm_context *ctx;
cm_net_state *net;

void require(bool holds, const char *what) {
    if (holds) return;
    std::fprintf(stderr, "bench_ftp: %s\n", what);
    std::exit(2);
}

string path(const char *name) {
    return string(kFolder) + "/" + name;
}

void make_file(const char *name, size_t size) {
    FILE *file = fopen(path(name).c_str(), "wb");
    const string block(size < 65536 ? size : 65536, 'x');
    for (size_t done = 0; done < size; done += block.size()) fwrite(block.data(), 1, block.size(), file);
    fclose(file);
}

class Server {
public:
    Server() {
        cm_socket socket = cm::platform::kNoSocket;
        uint32_t address = 0;
        os.socket_open(cm::platform::SocketKind::kStream, &socket);
        cm::net::parse_dotted("127.0.0.1", &address);
        os.socket_bind(socket, address, 0);
        os.socket_local(socket, &address, &port_);
        os.socket_close(socket);
        char here[1024];
        require(os.working_directory(here, sizeof here), "no working directory");
        FILE *file = fopen(path("vsftpd.conf").c_str(), "w");
        fprintf(file,
                "listen=YES\nlisten_address=127.0.0.1\nlisten_port=%d\nbackground=NO\nrun_as_launching_user=YES\n"
                "anonymous_enable=YES\nlocal_enable=NO\nanon_root=%s/%s\nsecure_chroot_dir=%s/%s\nwrite_enable=YES\n"
                "anon_upload_enable=YES\nanon_other_write_enable=YES\nanon_world_readable_only=NO\n"
                "allow_writeable_chroot=YES\nseccomp_sandbox=NO\nisolate=NO\nisolate_network=NO\n",
                port_, here, kFolder, here, kFolder);
        fclose(file);
        const string command = string("vsftpd ") + here + "/" + path("vsftpd.conf");
        const int32_t none[3] = {-1, -1, -1};
        const string beside = string("build/unpacked/usr/sbin/") + command, system = "/usr/sbin/" + command;
        for (const string *one : {&command, &system, &beside})
            if (process_ == nullptr && os.process_start(one->c_str(), here, none, &process_) != 0) process_ = nullptr;
        require(process_ != nullptr, "vsftpd does not start");
        cm::ftp::server_port = port_;
        url = "ftp://127.0.0.1:" + std::to_string(port_) + "/";
        cm_ftp_session session;
        for (int i = 0; i < 500 && cm_ftp_connect(ctx, net, "127.0.0.1", "ftp", "x", 0, nullptr, &session) == 0; i++)
            os.sleep(10);
        cm_ftp_disconnect(&session);
    }
    ~Server() {
        int32_t code = 0;
        os.process_kill(process_);
        os.process_wait(process_, 10000, &code);
        os.process_release(process_);
    }

private:
    cm::platform::Process *process_ = nullptr;
    int32_t port_ = 0;
};

void transfer(const char *name, bool store) {
    cm_ftp_session session;
    require(cm_ftp_connect(ctx, net, "127.0.0.1", "ftp", "x", 0, nullptr, &session) == 1, "cannot log in");
    require((store ? cm_ftp_put(&session, path(name).c_str(), "stored")
                   : cm_ftp_get(&session, name, path("fetched").c_str())) == 1,
            "transfer failed");
    cm_ftp_disconnect(&session);
}

// As the command-line tool sets it up; a connection of its own each time.
void peer_transfer(const char *name, bool store) {
    CURL *curl = curl_easy_init();
    FILE *file = fopen(path(store ? name : "fetched").c_str(), store ? "rb" : "wb");
    curl_easy_setopt(curl, CURLOPT_URL, (url + (store ? "stored" : name)).c_str());
    curl_easy_setopt(curl, CURLOPT_BUFFERSIZE, 102400L);
    curl_easy_setopt(curl, store ? CURLOPT_READDATA : CURLOPT_WRITEDATA, file);
    curl_easy_setopt(curl, CURLOPT_UPLOAD, store ? 1L : 0L);
    const bool done = curl_easy_perform(curl) == CURLE_OK;
    curl_easy_cleanup(curl);
    fclose(file);
    require(done, "the peer's transfer failed");
}

}  // namespace

int main(int argc, char **argv) {
    cm::bench::Rows rows(argc, argv);
    curl_global_init(CURL_GLOBAL_DEFAULT);
    require(cm_ctx_init(&ctx, "bench_ftp.config", "bench_ftp.log", 1, nullptr) != 0 && cm_net_init(ctx, 0, &net) != 0,
            "the library does not start");
    cm_mkdir(kFolder);
    make_file("small", 1024);
    make_file("large", 64 << 20);
    {
        const Server server;
        rows.pair(
            "ftp, fetch 64 MB", 1, [] { transfer("large", false); }, [] { peer_transfer("large", false); }, "<= 1.2");
        rows.pair(
            "ftp, store 64 MB", 1, [] { transfer("large", true); }, [] { peer_transfer("large", true); }, "<= 1.2");
        rows.pair(
            "ftp, log in and fetch 1 KB", 1, [] { transfer("small", false); }, [] { peer_transfer("small", false); },
            "<= 1.0");
        rows.pair(
            "ftp, log in and store 1 KB", 1, [] { transfer("small", true); }, [] { peer_transfer("small", true); },
            "<= 1.0");
    }
    cm_rmdir(kFolder);
    cm_net_shutdown(net);
    cm_net_exit(net);
    cm_ctx_exit(ctx);
    cm_rmdir("bench_ftp.config");
    return rows.failures();
}
