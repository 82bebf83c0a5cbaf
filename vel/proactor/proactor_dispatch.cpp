// Taking completions from the port and calling the handlers.
#include <vel/proactor/proactor.h>

#include <vel/frame/fail.h>
#include <vel/os/clock.h>
#include <vel/os/completion_port.h>
#include <vel/proactor/async_operation.h>
#include <vel/proactor/async_post.h>
#include <vel/proactor/held_handler.h>

namespace error = vel::error;
namespace os = vel::os;

namespace {

enum Operation_Code { read_operation = 1, write_operation, accept_operation, connect_operation, post_operation };

/// Tells the operation, which calls its handler. From here on the operation is the handler's and may be gone.
int complete(VEL_Async_Operation* op, uint64_t bytes, uint32_t error) {
    switch (op->operation_code()) {
    case read_operation: return static_cast<VEL_Async_Read_Operation*>(op)->completion(bytes, error);
    case write_operation: return static_cast<VEL_Async_Write_Operation*>(op)->completion(bytes, error);
    case accept_operation: return static_cast<VEL_Async_Accept_Operation*>(op)->completion(error);
    case connect_operation: return static_cast<VEL_Async_Connect_Operation*>(op)->completion(error);
    default: return static_cast<VEL_Async_Post_Operation*>(op)->completion();
    }
}

VEL_Async_Operation* operation_of(OVERLAPPED* record) {
    return record == nullptr ? nullptr : static_cast<VEL_Async_Operation*>(static_cast<vel::IoRequest*>(record));
}

} // namespace

int VEL_Proactor::thr_iocp_competion(void* proactor) {
    auto* self = static_cast<VEL_Proactor*>(proactor);
    const os::HeldPort& port = *self->held_port_; // outlives the proactor's own threads
    vel::HeldHandler held;
    const auto wait = [&](uint32_t timeout_ms, os::Completion& completion) {
        if (held.holds_any()) {
            const uint32_t code = port.wait(0, completion);
            if (code != error::wait_timeout) return code;
            held.drop(); // somebody else took the rest
        }
        return port.wait(timeout_ms, completion);
    };
    while (self->handle_next(VEL_INFINITE, held, wait) >= 0) {
    }
    return 0;
}

int VEL_Proactor::handle_event(uint32_t timeout_ms) {
    void* port = port_;
    if (port == nullptr) return vel::fail(error::null_member);
    vel::HeldHandler held;
    return handle_next(timeout_ms, held, [port](uint32_t left_ms, os::Completion& completion) {
        return os::wait_completion(port, left_ms, completion);
    });
}

/// Dispatches what `wait` brings: one completion.
template <class Wait>
int VEL_Proactor::handle_next(uint32_t timeout_ms, vel::HeldHandler& held, Wait wait) {
    if (closing_) return vel::fail(error::object_closed);
    for (;;) {
        os::Completion completion;
        const uint32_t code = wait(timeout_ms, completion);
        VEL_Async_Operation* op = code == error::none ? operation_of(completion.record) : nullptr;
        if (closing_) return stop_handling(op);
        if (code == error::wait_timeout) return 0;
        if (code != error::none) return vel::fail(code);
        if (op == nullptr) continue;
        const int result = dispatch_io(op, completion.bytes, completion.error, held);
        if (!completion.more) held.drop();
        // Deliberate as it stands; it plays a part only behind records of an unknown kind.
        if (result == 0 && timeout_ms != VEL_INFINITE) timeout_ms = os::tick_ms() - timeout_ms;
        if (result != 0 || timeout_ms == 0) return result;
    }
}

/// Leaves the loop of a closing proactor. A bare wake-up is passed on: threads of the application take them, too, and
/// each of the proactor's own needs one.
int VEL_Proactor::stop_handling(VEL_Async_Operation* op) {
    if (op != nullptr)
        discard(op);
    else if (void* port = port_)
        os::post_completion(port, static_cast<OVERLAPPED*>(nullptr), 0, 0);
    return vel::fail(error::object_closed);
}

/// Deletes an operation that is not dispatched any more; whoever waits for the answer to its message goes on.
void VEL_Proactor::discard(VEL_Async_Operation* op) {
    if (op->operation_code() == post_operation)
        static_cast<VEL_Async_Post_Operation*>(op)->getMessage().signal(-1, error::object_closed, nullptr);
    delete op;
}

int VEL_Proactor::dispatch_io(VEL_Async_Operation* op, uint64_t bytes, uint32_t error, vel::HeldHandler& held) {
    if (op->operation_code() < read_operation || op->operation_code() > post_operation) {
        delete op;
        return 0;
    }
    const uint32_t key = op->completion_key();
    held.hold(op->get_handler()); // outlives its own callback
    if (complete(op, bytes, error) < 0) remove_handle(key, false);
    return 1;
}
