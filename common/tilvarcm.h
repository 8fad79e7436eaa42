/* tilvarcm.h - the common runtime library of a server suite.
 *
 * One header, plain C11 (C++17 includes it too).  Every function that several servers of one process share, or that
 * touches the operating system, is here: start-up from a configuration file, logging and alerts, memory pools, tables
 * and lists, threads and a thread pool, files, sectioned configuration files, dates, and connections.
 *
 * What holds everywhere, said once:
 *
 *   Results     Functions return int16_t: 1 for success or "yes", 0 for failure or "no".  Anything else a function
 *               gives back travels through its out_ arguments, which may be null where the caller does not want them.
 *               Functions whose result is not a status say so.  The reason of a failure is not stored for the caller:
 *               it is written to the log (cm_log) as one line that begins with the function's name.
 *   Lengths     Lengths and counts are int32_t.  CM_LEN_TEXT (-3) means "NUL-terminated, measure it"; any other
 *               negative length counts as nothing or fails.
 *   Text        Bytes; UTF-8 by convention, and in paths on every system.  Letter case is folded for ASCII only, whatever
 *               the locale.  Text that is handed to the log is data, never a format.
 *   Values      cm_value is a number or a pointer of the caller's; where one operation of a function takes it in and
 *               another gives it out, the out form is the address: CM_OUT(&variable), with variable a cm_value.
 *   Null        A null record pointer fails quietly with 0 unless the function says otherwise.
 *   Ownership   Whatever an open, init, alloc, create or connect handed out is given back by its close, exit, free,
 *               delete or close; nothing else needs freeing.  Text that a function hands out lives as long as the pool,
 *               table or handle it came from.  Texts that a caller hands in are copied unless the function says "kept".
 *   Threads     Any thread may call any function; a record (pool, table, list, file, connection, scanner) belongs to one
 *               thread at a time unless its section says which lock guards it.  cm_ctx_init and cm_ctx_exit belong to the
 *               main thread.
 *   Paths       "/" separates; "\\" and drive letters are understood.  A single leading "/" is NOT absolute for
 *               cm_build_path and so for every configured directory: "/var/log" lies below the install root.  Absolute
 *               are "//var/log" and "c:/logs".
 *   Errors      Error numbers that reach a caller or a message are the Winsock numbers on every system (CM_E...).
 *   Addresses   IPv4, uint32_t in network order; ports are host order.  Times are seconds since 1970 in uint32_t.
 */
#ifndef TILVARCM_H
#define TILVARCM_H
#include <stdint.h>
#include <stdarg.h>
#ifdef __cplusplus
extern "C" {
#endif

#if defined(__declspec) || !defined(__GNUC__) /* compilers that export by declaration */
#  ifdef TILVARCM_BUILD
#    define CM_API __declspec(dllexport)
#  else
#    define CM_API __declspec(dllimport)
#  endif
#  define CM_CALL __cdecl
#else
#  define CM_API __attribute__((visibility("default")))
#  define CM_CALL
#endif
#if defined(__GNUC__) && defined(__declspec)
#  define CM_PRINTF(text, first) __attribute__((__format__(__gnu_printf__, text, first)))
#elif defined(__GNUC__)
#  define CM_PRINTF(text, first) __attribute__((__format__(__printf__, text, first)))
#else
#  define CM_PRINTF(text, first)
#endif

/* ---------- basic types and constants ---------- */
typedef uintptr_t cm_value;              /* a number or a pointer of the caller's */
#ifdef __cplusplus                       /* the address of an out argument, as a cm_value */
#  define CM_OUT(p) reinterpret_cast<cm_value>(p)
#else
#  define CM_OUT(p) ((cm_value)(p))
#endif
#define CM_LEN_TEXT (-3)

#define CM_FATAL 10
#define CM_ERROR 20
#define CM_WARN  30
#define CM_INFO  40
#define CM_TRACE 50

/* Flags of a context, with the key that sets them ("true" or "false"). */
#define CTX_RESOLVE_NAMES      0x001 /* "Resolve Host Names" */
#define CTX_DIAL_ON_DEMAND     0x002 /* "Dial-On-Demand" */
#define CTX_PERSISTENT_COOKIES 0x004 /* "Persistent Cookies" */
#define CTX_NO_CONFIG          0x008 /* there was no config.ini */
#define CTX_SHUTDOWN           0x010 /* the thread pool was stopped; never cleared */
#define CTX_DYNAMIC_IP_TEST    0x020 /* "Dynamic IP Test" */
#define CTX_LINGER_CLOSE       0x080 /* "Linger Close" */
#define CTX_DIAL_TRACE         0x100 /* "Dial-On-Demand Trace" */
#define CTX_TRACE_PERF         0x200 /* "Trace Performance" */
#define CTX_FLUSH_LOGS         0x400 /* "Flush Logs" */

/* Open flags: the same numbers on every system.  No flag translates line ends. */
#define CM_O_RDONLY 0x0000
#define CM_O_WRONLY 0x0001
#define CM_O_RDWR   0x0002
#define CM_O_APPEND 0x0008
#define CM_O_SEQ    0x0020
#define CM_O_CREAT  0x0100
#define CM_O_TRUNC  0x0200
#define CM_O_EXCL   0x0400
#define CM_O_BINARY 0x8000
#define CM_ACCESS_EXISTS 0
#define CM_ACCESS_WRITE  2
#define CM_ACCESS_READ   4
#define CM_SEEK_START    0
#define CM_SEEK_CURRENT  1
#define CM_SEEK_END      2

/* operations of hash tables, key tables and lists */
#define CM_OP_FIND 1
#define CM_OP_SET 2
#define CM_OP_DELETE 3
#define CM_OP_FIRST 4
#define CM_OP_NEXT 5
#define CM_OP_DELETE_CURRENT 6
#define CM_LIST_ADD 2
#define CM_WALK_REMOVE 1
#define CM_WALK_STOP_OK 2
#define CM_WALK_STOP_FAIL 4


/* ---------- opaque or foreign records ---------- */
typedef struct cm_context cm_context;
typedef struct cm_mem_pool cm_mem_pool;
typedef struct cm_mem_block cm_mem_block;
typedef struct cm_hash cm_hash;
typedef struct cm_hash_entry_rec cm_hash_entry_rec;
typedef struct cm_keytab cm_keytab;
typedef struct cm_key_rec cm_key_rec;
typedef struct cm_list cm_list;
typedef struct cm_list_rec cm_list_rec;
typedef struct cm_mutex cm_mutex;
typedef struct cm_thread cm_thread;
typedef struct cm_tpool cm_tpool;
typedef struct cm_job cm_job;
typedef struct cm_file cm_file;
typedef struct cm_token cm_token;
typedef struct cm_alert cm_alert;
typedef struct cm_alert_ring cm_alert_ring;
typedef struct cm_cron cm_cron;
typedef struct cm_cron_rec cm_cron_rec;
typedef struct cm_cron_fn cm_cron_fn;
typedef struct cm_cache cm_cache;
typedef struct cm_cache_rec cm_cache_rec;
typedef struct cm_net_state cm_net_state;
typedef struct cm_conn cm_conn;          
typedef struct cm_dns_state cm_dns_state;
typedef struct cm_sccs_ctx cm_sccs_ctx;
typedef struct cm_dll_rec cm_dll_rec;

/* ---------- callbacks ---------- */
typedef void    (CM_CALL *cm_destroy_fn)(cm_value value);
typedef int32_t (CM_CALL *cm_hash_visit_fn)(cm_hash *table, cm_value user, cm_hash_entry_rec *entry);
typedef int16_t (CM_CALL *cm_props_callback)(cm_context *ctx, cm_value user, const char *name, const char *value);
typedef int16_t (CM_CALL *cm_thread_fn)(cm_thread *self, cm_value argument);                 /* result ignored */
typedef int16_t (CM_CALL *cm_job_fn)(cm_context *ctx, cm_conn *connection, cm_thread *self, cm_value argument); /* result ignored */
typedef int16_t (CM_CALL *cm_task_fn)(cm_context *ctx, const char *name, cm_value argument); /* 1 = success */
typedef void    (CM_CALL *cm_alert_fn)(cm_context *ctx, const cm_alert *alert);
typedef void    (CM_CALL *cm_cache_free_fn)(void *data);

/* ---------- network constants ---------- */
#define CM_CONN_CLOSED    0x00001   /* closed or failed: every later call returns 0 */
#define CM_CONN_DIALED    0x00020
#define CM_CONN_FILE      0x00040
#define CM_CONN_TLS       0x00080
#define CM_CONN_BUSY      0x00100
#define CM_CONN_DATAGRAM  0x00200
#define CM_CONN_KTIMEOUT  0x00400
#define CM_CONN_GZIP      0x01000
#define CM_CONN_CHUNKED   0x02000
#define CM_CONN_LOOPBACK  0x10000

#define CM_NET_MAX_LISTENERS 31
#define CM_NET_TLS_LOCKS     21
#define CM_NET_IN_SIZE       4096
#define CM_NET_OUT_SIZE      16000
#define CM_NET_STAGE_ALLOC   16064
#define CM_NET_STAGE_USED    15936

#define CM_NTRACE_NONE      0
#define CM_NTRACE_OPENCLOSE 1
#define CM_NTRACE_PACKETS   2
#define CM_NTRACE_SSL       3
#define CM_NTRACE_STREAM    4

/* error numbers that callers see, on every target */
#define CM_EINTR        10004
#define CM_EACCES       10013
#define CM_EINVAL       10022
#define CM_EMFILE       10024
#define CM_EWOULDBLOCK  10035
#define CM_EINPROGRESS  10036
#define CM_ENOTSOCK     10038
#define CM_EMSGSIZE     10040
#define CM_EADDRINUSE   10048
#define CM_EADDRNOTAVAIL 10049
#define CM_ENETUNREACH  10051
#define CM_ECONNABORTED 10053
#define CM_ECONNRESET   10054
#define CM_ENOTCONN     10057
#define CM_ESHUTDOWN    10058
#define CM_ETIMEDOUT    10060
#define CM_ECONNREFUSED 10061
#define CM_EHOSTUNREACH 10065

#define CM_INADDR_NONE 0xFFFFFFFFu

typedef intptr_t cm_socket;                  /* -1 = none; wide enough for SOCKET */
typedef struct cm_poll_entry cm_poll_entry;
typedef struct cm_net_notice cm_net_notice;

/* ---------- context and start-up ----------
 * One context per process holds the settings, the log and what the facilities keep; nearly every function takes it.
 * The comment beside a field gives its default and the key of section "common" of config.ini that sets it.  Settings are
 * read once, at the start, and not written afterwards.  An empty text in the file is stored as null. */
#define CM_PERF_COUNTERS 13
struct cm_context {
    int32_t     thread_serial;           /* number of the next thread */
    int32_t     idle_threads;            /* 10, "Idle Threads": 1 and 2 become 3, below 1 fails */
    int32_t     error_depth;             /* nesting of cm_raise_error */
    int32_t     log_size;                /* 10000, "Log Size": lines after which the log starts over; 0 = never */
    uint32_t    flags;                   /* CTX_LINGER_CLOSE and CTX_TRACE_PERF */
    int32_t     net_trace_level;         /* CM_NTRACE_NONE, "Network Trace Level": NONE OPENCLOSE PACKETS SSL STREAM */
    int32_t     trace_level;             /* CM_INFO, "Trace Level": FATAL ERROR WARN INFO TRACE */
    int32_t     throttle_ips;            /* 0, "Throttle IPs": connections from one address, 0 = any number */
    int32_t     max_connections;         /* 300, "Maximum Connections" */
    int32_t     max_threads;             /* 200, "Maximum Threads" */
    int32_t     net_read_timeout;        /* 180, "Network Read Timeout", seconds */
    double      start_time;              /* seconds since 1970 */
    const char *config_dir;              /* "config", or the folder given to cm_ctx_init */
    const char *root_dir;                /* install root, "/"-separated, without a "/" at its end */
    int32_t     root_len;
    const char *log_dir;                 /* "log", "Log Directory" */
    const char *tmp_dir;                 /* "tmp", "Tmp Directory" */
    const char *net_log_file;            /* "network.log", "Network Log File" */
    const char *cookie_tag;              /* "RCuid", "Cookie Tag" */
    int32_t     cookie_tag_len;
    int32_t     bind_address_len;
    const char *bind_address;            /* null, "Force IP Bind" */
    int32_t     dial_timeout;            /* 300, "Dial-On-Demand Timeout" */
    int32_t     dial_busy_timeout;       /* 300, "Dial-On-Demand Busy Timeout" */
    const char *dial_entry;              /* null, "Dial-On-Demand Entry" */
    int32_t     dial_entry_len;
    const char *dial_user;               /* null, "Dial-On-Demand User" */
    int32_t     dial_user_len;
    const char *dial_password;           /* null, "Dial-On-Demand Password" */
    int32_t     dial_password_len;
    const char *cipher_phrase;           /* "Public Key": phrase of the two-way cipher */
    const char *ntp_server;              /* null, "NTP Server" */
    const char *ntp_cron;                /* null, "NTP Cron" */
    const char *ca_cert_file;            /* null, "CA Certificate File" */
    const char *key_file;                /* "key.pem", "Private Key File" */
    const char *cert_file;               /* "cert.pem", "Certificate File" */
    int32_t     cache_flush_interval;    /* 0, "Cache Flush Interval" */
    int32_t     max_cached_file;         /* 0, "Maximum Cached File", bytes */
    int32_t     file_cache_size;         /* 0 = no file cache, "File Cache Size", bytes */
    int32_t     cache_stat_interval;     /* 0, "Cache Stat Interval" */
    int32_t     cache_dns_interval;      /* 0, "Cache DNS Interval" */
    cm_cache   *file_cache;
    int32_t     aux_timeout;             /* 180; no key, the library does not use it */
    int32_t     sched_task_timeout;      /* 300, "Scheduler Task Timeout", seconds */
    cm_alert_ring *alert_table;
    cm_alert_fn alert_handler;           /* the host's, may be set after the start */
    cm_dns_state *dns;
    cm_sccs_ctx *sccs;
    cm_dll_rec *dll_list;                /* libraries loaded at run time */
    cm_file    *log_file;
    cm_mutex   *log_mutex;
    cm_file    *net_log;
    cm_mutex   *net_log_mutex;
    cm_net_state *net_table;
    cm_mutex   *thread_mutex;
    cm_hash    *thread_table;
    cm_thread  *thread_spare;
    cm_mutex   *file_mutex;
    cm_mem_pool *thread_pool_mem;
    cm_mem_pool *common_pool;
    /* hidden */
    cm_cron    *cron;                    /* scheduler */
    void       *ras;                     /* dial-up line */
    cm_file    *file_free;               /* free file handles, under file_mutex */
    int32_t     file_open;               /* open file handles, under file_mutex */
    void       *cipher;                  /* keys of the two-way cipher */
    cm_cron    *cron_states;             /* every scheduler of this start */
    void       *reserved[10];
    /* by hour, minute, counter; the counters fill the block to its end */
    uint32_t    perf[24][60][CM_PERF_COUNTERS];
};

/* Starts the library, once per process.  Every successful call is matched by one cm_ctx_exit.
 *   out_ctx      the context; null after a failure
 *   config_dir   folder of config.ini, below the install root unless absolute; null: "config"
 *   log_name     the log's name in the log folder.  A name that ends in ".log" keeps one older log, which ends in "old".
 *   setup        not 0: a missing configuration is told on the standard error stream, and the configuration and the
 *                temporary folder are made when they are missing (the log folder always is)
 *   out_already  1: it was started already; the call only counts, its other arguments are not looked at
 * The install root is the environment variable TVHOME, else the working folder, less one of "/bin", "\bin", "\devbin"
 * and "/linux" at its end.  Without config.ini (CTX_NO_CONFIG) log and temporary files go to the folder that TEMP or TMP
 * names.  Up to the opening of the log, messages go to the standard error stream after "Tilvar Server Error: ".
 * Result: 0 when a setting is bad or a step failed; nothing is left behind then.
 * From then on SIGABRT ends the process at once with status -1. */
CM_API int16_t CM_CALL cm_ctx_init(cm_context **out_ctx, const char *config_dir, const char *log_name, int16_t setup, int32_t *out_already);

/* Gives back one start; the last one ends the threads of the library (those that do not end when asked are stopped after
 * two seconds), closes everything and frees the context.  Stop the network first (cm_net_exit).  Result: 0 when `ctx` is
 * null or nothing was started. */
CM_API int16_t CM_CALL cm_ctx_exit(cm_context *ctx);

/* The started context.  Result: 0 when there is none; `out_ctx` is left alone then. */
CM_API int16_t CM_CALL cm_ctx_global(cm_context **out_ctx);

/* Adds to a counter of the current local hour and minute, without a lock.  The library uses counter 0 (connections), 1
 * (bytes received) and 2 (bytes sent); 3 to 12 are the servers'.  A task clears each hour before it comes round again.
 * Result: 0 when nothing was counted: CTX_TRACE_PERF is off, no clock, outside the table. */
CM_API int16_t CM_CALL cm_perf(cm_context *ctx, int32_t counter, uint32_t amount);

/* Handlers of the library's own, exported for hosts that drive them themselves: one entry of section "common", the
 * hourly task that clears the counters of the coming hour, the abort signal. */
CM_API int16_t CM_CALL cm__prop_load(cm_context *ctx, cm_value user, const char *key, const char *value);
CM_API int16_t CM_CALL cm__perf(cm_context *ctx, const char *name, cm_value argument);
CM_API void    CM_CALL cm__abort(int signal_number);

/* ---------- log, errors, alerts ---------- */
/* One line to the log of the process: date and time, the level's name, the text, as long as they fit into 992 bytes
 * together; a line feed is added unless the cut text ends with one.  Lines above the context's trace level are dropped.
 * With a null context the started one is used; without any, and until the log is open, the text goes to the standard
 * error stream.  After "Log Size" lines the log overwrites itself from the top. */
CM_API void    CM_CALL cm_log(cm_context *ctx, int32_t level, const char *text, int32_t length);

/* A digest of a file in the log: the heading with date and time, then each 1024 bytes of the file as one line, cut as
 * above.  Other threads' lines may come between. */
CM_API void    CM_CALL cm_logfile(cm_context *ctx, const char *heading, const char *path);

/* One line to a log file.  Lines gather in the file's buffer of 1024 bytes and go out together.
 *   length      0 and below: nothing is added, and with mode 1 what has gathered goes out
 *   size_limit  after so many lines the file is overwritten from its start, without being cut; 0: never
 *   mutex       held over the call; null: the caller sees to it
 *   mode        sum of 1: write at once, 2: date, time and a blank first (they are not part of the 992 bytes)
 * Result: 0 when the file is not open; a failed write is not told.  With a null file the text goes to the standard
 * error stream and the result is 0. */
CM_API int16_t CM_CALL cm_lwrite(cm_file *file, const char *text, int32_t length, int32_t size_limit, cm_mutex *mutex, int32_t mode);

/* Renames an open log file `name` to `old_name`, both in the log directory, and goes on with an empty one.  Lines still
 * in the buffer reach the new file: cm_lwrite with length 0 and mode 1 writes them to the old one before.
 *   old_name  null: the old lines are given up
 *   compress  1: the old file becomes a gzip file of the same name
 * Result: 1, or 0 when something was not done.  A log that could not be renamed goes on as it is.  A log whose new file
 * cannot be opened takes no more lines, and cm_fclose gives its handle back. */
CM_API int16_t CM_CALL cm_lrotate(cm_file *file, cm_mutex *mutex, const char *name, const char *old_name, int16_t compress);

/* Opens a log file of the log directory.  An existing "x.log" is renamed to "x.old" before, unless the flags are exactly
 * CM_O_CREAT | CM_O_APPEND | CM_O_RDWR. */
CM_API int16_t CM_CALL cm_fopenl(cm_context *ctx, const char *name, int32_t open_flags, cm_file **out_file);

/* For the caller's own failures.  cm_raise_error logs a text with its place in the source; 0: it was called from within
 * itself more than five times.  cm_return_trace gives `status` back and logs the place when it is 0, so that
 * `return cm_return_trace(status, __FILE__, __LINE__)` leaves a trail. */
CM_API int16_t CM_CALL cm_raise_error(cm_context *ctx, const char *source_file, int32_t source_line, const char *text);
CM_API int16_t CM_CALL cm_return_trace(int16_t status, const char *where, int32_t line);

/* What the context's `alert_handler` is given; it lives as long as that call. */
struct cm_alert {
    const char *timestamp;   /* as cm_timestamp writes it */
    const char *category;    /* its name */
    const char *subject;
    const char *message;     /* in full */
    int32_t     connections; /* open now */
    int32_t     threads;     /* in the thread table now */
};
#define CM_ALERT_SLOTS 200
typedef struct cm_alert_slot {
    uint32_t time;
    int32_t  category;
    char     subject[64];    /* not terminated after a shorter text: the rest is an older alert's */
    char     message[256];
} cm_alert_slot;
struct cm_alert_ring {
    cm_mutex      *mutex;    /* guards the rest */
    cm_context    *ctx;
    int32_t        last;     /* 1-based slot of the newest, 0 for none */
    int32_t        count;    /* filled slots */
    cm_alert_slot  slot[CM_ALERT_SLOTS];
};

/* The last 200 alerts, from cm_alerts_init (which start-up calls) to cm_alerts_exit.  cm_alert_notify keeps the first 63
 * and 255 bytes of subject and message, then calls the handler on the same thread, without a lock; a handler that raises
 * alerts itself is called for those, too, up to five deep.
 *   category  1 Networking, 2 SMTP, 3 POP3, 4 IMAP4, 5 Mail Router, 6 HTTP, 7 FTP, 8 DBMS, 9 DHCP, 10 DNS,
 *             11 Alert Daemon, else Undefined
 * An application sets the handler in the context; cm_alert_register and cm_alert_deregister do nothing and give 1. */
CM_API int16_t CM_CALL cm_alerts_init(cm_context *ctx);
CM_API int16_t CM_CALL cm_alerts_exit(cm_context *ctx);
CM_API int16_t CM_CALL cm_alert_register(cm_context *ctx, ...);
CM_API int16_t CM_CALL cm_alert_deregister(cm_context *ctx, ...);
CM_API void    CM_CALL cm_alert_notify(cm_context *ctx, int32_t category, const char *subject, const char *message);

/* ---------- memory pools ----------
 * Pieces cut off large zeroed blocks and given back all at once: for what lives as long as a table, a parsed file or
 * the library.  A piece is zeroed, aligned to 16 bytes and rounded so that it and four bytes of guard fill a multiple of
 * 32.  A pool has no lock: it belongs to one thread, or to the lock of the structure that owns it.
 * A handle or block that is not intact is reported ("... The memory handle provided is invalid.") and the call fails.
 */
#define CM_POOL_MAGIC 0xAAA1u
#define CM_POOL_GONE  0x9990u
#define CM_BLOCK_MAGIC 0xBACEu
#define CM_GUARD 0xDEADu
struct cm_mem_block {        /* exactly 32 bytes, the payload follows; what is not named here is zero */
    uint32_t size, used, magic;
    uint32_t pad0;
    cm_mem_block *next;      /* older block */
    unsigned char pad1[32 - 16 - sizeof(void *)];
};
struct cm_mem_pool {
    uint32_t       magic;
    cm_mem_block  *current;      /* newest block */
    uint32_t       block_size;   /* payload of a block; grows to the largest piece asked for */
    uint32_t       used;         /* of the current block */
    uint32_t       total;        /* bookkeeping for `limit`, wraps */
    uint32_t       limit;        /* 0: none */
    unsigned char *payload;      /* of the current block */
    cm_context    *owner;        /* whose log hears of failures; null: the started context's */
};
/* Makes and releases a pool.
 *   block_size   payload bytes of a block, rounded as pieces are; 0 fails.  A larger request raises it for all later
 *                blocks.  8 to 32 KB serve tables and larger pieces best, 1 KB a handful of short texts.
 * A pool may be released once; the second time is reported and fails.  Blocks that a thread releases may wait, up to
 * 256 KB, for the next pool. */
CM_API int16_t CM_CALL cm_mem_init(cm_context *ctx, cm_mem_pool **out_pool, uint32_t block_size);
CM_API int16_t CM_CALL cm_mem_exit(cm_mem_pool *pool);
/* A piece of at least `size` bytes, or null: no memory, bad handle, or `size` 0 (silently).  Without a pool it is the
 * standard allocator's, not zeroed, and only then does cm_mem_free give something back; cm_mem_free is always 1. */
CM_API void *  CM_CALL cm_mem_alloc(cm_mem_pool *pool, uint32_t size);
CM_API int16_t CM_CALL cm_mem_free(cm_mem_pool *pool, void *piece);
/* Copies a text into the pool, terminated.  An empty or null text is stored as null, with length 0, and succeeds. */
CM_API int16_t CM_CALL cm_mem_savestr(cm_mem_pool *pool, const char *text, int32_t length, char **out_text, int32_t *out_length);
/* Copies a text into the pool, with pairs of upper-case hexadecimal digits turned into bytes and everything else as it
 * is.  A capital A to F in second place gives twice its value and drops the first digit (4A: 0x14); anything else after
 * a first digit, and an empty text, fails.  Null text: null, 1.  out_length counts whole bytes. */
CM_API int16_t CM_CALL cm_mem_savebin(cm_mem_pool *pool, const char *text, int32_t length, unsigned char **out_bytes, int32_t *out_length);
/* Makes a new block current; what is left of the old one is abandoned.  cm_mem_alloc calls it by itself. */
CM_API int16_t CM_CALL cm__mem_getblock(cm_mem_pool *pool);

/* ---------- hash tables ----------
 * Byte strings of any content and length to a cm_value, chained, in a pool or (pool null) on the standard allocator.
 * In a pool, removed entries are kept with their key buffers and used again.  Keys are copied and compared byte by byte,
 * letter case included; keys of exactly 4 bytes are hashed as one number.  A table has no lock.  Choose a prime of about
 * the number of entries as the bucket count: chains do not shrink by themselves.
 */
struct cm_hash_entry_rec {
    int32_t            key_length;
    char              *key;        /* terminated */
    cm_value           value;
    cm_hash_entry_rec *next;
    cm_hash_entry_rec *previous;   /* as it was when the entry was linked in; stale after a cm_hash_walk that removes */
    /* hidden */
    int32_t            capacity;   /* longest key that fits the buffer */
    uint32_t           hash;
};
struct cm_hash {
    int32_t             key_min;   /* smallest key buffer to make, 0 at first; may be set at any time */
    uint32_t            buckets;
    int32_t             entries;
    int32_t             spare;
    uint32_t            cursor_bucket[4];
    cm_hash_entry_rec  *cursor_entry[4];
    cm_hash_entry_rec  *free_list;
    cm_mem_pool        *pool;
    cm_hash_entry_rec **heads;     /* buckets + 1 */
    cm_context         *owner;
    /* hidden */
    uint64_t            reciprocal;
    void               *walks;     /* the walks under way */
};
CM_API int16_t CM_CALL cm_hash_alloc(cm_context *ctx, cm_mem_pool *pool, uint32_t buckets, cm_hash **out_table);
/* Calls `destroy` (null: none) with every value, then frees the table; cm_hash_clear keeps it, empty.  A table in a pool
 * that is freed without `destroy` is left alone, values and all: the pool's release takes it. */
CM_API int16_t CM_CALL cm_hash_free(cm_hash *table, cm_destroy_fn destroy);
CM_API int16_t CM_CALL cm_hash_clear(cm_hash *table, cm_destroy_fn destroy);
/* One operation; an unknown number is 0.
 *                            key                              value
 *   CM_OP_FIND               the key                          CM_OUT(cm_value *): the value, 0 when there is none
 *   CM_OP_SET                the key                          the value
 *   CM_OP_DELETE             the key                          CM_OUT(cm_value *): the value that was stored
 *   CM_OP_FIRST, CM_OP_NEXT  const int32_t *, a cursor 0-3    CM_OUT(cm_hash_entry_rec **): the entry, null at the end
 *   CM_OP_DELETE_CURRENT     the same                         CM_OUT(cm_value *): the value of the removed entry
 * A null cursor, or one out of range, is cursor 0; an out value may be 0.  The first three fail when there is no such key
 * (CM_OP_SET: no memory) and, with a message, for a length below 1.  A walk by cursor is CM_OP_FIRST, then CM_OP_NEXT
 * until the entry is null; a step beyond that fails with a message.  Entries may be removed during a walk, the current
 * one included, which goes on with the entry that followed - except after removing the first entry of bucket 0: then the
 * rest of that bucket is passed over.  Two threads need two cursors and the owner's lock. */
CM_API int16_t CM_CALL cm_hash_entry(cm_hash *table, int32_t operation, const void *key, int32_t key_length, cm_value value);
/* Calls `visit` for every entry; its result says what next: any of CM_WALK_REMOVE (take the entry out, without lowering
 * `entries` and without a destroy call), CM_WALK_STOP_OK (end, result 1), CM_WALK_STOP_FAIL (end, result 0).  `visit` may
 * change the table, the current entry included. */
CM_API int16_t CM_CALL cm_hash_walk(cm_hash *table, cm_value user, cm_hash_visit_fn visit);

/* ---------- threads, mutexes, thread pool ---------- */
/* A record is in the context's thread table while its thread runs and is used again for later ones; it is valid until
 * its thread has ended. */
struct cm_thread {
    int32_t      serial;       /* 0 to 999998, then 0 again */
    int32_t      jobs;         /* that a pool worker has run: up to 999999, then 1 again */
    cm_value     table_key;    /* address of the handle cell; its bytes are the key in the table */
    const char  *label;        /* kept */
    cm_value     argument;     /* pool worker: connection of the running job, or 0 */
    cm_value    *handle;       /* separately allocated cell with the system's thread */
    cm_thread_fn function;
    cm_context  *ctx;
    cm_thread   *next;         /* on the list of spare records */
    int32_t      state;        /* hidden: who gives the record back */
};
struct cm_mutex {
    int32_t     kind;          /* 1 */
    void       *object;
    cm_context *ctx;
};
struct cm_job {
    cm_job     *next;
    cm_value    argument;
    cm_conn    *connection;
    const char *label;
    cm_job_fn   function;
    uint32_t    serial;        /* hidden: the connection's when it was queued */
};
/* All but the fixed fields is guarded by `lock`. */
struct cm_tpool {
    int32_t       busy;        /* workers that run a job */
    int32_t       busy_peak;
    int32_t       workers;
    int32_t       max_workers;
    cm_job       *queue_head;
    cm_job       *queue_tail;
    cm_job       *job_spare;
    cm_mutex     *lock;        /* null once the pool is closed */
    cm_net_state *net;
    cm_mem_pool  *pool;
    cm_context   *ctx;
    void         *wake;        /* auto-reset event "Tilvar Thread Pool" */
    void         *crew;        /* hidden: what the workers share */
    int32_t       submitters;  /* hidden: calls of cm_tpool_exec in progress */
};

/* Starts a thread that calls function(record, argument).  A null context keeps it out of any table.  0 also when the
 * table holds "Maximum Threads" threads and no spare record is left.  `out_thread` is set before the thread starts.
 *
 * cm_terminate_thread asks a thread to end, which makes its waits in this library come back at once, gives it two
 * seconds, then stops it for good where it holds none of the library's locks; what it had open stays open.  0: it could
 * not be stopped.  A thread that names itself is only asked.
 *
 * cm_free_threads does that to all threads of the table but the caller's, with two seconds for all of them, and frees
 * the records of those that ended.  Their entries stay in the table, with the value 0.  0: one of them still runs.
 *
 * cm_waitfor_threads waits up to 45 seconds for the table to be empty.  1: it is. */
CM_API int16_t CM_CALL cm_create_thread(cm_context *ctx, cm_thread_fn function, cm_value argument, const char *label, cm_thread **out_thread);
CM_API int16_t CM_CALL cm_terminate_thread(cm_thread *thread);
CM_API int16_t CM_CALL cm_free_threads(cm_context *ctx);
CM_API int16_t CM_CALL cm_waitfor_threads(cm_context *ctx);

/* In-process locks; the thread that holds one may take it again.  Delete one only when nobody holds or awaits it. */
CM_API int16_t CM_CALL cm_create_mutex(cm_context *ctx, cm_mutex **out_mutex);
CM_API int16_t CM_CALL cm_take_mutex(cm_mutex *mutex);
CM_API int16_t CM_CALL cm_release_mutex(cm_mutex *mutex);
CM_API int16_t CM_CALL cm_delete_mutex(cm_mutex *mutex);

/* A pool starts with the context's `idle_threads` workers, takes on another one with each job that comes while three or
 * fewer are idle, up to max_workers, and lets them go when the load is over.  Its memory comes from `pool`, which nobody
 * else may use during the call and which must live until the workers have ended.
 *
 * cm_tpool_exec hands over a job, and with it the connection: it is closed after function(ctx, connection, record,
 * argument), and at once when the job is refused.
 *   connection, argument  not null and not 0: such a job is dropped, and each costs one of the pool's 500 records for good
 *   label                 of the thread while it runs the job; kept
 * 0: 500 jobs wait and run already, or no worker is left.
 *
 * cm_tpool_exit sets CTX_SHUTDOWN, which is never cleared: there is one pool per start of the library.  Idle workers
 * leave, busy ones after their job (cm_waitfor_threads waits for them); connections of jobs that still wait are closed. */
CM_API int16_t CM_CALL cm_tpool_init(cm_context *ctx, cm_net_state *net, cm_mem_pool *pool, int32_t max_workers, cm_tpool **out_tpool);
CM_API int16_t CM_CALL cm_tpool_exec(cm_tpool *tpool, cm_conn *connection, cm_value argument, const char *label, cm_job_fn function);
CM_API int16_t CM_CALL cm_tpool_exit(cm_tpool *tpool);

/* ---------- token scanning ----------
 * Scans a text in memory - request lines, header values, attribute lists - without copying: the caller fills a scanner,
 * each call moves its position, and tokens come back as pointers into the caller's text.  White space, letters and
 * digits are those of ASCII.  A scanner whose position is negative or behind its length fails every call.
 */
struct cm_token {
    int32_t     position;    /* the next character to examine */
    int32_t     length;      /* of the text */
    const char *text;        /* need not be terminated */
};
/* The next token: a run up to white space (left in place; with comma_mode a comma counts as white space) or one of the
 * delimiters = ! % > < ( ), each a token by itself; or what stands between two quotes " or two apostrophes ' (nothing is
 * unescaped, the length may be 0).  When nothing but white space is left: 1 with length 0 and out_text untouched.
 * Fails at the end, for an unterminated quote, and for a token longer than max_length (which is then passed). */
CM_API int16_t CM_CALL cm_token_get(cm_token *scanner, int16_t comma_mode, const char **out_text, int32_t max_length, int32_t *out_length);
/* Takes tokens (comma mode, at most 255 long) until one equals `word`, letter case included. */
CM_API int16_t CM_CALL cm_token_find(cm_token *scanner, const char *word, int32_t length);
/* Index in the text of the next `ch`; the position does not move.  cm_token_strchr: 0 and index 0 when there is none.
 * cm_token_findchr: 0 when stop_ch comes first, but 1 with the text's length when neither comes. */
CM_API int16_t CM_CALL cm_token_strchr(cm_token *scanner, char ch, int32_t *out_index);
CM_API int16_t CM_CALL cm_token_findchr(cm_token *scanner, char ch, char stop_ch, int32_t *out_index);
/* The value behind `name`, which is found in any letter case and anywhere, also inside a word, but not at the very end.
 * A value in quotes ends at the quote (not consumed), any other at the end of the line, blanks and semicolons included.
 *   out_value   caller's storage, max_value bytes; always terminated
 *   max_value   a value needs room for one byte more than it has, else the call fails */
CM_API int16_t CM_CALL cm_token_findval(cm_token *scanner, const char *name, int32_t length, char *out_value, int32_t max_value, int32_t *out_length);
/* Whether `word` is an item of a list separated by blanks and commas (not tabs). */
CM_API int16_t CM_CALL cm_token_inlist(const char *list, int32_t list_length, const char *word, int32_t word_length, int16_t case_sensitive);
/* The next run of letters, digits and `extra_chars` (null: none) behind white space.  Fails for an empty run and one
 * longer than max_length. */
CM_API int16_t CM_CALL cm_alnum_get(cm_token *scanner, const char *extra_chars, const char **out_text, int32_t max_length, int32_t *out_length);

/* ---------- key tables and lists ----------
 * Two containers for small sets, in a pool or (pool null) on the standard allocator.  A key table maps byte strings to
 * cm_values by linear search; with a `lock` (kept, may be null) each operation holds it.  A list is a push-only stack of
 * cm_values, read newest first through four independent cursors; it has no lock.
 */
struct cm_key_rec {
    int32_t     key_length;
    char       *key;         /* terminated; null when it is empty */
    cm_value    value;
    cm_key_rec *next;
    cm_key_rec *previous;
};
struct cm_keytab {
    cm_key_rec  *head;       /* newest entry */
    cm_key_rec  *spare;      /* removed entries, to be used again */
    cm_mem_pool *pool;
    cm_mutex    *lock;
    cm_context  *owner;
};
struct cm_list_rec {
    cm_value     spare;
    cm_value     value;
    cm_list_rec *next;       /* older entry */
};
struct cm_list {
    int32_t      count;
    cm_list_rec *cursor[4];  /* the entry to read next */
    cm_list_rec *head;       /* newest entry */
    cm_mem_pool *pool;
    cm_context  *owner;
};
CM_API int16_t CM_CALL cm_key_alloc(cm_context *ctx, cm_mem_pool *pool, cm_mutex *lock, cm_keytab **out_keytab);
CM_API int16_t CM_CALL cm_list_alloc(cm_context *ctx, cm_mem_pool *pool, cm_list **out_list);
/* Calls `destroy` with every value, then frees the container.  In a pool and without `destroy`: nothing, and 1. */
CM_API int16_t CM_CALL cm_key_free(cm_keytab *keytab, cm_destroy_fn destroy);
CM_API int16_t CM_CALL cm_list_free(cm_list *list, cm_destroy_fn destroy);
/* CM_OP_FIND (value: CM_OUT, 0 when there is none), CM_OP_SET (the value) or CM_OP_DELETE (CM_OUT or 0).  Any byte string
 * is a key, the empty one included.  0: no such key, no memory, lock failed, unknown operation; never a message. */
CM_API int16_t CM_CALL cm_key_entry(cm_keytab *keytab, int32_t operation, const char *key, int32_t key_length, cm_value value);
/* CM_LIST_ADD (the value, cursor ignored), CM_OP_FIRST or CM_OP_NEXT (CM_OUT: the value the cursor, 0 to 3, reads).
 * 0: the end, which leaves the out value alone; cursor out of range; no memory; unknown operation. */
CM_API int16_t CM_CALL cm_list_entry(cm_list *list, int32_t operation, int32_t cursor, cm_value value);

/* ---------- configuration files ---------- */
/* Sectioned text, line by line (at most 1024 bytes each; empty lines and white space do not matter):
 *     # a comment: whole lines only
 *     [section]            anything behind the "]" is ignored; names of up to 255 bytes, compared without case
 *     name = value         up to 255 and 1024 bytes, trimmed; the value is taken verbatim, quotes and "#" included
 * The separator is the first "=" outside double quotes, which stay part of the name.  On a line that is indented by n
 * bytes the last n bytes are not searched for it.  No escapes, no continuation; sections and names may occur twice.
 * Callers serialise the changes to one file. */
typedef struct cm_prop_entry {
    int32_t     name_length;
    int32_t     value_length;   /* <= 0: no value, an empty one is written */
    const char *name;           /* both NUL-terminated as well: the lengths match, the texts are printed */
    const char *value;
} cm_prop_entry;

/* Hands every entry of every section of that name to `callback`, in the order of the file.  A relative `file` is below
 * the configuration directory.  Result 1 also when there is no such section; 0: no such file, a malformed line, or a
 * callback that returned anything but 1 (what was handed out before stays handed out). */
CM_API int16_t CM_CALL cm_props_load(cm_context *ctx, const char *file, const char *section, int32_t section_len, cm_value user, cm_props_callback callback);

/* The same step by step: the next section, then its entries or its lines until `found` is 0, then the next section.
 *   name    256 bytes                 found   1: there was one; 0: the section or the file has ended;
 *   value   1025 bytes                        -1: error, the result is 0 and the log says why
 *   line    1025 bytes: trimmed, and of at least two bytes (a shorter one is an error)
 * Lines outside sections, and in sections that are skipped, may hold anything. */
CM_API int16_t CM_CALL cm_next_section(cm_file *file_handle, char *name, int32_t *found);
CM_API int16_t CM_CALL cm_next_entry(cm_file *file_handle, char *name, char *value, int32_t *found);
CM_API int16_t CM_CALL cm_next_line(cm_file *file_handle, char *line, int32_t *found);

/* Changes of one section or one entry.  `file` and `backup` are paths as they are.  The new version is made beside the
 * file and takes its place in one step, so that there is a complete file at every moment; the version before is then
 * found as `backup`.  On failure both are as they were.  Empty lines get lost, everything else outside the change stays.
 * Refused, with nothing touched: line feeds in names and values, entry names that begin with "[", `backup` equal to
 * `file`, and (but for cm_update_section) lines that the reader could not read.
 *
 * cm_delete_section takes a section away, head, comments and all; cm_replace_section gives it these entries alone;
 * cm_update_section changes those of its entries that are named, and adds none.  Where the file has no such section the
 * last two append it.  A section of the same name that directly follows the treated one is left alone, any other is
 * treated too.  Lines are written "name = value \n".  cm_replace_section puts an empty line before every head and after
 * the new entries.  An entry of over 255 bytes of name stops cm_update_section half-way: result 0, the part done so far
 * as `file` and the whole as `backup`. */
CM_API int16_t CM_CALL cm_delete_section(cm_context *ctx, const char *file, const char *backup, const char *section, int32_t section_len, int32_t *deleted);
CM_API int16_t CM_CALL cm_update_section(cm_context *ctx, const char *file, const char *backup, const char *section, int32_t section_len, const cm_prop_entry *entries, int32_t count);
CM_API int16_t CM_CALL cm_replace_section(cm_context *ctx, const char *file, const char *backup, const char *section, int32_t section_len, const cm_prop_entry *entries, int32_t count);
/* Entries, in every section of that name: only those written as the name, one blank and "=".  cm_update_entry takes them
 * away and writes "name = value" as the first line of the first such section, which it appends where there is none. */
CM_API int16_t CM_CALL cm_delete_entry(cm_context *ctx, const char *file, const char *backup, const char *section, const char *name, int32_t *deleted);
CM_API int16_t CM_CALL cm_update_entry(cm_context *ctx, const char *file, const char *backup, const char *section, const char *name, const char *value);

/* ---------- files and directories ---------- */

/* An open file: a file of the system, a file served from the cache, or a text in memory; reading looks the same for all.
 * Handles are the library's: a caller reads their fields and passes them on. */
struct cm_file {
    cm_file      *next;
    const char   *buffer;        /* data being read */
    char         *own_buffer;    /* 1025 bytes */
    char         *push_back;     /* 1024 bytes, of the configuration reader */
    cm_cache_rec *cache_entry;   /* the cached file that `buffer` reads, kind 2 */
    cm_context   *ctx;
    int32_t       descriptor;    /* -1: none */
    int32_t       read_offset;
    int32_t       available;     /* bytes not yet read in `buffer` */
    int32_t       total;         /* bytes of all the data, kinds 2 and 3 */
    uint32_t      position;      /* bytes consumed by reads */
    int32_t       lines;         /* lines read, empty ones too; of a log: written since it was opened or last wrapped */
    int32_t       name_length;   /* of the whole path, uncut */
    char          name[256];     /* cut to 255 */
    int32_t       kind;          /* 1 file, 2 cached, 3 memory, 0 closed */
    int32_t       eof;
    int32_t       push_length;
    /* hidden */
    int32_t       open_mark;     /* 1 while open; 0 also for a log that could not be reopened by a rotation */
    int32_t       fill;          /* bytes waiting in own_buffer to be written (log files) */
};
/* Times in seconds; a size of 4 GiB or more is shown as UINT32_MAX. */
typedef struct cm_stat_rec { uint32_t index, mode, size, mtime, ctime, atime; } cm_stat_rec;
/* kind: 1 end of the listing, 2 folder, 3 regular file, 5 anything else or what cannot be examined */
typedef struct cm_dirent { int32_t kind; uint32_t mode; uint32_t links; uint32_t size; uint32_t mtime; char name[260]; } cm_dirent;
typedef struct cm_dir  { void *search; int32_t path_length; char path[260]; int32_t have_first; void *find_record; } cm_dir;
typedef struct cm_glob { int32_t path_length; char path[260]; void *search; int32_t have_first; void *find_record; } cm_glob;

/* Opening.  `ctx` may be null: then the handle comes from the heap and the cache is not asked.  Every cm_fopen... is
 * paired with cm_fclose; a second close of a context's handle returns 0.  Folders, pipes and sockets do not open.
 *   cm_fopen    flags: CM_O_...; anything but CM_O_SEQ with or without CM_O_BINARY makes the cache forget its copy
 *   cm_fopenc   served from the cache when it has or takes the file; fails when the cache finds the file gone
 *   cm_fopens   reads `text` (kept, length or -3) in place; `name` is for messages
 *   cm_fclose   0 as well when something written could not be brought out; the handle is closed all the same, unless it
 *               was a cached file whose cache refused */
CM_API int16_t CM_CALL cm_fopen(cm_context *ctx, const char *path, int32_t flags, cm_file **handle_out);
CM_API int16_t CM_CALL cm_fopenc(cm_context *ctx, const char *path, int32_t flags, cm_file **handle_out);
CM_API int16_t CM_CALL cm_fopens(cm_context *ctx, const char *name, const char *text, int32_t length, cm_file **handle_out);
CM_API int16_t CM_CALL cm_fclose(cm_file *handle);

/* Reading and writing.  The end of the file is a success with nothing got; a file that cannot be read fails.
 *   cm_fread    got: bytes stored, below `count` only at the end
 *   cm_fgetl    the next line that is not empty, without its line feed (a carriage return before it stays), terminated.
 *               `line` has size + 1 bytes.  A longer line fails, or with allow_long set is cut; full_length is its whole
 *               length
 *   cm_fwrite   files of the system only.  A write that stops half way is a success: compare `written`
 *   cm_lseek    whence: CM_SEEK_...  In a file of the system CM_SEEK_CURRENT counts from where the descriptor stands, up
 *               to 1024 bytes ahead of the reader, and after CM_SEEK_END cm_fgetl reads no more until a seek from the
 *               start.  In cached files and texts only CM_SEEK_START works
 *   cm_hexwrite 16 bytes a line: offset, hexadecimal bytes, characters; `mutex` may be null, else it is held meanwhile */
CM_API int16_t CM_CALL cm_fread(cm_file *handle, void *buffer, int32_t count, int32_t *got);
CM_API int16_t CM_CALL cm_fgetl(cm_file *handle, int16_t allow_long, char *line, int32_t size, int32_t *got, int32_t *full_length);
CM_API int16_t CM_CALL cm_fwrite(cm_file *handle, const void *data, int32_t length, int32_t *written);
CM_API int16_t CM_CALL cm_lseek(cm_file *handle, int32_t offset, int32_t whence);
CM_API int16_t CM_CALL cm_hexwrite(cm_file *handle, cm_mutex *mutex, const void *data, int32_t length);

/* What is known of a path.  Links are followed.  The first three refuse the names of devices (aux, con, nul,
 * prn, com1 to com9, lpt1 to lpt9, clock$, config$, with any ending, in any folder) on every system.  With use_cache set
 * and a file cache running, the cache answers, and then cm_isexe looks at the owner's execute bit alone and device names
 * are not refused here.
 *   cm_access       mode: CM_ACCESS_...
 *   cm_isempty, cm_isreadonly   1 also for what cannot be examined */
CM_API int16_t CM_CALL cm_stat(cm_context *ctx, const char *path, int16_t use_cache, cm_stat_rec *record);
CM_API int16_t CM_CALL cm_isfile(cm_context *ctx, const char *path, int16_t use_cache);
CM_API int16_t CM_CALL cm_isexe(cm_context *ctx, const char *path, int16_t use_cache);
CM_API int16_t CM_CALL cm_isdirectory(const char *path);
CM_API int16_t CM_CALL cm_access(const char *path, int32_t mode);
CM_API int16_t CM_CALL cm_isempty(const char *path);
CM_API int16_t CM_CALL cm_isreadonly(const char *path);

/* Changing files.
 *   cm_rename     replaces `to` in one step.  A missing `from` fails, and `to` is removed all the same
 *   cm_unlink     waits a second after each failed try.  After one failure all tries are used and the result is 0, even
 *                 when a later one removed the file
 *   cm_cp         a failed copy leaves what was written; a file is not copied onto itself
 *   cm_ftruncate  makes the file when there is none; cuts or grows it to `size` bytes */
CM_API int16_t CM_CALL cm_rename(const char *from, const char *to);
CM_API int16_t CM_CALL cm_unlink(const char *path, int32_t tries);
CM_API int16_t CM_CALL cm_cp(cm_context *ctx, const char *from, const char *to);
CM_API int16_t CM_CALL cm_ftruncate(cm_context *ctx, const char *path, int32_t size);

/* Joins the root of `ctx` (may be null), a directory (may be null) and a name.  A directory or name whose second byte is
 * ":" or that begins with "//" or "\\\\" is absolute and drops what stands before it, so text from a peer must not come
 * here unchecked; a single separator in front does not.
 *   out         caller's storage of `size` bytes, which must hold the lengths of all three parts and 3 */
CM_API int16_t CM_CALL cm_build_path(cm_context *ctx, const char *directory, const char *name, char *out, int32_t size, int32_t *out_length);

/* Joins `base` and `relative` (may be null) and takes out "name/../" steps; "\\" becomes "/".  Fails when a step leads
 * above the start of the text or `size` is too small.
 * This is no containment check: steps may climb out of `base` ("/r/docs" with "../a" is "/r/a"), a ".." at the very end
 * and "./" stay, the first byte is left alone, and of "//x" the x goes too.  Compare the result with base and a separator
 * before trusting it. */
CM_API int16_t CM_CALL cm_cleanup_path(cm_context *ctx, const char *base, int32_t base_length, const char *relative, int32_t relative_length, char *out, int32_t size, int32_t *out_length);

/* Listings, "." and ".." among the entries, in the file system's order.  Paths have 1 to 259 bytes.  Reading an open
 * listing never fails.
 *   pattern     "*" any text, "?" one character, letter case ignored, "*.*" everything; the open fails when nothing matches */
CM_API int16_t CM_CALL cm_opendir(const char *path, cm_dir *listing);
CM_API int16_t CM_CALL cm_readdir(cm_dir *listing, cm_dirent *entry);
CM_API int16_t CM_CALL cm_closedir(cm_dir *listing);
CM_API int16_t CM_CALL cm_globinit(const char *directory, const char *pattern, cm_glob *listing);
CM_API int16_t CM_CALL cm_globread(cm_glob *listing, cm_dirent *entry);
CM_API int16_t CM_CALL cm_globfree(cm_glob *listing);

/* Folders and trees.  A link is never followed by the last four: it is removed as a file, counted by itself, not copied
 * (which fails the copy), and a `path` that is a link is no folder.
 *   cm_mkdir     one level
 *   cm_rmdir     with all that is in it; 1 for what is no folder.  Broken links and special files make it fail
 *   cm_dirsize   bytes, without entries that begin with "."; all bits set: cannot be examined
 *   cm_dirfiles  regular files, likewise; -1: cannot be examined
 *   cm_cpdir     makes `to` when there is none.  What was copied before a failure stays.  `to` must not lie in `from` */
CM_API int16_t CM_CALL cm_mkdir(const char *path);
CM_API int16_t CM_CALL cm_rmdir(const char *path);
CM_API uint32_t CM_CALL cm_dirsize(const char *path);
CM_API int32_t CM_CALL cm_dirfiles(const char *path);
CM_API int16_t CM_CALL cm_cpdir(cm_context *ctx, const char *from, const char *to);

/* ---------- time ---------- */
/* Seconds are GMT.  0xFFFFFFFF is "the clock cannot be read"; 0 handed in means now, 0 given back is a rejection (so
 * 1970-01-01 00:00:00 itself cannot be told from one).  Texts are the same in every locale, are cut to size - 1 bytes and
 * terminated; on failure they are empty and the result is 0.  Nothing here writes to the log. */
typedef struct cm_tm { int32_t sec, min, hour, mday, mon, year, wday, yday, isdst; } cm_tm; /* mon 0-11, year since 1900, wday 0 = Sunday, yday 0-365 */
typedef struct cm_stamp { int32_t sec, min, hour, mday, wday, mon, year, yday; } cm_stamp; /* mon 1-12, year 4 digits, yday 1-366 */
extern CM_API const char CM__MON[12][4];  /* "Jan" ... "Dec" */
extern CM_API const char CM__DAY[7][4];   /* "Sun" ... "Sat" */

/* The calendar of `seconds`: in GMT when `gmt` is 1, else in local time.  On failure the record is zero but for mday 1. */
CM_API int16_t  CM_CALL cm_time(uint32_t seconds, int16_t gmt, cm_tm *record);
/* Milliseconds since 1970, wrapping every 49.7 days: for differences. */
CM_API int16_t  CM_CALL cm_curmsec(uint32_t *out);
CM_API uint32_t CM_CALL cm_cursec(uint32_t *out);       /* also returned */
/* Seconds of a record that is GMT.  0: year outside 1970-2037, month outside 0-11, or before 1970.  Other fields may
 * exceed their ranges and carry over; wday, yday and isdst are not read. */
CM_API uint32_t CM_CALL cm_tm2sec(const cm_tm *record);

/* The current time, local but for code 9:
 *    1  Thu, 04 Jul 2002 09:05:00        6  day of month             11  Thu Jul 04 09:05:00 2002
 *    2  weekday, 1 = Sunday              7  month, 1-12              12  zone offset, "02:00" or "-5:00"
 *    3  hour                             8  year, four digits        13  02/07/04 09:05:00
 *    4  minute                           9  as 1, in GMT             14  [2002-07-04 09:05:00]
 *    5  second                          10  2002-07-04 09:05:00      15  seconds since 1970
 * Codes 2 to 8 are written whatever `size` says: give them 12 bytes.  The second field of code 12 is what is left of the
 * offset in seconds, 00 when above 100, so half-hour zones print 00 there (and west of Greenwich a negative number). */
CM_API int16_t  CM_CALL cm_datetime(int32_t code, char *buffer, int32_t size, int32_t *length_out);
/* The access-log stamp of the current local time, "[04/Jul/2002:09:05:00 +0200]", and its fields; either may be null.
 * Half-hour zones print their whole hours. */
CM_API int16_t  CM_CALL cm_timestamp(cm_stamp *record_out, char *buffer, int32_t size, int32_t *length_out);
/* A GMT record (null: now) as "2002-07-04T09:05:00Z" and as "Thu, 04 Jul 2002 09:05:00 GMT".  A month or weekday outside
 * its table fails; other fields are printed as they are. */
CM_API int16_t  CM_CALL cm_timeISO8601(char *buffer, int32_t size, const cm_tm *record);
CM_API int16_t  CM_CALL cm_time822(char *buffer, int32_t size, const cm_tm *record);
/* `seconds` in the second of these forms. */
CM_API int16_t  CM_CALL cm_curtime(uint32_t seconds, char *buffer, int32_t size);

/* The date of an HTTP header in the forms of RFC 1123, RFC 850 and asctime, days of one digit too.  The day name is
 * skipped unread (asctime needs one), whatever follows the date is ignored, the time counts as GMT.  Month names are
 * matched by case; two-digit years below 70 are 20xx; second 60 and 61 pass. */
CM_API uint32_t CM_CALL cm_parsedatetime(const char *text);
/* "2002/7/4" or "7/4/2002" (month first), and nothing after it, at 00:00:00.  2002/2/31 passes as 3 March. */
CM_API uint32_t CM_CALL cm_parsedate(const char *text);

/* ---------- scheduler ---------- */
/* A task of the scheduler, from cm_cron_task to the end of the library; records are never freed. */
struct cm_cron_rec {
    cm_cron_rec *next;
    int32_t      state;        /* 0 idle, 1 due, 2 running */
    int32_t      origin;       /* 102 section "cron", 103 a section named after a period, else the caller's */
    int32_t      threaded;     /* 1: runs on a thread of its own */
    cm_value     argument;
    char        *name;
    char        *period;       /* the five fields as written */
    cm_thread   *thread;       /* of the last run on a thread of its own; only for display */
    cm_task_fn   function;
    uint8_t      minute[60], hour[24], day[32], month[12], weekday[7]; /* 1: named by the period; day[0] by "*" only, month[0] January, weekday[0] Sunday */
    cm_context  *ctx;          /* hidden */
};
struct cm_cron_fn {
    char        *name;
    cm_task_fn   function;
    cm_cron_fn  *next;
};
struct cm_cron {
    uint32_t     stamp;        /* modification time of schedule.ini when it was read */
    int32_t      stop;
    cm_cron_fn  *functions;    /* newest first */
    cm_thread   *thread;
    cm_cron_rec *periodic, *startup, *shutdown;
    /* hidden */
    cm_context  *ctx;
    cm_mutex    *lock;         /* guards the four lists */
    void        *wake;
    int64_t      last;         /* the scheduler thread's: time of its last round */
    cm_cron     *next_state;
};
extern CM_API const char *const DowAry[8];   /* "sun" to "sat", then null: the names of the weekday field */
extern CM_API const char *const MonAry[13];  /* "jan" to "dec", then null: the names of the month field */

/* A crontab with a resolution of one minute.  Its thread ("CRON", an ordinary recorded thread) reads "schedule.ini" of the
 * configuration directory and re-reads it when it changes; minutes that it missed are caught up, once per task.
 * cm_cron_init attaches the state; cm_cron_start starts the thread ("Failed to start CRON thread." otherwise).
 * cm_cron_stop runs the shut-down tasks, detaches the state and tells the thread to end; it does not wait for it, and
 * cm_ctx_exit does not call it.  All give 1 when there was nothing to do. */
CM_API int16_t CM_CALL cm_cron_init(cm_context *ctx);
CM_API int16_t CM_CALL cm_cron_start(cm_context *ctx);
CM_API int16_t CM_CALL cm_cron_stop(cm_context *ctx);

/* Registers a task; starts the scheduler when there is none.
 *   function  what runs: function(ctx, name, argument), 1 for success.  Null: the command behind the period's five
 *             fields (where there is none, the text that `argument` points to) runs, either the function that
 *             cm_cron_func registered under its first letters, newest first, or a process without a shell.
 *   argument  kept as it is; 0 with a command: a copy of the command
 *   origin    the caller's mark; 101 by custom
 *   threaded  1: on a thread of its own ("CRON Task"), else on the scheduler's
 *   period    minute 0-59, hour 0-23, day of month 1-31, month 1-12 or jan-dec, weekday 0-6 or sun-sat: "*", values,
 *             ranges that may wrap ("22-2"), steps ("*" "/15"), lists; or "timeout" (every minute), "hourly", "daily",
 *             "weekly", "monthly"; or "startup", "shutdown"; or "never", which registers nothing and succeeds.
 *             Where both days are restricted either one is enough.
 * Result 0: no period, no command, no memory; without a function also a period that does not parse.  With a function such
 * a period is registered with the fields that were understood. */
CM_API int16_t CM_CALL cm_cron_task(cm_context *ctx, const char *name, cm_task_fn function, cm_value argument, int32_t origin, int32_t threaded, const char *period);

/* A command whose text begins with `name` (in any case) runs the function instead of a process. */
CM_API int16_t CM_CALL cm_cron_func(cm_context *ctx, const char *name, cm_task_fn function);

/* Takes the first periodic task of exactly that name off the list; a run under way goes on. */
CM_API int16_t CM_CALL cm_cron_remove(cm_context *ctx, const char *name);

/* Runs the command line that `command` points to as a process, in the install root, and waits for it up to "Scheduler Task
 * Timeout" seconds; then it is ended with everything that it started.  What it wrote to its error stream goes into the
 * log.  1 also when its exit code was not 0. */
CM_API int16_t CM_CALL cm__cron_usertask(cm_context *ctx, const char *name, cm_value command);

/* ---------- file cache ---------- */
struct cm_cache_rec {
    void    *data;
    int32_t  in_use;           /* holders */
    uint32_t last_access;
    uint32_t validated;        /* when the disk was last asked */
    int32_t  size;             /* bytes of data; 0 for an entry that only answers cm_stat */
    uint32_t file_index, file_mode, file_size, file_mtime; /* of the file as it was read */
    cm_cache_free_fn free_fn;  /* page entries */
    /* hidden */
    uint32_t file_ctime, file_atime;
    int32_t  racy;             /* changed so shortly before it was read that its time proves nothing */
    int32_t  orphan;           /* in no table any more: its last holder frees it */
};
typedef struct cm_cache_addr {
    uint32_t created;
    uint32_t v[3];
} cm_cache_addr;
struct cm_cache {
    int32_t      hits, files, pages, opens;
    uint32_t     last_cleanup;
    int32_t      bytes;
    int16_t      cleanup_wanted;
    cm_hash     *addresses, *file_table, *page_table;
    cm_mutex    *mutex;        /* guards everything above */
    cm_mem_pool *pool;
    cm_context  *ctx;
};

/* Whole small files, stat results, compiled pages and addresses in memory.  Start-up makes it when "File Cache Size" (bytes
 * of all data; "Maximum Cached File" bounds one file) or "Cache DNS Interval" is above 0; cm_fopenc, cm_stat, cm_isfile and
 * cm_isexe use it by themselves.  An entry is believed for "Cache Stat Interval" seconds, then compared with the disk.
 * Nothing is evicted to make room: a file that does not fit is read from disk.  cm_cache_reset empties the cache (open
 * handles keep what they read); cm_cache_exit takes it away.  All three give 1 when there is nothing to do. */
CM_API int16_t CM_CALL cm_cache_init(cm_context *ctx);
CM_API int16_t CM_CALL cm_cache_exit(cm_context *ctx);
CM_API int16_t CM_CALL cm_cache_reset(cm_context *ctx);

/* What cm_fopenc, cm_fclose, cm_fopen (for writing) and cm_stat call.
 *   cm_cache_open   `handle` carries the path.  1 and *hit 1: it reads the cached bytes now and cm_cache_close must follow;
 *                   1 and *hit 0: open the file yourself; 0: the file is gone
 *   cm_cache_age    forgets what is cached of the handle's path, unless it is in use
 *   cm_cache_stat   0: no such file */
CM_API int16_t CM_CALL cm_cache_open(cm_context *ctx, cm_file *handle, int32_t flags, int16_t *hit);
CM_API int16_t CM_CALL cm_cache_close(cm_context *ctx, cm_file *handle);
CM_API int16_t CM_CALL cm_cache_age(cm_context *ctx, cm_file *handle);
CM_API int16_t CM_CALL cm_cache_stat(cm_context *ctx, const char *path, cm_stat_rec *record);

/* Compiled pages by the path of the file that they were made from.
 *   cm_cache_setasp   takes `data` over, counted as `size` bytes, freed by `free_fn`; with `out_entry` the caller holds it
 *                     too.  0: the file is missing or too large, the cache is full or there is no memory; then the data
 *                     stays the caller's
 *   cm_cache_getasp   holds and gives the page, 0 when there is none or the file has changed
 *   cm_cache_freeasp  ends a hold */
CM_API int16_t CM_CALL cm_cache_getasp(cm_context *ctx, const char *path, void **out_data, cm_cache_rec **out_entry);
CM_API int16_t CM_CALL cm_cache_setasp(cm_context *ctx, const char *path, void *data, int32_t size, cm_cache_free_fn free_fn, cm_cache_rec **out_entry);
CM_API int16_t CM_CALL cm_cache_freeasp(cm_context *ctx, cm_cache_rec *entry);

/* Three words per host name (under 256 bytes), for "Cache DNS Interval" seconds; at most 1024 names. */
CM_API int16_t CM_CALL cm_cache_getaddr(cm_context *ctx, const char *host, uint32_t *out1, uint32_t *out2, uint32_t *out3);
CM_API int16_t CM_CALL cm_cache_setaddr(cm_context *ctx, const char *host, uint32_t v1, uint32_t v2, uint32_t v3);

/* ---------- strings and random numbers ---------- */
/* Formats into `size` bytes, always terminated.  Result: bytes stored, without the terminator; a text that does not fit
 * is cut.  A null text prints as "(null)".  A format with %n stores nothing and gives 0. */
CM_API int32_t CM_CALL cm_snprintf(char *out, int32_t size, const char *format, ...) CM_PRINTF(3, 4);
CM_API int32_t CM_CALL cm_vsnprintf(char *out, int32_t size, const char *format, va_list args) CM_PRINTF(3, 0);
/* The same for texts of 16-bit characters, `size` counted in characters.  It knows these conversions, with the flags
 * - 0 + blank #, width, precision and *, and the sizes h, l, ll:
 *   %d %i %u %x %X   numbers
 *   %c               one 16-bit character
 *   %ls              a text of 16-bit characters (not %s, which means something else on every system)
 *   %%
 * A format with any other conversion stores nothing and gives 0. */
CM_API int32_t CM_CALL cm_wsnprintf(uint16_t *out, int32_t size, const uint16_t *format, ...);
/* Byte order with ASCII letters folded to lower case: negative, 0 or positive.  Null comes before every text.
 * cm_strncasecmp compares at most `length` bytes. */
CM_API int32_t CM_CALL cm_strcasecmp(const char *a, const char *b);
CM_API int32_t CM_CALL cm_strncasecmp(const char *a, const char *b, int32_t length);
/* Copies a terminated text into `size` bytes, cut to fit and always terminated (unlike strncpy).  Result: bytes stored. */
CM_API int32_t CM_CALL cm_strncpy(char *out, const char *in, int32_t size);
/* The number that a text begins with, after white space; 0 when there is none.  cm_atoi saturates at both ends. */
CM_API int32_t CM_CALL cm_atoi(const char *text, int32_t length);
CM_API double  CM_CALL cm_atof(const char *text, int32_t length);
/* A random number from `low` to `high`, both included and in either order, every one equally likely; from the system's
 * generator, fit for names and nonces that nobody should guess. */
CM_API int32_t CM_CALL cm_random(int32_t low, int32_t high);

/* ---------- circular buffers ----------
 * Bytes between a producer and a consumer, oldest first.  A buffer has no lock.
 *   size    bytes that it holds at most, above 0
 *   stored, got  how many there was room for, or were there: the result is 1 also when that is fewer, or none
 * cm_cbuf_peek reads without consuming, cm_cbuf_reset forgets what is in it.  cm_cbuf_used and cm_cbuf_room are counts.  A
 * buffer in a pool goes with the pool; cm_cbuf_free gives back one without. */
typedef struct cm_cbuf cm_cbuf;
CM_API int16_t CM_CALL cm_cbuf_alloc(cm_context *ctx, cm_mem_pool *pool, int32_t size, cm_cbuf **out);
CM_API int16_t CM_CALL cm_cbuf_free(cm_cbuf *buffer);
CM_API int16_t CM_CALL cm_cbuf_put(cm_cbuf *buffer, const void *data, int32_t length, int32_t *stored);
CM_API int16_t CM_CALL cm_cbuf_get(cm_cbuf *buffer, void *data, int32_t length, int32_t *got);
CM_API int16_t CM_CALL cm_cbuf_peek(cm_cbuf *buffer, void *data, int32_t length, int32_t *got);
CM_API int32_t CM_CALL cm_cbuf_used(cm_cbuf *buffer);
CM_API int32_t CM_CALL cm_cbuf_room(cm_cbuf *buffer);
CM_API int16_t CM_CALL cm_cbuf_reset(cm_cbuf *buffer);

/* ---------- processes and services ----------
 * Child processes run without a shell.  The command line is split into words as Windows programs do it (double quotes keep
 * blanks together, a backslash takes the meaning from a quote), and its first word is the program: a path, or a name that
 * is looked for as the system does.  Input and both outputs are the null device, no other descriptor or handle reaches
 * the child, and whatever the child starts itself belongs to it: a kill ends them all.  A program whose output is wanted
 * writes it to a file.
 *   ctx        whose log hears of a failure; null: the started context's
 *   directory  where the child starts; null: where this process is
 *
 * cm_spawn gives a handle that names this child and never another one, also after its end, when the system may have given
 * its number away.  Any thread may use it.  cm_exitcode gives it back once it has told the child's end; without out_process
 * the child is left to itself.  cm_exec waits: at most `timeout` seconds (0 and below: without limit), then the child is
 * killed, with a line in the log, and the result is 0, as it is when the thread is asked to end.  An exit code is what the
 * program ended with; elsewhere than on Windows 128 and the signal's number when a signal ended it. */
CM_API int16_t CM_CALL cm_spawn(cm_context *ctx, const char *command, const char *directory, cm_value *out_process);
CM_API int16_t CM_CALL cm_exec(cm_context *ctx, const char *command, const char *directory, int32_t timeout, int32_t *out_exit_code);

/* The child has ended: 1, and the handle is dead.  0: it still runs, or the handle is dead already. */
CM_API int16_t CM_CALL cm_exitcode(cm_value process, int32_t *out_exit_code);
/* Kills a child and what it started.  Its handle stays until cm_exitcode. */
CM_API int16_t CM_CALL cm_kill(cm_value process);

/* Any process of the system, by its number.  cm_killid ends that one alone, as far as the system allows it. */
CM_API int16_t CM_CALL cm_killid(int32_t process_id);
CM_API int16_t CM_CALL cm_isrunning(int32_t process_id);

/* Waits for the end of a child, or for a handle of the system to be signalled: a HANDLE on Windows, where the thread's
 * window messages are dispatched meanwhile, elsewhere a descriptor other than 0 that becomes readable.
 *   milliseconds  below 0: without limit
 * 0: time is up, the thread is asked to end, not a handle. */
CM_API int16_t CM_CALL cm_waitforobject(cm_value object, int32_t milliseconds);

/* What the service manager of Windows, systemd, or else a script of /etc/init.d says.  Where there is none of them: 0. */
CM_API int16_t CM_CALL cm_issvcinstalled(const char *service);
CM_API int16_t CM_CALL cm_issvcrunning(const char *service);

/* ---------- libraries loaded at run time ----------
 * A module is opened at the first look-up in it and stays open under its name (letter case counts where it does for files)
 * until cm_dll_close, or cm_dlls_free, which cm_ctx_exit calls; what was looked up in it is gone then.  Modules are looked
 * for in the system's own folders, never in the working directory; "libeay32.dll" and "ssleay32.dll" stand for the newest
 * installed version of the two TLS libraries, whatever its files are called.
 *
 * cm_dllfunc_lookup looks into a module that is open already, and opens none.  0: no such module, no such function. */
CM_API int16_t CM_CALL cm_dll_lookup(cm_context *ctx, const char *module, const char *function, void **out_function);
CM_API int16_t CM_CALL cm_dllfunc_lookup(cm_context *ctx, const char *module, const char *function, void **out_function);
CM_API int16_t CM_CALL cm_dll_close(cm_context *ctx, const char *module);
CM_API int16_t CM_CALL cm_dlls_free(cm_context *ctx);

/* ---------- ciphers ----------
 * The two-way cipher hides values of configuration files from a glance.  It is obfuscation, not protection: its phrase
 * ("Public Key", or a default that everybody has) lies beside what it hides.  The same text always gives the same result,
 * so that an unchanged value stays unchanged; a result is the digit 1 and capital hexadecimal digits, 2 * length + 25 in
 * all, and needs one more byte in `out`.  `text` and `out` must not overlap.  cm_ctx_init calls cm_twowayinit; calling it
 * again changes the phrase, while no other thread uses the cipher. */
CM_API int16_t CM_CALL cm_twowayinit(cm_context *ctx, const char *phrase);
CM_API int16_t CM_CALL cm_twowayencrypt(cm_context *ctx, const char *text, int32_t length, char *out, int32_t size, int32_t *out_length);
/* Fails on a text that was damaged or made under another phrase; `out` is an empty text then, or untouched. */
CM_API int16_t CM_CALL cm_twowaydecrypt(cm_context *ctx, const char *text, int32_t length, char *out, int32_t size, int32_t *out_length);

/* The traditional one-way form of a password: two characters of salt and eleven of the result, as crypt(3) makes it with
 * DES.  Only the first eight characters of `text` count.  Today it keeps honest people honest; use it for what must be
 * compatible.
 *   salt   two of "./0-9A-Za-z", more is not looked at; a stored result serves, to compare; null or "": two are drawn
 *   out    14 bytes or more; may be `salt`
 * Result: 0 for another salt or a smaller buffer. */
CM_API int16_t CM_CALL cm_crypt(const char *text, const char *salt, char *out, int32_t size);

/* ---------- compression ---------- */
/* Replaces a file by its gzip form under the same name, in one step.  On failure the file is as it was. */
CM_API int16_t CM_CALL cm_zlib_gzip(cm_context *ctx, const char *path);

/* ---------- poll entry ---------- */
/* One listener of the accept loop and who serves its connections. */
struct cm_poll_entry {
    cm_job_fn   handler;       /* called as handler(ctx, connection, thread, argument); never closes its connection */
    cm_conn    *listener;
    cm_value    argument;      /* not 0: the thread pool drops jobs without an argument */
    const char *label;         /* of the thread while it serves; kept */
};

/* ---------- notice ---------- */
/* What a peer says besides its messages (CM_TAG_NOTICE), and who is told: a network state's handler, which a host stores
 * in `notice` and which runs on the thread that reads.  It must not close its connection; record and text live only
 * while it runs. */
struct cm_net_notice {
    int32_t     number[3];     /* the sender's own */
    int32_t     length;        /* of the text, at most 15990; -3 lets the sender measure */
    const char *text;          /* terminated when received */
};
typedef void (CM_CALL *cm_notice_fn)(cm_net_state *state, cm_conn *conn, const cm_net_notice *notice);

/* ---------- connection handle ---------- */
/* A handle comes from listen, accept, connect and their kind, cleared to zeros, and goes back with cm_net_close, after
 * which it is dead: it may be another connection at once.  One thread at a time reads, writes and closes it; closing it
 * from another thread is safe and makes a waiting read or send fail.  `flags` are CM_CONN_ bits. */
struct cm_conn {
    cm_conn       *next;           /* the table's lists, under its mutex */
    cm_poll_entry *entry;          /* the poll entry that accepted it, else null */
    cm_socket     *sock;           /* a cell that outlives the connection: -1 without a socket */
    cm_file       *file;           /* CM_CONN_FILE: what sends go to */
    void          *ssl;            /* TLS session, null when plain */
    uint32_t       flags;
    uint32_t       peer_port;      /* a listener: its bound local port */
    uint32_t       local_port;     /* accepted: the listener's port; outgoing: 0 */
    uint32_t       read_timeout;   /* seconds */
    uint32_t       peer_addr;      /* a listener: its local address */
    uint32_t       bytes_sent;     /* counts on from 0 after 2^32 - 1 */
    void          *gz;             /* compressor of a body under way */
    unsigned char *gz_stage;
    int32_t        gz_staged;
    uint32_t       gz_crc;
    char           peer_text[16];  /* peer_addr as dotted text */
    char           peer_host[256]; /* the peer's name with "Resolve Host Names", else its dotted address */
    int32_t        peer_host_len;
    char           tls_version[16];    /* of a finished TLS handshake */
    char           tls_cipher[64];
    int32_t        tls_secret_bits;
    int32_t        tls_alg_bits;
    int32_t        in_index;       /* in_buf[in_index, in_count) is received and not yet read */
    int32_t        in_count;
    unsigned char  in_buf[CM_NET_IN_SIZE];
    int32_t        out_count;
    unsigned char  out_buf[CM_NET_STAGE_ALLOC];  /* 16000 and room for what the tagged encoder adds behind them */
    /* hidden */
    int32_t        in_call;        /* calls in progress, for a close from another thread */
    uint32_t       serial;         /* grows at each hand-out */
    cm_conn      **link;           /* what points to it on the in-use list, under the table mutex */
    int32_t        phase;          /* where it is between hand-out and the free list */
    int32_t        job;            /* a worker of the accept loop owns it */
    int32_t        marks;          /* what it is, and what its worker has yet to do for it */
    cm_socket      parting;        /* the socket of a close that calls in progress hold up */
    cm_net_state  *net;            /* whose it is */
};

/* ---------- network state ---------- */
/* The network of the process; there is one.  A handle of `free_list` is reused, never given back while it runs. */
typedef struct cm_tls_table cm_tls_table;
struct cm_net_state {
    int16_t         shutting_down;    /* once set, every operation fails at its next look */
    int16_t         tls;              /* cm_net_init was asked for TLS */
    int32_t         open_count;       /* handles on the in-use list, under table_mutex */
    uint32_t        read_timeout;     /* seconds, for handles that the layer takes for itself; 300 without a context */
    int32_t         max_open;         /* 30 without a context */
    int32_t         listener_count;   /* of the accept loop */
    char           *host_name;
    int32_t         host_name_len;
    uint32_t        local_addr;
    char            local_text[16];   /* local_addr as dotted text, under table_mutex */
    void           *tls_module;
    cm_tls_table   *tls_table;
    void           *tls_ctx;          /* null: no TLS */
    cm_mutex      **tls_locks;
    cm_conn        *free_list;        /* under table_mutex */
    cm_conn        *in_use;           /* newest first, under table_mutex */
    cm_poll_entry **entries;          /* of the running accept loop, else null; under table_mutex */
    cm_mutex       *table_mutex;
    cm_mem_pool    *pool;
    cm_context     *ctx;
    /* hidden */
    cm_notice_fn    notice;           /* handler of tag 1 */
    cm_socket       wake[2];          /* wakes the accept loop */
    cm_socket       stop[2];          /* wakes every wait once shutting_down is set */
    uint32_t        loopback;
    int32_t         users;            /* what keeps the state's memory: the start, the loop, jobs, waiters */
    int32_t         exited;
    cm_poll_entry  *slots[CM_NET_MAX_LISTENERS];
    cm_poll_entry   added[CM_NET_MAX_LISTENERS];
};

/* ---------- start, stop ---------- */
/* The network is started once, after cm_ctx_init; a second start gives the same state.  It finds the host's name and
 * address, prepares the table of "Maximum Connections" handles and, with tls_wanted, TLS, without which the start then
 * fails.  A null context means defaults and the standard error stream for a log.
 *
 * To stop: shutdown (or cancel), then closeall, then exit.  Shutdown makes the accept loop return and every wait and
 * later call fail.  Cancel does the same and gives running requests one and a half seconds.  Exit closes what is still
 * open and frees the state; it waits up to two seconds for threads that are still inside the library with one of its
 * handles.  Its second call returns 0.
 *
 * cm_net_initip looks name and address up again and logs what has changed. */
CM_API int16_t CM_CALL cm_net_init(cm_context *ctx, int16_t tls_wanted, cm_net_state **out_state);
CM_API int16_t CM_CALL cm_net_initip(cm_context *ctx);
CM_API int16_t CM_CALL cm_net_exit(cm_net_state *state);
CM_API int16_t CM_CALL cm_net_shutdown(cm_net_state *state);
CM_API int16_t CM_CALL cm_net_cancel(cm_net_state *state);

/* Opens the network log, created afresh, when `level` (CM_NTRACE_) is above 0 and it is not open; only changes the level
 * when it is; closes it with level 0, after a second in which writers finish.  0: the file cannot be opened, level 0. */
CM_API int16_t CM_CALL cm_net_trace(cm_context *ctx, int32_t level);

/* ---------- listeners and connections ---------- */
/* Whatever makes a handle waits, in steps of a second and without limit, while "Maximum Connections" handles are open.
 * Give that setting room for what a request opens besides its own connection: if every handle is held by a request that
 * waits for a second one, none of them goes on.
 *
 * Listeners.
 *   bind_address  dotted text; null, or a text that does not parse: every address
 *   port          0: any free one; `peer_port` of the listener tells which
 *   read_timeout  seconds, for the connections it accepts
 *   tls_wanted    their connections do the TLS handshake first; plain when TLS is not available
 * cm_net_listenc listens on the local address of an existing connection and a free port.  A UDP listener's "connections"
 * are datagrams of up to 4096 bytes: handles without a socket whose input buffer holds the datagram, answered through
 * the listener. */
CM_API int16_t CM_CALL cm_net_listen(cm_net_state *state, const char *bind_address, int32_t port, int32_t backlog, int32_t read_timeout, int16_t tls_wanted, cm_conn **out_listener);
CM_API int16_t CM_CALL cm_net_listenc(cm_net_state *state, cm_conn *existing, int32_t backlog, int16_t tls_wanted, cm_conn **out_listener);
CM_API int16_t CM_CALL cm_net_listenu(cm_net_state *state, const char *bind_address, int32_t port, cm_conn **out_listener);

/* One connection or datagram of a listener, waiting for it; closing the listener ends the wait.  With "Throttle IPs" n,
 * the n + 1st simultaneous connection of one address to one port is closed and 0 returned (127.0.0.1 is exempt).
 *   flags  set in the new handle */
CM_API int16_t CM_CALL cm_net_accept(cm_net_state *state, cm_conn *listener, uint32_t flags, cm_conn **out_conn);

/* The accept loop: runs on the caller's thread until the network or the context stops, and starts and stops the thread
 * pool whose workers serve the connections; where the pool cannot start, each connection gets a thread.  `entries` (1 to
 * 31, else 0) are kept, not copied: they stay where they are until cm_net_exit, as handlers may still run until then.  A
 * context has one loop in its life, since the end of the pool stops the context.
 * Reverse look-up and TLS handshake run on the worker, before the handler; the worker closes the connection after it.
 *
 * cm_net_polladd copies another entry into the running loop: 1, also when its listener is there already; 0 without a
 * loop or with 31 entries. */
CM_API int16_t CM_CALL cm_net_poll(cm_net_state *state, cm_poll_entry *entries, int32_t count);
CM_API int16_t CM_CALL cm_net_polladd(cm_net_state *state, const cm_poll_entry *entry);

/* An outgoing connection.
 *   host               dotted text or a name, of which the first address is tried
 *   read_timeout       seconds for the connect and for each later read
 *   allow_in_progress  1: an answer of CM_EINPROGRESS is waited for as well
 *   out_error          the socket error of a failure (CM_E...), 0 where there is none; may be null
 *   local_port         the port to connect from, 0 for any */
CM_API int16_t CM_CALL cm_net_connect(cm_net_state *state, const char *host, int32_t port, int32_t read_timeout, int16_t tls_wanted, int16_t allow_in_progress, cm_conn **out_conn, int32_t *out_error);
CM_API int16_t CM_CALL cm_net_connecta(cm_net_state *state, const char *host, int32_t port, int32_t read_timeout, int16_t tls_wanted, int16_t allow_in_progress, cm_conn **out_conn, int32_t *out_error, int32_t local_port);

/* Unbuffered transfer.  Send returns when all bytes are with the system.  Receive waits up to the handle's read time-out
 * and gives what one read brings: 1 with a count of 0 means that the peer has closed.  A failure, a time-out and the
 * peer's close mark the handle CM_CONN_CLOSED, after which every call fails without touching the socket. */
CM_API int16_t CM_CALL cm_net_send(cm_net_state *state, cm_conn *conn, const void *data, int32_t length);
CM_API int16_t CM_CALL cm_net_receive(cm_net_state *state, cm_conn *conn, void *buffer, int32_t size, int32_t *out_count);

/* Closing a null handle, or one that is closed already, is 1.  `graceful` reads off what the peer still sends, until it
 * is quiet for a second, so that it gets the last reply; not with "Linger Close".  cm_net_closeall closes every handle by
 * force, listeners included; the threads that own them still close their own. */
CM_API int16_t CM_CALL cm_net_close(cm_net_state *state, cm_conn *conn, int16_t graceful);
CM_API int16_t CM_CALL cm_net_closeall(cm_net_state *state);

/* 1: the peer has not reset the connection; what it sent before may still be there to read. */
CM_API int16_t CM_CALL cm_net_isalive(cm_net_state *state, cm_conn *conn);

/* ---------- buffered input and output ---------- */
/* Reading through the connection's input buffer.  When the peer closes in the middle, what came until then is given with
 * 1 and the handle is CM_CONN_CLOSED from then on.  Every function of this section fails at once on a closed handle, with
 * what is still buffered.
 *
 * cm_net_getarg takes the next token.  It ends at the delimiter or the line end (LF), both consumed and neither told
 * apart; CR is dropped wherever it stands.
 *   delimiter   0: only the line end
 *   truncate    1: a longer token is cut and read to its end, 0: it fails
 *   out_text    maximum + 1 bytes; terminated also on failure
 *   out_length  without the terminator
 * cm_net_read takes bytes: what is buffered, and when nothing is, what one receive of up to 4096 bytes brings; with
 * `fill` it goes on until `size` bytes are there.
 * cm_net_peek tells whether the next bytes are `text`, and leaves them unread.  It waits for as many as the text has; a
 * peer that closes before is no match.  0 when the text and what is unread are over 4096 bytes together. */
CM_API int16_t CM_CALL cm_net_getarg(cm_net_state *state, cm_conn *conn, char delimiter, int16_t truncate, char *out_text, int32_t maximum, int32_t *out_length);
CM_API int16_t CM_CALL cm_net_read(cm_net_state *state, cm_conn *conn, int16_t fill, void *buffer, int32_t size, int32_t *out_count);
CM_API int16_t CM_CALL cm_net_peek(cm_net_state *state, cm_conn *conn, const char *text, int32_t length, int16_t *out_match);

/* Writing through the connection's output buffer of 16000 bytes.  Two flags of the handle encode what is written, as HTTP
 * has it: CM_CONN_CHUNKED (each send is a chunk) and CM_CONN_GZIP (RFC 1952).  Set them between the header of a reply,
 * put with final_piece so that it has left, and its body.  A failed send closes the handle and drops what was buffered;
 * so does a failure of the compressor.
 *
 * cm_net_putdata appends bytes, and sends them when the buffer is full, or at once with final_piece (which a compressed
 * body ignores) or over 15990 bytes.
 * cm_net_putfile puts a file, or the bytes `first` to `last` of it, and sends what is buffered.  What is not there is not
 * an error.  Large plain files do not pass through memory.
 *   last      0: to the end of the file (so the first byte alone cannot be asked for); before `first`: nothing
 *   by_cache  opens with cm_fopenc instead of cm_fopen
 * cm_net_enddata sends what is buffered, ends the compressed stream and the chunks, and clears both flags. */
CM_API int16_t CM_CALL cm_net_putdata(cm_net_state *state, cm_conn *conn, const void *data, int32_t length, int16_t final_piece);
CM_API int16_t CM_CALL cm_net_putfile(cm_net_state *state, cm_conn *conn, const char *path, int32_t first, int32_t last, int16_t by_cache);
CM_API int16_t CM_CALL cm_net_enddata(cm_net_state *state, cm_conn *conn);

/* A handle whose sends are written to a file, created afresh; reading fails.  It counts as an open connection. */
CM_API int16_t CM_CALL cm_net_fopen(cm_net_state *state, const char *path, cm_conn **out_conn);

/* Relays between two connections, as a proxy does, on the caller's thread: first what is buffered of either, then what
 * comes.  1: one side has closed, and is CM_CONN_CLOSED; 0: a connection failed, the network stops, or nothing has moved
 * for `timeout` seconds.  Bodies must have been ended.  Both connections stay the caller's. */
CM_API int16_t CM_CALL cm_net_circuit(cm_net_state *state, cm_conn *client, cm_conn *server, int32_t timeout);

/* ---------- tagged messages ---------- */
#define CM_TAG_NOTICE  1   /* cm_net_notice */
#define CM_TAG_INTEGER 2   /* int32_t */
#define CM_TAG_BYTES   3   /* bytes; too long a one closes the reader's connection */
#define CM_TAG_BYTES2  4   /* bytes; too long a one only fails */
#define CM_TAG_BOOL    5   /* int16_t, 1 or 0 */
#define CM_TAG_RAW     6   /* 4 bytes, not converted */
#define CM_TAG_NULL    9   /* nothing; its length is -1 */
#define CM_TAG_END1    10  /* ends of a message */
#define CM_TAG_END2    12
#define CM_TAG_END3    14

/* Items between the suite's own processes, through the buffers of a connection.  Both functions fail at once on a closed
 * handle, with what is still buffered.
 *
 * cm_net_put puts an item.  An end marker or a notice sends what has gathered.
 *   value   what the tag holds; not looked at for end markers and nulls
 *   length  of bytes, at most 15990, -3 measures them as text; of anything: -1 puts a null instead
 * cm_net_get takes the next item, waiting for it.  Notices go to the state's handler, and the item behind them is the
 * next.  An item must have arrived whole with what is buffered and one receive of up to 4096 bytes, or it fails.  1 with
 * tag 0: the peer has closed.
 *   maximum     bytes that out_value has room for.  0: an end marker is taken, anything else stays unread and only its
 *               tag is told
 *   out_length  bytes stored; -1 for a null
 * cm_net_flush drops the items in the input buffer, with the rest of one that is there in part; notices are delivered. */
CM_API int16_t CM_CALL cm_net_put(cm_net_state *state, cm_conn *conn, int32_t tag, const void *value, int32_t length);
CM_API int16_t CM_CALL cm_net_get(cm_net_state *state, cm_conn *conn, int32_t *out_tag, void *out_value, int32_t maximum, int32_t *out_length);
CM_API int16_t CM_CALL cm_net_flush(cm_net_state *state, cm_conn *conn);

/* The tag of a value type (1: bytes, 2: integer, 3: boolean, 4: bytes, second kind, 5: raw), and the other way round; 0:
 * none. */
CM_API int32_t CM_CALL cm_cmtonettype(int32_t type);
CM_API int32_t CM_CALL cm_nettocmtype(int32_t tag);

/* ---------- datagrams ----------
 * UDP.  A failed send leaves "UDP sendto ADDRESS:PORT failed" in the log and marks the handle CM_CONN_CLOSED, and so does
 * a receive that fails or runs out of time; a UDP listener is never marked, whatever happens to one of its datagrams.
 *
 * cm_net_sendto sends from a UDP listener or another datagram handle.  cm_net_dnssendto has a handle of its own:
 *   io_conn  in: null or a closed handle makes a new one, on a port that the system chooses; out: the handle that receives
 *            the answers of this address and port.  Its owner closes it, after a failure too. */
CM_API int16_t CM_CALL cm_net_sendto(cm_net_state *state, cm_conn *conn, uint32_t address, int32_t port, const void *data, int32_t length);
CM_API int16_t CM_CALL cm_net_dnssendto(cm_net_state *state, uint32_t address, int32_t port, const void *data, int32_t length, cm_conn **io_conn);

/* The next datagram within `timeout` seconds (0: only what is there).  cm_net_recv takes those of the peer that the handle
 * was last sent to and drops all others, as well as those longer than `size`; cm_net_recvfrom takes anybody's, says whose,
 * and fails when one is too long. */
CM_API int16_t CM_CALL cm_net_recv(cm_net_state *state, cm_conn *conn, void *buffer, int32_t size, int32_t timeout, int32_t *out_count);
CM_API int16_t CM_CALL cm_net_recvfrom(cm_net_state *state, cm_conn *conn, void *buffer, int32_t size, int32_t timeout, int32_t *out_count, uint32_t *out_address, int32_t *out_port);

/* cm_net_hostsendto is cm_net_dnssendto for a host: dotted text or a name.  cm_net_broadcast sends to every host of the
 * link, from a local port (0: any) that others may share.  Both fail with an alert "connect" where no socket is to be had. */
CM_API int16_t CM_CALL cm_net_hostsendto(cm_net_state *state, const char *host, int32_t port, const void *data, int32_t length, cm_conn **io_conn);
CM_API int16_t CM_CALL cm_net_broadcast(cm_net_state *state, int32_t local_port, int32_t remote_port, const void *data, int32_t length);

/* ---------- hosts and sockets ----------
 * cm_net_ping sends one ICMP echo request and waits `timeout` seconds for its answer.  It needs the right to do so: the
 * administrator's, or on Linux a group of "net.ipv4.ping_group_range".
 *
 * cm_net_macaddr gives the six bytes of the hardware address of this host or another one of the link; elsewhere than on
 * Windows only one that was heard from lately (a ping sees to that).  0: not known, or the address has none.
 *
 * cm_net_hostaddr takes dotted text or a name; what cannot be found is logged. */
CM_API int16_t CM_CALL cm_net_ping(cm_net_state *state, const char *host, int32_t timeout, int32_t *out_milliseconds);
CM_API int16_t CM_CALL cm_net_macaddr(cm_net_state *state, uint32_t address, unsigned char out_mac[6]);
CM_API int16_t CM_CALL cm_net_hostaddr(cm_net_state *state, const char *host, uint32_t *out_address);

/* The socket of a handle: an option, with the system's own numbers for level and option (a time-out of sending or receiving
 * is an int32_t of milliseconds on every system), and its local address and port. */
CM_API int16_t CM_CALL cm_net_setsockopt(cm_net_state *state, cm_conn *conn, int32_t level, int32_t option, const void *value, int32_t length);
CM_API int16_t CM_CALL cm_net_sockname(cm_net_state *state, cm_conn *conn, uint32_t *out_address, int32_t *out_port);

/* ---------- clock synchronisation ----------
 * cm_ntp_sync asks a time server once, over SNTP, and sets the clock of the machine to the second, for which the process
 * needs the right.  Answers that are not from the server, or not to this request, are passed over; it waits ten seconds.
 *   server   dotted text or a name
 *   message  1024 bytes at least: why it failed; "" after success
 * A clock that is more than four days off is left alone.
 *
 * cm_ntp_cron is the same as a task for the context's "NTP Server" (its argument is the network state): a failure is
 * logged, the result is 1.  cm_net_init registers it as "NTP Synchronization" when "NTP Server" and "NTP Cron" are set. */
CM_API int16_t CM_CALL cm_ntp_sync(cm_context *ctx, cm_net_state *net, const char *server, char *message);
CM_API int16_t CM_CALL cm_ntp_cron(cm_context *ctx, const char *argument, cm_value net);

/* ---------- dial-up line ----------
 * With "Dial-On-Demand", cm_net_connect dials the line "Dial-On-Demand Entry" (of the system's phone book, with user and
 * password) before it connects to any host but 127.0.0.1.  There is one line, which connections share.  It is hung up when
 * the last of them has been closed for "Dial-On-Demand Timeout" seconds, or when none was opened or closed for "Dial-On-
 * Demand Busy Timeout" seconds though some still count as open; a task looks every minute.  "Dial-On-Demand Trace" logs
 * what happens to it.  cm_ctx_init and cm_ctx_exit call cm_ras_init and cm_ras_exit.
 *
 *   cm_ras_dialup       1: the line is up, and the caller counts as one of its connections
 *   cm_ras_hangup       one connection less; 0 when there was none
 *   cm_ras_checkstatus  1: the line is up.  A line that is down, though it was dialled, is dialled anew the next time
 *
 * There are such lines on Windows only.  Elsewhere cm_ras_init and cm_ras_exit succeed and cm_ras_dialup fails, with a
 * line in the log. */
CM_API int16_t CM_CALL cm_ras_init(cm_context *ctx);
CM_API int16_t CM_CALL cm_ras_exit(cm_context *ctx);
CM_API int16_t CM_CALL cm_ras_dialup(cm_context *ctx);
CM_API int16_t CM_CALL cm_ras_hangup(cm_context *ctx);
CM_API int16_t CM_CALL cm_ras_checkstatus(cm_context *ctx);

/* ---------- resolver ----------
 * Host names and IPv4 addresses.  cm_ctx_init and cm_ctx_exit call cm_dns_init, cm_dns_optimize (once the settings are
 * read: server addresses, and the hosts files, which are made when they are missing) and cm_dns_exit.
 *
 * A look-up asks, in this order, the address cache ("Cache DNS Interval"), the hosts files, the hook, and then either the
 * configured server, for which the network must be started, or the system.
 *
 * Both files are in the configuration folder; an edit counts at once.  Lines that begin with "#" are remarks;
 * an empty line hides the rest of the file.
 *   hosts    ADDRESS NAME [NAME ...]         the first match counts; with "DNS Wildcards" names may hold "*" and "?"
 *   mxhosts  DOMAIN PREFERENCE EXCHANGER     the same, several lines for several exchangers
 *
 * The configured server is asked up to twice, each time with six tries of 1, 1, 4, 4, T and T seconds (T is "DNS
 * Timeout"), the odd ones to the primary server and the even ones to the alternate, which no key sets.  A server that is
 * dead thus costs 2 * (5 + T) seconds: do not look names up on a thread that others wait for.  Only "DNS Secondary" is
 * asked when both are set. */

/* Asked for names that the hosts file does not have.  Result: 1 with the address, 0 to go on looking. */
typedef int16_t (CM_CALL *cm_dns_hook)(cm_context *ctx, cm_value argument, const char *name, uint32_t *out_address);

struct cm_dns_state {
    int32_t     ttl;             /* 3600, "DNS TTL": seconds of the answers that the library gives */
    uint32_t    timeout;         /* 90, "DNS Timeout": seconds, 5 at least */
    uint16_t    flags;           /* CM_DNS_WILDCARDS, "DNS Wildcards": names of the hosts file are patterns */
    uint32_t    primary;         /* the secondary server, where one is set */
    uint32_t    alternate;       /* not set by any key */
    const char *primary_text;    /* "DNS Primary" */
    const char *secondary_text;  /* "DNS Secondary" */
    const char *hosts_name;      /* "hosts", "DNS Hosts File": in the configuration folder */
    const char *hosts_path;
    const char *mx_name;         /* "mxhosts" */
    const char *mx_path;
    void       *bucket[500];     /* records of the library's own server, under mutex */
    cm_mutex   *mutex;
    cm_dns_hook hook;            /* the host's, set before threads look names up */
    cm_value    hook_argument;
};
#define CM_DNS_WILDCARDS 0x1
#define CM_DNS_BUFFER    512
#define CM_DNS_NAME      256     /* buffers of names */

CM_API int16_t CM_CALL cm_dns_init(cm_context *ctx);
CM_API int16_t CM_CALL cm_dns_optimize(cm_context *ctx);
CM_API int16_t CM_CALL cm_dns_exit(cm_context *ctx);

/* Up to four addresses of a name; those that there are not become CM_INADDR_NONE.
 *   name          a name of digits and dots alone fails at once, unless it ends in a dot: parse addresses yourself
 *   local_only    not 0: ask neither server nor system
 *   own_resolver  not 0: ask the configured server instead of the system
 *   out_address   each may be null; the cache keeps three
 * Result: 1 when there is one at least. */
CM_API int16_t CM_CALL cm_dns_gethostaddr(cm_context *ctx, const char *name, int16_t local_only, int16_t own_resolver, uint32_t *out_address1, uint32_t *out_address2, uint32_t *out_address3, uint32_t *out_address4);

/* The name of an address, into CM_DNS_NAME bytes, "" without one.  A name from the system is cut to 60 characters; a name
 * with anything but letters, digits, "-", "_" and "." in it is none.  The configured server is asked for the address with
 * its bytes in the order of the text ("1.2.3.4.in-addr.arpa" for 1.2.3.4): only a server that knows this answers rightly. */
CM_API int16_t CM_CALL cm_dns_gethostname(cm_context *ctx, uint32_t address, int16_t local_only, int16_t own_resolver, char *out_name);

/* The mail exchangers of a domain, best first, each into CM_DNS_NAME bytes or null; "" where there is none.  Asks mxhosts
 * and the configured server, never the system. */
CM_API int16_t CM_CALL cm_dns_gethostmx(cm_context *ctx, const char *domain, int16_t local_only, char *out_best, char *out_second, char *out_third, char *out_fourth);

/* For a name server: the three answers to a request, which cm_net_accept or the accept loop took from `listener`.  The
 * request is the message at the start of the handle's input buffer; a reply goes to its sender through a UDP listener,
 * else over the request's connection.  A server tries cm_dns_localrecord, then cm_dns_forward, then cm_dns_failure.
 *   cm_dns_localrecord  answers A, PTR and MX questions from the hosts files, whose changes it sees within a second, with
 *                       "DNS TTL"; AAAA questions of names that it has are answered with no address
 *   cm_dns_forward      asks the configured server, with one round of six tries, and hands on what it says, whatever it is
 *   cm_dns_failure      sends 12 bytes: the request's identifier, and "name error" or, without name_error, "server
 *                       failure".  Kept: they lack the response bit.  Requests that may be such replies themselves (12
 *                       bytes, or with the response bit) are answered ten times a second at most
 * Replies of the first two have their length before them on a stream.  Result: 1 when a reply was sent; 0: nothing was,
 * the name is not local, no server answered, or the request is not one question. */
CM_API int16_t CM_CALL cm_dns_failure(cm_context *ctx, cm_net_state *net, cm_conn *listener, cm_conn *request, int16_t name_error);
CM_API int16_t CM_CALL cm_dns_forward(cm_context *ctx, cm_net_state *net, cm_conn *listener, cm_conn *request);
CM_API int16_t CM_CALL cm_dns_localrecord(cm_context *ctx, cm_net_state *net, cm_conn *listener, cm_conn *request);

/* ---------- FTP client ----------
 * One file at a time to or from an FTP server (RFC 959), in binary mode.  Whatever goes wrong is told through the session's
 * callback, in fixed texts of up to 1024 bytes, sometimes more than one: what the server said (with the further lines of a
 * refusal), then what it means.  The callback may be null; it must not use the session.
 *
 * A session belongs to its caller, who connects and disconnects it; after a failed transfer too, since replies to what was
 * given up may still be under way.  User, password and names that hold a line end or make a command over 1024 bytes are
 * refused before anything is sent. */
typedef void (CM_CALL *cm_ftp_message)(cm_context *ctx, cm_value argument, const char *text);
typedef struct cm_ftp_session {
    cm_ftp_message message;
    cm_value       argument;   /* of the callback */
    cm_conn       *control;    /* null when disconnected */
    cm_net_state  *net;
    cm_context    *ctx;        /* of the callback and of local files; may be null */
} cm_ftp_session;

/* Connects to port 21 and logs in; each wait for the server is at most the network's read time-out.  A failure leaves the
 * session disconnected.  Disconnecting does not wait for the server; 1 also for a session that is disconnected. */
CM_API int16_t CM_CALL cm_ftp_connect(cm_context *ctx, cm_net_state *net, const char *host, const char *user, const char *password, cm_value argument, cm_ftp_message message, cm_ftp_session *out_session);
CM_API int16_t CM_CALL cm_ftp_disconnect(cm_ftp_session *session);

/* Changes to a directory, makes one.  Only a reply of 250 is a success, but servers say 257 when they have made a
 * directory: make it with `quiet`, which tells nothing, and then see whether cm_ftp_cwd takes it. */
CM_API int16_t CM_CALL cm_ftp_cwd(cm_ftp_session *session, const char *directory);
CM_API int16_t CM_CALL cm_ftp_mkdir(cm_ftp_session *session, const char *directory, int16_t quiet);

/* Transfers: passive, and where the server refuses that (which is told) active, with three minutes for the server to connect.
 * A server on the public net that names an address of a private net, of this host or of a group is not followed there.
 *   cm_ftp_put  the local file may come from the cache (cm_fopenc); 0 without a word when it does not exist
 *   cm_ftp_get  the local file is replaced when the server has said that the transfer is complete, and is as it was
 *               before that; where it cannot be replaced (a link, a second name, no right to make files there) it is
 *               written in place
 * Result: 1 when the server says that the transfer is complete. */
CM_API int16_t CM_CALL cm_ftp_put(cm_ftp_session *session, const char *local_file, const char *remote_name);
CM_API int16_t CM_CALL cm_ftp_get(cm_ftp_session *session, const char *remote_name, const char *local_file);

#ifdef __cplusplus
}
#endif
#endif
