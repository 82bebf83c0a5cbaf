// Base of the handlers: a reference counter and a default for every slot.
#pragma once

#include <vel/proactor/async_accept.h>
#include <vel/proactor/async_connect.h>
#include <vel/proactor/async_handler.h>
#include <vel/proactor/async_post.h>
#include <vel/sync/reference_counter.h>

/// A handler that counts its references with `Counter` and does nothing yet: operations are deleted, messages are
/// answered with -1 and 0x20000003 (no implementation), everything else returns 0.
///
/// Threads:   as the counter. VEL_Reference_Counter is for handlers that one thread uses, VEL_Reference_Counter_Sync
///            locks each handler for itself, VEL_Reference_Counter_Global_Sync all handlers together, which keeps
///            them small.
/// Ownership: a new handler has count 1, its creator's. The release that reaches 0 deletes it, so handlers that a
///            proactor knows are made with `new`; a count below 0 deletes again, so calls must balance.
///
///     class Printer : public VEL_Async_Handler_Impl<VEL_Reference_Counter_Global_Sync> {
///         int handle_signal(VEL_Async_Post_Operation* op) override;
///     };
template <class Counter>
class VEL_Async_Handler_Impl : public VEL_Async_Handler {
public:
    VEL_Async_Handler_Impl() { counter_.increment(); }

    /// Copies the count as it stands, so a live handler is not to be copied.
    VEL_Async_Handler_Impl(const VEL_Async_Handler_Impl&) = default;
    VEL_Async_Handler_Impl& operator=(const VEL_Async_Handler_Impl&) = default;
    ~VEL_Async_Handler_Impl() override = default;

    int addref() override { return counter_.increment(); }
    int release() override;

    int handle_accept(VEL_Async_Accept_Operation* op, uint32_t) override { return discard(op); }
    int handle_connect(VEL_Async_Connect_Operation* op, uint32_t) override { return discard(op); }
    int handle_input(VEL_Async_Read_Operation* op, uint32_t) override { return discard(op); }
    int handle_output(VEL_Async_Write_Operation* op, uint32_t) override { return discard(op); }
    int handle_signal(VEL_Async_Post_Operation* op) override;
    int handle_timeout(int32_t, uint32_t&, VEL_Proactor*) override { return 0; }
    int handle_close(uint32_t, void*, VEL_Proactor*) override { return 0; }
    int close_handle() override { return 0; }

private:
    static int discard(VEL_Async_Operation* op) {
        delete op;
        return 0;
    }

    Counter counter_;
};

template <class Counter>
int VEL_Async_Handler_Impl<Counter>::release() {
    int count = counter_.decrement();
    if (count <= 0) delete this;
    return count;
}

template <class Counter>
int VEL_Async_Handler_Impl<Counter>::handle_signal(VEL_Async_Post_Operation* op) {
    if (op != nullptr) op->getMessage().signal(-1, 0x20000003, nullptr);
    return discard(op);
}

extern template class VEL_API VEL_Async_Handler_Impl<VEL_Reference_Counter>;
extern template class VEL_API VEL_Async_Handler_Impl<VEL_Reference_Counter_Sync>;
extern template class VEL_API VEL_Async_Handler_Impl<VEL_Reference_Counter_Global_Sync>;
