// Circular buffers: a byte count tells full from empty, and each transfer is at most two copies.
#include <string.h>

#include <algorithm>

#include "core/cmmemory.h"
#include "platform/platform.h"

struct cm_cbuf {
    bool in_pool;
    int32_t size;
    int32_t first;  // where the oldest byte is
    int32_t used;
    unsigned char bytes[];
};

namespace {

using cm::platform::os;

// Copies the oldest bytes out; gives their number.
int32_t copy_out(const cm_cbuf *buffer, void *data, int32_t length) {
    const int32_t count = std::min(length, buffer->used);
    const int32_t before_end = std::min(count, buffer->size - buffer->first);
    memcpy(data, buffer->bytes + buffer->first, static_cast<size_t>(before_end));
    memcpy(static_cast<unsigned char *>(data) + before_end, buffer->bytes, static_cast<size_t>(count - before_end));
    return count;
}

// (index + count) modulo size, where the sum may not fit 32 bits.
int32_t advance(const cm_cbuf *buffer, int32_t index, int32_t count) {
    const int32_t room = buffer->size - index;
    return count < room ? index + count : count - room;
}

void put_count(int32_t *out, int32_t count) {
    if (out != nullptr) *out = count;
}

int16_t read(cm_cbuf *buffer, void *data, int32_t length, int32_t *out_got, bool consume) {
    put_count(out_got, 0);
    if (buffer == nullptr || length < 0 || (data == nullptr && length > 0)) return 0;
    if (length == 0) return 1;
    const int32_t count = copy_out(buffer, data, length);
    if (consume) {
        buffer->first = advance(buffer, buffer->first, count);
        buffer->used -= count;
    }
    put_count(out_got, count);
    return 1;
}

}  // namespace

CM_API int16_t CM_CALL cm_cbuf_alloc(cm_context *, cm_mem_pool *pool, int32_t size, cm_cbuf **out) {
    if (out == nullptr) return 0;
    *out = nullptr;
    if (size < 1) return 0;
    auto *buffer = static_cast<cm_cbuf *>(cm::allocate_zeroed(pool, sizeof(cm_cbuf) + static_cast<uint64_t>(size)));
    if (buffer == nullptr) return 0;
    buffer->in_pool = pool != nullptr;
    buffer->size = size;
    *out = buffer;
    return 1;
}

CM_API int16_t CM_CALL cm_cbuf_free(cm_cbuf *buffer) {
    if (buffer == nullptr) return 0;
    if (!buffer->in_pool) os.release(buffer);
    return 1;
}

CM_API int16_t CM_CALL cm_cbuf_put(cm_cbuf *buffer, const void *data, int32_t length, int32_t *stored) {
    put_count(stored, 0);
    if (buffer == nullptr || (data == nullptr && length != 0)) return 0;
    if (length == CM_LEN_TEXT) {
        const size_t measured = strlen(static_cast<const char *>(data));
        length = measured > INT32_MAX ? INT32_MAX : static_cast<int32_t>(measured);
    }
    if (length < 0) return 0;
    if (length == 0) return 1;
    const int32_t count = std::min(length, buffer->size - buffer->used);
    const int32_t end = advance(buffer, buffer->first, buffer->used);
    const int32_t before_end = std::min(count, buffer->size - end);
    memcpy(buffer->bytes + end, data, static_cast<size_t>(before_end));
    memcpy(buffer->bytes, static_cast<const unsigned char *>(data) + before_end,
           static_cast<size_t>(count - before_end));
    buffer->used += count;
    put_count(stored, count);
    return 1;
}

CM_API int16_t CM_CALL cm_cbuf_get(cm_cbuf *buffer, void *data, int32_t length, int32_t *got) {
    return read(buffer, data, length, got, true);
}

CM_API int16_t CM_CALL cm_cbuf_peek(cm_cbuf *buffer, void *data, int32_t length, int32_t *got) {
    return read(buffer, data, length, got, false);
}

CM_API int32_t CM_CALL cm_cbuf_used(cm_cbuf *buffer) {
    return buffer == nullptr ? 0 : buffer->used;
}

CM_API int32_t CM_CALL cm_cbuf_room(cm_cbuf *buffer) {
    return buffer == nullptr ? 0 : buffer->size - buffer->used;
}

CM_API int16_t CM_CALL cm_cbuf_reset(cm_cbuf *buffer) {
    if (buffer == nullptr) return 0;
    buffer->first = 0;
    buffer->used = 0;
    return 1;
}
