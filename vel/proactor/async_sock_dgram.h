// UDP socket on a proactor.
#pragma once

#include <concepts>
#include <vel/proactor/async_dgram_io.h>
#include <vel/proactor/async_handler_impl.h>
#include <vel/proactor/async_socket.h>

/// A bound datagram socket whose receives and sends finish in callbacks on the proactor's workers. Every `recv` and
/// `send` starts one operation; each carries its own block and address, so several may be pending.
///
/// Threads, ownership and errors: as VEL_Async_SOCK_Stream.
///
///     class Echo : public VEL_Async_SOCK_Dgram {
///         int handle_input(VEL_Async_Read_Operation* op, uint32_t error) override {
///             auto* datagram = static_cast<VEL_Async_SOCK_Read_Dgram*>(op);
///             VEL_Byte_Block block = op->read_block();
///             if (error == 0) send(block.clone(), op->bytes_transferred(), datagram->recv_address());
///             delete op;
///             return recv(block, 1500);                      // the next one; -1 once the socket is closed
///         }
///     };
class VEL_API VEL_Async_SOCK_Dgram : public VEL_Async_Handler_Impl<VEL_Reference_Counter_Global_Sync> {
public:
    VEL_Async_SOCK_Dgram() = default;

    /// Closes without `handle_close`.
    ~VEL_Async_SOCK_Dgram() override;

    /// Binds to a port (host byte order, 0 for any free one) of an address (host byte order, 0 for all).
    /// Errors: 10048 when the port is taken, 10056 when the object is open already, else the socket layer's.
    int open(VEL_Proactor* proactor, uint16_t port, uint32_t addr);

    /// The same with a host name or dotted address; null for all addresses.
    int open(VEL_Proactor* proactor, uint16_t port, const char* addr);
    template <std::integral Address>
    int open(VEL_Proactor* proactor, uint16_t port, Address addr) {
        return open(proactor, port, static_cast<uint32_t>(addr));
    }

    /// Starts to receive one datagram of up to `length` bytes into `block`, which grows to `length` when it is smaller.
    /// A longer datagram completes with 10040.
    int recv(VEL_Byte_Block& block, size_t length);

    /// Starts a completed operation again, with its own block. On failure it stays the caller's.
    int recv(VEL_Async_SOCK_Read_Dgram* op, size_t length);

    /// Starts to send the first `length` bytes of `block`. Errors: 87 for a null block, 122 for a shorter one.
    int send(const VEL_Byte_Block& block, size_t length, const VEL_INET_Addr& to);

    /// Starts a completed operation again, with its own block and destination. On failure it stays the caller's.
    int send(VEL_Async_SOCK_Write_Dgram* op, size_t length);

    int get_local_addr(VEL_INET_Addr& addr);

    /// As on VEL_Async_SOCK_Stream; a `handle_timeout` that refuses closes the socket.
    int set_timeout(uint32_t timeout_ms);
    void cancel_timeout();
    int check_open();

    /// Ends registration and timer and closes the socket; pending operations complete with 995.
    /// @param no_close  do not call `handle_close`, neither for the registration nor for the timer
    void close(bool no_close);

    uint32_t completion_key() const { return socket_.key(); }
    void* get_handle() const { return socket_.handle(); }
    VEL_Proactor* proactor() const { return socket_.proactor(); }

    /// As on VEL_Async_SOCK_Stream.
    int handle_close(uint32_t key, void* handle, VEL_Proactor* proactor) override;
    int close_handle() override;

private:
    int bind(VEL_Proactor* proactor, const VEL_INET_Addr& local);

    vel::AsyncSocket socket_;
};
