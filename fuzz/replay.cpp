// Runs a fuzz target over every file of a folder, where the fuzzing engine is not built in.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int argc, char **argv) {
    int inputs = 0;
    for (int i = 1; i < argc; i++)
        for (const auto &entry : std::filesystem::recursive_directory_iterator(argv[i])) {
            if (!entry.is_regular_file()) continue;
            std::ifstream stream(entry.path(), std::ios::binary);
            std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(stream)), {});
            LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
            inputs++;
        }
    std::printf("%d inputs\n", inputs);
    return inputs > 0 ? 0 : 1;
}
