// Fixed version record of an executable file.
#pragma once

#include <vel/types.h>

namespace vel::os {

struct VersionRecord {
    uint32_t file_high;
    uint32_t file_low;
    uint32_t product_high;
    uint32_t product_low;
};

/// Finds the fixed version record in the bytes of a PE image. Every offset is checked against `size`.
/// 0 with `found` false when the image has none (or is no PE image); 1813 when its resources are malformed.
uint32_t find_version_record(const void* image, uint64_t size, VersionRecord& record, bool& found);

/// The same for a file.
uint32_t read_version_record(const char* path, VersionRecord& record, bool& found);

} // namespace vel::os
