// Base of the objects that the library destroys together when it is finalised.
#include <new>
#include <vel/frame/error.h>
#include <vel/os/error_codes.h>
#include <vel/sync/guard.h>
#include <vel/sync/single_instance.h>

VEL_List<VEL_SingleInstance*>* VEL_SingleInstance::instance_set_ = nullptr;
VEL_Thread_Mutex VEL_SingleInstance::instance_lock_;

VEL_SingleInstance::~VEL_SingleInstance() = default;

int VEL_SingleInstance::add_instance(VEL_SingleInstance* instance) {
    VEL_Guard guard(instance_lock_);
    if (!instance_set_) instance_set_ = new (std::nothrow) VEL_List<VEL_SingleInstance*>;
    if (instance_set_) return instance_set_->push_back(instance);
    VELLib::SetErrorCode(vel::error::not_enough_memory);
    return -1;
}

// A destructor runs without the lock: a singleton's takes the lock of its class, under which that class adds instances.
void VEL_SingleInstance::release_all_instance() {
    VEL_SingleInstance* instance = nullptr;
    while (take_first(instance)) delete instance; // which may be null: the list takes what it is given
}

// False when nothing is left; then the list is gone as well.
bool VEL_SingleInstance::take_first(VEL_SingleInstance*& instance) {
    VEL_Guard guard(instance_lock_);
    if (instance_set_ && instance_set_->pop_front(instance) == 0) return true;
    delete instance_set_;
    instance_set_ = nullptr;
    return false;
}
