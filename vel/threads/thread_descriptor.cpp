// One managed thread: creation, stopping, and the body of the platform thread.
#include <vel/threads/thread_descriptor.h>

#include <vel/frame/error.h>
#include <vel/frame/exception.h>
#include <vel/frame/fail.h>
#include <vel/os/error_codes.h>
#include <vel/os/handle.h>
#include <vel/os/thread.h>
#include <vel/threads/thread_manager.h>

void VEL_Thread_Descriptor::create(uint32_t stack_size) {
    void* handle = nullptr;
    uint32_t id = 0;
    const uint32_t code = vel::os::create_thread(&VEL_Thread_Manager::thr_entry, this, stack_size, handle, id);
    if (code != vel::error::none) VEL_Exception::ThrowException(code);
    thread_ = VEL_thread_t(handle, id);
    state_.store(THR_SPAWNED, std::memory_order_release);
}

uint32_t VEL_Thread_Descriptor::run() {
    const int result = entry_(argument_);
    exit_code_.store(result, std::memory_order_release);
    state_.store(THR_EXITED, std::memory_order_release);
    return static_cast<uint32_t>(result);
}

bool VEL_Thread_Descriptor::is_caller() const { return thread_.thr_id() == vel::os::current_thread_id(); }

void VEL_Thread_Descriptor::enter(VEL_Thread_State state) {
    int before = state_.load(std::memory_order_acquire);
    while (before != THR_EXITED && !state_.compare_exchange_weak(before, state, std::memory_order_acq_rel)) {
    }
}

// Also a thread that has ended becomes cancelled, until it is joined.
int VEL_Thread_Descriptor::cancel() {
    state_.store(THR_CANCELLED, std::memory_order_release);
    if (cancel_) cancel_(argument_);
    return 0;
}

int VEL_Thread_Descriptor::kill(int exit_code) {
    const uint32_t code = vel::os::terminate_thread(thread_.thr_handle(), static_cast<uint32_t>(exit_code));
    if (code != vel::error::none) return vel::fail(code);
    thr_close();
    return 0;
}

bool VEL_Thread_Descriptor::survived() const {
    return is_caller() || VELLib::GetErrorCode() == vel::error::wait_timeout;
}

int VEL_Thread_Descriptor::suspend() {
    uint32_t previous = 0;
    const uint32_t code = vel::os::suspend_thread(thread_.thr_handle(), previous);
    if (code != vel::error::none) return vel::fail(code);
    enter(THR_SUSPENDED);
    return static_cast<int>(previous);
}

int VEL_Thread_Descriptor::resume() {
    uint32_t previous = 0;
    const uint32_t code = vel::os::resume_thread(thread_.thr_handle(), previous);
    if (code != vel::error::none) return vel::fail(code);
    if (previous < 2) enter(THR_RUNNING);
    return static_cast<int>(previous);
}

// The system's exit code is the entry function's result, or that of a thread whose entry function never ran.
void VEL_Thread_Descriptor::thr_close() {
    uint32_t exit_code = 0;
    if (vel::os::thread_exit_code(thread_.thr_handle(), exit_code) == vel::error::none)
        exit_code_.store(static_cast<int>(exit_code), std::memory_order_release);
    vel::os::close_handle(thread_.thr_handle());
    closed_ = true;
    state_.store(THR_EXITED, std::memory_order_release);
}
