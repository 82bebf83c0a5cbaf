// Listening TCP socket on a proactor.
#pragma once

#include <concepts>
#include <vel/proactor/async_handler_impl.h>
#include <vel/proactor/async_socket.h>

class VEL_Async_SOCK_Stream;

/// A listener whose accepts finish in `handle_accept` on the proactor's workers. Every `accept` starts one operation;
/// keep as many pending as connections may arrive at once.
///
/// Threads:   every call from any thread; with several accepts pending `handle_accept` may run at the same time.
/// Ownership: as VEL_Async_SOCK_Stream.
/// Errors:    -1 with 10038 when there is no socket, 0x20000004 when there is no proactor, else as the operations.
///
///     class Echo_Acceptor : public VEL_Async_Acceptor {
///         int handle_accept(VEL_Async_Accept_Operation* op, uint32_t error) override {
///             auto* accepted = static_cast<VEL_Async_SOCK_Accept*>(op);
///             Echo* stream = new Echo;                       // derived from VEL_Async_SOCK_Stream
///             VEL_Byte_Block block;
///             if (error == 0 && accept_socket(*accepted, *stream) == 0) stream->recv(block, 4096);
///             stream->release();                             // what is pending keeps it
///             delete op;
///             return accept();                               // the next one; -1 once the listener is closed
///         }
///     };
class VEL_API VEL_Async_Acceptor : public VEL_Async_Handler_Impl<VEL_Reference_Counter_Global_Sync> {
public:
    VEL_Async_Acceptor() = default;

    /// Closes without `handle_close`.
    ~VEL_Async_Acceptor() override;

    /// Listens on a port (host byte order, 0 for any free one) of an address (host byte order, 0 for all).
    /// Errors: 10048 when the port is taken, 10056 when the object is open already, else the socket layer's.
    int open(VEL_Proactor* proactor, uint16_t port, uint32_t addr);

    /// The same with a host name or dotted address; null for all addresses.
    int open(VEL_Proactor* proactor, uint16_t port, const char* addr);
    template <std::integral Address>
    int open(VEL_Proactor* proactor, uint16_t port, Address addr) {
        return open(proactor, port, static_cast<uint32_t>(addr));
    }

    /// Starts one accept.
    int accept();

    /// Starts a completed operation again. On failure it stays the caller's.
    int accept(VEL_Async_SOCK_Accept* op);

    /// Hands an accepted connection to a stream object that nobody else uses yet, and registers it in the operation's
    /// proactor. Errors: 10038 when the operation holds no socket (any more); those of VEL_Proactor::register_handle,
    /// and then the connection has been closed.
    int accept_socket(VEL_Async_SOCK_Accept& op, VEL_Async_SOCK_Stream& stream);

    /// As on VEL_Async_SOCK_Stream; a `handle_timeout` that refuses closes the listener.
    int set_timeout(uint32_t timeout_ms);
    void cancel_timeout();
    int check_open();

    /// Ends registration and timer and closes the socket; pending accepts complete with 995.
    /// @param no_close  do not call `handle_close`, neither for the registration nor for the timer
    void close(bool no_close);

    uint32_t completion_key() const { return socket_.key(); }
    void* get_handle() const { return socket_.handle(); }
    VEL_Proactor* proactor() const { return socket_.proactor(); }

    /// As on VEL_Async_SOCK_Stream.
    int handle_close(uint32_t key, void* handle, VEL_Proactor* proactor) override;
    int close_handle() override;

private:
    int listen(VEL_Proactor* proactor, const VEL_INET_Addr& local);

    vel::AsyncSocket socket_;
};
