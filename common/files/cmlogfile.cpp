// Log files as files: opening with the last generation kept, rotating, and copying another file into the log.
#include <string.h>

#include <algorithm>
#include <string_view>

#include "core/cmerror.h"
#include "core/cmstring.h"
#include "core/cmthread.h"
#include "core/relaxed.h"
#include "files/cmfile.h"
#include "platform/platform.h"

namespace cm::files {

using platform::FileStatus;
using platform::os;

namespace {

constexpr int32_t kPathSize = 1024;
constexpr int32_t kFreshLog = CM_O_RDWR | CM_O_CREAT | CM_O_TRUNC | CM_O_BINARY;
constexpr int32_t kStamp = 2;  // mode of the line writer: date in front, gathered

bool exists(const char *path) {
    FileStatus status;
    return os.path_status(path, false, &status) == 0;
}

// Moves an existing log out of the way of a fresh one.
void keep_last_generation(const char *path, int32_t length) {
    // Without a log the older generation stays: a rename that finds nothing to move still removes its target.
    if (!exists(path)) return;
    char old_path[kPathSize];
    memcpy(old_path, path, static_cast<size_t>(length) + 1);
    memcpy(old_path + length - 3, "old", 3);
    cm_rename(path, old_path);
}

struct Rotation {
    char path[kPathSize];
    char old_path[kPathSize];
    bool keeps_old;
    bool renamed = false;
    bool complete = true;
};

// Under the log's mutex.  Lines that wait in the buffer stay there, for the new file.
bool rotate(cm_file *file, Rotation &rotation) {
    if (load_relaxed(file->open_mark) == 0) return false;
    store_relaxed(file->open_mark, 0);
    os.file_close(file->descriptor);
    file->descriptor = -1;
    int32_t flags = kFreshLog;
    if (rotation.keeps_old && exists(rotation.path)) {
        rotation.renamed = cm_rename(rotation.path, rotation.old_path) != 0;
        if (!rotation.renamed) {
            // The log that could not be moved goes on: emptying it would lose it.
            rotation.complete = false;
            flags &= ~CM_O_TRUNC;
        }
    }
    if (os.file_open(rotation.path, flags, &file->descriptor) != 0) {
        file->descriptor = -1;
        report(file->ctx, CM_ERROR, "File open of '%s' failed.", rotation.path);
        return false;
    }
    int64_t position = 0;
    if (!rotation.complete) os.file_seek(file->descriptor, 0, CM_SEEK_END, &position);
    file->lines = 0;
    file->available = file->read_offset = 0;
    store_relaxed(file->open_mark, 1);
    return true;
}

}  // namespace
}  // namespace cm::files

using namespace cm;
using namespace cm::files;

int16_t cm_fopenl(cm_context *ctx, const char *name, int32_t open_flags, cm_file **out_file) {
    if (out_file != nullptr) *out_file = nullptr;
    if (ctx == nullptr || name == nullptr || out_file == nullptr) return 0;
    char path[kPathSize];
    int32_t length = 0;
    if (cm_build_path(ctx, ctx->log_dir, name, path, sizeof path, &length) == 0) return 0;
    const std::string_view text(name);
    if (text.size() >= 5 && ends_folded(text, ".log") && open_flags != kAppendLog) keep_last_generation(path, length);
    return cm_fopen(ctx, path, open_flags, out_file);
}

int16_t cm_lrotate(cm_file *file, cm_mutex *mutex, const char *name, const char *old_name, int16_t compress) {
    if (file == nullptr || name == nullptr || file->kind != kSystemFile || load_relaxed(file->open_mark) == 0) return 0;
    cm_context *ctx = file->ctx;
    if (ctx == nullptr) return 0;
    Rotation rotation;
    rotation.keeps_old = old_name != nullptr;
    if (cm_build_path(ctx, ctx->log_dir, name, rotation.path, sizeof rotation.path, nullptr) == 0) return 0;
    if (rotation.keeps_old &&
        cm_build_path(ctx, ctx->log_dir, old_name, rotation.old_path, sizeof rotation.old_path, nullptr) == 0)
        return 0;
    if (mutex != nullptr && cm_take_mutex(mutex) == 0) return 0;
    const bool reopened = rotate(file, rotation);
    if (mutex != nullptr) cm_release_mutex(mutex);
    if (!reopened) return 0;
    if (!rotation.complete) {
        report(ctx, CM_ERROR, "cm_lrotate() Rename of '%s' to '%s' failed.", rotation.path, rotation.old_path);
        return 0;
    }
    return compress == 0 || !rotation.renamed ? 1 : cm_zlib_gzip(ctx, rotation.old_path);
}

void cm_logfile(cm_context *ctx, const char *heading, const char *path) {
    if (ctx == nullptr || path == nullptr) return;
    if (heading == nullptr) heading = "";
    cm_file *log = load_relaxed(ctx->log_file);
    if (log == nullptr) {
        char line[kMessageSize];
        const int32_t length = cm_snprintf(line, sizeof line, "Tilvar Server Error: %s [file: %s]\n", heading, path);
        os.write_standard_error(line, static_cast<size_t>(length));
        return;
    }
    FileCloser file;
    if (cm_fopen(ctx, path, kReadSequentialBinary, file.out()) == 0) return;
    // A file that grows meanwhile (the log itself does) ends where it ended when it was opened.
    FileStatus status;
    uint64_t left = UINT64_MAX;
    if (os.file_status(file.get()->descriptor, &status) == 0 && status.size > 0) left = status.size;
    cm_lwrite(log, heading, CM_LEN_TEXT, ctx->log_size, ctx->log_mutex, kStamp);
    // Kept: the line writer cuts each full piece to its longest line and ends it, so the copy is a digest of the file.
    char piece[kBufferSize];
    int32_t got = 0;
    do {
        const int32_t wanted = static_cast<int32_t>(std::min<uint64_t>(left, kBufferSize));
        if (cm_fread(file.get(), piece, wanted, &got) == 0 || got == 0) break;
        cm_lwrite(log, piece, got, ctx->log_size, ctx->log_mutex, 0);
        left -= static_cast<uint64_t>(got);
    } while (got == kBufferSize);
}
