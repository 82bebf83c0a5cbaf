// Base of the objects that the library destroys together when it is finalised.
#pragma once

#include <vel/memory/list.h>
#include <vel/sync/mutex.h>

/// A process-wide object that lives until the last user of the library has left.
///
/// Threads:   any.
/// Ownership: what was added belongs to the library, which deletes it.
class VEL_API VEL_SingleInstance {
public:
    virtual ~VEL_SingleInstance();

    /// Adds an instance. 0, or -1 with 8, and then it still belongs to the caller.
    static int add_instance(VEL_SingleInstance* instance);

    /// Deletes every instance, the oldest first, also those that a destructor adds meanwhile. The library's last
    /// `uninitialize` calls it.
    static void release_all_instance();

private:
    static bool take_first(VEL_SingleInstance*& instance);

    static VEL_List<VEL_SingleInstance*>* instance_set_; // null while there is nothing
    static VEL_Thread_Mutex instance_lock_;
};
