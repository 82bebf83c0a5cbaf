// The operation that carries a posted message to its handler.
#pragma once

#include <new>
#include <vel/buffers/message_block.h>
#include <vel/proactor/async_operation.h>

/// A message on its way to `handle_signal`; made by VEL_Proactor::sendMessage.
class VEL_API VEL_Async_Post_Operation : public VEL_Async_Operation {
public:
    VEL_Async_Post_Operation();
    VEL_Async_Post_Operation(VEL_Proactor* proactor, uint32_t completion_key, VEL_Async_Handler* handler,
                             const VEL_Message_Block& message);
    ~VEL_Async_Post_Operation() override;

    /// Records go round: the memory of deleted ones is kept for new ones.
    static void* operator new(size_t size);
    static void* operator new(size_t size, const std::nothrow_t&) noexcept;
    static void operator delete(void* memory, size_t size);

    /// A further handle to the message.
    VEL_Message_Block getMessage() const { return message_; }

    /// Called by the proactor: calls the handler's `handle_signal` and returns its result.
    int completion();

private:
    VEL_Message_Block message_;
};
