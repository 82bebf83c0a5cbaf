// Free socket functions over the socket calls of the system boundary.
#include <vel/platform/sockets.h>

#include <algorithm>
#include <cstring>
#include <vel/frame/error.h>
#include <vel/os/completion_port.h>
#include <vel/os/error_codes.h>
#include <vel/os/socket.h>
#include <vel/platform/dotted_quad.h>
#include <vel/platform/report.h>

namespace VELLib {
namespace {

namespace os = vel::os;
namespace error = vel::error;
using os::SocketWait;
using vel::report;

int bytes_of(uint32_t code, uint64_t moved) { return report(code) < 0 ? -1 : static_cast<int>(moved); }

// The low 32 bits, cut to what one system call moves and an int can count.
uint64_t transfer_size(uint64_t size) { return std::min<uint64_t>(static_cast<uint32_t>(size), 0x7FFFF000); }

// A caller may have written anything into the length; the record has 16 bytes.
int length_of(const VEL_INET_Addr& address) { return std::clamp(address.length(), 0, 16); }

const void* record_of(const VEL_INET_Addr& address) { return static_cast<const sockaddr*>(address); }
void* record_of(VEL_INET_Addr& address) { return static_cast<sockaddr*>(address); }

uint64_t accept_code(uint64_t socket, VEL_INET_Addr& peer) {
    uint64_t accepted = VEL_INVALID_SOCKET;
    const uint32_t code = os::accept_socket(socket, record_of(peer), peer.length(), accepted);
    return report(code) < 0 ? VEL_INVALID_SOCKET : accepted;
}

// The overlapped calls of the system take files as well, and speak of handles.
bool is_foreign(uint64_t socket, const OVERLAPPED* overlapped) { return overlapped && !os::is_socket(socket); }

// The notice of a connection that broke comes with its error, also when the receive is what brings it to light.
bool tells_of_a_break(uint32_t code) {
    return code == error::connection_reset || code == error::connection_aborted || code == error::socket_timed_out;
}

// Timed calls leave the socket non-blocking, time-outs and failures included.
uint32_t wait_nonblocking(uint64_t socket, SocketWait what, uint32_t timeout_ms) {
    const uint32_t code = os::set_nonblocking(socket, true);
    return code ? code : os::wait_socket(socket, what, timeout_ms);
}

// Tries once, and once more when the socket has become writable. Blocking mode is restored on every way out, whatever
// the mode was before, on purpose.
template <class Send>
int send_timed(uint64_t socket, uint32_t timeout_ms, Send attempt) {
    uint64_t moved = 0;
    uint32_t code = os::set_nonblocking(socket, true);
    if (code) return report(code);
    code = attempt(moved);
    if (code == error::would_block) {
        code = os::wait_socket(socket, SocketWait::writable, timeout_ms);
        if (!code) code = attempt(moved);
    }
    os::set_nonblocking(socket, false);
    return bytes_of(code, moved);
}

} // namespace

uint64_t socket(int family, int type, int protocol) {
    uint64_t opened = VEL_INVALID_SOCKET;
    return report(os::open_socket(family, type, protocol, opened)) < 0 ? VEL_INVALID_SOCKET : opened;
}

void closesocket(uint64_t socket) { os::close_socket(socket); }

int bind(uint64_t socket, const VEL_INET_Addr& address) {
    return report(os::bind_socket(socket, record_of(address), length_of(address)));
}

int listen(uint64_t socket) { return report(os::listen_socket(socket)); }

uint64_t accept(uint64_t socket, VEL_INET_Addr& peer) {
    peer.reset();
    return accept_code(socket, peer);
}

uint64_t accept(uint64_t socket, VEL_INET_Addr& peer, uint32_t timeout_ms) {
    peer.reset();
    if (report(wait_nonblocking(socket, SocketWait::readable, timeout_ms)) < 0) return VEL_INVALID_SOCKET;
    return accept_code(socket, peer);
}

int connect(uint64_t socket, const VEL_INET_Addr& address) {
    return report(os::connect_socket(socket, record_of(address), length_of(address)));
}

int connect(uint64_t socket, const VEL_INET_Addr& address, uint32_t timeout_ms) {
    if (const uint32_t code = os::set_nonblocking(socket, true)) return report(code);
    const uint32_t started = os::connect_socket(socket, record_of(address), length_of(address));
    if (started != error::would_block) return report(started);
    if (const uint32_t code = os::wait_socket(socket, SocketWait::writable, timeout_ms)) return report(code);
    uint32_t outcome = error::none;
    const uint32_t code = os::take_socket_error(socket, outcome);
    return report(code ? code : outcome);
}

int recv(uint64_t socket, void* buffer, uint64_t size, bool& closed, uint32_t timeout_ms) {
    closed = false;
    if (const uint32_t code = wait_nonblocking(socket, SocketWait::readable, timeout_ms)) return report(code);
    uint64_t moved = 0;
    if (const uint32_t code = os::receive(socket, buffer, transfer_size(size), moved)) {
        SetErrorCode(tells_of_a_break(code) ? code : error::none); // else not the code of the receive, on purpose
        return -1;
    }
    // Judged after the receive, so that the call that takes the last bytes says so and none is left behind.
    closed = moved == 0;
    if (!closed) os::peer_has_closed(socket, closed);
    return static_cast<int>(moved);
}

int recv(uint64_t socket, void* buffer, uint64_t size, OVERLAPPED* overlapped) {
    if (is_foreign(socket, overlapped)) return report(error::not_a_socket);
    uint64_t moved = 0;
    const uint64_t room = transfer_size(size);
    const uint32_t code = overlapped ? os::overlapped_receive(socket, buffer, room, *overlapped, moved)
                                     : os::receive(socket, buffer, room, moved);
    return bytes_of(code, moved);
}

int recvfrom(uint64_t socket, void* buffer, uint64_t size, VEL_INET_Addr& from, uint32_t timeout_ms) {
    from.reset();
    if (const uint32_t code = wait_nonblocking(socket, SocketWait::readable, timeout_ms)) return report(code);
    return recvfrom(socket, buffer, size, from, nullptr);
}

int recvfrom(uint64_t socket, void* buffer, uint64_t size, VEL_INET_Addr& from, OVERLAPPED* overlapped) {
    from.reset();
    if (is_foreign(socket, overlapped)) return report(error::not_a_socket);
    uint64_t moved = 0;
    const uint64_t room = transfer_size(size);
    const uint32_t code = overlapped ? os::overlapped_receive_from(socket, buffer, room, record_of(from),
                                                                   &from.length(), *overlapped, moved)
                                     : os::receive_from(socket, buffer, room, record_of(from), from.length(), moved);
    return bytes_of(code, moved);
}

int send(uint64_t socket, const void* data, uint64_t size, uint32_t timeout_ms) {
    return send_timed(socket, timeout_ms,
                      [&](uint64_t& moved) { return os::send(socket, data, transfer_size(size), moved); });
}

int send(uint64_t socket, const void* data, uint64_t size, OVERLAPPED* overlapped) {
    if (is_foreign(socket, overlapped)) return report(error::not_a_socket);
    uint64_t moved = 0;
    const uint64_t bytes = transfer_size(size);
    const uint32_t code = overlapped ? os::overlapped_send(socket, data, bytes, *overlapped, moved)
                                     : os::send(socket, data, bytes, moved);
    return bytes_of(code, moved);
}

int sendto(uint64_t socket, const void* data, uint64_t size, const VEL_INET_Addr& to, uint32_t timeout_ms) {
    return send_timed(socket, timeout_ms, [&](uint64_t& moved) {
        return os::send_to(socket, data, transfer_size(size), record_of(to), length_of(to), moved);
    });
}

int sendto(uint64_t socket, const void* data, uint64_t size, const VEL_INET_Addr& to, OVERLAPPED* overlapped) {
    if (is_foreign(socket, overlapped)) return report(error::not_a_socket);
    uint64_t moved = 0;
    const uint64_t bytes = transfer_size(size);
    const uint32_t code =
        overlapped ? os::overlapped_send_to(socket, data, bytes, record_of(to), length_of(to), *overlapped, moved)
                   : os::send_to(socket, data, bytes, record_of(to), length_of(to), moved);
    return bytes_of(code, moved);
}

int getpeername(uint64_t socket, VEL_INET_Addr& address) {
    address.length() = length_of(address);
    return report(os::peer_name(socket, record_of(address), address.length()));
}

int getsockname(uint64_t socket, VEL_INET_Addr& address) {
    address.length() = length_of(address);
    return report(os::local_name(socket, record_of(address), address.length()));
}

int getsockopt(uint64_t socket, int level, int name, void* value, int& length) {
    return report(os::get_option(socket, level, name, value, length));
}

int setsockopt(uint64_t socket, int level, int name, const void* value, int length) {
    return report(os::set_option(socket, level, name, value, length));
}

int shutdown(uint64_t socket, int how) { return report(os::shutdown_socket(socket, how)); }

int getrecvnum(uint64_t socket) {
    uint32_t bytes = 0;
    const uint32_t code = os::readable_bytes(socket, bytes);
    return bytes_of(code, bytes);
}

int sock_enable_nonblock(uint64_t socket) { return report(os::set_nonblocking(socket, true)); }
int sock_disable_nonblock(uint64_t socket) { return report(os::set_nonblocking(socket, false)); }

int getlocalip(char* buffer, uint64_t size) {
    char name[260];
    uint32_t addresses[64] = {};
    uint32_t count = 64;
    uint32_t code = os::host_name(name, sizeof name);
    if (!code) code = os::resolve_host(name, addresses, count);
    if (code == error::resolver_no_data) code = error::host_not_found; // known, but not by an IPv4 address
    if (code) return report(code);

    const auto usable = [](uint32_t address) { return address != 0 && address != 0xFFFFFFFF; };
    const uint32_t* found = std::find_if(addresses, addresses + count, usable);
    char text[16];
    vel::write_dotted_quad(found == addresses + count ? found[-1] : *found, text);
    if (size <= std::strlen(text)) return report(error::insufficient_buffer);
    std::memcpy(buffer, text, std::strlen(text) + 1);
    return 0;
}

} // namespace VELLib
