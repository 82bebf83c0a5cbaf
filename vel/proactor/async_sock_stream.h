// TCP connection on a proactor.
#pragma once

#include <vel/proactor/async_handler_impl.h>
#include <vel/proactor/async_socket.h>
#include <vel/proactor/async_stream_io.h>

class VEL_Acceptor;
class VEL_Async_Acceptor;

/// A connection whose receives, sends and connects finish in callbacks on the proactor's workers.
///
/// Every `recv` and `send` starts exactly one operation; there is no queue behind them. Derive and override
/// `handle_connect`, `handle_input`, `handle_output` and `handle_timeout`; a negative result from one of the first
/// three closes the connection.
///
/// Threads:   every call from any thread. With several operations pending the callbacks may run at the same time, so
///            keep one receive pending at a time, or order the results yourself.
/// Ownership: made with `new`; the creator's reference is released when the creator no longer uses the object. The
///            registration, each pending operation and the timer keep it alive.
/// Errors:    -1 with 10038 when there is no socket, 0x20000004 when there is no proactor, else as the operations. A
///            connection that breaks is told in the callbacks.
///
///     class Echo : public VEL_Async_SOCK_Stream {
///         int handle_input(VEL_Async_Read_Operation* op, uint32_t error) override {
///             size_t bytes = op->bytes_transferred();        // 0: the peer has closed
///             int result = error != 0 || bytes == 0 ? -1 : send(op->read_block(), bytes);
///             delete op;
///             return result;                                 // -1 leads to handle_close, which closes the socket
///         }
///         int handle_output(VEL_Async_Write_Operation* op, uint32_t error) override {
///             VEL_Byte_Block block = op->write_block();
///             delete op;
///             return error != 0 ? -1 : recv(block, 4096);
///         }
///     };
class VEL_API VEL_Async_SOCK_Stream : public VEL_Async_Handler_Impl<VEL_Reference_Counter_Global_Sync> {
public:
    VEL_Async_SOCK_Stream() = default;

    /// Closes without `handle_close`.
    ~VEL_Async_SOCK_Stream() override;

    /// Starts to connect. 0 when started: how it went, also a refusal, arrives in `handle_connect`.
    /// Errors: 10056 when the object is open already.
    int open(VEL_Proactor* proactor, const VEL_INET_Addr& remote);

    /// The same to a host name or dotted address, which is looked up here and now.
    int open(VEL_Proactor* proactor, const char* host, uint16_t port);

    /// Starts to receive up to `length` bytes into `block`, which grows to `length` when it is smaller.
    int recv(VEL_Byte_Block& block, size_t length);

    /// Starts a completed operation again, with its own block. On failure it stays the caller's.
    int recv(VEL_Async_SOCK_Read_Stream* op, size_t length);

    /// Starts to send the first `length` bytes of `block`. Errors: 87 for a null block, 122 for a shorter one.
    int send(const VEL_Byte_Block& block, size_t length);

    /// Starts a completed operation again, with its own block. On failure it stays the caller's.
    int send(VEL_Async_SOCK_Write_Stream* op, size_t length);

    int get_local_addr(VEL_INET_Addr& addr);

    /// The peer's address; an empty one while closed.
    VEL_INET_Addr get_remote_addr();

    /// Calls `handle_timeout` every `timeout_ms` milliseconds from now on; a timer that runs already starts anew. When
    /// `handle_timeout` returns a negative value the connection is closed: an idle time-out. A handler that overrides
    /// `handle_timeout` and means "still busy" returns 0.
    int set_timeout(uint32_t timeout_ms);
    void cancel_timeout();

    /// 0, or -1 with 10038 (no socket) or 0x20000004 (no proactor).
    int check_open();

    /// Ends registration and timer and closes the socket; pending operations complete with 995.
    /// @param no_close  do not call `handle_close` for the registration. For the timer it is never called here: that is
    ///                  deliberate and differs from VEL_Async_Acceptor.
    void close(bool no_close);

    uint32_t completion_key() const { return socket_.key(); }
    void* get_handle() const { return socket_.handle(); }
    VEL_Proactor* proactor() const { return socket_.proactor(); }

    /// Closes the object when its registration or its timer has ended. Overrides call it.
    int handle_close(uint32_t key, void* handle, VEL_Proactor* proactor) override;

    /// Closes the socket alone, so that pending operations complete with 995; the registration stays until then.
    int close_handle() override;

private:
    friend class VEL_Acceptor;
    friend class VEL_Async_Acceptor;

    /// Takes an accepted socket over. The object is one that nobody else uses yet.
    int attach(VEL_Proactor* proactor, uint64_t socket, const VEL_INET_Addr& remote);

    vel::AsyncSocket socket_;
};
