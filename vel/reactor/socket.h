// Socket object on which the stream, datagram and window-message sockets build.
#pragma once

#include <concepts>
#include <vel/platform/inet_addr.h>
#include <vel/platform/sockets.h>
#include <vel/types.h>

class VEL_Event_Handler;
class VEL_Reactor;

/// A socket that closes itself and remembers that its peer has closed.
///
/// Threads:   no lock; one thread at a time unless the caller arranges otherwise. `close` from another thread ends
///            calls that block.
/// Ownership: owns the socket; `attach` takes one over and does not close the one held before.
/// Errors:    every operation on a closed object gives -1 with 10038; otherwise as the VELLib functions of the same
///            name.
/// Limits:    sizes in bytes, time-outs in milliseconds; once the peer has closed every `recv` returns 0 until `close`.
///
///     VEL_Socket socket(2, 1, 0);
///     if (socket.connect("localhost", 8080, 3000) == 0) socket.send("hello", 5);
class VEL_API VEL_Socket {
public:
    /// A closed socket.
    VEL_Socket() = default;

    /// `open`; throws VEL_Exception with the thread's error code when that fails.
    VEL_Socket(int family, int type, int protocol);
    virtual ~VEL_Socket();
    VEL_Socket(const VEL_Socket&) = delete;
    VEL_Socket& operator=(const VEL_Socket&) = delete;

    /// Opens a socket as VELLib::socket does; one held before is not closed. Returns 0 or -1.
    int open(int family, int type, int protocol);

    /// Takes over an open socket as it is; the mark of a peer that has closed stays until `close`. Returns 0.
    int attach(uint64_t socket);
    void close();

    bool is_open() const { return socket_ != VEL_INVALID_SOCKET; }
    uint64_t get_socket() const { return socket_; }

    /// Accepts a connection into `client`, which gives up what it held. Returns 0 or -1.
    int accept(VEL_Socket& client);
    int accept(VEL_Socket& client, VEL_INET_Addr& peer);
    int accept(VEL_Socket& client, uint32_t timeout_ms);
    int accept(VEL_Socket& client, VEL_INET_Addr& peer, uint32_t timeout_ms);

    /// @param host  address in host order, or text as VEL_INET_Addr takes it
    int bind(const VEL_INET_Addr& address);
    int bind(uint16_t port, uint32_t host);
    template <std::integral Host>
    int bind(uint16_t port, Host host) {
        return bind(port, static_cast<uint32_t>(host));
    }
    int bind(uint16_t port, const char* host);

    int connect(const VEL_INET_Addr& address);
    int connect(const VEL_INET_Addr& address, uint32_t timeout_ms);
    int connect(const char* host, uint16_t port);
    int connect(const char* host, uint16_t port, uint32_t timeout_ms);
    int listen();

    /// Bytes received, or 0 once the peer has closed.
    int recv(void* buffer, uint64_t size);
    int recv(void* buffer, uint64_t size, uint32_t timeout_ms);
    int recvfrom(void* buffer, uint64_t size, VEL_INET_Addr& from);
    int recvfrom(void* buffer, uint64_t size, VEL_INET_Addr& from, uint32_t timeout_ms);

    /// Bytes sent.
    int send(const void* data, uint64_t size);
    int send(const void* data, uint64_t size, uint32_t timeout_ms);
    int sendto(const void* data, uint64_t size, const VEL_INET_Addr& to);
    int sendto(const void* data, uint64_t size, const VEL_INET_Addr& to, uint32_t timeout_ms);

    int getlocaladdr(VEL_INET_Addr& address) const;
    int getpeeraddr(VEL_INET_Addr& address) const;

    /// Bytes ready to be read.
    int getrecvnum() const;
    int get_option(int level, int name, void* value, int& length) const;
    int set_option(int level, int name, const void* value, int length);
    int shutdown(int how);
    int enable_nonblock();
    int disable_nonblock();

    /// The reactor's `register_handler` and `remove_handler` for this socket. Errors: 0x20000004 without a reactor.
    int register_event_select(VEL_Reactor* reactor, VEL_Event_Handler* handler, uint32_t mask);
    int remove_event_select(VEL_Reactor* reactor, VEL_Event_Handler* handler, uint32_t mask);

    /// Asks for `message` to be posted to `window` on the socket events of `events` (1 read, 2 write, 8 accept,
    /// 16 connect, 32 close); 0 ends it, as do `close` and the window's end. The first parameter of the message is the
    /// socket, the second goes to `enum_window_event`. Each event is posted once, until what it calls for was done:
    /// read and accept until the next receive or accept, write until a send met 10035. The socket becomes non-blocking.
    /// Errors: 1400 for a dead window.
    int window_async_select(HWND window, uint32_t message, int32_t events);

    /// Splits a posted notice: returns the event and stores its error.
    static int32_t enum_window_event(int64_t lparam, uint32_t& error);

private:
    uint64_t socket_ = VEL_INVALID_SOCKET;
    bool peer_closed_ = false;
};
