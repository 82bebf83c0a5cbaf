// The reference that keeps a handler alive while a thread calls it (internal).
#pragma once

#include <cstdint>
#include <utility>
#include <vel/proactor/async_handler.h>

namespace vel {

/// Keeps the handler that its thread is calling, over several calls in a row where there are such.
///
/// An operation that is deleted meanwhile leaves its reference to the holder. Dropping each at once would fetch, with
/// every completion, the counter from the processor of the thread that wrote it last. All are dropped before the thread
/// calls another handler or sleeps. A callback that dispatches has a holder of its own.
///
/// Threads:   the one that made it.
class HeldHandler {
public:
    HeldHandler() : outer_(std::exchange(innermost_, this)) {}
    ~HeldHandler() {
        drop();
        innermost_ = outer_;
    }
    HeldHandler(const HeldHandler&) = delete;
    HeldHandler& operator=(const HeldHandler&) = delete;

    bool holds_any() const { return handler_ != nullptr; }

    void hold(VEL_Async_Handler* handler) {
        if (handler == handler_ && references_ < most) return;
        drop();
        handler->addref();
        handler_ = handler;
        references_ = 1;
    }

    void drop() {
        VEL_Async_Handler* handler = std::exchange(handler_, nullptr); // its destructor may delete operations
        for (uint32_t left = references_; left > 0; --left) handler->release();
        references_ = 0;
    }

    /// Drops a reference, at once or together with those that are held already.
    static void release(VEL_Async_Handler* handler) {
        HeldHandler* holder = innermost_;
        if (holder != nullptr && holder->handler_ == handler)
            ++holder->references_;
        else
            handler->release();
    }

private:
    static constexpr uint32_t most = 64;

    static constinit thread_local HeldHandler* innermost_ __attribute__((tls_model("initial-exec")));

    HeldHandler* const outer_;
    VEL_Async_Handler* handler_ = nullptr;
    uint32_t references_ = 0;
};

} // namespace vel
