// The object behind a message window's handle, shared by the window calls and the notifier.
#pragma once

#include <deque>
#include <mutex>
#include <vel/os/error_codes.h>
#include <vel/os/linux/handle_table.h>
#include <vel/os/message_window.h>

namespace vel::os {

/// A queue of messages that belongs to one thread.
///
/// Invariant, under the lock: the descriptor is readable exactly while the queue holds messages or the window is gone.
/// So only the first message and the last cost a system call, not those of a busy queue.
class WindowObject final : public HandleObject {
public:
    WindowObject(WindowProcedure window_procedure, void* window_context);

    /// Drops what is queued, ends a wait and the bindings of sockets.
    void detach() override;

    /// Errors: 1400, 1816, 8.
    uint32_t post(const WindowMessage& message);

    /// Queues what `fill` makes of a message; nothing when it returns false. False when there is no room: then `fill` was
    /// not called, and the notifier is told when there is.
    template <class Fill>
    bool post_notice(Fill fill) {
        const std::lock_guard guard(lock_);
        const uint32_t code = append({});
        if (code == error::none && !fill(messages_.back())) drop_newest();
        const bool full = code != error::none && code != error::invalid_window;
        notices_wait_ |= full;
        return !full;
    }

    /// Takes the oldest message, or copies it. Errors: 258 when there is none, 1400.
    uint32_t take(WindowMessage& message);
    uint32_t peek(WindowMessage& message);

    bool is_callers() const;
    bool is_gone();

    const WindowProcedure procedure;
    void* const context;

private:
    uint32_t append(const WindowMessage& message);
    uint32_t remove_oldest(WindowMessage& message);
    void drop_newest();
    void clear_descriptor_if_empty();

    const void* const owner_; // the creating thread's list of windows
    std::mutex lock_;         // guards what follows
    std::deque<WindowMessage> messages_;
    bool gone_ = false;
    bool notices_wait_ = false; // for room, at the notifier
};

inline void* to_handle(HWND window) { return reinterpret_cast<void*>(window); }

} // namespace vel::os
