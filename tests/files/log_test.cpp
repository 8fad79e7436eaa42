// Log files as files: their generations, rotation, compression, and other files copied into them.
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

struct LogFiles : FilesWorld {
    explicit LogFiles(const Row & = {}) {
        folder.make_folder("log");
        EXPECT_EQ(1, cm_create_mutex(ctx, &mutex));
        on("open", [this](auto &words) {
            const std::map<std::string, int32_t> flags = {
                {"fresh", kFresh}, {"append", kAppend}, {"append-binary", kAppend | CM_O_BINARY}};
            return cm_fopenl(ctx, words.text(0), flags.at(words[1]), &file);
        });
        on("close", [this](auto &) { return cm_fclose(file); });
        on("line", [this](auto &words) {
            const auto mode = static_cast<int16_t>(words[0] == "now");
            return cm_lwrite(file, words.text(1), CM_LEN_TEXT, 0, mutex, mode);
        });
        on("counted", [this](auto &) { return file->lines; });
        on("write", [this](auto &words) { return cm_fwrite(file, words.text(0), CM_LEN_TEXT, nullptr); });
        on("rotate", [this](auto &words) {
            const char *const old_name = words[1] == "-" ? nullptr : words.text(1);
            return cm_lrotate(file, mutex, words.text(0), old_name, words[2] == "compress");
        });
        on("compress", [this](auto &words) { return cm_zlib_gzip(ctx, at(words[0])); });
        on("unpacked", [this](auto &words) {
            const std::string bytes = folder.read(words[0]), text = inflated(bytes);
            EXPECT_LT(bytes.size(), text.size() / 3 + 40);
            return text;
        });
        on("size", [this](auto &words) { return folder.read(words[0]).size(); });
        on("log-to-it", [this](auto &) {
            ctx->log_file = file;
            ctx->log_mutex = mutex;
        });
        on("copy-into-log", [this](auto &words) {
            cm_logfile(nullptr, words.text(0), at(words[1]));
            cm_logfile(ctx, words.text(0), at(words[1]));
        });
    }
    ~LogFiles() override {
        cm_fclose(file);
        cm_delete_mutex(mutex);
    }

    cm_file *file = nullptr;
    cm_mutex *mutex = nullptr;
};
SCENARIOS(LogGenerations, LogFiles, "files/logs");

struct LogFilesTest : testing::Test, LogFiles {};

TEST_F(LogFilesTest, CompressingFailsWholeOrNotAtAll) {
    std::string text;
    for (int i = 0; i < 30000; i++) text += std::to_string(i * 7919 % 100003);
    const std::string name = folder.write("f", text), failed = "Tilvar Server Error: cm_zlib_gzip() Compression of '";
    const size_t held = leaks.outstanding();
    int16_t done = 0;
    each_failure(
        Faults::kBoth, [&] { done = cm_zlib_gzip(ctx, name.c_str()); },
        [&](bool injected) {
            EXPECT_EQ(held, leaks.outstanding());
            EXPECT_TRUE(done != 0 || injected);
            EXPECT_EQ(text, done != 0 ? inflated(folder.read("f")) : folder.read("f"));
            const std::string said = told();
            EXPECT_TRUE(done != 0 || said == failed + name + "' failed.\n" ||
                        said == "Tilvar Server Error: File open of '" + name + "' failed.\n")
                << said;
            folder.write("f", text);
        });
}

}  // namespace
}  // namespace cm::test
