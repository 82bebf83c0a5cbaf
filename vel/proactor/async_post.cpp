// The operation that carries a posted message to its handler.
#include <vel/proactor/async_post.h>

#include <vel/proactor/async_handler.h>

VEL_Async_Post_Operation::VEL_Async_Post_Operation() : VEL_Async_Operation(5) {}

VEL_Async_Post_Operation::VEL_Async_Post_Operation(VEL_Proactor* proactor, uint32_t completion_key,
                                                   VEL_Async_Handler* handler, const VEL_Message_Block& message)
    : VEL_Async_Operation(proactor, completion_key, VEL_INVALID_HANDLE, handler, 5),
      message_(message) {}

VEL_Async_Post_Operation::~VEL_Async_Post_Operation() = default;

int VEL_Async_Post_Operation::completion() { return get_handler()->handle_signal(this); }
