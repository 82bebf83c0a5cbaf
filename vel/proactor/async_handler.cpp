// The handler base for each of the three reference counters.
#include <vel/proactor/async_handler_impl.h>

template class VEL_Async_Handler_Impl<VEL_Reference_Counter>;
template class VEL_Async_Handler_Impl<VEL_Reference_Counter_Sync>;
template class VEL_Async_Handler_Impl<VEL_Reference_Counter_Global_Sync>;
