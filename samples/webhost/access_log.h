// The access log: one line per request in the "combined" format.
#pragma once

#include <cstdint>
#include <string_view>

#include "request.h"
#include "tilvarcm.h"

namespace webhost {

// Lines of all threads go through the one buffer of the log file, under its mutex; they reach the disk when the buffer
// is full, when `flush` is called, and when the log is closed.
class AccessLog {
public:
    AccessLog() = default;
    AccessLog(const AccessLog &) = delete;
    AccessLog &operator=(const AccessLog &) = delete;
    ~AccessLog() { close(); }

    bool open(cm_context *ctx, const char *name);
    void write(const cm_conn *conn, const Request &request, int status, uint64_t body_bytes);
    void flush();
    void close();

private:
    cm_file *file_ = nullptr;
    cm_mutex *mutex_ = nullptr;
};

}  // namespace webhost
