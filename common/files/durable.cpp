#include "files/durable.h"

#include <string.h>

#include "core/cmstring.h"

namespace cm::files {

using platform::Error;
using platform::FileStatus;
using platform::os;

namespace {

constexpr size_t kBufferSize = 16 * 1024;
constexpr int kNameTries = 8;
constexpr uint32_t kPermissions = 0777;
constexpr int32_t kCreateFlags = CM_O_WRONLY | CM_O_CREAT | CM_O_EXCL | CM_O_BINARY | platform::kOpenNoFollow;

// A system that folds letter case is one that takes both separators.
bool separates(char c) {
    return c == '/' || (platform::kFoldsPathCase && c == '\\');
}

char *duplicate_text(std::string_view text) {
    char *copy = static_cast<char *>(os.allocate(text.size() + 1));
    if (copy == nullptr) return nullptr;
    if (!text.empty()) memcpy(copy, text.data(), text.size());
    copy[text.size()] = '\0';
    return copy;
}

// After the last step that could fail for the caller: the names are in place, whether or not the system can promise
// that they survive a power failure, so a failed sync is no failure of the replacement.
void sync_folder(std::string_view path) {
    char *folder = duplicate_text(folder_of(path));
    if (folder != nullptr) os.directory_sync(folder);
    os.release(folder);
}

// What is known of a path, or that there is nothing.  An error only when neither can be told.
Error look_at(const char *path, bool follow, FileStatus *out, bool *found) {
    const Error error = os.path_status(path, follow, out);
    *found = error == 0;
    return error != 0 && os.path_access(path, CM_ACCESS_EXISTS) == 0 ? error : 0;
}

bool same_file(const FileStatus &a, const FileStatus &b) {
    return a.device == b.device && a.index == b.index;
}

Error copy_bytes(int32_t source, int32_t target) {
    char *block = static_cast<char *>(os.allocate(kBufferSize));
    if (block == nullptr) return kNoMemory;
    size_t got = 0, written = 0;
    Error error = 0;
    do {
        error = os.file_read(source, block, kBufferSize, &got);
        if (error == 0 && got > 0) error = os.file_write(target, block, got, &written);
    } while (error == 0 && got > 0);
    os.release(block);
    return error;
}

// A complete copy where the file system has no second names, with the mode of the original.
Error copy_file(const char *from, TemporaryFile &to) {
    FileStatus status;
    int32_t source = -1, target = -1;
    Error error = os.file_open(from, CM_O_RDONLY | CM_O_BINARY | CM_O_SEQ, &source);
    if (error != 0) return error;
    error = os.file_open(to.path(), kCreateFlags | platform::kOpenOwnerOnly, &target);
    if (error == 0) {
        to.created();
        error = copy_bytes(source, target);
        if (error == 0) error = os.file_status(source, &status);
        if (error == 0) error = os.path_set_mode(to.path(), status.mode & kPermissions);
        if (error == 0) error = os.file_sync(target);
        const Error closed = os.file_close(target);
        if (error == 0) error = closed;
    }
    os.file_close(source);
    return error;
}

// Gives the file at `from` a second, temporary name in the folder of `beside`.
Error keep_under_temporary(const char *from, const char *beside, TemporaryFile &kept) {
    if (!kept.draw_name(beside)) return kNoMemory;
    if (os.path_link(from, kept.path()) == 0) {
        kept.created();
        return 0;
    }
    return copy_file(from, kept);
}

// The step of a commit that puts the present target under the backup's name, undone unless it is dismissed.
class Backup {
public:
    explicit Backup(const char *path) : path_(path) {}
    ~Backup() {
        if (!replaced_) return;
        if (had_older_) {
            if (os.path_rename(older_.path(), path_) == 0) older_.gone();
        } else {
            os.path_remove(path_);
        }
    }
    Backup(const Backup &) = delete;
    Backup &operator=(const Backup &) = delete;

    Error make(const char *target) {
        FileStatus present, older;
        bool had_target = false;
        Error error = look_at(target, false, &present, &had_target);
        if (error != 0 || !had_target) return error;
        error = look_at(path_, false, &older, &had_older_);
        if (error != 0) return error;
        // A kill between the two renames of an earlier commit leaves both names on one file.  A rename of that file
        // over itself would do nothing, and there is nothing to do.
        if (had_older_ && same_file(present, older)) return 0;
        TemporaryFile kept;
        error = keep_under_temporary(target, path_, kept);
        if (error == 0 && had_older_) error = keep_under_temporary(path_, path_, older_);
        if (error == 0) error = os.path_rename(kept.path(), path_);
        if (error != 0) return error;
        kept.gone();
        replaced_ = true;
        return 0;
    }
    void dismiss() { replaced_ = false; }

private:
    const char *path_;
    bool had_older_ = false;
    bool replaced_ = false;
    TemporaryFile older_;
};

}  // namespace

std::string_view folder_of(std::string_view path) {
    size_t end = path.size();
    while (end > 0 && !separates(path[end - 1])) end--;
    if (end == 0)
        return platform::kFoldsPathCase && path.size() > 1 && path[1] == ':' ? std::string_view(path.data(), 2) : ".";
    const bool root = end == 1 || (end == 3 && path[1] == ':');
    return {path.data(), root ? end : end - 1};
}

TemporaryFile::~TemporaryFile() {
    remove();
    os.release(path_);
}

bool TemporaryFile::name(std::string_view path) {
    remove();
    os.release(path_);
    path_ = duplicate_text(path);
    return path_ != nullptr;
}

bool TemporaryFile::draw_name(std::string_view path) {
    // Short and fixed in length, so that it fits wherever the target's own name does; the dot keeps it out of listings
    // that pass over hidden files.
    constexpr std::string_view kHead = ".cm-", kTail = ".tmp";
    unsigned char random[8];
    if (!os.random_bytes(random, sizeof random)) return false;
    size_t folder = path.size();
    while (folder > 0 && !separates(path[folder - 1])) folder--;
    char *text = static_cast<char *>(os.allocate(folder + kHead.size() + 2 * sizeof random + kTail.size() + 1));
    if (text == nullptr) return false;
    remove();
    os.release(path_);
    path_ = text;
    if (folder > 0) memcpy(text, path.data(), folder);
    text += folder;
    for (const char c : kHead) *text++ = c;
    for (const unsigned char byte : random) {
        *text++ = "0123456789abcdef"[byte >> 4];
        *text++ = "0123456789abcdef"[byte & 15];
    }
    for (const char c : kTail) *text++ = c;
    *text = '\0';
    return true;
}

void TemporaryFile::remove() {
    if (exists_) os.path_remove(path_);
    exists_ = false;
}

DurableFile::~DurableFile() {
    if (descriptor_ >= 0) os.file_close(descriptor_);
    os.release(buffer_);
    os.release(target_);
}

bool DurableFile::fail(Error error) {
    if (error_ == 0) error_ = error != 0 ? error : kNoMemory;
    return false;
}

bool DurableFile::create_once(const char *target, const char *temporary, int32_t flags) {
    const bool named = temporary != nullptr ? temporary_.name(temporary) : temporary_.draw_name(target);
    if (!named) return fail(kNoMemory);
    const Error error = os.file_open(temporary_.path(), flags, &descriptor_);
    if (error != 0) {
        descriptor_ = -1;
        return fail(error);
    }
    temporary_.created();
    return true;
}

bool DurableFile::create(const char *target, const char *temporary) {
    for (int i = 0;; i++) {
        if (create_once(target, temporary, kCreateFlags)) break;
        // A drawn name that is taken is drawn again.
        FileStatus taken;
        if (temporary != nullptr || i == kNameTries || temporary_.path() == nullptr ||
            os.path_status(temporary_.path(), false, &taken) != 0)
            return false;
        error_ = 0;
    }
    FileStatus old, made;
    bool replaces = false;
    Error error = look_at(target, true, &old, &replaces);
    if (error == 0 && replaces) error = os.file_status(descriptor_, &made);
    if (error != 0) return fail(error);
    if (!replaces) return true;
    final_mode_ = made.mode & old.mode & kPermissions;
    narrowed_ = final_mode_ != (made.mode & kPermissions);
    if (!narrowed_) return true;
    // Whoever opened the wide file in this instant holds a file that never gets any content.
    if (!close()) return false;
    temporary_.remove();
    return create_once(target, temporary, kCreateFlags | platform::kOpenOwnerOnly);
}

bool DurableFile::open(const char *target, const char *temporary) {
    if (target == nullptr || opened_) return fail(CM_EINVAL);
    opened_ = true;
    target_ = duplicate_text(target);
    buffer_ = static_cast<char *>(os.allocate(kBufferSize));
    if (target_ == nullptr || buffer_ == nullptr) return fail(kNoMemory);
    return create(target, temporary);
}

bool DurableFile::flush() {
    if (error_ != 0) return false;
    if (fill_ == 0) return true;
    size_t written = 0;
    const Error error = os.file_write(descriptor_, buffer_, fill_, &written);
    if (error != 0 || written != fill_) return fail(error);
    fill_ = 0;
    return true;
}

bool DurableFile::write(const void *data, size_t length) {
    if (error_ != 0 || descriptor_ < 0) return fail(CM_EINVAL);
    if (length > kBufferSize - fill_ && !flush()) return false;
    if (length > kBufferSize) {
        size_t written = 0;
        const Error error = os.file_write(descriptor_, data, length, &written);
        return error == 0 && written == length ? true : fail(error);
    }
    if (length > 0) memcpy(buffer_ + fill_, data, length);
    fill_ += length;
    return true;
}

bool DurableFile::close() {
    const int32_t descriptor = descriptor_;
    descriptor_ = -1;
    const Error error = os.file_close(descriptor);
    return error == 0 || fail(error);
}

bool DurableFile::seal() {
    if (error_ != 0) return false;
    if (descriptor_ < 0) return opened_ || fail(CM_EINVAL);
    if (!flush()) return false;
    if (narrowed_) {
        const Error error = os.path_set_mode(temporary_.path(), final_mode_);
        if (error != 0) return fail(error);
    }
    const Error error = os.file_sync(descriptor_);
    if (error != 0) return fail(error);
    return close();
}

bool DurableFile::replace_target() {
    const Error error = os.path_rename(temporary_.path(), target_);
    if (error != 0) return fail(error);
    temporary_.gone();
    return true;
}

bool DurableFile::commit(const char *backup) {
    if (!seal()) return false;
    if (backup == nullptr) {
        if (!replace_target()) return false;
        sync_folder(target_);
        return true;
    }
    Backup kept(backup);
    const Error error = kept.make(target_);
    if (error != 0) return fail(error);
    if (!replace_target()) return false;
    kept.dismiss();
    sync_folder(target_);
    if (folder_of(backup) != folder_of(target_)) sync_folder(backup);
    return true;
}

bool DurableFile::commit_new() {
    if (!seal()) return false;
    const Error error = os.path_link(temporary_.path(), target_);
    if (error != 0) return fail(error);
    temporary_.remove();
    sync_folder(target_);
    return true;
}

}  // namespace cm::files
