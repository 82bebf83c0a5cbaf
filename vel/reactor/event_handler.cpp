// The handler templates that the library exports.
#include <vel/reactor/event_handler.h>

VEL_Event_Handler::~VEL_Event_Handler() = default;

template class VEL_Event_Handler_Impl<VEL_Reference_Counter>;
template class VEL_Event_Handler_Impl<VEL_Reference_Counter_Sync>;
template class VEL_Event_Handler_Impl<VEL_Reference_Counter_Global_Sync>;
