// The program that tests start as a child; support.h tells its arguments.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "platform/platform.h"

using cm::platform::kSystem;

namespace {

FILE *out = stdout;

int print_words(int count, char **words) {
    for (int i = 0; i < count; i++) fprintf(out, "[%s]\n", words[i]);
    return 0;
}

int echo() {
    char buffer[4096];
    size_t got = 0, written = 0;
    while (kSystem.file_read(0, buffer, sizeof buffer, &got) == 0 && got > 0)
        kSystem.file_write(1, buffer, got, &written);
    return 0;
}

// Handles that came from the parent are the inheritable ones where the system has such a mark.
int count_inherited(int (*handle_information)(void *handle, unsigned long *flags)) {
    int count = 0;
    for (uintptr_t handle = 4; handle < 4096; handle += 4) {
        unsigned long flags = 0;
        count += handle_information(reinterpret_cast<void *>(handle), &flags) != 0 && (flags & 1) != 0;
    }
    return count;
}

int count_descriptors() {
    std::error_code none;
    int count = -1;  // one is the listing's own
    for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd", none)) count += !entry.path().empty();
    return count;
}

int print_descriptors() {
    void *kernel = kSystem.library_open("kernel32.dll");
    void *symbol = kernel == nullptr ? nullptr : kSystem.library_symbol(kernel, "GetHandleInformation");
    fprintf(out, "%d\n",
            symbol == nullptr ? count_descriptors()
                              : count_inherited(reinterpret_cast<int (*)(void *, unsigned long *)>(symbol)));
    return 0;
}

int print_signals() {
    std::ifstream status("/proc/self/status");
    std::string field, mask;
    unsigned long long odd = 0;
    while (!cm::platform::kFoldsPathCase && status >> field)
        if ((field == "SigBlk:" || field == "SigIgn:") && status >> mask)
            odd |= strtoull(mask.c_str(), nullptr, 16) & 0x7FFFFFFF;  // without those of the C library
    return fprintf(out, odd == 0 ? "default\n" : "%llx\n", odd) < 0;
}

int hold(int port) {
    const unsigned char loopback[4] = {127, 0, 0, 1};
    uint32_t address;
    memcpy(&address, loopback, sizeof address);
    cm_socket socket = cm::platform::kNoSocket;
    kSystem.network_start();
    if (kSystem.socket_open(cm::platform::SocketKind::kStream, &socket) != 0) return 1;
    if (kSystem.socket_connect(socket, address, port) != 0) return 1;
    std::this_thread::sleep_for(std::chrono::seconds(60));
    return 0;
}

int start(int count, char **words) {
    std::string command;
    for (int i = 0; i < count; i++) command += std::string(words[i]) + " ";
    constexpr int32_t kOwn[3] = {0, 1, 2};
    cm::platform::Process *process = nullptr;
    int32_t code = 1;
    if (kSystem.process_start(command.c_str(), nullptr, kOwn, &process) == 0)
        kSystem.process_wait(process, cm::platform::kForever, &code);
    return code;
}

}  // namespace

int main(int count, char **words) {
    if (count > 1 && strcmp(words[1], "errors") == 0) {
        out = stderr;
        words[1] = words[0];
        words++;
        count--;
    }
    const std::string what = count > 1 ? words[1] : "";
    const char *argument = count > 2 ? words[2] : "";
    if (what == "print") return print_words(count - 2, words + 2);
    if (what == "exit") return atoi(argument);
    if (what == "echo") return echo();
    if (what == "error") return fprintf(stderr, "%s", argument) < 0;
    if (what == "folder") return fprintf(out, "%s\n", std::filesystem::current_path().generic_string().c_str()) < 0;
    if (what == "descriptors") return print_descriptors();
    if (what == "signals") return print_signals();
    if (what == "hold") return hold(atoi(argument));
    if (what == "nest") return system((std::string(words[0]) + " hold " + argument).c_str());
    if (what == "start") return start(count - 2, words + 2);
    return 99;
}
