// What the tests share.  Everything here works through the `os` table, so it is the same on every system.
//
// Several of these classes replace entries of the table for as long as they live and put back what they found.  They
// nest in any order (a later one calls through to an earlier one), must end in reverse order as scopes do, and there is
// at most one of each class at a time.  Make them while no other thread uses the table.
#pragma once

#include <stdint.h>

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "platform/platform.h"
#include "support/replace.h"

namespace cm::test {

struct Pinned {
    Pinned() = default;
    Pinned(const Pinned &) = delete;
    Pinned &operator=(const Pinned &) = delete;
};

// ---- files ----------------------------------------------------------------------------------------------------------

// A folder of its own, removed with everything in it at the end.  Names given to it are relative to it, "/"-separated.
class TempFolder : Pinned {
public:
    TempFolder();
    ~TempFolder();

    const std::string &path() const { return path_; }        // absolute: "/tmp/..." or "C:/...", no "/" at the end
    std::string path(std::string_view name) const;           // path() + "/" + name
    std::string absolute(std::string_view name = "") const;  // the same, as cm_build_path takes it: "//tmp/..."
    std::string write(std::string_view name, std::string_view bytes) const;  // makes folders too; gives path(name)
    std::string read(std::string_view name) const;                           // whole file; "" when there is none
    bool exists(std::string_view name) const;                                // a file or a folder
    std::string make_folder(std::string_view name) const;
    void remove(std::string_view name) const;                            // a file, or a folder with everything in it
    std::vector<std::string> names(std::string_view folder = "") const;  // what is in it, sorted

private:
    std::string path_;
};

// The lines of a text, without their line ends ("\n" or "\r\n").
std::vector<std::string> lines_of(std::string_view text);

// The lines of a log file without the leading "[date time] ".
std::vector<std::string> log_lines(const std::string &path);

// ---- what a system has ----------------------------------------------------------------------------------------------

// Null, or why a test that needs "file-modes" (permissions of owner and others apart), "symbolic-links",
// "full-device" (one without room for anything) or "ports-by-address" (one port, taken on each address) is skipped.
const char *missing(std::string_view feature);

// ---- failures -------------------------------------------------------------------------------------------------------

// Counts the calls of the chosen groups and makes the k-th one fail, without carrying it out:
//
//     for (int k = 1;; k++) {
//         Faults faults(Faults::kAllocations, k);
//         run();                          // check result, outputs and that nothing leaked
//         if (!faults.injected()) break;  // got through all calls
//     }
//
// An entry whose result is an Error gives `error`, others null or false.  Kept from the caller all the same, since a
// test would leak otherwise: a close is carried out before it reports its failure; a file_write writes the first half.
// Never failed, since their "false" is no failure: waits, joins, parks, directory_next, environment.
class Faults : Pinned {
public:
    enum Group : uint32_t {
        kAllocations = 0x001,
        kFiles = 0x002,
        kSockets = 0x004,  // and look-ups
        kThreads = 0x008,
        kLocks = 0x010,  // and events
        kEnvironment = 0x020,
        kClock = 0x040,
        kLibraries = 0x080,
        kProcesses = 0x100,
        kSystem = 0x1FE,
        kBoth = 0x1FF
    };
    enum Mode { kOnce, kFromThenOn };  // the second is a disk that is full, or a process that was killed at that call
    static constexpr platform::Error kInputOutput = 5, kNoSpace = 28;

    // `k` counts from 1; 0 fails nothing and only counts.  `groups` are Group values, or-ed.
    Faults(uint32_t groups, int64_t k, platform::Error error = kInputOutput, Mode mode = kOnce);
    ~Faults();

    int64_t calls() const;     // so far
    int64_t injected() const;  // failures so far

private:
    platform::Table saved_;
};

// Blocks that were allocated since and not released.  Releases of older blocks do not count.
class LeakCheck : Pinned {
public:
    LeakCheck();

    size_t outstanding() const;

private:
    void *noted(void *block);
    void forget(void *block);

    mutable std::mutex mutex_;  // guards the blocks
    std::unordered_set<void *> blocks_;
    const Underneath<&platform::Table::allocate> allocate_{[this](size_t n) { return noted(allocate_.real(n)); }};
    const Underneath<&platform::Table::allocate_zeroed> zeroed_{[this](size_t n) { return noted(zeroed_.real(n)); }};
    const Underneath<&platform::Table::release> release_{[this](void *block) { forget(block); }};
};

// ---- time -----------------------------------------------------------------------------------------------------------

// A clock that moves only when told.  A sleep of the thread that made it moves it by that much and returns at once.
// Sleeps and timed event waits of other threads last until the clock has been moved that far, or the thread is asked to
// end.  Waits for sockets, processes and ends of threads are real.
class FrozenClock : Pinned {
public:
    explicit FrozenClock(int64_t seconds = 1000000000, int32_t milliseconds = 0);
    ~FrozenClock();

    // The wall clock alone; monotonic time stands.
    void set(int64_t seconds, int32_t milliseconds = 0) { wall_ms_ = seconds * 1000 + milliseconds; }
    void advance(int64_t seconds) { move(seconds * 1000); }
    void advance_ms(int64_t milliseconds) { move(milliseconds); }
    int64_t seconds() const { return wall_ms_ / 1000; }
    int64_t slept_ms() const { return slept_ms_; }  // by all sleeps of the owner
    void fail(bool broken) { broken_ = broken; }    // wall_clock cannot be read

    // A fixed zone for local_calendar and zone_bias_seconds: standard bias in seconds, positive west of Greenwich, and
    // whether daylight saving (one hour) is in force, for every time or for those that `in_force` says.
    void set_zone(int32_t bias_seconds, std::function<bool(int64_t seconds)> in_force = nullptr);

    // What set_wall_clock was asked for, instead of setting a real clock: seconds since 1970 and milliseconds.
    platform::WallTime set_to() const;

private:
    static void move(int64_t milliseconds) {
        wall_ms_ += milliseconds;
        running_ms_ += milliseconds;
    }

    static inline std::atomic<int64_t> wall_ms_, running_ms_, slept_ms_;
    static inline std::atomic<bool> broken_;
    platform::Table saved_;
};

// ---- what was called ------------------------------------------------------------------------------------------------

// Writes down the calls that change files, in order, one line each; `strip` is cut from the front of paths.
//     create NAME       file_open with CM_O_CREAT          rename FROM TO
//     open NAME         any other file_open                link FROM TO
//     write NAME COUNT  bytes written                      remove NAME
//     sync NAME                                            mkdir NAME, rmdir NAME
//     close NAME                                           sync-folder NAME
// A call that failed has " = NUMBER" at its end.
class CallRecorder : Pinned {
public:
    explicit CallRecorder(const std::string &strip = "");
    ~CallRecorder();

    std::vector<std::string> lines(std::string_view containing = "") const;
    std::string text() const;  // the same, all of them, each with "\n"

private:
    struct State;
    const std::unique_ptr<State> state_;
};

// Keeps what is written to the standard error stream through the table.
class StandardErrorCapture : Pinned {
public:
    std::string text() const {
        const std::lock_guard guard(mutex_);
        return text_;
    }

private:
    mutable std::mutex mutex_;
    std::string text_;
    const Underneath<&platform::Table::write_standard_error> write_{[this](const char *text, size_t length) {
        const std::lock_guard guard(mutex_);
        text_.append(text, length);
    }};
};

std::string captured_standard_error(const std::function<void()> &run);

// Replaces environment variables; names that are not given stay as they are, an empty value means not set.
class Environment : Pinned {
public:
    explicit Environment(std::map<std::string, std::string> values) : values_(std::move(values)) {}

private:
    const std::map<std::string, std::string> values_;
    const Underneath<&platform::Table::environment> find_{[this](const char *name) -> const char * {
        const auto found = values_.find(name);
        if (found == values_.end()) return find_.real(name);
        return found->second.empty() ? nullptr : found->second.c_str();
    }};
};

// ---- a started library ----------------------------------------------------------------------------------------------

// The library started in a folder of its own (TVHOME), and stopped at the end.  `common` is the text of section
// "common" of config/config.ini ("Trace Level = TRACE\n..."), with "Flush Logs = TRUE" put before it so that log() sees
// every line; null: no configuration file, temporary and log folder are tmp/.  `prepare` may write more files before
// the start.
class Library : Pinned {
public:
    explicit Library(const char *common = "", const std::function<void(TempFolder &)> &prepare = nullptr);
    ~Library();

    bool ok() const { return ctx_ != nullptr; }
    cm_context *ctx() const { return ctx_; }
    operator cm_context *() const { return ctx_; }
    TempFolder &folder() { return folder_; }
    const std::string &notices() const { return notices_; }  // on the standard error stream during the start

    void stop();                                    // as the end does; log() still works
    std::vector<std::string> log() const;           // without stamps
    bool logged(std::string_view line) const;       // one line is exactly this: "ERROR: text" with its prefix
    bool logged_text(std::string_view part) const;  // one line contains this

private:
    TempFolder folder_;
    Environment environment_;
    std::string log_folder_;
    std::string notices_;
    cm_context *ctx_ = nullptr;
};

// ---- a child program ------------------------------------------------------------------------------------------------

// Path of a small program for tests that start processes.  Its arguments:
//     print WORD...       prints "[WORD]" and a line feed for each word
//     exit NUMBER         ends with that code
//     echo                copies standard input to standard output
//     error TEXT          prints TEXT on the standard error stream
//     folder              prints its working directory
//     descriptors         prints how many descriptors it has (where the system tells)
//     signals             prints "default" unless signals are blocked or ignored (where the system tells)
//     errors ARGUMENT...  the same with the error stream in the place of standard output
//     hold PORT           connects to 127.0.0.1:PORT and stays until it is killed
//     start WORD...       starts these words with its own three streams, ends as they do
//     nest PORT           starts another one with "hold PORT" and waits for it
std::string child_program();

}  // namespace cm::test
