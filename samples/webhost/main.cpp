// A small web server on the library's public header alone:
//
//     webhost [port [folder [address]]]
//
// serves the files of `folder` (default: "site" below the install root, which TVHOME names) on `address` (127.0.0.1)
// and `port` (8080; 0 takes a free one), until it gets SIGINT or SIGTERM.  Settings come from config/config.ini below
// the root, section "common".  main.cpp starts and stops it, serve.cpp runs one connection, request.cpp takes requests
// apart, reply.cpp answers them.
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "host.h"

using webhost::Host;

namespace {

constexpr int kBacklog = 511;
constexpr int kReadTimeout = 15;  // seconds; each connection sets its own before it reads

std::atomic<int> stop_wanted{0};  // lock-free, so that a signal handler may set it

extern "C" void on_stop_signal(int) {
    stop_wanted = 1;
}

void pause_ms(int milliseconds) {
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

// A signal handler may do next to nothing, so it only leaves a mark, and this thread looks for it.  It also puts the
// access log on the disk once a second.
struct Watch {
    Host &host;
    std::atomic<bool> loop_ended{false}, done{false};
};

int16_t CM_CALL watch_for_stop(cm_thread *, cm_value argument) {
    Watch &watch = *reinterpret_cast<Watch *>(argument);
    for (int round = 1; stop_wanted == 0 && !watch.loop_ended; round++) {
        pause_ms(50);
        if (round % 20 == 0) watch.host.log.flush();
    }
    cm_net_shutdown(watch.host.net);  // makes cm_net_poll return
    watch.done = true;
    return 1;
}

struct Options {
    int port = 8080;
    const char *folder = nullptr;
    const char *address = "127.0.0.1";
};

bool parse_options(int argc, char **argv, Options *options) {
    if (argc > 4) return false;
    if (argc > 1) {
        char *end = nullptr;
        const long port = strtol(argv[1], &end, 10);
        if (end == argv[1] || *end != '\0' || port < 0 || port > 65535) return false;
        options->port = static_cast<int>(port);
    }
    if (argc > 2) options->folder = argv[2];
    if (argc > 3) options->address = argv[3];
    return true;
}

bool find_folder(Host &host, const char *folder) {
    if (folder != nullptr) {
        host.folder = folder;
    } else {
        char path[1024];
        int32_t length = 0;
        if (cm_build_path(host.ctx, "site", "", path, sizeof path, &length) == 0) return false;
        host.folder.assign(path, static_cast<size_t>(length));
    }
    while (host.folder.size() > 1 && host.folder.back() == '/') host.folder.pop_back();
    return cm_isdirectory(host.folder.c_str()) != 0;
}

// Runs until a signal comes.
bool run(Host &host, const Options &options) {
    cm_conn *listener = nullptr;
    if (cm_net_listen(host.net, options.address, options.port, kBacklog, kReadTimeout, 0, &listener) == 0) {
        fprintf(stderr, "webhost: cannot listen on %s port %d\n", options.address, options.port);
        return false;
    }
    Watch watch{host};
    cm_thread *thread = nullptr;
    if (cm_create_thread(host.ctx, watch_for_stop, reinterpret_cast<cm_value>(&watch), "Watch", &thread) == 0)
        return false;

    printf("Listening on http://%s:%u/ serving %s (stop: Ctrl+C)\n", listener->peer_text, listener->peer_port,
           host.folder.c_str());
    fflush(stdout);

    cm_poll_entry entry = {webhost::serve_connection, listener, reinterpret_cast<cm_value>(&host), "Web"};
    // A signal that came before the loop began is no failure, although the loop then refuses to begin.
    const bool ended_well = cm_net_poll(host.net, &entry, 1) != 0 || stop_wanted != 0;
    watch.loop_ended = true;
    while (!watch.done) pause_ms(5);
    return ended_well;
}

void stop_network(Host &host) {
    cm_net_cancel(host.net);    // replies under way get one and a half seconds
    cm_net_closeall(host.net);  // brings back every handler that still waits for its client
    for (int i = 0; i < 200 && host.connections > 0; i++) pause_ms(5);
    cm_net_exit(host.net);
}

}  // namespace

int main(int argc, char **argv) {
    Options options;
    if (!parse_options(argc, argv, &options)) {
        fprintf(stderr, "usage: webhost [port [folder [address]]]\n");
        return 2;
    }
    signal(SIGINT, on_stop_signal);
    signal(SIGTERM, on_stop_signal);

    Host host;
    int32_t already = 0;
    if (cm_ctx_init(&host.ctx, nullptr, "webhost.log", 1, &already) == 0) return 1;
    bool good = false;
    if (!find_folder(host, options.folder)) {
        fprintf(stderr, "webhost: no such folder: %s\n", host.folder.c_str());
    } else if (!host.log.open(host.ctx, "access.log")) {
        fprintf(stderr, "webhost: cannot open access.log\n");
    } else if (cm_net_init(host.ctx, 0, &host.net) != 0) {
        good = run(host, options);
        stop_network(host);
    }
    host.log.close();
    cm_ctx_exit(host.ctx);
    return good ? 0 : 1;
}
