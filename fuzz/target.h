// What the fuzz targets share.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

/// Sets a target up; targets that need nothing leave it out.
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

inline void require(bool holds) {
    if (!holds) std::abort();
}
