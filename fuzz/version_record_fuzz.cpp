// Any bytes as a PE image: the reader must answer, and what it finds must be what the bytes hold.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <vel/os/error_codes.h>
#include <vel/os/version_record.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    vel::os::VersionRecord record{};
    bool found = false;
    const uint32_t code = vel::os::find_version_record(data, size, record, found);
    if (code != vel::error::none && code != vel::error::resource_malformed) std::abort();
    if (code != vel::error::none && found) std::abort();

    const uint8_t signature[] = {0xBD, 0x04, 0xEF, 0xFE};
    if (found && std::search(data, data + size, std::begin(signature), std::end(signature)) == data + size)
        std::abort();
    return 0;
}
