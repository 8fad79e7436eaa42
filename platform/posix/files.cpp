#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "posix.h"

namespace cm::platform::system {

using posix::error_number;
using posix::repeat;
using posix::result_error;

namespace {

constexpr size_t kMostAtOnce = 0x40000000;  // the system moves a little less than 2 GiB per call

// A path without its one trailing separator.  Only then is it copied; null: too long.
class Path {
public:
    explicit Path(const char *path) : text_(path) {
        const size_t length = strlen(path);
        if (length < 2 || path[length - 1] != '/') return;
        if (length > sizeof copy_) {
            text_ = nullptr;
            return;
        }
        memcpy(copy_, path, length - 1);
        copy_[length - 1] = '\0';
        text_ = copy_;
    }
    Path(const Path &) = delete;
    Path &operator=(const Path &) = delete;

    const char *text() const { return text_; }

private:
    const char *text_;
    char copy_[PATH_MAX];
};

// The error of a call that takes a path and gives 0 or -1.
template <class Call>
Error with_path(const char *path, Call call) {
    const Path trimmed(path);
    if (trimmed.text() == nullptr) return ENAMETOOLONG;
    return result_error(repeat([&] { return call(trimmed.text()); }));
}

FileType type_of(mode_t mode) {
    if (S_ISREG(mode)) return FileType::kRegular;
    if (S_ISDIR(mode)) return FileType::kDirectory;
    if (S_ISCHR(mode)) return FileType::kCharacterDevice;
    return S_ISLNK(mode) ? FileType::kLink : FileType::kOther;
}

void fill_status(const struct stat &from, FileStatus *out) {
    out->type = type_of(from.st_mode);
    out->mode = from.st_mode & (kModeTypeMask | 0777);
    out->links = static_cast<uint32_t>(from.st_nlink);
    out->device = from.st_dev;
    out->index = from.st_ino;
    out->size = static_cast<uint64_t>(from.st_size);
    out->mtime = from.st_mtim.tv_sec;
    out->ctime = from.st_ctim.tv_sec;
    out->atime = from.st_atim.tv_sec;
    out->mtime_ns = static_cast<int32_t>(from.st_mtim.tv_nsec);
}

int system_flags(int32_t flags) {
    static_assert(CM_O_RDONLY == O_RDONLY && CM_O_WRONLY == O_WRONLY && CM_O_RDWR == O_RDWR);
    // Not blocking: a FIFO without a peer would hold the caller up before its type is known.
    int out = (flags & (CM_O_WRONLY | CM_O_RDWR)) | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
    if ((flags & CM_O_APPEND) != 0) out |= O_APPEND;
    if ((flags & CM_O_CREAT) != 0) out |= O_CREAT;
    if ((flags & CM_O_TRUNC) != 0) out |= O_TRUNC;
    if ((flags & CM_O_EXCL) != 0) out |= O_EXCL;
    if ((flags & kOpenNoFollow) != 0) out |= O_NOFOLLOW;
    return out;
}

// Refuses what is neither a file nor a character device.
Error check_opened(int descriptor) {
    struct stat status;
    if (fstat(descriptor, &status) != 0) return error_number(errno);
    if (S_ISREG(status.st_mode)) return 0;  // for which "not blocking" means nothing and may stay
    if (S_ISDIR(status.st_mode)) return EISDIR;
    if (!S_ISCHR(status.st_mode)) return ENXIO;
    const int flags = fcntl(descriptor, F_GETFL);
    return flags == -1 ? error_number(errno) : result_error(fcntl(descriptor, F_SETFL, flags & ~O_NONBLOCK));
}

}  // namespace

// ---- open files -----------------------------------------------------------------------------------------------------

Error file_open(const char *path, int32_t flags, int32_t *out_descriptor) {
    const Path trimmed(path);
    if (trimmed.text() == nullptr) return ENAMETOOLONG;
    const mode_t mode = (flags & kOpenOwnerOnly) != 0 ? 0600 : 0666;
    const int descriptor = repeat([&] { return open(trimmed.text(), system_flags(flags), mode); });
    if (descriptor == -1) return error_number(errno);
    if (const Error error = check_opened(descriptor)) {
        close(descriptor);
        return error;
    }
    *out_descriptor = descriptor;
    return 0;
}

// Never repeated: the number is free even when the call was interrupted, and may be another thread's by now.
Error file_close(int32_t descriptor) {
    return close(descriptor) == 0 || errno == EINTR ? 0 : error_number(errno);
}

Error file_read(int32_t descriptor, void *buffer, size_t count, size_t *out_got) {
    const ssize_t got = repeat([&] { return read(descriptor, buffer, std::min(count, kMostAtOnce)); });
    if (got == -1) return error_number(errno);
    *out_got = static_cast<size_t>(got);
    return 0;
}

Error file_write(int32_t descriptor, const void *data, size_t count, size_t *out_written) {
    const char *from = static_cast<const char *>(data);
    size_t done = 0;
    Error error = 0;
    while (done < count) {
        const ssize_t wrote =
            repeat([&] { return write(descriptor, from + done, std::min(count - done, kMostAtOnce)); });
        if (wrote <= 0) {
            error = wrote == 0 ? EIO : error_number(errno);
            break;
        }
        done += static_cast<size_t>(wrote);
    }
    *out_written = done;
    return error;
}

Error file_seek(int32_t descriptor, int64_t offset, int32_t whence, int64_t *out_position) {
    static_assert(CM_SEEK_START == SEEK_SET && CM_SEEK_CURRENT == SEEK_CUR && CM_SEEK_END == SEEK_END);
    const off_t position = lseek(descriptor, offset, whence);
    if (position == -1) return error_number(errno);
    *out_position = position;
    return 0;
}

Error file_resize(int32_t descriptor, int64_t size) {
    return result_error(repeat([&] { return ftruncate(descriptor, size); }));
}

Error file_sync(int32_t descriptor) {
    return result_error(repeat([&] { return fsync(descriptor); }));
}

Error file_status(int32_t descriptor, FileStatus *out) {
    struct stat status;
    if (fstat(descriptor, &status) != 0) return error_number(errno);
    fill_status(status, out);
    return 0;
}

// ---- paths ----------------------------------------------------------------------------------------------------------

Error path_status(const char *path, bool follow, FileStatus *out) {
    struct stat status;
    const Error error = with_path(path, [&](const char *p) { return follow ? stat(p, &status) : lstat(p, &status); });
    if (error == 0) fill_status(status, out);
    return error;
}

Error path_access(const char *path, int32_t mode) {
    static_assert(CM_ACCESS_EXISTS == F_OK && CM_ACCESS_WRITE == W_OK && CM_ACCESS_READ == R_OK);
    // With the rights that an open would have, also in a server that changed its user.
    return with_path(path, [&](const char *p) { return faccessat(AT_FDCWD, p, mode, AT_EACCESS); });
}

Error path_set_mode(const char *path, uint32_t mode) {
    return with_path(path, [&](const char *p) { return fchmodat(AT_FDCWD, p, mode & 0777, AT_SYMLINK_NOFOLLOW); });
}

Error path_rename(const char *from, const char *to) {
    const Path target(to);
    if (target.text() == nullptr) return ENAMETOOLONG;
    return with_path(from, [&](const char *p) { return rename(p, target.text()); });
}

Error path_link(const char *from, const char *to) {
    const Path target(to);
    if (target.text() == nullptr) return ENAMETOOLONG;
    return with_path(from, [&](const char *p) { return link(p, target.text()); });
}

Error path_remove(const char *path) {
    return with_path(path, unlink);
}

// ---- directories ----------------------------------------------------------------------------------------------------

Error directory_create(const char *path) {
    return with_path(path, [](const char *p) { return mkdir(p, 0777); });
}

Error directory_remove(const char *path) {
    return with_path(path, rmdir);
}

Error directory_sync(const char *path) {
    const int descriptor = repeat([&] { return open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC); });
    if (descriptor == -1) return error_number(errno);
    Error error = result_error(repeat([&] { return fsync(descriptor); }));
    if (error == CM_EINVAL) error = 0;  // a file system that has no such thing
    close(descriptor);
    return error;
}

Error directory_open(const char *path, void **out_search) {
    posix::RegionGuard region;  // the C library allocates the listing
    DIR *search = opendir(path);
    if (search == nullptr) return error_number(errno);
    *out_search = search;
    return 0;
}

bool directory_next(void *search, char *out_name, size_t size) {
    while (const dirent *entry = readdir(static_cast<DIR *>(search))) {
        const size_t length = strlen(entry->d_name);
        if (length >= size) continue;
        memcpy(out_name, entry->d_name, length + 1);
        return true;
    }
    return false;
}

void directory_close(void *search) {
    posix::RegionGuard region;
    closedir(static_cast<DIR *>(search));
}

}  // namespace cm::platform::system
