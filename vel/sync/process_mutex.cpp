// Named mutex between processes.
#include <utility>
#include <vel/frame/error.h>
#include <vel/frame/exception.h>
#include <vel/os/error_codes.h>
#include <vel/os/handle.h>
#include <vel/os/named_mutex.h>
#include <vel/sync/process_mutex.h>
#include <vel/sync/unsupported.h>

namespace {

int status(uint32_t error) {
    if (error == vel::error::none) return 0;
    VELLib::SetErrorCode(error);
    return -1;
}

// A share of the handle for a copy; a handle that is closed already stays as dead in the copy.
void* shared(void* handle) {
    if (handle) vel::os::share_handle(handle);
    return handle;
}

} // namespace

VEL_Process_Mutex::VEL_Process_Mutex(const char* name, bool open) {
    if (open && open_mutex(name) != 0) VEL_Exception::ThrowException(VELLib::GetErrorCode());
}

VEL_Process_Mutex::VEL_Process_Mutex(const VEL_Process_Mutex& other)
    : VEL_Base_Mutex(other),
      handle_(shared(other.handle_)) {}

VEL_Process_Mutex& VEL_Process_Mutex::operator=(const VEL_Process_Mutex& other) {
    void* handle = shared(other.handle_); // first, for assigning to itself
    close_mutex();
    handle_ = handle;
    return *this;
}

VEL_Process_Mutex::~VEL_Process_Mutex() { close_mutex(); }

int VEL_Process_Mutex::open_mutex(const char* name) {
    void* handle = nullptr;
    if (status(vel::os::open_mutex(name, handle)) != 0) return -1;
    handle_ = handle; // over a handle that is held already: that one stays open, on purpose
    return 0;
}

void VEL_Process_Mutex::close_mutex() {
    if (void* handle = std::exchange(handle_, nullptr)) vel::os::close_handle(handle);
}

int VEL_Process_Mutex::tryacquire() {
    bool abandoned = false;
    const uint32_t error = vel::os::acquire_mutex(handle_, 0, abandoned);
    return error == vel::error::wait_timeout ? -1 : status(error);
}

int VEL_Process_Mutex::acquire(uint32_t timeout_ms) {
    bool abandoned = false;
    return acquire(timeout_ms, abandoned);
}

int VEL_Process_Mutex::acquire() { return VEL_Process_Mutex::acquire(VEL_INFINITE); }

int VEL_Process_Mutex::acquire(uint32_t timeout_ms, bool& abandoned) {
    return status(vel::os::acquire_mutex(handle_, timeout_ms, abandoned));
}

int VEL_Process_Mutex::release() { return status(vel::os::release_mutex(handle_)); }

int VEL_Process_Mutex::tryacquire_read() { return vel::unsupported_lock_operation(); }
int VEL_Process_Mutex::tryacquire_write() { return vel::unsupported_lock_operation(); }
int VEL_Process_Mutex::acquire_read() { return vel::unsupported_lock_operation(); }
int VEL_Process_Mutex::acquire_write() { return vel::unsupported_lock_operation(); }
