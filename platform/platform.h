// The platform contract: everything that the library asks of an operating system, and every allocation.
//
// The library above calls only through the table `os`, whose entries start as those of platform/posix or platform/win32
// and which a test may replace one by one: to fail the k-th call, to freeze the clock, to skip a sleep, to see every
// open, write, rename and sync in order.  Nothing above this folder includes a system header, and no system type leaves
// it: descriptors are int32_t, sockets cm_socket, everything else fixed-width or opaque.
//
// What holds for every entry:
//   - A result of type Error is 0 for success, else an error number as the public header promises: the Winsock number
//     where there is one (CM_E...), the system's own otherwise.  Out arguments are set on success only.
//   - Paths are UTF-8 and "/"-separated; one trailing separator is ignored (not that of a root).  Windows sides accept
//     paths over 260 characters.
//   - An interrupted call is continued with the time that is left; callers never see EINTR.
//   - Descriptors and sockets are never inherited by a child process, but for the three of process_start.
//   - A wait (sleep, event_wait, socket_wait, a blocking receive) of a thread that was asked to end comes back at once,
//     as said at the entry; this is what makes the end of a thread cooperative.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "tilvarcm.h"

namespace cm::platform {

using Error = int32_t;

// Where the system does not tell it (tests may not change these).
extern const char *const kLastResortTemp;  // the temporary folder when neither TEMP nor TMP is set
extern const bool kFoldsPathCase;          // whether two spellings of one name are the same file

// The files of the TLS library's two modules, newest version first; those of one row belong together.  Ends with nulls.
struct LibraryPair {
    const char *crypto, *tls;
};
extern const LibraryPair kTlsLibraries[];

// ---- time -----------------------------------------------------------------------------------------------------------

struct WallTime {
    int64_t seconds;  // since 1970, UTC
    int32_t milliseconds;
};

// ---- files ----------------------------------------------------------------------------------------------------------

enum class FileType : int32_t { kRegular, kDirectory, kCharacterDevice, kLink, kOther };

struct FileStatus {
    FileType type;
    uint32_t mode;   // the public header's mode bits: type in 0170000, permissions in 0777
    uint32_t links;
    uint64_t device;
    uint64_t index;  // file number on that device
    uint64_t size;
    int64_t mtime, ctime, atime;  // seconds
    int32_t mtime_ns;
};

constexpr uint32_t kModeTypeMask = 0170000, kModeDirectory = 0040000, kModeCharacter = 0020000, kModeRegular = 0100000;

// Flags of file_open beyond the public CM_O_ ones.
constexpr int32_t kOpenNoFollow = 0x10000;   // a link in the last component fails
constexpr int32_t kOpenOwnerOnly = 0x20000;  // created for the owner alone, not for everybody

// ---- threads --------------------------------------------------------------------------------------------------------

using ThreadEntry = void (*)(void *argument);
struct Thread;  // one started thread, from thread_start to thread_release
struct Lock;    // a recursive in-process lock
struct Event;   // an auto-reset in-process event

// ---- sockets --------------------------------------------------------------------------------------------------------

constexpr cm_socket kNoSocket = -1;

// kEcho sends ICMP messages and receives the answers to them, with or without the IP head before them; where it takes the
// administrator's rights it may receive answers to others as well.
enum class SocketKind : int32_t { kStream, kDatagram, kEcho };

enum class SocketOption : int32_t {
    kKeepAlive,           // 0 or 1
    kListenerReuse,       // TCP listener: a restarted server may bind, a second one may not (POSIX on, Windows off)
    kReuseAddress,        // 0 or 1, the plain option
    kLinger,              // seconds; -1: off
    kNoDelay,             // 0 or 1
    kBroadcast,           // 0 or 1
    kSendTimeout,         // milliseconds, 0: none
    kReceiveTimeout,      // milliseconds, 0: none
    kUnackedTimeout,      // milliseconds until unacknowledged data ends the connection; ignored where there is none
    kIgnorePortUnreachable  // datagram: an ICMP answer to an earlier send never fails a receive
};

struct Slice {
    const void *data;
    size_t length;
};

struct WaitItem {
    cm_socket socket;  // kNoSocket: never ready
    bool for_write;    // wait for writable (or a finished connect, failed or not) instead of readable
    bool ready;        // out
    bool failed;       // out: error or hang-up in both directions
};

constexpr int32_t kForever = -1;  // as a time-out in milliseconds

// A socket pair of the layer's own whose read end can stand in a socket_wait.
struct Wake {
    cm_socket read_end = kNoSocket;
    cm_socket write_end = kNoSocket;
};

// ---- processes ------------------------------------------------------------------------------------------------------

struct Process;  // one started child, from process_start to process_release

// ---- dial-up --------------------------------------------------------------------------------------------------------

struct Line;  // one dialled line, from line_dial to line_hang_up

constexpr Error kNotSupported = 10045;  // this system has no such thing

// ---- the table ------------------------------------------------------------------------------------------------------

struct Table {
    // Memory.  Null when there is none.  `release` takes null.
    void *(*allocate)(size_t bytes);
    void *(*allocate_zeroed)(size_t bytes);
    void (*release)(void *block);

    // Process-wide things.
    const char *(*environment)(const char *name);          // null when not set; an empty variable counts as not set
    bool (*working_directory)(char *out, size_t size);     // "/"-separated
    void (*write_standard_error)(const char *text, size_t length);
    bool (*random_bytes)(void *out, size_t count);         // the system's generator
    void (*handle_abort)(void (*handler)(int));            // null: the default again
    void (*exit_at_once)(int32_t status);                  // no exit handlers
    bool (*standard_handles_open)();                       // makes sure that 0, 1 and 2 are taken; true when they are

    // Time.
    bool (*wall_clock)(WallTime *out);
    int64_t (*monotonic_ms)();
    bool (*local_calendar)(int64_t seconds, cm_tm *out);
    int32_t (*zone_bias_seconds)();                        // standard time, positive west of Greenwich
    Error (*set_wall_clock)(const cm_tm *utc, int32_t milliseconds);
    bool (*sleep)(int32_t milliseconds);                   // false: the thread was asked to end

    // Files.  file_open takes CM_O_ flags; a directory, and anything but a regular file or character device, fails.  A
    // created file is readable and writable for everybody as far as the process's mask allows.
    Error (*file_open)(const char *path, int32_t flags, int32_t *out_descriptor);
    Error (*file_close)(int32_t descriptor);
    Error (*file_read)(int32_t descriptor, void *buffer, size_t count, size_t *out_got);    // 0 got: end of file
    Error (*file_write)(int32_t descriptor, const void *data, size_t count, size_t *out_written);  // all, else an error; out is set on failure too
    Error (*file_seek)(int32_t descriptor, int64_t offset, int32_t whence, int64_t *out_position);
    Error (*file_resize)(int32_t descriptor, int64_t size);
    Error (*file_sync)(int32_t descriptor);
    Error (*file_status)(int32_t descriptor, FileStatus *out);
    Error (*path_status)(const char *path, bool follow, FileStatus *out);
    Error (*path_access)(const char *path, int32_t mode);  // CM_ACCESS_
    Error (*path_set_mode)(const char *path, uint32_t mode);  // never through a link
    Error (*path_rename)(const char *from, const char *to);   // replaces `to` in one step
    Error (*path_link)(const char *from, const char *to);     // a second name; fails when `to` exists
    Error (*path_remove)(const char *path);                   // a file or a link
    Error (*directory_create)(const char *path);
    Error (*directory_remove)(const char *path);
    Error (*directory_sync)(const char *path);                // names in it are on disk; nothing where there is no such thing
    Error (*directory_open)(const char *path, void **out_search);
    bool (*directory_next)(void *search, char *out_name, size_t size);  // false: no more; longer names are skipped
    void (*directory_close)(void *search);

    // Locks and events.  A lock may be taken again by the thread that holds it.  A thread holds "library locks" from its
    // first acquire to its last release: thread_park waits for that.
    Lock *(*lock_create)();
    void (*lock_destroy)(Lock *lock);
    void (*lock_acquire)(Lock *lock);
    void (*lock_release)(Lock *lock);
    Event *(*event_create)();
    void (*event_destroy)(Event *event);
    void (*event_set)(Event *event);                       // lets one waiter go, now or when the next one comes
    bool (*event_wait)(Event *event, int32_t timeout_ms);  // false: time is up, or the thread was asked to end

    // Threads.  thread_ask marks the thread and wakes its waits, from then on each of them comes back at once.
    // thread_join waits for its end.  thread_park stops it for good outside library locks; a parked thread never runs
    // again and its stack and record are given up (thread_release does not free them).
    Error (*thread_start)(ThreadEntry entry, void *argument, Thread **out_thread);
    void (*thread_ask)(Thread *thread);
    bool (*thread_join)(Thread *thread, int32_t timeout_ms);  // true: it has ended
    bool (*thread_park)(Thread *thread);                   // true: ended or parked now
    void (*thread_release)(Thread *thread);                // forgets the record; a running thread goes on
    Thread *(*thread_self)();                              // null on a thread that thread_start did not make
    bool (*thread_asked)();                                // whether the calling thread was asked to end
    void (*thread_yield)();

    // Sockets.  Streams and datagrams, IPv4.  A new or accepted socket is blocking.
    Error (*network_start)();                              // Winsock 2.2; POSIX: an unhandled SIGPIPE is ignored
    Error (*network_stop)();
    Error (*host_name)(char *out, size_t size);
    Error (*host_by_name)(const char *name, uint32_t out_addresses[4], int32_t *out_count);
    Error (*host_by_address)(uint32_t address, char *out_name, size_t size);
    Error (*socket_open)(SocketKind kind, cm_socket *out_socket);
    Error (*socket_close)(cm_socket socket);
    Error (*socket_shutdown)(cm_socket socket);            // both directions; wakes a wait in another thread
    Error (*socket_bind)(cm_socket socket, uint32_t address, int32_t port);
    Error (*socket_listen)(cm_socket socket, int32_t backlog);
    Error (*socket_accept)(cm_socket listener, cm_socket *out_socket, uint32_t *out_address, int32_t *out_port);
    Error (*socket_connect)(cm_socket socket, uint32_t address, int32_t port);  // under way: CM_EWOULDBLOCK
    Error (*socket_connect_result)(cm_socket socket);      // of a connect that a wait reported ready
    Error (*socket_local)(cm_socket socket, uint32_t *out_address, int32_t *out_port);
    Error (*socket_peer)(cm_socket socket, uint32_t *out_address, int32_t *out_port);
    Error (*socket_set_blocking)(cm_socket socket, bool blocking);
    Error (*socket_option)(cm_socket socket, SocketOption option, int32_t value);
    // Whether the peer's system has confirmed all bytes of a stream; false also where the system does not tell.
    bool (*socket_all_confirmed)(cm_socket socket);
    Error (*socket_raw_option)(cm_socket socket, int32_t level, int32_t option, const void *value, int32_t length);
    // One system call each; out_count may be less than asked.  A blocking socket's time-out is CM_ETIMEDOUT.
    Error (*socket_send)(cm_socket socket, const Slice *slices, int32_t count, bool more_follows, size_t *out_count);
    Error (*socket_send_file)(cm_socket socket, int32_t descriptor, int64_t offset, size_t count, size_t *out_count);  // 0 sent: end of the file; CM_EINVAL: not possible here, send it yourself
    Error (*socket_receive)(cm_socket socket, void *buffer, size_t size, bool only_what_is_there, size_t *out_count);
    Error (*socket_send_to)(cm_socket socket, uint32_t address, int32_t port, const void *data, size_t length);
    // A datagram that does not fit fails with CM_EMSGSIZE.
    Error (*socket_receive_from)(cm_socket socket, void *buffer, size_t size, bool only_what_is_there, size_t *out_count, uint32_t *out_address, int32_t *out_port);
    // Waits until an item is ready: `*out_ready` items are.  0: time is up.  CM_EINTR: the thread was asked to end.
    Error (*socket_wait)(WaitItem *items, int32_t count, int32_t timeout_ms, int32_t *out_ready);
    Error (*wake_create)(Wake *out_wake);
    void (*wake_set)(const Wake *wake);
    void (*wake_clear)(const Wake *wake);
    void (*wake_destroy)(Wake *wake);

    // Libraries loaded at run time, looked for in the system's own folders only.
    void *(*library_open)(const char *file);
    void *(*library_symbol)(void *library, const char *name);
    void (*library_close)(void *library);

    // Child processes: no shell, the command line split as Windows splits it, exactly three inherited handles (a null
    // descriptor is -1), default signal dispositions, a group (job) of its own.
    Error (*process_start)(const char *command, const char *directory, const int32_t standard[3], Process **out_process);
    bool (*process_wait)(Process *process, int32_t timeout_ms, int32_t *out_exit_code);  // true: it has ended; false: time is up, or the thread was asked to end and the child was not killed
    void (*process_kill)(Process *process);                // the whole group
    int32_t (*process_id)(Process *process);
    void (*process_release)(Process *process);

    // Processes by number: somebody's.  Never a group of them, and never this process itself.
    bool (*process_running)(int32_t id);                   // false as well for one that has ended and was not waited for
    Error (*process_end)(int32_t id);

    // Waits that keep the window messages of the thread going, where there are any: for the end of a child, and for
    // anything of the system that can be waited for, a HANDLE, elsewhere a descriptor that becomes readable.  False: time
    // is up, not such a thing, or the thread was asked to end.
    bool (*process_await)(Process *process, int32_t timeout_ms);
    bool (*object_wait)(intptr_t object, int32_t timeout_ms);

    // Services, as the system that starts them tells.
    bool (*service_installed)(const char *name);
    bool (*service_running)(const char *name);

    // The link.  CM_EHOSTUNREACH: the address is not known there.
    Error (*hardware_address)(uint32_t address, uint8_t out[6]);

    // Dial-up lines.  line_dial returns when the line is up.
    Error (*line_dial)(const char *entry, const char *user, const char *password, Line **out_line);
    bool (*line_connected)(Line *line);
    void (*line_hang_up)(Line *line);                      // and forgets it; connected or not
    void (*line_error_text)(Error error, char *out, size_t size);  // of line_dial; "" where there is none
};

extern Table os;            // what the library calls
extern const Table kSystem;  // the real thing, to restore or to call through

}  // namespace cm::platform
