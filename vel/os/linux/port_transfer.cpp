// Receiving and sending for the requests of a port. The calls never block, whatever the mode of the socket.
#include <vel/os/linux/port_transfer.h>

#include <algorithm>
#include <cerrno>
#include <sys/socket.h>
#include <vel/os/error_codes.h>
#include <vel/os/linux/error.h>
#include <vel/os/linux/socket_object.h>

namespace vel::os {
namespace {

constexpr socklen_t address_bytes = 16;

// A send goes on while the peer keeps up, but other handles get their turn after this many bytes.
constexpr uint64_t bytes_per_turn = 1 << 20;

template <class Call>
ssize_t retry(Call call) {
    ssize_t result;
    do {
        result = call();
    } while (result < 0 && errno == EINTR);
    return result;
}

bool is_dry(PortDirection& direction) {
    if (errno != EAGAIN) return false;
    direction.run_dry();
    return true;
}

// Nothing is to be moved, but the request completes only when there is something to read.
bool await_input(const PortBinding& binding, PortDirection& direction, uint32_t& error) {
    char byte;
    const ssize_t got = retry([&] { return ::recv(binding.descriptor(), &byte, 1, MSG_PEEK | MSG_DONTWAIT); });
    if (got >= 0) return true;
    if (is_dry(direction)) return false;
    error = socket_error(errno);
    return true;
}

bool receive_stream(const PortBinding& binding, PortDirection& direction, IoRequest& request, uint32_t& error) {
    if (request.length == 0) return await_input(binding, direction, error);
    const ssize_t got =
        retry([&] { return ::recv(binding.descriptor(), request.buffer, request.length, MSG_DONTWAIT); });
    if (got < 0) {
        if (is_dry(direction)) return false;
        error = socket_error(errno);
        return true;
    }
    request.InternalHigh = static_cast<uint64_t>(got);
    // A short read has emptied the socket, and what comes later is a new edge; unless the end has been seen.
    if (got > 0 && request.InternalHigh < request.length && !direction.drain) direction.ready = false;
    return true;
}

bool receive_datagram(const PortBinding& binding, PortDirection& direction, IoRequest& request, uint32_t& error) {
    socklen_t room = address_bytes;
    if (request.address_length) room = static_cast<socklen_t>(std::clamp(*request.address_length, 0, 16));
    const ssize_t got = retry([&] {
        return ::recvfrom(binding.descriptor(), request.buffer, request.length, MSG_DONTWAIT | MSG_TRUNC,
                          static_cast<sockaddr*>(request.address), request.address ? &room : nullptr);
    });
    if (got < 0) {
        if (is_dry(direction)) return false;
        error = socket_error(errno);
        return true;
    }
    if (request.address && request.address_length) *request.address_length = static_cast<int32_t>(room);
    request.InternalHigh = std::min(static_cast<uint64_t>(got), request.length);
    if (static_cast<uint64_t>(got) > request.length) error = error::message_too_long;
    return true;
}

ssize_t send_some(const PortBinding& binding, const IoRequest& request) {
    const char* rest = static_cast<const char*>(request.buffer) + request.InternalHigh;
    const auto size = static_cast<size_t>(request.length - request.InternalHigh);
    return retry([&] {
        return ::sendto(binding.descriptor(), rest, size, MSG_DONTWAIT | MSG_NOSIGNAL,
                        static_cast<const sockaddr*>(request.address), static_cast<socklen_t>(request.address_size));
    });
}

// A short send is tried again: only a refused call is sure to bring an edge.
bool send_all(const PortBinding& binding, PortDirection& direction, IoRequest& request, uint32_t& error) {
    const uint64_t end_of_turn = request.InternalHigh + bytes_per_turn;
    do {
        const ssize_t sent = send_some(binding, request);
        if (sent < 0) {
            if (is_dry(direction)) return false;
            error = send_error(binding.descriptor(), errno);
            return true;
        }
        request.InternalHigh += static_cast<uint64_t>(sent);
        if (request.InternalHigh >= request.length) return true;
    } while (request.InternalHigh < end_of_turn);
    return false;
}

} // namespace

bool perform(const PortBinding& binding, PortDirection& direction, IoRequest& request, uint32_t& error) {
    switch (kind_of(request)) {
    case IoKind::receive:
        return binding.is_stream() ? receive_stream(binding, direction, request, error)
                                   : receive_datagram(binding, direction, request, error);
    case IoKind::send: return send_all(binding, direction, request, error);
    case IoKind::accept: return perform_accept(binding, direction, request, error);
    default: return perform_connect(binding, direction, request, error);
    }
}

} // namespace vel::os
