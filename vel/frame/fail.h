// How the sources of the library report an error (internal).
#pragma once

#include <vel/frame/error.h>
#include <vel/os/error_codes.h>

namespace vel {

/// Leaves the code with the calling thread and returns -1.
inline int fail(uint32_t code) {
    VELLib::SetErrorCode(code);
    return -1;
}

/// 0 for code 0, else as `fail`.
inline int result_of(uint32_t code) { return code == error::none ? 0 : fail(code); }

} // namespace vel
