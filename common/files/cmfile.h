// Files inside the library: what other modules need beyond the public functions.
#pragma once

#include <string_view>

#include "platform/platform.h"
#include "tilvarcm.h"

namespace cm::files {

// Kinds of a handle.  A handle on the free list has kind 0.
constexpr int32_t kSystemFile = 1, kCachedFile = 2, kMemoryText = 3;

constexpr int32_t kBufferSize = 1024;  // bytes read at a time, and the room for lines waiting to be written

// Flag combinations that are compared as a whole.
constexpr int32_t kReadSequential = CM_O_RDONLY | CM_O_SEQ;
constexpr int32_t kReadSequentialBinary = CM_O_RDONLY | CM_O_SEQ | CM_O_BINARY;
constexpr int32_t kAppendLog = CM_O_RDWR | CM_O_APPEND | CM_O_CREAT;

// Whether the last component of a path, up to its first ".", is the name of a device of the Windows family: such a path
// is refused on every system, so that no server ever opens a device.
bool is_device_name(std::string_view path);

void fill_stat(const platform::FileStatus &status, cm_stat_rec *record);

// Closes a handle at the end of a scope.
class FileCloser {
public:
    explicit FileCloser(cm_file *file = nullptr) : file_(file) {}
    ~FileCloser() { close(); }
    FileCloser(const FileCloser &) = delete;
    FileCloser &operator=(const FileCloser &) = delete;

    cm_file *get() const { return file_; }
    cm_file **out() { return &file_; }
    bool close() {
        if (file_ == nullptr) return true;
        cm_file *file = file_;
        file_ = nullptr;
        return cm_fclose(file) != 0;
    }

private:
    cm_file *file_;
};

}  // namespace cm::files
