// Listening TCP socket on a reactor.
#pragma once

#include <concepts>
#include <vel/reactor/reactor_socket.h>

class VEL_Async_SOCK_Stream;
class VEL_INET_Addr;
class VEL_Proactor;
class VEL_SOCK_Stream;

/// A listener that the reactor tells of each connection that waits.
///
/// Derive and override `handle_accept` (in it, call `accept`) and, with a time-out, `handle_timeout`. Any registration
/// or timer that ends by a negative result, or in the reactor, closes the listener.
///
/// Threads:   every call from any thread; `handle_accept` and `handle_timeout` run without the lock.
/// Ownership: as VEL_SOCK_Stream.
/// Errors:    -1 with 10038 when there is no socket, 0x20000004 when there is no reactor, else the socket layer's or
///            the reactor's code.
///
///     class Echo_Acceptor : public VEL_Acceptor {
///         int handle_accept(void*, VEL_Reactor* reactor, uint32_t) override {
///             Echo* stream = new Echo;                       // derived from VEL_SOCK_Stream
///             if (accept(*stream) == 0) {
///                 stream->reactor(reactor);
///                 stream->select_event(VEL_INPUT_EVENT | VEL_OUTPUT_EVENT);
///             }
///             stream->release();                             // the registration keeps it
///             return 0;
///         }
///     };
class VEL_API VEL_Acceptor : public vel::ReactorSocket {
public:
    VEL_Acceptor() = default;

    /// Closes without `handle_close`.
    ~VEL_Acceptor() override;

    /// Listens on a port (0 for any free one) of an address (0 for all) and registers for accept.
    /// @param receive_buffer  bytes for each connection, 0 for the system's own; so for `send_buffer`
    /// @return 0, or -1, also with 10056 when the object holds a socket already. On failure it is closed.
    int open(VEL_Reactor* reactor, uint16_t port, uint32_t host, int receive_buffer, int send_buffer);

    /// The same with a host name or dotted address; null for all addresses.
    int open(VEL_Reactor* reactor, uint16_t port, const char* host, int receive_buffer, int send_buffer);
    template <std::integral Host>
    int open(VEL_Reactor* reactor, uint16_t port, Host host, int receive_buffer, int send_buffer) {
        return open(reactor, port, static_cast<uint32_t>(host), receive_buffer, send_buffer);
    }

    /// Takes a waiting connection into a closed stream that nobody else uses yet. It is not registered: give it a
    /// reactor and select its events.
    /// Errors: 10035 when no connection waits, 10056 when the stream holds a socket; 10024 without descriptors: the
    /// connection goes on waiting, and the reactor calls `handle_accept` for it in each cycle until one is free.
    int accept(VEL_SOCK_Stream& stream);

    /// The same into an asynchronous stream, which is registered in the proactor. Errors: also the proactor's, and then
    /// the connection has been closed.
    int accept(VEL_Proactor* proactor, VEL_Async_SOCK_Stream& stream);

    /// 0, or -1 with 10038 (no socket) or 0x20000004 (no reactor).
    int check_open();

    /// Ends registration and timer and closes the socket.
    /// @param no_close  do not call `handle_close`; else it is called for the registration, or without one for the timer
    void close(bool no_close);

    /// Closes the listener, whatever has ended. Overrides call it.
    int handle_close(void* handle, uint32_t mask, VEL_Reactor* reactor) override;

private:
    using ReactorSocket::link_;
    using ReactorSocket::lock_;

    int open(VEL_Reactor* reactor, const VEL_INET_Addr& local, int receive_buffer, int send_buffer);
    int start(VEL_Reactor* reactor, const VEL_INET_Addr& local, int receive_buffer, int send_buffer)
        VEL_REQUIRES(lock_);
};
