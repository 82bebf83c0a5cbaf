// The object behind a socket handle, shared by the socket calls and the completion port.
#pragma once

#include <atomic>
#include <sys/socket.h>
#include <vel/os/linux/handle_table.h>
#include <vel/os/linux/port_binding.h>
#include <vel/os/linux/socket_notices.h>

namespace vel::os {

/// A socket. Closing it ends the calls that block on it: they see `ended` and return 10038.
class SocketObject final : public HandleObject {
public:
    SocketObject(int socket_family, int socket_type)
        : family(socket_family),
          type(socket_type),
          notices(*this, is_stream()) {}

    /// Lets the port and the sink of notices drop the socket, then wakes the calls that block on it.
    void detach() override;
    PortBinding* port_binding() override { return port.get(); }

    bool is_stream() const { return type == SOCK_STREAM; }

    const int family;
    const int type;                       // without creation flags
    std::atomic<bool> nonblocking{false}; // the mode its user has asked for
    const PortBinding::Owner port = PortBinding::make(true);
    SocketNotices notices;

private:
    friend class BlockingCall;
    std::atomic<bool> closing_{false};
    std::atomic<uint32_t> blocked_{0}; // calls that may be asleep on the descriptor
};

/// Counts a call that may sleep on the socket, so that closing the socket wakes it.
///
/// Either the call sees that the socket is closing, or the closer sees the call and shuts the socket down: both
/// write their own mark before they read the other's.
class BlockingCall {
public:
    /// @param may_sleep  false for a call that is told not to wait, which need not be counted
    explicit BlockingCall(SocketObject& socket, bool may_sleep = true) : socket_(socket), counted_(may_sleep) {
        if (counted_) socket_.blocked_.fetch_add(1);
    }
    ~BlockingCall() {
        if (counted_) socket_.blocked_.fetch_sub(1);
    }
    BlockingCall(const BlockingCall&) = delete;
    BlockingCall& operator=(const BlockingCall&) = delete;

    /// True once the socket is being closed; a failure or an end of stream then says nothing about the peer.
    bool ended() const { return socket_.closing_.load(); }

private:
    SocketObject& socket_;
    const bool counted_;
};

/// Code for a failed send: a broken pipe is 10054 once the connection is gone, 10058 after the sender's own shutdown.
uint32_t send_error(int descriptor, int error_number);

/// True for an errno of accept that speaks of one lost connection and not of the listener.
bool is_transient_accept_error(int error_number);

/// Table entry for a descriptor that was just opened or accepted (close-on-exec set). Takes it over in any case.
uint32_t adopt_socket(int descriptor, int family, int type, uint64_t& socket);

} // namespace vel::os
