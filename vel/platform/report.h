// From the codes of the operating-system boundary to results of the library (internal).
#pragma once

#include <vel/frame/error.h>

namespace vel {

/// 0 for code 0; else stores the code as the thread's and gives -1.
inline int report(uint32_t code) {
    if (code == 0) return 0;
    VELLib::SetErrorCode(code);
    return -1;
}

} // namespace vel
