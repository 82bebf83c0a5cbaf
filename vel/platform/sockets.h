// Free socket functions: plain calls, calls with a time-out, and overlapped calls.
//
// Handles: a socket is an unsigned 64-bit value, VEL_INVALID_SOCKET for none; VELLib::closesocket closes it.
// Results: 0, a byte count or a handle; -1 (or VEL_INVALID_SOCKET) with the thread's error code set to the socket
//          code: 10038 for a value that is no open socket, 10035 when a non-blocking socket would have to wait.
// Threads: no locks. Closing a socket ends the calls that other threads block on with 10038.
// Limits:  sizes are 64-bit, but one transfer takes only the low 32 bits of its size, on purpose, and moves at most
//          0x7FFFF000 bytes.
//
// Calls with a time-out (milliseconds, VEL_INFINITE waits for ever) give 258 when it ends. accept, connect, recv and
// recvfrom with a time-out leave the socket non-blocking; send and sendto leave it blocking.
//
// Calls with an OVERLAPPED: null makes a plain blocking call. Otherwise a socket that belongs to a completion port
// gives -1 with 997 and the record arrives at the port; on any other socket the transfer is made at once.
#pragma once

#include <concepts>
#include <vel/platform/inet_addr.h>
#include <vel/types.h>

namespace VELLib {

/// @param family    2 for IPv4
/// @param type      1 stream, 2 datagram
/// @param protocol  0 for the usual one
/// @return the socket, or VEL_INVALID_SOCKET
VEL_API uint64_t socket(int family, int type, int protocol);

/// Closes; a value that is no open socket is ignored.
VEL_API void closesocket(uint64_t socket);

/// Binds to a local address; a stream socket may bind over connections that are still timing out.
VEL_API int bind(uint64_t socket, const VEL_INET_Addr& address);

/// Listens with the longest backlog the system grants.
VEL_API int listen(uint64_t socket);

/// Accepts a connection; the new socket is blocking.
/// @param peer  receives the peer's address
/// @return the new socket, or VEL_INVALID_SOCKET
VEL_API uint64_t accept(uint64_t socket, VEL_INET_Addr& peer);
VEL_API uint64_t accept(uint64_t socket, VEL_INET_Addr& peer, uint32_t timeout_ms);

/// Connects. With a time-out, a connection that is refused gives its own code, 10061.
VEL_API int connect(uint64_t socket, const VEL_INET_Addr& address);
VEL_API int connect(uint64_t socket, const VEL_INET_Addr& address, uint32_t timeout_ms);

/// Receives what is there, within a time-out.
/// @param closed  cleared at entry; set when the peer has closed and this call left nothing to read
/// @return bytes received, 0 once the peer has closed; -1 with 258, with the code of a connection that broke (10053,
///         10054, 10060), or with 0x20000001 when the receive itself failed
VEL_API int recv(uint64_t socket, void* buffer, uint64_t size, bool& closed, uint32_t timeout_ms);

/// One receive. Returns the bytes received, 0 once the peer has closed.
VEL_API int recv(uint64_t socket, void* buffer, uint64_t size, OVERLAPPED* overlapped);

/// Receives one datagram; one that was longer than `size` gives 10040.
/// @param from  receives the sender's address; with an OVERLAPPED it lives until the completion was taken
VEL_API int recvfrom(uint64_t socket, void* buffer, uint64_t size, VEL_INET_Addr& from, uint32_t timeout_ms);
VEL_API int recvfrom(uint64_t socket, void* buffer, uint64_t size, VEL_INET_Addr& from, OVERLAPPED* overlapped);

/// Sends once. With a time-out it waits until the socket takes something, which may be less than `size`.
/// @return bytes sent
VEL_API int send(uint64_t socket, const void* data, uint64_t size, uint32_t timeout_ms);
VEL_API int send(uint64_t socket, const void* data, uint64_t size, OVERLAPPED* overlapped);

/// Sends one datagram.
/// @param to  with an OVERLAPPED it lives until the completion was taken
VEL_API int sendto(uint64_t socket, const void* data, uint64_t size, const VEL_INET_Addr& to, uint32_t timeout_ms);
VEL_API int sendto(uint64_t socket, const void* data, uint64_t size, const VEL_INET_Addr& to, OVERLAPPED* overlapped);

/// Time-outs of other types, a literal 0 too; pass a null OVERLAPPED as nullptr.
template <std::integral Time>
int recvfrom(uint64_t socket, void* buffer, uint64_t size, VEL_INET_Addr& from, Time timeout_ms) {
    return recvfrom(socket, buffer, size, from, static_cast<uint32_t>(timeout_ms));
}
template <std::integral Time>
int send(uint64_t socket, const void* data, uint64_t size, Time timeout_ms) {
    return send(socket, data, size, static_cast<uint32_t>(timeout_ms));
}
template <std::integral Time>
int sendto(uint64_t socket, const void* data, uint64_t size, const VEL_INET_Addr& to, Time timeout_ms) {
    return sendto(socket, data, size, to, static_cast<uint32_t>(timeout_ms));
}

/// Address of the peer, and the socket's own.
VEL_API int getpeername(uint64_t socket, VEL_INET_Addr& address);
VEL_API int getsockname(uint64_t socket, VEL_INET_Addr& address);

/// Options. Level 0xFFFF is this library's own on every system: 4 reuse address, 8 keep-alive, 0x20 broadcast,
/// 0x80 linger (two 16-bit numbers: on, seconds), 0x1001 and 0x1002 send and receive buffer, 0x1005 and 0x1006 send
/// and receive time-out in milliseconds, 0x1007 pending error, 0x1008 type. Other levels go to the system as they are.
/// @param length  bytes of `value`; out: bytes filled
VEL_API int getsockopt(uint64_t socket, int level, int name, void* value, int& length);
VEL_API int setsockopt(uint64_t socket, int level, int name, const void* value, int length);

/// @param how  0 ends receiving, 1 sending, 2 both
VEL_API int shutdown(uint64_t socket, int how);

/// Bytes ready to be read.
VEL_API int getrecvnum(uint64_t socket);

VEL_API int sock_enable_nonblock(uint64_t socket);
VEL_API int sock_disable_nonblock(uint64_t socket);

/// Writes the host's own IPv4 address as dotted text.
/// @param size  room in `buffer` in bytes, with the terminating NUL
/// @return 0, or -1 with 122 when the room is too small, 11001 to 11004 when the host's name has no address
VEL_API int getlocalip(char* buffer, uint64_t size);

} // namespace VELLib
