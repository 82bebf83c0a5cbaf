// TCP connection whose notices arrive as messages of a window.
#pragma once

#include <vel/platform/inet_addr.h>
#include <vel/reactor/socket.h>
#include <vel/reactor/stream_transfer.h>
#include <vel/sync/mutex.h>
#include <vel/sync/thread_safety.h>
#include <vel/types.h>

/// A non-blocking client connection for programs with a message loop: it writes and reports as VEL_SOCK_Stream does,
/// but what the socket has to tell is posted to a window, whose procedure hands it to `dispatch_event`.
///
/// Threads:   meant for the window's thread; a lock guards the stream and is not held during the five overrides.
/// Ownership: the creator's. An override may delete the stream when it returns a negative value.
/// Errors:    -1 with 10038 when there is no socket, 0x20000004 before `open`, else the socket layer's code. A negative
///            result of an override is only handed on; nothing is closed by it.
/// Limits:    as VEL_SOCK_Stream. Messages posted before `close` may still be on their way after it; their first
///            parameter is the socket they are about.
///
///     int64_t procedure(HWND, uint32_t message, uint64_t, int64_t notice, void* context) {
///         auto* chat = static_cast<Chat*>(context);          // derived from VEL_WinSock_Stream
///         if (message == chat_message && chat->dispatch_event(static_cast<int32_t>(notice)) < 0) chat->close();
///         return 0;
///     }
class VEL_API VEL_WinSock_Stream {
public:
    VEL_WinSock_Stream() = default;
    VEL_WinSock_Stream(const VEL_WinSock_Stream&) = delete;
    VEL_WinSock_Stream& operator=(const VEL_WinSock_Stream&) = delete;

    /// Closes.
    virtual ~VEL_WinSock_Stream();

    /// The connect has ended. By default -1 with an error, else what `check_open` gives.
    virtual int handle_connect(uint32_t error);

    /// The peer has closed and everything was read, or the connection is broken. By default -1.
    virtual int handle_close(uint32_t error);

    /// As on VEL_SOCK_Stream, but for what a negative result does.
    virtual int handle_read_stream(const void* data, uint64_t size, uint32_t error);
    virtual int handle_write_stream(const void* data, uint64_t size, uint32_t error);

    /// Has the notices read, write, connect and close posted to the window and starts to connect.
    /// @param message  the message's number, the application's choice
    /// Errors: 10056 when the object holds a socket already, 1400 for a dead window. On failure it is closed.
    int open(HWND window, uint32_t message, const VEL_INET_Addr& remote);

    /// The same to a host name or dotted address, which is looked up here and now.
    int open(HWND window, uint32_t message, const char* host, uint16_t port);

    /// Serves one posted notice.
    /// @param notice  the message's second parameter: the event, and its error in the upper half
    /// @return what the override returned, 0 for an event of another kind
    int dispatch_event(int32_t notice);

    /// As on VEL_SOCK_Stream.
    int send(const VEL_Byte_Block& block);
    int recv(void* buffer, uint64_t size);
    int shutdown(int how);

    /// Drops what was not written and closes the socket, which ends the posting of messages.
    void close();

    /// 0, or -1 with 10038 (no socket) or 0x20000004 (never opened).
    int check_open();
    bool is_open() const;
    uint64_t get_handle() const;
    int get_local_addr(VEL_INET_Addr& address);

    /// The peer's address; an empty one while closed.
    VEL_INET_Addr get_remote_addr();

private:
    friend class vel::StreamTransfer;

    int start(HWND window, uint32_t message, const VEL_INET_Addr& remote) VEL_REQUIRES(lock_);
    int check_locked() const VEL_REQUIRES(lock_);
    int handle_input(uint32_t error);
    int handle_output(uint32_t error);

    VEL_Socket socket_ VEL_GUARDED_BY(lock_);
    mutable VEL_Thread_Mutex lock_;
    vel::StreamTransfer transfer_ VEL_GUARDED_BY(lock_);
    VEL_INET_Addr remote_ VEL_GUARDED_BY(lock_);
};
