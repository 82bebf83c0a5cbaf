// Message windows: a queue of messages with a procedure to dispatch them to, and a descriptor to poll.
#pragma once

#include <vel/types.h>

namespace vel::os {

/// Handles one dispatched message. Runs on the window's thread.
using WindowProcedure = int64_t (*)(HWND window, uint32_t message, uint64_t wparam, int64_t lparam, void* context);

struct WindowMessage {
    uint32_t message;
    uint64_t wparam;
    int64_t lparam;
};

inline constexpr uint32_t window_queue_capacity = 10000;

/// Creates a window whose queue belongs to the calling thread and ends with it at the latest. Without a procedure (null)
/// its messages do nothing when they are dispatched. Errors: 4, 8.
uint32_t create_window(WindowProcedure procedure, void* context, HWND& window);

/// Ends the window and drops what is queued; sockets that post to it fall silent. Errors: 1400, 5 for another thread.
uint32_t destroy_window(HWND window);

/// Queues a message, from any thread. Errors: 1400 for a dead window, 1816 when 10,000 messages are queued, 8.
uint32_t post_message(HWND window, uint32_t message, uint64_t wparam, int64_t lparam);

/// Takes the oldest message, waiting for one. Errors: 258 on time-out, 1400, 5 for another thread.
uint32_t get_message(HWND window, WindowMessage& message, uint32_t timeout_ms);

/// Copies the oldest message and leaves it in the queue. Errors: 258 when there is none, 1400, 5 for another thread.
uint32_t peek_message(HWND window, WindowMessage& message);

/// Calls the window's procedure with a message; nothing is locked meanwhile. Errors: 1400, 5 for another thread.
uint32_t dispatch_message(HWND window, const WindowMessage& message, int64_t& result);

/// A descriptor that is readable (level-triggered) exactly while messages are queued; to be polled only.
/// Errors: 1400.
uint32_t window_descriptor(HWND window, int& descriptor);

/// Posts each notice (wait_set.h) of `notices` once as `message`, wparam the socket, lparam the notice with its error
/// in the upper half of 32 bits; instead of a former binding of the socket, to whatever it was. The socket becomes
/// non-blocking. A notice that finds the queue full is posted when there is room. 0 ends a binding to a window; so does
/// closing the socket or the window. Errors: 10038, 1400, 4, 8, 1450.
uint32_t bind_window(uint64_t socket, HWND window, uint32_t message, uint32_t notices);

} // namespace vel::os
