// The lock interface and the mutex between threads.
#include <algorithm>
#include <vel/frame/error.h>
#include <vel/os/error_codes.h>
#include <vel/os/thread.h>
#include <vel/sync/mutex.h>
#include <vel/sync/unsupported.h>

namespace vel {

int unsupported_lock_operation() {
    VELLib::SetErrorCode(error::not_implemented);
    return -1;
}

} // namespace vel

VEL_Base_Mutex::~VEL_Base_Mutex() = default;

int VEL_Base_Mutex::tryacquire() { return 0; }
int VEL_Base_Mutex::tryacquire_read() { return 0; }
int VEL_Base_Mutex::tryacquire_write() { return 0; }
int VEL_Base_Mutex::acquire(uint32_t) { return 0; }
int VEL_Base_Mutex::acquire() { return 0; }
int VEL_Base_Mutex::acquire_read() { return 0; }
int VEL_Base_Mutex::acquire_write() { return 0; }
int VEL_Base_Mutex::release() { return 0; }

VEL_Thread_Mutex::~VEL_Thread_Mutex() = default;

int VEL_Thread_Mutex::tryacquire_read() { return vel::unsupported_lock_operation(); }
int VEL_Thread_Mutex::tryacquire_write() { return vel::unsupported_lock_operation(); }
int VEL_Thread_Mutex::acquire(uint32_t) { return vel::unsupported_lock_operation(); }
int VEL_Thread_Mutex::acquire_read() { return vel::unsupported_lock_operation(); }
int VEL_Thread_Mutex::acquire_write() { return vel::unsupported_lock_operation(); }

/// Most holders are gone within a hundred nanoseconds, and sleep and waking cost them microseconds: so it tries for
/// about two before it sleeps, ever less often, which leaves the holder and what it works on in peace.
int VEL_Thread_Mutex::acquire_taken() {
    constexpr uint32_t tries = 9, longest = 16;
    for (uint32_t left = tries, pauses = 1; left > 0; --left, pauses = std::min(pauses * 2, longest)) {
        vel::os::pause_spinning(pauses);
        if (mutex_.try_lock()) return 0;
    }
    mutex_.lock();
    return 0;
}
