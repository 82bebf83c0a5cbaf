// Any bytes as a PE image: the reader must answer, and what it finds must be what the bytes hold.
#include "target.h"

#include <string_view>
#include <vel/os/error_codes.h>
#include <vel/os/version_record.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    vel::os::VersionRecord record{};
    bool found = false;
    const uint32_t code = vel::os::find_version_record(data, size, record, found);
    require(code == vel::error::none || (code == vel::error::resource_malformed && !found));
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    require(!found || bytes.find("\xBD\x04\xEF\xFE") != bytes.npos);
    return 0;
}
