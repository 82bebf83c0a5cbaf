// What needs both threads and tasks: starting task threads, their messages and their handlers.
#include <functional>
#include <memory>
#include <vel/buffers/message_block.h>
#include <vel/frame/error.h>
#include <vel/frame/exception.h>
#include <vel/frame/fail.h>
#include <vel/os/error_codes.h>
#include <vel/os/handle.h>
#include <vel/reactor/reactor.h>
#include <vel/threads/task.h>
#include <vel/threads/thread_manager.h>

VEL_Thread_Descriptor::VEL_Thread_Descriptor(VEL_Task_Base* task) : reactor_(std::make_shared<VEL_Reactor>()) {
    if (reactor_->register_handler(task, task->get_event(), VEL_SIGNAL_EVENT) < 0)
        VEL_Exception::ThrowException(VELLib::GetErrorCode());
    task_ = task;
    task_->addref();
    entry_ = &VEL_Task_Base::task_run;
    cancel_ = &VEL_Task_Base::task_exit;
    argument_ = this;
}

// Closes the handle of a thread that was forgotten without a wait. The reactor goes last; closing, it may still call
// the handlers of a thread that was killed or never ran.
VEL_Thread_Descriptor::~VEL_Thread_Descriptor() {
    if (!closed_ && !thread_.invalid()) vel::os::close_handle(thread_.thr_handle());
    if (task_) task_->release();
}

void VEL_Thread_Descriptor::leave_task() {
    if (task_) reactor_->remove_handler(task_, task_->get_event(), VEL_SIGNAL_EVENT | VEL_NO_CLOSE_CALL);
}

VEL_Task_Base* VEL_Thread_Descriptor::receiver() const {
    const int state = thr_state();
    if (!task_)
        VELLib::SetErrorCode(vel::error::not_implemented);
    else if (state != THR_RUNNING && state != THR_SUSPENDED)
        VELLib::SetErrorCode(vel::error::object_closed);
    else
        return task_;
    return nullptr;
}

// Interface: handle_init is called with the manager's lock held.
int VEL_Task_Base::spawn(VEL_Thread_Manager* manager, size_t n, VEL_thread_t* ids, int grp, unsigned int stack_size,
                         uint32_t flags) {
    const auto create = [&](std::unique_ptr<VEL_Thread_Descriptor>& descriptor) {
        descriptor.reset(new VEL_Thread_Descriptor(this));
        descriptor->group_ = grp;
        descriptor->create(stack_size);
        if (handle_init(descriptor->thr_desc(), descriptor->reactor_.get()) < 0)
            VEL_Exception::ThrowException(vel::error::task_init_failed);
        manager->add(*descriptor);
    };
    return manager->spawn_all(n, ids, flags, std::ref(create));
}

int VEL_Task_Base::task_run(void* argument) {
    auto* descriptor = static_cast<VEL_Thread_Descriptor*>(argument);
    const int result = descriptor->task_->svc(descriptor->reactor_.get());
    descriptor->reactor_->close();
    return result;
}

int VEL_Task_Base::task_exit(void* argument) {
    static_cast<VEL_Thread_Descriptor*>(argument)->reactor_->deactivate();
    return 0;
}

int VEL_Thread_Manager::spawn(VEL_Task_Base* task, size_t n, VEL_thread_t* ids, int grp, unsigned int stack_size,
                              uint32_t flags) {
    VEL_Guard guard(lock_);
    if (closed_ != 0) return vel::fail(vel::error::object_closed);
    if (!task) return vel::fail(vel::error::null_member);
    return task->spawn(this, n, ids, grp, stack_size, flags);
}

int VEL_Thread_Manager::spawn(VEL_Task_Base* task, VEL_thread_t& id, int grp, unsigned int stack_size, uint32_t flags) {
    return spawn(task, 1, &id, grp, stack_size, flags);
}

// Sent with the lock free, into which the woken thread might run otherwise.
int VEL_Thread_Manager::sendMessage(const VEL_thread_t& thread, const VEL_Message_Block& message) {
    VEL_Task_Base* task = nullptr;
    {
        VEL_Guard guard(lock_);
        const VEL_Thread_Descriptor* descriptor = find(thread);
        if (descriptor) task = descriptor->receiver();
        if (!task) return -1;
        task->addref();
    }
    const int result = task->sendMessage(message);
    task->release();
    return result;
}

int VEL_Thread_Manager::sendMessage(int grp, const VEL_Message_Block& message) {
    VEL_Guard guard(lock_);
    for (auto& entry : *threads_) {
        if (entry.value()->thr_grp() != grp) continue;
        if (VEL_Task_Base* task = entry.value()->receiver()) task->sendMessage(message);
    }
    return 0;
}

// The reactor outlives its thread while it is used, with the lock free: it calls `handle_close`.
std::shared_ptr<VEL_Reactor> VEL_Thread_Manager::reactor_of(const VEL_thread_t& thread) {
    VEL_Guard guard(lock_);
    const VEL_Thread_Descriptor* descriptor = find(thread);
    if (!descriptor) return nullptr;
    if (!descriptor->reactor_) VELLib::SetErrorCode(vel::error::not_implemented);
    return descriptor->reactor_;
}

int VEL_Thread_Manager::register_handler(const VEL_thread_t& thread, VEL_Event_Handler* handler, void* handle,
                                         uint32_t mask) {
    const std::shared_ptr<VEL_Reactor> reactor = reactor_of(thread);
    return reactor ? reactor->register_handler(handler, handle, mask) : -1;
}

int VEL_Thread_Manager::register_handler(const VEL_thread_t& thread, void* handle, VEL_Event_Handler* handler,
                                         uint32_t mask) {
    const std::shared_ptr<VEL_Reactor> reactor = reactor_of(thread);
    return reactor ? reactor->register_handler(handle, handler, mask) : -1;
}

int VEL_Thread_Manager::remove_handler(const VEL_thread_t& thread, VEL_Event_Handler* handler, void* handle,
                                       uint32_t mask) {
    const std::shared_ptr<VEL_Reactor> reactor = reactor_of(thread);
    return reactor ? reactor->remove_handler(handler, handle, mask) : -1;
}

int VEL_Thread_Manager::remove_handler(const VEL_thread_t& thread, void* handle, VEL_Event_Handler* handler,
                                       uint32_t mask) {
    const std::shared_ptr<VEL_Reactor> reactor = reactor_of(thread);
    return reactor ? reactor->remove_handler(handle, handler, mask) : -1;
}
