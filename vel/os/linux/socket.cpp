// Socket calls: each pins the socket's object, runs one system call and translates its error.
#include <vel/os/socket.h>

#include <algorithm>
#include <cerrno>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <vel/os/error_codes.h>
#include <vel/os/handle.h>
#include <vel/os/linux/deadline.h>
#include <vel/os/linux/descriptor.h>
#include <vel/os/linux/error.h>
#include <vel/os/linux/socket_object.h>

namespace vel::os {
namespace {

using PinnedSocket = Pinned<SocketObject>;

PinnedSocket pin_socket(uint64_t socket) { return PinnedSocket(socket, HandleKind::socket); }

uint32_t last_error() { return socket_error(errno); }

uint32_t code_of(int result) { return result < 0 ? last_error() : error::none; }

// A blocking socket has nothing to do with "would block": its own send or receive time-out has run out.
uint32_t transfer_error(const SocketObject& socket, int error_number) {
    const bool timed_out = error_number == EAGAIN && !socket.nonblocking.load(std::memory_order_relaxed);
    return timed_out ? error::socket_timed_out : send_error(socket.descriptor(), error_number);
}

// Runs a system call that sleeps on a blocking socket, again when a signal interrupted it. What it brought before the
// socket was closed still counts.
template <class Call>
uint32_t run(SocketObject& socket, bool may_sleep, ssize_t& result, Call system_call) {
    BlockingCall call(socket, may_sleep);
    if (call.ended()) return error::not_a_socket;
    result = uninterrupted([&] { return system_call(socket.descriptor()); });
    if (result > 0) return error::none;
    const int error_number = errno;
    if (call.ended()) return error::not_a_socket;
    return result < 0 ? transfer_error(socket, error_number) : error::none;
}

// The same for calls that take flags: by these they learn not to sleep, whatever becomes of the socket's mode meanwhile.
template <class Call>
uint32_t transfer(SocketObject& socket, ssize_t& result, Call system_call) {
    const bool may_sleep = !socket.nonblocking.load(std::memory_order_relaxed);
    const int flags = may_sleep ? 0 : MSG_DONTWAIT;
    return run(socket, may_sleep, result, [&](int descriptor) { return system_call(descriptor, flags); });
}

// Waits for events of one descriptor until the deadline; 0 when it has passed first.
int poll_until(int descriptor, short events, uint32_t timeout_ms, short& found) {
    const Deadline deadline(timeout_ms);
    pollfd entry{descriptor, events, 0};
    timespec left;
    const int ready = uninterrupted([&] { return ::ppoll(&entry, 1, deadline.remaining(left), nullptr); });
    found = ready > 0 ? entry.revents : short{0};
    return ready;
}

// An interrupted connect goes on in the background; connecting again would only give "already".
int finish_connect(int descriptor) {
    short found = 0;
    if (poll_until(descriptor, POLLOUT, VEL_INFINITE, found) < 0) return errno;
    int pending = 0;
    socklen_t length = sizeof pending;
    return ::getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &pending, &length) < 0 ? errno : pending;
}

uint32_t connect_error(const SocketObject& socket, int error_number) {
    if (error_number == 0) return error::none;
    const bool nonblocking = socket.nonblocking.load(std::memory_order_relaxed);
    if (error_number == EINPROGRESS) return nonblocking ? error::would_block : error::socket_timed_out;
    return socket_error(error_number);
}

// Also for a datagram socket without a wish for the sender: only this call tells of a cut datagram.
uint32_t receive_message(SocketObject& socket, iovec part, void* address, int32_t* length, uint64_t& moved) {
    msghdr message{};
    message.msg_name = address;
    message.msg_namelen = length ? static_cast<socklen_t>(std::max(*length, 0)) : 0;
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    ssize_t got = 0;
    const auto mark = socket.notices.mark();
    const uint32_t code =
        transfer(socket, got, [&](int descriptor, int flags) { return ::recvmsg(descriptor, &message, flags); });
    if (!code) moved = static_cast<uint64_t>(got);
    socket.notices.received(mark, code, moved < part.iov_len);
    if (code) return code;
    if (length && message.msg_namelen > 0) *length = static_cast<int32_t>(message.msg_namelen); // streams name nobody
    return message.msg_flags & MSG_TRUNC ? error::message_too_long : error::none;
}

using NameCall = int (*)(int, sockaddr*, socklen_t*);

uint32_t read_name(uint64_t socket, NameCall call, void* address, int32_t& length) {
    const PinnedSocket object = pin_socket(socket);
    if (!object) return error::not_a_socket;
    auto room = static_cast<socklen_t>(std::max(length, 0));
    const int result = call(object->descriptor(), static_cast<sockaddr*>(address), &room);
    if (result == 0) length = static_cast<int32_t>(room);
    return code_of(result);
}

} // namespace

uint32_t open_socket(int family, int type, int protocol, uint64_t& socket) {
    constexpr int type_mask = 0xF; // the system keeps creation flags above
    if (type & ~type_mask) return socket_error(ESOCKTNOSUPPORT);
    const int descriptor = ::socket(family, type | SOCK_CLOEXEC, protocol);
    return descriptor < 0 ? last_error() : adopt_socket(descriptor, family, type, socket);
}

uint32_t close_socket(uint64_t socket) {
    if (!is_socket(socket)) return error::not_a_socket;
    return close_handle(reinterpret_cast<void*>(socket)) ? error::not_a_socket : error::none;
}

bool is_socket(uint64_t handle) { return HandleTable::kind(reinterpret_cast<void*>(handle)) == HandleKind::socket; }

uint32_t bind_socket(uint64_t socket, const void* address, int32_t length) {
    const PinnedSocket object = pin_socket(socket);
    if (!object) return error::not_a_socket;
    if (object->is_stream()) {
        const int on = 1;
        ::setsockopt(object->descriptor(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    }
    return code_of(::bind(object->descriptor(), static_cast<const sockaddr*>(address), static_cast<socklen_t>(length)));
}

uint32_t bind_for_connect(uint64_t socket) {
    {
        const PinnedSocket object = pin_socket(socket);
        if (!object) return error::not_a_socket;
        const int on = 1; // without it each connection keeps a whole port of the system's few to itself
        ::setsockopt(object->descriptor(), IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, &on, sizeof on);
    }
    sockaddr_in any{};
    any.sin_family = AF_INET;
    return bind_socket(socket, &any, sizeof any);
}

uint32_t listen_socket(uint64_t socket) {
    const PinnedSocket object = pin_socket(socket);
    if (!object) return error::not_a_socket;
    if (::listen(object->descriptor(), INT32_MAX) < 0) return last_error();
    object->notices.listening();
    return error::none;
}

uint32_t accept_socket(uint64_t listener, void* address, int32_t& length, uint64_t& socket) {
    const PinnedSocket object = pin_socket(listener);
    if (!object) return error::not_a_socket;
    auto room = static_cast<socklen_t>(std::max(length, 0));
    ssize_t accepted = -1;
    const auto mark = object->notices.mark();
    const uint32_t code = run(*object, true, accepted, [&](int descriptor) {
        int fresh;
        do {
            fresh = ::accept4(descriptor, static_cast<sockaddr*>(address), &room, SOCK_CLOEXEC);
        } while (fresh < 0 && is_transient_accept_error(errno));
        return fresh;
    });
    object->notices.accepted(mark, code);
    if (code) return code;
    length = static_cast<int32_t>(room);
    return adopt_socket(static_cast<int>(accepted), object->family, object->type, socket);
}

uint32_t connect_socket(uint64_t socket, const void* address, int32_t length) {
    const PinnedSocket object = pin_socket(socket);
    if (!object) return error::not_a_socket;
    BlockingCall call(*object);
    if (call.ended()) return error::not_a_socket;
    const auto* target = static_cast<const sockaddr*>(address);
    const bool fresh = object->notices.connect_begins();
    int result = ::connect(object->descriptor(), target, static_cast<socklen_t>(length));
    // The first call after a failed connect only tells that it failed, when another has taken the error already.
    if (result < 0 && errno == ECONNABORTED && fresh)
        result = ::connect(object->descriptor(), target, static_cast<socklen_t>(length));
    int error_number = result < 0 ? errno : 0;
    if (error_number == EINTR) error_number = finish_connect(object->descriptor());
    if (call.ended()) return error::not_a_socket;
    const uint32_t code = connect_error(*object, error_number);
    object->notices.connect_ends(code, fresh);
    return code;
}

uint32_t receive(uint64_t socket, void* buffer, uint64_t size, uint64_t& moved) {
    moved = 0;
    const PinnedSocket object = pin_socket(socket);
    if (!object) return error::not_a_socket;
    if (!object->is_stream()) return receive_message(*object, {buffer, size}, nullptr, nullptr, moved);
    ssize_t got = 0;
    const auto mark = object->notices.mark();
    const uint32_t code =
        transfer(*object, got, [&](int descriptor, int flags) { return ::recv(descriptor, buffer, size, flags); });
    if (!code) moved = static_cast<uint64_t>(got);
    object->notices.received(mark, code, moved < size);
    return code;
}

uint32_t receive_from(uint64_t socket, void* buffer, uint64_t size, void* address, int32_t& length, uint64_t& moved) {
    moved = 0;
    const PinnedSocket object = pin_socket(socket);
    if (!object) return error::not_a_socket;
    return receive_message(*object, {buffer, size}, address, &length, moved);
}

uint32_t send(uint64_t socket, const void* data, uint64_t size, uint64_t& moved) {
    moved = 0;
    const PinnedSocket object = pin_socket(socket);
    if (!object) return error::not_a_socket;
    const auto* bytes = static_cast<const uint8_t*>(data);
    for (;;) {
        ssize_t sent = 0;
        const uint32_t code = transfer(*object, sent, [&](int descriptor, int flags) {
            return ::send(descriptor, bytes + moved, size - moved, flags | MSG_NOSIGNAL);
        });
        object->notices.sent(code);
        if (code) return moved ? error::none : code; // the next call meets the error again
        moved += static_cast<uint64_t>(sent);
        // A signal may cut a blocking send short.
        const bool whole = !object->is_stream() || object->nonblocking.load(std::memory_order_relaxed);
        if (whole || moved >= size) return error::none;
    }
}

uint32_t send_to(uint64_t socket, const void* data, uint64_t size, const void* address, int32_t length,
                 uint64_t& moved) {
    moved = 0;
    const PinnedSocket object = pin_socket(socket);
    if (!object) return error::not_a_socket;
    ssize_t sent = 0;
    const uint32_t code = transfer(*object, sent, [&](int descriptor, int flags) {
        const auto* target = static_cast<const sockaddr*>(address);
        return ::sendto(descriptor, data, size, flags | MSG_NOSIGNAL, target, static_cast<socklen_t>(length));
    });
    object->notices.sent(code);
    if (!code) moved = static_cast<uint64_t>(sent);
    return code;
}

uint32_t wait_socket(uint64_t socket, SocketWait what, uint32_t timeout_ms) {
    const PinnedSocket object = pin_socket(socket);
    if (!object) return error::not_a_socket;
    BlockingCall call(*object);
    if (call.ended()) return error::not_a_socket;
    short found = 0;
    const short wanted = what == SocketWait::readable ? POLLIN : POLLOUT;
    const int ready = poll_until(object->descriptor(), wanted, timeout_ms, found);
    const int error_number = errno;
    if (call.ended()) return error::not_a_socket;
    if (ready < 0) return socket_error(error_number);
    return ready == 0 ? error::wait_timeout : error::none;
}

uint32_t take_socket_error(uint64_t socket, uint32_t& error) {
    const PinnedSocket object = pin_socket(socket);
    if (!object) return error::not_a_socket;
    int pending = 0;
    socklen_t length = sizeof pending;
    if (::getsockopt(object->descriptor(), SOL_SOCKET, SO_ERROR, &pending, &length) < 0) return last_error();
    error = pending ? socket_error(pending) : error::none;
    object->notices.error_taken(error);
    return error::none;
}

uint32_t peer_has_closed(uint64_t socket, bool& closed) {
    const PinnedSocket object = pin_socket(socket);
    if (!object) return error::not_a_socket;
    short found = 0;
    if (poll_until(object->descriptor(), POLLRDHUP, 0, found) < 0) return last_error();
    int unread = 0;
    const bool ended = object->is_stream() && found & POLLRDHUP;
    if (ended && ::ioctl(object->descriptor(), FIONREAD, &unread) < 0) return last_error();
    closed = ended && unread == 0;
    return error::none;
}

uint32_t peer_name(uint64_t socket, void* address, int32_t& length) {
    return read_name(socket, ::getpeername, address, length);
}

uint32_t local_name(uint64_t socket, void* address, int32_t& length) {
    return read_name(socket, ::getsockname, address, length);
}

uint32_t shutdown_socket(uint64_t socket, int how) {
    const PinnedSocket object = pin_socket(socket);
    if (!object) return error::not_a_socket;
    return code_of(::shutdown(object->descriptor(), how));
}

uint32_t readable_bytes(uint64_t socket, uint32_t& bytes) {
    const PinnedSocket object = pin_socket(socket);
    if (!object) return error::not_a_socket;
    int count = 0;
    if (::ioctl(object->descriptor(), FIONREAD, &count) < 0) return last_error();
    bytes = static_cast<uint32_t>(count);
    return error::none;
}

uint32_t set_nonblocking(uint64_t socket, bool on) {
    const PinnedSocket object = pin_socket(socket);
    if (!object) return error::not_a_socket;
    if (on && object->nonblocking.load(std::memory_order_relaxed)) return error::none;
    int value = on;
    if (::ioctl(object->descriptor(), FIONBIO, &value) < 0) return last_error();
    object->nonblocking.store(on, std::memory_order_relaxed);
    return error::none;
}

} // namespace vel::os
