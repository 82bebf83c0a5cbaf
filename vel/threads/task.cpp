// The task as far as it needs no manager.
#include <vel/threads/task.h>

#include <vel/reactor/reactor.h>

VEL_Task_Base::VEL_Task_Base() = default;
VEL_Task_Base::~VEL_Task_Base() = default;

int VEL_Task_Base::svc(VEL_Reactor* reactor) {
    while (reactor->handle_event(VEL_INFINITE) >= 0) {
    }
    return 0;
}

int VEL_Task_Base::handle_init(const VEL_thread_t&, VEL_Reactor*) { return 0; }
