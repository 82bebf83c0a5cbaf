// How the sockets of this folder set the sizes of their buffers (internal).
#pragma once

#include <vel/reactor/socket.h>

namespace vel {

/// Sizes in bytes; what is not above 0 stays as the system made it. Returns 0 or -1.
inline int set_buffer_sizes(VEL_Socket& socket, int receive, int send) {
    constexpr int socket_level = 0xFFFF, receive_buffer = 0x1002, send_buffer = 0x1001;
    if (receive > 0 && socket.set_option(socket_level, receive_buffer, &receive, sizeof receive) < 0) return -1;
    return send > 0 ? socket.set_option(socket_level, send_buffer, &send, sizeof send) : 0;
}

} // namespace vel
