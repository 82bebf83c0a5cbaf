// The operation that carries a posted message to its handler.
#pragma once

#include <vel/buffers/message_block.h>
#include <vel/proactor/async_operation.h>

/// A message on its way to `handle_signal`; made by VEL_Proactor::sendMessage.
class VEL_API VEL_Async_Post_Operation : public VEL_Async_Operation {
public:
    VEL_Async_Post_Operation();
    VEL_Async_Post_Operation(VEL_Proactor* proactor, uint32_t completion_key, VEL_Async_Handler* handler,
                             const VEL_Message_Block& message);
    ~VEL_Async_Post_Operation() override;

    /// A further handle to the message.
    VEL_Message_Block getMessage() const { return message_; }

    /// Called by the proactor: calls the handler's `handle_signal` and returns its result.
    int completion();

private:
    VEL_Message_Block message_;
};
