// What needs both threads and tasks: starting task threads, their messages and their handlers.
//
// The task class is not there yet: nothing makes a descriptor with a task or a reactor, so after the checks every call
// answers as it does for a plain thread.
#include <vel/frame/error.h>
#include <vel/os/error_codes.h>
#include <vel/threads/thread_manager.h>

namespace {

int not_implemented() {
    VELLib::SetErrorCode(vel::error::not_implemented);
    return -1;
}

} // namespace

int VEL_Thread_Manager::spawn(VEL_Task_Base*, size_t, VEL_thread_t*, int, unsigned int, uint32_t) {
    VEL_Guard guard(lock_);
    if (closed_ == 0) return not_implemented();
    VELLib::SetErrorCode(vel::error::object_closed);
    return -1;
}

int VEL_Thread_Manager::spawn(VEL_Task_Base* task, VEL_thread_t& id, int grp, unsigned int stack_size, uint32_t flags) {
    return spawn(task, 1, &id, grp, stack_size, flags);
}

int VEL_Thread_Descriptor::sendMessage(const VEL_Message_Block&) { return not_implemented(); }

int VEL_Thread_Manager::sendMessage(const VEL_thread_t& thread, const VEL_Message_Block& message) {
    VEL_Guard guard(lock_);
    VEL_Thread_Descriptor* descriptor = find(thread);
    return descriptor ? descriptor->sendMessage(message) : -1;
}

int VEL_Thread_Manager::sendMessage(int grp, const VEL_Message_Block& message) {
    VEL_Guard guard(lock_);
    for (auto& entry : *threads_)
        if (entry.value()->thr_grp() == grp) entry.value()->sendMessage(message);
    return 0;
}

int VEL_Thread_Manager::register_handler(const VEL_thread_t& thread, VEL_Event_Handler*, void*, uint32_t) {
    VEL_Guard guard(lock_);
    return find(thread) ? not_implemented() : -1;
}

int VEL_Thread_Manager::register_handler(const VEL_thread_t& thread, void*, VEL_Event_Handler*, uint32_t) {
    VEL_Guard guard(lock_);
    return find(thread) ? not_implemented() : -1;
}

int VEL_Thread_Manager::remove_handler(const VEL_thread_t& thread, VEL_Event_Handler*, void*, uint32_t) {
    VEL_Guard guard(lock_);
    return find(thread) ? not_implemented() : -1;
}

int VEL_Thread_Manager::remove_handler(const VEL_thread_t& thread, void*, VEL_Event_Handler*, uint32_t) {
    VEL_Guard guard(lock_);
    return find(thread) ? not_implemented() : -1;
}
