// Compressing files with zlib.
#include <zlib.h>

#include "core/cmerror.h"
#include "files/durable.h"
#include "platform/platform.h"
#include "tilvarcm.h"

namespace cm::zlib {

using platform::os;

namespace {

constexpr uInt kBlock = 32 * 1024;
constexpr int kGzipWindow = 15 + 16;  // the widest window, in a gzip wrapping
constexpr int kMemoryLevel = 8;       // zlib's own default

voidpf allocate(voidpf, uInt items, uInt size) {
    return os.allocate(static_cast<size_t>(items) * size);
}
void release(voidpf, voidpf block) {
    os.release(block);
}

class Source {
public:
    explicit Source(const char *path) {
        if (os.file_open(path, CM_O_RDONLY | CM_O_BINARY | CM_O_SEQ, &descriptor_) != 0) descriptor_ = -1;
    }
    ~Source() { close(); }
    Source(const Source &) = delete;
    Source &operator=(const Source &) = delete;

    bool is_open() const { return descriptor_ >= 0; }
    bool read(unsigned char *block, uInt *got) {
        size_t count = 0;
        if (os.file_read(descriptor_, block, kBlock, &count) != 0) return false;
        *got = static_cast<uInt>(count);
        return true;
    }
    void close() {
        if (is_open()) os.file_close(descriptor_);
        descriptor_ = -1;
    }

private:
    int32_t descriptor_ = -1;
};

class Deflater {
public:
    Deflater() : blocks_(static_cast<unsigned char *>(os.allocate(2 * kBlock))) {
        stream_.zalloc = allocate;
        stream_.zfree = release;
        ready_ = blocks_ != nullptr && deflateInit2(&stream_, Z_DEFAULT_COMPRESSION, Z_DEFLATED, kGzipWindow,
                                                    kMemoryLevel, Z_DEFAULT_STRATEGY) == Z_OK;
    }
    ~Deflater() {
        if (ready_) deflateEnd(&stream_);
        os.release(blocks_);
    }
    Deflater(const Deflater &) = delete;
    Deflater &operator=(const Deflater &) = delete;

    bool run(Source &source, files::DurableFile &target) {
        if (!ready_) return false;
        unsigned char *const in = blocks_, *const out = blocks_ + kBlock;
        uInt got = 0;
        int state = Z_OK;
        do {
            if (!source.read(in, &got)) return false;
            stream_.next_in = in;
            stream_.avail_in = got;
            do {
                stream_.next_out = out;
                stream_.avail_out = kBlock;
                state = deflate(&stream_, got == 0 ? Z_FINISH : Z_NO_FLUSH);
                if (!target.write(out, kBlock - stream_.avail_out)) return false;
            } while (stream_.avail_out == 0);
        } while (got > 0);
        return state == Z_STREAM_END;
    }

private:
    unsigned char *blocks_;
    z_stream stream_ = {};
    bool ready_;
};

}  // namespace
}  // namespace cm::zlib

using namespace cm;

int16_t cm_zlib_gzip(cm_context *ctx, const char *path) {
    if (path == nullptr) return 0;
    zlib::Source source(path);
    if (!source.is_open()) {
        report(ctx, CM_ERROR, "File open of '%s' failed.", path);
        return 0;
    }
    files::DurableFile target;
    bool complete = false;
    if (target.open(path)) {
        zlib::Deflater deflater;
        complete = deflater.run(source, target);
    }
    source.close();
    if (complete && target.commit()) return 1;
    report(ctx, CM_ERROR, "cm_zlib_gzip() Compression of '%s' failed.", path);
    return 0;
}
