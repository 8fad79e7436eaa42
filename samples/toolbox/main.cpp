// Network errands from the command line, on the library's public header alone:
//
//     toolbox resolve NAME_OR_ADDRESS...                   addresses of names, names of addresses
//     toolbox ping HOST...                                 mail exchangers, of the mxhosts file or the configured
//     server toolbox get ftp://[USER[:PASSWORD]@]HOST/PATH FILE   fetches a file toolbox put FILE
//     ftp://[USER[:PASSWORD]@]HOST/PATH   stores one, making the folders of the path
//
// TVHOME names the install root, whose config/config.ini has the settings (a name server, time-outs, ...); none is
// needed.  The exit code is 0 when everything worked, 1 when not, 2 for a wrong command line.
#include <tilvarcm.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

using std::string;

// The started library; stopped in reverse order at the end.
struct Host {
    cm_context *ctx = nullptr;
    cm_net_state *net = nullptr;

    bool start() {
        return cm_ctx_init(&ctx, nullptr, "toolbox.log", 1, nullptr) != 0 && cm_net_init(ctx, 0, &net) != 0;
    }
    ~Host() {
        if (net != nullptr) {
            cm_net_shutdown(net);
            cm_net_exit(net);
        }
        if (ctx != nullptr) cm_ctx_exit(ctx);
    }
    bool asks_server() const { return ctx->dns != nullptr && ctx->dns->primary != 0; }
};

// ---- names ----------------------------------------------------------------------------------------------------------

// Addresses are 32 bits in network order: the first byte is the first number.
bool parse_address(const char *text, uint32_t *out) {
    unsigned n[4];
    char end = 0;
    if (sscanf(text, "%3u.%3u.%3u.%3u%c", &n[0], &n[1], &n[2], &n[3], &end) != 4) return false;
    unsigned char bytes[4];
    for (int i = 0; i < 4; i++) {
        if (n[i] > 255) return false;
        bytes[i] = static_cast<unsigned char>(n[i]);
    }
    memcpy(out, bytes, sizeof bytes);
    return true;
}

string dotted(uint32_t address) {
    unsigned char b[4];
    memcpy(b, &address, sizeof b);
    char text[16];
    cm_snprintf(text, sizeof text, "%d.%d.%d.%d", b[0], b[1], b[2], b[3]);
    return text;
}

// Addresses are looked up in the system: the library's own question is for servers that know its order of the bytes.
bool resolve(Host &host, const char *what) {
    uint32_t address = 0;
    if (parse_address(what, &address)) {
        char name[CM_DNS_NAME];
        const bool found = cm_dns_gethostname(host.ctx, address, 0, 0, name) != 0;
        printf("%s: %s\n", what, found ? name : "no name");
        return found;
    }
    uint32_t found[4];
    if (cm_dns_gethostaddr(host.ctx, what, 0, host.asks_server(), &found[0], &found[1], &found[2], &found[3]) == 0) {
        printf("%s: not found\n", what);
        return false;
    }
    printf("%s:", what);
    for (const uint32_t one : found)
        if (one != CM_INADDR_NONE) printf(" %s", dotted(one).c_str());
    printf("\n");
    return true;
}

bool ping(Host &host, const char *whom) {
    constexpr int kSeconds = 4;
    int32_t milliseconds = 0;
    const bool answered = cm_net_ping(host.net, whom, kSeconds, &milliseconds) != 0;
    if (answered)
        printf("%s: %d ms\n", whom, milliseconds);
    else
        printf("%s: no answer\n", whom);
    return answered;
}

// ---- files ----------------------------------------------------------------------------------------------------------

struct Place {
    string user = "anonymous", password = "toolbox@localhost", host;
    std::vector<string> folders;
    string name;
};

// Users and passwords are taken as they stand; "@" in a password is part of it, since the last one counts.
bool parse_place(string url, Place *out) {
    if (url.rfind("ftp://", 0) != 0) return false;
    url.erase(0, 6);
    const size_t slash = url.find('/');
    if (slash == url.npos) return false;
    string host = url.substr(0, slash);
    if (const size_t at = host.rfind('@'); at != host.npos) {
        out->user = host.substr(0, at);
        if (const size_t colon = out->user.find(':'); colon != out->user.npos) {
            out->password = out->user.substr(colon + 1);
            out->user.resize(colon);
        }
        host.erase(0, at + 1);
    }
    out->host = host;
    for (size_t from = slash + 1, end; (end = url.find('/', from)) != url.npos; from = end + 1)
        if (end > from) out->folders.push_back(url.substr(from, end - from));
    out->name = url.substr(url.rfind('/') + 1);
    return !host.empty() && !out->name.empty();
}

void CM_CALL show(cm_context *, cm_value, const char *text) {
    fprintf(stderr, "toolbox: %s\n", text);
}

class Session {
public:
    explicit Session(Host &host) : host_(host) {}
    ~Session() { cm_ftp_disconnect(&session_); }
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;

    // Logs in and goes to the place's folder.  Making a folder that is there already fails, so only the step into it
    // tells.
    bool open(const Place &place, bool make_folders) {
        if (cm_ftp_connect(host_.ctx, host_.net, place.host.c_str(), place.user.c_str(), place.password.c_str(), 0,
                           show, &session_) == 0)
            return false;
        return std::all_of(place.folders.begin(), place.folders.end(), [&](const string &folder) {
            if (make_folders) cm_ftp_mkdir(&session_, folder.c_str(), 1);
            return cm_ftp_cwd(&session_, folder.c_str()) != 0;
        });
    }
    cm_ftp_session *get() { return &session_; }

private:
    Host &host_;
    cm_ftp_session session_{};
};

bool fetch(Host &host, const Place &from, const char *file) {
    Session session(host);
    return session.open(from, false) && cm_ftp_get(session.get(), from.name.c_str(), file) != 0;
}

bool store(Host &host, const char *file, const Place &to) {
    if (cm_isfile(host.ctx, file, 0) == 0) {
        fprintf(stderr, "toolbox: no such file: %s\n", file);
        return false;
    }
    Session session(host);
    return session.open(to, true) && cm_ftp_put(session.get(), file, to.name.c_str()) != 0;
}

int usage() {
    fprintf(stderr,
            "usage: toolbox resolve NAME_OR_ADDRESS...\n"
            "       toolbox ping HOST...\n"
            "       toolbox get ftp://[USER[:PASSWORD]@]HOST/PATH FILE\n"
            "       toolbox put FILE ftp://[USER[:PASSWORD]@]HOST/PATH\n");
    return 2;
}

}  // namespace

int main(int argc, char **argv) {
    const string command = argc > 2 ? argv[1] : "";
    const bool get = command == "get", put = command == "put";
    Place place;
    if (get || put) {
        if (argc != 4 || !parse_place(argv[get ? 2 : 3], &place)) return usage();
    } else if (command != "resolve" && command != "ping") {
        return usage();
    }
    Host host;
    if (!host.start()) return 1;
    if (get) return fetch(host, place, argv[3]) ? 0 : 1;
    if (put) return store(host, argv[2], place) ? 0 : 1;
    bool good = true;
    for (int i = 2; i < argc; i++) good &= command == "ping" ? ping(host, argv[i]) : resolve(host, argv[i]);
    return good ? 0 : 1;
}
