// TCP connection on a reactor.
#pragma once

#include <vel/platform/inet_addr.h>
#include <vel/reactor/reactor_socket.h>
#include <vel/reactor/stream_transfer.h>

class VEL_Acceptor;
class VEL_Guard;

/// A non-blocking connection with a send queue; a reactor writes what the socket did not take at once, and brings what
/// arrives in reads of up to 32,768 bytes.
///
/// Derive and override `handle_read_stream`, `handle_write_stream` and, with timers, `handle_timeout`, which tells the
/// time-out from the end of a read suspension by the ids. How a connect went is not reported otherwise than by
/// `handle_connect`, whose default keeps a stream that failed to connect: override it and return -1 for an error. Any
/// registration or timer that ends by a negative result, or in the reactor, closes the whole connection.
///
/// Threads:   every call from any thread; one lock guards the stream. It is not held while `handle_read_stream` and
///            `handle_write_stream` run, so these may call everything here; one of them runs at a time. `handle_close`
///            runs under it when `close` or `cancel_timer` brings it about.
/// Ownership: made with `new`; the creator's reference is released when the creator no longer uses the object, and
///            whoever calls holds a reference. Registration and timers keep one each. The reactor outlives them.
/// Errors:    -1 with 10038 when there is no socket, 0x20000004 without a reactor or before `open` or an accept, else
///            the socket layer's or the reactor's code.
/// Limits:    times in milliseconds; blocks below 2 GiB.
///
///     class Echo : public VEL_SOCK_Stream {
///         int handle_read_stream(const void* data, size_t size, uint32_t error) override {
///             return error != 0 ? -1 : send(VEL_Byte_Block(size, data));     // 0x20000012: the peer has closed
///         }
///     };
class VEL_API VEL_SOCK_Stream : public vel::ReactorSocket {
public:
    VEL_SOCK_Stream() = default;

    /// Closes without `handle_close`.
    ~VEL_SOCK_Stream() override;

    /// Registers for connect, input and output and starts to connect. The first output notice writes what was sent
    /// meanwhile.
    /// @param timeout_ms      as for `set_timeout`; VEL_INFINITE sets none
    /// @param receive_buffer  bytes, 0 for the system's own; so for `send_buffer`
    /// Errors: 10056 when the object holds a socket already. On failure it is closed.
    int open(VEL_Reactor* reactor, const VEL_INET_Addr& remote, uint32_t timeout_ms, int receive_buffer,
             int send_buffer);

    /// The same to a host name or dotted address, which is looked up here and now.
    int open(VEL_Reactor* reactor, const char* host, uint16_t port, uint32_t timeout_ms, int receive_buffer,
             int send_buffer);

    /// Writes the block from its start, behind what waits already; what the socket does not take is kept, by a share
    /// of the buffer, and written at the next output notices. Never calls `handle_write_stream`.
    /// @return bytes of this block written now; 0 when the socket would block, even if it took a part. -1 also when a
    ///         block before this one fails
    int send(const VEL_Byte_Block& block);

    /// One receive from the socket, for streams that do not leave it to `handle_read_stream`.
    /// @return bytes, 0 once the peer has closed
    int recv(void* buffer, uint64_t size);

    /// Whether no block waits to be written; so for a closed stream.
    bool is_send_all_completed();

    // As on every socket of a reactor that transfers data.
    using ReactorSocket::get_local_addr;
    using ReactorSocket::get_suspend_id;
    using ReactorSocket::suspend_read;

    /// Does nothing but `check_open` when input is not suspended.
    int resume_read();

    /// Ends registration and timers, drops what was not written and closes the socket.
    /// @param no_close  do not call `handle_close`; else it is called for the registration, or without one for the
    ///                  time-out timer, and never for a suspension
    void close(bool no_close);

    /// @param how  0 ends receiving, 1 sending, 2 both
    int shutdown(int how);

    /// 0, or -1 with 10038 (no socket) or 0x20000004 (no reactor, or never opened).
    int check_open();

    /// The peer's address; an empty one while closed.
    VEL_INET_Addr get_remote_addr();

    /// The handler slots. Overrides call them.
    int handle_input(void* handle, VEL_Reactor* reactor, uint32_t error) override;
    int handle_output(void* handle, VEL_Reactor* reactor, uint32_t error) override;

    /// Closes the connection, whatever has ended; what was not written stays until `close` or `open`.
    int handle_close(void* handle, uint32_t mask, VEL_Reactor* reactor) override;

    /// Bytes have arrived; `data` is valid during the call. With an error, 0x20000012 when the peer has closed, `size`
    /// is 0 and the connection is closed afterwards. A negative result closes it, too.
    virtual int handle_read_stream(const void* data, uint64_t size, uint32_t error);

    /// The output notice has brought a block to its end, or failed in it.
    /// @param data  where the bytes begin that were written this time, valid during the call
    /// @param size  how many these were, the last part of a block that took several notices
    virtual int handle_write_stream(const void* data, uint64_t size, uint32_t error);

private:
    using ReactorSocket::link_;
    using ReactorSocket::lock_;
    friend class VEL_Acceptor;
    friend class vel::StreamTransfer;

    int start(VEL_Reactor* reactor, const VEL_INET_Addr& remote, uint32_t timeout_ms, int receive_buffer,
              int send_buffer) VEL_REQUIRES(lock_);
    int accept_from(VEL_Socket& listener);
    int give_up() VEL_REQUIRES(lock_);
    int check_locked() const VEL_REQUIRES(lock_);

    vel::StreamTransfer transfer_ VEL_GUARDED_BY(lock_);
    VEL_INET_Addr remote_ VEL_GUARDED_BY(lock_);
};
