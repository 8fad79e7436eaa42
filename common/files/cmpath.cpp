// Paths and what is known of a file by its name: joining and tidying paths, the stat family, renaming, removing,
// copying.
#include "files/cmpath.h"

#include <string.h>

#include <algorithm>

#include "core/cmerror.h"
#include "files/cache_hook.h"
#include "files/cmfile.h"
#include "platform/platform.h"

namespace cm::files {

using platform::Error;
using platform::FileStatus;
using platform::FileType;
using platform::os;

bool is_device_name(std::string_view path) {
    size_t start = path.size();
    while (start > 0 && !is_separator(path[start - 1])) start--;
    path.remove_prefix(start);
    const std::string_view stem(path.data(), std::min(path.find('.'), path.size()));
    constexpr std::string_view kNames[] = {"aux", "con", "nul", "prn", "clock$", "config$"};
    for (const std::string_view name : kNames)
        if (equal_folded(stem, name)) return true;
    const std::string_view port(stem.data(), std::min<size_t>(stem.size(), 3));
    return stem.size() == 4 && stem[3] >= '1' && stem[3] <= '9' &&
           (equal_folded(port, "com") || equal_folded(port, "lpt"));
}

namespace {

constexpr uint32_t kOwnerMayWrite = 0200, kOwnerMayExecute = 0100;

uint32_t seconds(int64_t time) {
    return static_cast<uint32_t>(std::clamp<int64_t>(time, 0, UINT32_MAX));
}

bool examine(const char *path, FileStatus *status) {
    return path != nullptr && os.path_status(path, true, status) == 0;
}

bool is_regular(uint32_t mode) {
    return (mode & platform::kModeTypeMask) == platform::kModeRegular;
}

bool same_file(const FileStatus &a, const FileStatus &b) {
    return a.device == b.device && a.index == b.index;
}

// Text in the caller's storage.  Nothing is ever written outside it.
class PathWriter {
public:
    PathWriter(char *out, size_t size) : out_(out), size_(size) {}

    bool fits(size_t count) const { return count <= size_ - length_; }
    void add(std::string_view text) {
        if (!text.empty()) memcpy(out_ + length_, text.data(), text.size());
        length_ += text.size();
    }
    void drop() { length_ = 0; }
    std::string_view text() const { return {out_, length_}; }

private:
    char *out_;
    size_t size_;
    size_t length_ = 0;
};

int16_t finish(char *out, int32_t size, size_t length, int32_t *out_length) {
    if (length >= static_cast<size_t>(size)) return 0;
    out[length] = '\0';
    if (out_length != nullptr) *out_length = static_cast<int32_t>(length);
    return 1;
}

std::string_view without_dot_step(std::string_view path) {
    if (path.size() > 2 && path[0] == '.' && path[1] == '/') path.remove_prefix(2);
    return path;
}

// Removes parent steps, in place: what is written never passes what is read.  False: a step above the start.
//
// Kept: the first byte is never looked at, a ".." without a separator behind it stays, "./" steps stay, and a doubled
// separator takes the byte behind it along ("/a//bc" is "/a/c").  This tidies a path; it does not confine one.
bool remove_parent_steps(char *text, size_t *length) {
    const size_t end = *length;
    size_t kept = std::min<size_t>(end, 1);
    for (size_t i = kept; i < end;) {
        const bool after_separator = is_separator(text[kept - 1]);
        if (after_separator && i + 2 < end && text[i] == '.' && text[i + 1] == '.' && is_separator(text[i + 2])) {
            size_t parent = kept - 1;
            while (parent > 0 && !is_separator(text[parent - 1])) parent--;
            if (parent == 0) return false;
            kept = parent;
            i += 3;
        } else if (after_separator && is_separator(text[i])) {
            i += 2;
        } else {
            text[kept++] = text[i] == '\\' ? '/' : text[i];
            i++;
        }
    }
    *length = kept;
    return true;
}

// Copies what is left to read in pieces of one buffer; a short piece is the last one.
bool copy_pieces(cm_file *from, cm_file *to) {
    char piece[kBufferSize];
    int32_t got = 0, written = 0;
    do {
        if (cm_fread(from, piece, kBufferSize, &got) == 0) return false;
        if (got > 0 && (cm_fwrite(to, piece, got, &written) == 0 || written != got)) return false;
    } while (got == kBufferSize);
    return true;
}

}  // namespace

void fill_stat(const FileStatus &status, cm_stat_rec *record) {
    record->index = static_cast<uint32_t>(status.index & 0xFFFF);
    record->mode = status.mode;
    record->size = static_cast<uint32_t>(std::min<uint64_t>(status.size, UINT32_MAX));
    record->mtime = seconds(status.mtime);
    record->ctime = seconds(status.ctime);
    record->atime = seconds(status.atime);
}

}  // namespace cm::files

using namespace cm;
using namespace cm::files;

int16_t cm_build_path(cm_context *ctx, const char *directory, const char *name, char *out, int32_t size,
                      int32_t *out_length) {
    if (out_length != nullptr) *out_length = 0;
    if (out == nullptr || size < 1) return 0;
    std::string_view root;
    if (ctx != nullptr) root = view(ctx->root_dir, ctx->root_len);
    const std::string_view folder = view(directory, CM_LEN_TEXT);
    std::string_view last = view(name, CM_LEN_TEXT);
    // Kept: the room is asked for before it is known whether the root stays.
    if (last.size() + folder.size() + 3 + root.size() > static_cast<size_t>(size)) {
        report(ctx, CM_ERROR, "cm_build_path() failed.  Buffer provided is too small.");
        return 0;
    }
    if (root.size() == 3 && root[1] == ':') root.remove_suffix(1);
    PathWriter path(out, static_cast<size_t>(size));
    path.add(root);
    if (directory != nullptr) {
        if (is_absolute(folder))
            path.drop();
        else if (!begins_with_separator(folder))
            path.add("/");
        path.add(folder);
        if (!last.empty() && !folder.empty() && !ends_in_separator(folder)) path.add("/");
    } else if (!last.empty() && !ends_in_separator(path.text())) {
        path.add("/");
    }
    if (is_absolute(last))
        path.drop();
    else if (begins_with_separator(last) && !path.text().empty())
        last.remove_prefix(1);  // kept: a name that begins with one separator stays under the root
    path.add(last);
    return finish(out, size, path.text().size(), out_length);
}

int16_t cm_cleanup_path(cm_context *, const char *base, int32_t base_length, const char *relative,
                        int32_t relative_length, char *out, int32_t size, int32_t *out_length) {
    if (out_length != nullptr) *out_length = 0;
    if (out == nullptr || size < 1) return 0;
    PathWriter path(out, static_cast<size_t>(size));
    const std::string_view start = without_dot_step(view(base, base_length));
    if (!path.fits(start.size())) return 0;
    path.add(start);
    if (relative != nullptr) {
        std::string_view rest = view(relative, relative_length);
        if (!path.fits(rest.size() + 1)) return 0;
        if (!path.text().empty() && !ends_in_separator(path.text())) path.add("/");
        rest = without_dot_step(rest);
        if (ends_in_separator(path.text()) && begins_with_separator(rest)) rest.remove_prefix(1);
        path.add(rest);
    }
    size_t length = path.text().size();
    if (!remove_parent_steps(out, &length)) return 0;
    return finish(out, size, length, out_length);
}

int16_t cm_stat(cm_context *ctx, const char *path, int16_t use_cache, cm_stat_rec *record) {
    if (path == nullptr || record == nullptr) return 0;
    const CacheHook *cache = use_cache != 0 ? enabled_cache(ctx) : nullptr;
    if (cache != nullptr) return cache->stat(ctx, path, record);
    FileStatus status;
    if (is_device_name(path) || !examine(path, &status) || status.type == FileType::kCharacterDevice) return 0;
    fill_stat(status, record);
    return 1;
}

int16_t cm_access(const char *path, int32_t mode) {
    return path != nullptr && os.path_access(path, mode) == 0 ? 1 : 0;
}

int16_t cm_isempty(const char *path) {
    FileStatus status;
    return !examine(path, &status) || status.size == 0 ? 1 : 0;
}

int16_t cm_isreadonly(const char *path) {
    FileStatus status;
    return !examine(path, &status) || (status.mode & kOwnerMayWrite) == 0 ? 1 : 0;
}

int16_t cm_isfile(cm_context *ctx, const char *path, int16_t use_cache) {
    if (path == nullptr) return 0;
    const CacheHook *cache = use_cache != 0 ? enabled_cache(ctx) : nullptr;
    if (cache != nullptr) {
        cm_stat_rec record;
        return cache->stat(ctx, path, &record) != 0 && is_regular(record.mode) ? 1 : 0;
    }
    FileStatus status;
    return !is_device_name(path) && examine(path, &status) && is_regular(status.mode) ? 1 : 0;
}

int16_t cm_isexe(cm_context *ctx, const char *path, int16_t use_cache) {
    if (path == nullptr) return 0;
    const CacheHook *cache = use_cache != 0 ? enabled_cache(ctx) : nullptr;
    if (cache != nullptr) {
        // Kept: the cached answer looks at the bit alone, whatever the path is.
        cm_stat_rec record;
        return cache->stat(ctx, path, &record) != 0 && (record.mode & kOwnerMayExecute) != 0 ? 1 : 0;
    }
    FileStatus status;
    return !is_device_name(path) && examine(path, &status) && is_regular(status.mode) &&
                   (status.mode & kOwnerMayExecute) != 0
               ? 1
               : 0;
}

int16_t cm_isdirectory(const char *path) {
    FileStatus status;
    return examine(path, &status) && status.type == FileType::kDirectory ? 1 : 0;
}

int16_t cm_rename(const char *from, const char *to) {
    if (from == nullptr || to == nullptr) return 0;
    if (os.path_rename(from, to) == 0) return 1;
    if (strcmp(from, to) == 0) return 0;
    FileStatus source, target;
    if (os.path_status(from, false, &source) != 0) {
        // Kept: the target goes first, also when there is nothing to take its place.
        if (os.path_access(from, CM_ACCESS_EXISTS) != 0) os.path_remove(to);
        return 0;
    }
    // A folder takes the place of a file only once that is gone; everything else is replaced in one step.
    if (source.type != FileType::kDirectory || os.path_status(to, false, &target) != 0 ||
        target.type == FileType::kDirectory)
        return 0;
    os.path_remove(to);
    return os.path_rename(from, to) == 0 ? 1 : 0;
}

int16_t cm_unlink(const char *path, int32_t tries) {
    if (path == nullptr) return 0;
    // Kept: after one failure every try is used and the result is failure, even when a later one removed the file.
    bool failed = false;
    for (int32_t i = 0; i < tries; i++) {
        if (os.path_remove(path) == 0) {
            if (!failed) return 1;
        } else {
            failed = true;
            if (!os.sleep(1000)) return 0;  // the thread is to end
        }
    }
    return failed ? 0 : 1;
}

int16_t cm_cp(cm_context *ctx, const char *from, const char *to) {
    if (from == nullptr || to == nullptr) return 0;
    FileCloser source, target;
    if (cm_fopen(ctx, from, kReadSequentialBinary, source.out()) == 0) return 0;
    FileStatus original, present;
    // Opening the target would empty it, and with it a source that has both names.
    if (os.file_status(source.get()->descriptor, &original) != 0) return 0;
    if (os.path_status(to, true, &present) == 0 && same_file(original, present)) {
        report(ctx, CM_ERROR, "cm_cp() '%s' and '%s' are the same file.", from, to);
        return 0;
    }
    if (cm_fopen(ctx, to, CM_O_RDWR | CM_O_CREAT | CM_O_TRUNC | CM_O_BINARY, target.out()) == 0) return 0;
    return copy_pieces(source.get(), target.get()) && target.close() ? 1 : 0;
}

int16_t cm_ftruncate(cm_context *ctx, const char *path, int32_t size) {
    FileCloser file;
    if (cm_fopen(ctx, path, CM_O_RDWR | CM_O_CREAT | CM_O_BINARY, file.out()) == 0) return 0;
    if (os.file_resize(file.get()->descriptor, size) != 0) {
        report(ctx, CM_ERROR, "File chsize of '%s(%ld)' failed.", path, static_cast<long>(size));
        return 0;
    }
    return file.close() ? 1 : 0;
}
