// Runs a fuzz target once on each file of a corpus; for builds without the fuzzing engine.
#include "target.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <vector>

int main(int argc, char** argv) {
    if (LLVMFuzzerInitialize) LLVMFuzzerInitialize(&argc, &argv);
    size_t inputs = 0;
    for (int i = 1; i < argc; ++i) {
        for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
            // Of exactly the size of the file, so that a read past its end is seen by the sanitizers.
            std::vector<char> input(entry.file_size());
            require(!std::ifstream(entry.path(), std::ios::binary).read(input.data(), entry.file_size()).fail());
            LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(input.data()), input.size());
            ++inputs;
        }
    }
    std::printf("%zu inputs\n", inputs);
    return inputs == 0; // an empty corpus has shown nothing
}
