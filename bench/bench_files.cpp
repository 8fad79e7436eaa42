// The line reader over 64 MB beside its peers.  The fair one is stdio held to the same buffer of 1024 bytes.
#include <apr_file_io.h>
#include <apr_general.h>
#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>

#include "tilvarcm.h"

namespace {

constexpr size_t kBytes = 64u << 20;
constexpr int kLineSize = 1024;

// Lines of 20 to 139 bytes.
class Sample {
public:
    Sample() : path_("bench_files.sample") {
        std::FILE *file = std::fopen(path_.c_str(), "wb");
        unsigned seed = 1;
        for (size_t written = 0; written < kBytes; lines_++) {
            seed = seed * 1103515245u + 12345u;
            const std::string line(20 + (seed >> 16) % 120, 'x');
            std::fprintf(file, "%s\n", line.c_str());
            written += line.size() + 1;
        }
        std::fclose(file);
    }
    ~Sample() { std::remove(path_.c_str()); }
    const char *path() const { return path_.c_str(); }
    void count(benchmark::State &state, size_t lines) const {
        if (lines != lines_) state.SkipWithError("lines are missing");
        state.counters["line"] = benchmark::Counter(
            static_cast<double>(lines), benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
    }

private:
    std::string path_;
    size_t lines_ = 0;
};

Sample &sample() {
    static Sample one;
    return one;
}

void lines_cm_fgetl(benchmark::State &state) {
    char line[kLineSize + 1];
    size_t lines = 0;
    for (auto _ : state) {
        cm_file *file = nullptr;
        if (cm_fopen(nullptr, sample().path(), CM_O_RDONLY | CM_O_SEQ, &file) == 0) break;
        int32_t got = 0;
        for (lines = 0; cm_fgetl(file, 0, line, kLineSize, &got, nullptr) == 1 && got > 0; lines++)
            benchmark::DoNotOptimize(line[0]);
        cm_fclose(file);
    }
    sample().count(state, lines);
}

void lines_fgets_1024(benchmark::State &state) {
    char line[kLineSize + 1], buffer[1024];
    size_t lines = 0;
    for (auto _ : state) {
        std::FILE *file = std::fopen(sample().path(), "rb");
        std::setvbuf(file, buffer, _IOFBF, sizeof buffer);
        for (lines = 0; std::fgets(line, sizeof line, file) != nullptr; lines++) benchmark::DoNotOptimize(line[0]);
        std::fclose(file);
    }
    sample().count(state, lines);
}

void lines_apr_file_gets(benchmark::State &state) {
    char line[kLineSize + 1], buffer[1024];
    size_t lines = 0;
    apr_initialize();
    for (auto _ : state) {
        apr_pool_t *pool = nullptr;
        apr_file_t *file = nullptr;
        apr_pool_create(&pool, nullptr);
        apr_file_open(&file, sample().path(), APR_FOPEN_READ | APR_FOPEN_BUFFERED, APR_FPROT_OS_DEFAULT, pool);
        if (state.range(0) != 0) apr_file_buffer_set(file, buffer, sizeof buffer);
        for (lines = 0; apr_file_gets(line, sizeof line, file) == APR_SUCCESS; lines++)
            benchmark::DoNotOptimize(line[0]);
        apr_file_close(file);
        apr_pool_destroy(pool);
    }
    sample().count(state, lines);
    apr_terminate();
}

BENCHMARK(lines_cm_fgetl)->Unit(benchmark::kMillisecond);
BENCHMARK(lines_fgets_1024)->Unit(benchmark::kMillisecond);
BENCHMARK(lines_apr_file_gets)->ArgName("held_to_1024")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
