// Message windows for users: messages that any thread posts and one thread handles, in a loop of its own choice.
#pragma once

#include <vel/types.h>

/// Handles one dispatched message; runs on the window's thread with nothing locked and may destroy the window.
using VEL_Window_Procedure = int64_t (*)(HWND window, uint32_t message, uint64_t wparam, int64_t lparam, void* context);

struct VEL_Window_Message {
    uint32_t message;
    uint64_t wparam;
    int64_t lparam;
};

/// Functions on message windows. A window is a queue of messages with a descriptor that is readable exactly while
/// messages are queued, so it fits into every loop that polls: that of a user interface, of another library, or a plain
/// poll. VEL_Socket::window_async_select lets a socket post what happens to it.
///
/// Threads:   a window belongs to the thread that created it. Any thread posts and asks for the descriptor; another
///            thread's attempt at the rest gives 5.
/// Ownership: `destroy_window` ends a window, and so does the end of its thread. What is queued is dropped.
/// Errors:    -1 (or null) with the thread's code: 1400 for a window that is gone, else those named below.
/// Limits:    10,000 queued messages; their memory grows with what is queued.
///
///     HWND window = VELLib::create_window(on_message, &application);
///     pollfd wanted{VELLib::get_window_descriptor(window), POLLIN, 0};
///     VEL_Window_Message message;
///     while (poll(&wanted, 1, -1) > 0)
///         if (VELLib::get_message(window, message, 0) == 0) VELLib::dispatch_message(window, message);
namespace VELLib {

/// @param procedure  what `dispatch_message` calls; null for a window whose messages are handled without it
/// @param context    handed to the procedure
/// @return the window; null with 4 or 8
VEL_API HWND create_window(VEL_Window_Procedure procedure, void* context);
VEL_API int destroy_window(HWND window);

/// Queues a message. Errors: 1816 when 10,000 are queued, 8.
VEL_API int post_message(HWND window, uint32_t message, uint64_t wparam, int64_t lparam);

/// Takes the oldest message, waiting for one up to `timeout_ms` milliseconds. Errors: 258 when none came.
VEL_API int get_message(HWND window, VEL_Window_Message& message, uint32_t timeout_ms);

/// Copies the oldest message and leaves it in the queue. Errors: 258 when there is none.
VEL_API int peek_message(HWND window, VEL_Window_Message& message);

/// Calls the window's procedure with a message.
/// @param result  receives what the procedure returned, unless null
VEL_API int dispatch_message(HWND window, const VEL_Window_Message& message, int64_t* result = nullptr);

/// The window's descriptor, readable (level-triggered) exactly while messages are queued. To be polled only; the window
/// closes it.
VEL_API int get_window_descriptor(HWND window);

} // namespace VELLib
