// Reference counters: one for a single thread, two for many.
#include <vel/sync/reference_counter.h>

VEL_Thread_Mutex VEL_Reference_Counter_Global_Sync::lock_;

VEL_Reference_Counter::~VEL_Reference_Counter() = default;
VEL_Reference_Counter_Sync::~VEL_Reference_Counter_Sync() = default;
VEL_Reference_Counter_Global_Sync::~VEL_Reference_Counter_Global_Sync() = default;
