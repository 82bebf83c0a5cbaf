// The thread that posts the notices of sockets to message windows.
#pragma once

#include <mutex>
#include <unordered_map>
#include <vel/os/linux/notice_sink.h>
#include <vel/os/linux/socket_notices.h>

namespace vel::os {

class SocketObject;
class WindowObject;

/// The receiver of the notices of all sockets that are bound to windows; one for the process.
///
/// Its thread runs while a socket is bound and hands edges to their sockets. What a call on a socket brings to light is
/// posted by the thread that makes the call.
/// Invariants, under the lock: exactly the sockets that are bound here have a binding, under the address of their
/// notices; a notice that finds the window's queue full stays recorded, and then the window says when there is room.
/// Locks: that of all bindings, the socket's, this one's, the window's.
class WindowNotifier final : public NoticeSink {
public:
    /// Never destroyed: sockets may still be closed after the program's static objects have ended.
    static WindowNotifier& instance();

    /// Errors: 1400 for a window that is gone, 10038, 4, 8, 1450.
    uint32_t bind(SocketObject& socket, WindowObject& window, uint32_t message, uint32_t notices);
    void unbind(SocketObject& socket);

    /// The window is gone: unbinds what posts to it.
    void end_window(const WindowObject& window);

    /// The window's queue, which was full, has room.
    void post_waiting(const WindowObject& window);

    void recorded(SocketNotices& socket, uint64_t key) override;
    void retracted(uint64_t) override {} // what is not posted yet can be taken no more
    void released(uint64_t key) override;

private:
    struct Binding {
        WindowObject* window; // which ends the binding before it is destroyed
        uint32_t message;
        uint64_t socket; // the handle
    };

    uint32_t enter(SocketObject& socket, WindowObject& window, uint32_t message);
    uint32_t start();
    bool serve();
    void post_recorded(SocketNotices* socket);
    static void post(SocketNotices& socket, const Binding& binding);
    SocketNotices* bound_to(const WindowObject& window);

    std::mutex lock_; // guards what follows
    std::unordered_map<SocketNotices*, Binding> bindings_;
    Descriptor wake_{-1}; // for the thread to see that the last binding has ended
    bool running_ = false;
};

} // namespace vel::os
