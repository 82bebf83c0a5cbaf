// The lock interface and the mutex between threads.
#include <vel/frame/error.h>
#include <vel/os/error_codes.h>
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
