// Sockets. An address is the 16-byte IPv4 record of the socket layer; lengths go in and out beside it.
//
// A send never raises a signal; everything is close-on-exec; an interrupted call goes on with the time that is left.
// Errors are socket codes (10038 for a dead or foreign handle).
#pragma once

#include <vel/types.h>

namespace vel::os {

/// Readiness to wait for with `wait_socket`.
enum class SocketWait : uint8_t { readable, writable };

uint32_t open_socket(int family, int type, int protocol, uint64_t& socket);
uint32_t close_socket(uint64_t socket);

/// Whether the value is an open socket at this moment.
bool is_socket(uint64_t handle);

/// Stream sockets may bind over connections in TIME_WAIT.
uint32_t bind_socket(uint64_t socket, const void* address, int32_t length);

/// Binds a stream socket that is going to connect to any local address. The system may leave the choice of the port to
/// the connect, so that connections to different peers can share one.
uint32_t bind_for_connect(uint64_t socket);
uint32_t listen_socket(uint64_t socket);

/// The new socket is blocking, whatever the listener is.
uint32_t accept_socket(uint64_t listener, void* address, int32_t& length, uint64_t& socket);

/// 10035 when a non-blocking connect has been started.
uint32_t connect_socket(uint64_t socket, const void* address, int32_t length);

uint32_t receive(uint64_t socket, void* buffer, uint64_t size, uint64_t& moved);

/// A datagram cut to `size` gives 10040 with `moved` = `size`.
uint32_t receive_from(uint64_t socket, void* buffer, uint64_t size, void* address, int32_t& length, uint64_t& moved);
uint32_t send(uint64_t socket, const void* data, uint64_t size, uint64_t& moved);
uint32_t send_to(uint64_t socket, const void* data, uint64_t size, const void* address, int32_t length,
                 uint64_t& moved);

/// Waits for readiness; 0, 258. Reads no pending error.
uint32_t wait_socket(uint64_t socket, SocketWait what, uint32_t timeout_ms);

/// Takes the pending error of the socket (reading consumes it); `error` 0 when there is none.
uint32_t take_socket_error(uint64_t socket, uint32_t& error);

/// True in `closed` when the peer has closed and nothing is left to read.
uint32_t peer_has_closed(uint64_t socket, bool& closed);

uint32_t peer_name(uint64_t socket, void* address, int32_t& length);
uint32_t local_name(uint64_t socket, void* address, int32_t& length);

/// Level 0xFFFF and its option numbers are the interface's own and translated; other levels pass through.
uint32_t get_option(uint64_t socket, int level, int name, void* value, int32_t& length);
uint32_t set_option(uint64_t socket, int level, int name, const void* value, int32_t length);

/// @param how  0 receive, 1 send, 2 both
uint32_t shutdown_socket(uint64_t socket, int how);
uint32_t readable_bytes(uint64_t socket, uint32_t& bytes);
uint32_t set_nonblocking(uint64_t socket, bool on);

/// First IPv4 addresses of a host, host byte order. Errors: 11001 to 11004.
/// @param count  in: room in `addresses`; out: how many were filled
uint32_t resolve_host(const char* name, uint32_t* addresses, uint32_t& count);
uint32_t host_name(char* buffer, uint64_t size);

} // namespace vel::os
