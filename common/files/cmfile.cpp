// File handles: opening, reading, writing and closing.
//
// One handle type reads three things: a file of the system through a buffer of 1024 bytes, a file of the cache and a
// text in memory in place.  The reader only sees `buffer`, `read_offset` and `available`; refilling is what differs.
// Handles of a context are recycled through its free list, so an open allocates only while the number of open files
// grows.
#include "files/cmfile.h"

#include <string.h>

#include <algorithm>
#include <utility>

#include "core/cmerror.h"
#include "core/cmmemory.h"
#include "core/cmstring.h"
#include "core/cmthread.h"
#include "files/cache_hook.h"
#include "platform/platform.h"

namespace cm::files {

using platform::Error;
using platform::os;

std::atomic<const CacheHook *> cache_hook{nullptr};

namespace {

// ---- handles --------------------------------------------------------------------------------------------------------

void *allocate_zeroed(cm_context *ctx, uint32_t size) {
    if (ctx == nullptr) return os.allocate_zeroed(size);
    void *piece = shared_allocate(ctx, size);
    if (piece != nullptr) memset(piece, 0, size);
    return piece;
}

cm_file *take_free_handle(cm_context *ctx) {
    if (ctx == nullptr) return nullptr;
    const MutexGuard guard(ctx->file_mutex);
    cm_file *handle = ctx->file_free;
    if (handle != nullptr) ctx->file_free = handle->next;
    return handle;
}

// Everything but the two buffers starts anew.
void clear(cm_file *handle, cm_context *ctx) {
    char *const own_buffer = handle->own_buffer, *const push_back = handle->push_back;
    *handle = {};
    handle->own_buffer = own_buffer;
    handle->push_back = push_back;
    handle->buffer = own_buffer;
    handle->ctx = ctx;
    handle->descriptor = -1;
}

// A handle keeps a missing buffer missing on the free list, and the next open tries again: nothing is lost in the pool.
void put_back(cm_file *handle, bool counted) {
    cm_context *ctx = handle->ctx;
    if (ctx == nullptr) {
        os.release(handle->push_back);
        os.release(handle->own_buffer);
        os.release(handle);
        return;
    }
    const MutexGuard guard(ctx->file_mutex);
    handle->next = ctx->file_free;
    ctx->file_free = handle;
    if (counted) ctx->file_open--;
}

cm_file *create_handle(cm_context *ctx) {
    cm_file *handle = take_free_handle(ctx);
    if (handle == nullptr) handle = static_cast<cm_file *>(allocate_zeroed(ctx, sizeof *handle));
    if (handle == nullptr) {
        if (ctx == nullptr) report(nullptr, CM_ERROR, "Memory allocation of file handle failed.");
        return nullptr;
    }
    if (handle->own_buffer == nullptr) handle->own_buffer = static_cast<char *>(allocate_zeroed(ctx, kBufferSize + 1));
    clear(handle, ctx);
    if (handle->own_buffer == nullptr) {
        if (ctx == nullptr) report(nullptr, CM_ERROR, "Memory allocation of file buffer failed.");
        put_back(handle, false);
        return nullptr;
    }
    if (ctx != nullptr) {
        const MutexGuard guard(ctx->file_mutex);
        ctx->file_open++;
    }
    return handle;
}

// A handle on its way to the caller; given back unless it is released to it.
class NewHandle {
public:
    NewHandle(cm_context *ctx, const char *path, int32_t kind) : handle_(create_handle(ctx)) {
        if (handle_ == nullptr) return;
        const size_t length = strlen(path);
        const size_t kept = std::min(length, sizeof handle_->name - 1);
        memcpy(handle_->name, path, kept);
        handle_->name[kept] = '\0';
        handle_->name_length = static_cast<int32_t>(std::min<size_t>(length, INT32_MAX));
        handle_->kind = kind;
    }
    ~NewHandle() {
        if (handle_ == nullptr) return;
        handle_->kind = 0;
        put_back(handle_, true);
    }
    NewHandle(const NewHandle &) = delete;
    NewHandle &operator=(const NewHandle &) = delete;

    cm_file *get() const { return handle_; }
    cm_file *release() {
        handle_->open_mark = 1;
        return std::exchange(handle_, nullptr);
    }

private:
    cm_file *handle_;
};

// ---- reading --------------------------------------------------------------------------------------------------------

bool write_pending(cm_file *handle) {
    if (handle->fill <= 0) return true;
    size_t written = 0;
    const size_t wanted = static_cast<size_t>(handle->fill);
    handle->fill = 0;
    return os.file_write(handle->descriptor, handle->own_buffer, wanted, &written) == 0 && written == wanted;
}

enum class Refill { kMore, kEnd, kFailed };

// Never reads further ahead than one buffer: a seek relative to the descriptor lets callers see where it stands.
Refill refill(cm_file *handle) {
    if (handle->kind != kSystemFile) return Refill::kEnd;
    // A log file's waiting lines lie where the bytes would go.
    if (!write_pending(handle)) return Refill::kFailed;
    size_t got = 0;
    const Error error = os.file_read(handle->descriptor, handle->own_buffer, kBufferSize, &got);
    handle->read_offset = 0;
    if (error != 0) {
        report(handle->ctx, CM_ERROR, "File read of '%s' failed.", handle->name);
        return Refill::kFailed;
    }
    handle->available = static_cast<int32_t>(got);
    if (got > 0) return Refill::kMore;
    handle->own_buffer[0] = '\0';
    return Refill::kEnd;
}

void consume(cm_file *handle, int32_t count) {
    handle->read_offset += count;
    handle->available -= count;
    handle->position += static_cast<uint32_t>(count);
}

int32_t saturated(uint64_t count) {
    return static_cast<int32_t>(std::min<uint64_t>(count, INT32_MAX));
}

// The line under way in cm_fgetl.
struct Line {
    char *text;
    int32_t size;
    int32_t stored = 0;
    uint64_t length = 0;  // with what was dropped

    bool fits(size_t count) const { return length + count <= static_cast<uint64_t>(size); }
    void add(const char *bytes, size_t count) {
        const size_t kept = std::min(count, static_cast<size_t>(size - stored));
        memcpy(text + stored, bytes, kept);
        stored += static_cast<int32_t>(kept);
        length += count;
    }
};

// Reads up to the next line end or the end of the file.  False: the file cannot be read, or the line is too long.
bool read_line(cm_file *handle, bool allow_long, Line &line) {
    for (;;) {
        if (handle->available <= 0) {
            const Refill result = refill(handle);
            if (result == Refill::kFailed) return false;
            if (result == Refill::kEnd) {
                handle->eof = 1;  // a last line without a line feed is not counted
                return true;
            }
        }
        const char *const bytes = handle->buffer + handle->read_offset;
        const size_t unread = static_cast<size_t>(handle->available);
        const char *const feed = static_cast<const char *>(memchr(bytes, '\n', unread));
        const size_t count = feed != nullptr ? static_cast<size_t>(feed - bytes) : unread;
        if (feed != nullptr && line.length == 0 && (count == 0 || (count == 1 && bytes[0] == '\r'))) {
            consume(handle, static_cast<int32_t>(count + 1));
            handle->lines++;
            continue;
        }
        if (!allow_long && !line.fits(count)) {
            report(nullptr, CM_ERROR, "Failure reading line fgetl() - line too long.");
            return false;
        }
        line.add(bytes, count);
        consume(handle, static_cast<int32_t>(count + (feed != nullptr ? 1 : 0)));
        if (feed == nullptr) continue;
        handle->lines++;
        return true;
    }
}

// ---- closing --------------------------------------------------------------------------------------------------------

// Gives the source of the handle's data back; false leaves the handle open.
bool detach(cm_file *handle, int32_t kind, bool *out_written) {
    *out_written = true;
    if (kind == kCachedFile) {
        const CacheHook *cache = cache_hook.load(std::memory_order_acquire);
        return cache == nullptr || cache->close(handle->ctx, handle) != 0;
    }
    if (kind != kSystemFile || handle->descriptor < 0) return true;
    *out_written = write_pending(handle);
    if (os.file_close(handle->descriptor) != 0) *out_written = false;
    return true;
}

bool opens(cm_file *handle, const char *path, int32_t flags) {
    if (os.file_open(path, flags, &handle->descriptor) == 0) return true;
    handle->descriptor = -1;
    return false;
}

// ---- hex dump -------------------------------------------------------------------------------------------------------

constexpr int32_t kDumpBytes = 16;
constexpr size_t kDumpLine = 8 + 2 + 24 + 2 + 24 + 3 + 16 + 1;  // offsets have six to eight digits

char *put_hex(char *out, uint32_t value, int least) {
    int digits = 8;
    while (digits > least && value >> (4 * (digits - 1)) == 0) digits--;
    while (digits-- > 0) *out++ = "0123456789ABCDEF"[(value >> (4 * digits)) & 15];
    return out;
}

char *put_dump_line(char *out, uint32_t offset, std::string_view bytes) {
    out = put_hex(out, offset, 6);
    *out++ = ':';
    *out++ = ' ';
    for (size_t i = 0; i < kDumpBytes; i++) {
        if (i == kDumpBytes / 2) {
            *out++ = ' ';
            *out++ = ':';
        }
        *out++ = ' ';
        if (i < bytes.size()) {
            out = put_hex(out, static_cast<unsigned char>(bytes[i]), 2);
        } else {
            *out++ = ' ';
            *out++ = ' ';
        }
    }
    for (int i = 0; i < 3; i++) *out++ = ' ';
    for (size_t i = 0; i < kDumpBytes; i++)
        *out++ = i < bytes.size() && bytes[i] >= ' ' && bytes[i] <= '~' ? bytes[i] : '.';
    *out++ = '\n';
    return out;
}

// Writes whole lines, a buffer of them at a time.
bool dump(cm_file *handle, std::string_view bytes) {
    char block[kBufferSize];
    bool written = write_pending(handle);
    for (uint32_t offset = 0; written && offset < bytes.size();) {
        char *end = block;
        for (; offset < bytes.size() && static_cast<size_t>(block + sizeof block - end) >= kDumpLine;
             offset += kDumpBytes) {
            const size_t left = bytes.size() - offset;
            end = put_dump_line(end, offset, {bytes.data() + offset, std::min<size_t>(left, kDumpBytes)});
            handle->lines++;
        }
        size_t count = 0;
        written = os.file_write(handle->descriptor, block, static_cast<size_t>(end - block), &count) == 0;
    }
    return written;
}

bool is_open_file(const cm_file *handle) {
    return handle != nullptr && handle->kind == kSystemFile && handle->open_mark != 0;
}

}  // namespace
}  // namespace cm::files

using namespace cm;
using namespace cm::files;

int16_t cm_fopen(cm_context *ctx, const char *path, int32_t flags, cm_file **handle_out) {
    if (handle_out != nullptr) *handle_out = nullptr;
    if (path == nullptr || handle_out == nullptr) return 0;
    NewHandle handle(ctx, path, kSystemFile);
    if (handle.get() == nullptr) return 0;
    if (!opens(handle.get(), path, flags)) {
        report(ctx, CM_ERROR, "File open of '%s' failed.", path);
        return 0;
    }
    // Kept: a plain read-only open ages the cache as a writing one does; only the two sequential forms do not.
    if (flags != kReadSequential && flags != kReadSequentialBinary) {
        const CacheHook *cache = enabled_cache(ctx);
        if (cache != nullptr) cache->age(ctx, handle.get());
    }
    *handle_out = handle.release();
    return 1;
}

int16_t cm_fopenc(cm_context *ctx, const char *path, int32_t flags, cm_file **handle_out) {
    if (handle_out != nullptr) *handle_out = nullptr;
    if (path == nullptr || handle_out == nullptr) return 0;
    NewHandle handle(ctx, path, kSystemFile);
    if (handle.get() == nullptr) return 0;
    int16_t hit = 0;
    const CacheHook *cache = enabled_cache(ctx);
    if (cache != nullptr && cache->open(ctx, handle.get(), flags, &hit) == 0) return 0;
    if (hit == 0 && !opens(handle.get(), path, flags)) {
        report(ctx, CM_ERROR, "File openc of '%s' failed.", path);
        return 0;
    }
    *handle_out = handle.release();
    return 1;
}

int16_t cm_fopens(cm_context *ctx, const char *name, const char *text, int32_t length, cm_file **handle_out) {
    if (handle_out != nullptr) *handle_out = nullptr;
    const std::string_view data = view(text, length);
    if (handle_out == nullptr || data.size() > INT32_MAX) return 0;
    NewHandle handle(ctx, name != nullptr ? name : "", kMemoryText);
    if (handle.get() == nullptr) return 0;
    if (!data.empty()) handle.get()->buffer = data.data();
    handle.get()->total = handle.get()->available = static_cast<int32_t>(data.size());
    *handle_out = handle.release();
    return 1;
}

int16_t cm_fread(cm_file *handle, void *buffer, int32_t count, int32_t *got) {
    if (got != nullptr) *got = 0;
    if (handle == nullptr || (buffer == nullptr && count > 0)) return 0;
    char *out = static_cast<char *>(buffer);
    int32_t done = 0;
    Refill result = Refill::kMore;
    while (done < count && result == Refill::kMore) {
        if (handle->available <= 0 && (result = refill(handle)) != Refill::kMore) break;
        const int32_t piece = std::min(count - done, handle->available);
        memcpy(out + done, handle->buffer + handle->read_offset, static_cast<size_t>(piece));
        consume(handle, piece);
        done += piece;
    }
    if (got != nullptr) *got = done;
    return result == Refill::kFailed ? 0 : 1;
}

int16_t cm_fgetl(cm_file *handle, int16_t allow_long, char *line, int32_t size, int32_t *got, int32_t *full_length) {
    if (got != nullptr) *got = 0;
    if (full_length != nullptr) *full_length = 0;
    if (handle == nullptr || line == nullptr) return 0;
    if (size < 1) return 1;
    line[0] = '\0';
    if (handle->eof != 0) return 1;
    Line read{line, size};
    const bool complete = read_line(handle, allow_long != 0, read);
    line[read.stored] = '\0';
    if (!complete) return 0;
    if (got != nullptr) *got = read.stored;
    if (full_length != nullptr) *full_length = saturated(read.length);
    return 1;
}

int16_t cm_fwrite(cm_file *handle, const void *data, int32_t length, int32_t *written) {
    if (written != nullptr) *written = 0;
    if (!is_open_file(handle)) return 0;
    const std::string_view bytes = view(static_cast<const char *>(data), length);
    if (bytes.empty()) return data != nullptr || length < 1 ? 1 : 0;
    size_t done = 0;
    const Error error = os.file_write(handle->descriptor, bytes.data(), bytes.size(), &done);
    if (written != nullptr) *written = saturated(done);
    if (done == bytes.size()) return 1;
    const long asked = static_cast<long>(bytes.size());
    if (done == 0) {
        report(handle->ctx, CM_ERROR, "cm_fwrite(%d) to file failed [%ld bytes].", error, asked);
        return 0;
    }
    report(handle->ctx, CM_ERROR, "cm_fwrite(%d) to file failed [%ld/%ld bytes].", error, static_cast<long>(done),
           asked);
    return 1;  // kept: a short write is a success that `written` tells about
}

int16_t cm_lseek(cm_file *handle, int32_t offset, int32_t whence) {
    if (handle == nullptr || handle->kind == 0) return 0;
    if (handle->kind != kSystemFile) {
        if (whence != CM_SEEK_START || offset < 0 || offset > handle->total) return 0;
        handle->read_offset = offset;
        handle->available = handle->total - offset;
        handle->eof = 0;
        return 1;
    }
    // Kept: the position is the offset whatever it is relative to; from the end, the reader stands at the end of the
    // file for good; "current" is where the descriptor stands, behind what was read ahead.
    handle->read_offset = handle->available = 0;
    handle->position = static_cast<uint32_t>(offset);
    if (whence == CM_SEEK_START) handle->eof = 0;
    if (whence == CM_SEEK_END) handle->eof = 1;
    int64_t position = 0;
    return os.file_seek(handle->descriptor, offset, whence, &position) == 0 ? 1 : 0;
}

int16_t cm_fclose(cm_file *handle) {
    if (handle == nullptr) return 0;
    // Whoever takes the kind closes; a second close finds none and must not put the handle on the free list again.
    const int32_t kind = __atomic_exchange_n(&handle->kind, 0, __ATOMIC_ACQ_REL);
    if (kind == 0) return 0;
    bool written = true;
    if (!detach(handle, kind, &written)) {
        __atomic_store_n(&handle->kind, kind, __ATOMIC_RELEASE);
        return 0;
    }
    handle->buffer = handle->own_buffer;
    handle->available = 0;
    handle->descriptor = -1;
    store_relaxed(handle->open_mark, 0);
    put_back(handle, true);
    return written ? 1 : 0;
}

int16_t cm_hexwrite(cm_file *handle, cm_mutex *mutex, const void *data, int32_t length) {
    if (!is_open_file(handle)) return 0;
    const std::string_view bytes = view(static_cast<const char *>(data), length);
    if (bytes.empty()) return data != nullptr || length < 1 ? 1 : 0;
    if (mutex != nullptr && cm_take_mutex(mutex) == 0) return 0;
    const bool written = is_open_file(handle) && dump(handle, bytes);
    if (mutex != nullptr && cm_release_mutex(mutex) == 0) return 0;
    return written ? 1 : 0;
}
