// Replacing a file so that a kill, a crash or a full disk at any instant leaves either the old content or the new one.
//
// The new content is written to a temporary file beside the target (created exclusively, so neither an existing file
// nor a link is ever opened), synced, and renamed over the target; then the folder is synced.  Every step is checked,
// and a failed one is remembered: later steps fail too, and the destructor removes the temporary.
//
//     DurableFile out;
//     if (!out.open(path) || !out.write(head) || !out.write(body)) return 0;
//     return out.commit(backup) ? 1 : 0;
#pragma once

#include <stddef.h>

#include <string_view>

#include "platform/platform.h"
#include "tilvarcm.h"

namespace cm::files {

constexpr platform::Error kNoMemory = -1;  // an allocation (or the source of random names) failed

// The folder part of a path: what stands before the last separator, "/" or a drive's root kept; "." when there is none.
std::string_view folder_of(std::string_view path);

// The name of a file that exists for the time of one operation; the file is removed with the object.
class TemporaryFile {
public:
    TemporaryFile() = default;
    ~TemporaryFile();
    TemporaryFile(const TemporaryFile &) = delete;
    TemporaryFile &operator=(const TemporaryFile &) = delete;

    bool name(std::string_view path);       // takes this very name
    bool draw_name(std::string_view path);  // draws a fresh one in the folder of `path`
    const char *path() const { return path_; }
    void created() { exists_ = true; }
    void gone() { exists_ = false; }  // renamed away
    void remove();

private:
    char *path_ = nullptr;
    bool exists_ = false;
};

class DurableFile {
public:
    DurableFile() = default;
    ~DurableFile();
    DurableFile(const DurableFile &) = delete;
    DurableFile &operator=(const DurableFile &) = delete;

    // Starts the new content of `target`, which need not exist.  The file gets the mode of a new file, less the bits
    // that the old one does not have.  `temporary`: its name until the commit, where others rely on it (the open fails
    // when that name is taken); null: a drawn name.
    bool open(const char *target, const char *temporary = nullptr);

    // Output is gathered; a failure may show only later, at the latest in seal or commit.
    bool write(const void *data, size_t length);
    bool write(std::string_view text) { return write(text.data(), text.size()); }

    // Brings everything to the disk and closes the file, so that it can be read back before the commit.
    bool seal();
    const char *temporary() const { return temporary_.path(); }

    // Puts the new content in the place of `target`.  With `backup`, that name holds the version before afterwards (an
    // older backup is replaced in one step); where there was no target the backup is left alone.  On failure target and
    // backup are as they were.  Windows: close every handle to the target before.
    bool commit(const char *backup = nullptr);

    // The same for a target that must not exist yet: fails, changing nothing, when it does.
    bool commit_new();

    // The error of the first step that failed: the system's number, or kNoMemory; 0 when none did.
    platform::Error error() const { return error_; }

private:
    bool fail(platform::Error error);
    bool create(const char *target, const char *temporary);
    bool create_once(const char *target, const char *temporary, int32_t flags);
    bool flush();
    bool close();
    bool replace_target();

    char *target_ = nullptr;
    char *buffer_ = nullptr;
    size_t fill_ = 0;
    TemporaryFile temporary_;
    int32_t descriptor_ = -1;
    uint32_t final_mode_ = 0;  // permission bits to set at the end
    bool narrowed_ = false;
    bool opened_ = false;
    platform::Error error_ = 0;
};

}  // namespace cm::files
