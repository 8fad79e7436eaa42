#include <zlib.h>

#include "files/fixture.h"

namespace cm::test {
namespace {

constexpr int32_t kFresh = CM_O_RDWR | CM_O_CREAT | CM_O_TRUNC, kAppend = CM_O_RDWR | CM_O_APPEND | CM_O_CREAT;

std::string inflated(const std::string &bytes) {
    z_stream stream = {};
    std::string out(1 << 20, '\0');
    EXPECT_EQ(Z_OK, inflateInit2(&stream, 15 + 16));
    stream.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(bytes.data()));
    stream.avail_in = static_cast<uInt>(bytes.size());
    stream.next_out = reinterpret_cast<Bytef *>(out.data());
    stream.avail_out = static_cast<uInt>(out.size());
    EXPECT_EQ(Z_STREAM_END, inflate(&stream, Z_FINISH));
    EXPECT_EQ(0u, stream.avail_in);
    out.resize(stream.total_out);
    inflateEnd(&stream);
    return out;
}

class LogFiles : public FilesWithContext {
protected:
    LogFiles() { cm_create_mutex(ctx, &mutex); }
    ~LogFiles() override { cm_delete_mutex(mutex); }

    cm_file *open_log(const char *name, int32_t flags) {
        cm_file *file = nullptr;
        EXPECT_EQ(1, cm_fopenl(ctx, name, flags, &file));
        return file;
    }

    cm_mutex *mutex = nullptr;
};

TEST_F(LogFiles, RotatingWithCompression) {
    cm_file *file = open_log("a.log", kFresh);
    std::string expected;
    for (int i = 0; i < 20000; i++) {
        const std::string line = "line " + std::to_string(i) + "\n";
        ASSERT_EQ(1, cm_lwrite(file, line.c_str(), CM_LEN_TEXT, 0, mutex, 0));
        expected += line;
    }
    EXPECT_EQ(1, cm_lwrite(file, nullptr, 0, 0, mutex, 1));
    EXPECT_EQ(1, cm_lrotate(file, mutex, "a.log", "a.old", 1));
    EXPECT_EQ(expected, inflated(folder.read("log/a.old")));
    EXPECT_LT(folder.read("log/a.old").size(), expected.size() / 3);
    EXPECT_EQ(1, cm_lrotate(file, mutex, "a.log", nullptr, 1));  // nothing was moved, nothing to compress
    EXPECT_EQ(1, cm_fclose(file));
    EXPECT_EQ((Strings{"a.log", "a.old"}), folder.names("log"));
}

TEST_F(LogFiles, CompressingFailsWholeOrNotAtAll) {
    std::string text;
    for (int i = 0; i < 30000; i++) text += std::to_string(i * 7919 % 100003);
    const std::string name = folder.write("f", text);
    int16_t done = 0;
    each_failure(
        Faults::kBoth, [&] { done = cm_zlib_gzip(ctx, name.c_str()); },
        [&](bool injected, size_t leaked) {
            EXPECT_EQ(0u, leaked);
            EXPECT_TRUE(done != 0 || injected);
            EXPECT_EQ(text, done != 0 ? inflated(folder.read("f")) : folder.read("f"));
            const std::string said = errors();
            EXPECT_TRUE(done != 0 ||
                        said == "Tilvar Server Error: cm_zlib_gzip() Compression of '" + name + "' failed.\n" ||
                        said == "Tilvar Server Error: File open of '" + name + "' failed.\n")
                << said;
            folder.write("f", text);
        });
    const std::string empty = folder.write("f", "");
    EXPECT_EQ(1, cm_zlib_gzip(ctx, empty.c_str()));
    EXPECT_EQ("", inflated(folder.read("f")));
}

TEST_F(LogFiles, CopyingAFileIntoTheLog) {
    const std::string name = folder.write("f", std::string(1024, 'a') + std::string(1000, 'b') + "\n12");
    cm_logfile(nullptr, "heading", name.c_str());
    cm_logfile(ctx, "heading", name.c_str());
    EXPECT_EQ("Tilvar Server Error: heading [file: " + name + "]\n", errors());

    ctx->log_file = open_log("a.log", kFresh);
    ctx->log_mutex = mutex;
    cm_logfile(ctx, "heading", name.c_str());
    EXPECT_EQ(1, cm_fclose(ctx->log_file));
    const Strings lines = log_lines(path("log/a.log"));
    ASSERT_EQ(3u, lines.size());
    EXPECT_EQ("heading", lines[0]);  // dated, and no level
    EXPECT_EQ(std::string(992, 'a'), lines[1]);
    EXPECT_EQ(std::string(992, 'b'), lines[2]);  // the second piece, cut: its line feed and "12" are gone
}

TEST_F(LogFiles, CopyingTheLogIntoItself) {
    ctx->log_file = open_log("a.log", kFresh);
    ctx->log_mutex = mutex;
    const std::string line(999, 'x');
    for (int i = 0; i < 100; i++) cm_lwrite(ctx->log_file, line.data(), 999, 0, mutex, 1);
    const size_t size = folder.read("log/a.log").size();
    cm_logfile(ctx, "heading", path("log/a.log").c_str());
    EXPECT_EQ(1, cm_fclose(ctx->log_file));
    EXPECT_LE(folder.read("log/a.log").size(), 2 * size + 100);
}

}  // namespace
}  // namespace cm::test
