// Accepting and connecting for the requests of a port.
#include <vel/os/linux/port_transfer.h>

#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vel/os/error_codes.h>
#include <vel/os/linux/completion_port.h>
#include <vel/os/linux/error.h>
#include <vel/os/linux/socket_object.h>
#include <vel/os/socket.h>

namespace vel::os {
namespace {

constexpr socklen_t address_bytes = 16;

// Errors of one lost connection or of its network; the next one in the queue may be sound.
bool is_lost_connection(int error_number) {
    switch (error_number) {
    case EINTR:
    case ECONNABORTED:
    case EPROTO:
    case EPERM:
    case ENETDOWN:
    case ENETUNREACH:
    case ENOPROTOOPT:
    case EHOSTDOWN:
    case EHOSTUNREACH:
    case ENONET: return true;
    default: return false;
    }
}

// Accepts a connection and has it take over the descriptor number of the prepared socket. -1 with errno.
int accept_onto(int listener, void* remote, int prepared) {
    int accepted;
    do {
        socklen_t length = address_bytes;
        accepted = ::accept4(listener, static_cast<sockaddr*>(remote), remote ? &length : nullptr, SOCK_CLOEXEC);
    } while (accepted < 0 && is_lost_connection(errno));
    if (accepted < 0) return -1;
    int moved;
    do {
        moved = ::dup3(accepted, prepared, O_CLOEXEC);
    } while (moved < 0 && (errno == EINTR || errno == EBUSY));
    ::close(accepted);
    return moved;
}

// The prepared socket has paid for a descriptor already, so the second one that is needed for a moment may come from
// the reserve.
int accept_at_limit(const PortBinding& listener, void* remote, int prepared) {
    const int accepted = accept_onto(listener.descriptor(), remote, prepared);
    if (accepted >= 0 || (errno != EMFILE && errno != ENFILE)) return accepted;
    PortObject& port = listener.port();
    return port.reserve().lend(port.descriptor(), [&] { return accept_onto(listener.descriptor(), remote, prepared); });
}

// A call that never waits: whether the connect has ended, with its error.
bool connect_has_ended(int descriptor, uint32_t& error) {
    pollfd entry{descriptor, POLLOUT, 0};
    if (::poll(&entry, 1, 0) <= 0) return false;
    int pending = 0;
    socklen_t length = sizeof pending;
    if (::getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &pending, &length) < 0) pending = errno;
    error = pending ? socket_error(pending) : error::none;
    if (error) return true;
    sockaddr_storage peer;
    length = sizeof peer;
    // Without an error and without a peer: a receive has taken the error before.
    if (::getpeername(descriptor, reinterpret_cast<sockaddr*>(&peer), &length) < 0) error = error::connection_aborted;
    return true;
}

// Connects without waiting; the mode of the socket is as before afterwards. Gives an errno.
int connect_once(int descriptor, const IoRequest& request) {
    const int mode = ::fcntl(descriptor, F_GETFL);
    if (!(mode & O_NONBLOCK)) ::fcntl(descriptor, F_SETFL, mode | O_NONBLOCK);
    const int result = ::connect(descriptor, static_cast<const sockaddr*>(request.address),
                                 static_cast<socklen_t>(request.address_size));
    const int error_number = result < 0 ? errno : 0;
    if (!(mode & O_NONBLOCK)) ::fcntl(descriptor, F_SETFL, mode);
    return error_number;
}

} // namespace

bool perform_accept(const PortBinding& binding, PortDirection& direction, IoRequest& request, uint32_t& error) {
    const Pinned<SocketObject> prepared(request.accept_socket, HandleKind::socket);
    if (!prepared || prepared->generation() != request.accept_socket_generation) {
        error = error::not_a_socket;
        return true;
    }
    binding.port().reserve().fill(binding.port().descriptor());
    const int accepted = accept_at_limit(binding, request.address, prepared->descriptor());
    if (accepted < 0 && errno == EAGAIN) {
        direction.run_dry();
        return false;
    }
    if (accepted < 0) {
        error = socket_error(errno);
        return true;
    }
    if (request.local_address) {
        socklen_t length = address_bytes;
        ::getsockname(accepted, static_cast<sockaddr*>(request.local_address), &length);
    }
    prepared->nonblocking = false; // the new connection is blocking, whatever the prepared socket was, unless bound
    if (prepared->notices.renew(error)) error = set_nonblocking(request.accept_socket, true);
    if (!prepared->port->renew()) error = error::socket_invalid;
    return true;
}

bool perform_connect(const PortBinding& binding, PortDirection& direction, IoRequest& request, uint32_t& error) {
    if (kind_of(request) == IoKind::connecting) {
        if (connect_has_ended(binding.descriptor(), error)) return true;
        direction.run_dry();
        return false;
    }
    const int error_number = connect_once(binding.descriptor(), request);
    if (error_number == EINPROGRESS || error_number == EINTR) {
        request.kind = static_cast<uint8_t>((request.kind & proxy_bit) | static_cast<uint8_t>(IoKind::connecting));
        direction.run_dry();
        return false;
    }
    if (error_number) error = socket_error(error_number);
    return true;
}

} // namespace vel::os
