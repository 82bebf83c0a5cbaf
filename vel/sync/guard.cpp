// Scope guards that hold a lock.
#include <vel/frame/error.h>
#include <vel/os/error_codes.h>
#include <vel/sync/guard.h>

namespace vel {

int guard_without_lock() {
    VELLib::SetErrorCode(error::null_member);
    return -1;
}

} // namespace vel
