// Life of a socket's object: adoption of a descriptor and the wake-up of blocked calls at the close.
#include <vel/os/linux/socket_object.h>

#include <cerrno>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <new>
#include <sys/socket.h>
#include <unistd.h>
#include <vel/os/error_codes.h>
#include <vel/os/linux/error.h>

namespace vel::os {

void SocketObject::detach() {
    port->detach();
    notices.close();
    closing_.store(true);
    // Only when somebody sleeps in there: a shutdown that nobody needs would end an abortive close in good order and
    // cut off a forked process that shares the connection.
    if (blocked_.load() > 0) ::shutdown(descriptor(), SHUT_RDWR);
}

uint32_t send_error(int descriptor, int error_number) {
    if (error_number != EPIPE) return socket_error(error_number);
    tcp_info info{};
    socklen_t length = sizeof info;
    const bool open =
        ::getsockopt(descriptor, IPPROTO_TCP, TCP_INFO, &info, &length) == 0 && info.tcpi_state != TCP_CLOSE;
    return open ? error::socket_shut_down : error::connection_reset;
}

bool is_transient_accept_error(int error_number) { return error_number == ECONNABORTED || error_number == EPROTO; }

uint32_t adopt_socket(int descriptor, int family, int type, uint64_t& socket) {
    std::unique_ptr<SocketObject> object(new (std::nothrow) SocketObject(family, type));
    if (!object || !object->port) {
        ::close(descriptor);
        return error::no_buffer_space;
    }
    void* handle = HandleTable::insert(descriptor, HandleKind::socket, std::move(object));
    if (!handle) return error::too_many_sockets;
    socket = reinterpret_cast<uint64_t>(handle);
    return error::none;
}

} // namespace vel::os
