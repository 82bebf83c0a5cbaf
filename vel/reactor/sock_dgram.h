// UDP socket on a reactor.
#pragma once

#include <concepts>
#include <optional>
#include <vel/buffers/byte_block.h>
#include <vel/memory/queue.h>
#include <vel/platform/inet_addr.h>
#include <vel/reactor/reactor_socket.h>

/// A non-blocking datagram socket with a send queue; a reactor sends what the socket did not take at once, and brings
/// what arrives, datagram by datagram, with the sender's address.
///
/// Derive and override `handle_read_dgram`, `handle_write_dgram` and, with timers, `handle_timeout`, which tells the
/// time-out from the end of a read suspension by the ids. Any registration or timer that ends by a negative result, or
/// in the reactor, closes the socket.
///
/// Threads:   every call from any thread; one lock guards the socket. It is not held while `handle_read_dgram` and
///            `handle_write_dgram` run, so these may call everything here; one of them runs at a time. `handle_close`
///            runs under it when `close` or `cancel_timer` brings it about.
/// Ownership: as VEL_SOCK_Stream.
/// Errors:    -1 with 10038 when there is no socket, 0x20000004 without a reactor, else the socket layer's or the
///            reactor's code.
/// Limits:    32,768 bytes a datagram received; what can be sent is the system's limit (65,507 bytes). Times in
///            milliseconds.
///
///     class Echo : public VEL_SOCK_Dgram {
///         int handle_read_dgram(const void* data, uint64_t size, const VEL_INET_Addr& from, uint32_t error) override {
///             if (error == 0) sendto(VEL_Byte_Block(size, data), from);
///             return 0;                                              // a negative result closes the socket
///         }
///     };
class VEL_API VEL_SOCK_Dgram : public vel::ReactorSocket {
public:
    /// A datagram to send and where it goes.
    class VEL_API VEL_Dgram_Token {
    public:
        VEL_Dgram_Token() = default;
        VEL_Dgram_Token(const VEL_Byte_Block& packet, VEL_INET_Addr remote);
        VEL_Dgram_Token(const VEL_Dgram_Token&) = default;
        VEL_Dgram_Token& operator=(const VEL_Dgram_Token&) = default;
        virtual ~VEL_Dgram_Token();

        VEL_Byte_Block& packet() { return packet_; }
        VEL_INET_Addr& remote() { return remote_; }

        /// Drops the packet's share and resets the address.
        void reset();

    private:
        VEL_INET_Addr remote_;
        VEL_Byte_Block packet_;
    };

    VEL_SOCK_Dgram() = default;

    /// Closes without `handle_close`.
    ~VEL_SOCK_Dgram() override;

    /// Binds to a port (0 for any free one) of an address (0 for all), allows broadcast and registers for input and
    /// output.
    /// Errors: 10056 when the object holds a socket already, 10048 when the port is taken. On failure it is closed.
    int open(VEL_Reactor* reactor, uint16_t port, uint32_t host);

    /// The same with a host name or dotted address; null for all addresses.
    int open(VEL_Reactor* reactor, uint16_t port, const char* host);
    template <std::integral Host>
    int open(VEL_Reactor* reactor, uint16_t port, Host host) {
        return open(reactor, port, static_cast<uint32_t>(host));
    }

    /// Sends the whole block as one datagram, behind what waits already; what the socket does not take is kept, by a
    /// share of the buffer, and sent at the next output notices. Never calls `handle_write_dgram`. A datagram that the
    /// system refuses for good is dropped: the caller's with -1, one before it by the next output notice, which reports
    /// it.
    /// @return bytes of this block sent now; 0 when it waits
    int sendto(const VEL_Byte_Block& packet, const VEL_INET_Addr& to);

    /// One receive from the socket, for classes that do not leave it to `handle_read_dgram`. Errors: 10035, 10040.
    int recvfrom(void* buffer, uint64_t size, VEL_INET_Addr& from);

    // As on every socket of a reactor that transfers data.
    using ReactorSocket::get_local_addr;
    using ReactorSocket::get_suspend_id;
    using ReactorSocket::suspend_read;

    /// Does nothing but `check_open` when input is not suspended.
    int resume_read();

    /// Ends registration and timers, drops what was not sent and closes the socket.
    /// @param no_close  do not call `handle_close` for registration and time-out timer; for a suspension it never is
    void close(bool no_close);

    /// 0, or -1 with 10038 (no socket) or 0x20000004 (no reactor).
    int check_open();

    /// The handler slots. Overrides call them.
    int handle_input(void* handle, VEL_Reactor* reactor, uint32_t error) override;
    int handle_output(void* handle, VEL_Reactor* reactor, uint32_t error) override;

    /// Closes the socket, whatever has ended; what was not sent stays until `close` or `open`.
    int handle_close(void* handle, uint32_t mask, VEL_Reactor* reactor) override;

    /// A datagram has arrived, which may be one of 0 bytes; `data` is valid during the call. With an error `size` is 0:
    /// 10040 for a datagram that was too long, of which nothing is kept.
    virtual int handle_read_dgram(const void* data, uint64_t size, const VEL_INET_Addr& from, uint32_t error);

    /// The output notice has sent a datagram that had to wait, or failed to, and then `size` is 0.
    /// @param data  its bytes, valid during the call
    virtual int handle_write_dgram(const void* data, uint64_t size, const VEL_INET_Addr& to, uint32_t error);

private:
    using ReactorSocket::link_;
    using ReactorSocket::lock_;

    int bind(VEL_Reactor* reactor, const VEL_INET_Addr& local);
    int prepare(const VEL_INET_Addr& local) VEL_REQUIRES(lock_);
    bool next() VEL_REQUIRES(lock_);
    uint32_t send_pending(uint64_t& sent) VEL_REQUIRES(lock_);

    VEL_Queue<VEL_Dgram_Token> queue_ VEL_GUARDED_BY(lock_);
    std::optional<VEL_Dgram_Token> pending_ VEL_GUARDED_BY(lock_); // sent before those in the queue
};
