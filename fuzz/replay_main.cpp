// Runs a fuzz target once on each file of a corpus; for builds without the fuzzing engine.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

// Targets that need something set up first define this; libFuzzer calls it as well.
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace {

bool run_file(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    const std::vector<uint8_t> input((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    if (file.bad() || !file.is_open()) {
        std::fprintf(stderr, "%s: cannot be read\n", path.c_str());
        return false;
    }
    // A copy of exactly this size, so that a read past its end is seen by the sanitizers.
    const std::vector<uint8_t> exact(input.begin(), input.end());
    LLVMFuzzerTestOneInput(exact.data(), exact.size());
    return true;
}

} // namespace

int main(int argc, char** argv) {
    if (LLVMFuzzerInitialize) LLVMFuzzerInitialize(&argc, &argv);
    size_t inputs = 0;
    for (int i = 1; i < argc; ++i) {
        for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
            if (!entry.is_regular_file()) continue;
            if (!run_file(entry.path())) return 1;
            ++inputs;
        }
    }
    std::printf("%zu inputs\n", inputs);
    return inputs == 0; // an empty corpus has shown nothing
}
