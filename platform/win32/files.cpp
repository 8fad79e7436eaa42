// Files, paths and directories.  A descriptor is one of the C run-time's, which only keeps the handle: reads, writes
// and seeks go to the system.  Every open shares reading, writing and deletion.
#include "win32.h"

#include <fcntl.h>
#include <io.h>

namespace cm::platform::system {

using namespace win32;

namespace {

constexpr int64_t kEpoch = 116444736000000000;
constexpr int64_t kReplaceMs = 3000;  // scanners, indexers and readers hold a file for a moment
constexpr DWORD kReplaceTriesAtOnce = 64, kReplacePause = 25;

constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
constexpr DWORD kThatItself = FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT;  // a folder or a link, too

HANDLE handle_of(int32_t descriptor) {
    return reinterpret_cast<HANDLE>(_get_osfhandle(descriptor));
}

int64_t units_of(const FILETIME &time) {
    return ((static_cast<int64_t>(time.dwHighDateTime) << 32) | time.dwLowDateTime) - kEpoch;
}

int64_t seconds_of(const FILETIME &time) {
    const int64_t units = units_of(time);
    return units < 0 ? 0 : units / 10000000;
}

bool is_program(const wchar_t *path) {
    const wchar_t *dot = path == nullptr ? nullptr : wcsrchr(path, L'.');
    if (dot == nullptr) return false;
    constexpr const wchar_t *kEndings[] = {L".exe", L".com", L".bat", L".cmd"};
    for (const wchar_t *ending : kEndings)
        if (_wcsicmp(dot, ending) == 0) return true;
    return false;
}

Error describe(HANDLE handle, const wchar_t *path, FileStatus *out) {
    const DWORD kind = GetFileType(handle);
    *out = {};
    if (kind == FILE_TYPE_CHAR || kind == FILE_TYPE_PIPE) {
        out->type = kind == FILE_TYPE_CHAR ? FileType::kCharacterDevice : FileType::kOther;
        out->mode = kind == FILE_TYPE_CHAR ? kModeCharacter | 0666 : 0666;
        return 0;
    }
    BY_HANDLE_FILE_INFORMATION info;
    if (!GetFileInformationByHandle(handle, &info)) return last_error();
    const uint32_t permissions = (info.dwFileAttributes & FILE_ATTRIBUTE_READONLY) != 0 ? 0444 : 0666;
    if ((info.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) {
        out->type = FileType::kLink;
        out->mode = permissions;
    } else if ((info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
        out->type = FileType::kDirectory;
        out->mode = kModeDirectory | 0777;
    } else {
        out->type = FileType::kRegular;
        out->mode = kModeRegular | permissions | (is_program(path) ? 0111 : 0);
    }
    out->links = info.nNumberOfLinks;
    out->device = info.dwVolumeSerialNumber;
    out->index = (static_cast<uint64_t>(info.nFileIndexHigh) << 32) | info.nFileIndexLow;
    out->size = (static_cast<uint64_t>(info.nFileSizeHigh) << 32) | info.nFileSizeLow;
    out->mtime = seconds_of(info.ftLastWriteTime);
    out->ctime = seconds_of(info.ftCreationTime);
    out->atime = seconds_of(info.ftLastAccessTime);
    out->mtime_ns = static_cast<int32_t>(units_of(info.ftLastWriteTime) % 10000000 * 100);
    return 0;
}

DWORD access_of(int32_t flags) {
    const bool append = (flags & CM_O_APPEND) != 0;
    const DWORD write = append ? FILE_APPEND_DATA | FILE_WRITE_ATTRIBUTES | SYNCHRONIZE : GENERIC_WRITE;
    switch (flags & 3) {
        case CM_O_WRONLY:
            return write;
        case CM_O_RDWR:
            return GENERIC_READ | write;
        default:
            return GENERIC_READ;
    }
}

DWORD disposition_of(int32_t flags) {
    const bool create = (flags & CM_O_CREAT) != 0, truncate = (flags & CM_O_TRUNC) != 0;
    if (create && (flags & CM_O_EXCL) != 0) return CREATE_NEW;
    if (create)
        return OPEN_ALWAYS;  // cut afterwards: CREATE_ALWAYS would fail for hidden files and lose their attributes
    return truncate ? TRUNCATE_EXISTING : OPEN_EXISTING;
}

Error check_opened(HANDLE handle, const wchar_t *path, int32_t flags) {
    FileStatus status;
    if (const Error error = describe(handle, path, &status); error != 0) return error;
    if (status.type == FileType::kDirectory) return kIsDirectory;
    if (status.type == FileType::kLink && (flags & kOpenNoFollow) != 0) return CM_EINVAL;
    if (status.type == FileType::kOther) return CM_EINVAL;
    if ((flags & CM_O_TRUNC) != 0 && (flags & 3) != CM_O_RDONLY && status.size > 0 && !SetEndOfFile(handle))
        return last_error();
    return 0;
}

bool is_held_by_another(DWORD code) {
    return code == ERROR_SHARING_VIOLATION || code == ERROR_ACCESS_DENIED || code == ERROR_LOCK_VIOLATION;
}

}  // namespace

Error file_open(const char *path, int32_t flags, int32_t *out_descriptor) {
    const WidePath wide(path);
    if (!wide) return last_error();
    DWORD attributes = FILE_ATTRIBUTE_NORMAL;
    if ((flags & CM_O_SEQ) != 0) attributes |= FILE_FLAG_SEQUENTIAL_SCAN;
    if ((flags & kOpenNoFollow) != 0) attributes |= FILE_FLAG_OPEN_REPARSE_POINT;
    const HANDLE handle =
        CreateFileW(wide.get(), access_of(flags), kShareAll, nullptr, disposition_of(flags), attributes, nullptr);
    if (handle == INVALID_HANDLE_VALUE) {
        const DWORD code = GetLastError();
        const DWORD found = code == ERROR_ACCESS_DENIED ? GetFileAttributesW(wide.get()) : INVALID_FILE_ATTRIBUTES;
        return found != INVALID_FILE_ATTRIBUTES && (found & FILE_ATTRIBUTE_DIRECTORY) != 0 ? kIsDirectory
                                                                                           : map_error(code);
    }
    Error error = check_opened(handle, wide.get(), flags);
    const int descriptor =
        error == 0 ? _open_osfhandle(reinterpret_cast<intptr_t>(handle), _O_NOINHERIT | _O_BINARY) : -1;
    if (error == 0 && descriptor < 0) error = CM_EMFILE;
    if (error != 0) {
        CloseHandle(handle);
        return error;
    }
    *out_descriptor = descriptor;
    return 0;
}

Error file_close(int32_t descriptor) {
    return _close(descriptor) == 0 ? 0 : last_error();
}

Error file_read(int32_t descriptor, void *buffer, size_t count, size_t *out_got) {
    DWORD got = 0;
    const DWORD asked = count > INT32_MAX ? INT32_MAX : static_cast<DWORD>(count);
    if (!ReadFile(handle_of(descriptor), buffer, asked, &got, nullptr)) {
        const DWORD code = GetLastError();
        if (code != ERROR_HANDLE_EOF && code != ERROR_BROKEN_PIPE) return map_error(code);
    }
    *out_got = got;
    return 0;
}

Error file_write(int32_t descriptor, const void *data, size_t count, size_t *out_written) {
    const char *next = static_cast<const char *>(data);
    *out_written = 0;
    while (*out_written < count) {
        DWORD written = 0;
        const size_t left = count - *out_written;
        const DWORD piece = left > INT32_MAX ? INT32_MAX : static_cast<DWORD>(left);
        if (!WriteFile(handle_of(descriptor), next, piece, &written, nullptr)) return last_error();
        if (written == 0) return kNoSpace;
        next += written;
        *out_written += written;
    }
    return 0;
}

Error file_seek(int32_t descriptor, int64_t offset, int32_t whence, int64_t *out_position) {
    LARGE_INTEGER distance, position;
    distance.QuadPart = offset;
    const DWORD method = whence == CM_SEEK_START ? FILE_BEGIN : whence == CM_SEEK_CURRENT ? FILE_CURRENT : FILE_END;
    if (!SetFilePointerEx(handle_of(descriptor), distance, &position, method)) return last_error();
    if (out_position != nullptr) *out_position = position.QuadPart;
    return 0;
}

Error file_resize(int32_t descriptor, int64_t size) {
    FILE_END_OF_FILE_INFO end;
    end.EndOfFile.QuadPart = size;
    return SetFileInformationByHandle(handle_of(descriptor), FileEndOfFileInfo, &end, sizeof end) ? 0 : last_error();
}

Error file_sync(int32_t descriptor) {
    return FlushFileBuffers(handle_of(descriptor)) ? 0 : last_error();
}

Error file_status(int32_t descriptor, FileStatus *out) {
    return describe(handle_of(descriptor), nullptr, out);
}

Error path_status(const char *path, bool follow, FileStatus *out) {
    const WidePath wide(path);
    if (!wide) return last_error();
    const DWORD flags = FILE_FLAG_BACKUP_SEMANTICS | (follow ? 0 : FILE_FLAG_OPEN_REPARSE_POINT);
    const HANDLE handle =
        CreateFileW(wide.get(), FILE_READ_ATTRIBUTES, kShareAll, nullptr, OPEN_EXISTING, flags, nullptr);
    if (handle == INVALID_HANDLE_VALUE) return last_error();
    const Error error = describe(handle, wide.get(), out);
    CloseHandle(handle);
    return error;
}

Error path_access(const char *path, int32_t mode) {
    const WidePath wide(path);
    if (!wide) return last_error();
    const DWORD attributes = GetFileAttributesW(wide.get());
    if (attributes == INVALID_FILE_ATTRIBUTES) return last_error();
    const bool read_only = (attributes & FILE_ATTRIBUTE_READONLY) != 0 && (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0;
    return (mode & CM_ACCESS_WRITE) != 0 && read_only ? CM_EACCES : 0;
}

// The one permission that the system has is "read only".
Error path_set_mode(const char *path, uint32_t mode) {
    const WidePath wide(path);
    if (!wide) return last_error();
    const DWORD attributes = GetFileAttributesW(wide.get());
    if (attributes == INVALID_FILE_ATTRIBUTES) return last_error();
    const DWORD wanted = (mode & 0200) != 0 ? attributes & ~static_cast<DWORD>(FILE_ATTRIBUTE_READONLY)
                                            : attributes | FILE_ATTRIBUTE_READONLY;
    return wanted == attributes || SetFileAttributesW(wide.get(), wanted) ? 0 : last_error();
}

namespace {

// A rename as newer systems have it: what is open keeps the old file, the name is the new one's at once.  False also
// where there is no such thing.
bool replace_while_open(const WidePath &from, const WidePath &to) {
    struct Rename {  // FILE_RENAME_INFO, whose flags older headers do not have
        DWORD flags;
        HANDLE root;
        DWORD bytes;
        wchar_t name[1];
    };
    constexpr auto kRenameEx = static_cast<FILE_INFO_BY_HANDLE_CLASS>(22);
    constexpr DWORD kReplace = 1, kPosix = 2;
    const size_t bytes = wcslen(to.get()) * sizeof(wchar_t), size = sizeof(Rename) + bytes;
    WideBuffer room;
    auto *rename = reinterpret_cast<Rename *>(room.reserve(size / sizeof(wchar_t)));
    if (rename == nullptr) return false;
    *rename = {kReplace | kPosix, nullptr, static_cast<DWORD>(bytes), {}};
    memcpy(rename->name, to.get(), bytes);
    const HANDLE handle = CreateFileW(from.get(), DELETE | SYNCHRONIZE, kShareAll, nullptr, OPEN_EXISTING,
                                      kThatItself | FILE_FLAG_WRITE_THROUGH, nullptr);
    if (handle == INVALID_HANDLE_VALUE) return false;
    const bool done = SetFileInformationByHandle(handle, kRenameEx, rename, static_cast<DWORD>(size)) != 0;
    CloseHandle(handle);
    return done;
}

}  // namespace

// Replacing may fail while somebody else looks at either file, which passes.
Error path_rename(const char *from, const char *to) {
    const WidePath wide_from(from), wide_to(to);
    if (!wide_from || !wide_to) return last_error();
    constexpr DWORD kReplaceFlags = MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH;
    const int64_t end = monotonic_ms() + kReplaceMs;
    for (DWORD tries = 1;; tries++) {
        if (replace_while_open(wide_from, wide_to) || MoveFileExW(wide_from.get(), wide_to.get(), kReplaceFlags))
            return 0;
        const DWORD code = GetLastError();
        if (!is_held_by_another(code) || monotonic_ms() >= end) return map_error(code);
        const DWORD target = GetFileAttributesW(wide_to.get());
        if (target != INVALID_FILE_ATTRIBUTES && (target & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_READONLY)) != 0)
            return map_error(code);
        Sleep(tries < kReplaceTriesAtOnce ? 0 : kReplacePause);
    }
}

Error path_link(const char *from, const char *to) {
    const WidePath wide_from(from), wide_to(to);
    if (!wide_from || !wide_to) return last_error();
    return CreateHardLinkW(wide_to.get(), wide_from.get(), nullptr) ? 0 : last_error();
}

Error path_remove(const char *path) {
    const WidePath wide(path);
    if (!wide) return last_error();
    if (DeleteFileW(wide.get())) return 0;
    const DWORD code = GetLastError();
    const DWORD attributes = GetFileAttributesW(wide.get());
    // A link to a directory is a directory to the system, and goes without what it leads to.
    constexpr DWORD kDirectoryLink = FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT;
    if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & kDirectoryLink) == kDirectoryLink &&
        RemoveDirectoryW(wide.get()))
        return 0;
    return map_error(code);
}

Error directory_create(const char *path) {
    const WidePath wide(path);
    if (!wide) return last_error();
    return CreateDirectoryW(wide.get(), nullptr) ? 0 : last_error();
}

Error directory_remove(const char *path) {
    const WidePath wide(path);
    if (!wide) return last_error();
    return RemoveDirectoryW(wide.get()) ? 0 : last_error();
}

// The file system writes names through its own journal; there is no call for it.
Error directory_sync(const char *path) {
    return 0;
}

namespace {

struct Search {
    HANDLE handle;
    bool first;  // `found` holds an entry that was not handed out
    WIN32_FIND_DATAW found;
};

}  // namespace

Error directory_open(const char *path, void **out_search) {
    const WidePath wide(path);
    if (!wide) return last_error();
    const size_t length = wcslen(wide.get());
    auto *search = static_cast<Search *>(os.allocate(sizeof(Search)));
    auto *pattern = static_cast<wchar_t *>(os.allocate((length + 3) * sizeof(wchar_t)));
    Error error = search == nullptr || pattern == nullptr ? kNoMemory : 0;
    if (error == 0) {
        memcpy(pattern, wide.get(), length * sizeof(wchar_t));
        const bool ended = length > 0 && pattern[length - 1] == L'\\';
        wcscpy(pattern + length, ended ? L"*" : L"\\*");
        search->handle = FindFirstFileW(pattern, &search->found);
        search->first = true;
        if (search->handle == INVALID_HANDLE_VALUE) error = last_error();
    }
    os.release(pattern);
    if (error != 0) {
        os.release(search);
        return error;
    }
    *out_search = search;
    return 0;
}

bool directory_next(void *handle, char *out_name, size_t size) {
    auto *search = static_cast<Search *>(handle);
    for (;;) {
        if (!search->first && !FindNextFileW(search->handle, &search->found)) return false;
        search->first = false;
        if (narrow(search->found.cFileName, out_name, size)) return true;
    }
}

void directory_close(void *handle) {
    auto *search = static_cast<Search *>(handle);
    FindClose(search->handle);
    os.release(search);
}

}  // namespace cm::platform::system
