// TCP connection on a proactor.
#include <vel/proactor/async_sock_stream.h>

#include <vel/frame/fail.h>
#include <vel/os/socket.h>
#include <vel/platform/sockets.h>
#include <vel/proactor/async_connect.h>
#include <vel/proactor/proactor.h>

VEL_Async_SOCK_Stream::~VEL_Async_SOCK_Stream() { close(true); }

int VEL_Async_SOCK_Stream::open(VEL_Proactor* proactor, const VEL_INET_Addr& remote) {
    const uint64_t socket = VELLib::socket(2, 1, 0);
    if (socket == VEL_INVALID_SOCKET) return -1;
    uint32_t key = 0;
    // The peer is stored before the connect starts, so that `handle_connect` finds it.
    if (socket_.open(proactor, socket, this, remote, key) < 0) return -1;
    auto connect = [&](VEL_Async_SOCK_Connect& op) {
        if (op.completion_key() != key) return vel::fail(vel::error::not_a_socket); // closed and opened again meanwhile
        const uint32_t code = vel::os::bind_for_connect(socket);
        return code != vel::error::none ? vel::fail(code) : op.connect(remote);
    };
    if (socket_.start<VEL_Async_SOCK_Connect>(this, connect) == 0) return 0;
    socket_.abandon(proactor, key);
    return -1;
}

int VEL_Async_SOCK_Stream::open(VEL_Proactor* proactor, const char* host, uint16_t port) {
    VEL_INET_Addr remote;
    const int result = remote.set(port, host);
    return result < 0 ? result : open(proactor, remote);
}

int VEL_Async_SOCK_Stream::recv(VEL_Byte_Block& block, size_t length) {
    return socket_.start<VEL_Async_SOCK_Read_Stream>(
        this, [&](VEL_Async_SOCK_Read_Stream& op) { return op.read(block, length, 0); });
}

int VEL_Async_SOCK_Stream::recv(VEL_Async_SOCK_Read_Stream* op, size_t length) {
    return socket_.restart([&] { return op->restart(length); });
}

int VEL_Async_SOCK_Stream::send(const VEL_Byte_Block& block, size_t length) {
    return socket_.start<VEL_Async_SOCK_Write_Stream>(
        this, [&](VEL_Async_SOCK_Write_Stream& op) { return op.write(block, length, 0); });
}

int VEL_Async_SOCK_Stream::send(VEL_Async_SOCK_Write_Stream* op, size_t length) {
    return socket_.restart([&] { return op->write(op->block_, length, 0); });
}

int VEL_Async_SOCK_Stream::get_local_addr(VEL_INET_Addr& addr) { return socket_.local_addr(addr); }

VEL_INET_Addr VEL_Async_SOCK_Stream::get_remote_addr() { return socket_.remote_addr(); }

int VEL_Async_SOCK_Stream::set_timeout(uint32_t timeout_ms) { return socket_.set_timeout(this, timeout_ms); }

void VEL_Async_SOCK_Stream::cancel_timeout() { socket_.cancel_timeout(); }

int VEL_Async_SOCK_Stream::check_open() { return socket_.check_open(); }

// The timer ends quietly whatever `no_close` says: deliberate, see the header.
void VEL_Async_SOCK_Stream::close(bool no_close) { socket_.close(no_close, true); }

int VEL_Async_SOCK_Stream::handle_close(uint32_t key, void* handle, VEL_Proactor* proactor) {
    return socket_.handle_close(key, handle, proactor);
}

int VEL_Async_SOCK_Stream::close_handle() { return socket_.close_handle(); }

int VEL_Async_SOCK_Stream::attach(VEL_Proactor* proactor, uint64_t socket, const VEL_INET_Addr& remote) {
    uint32_t key = 0;
    return socket_.open(proactor, socket, this, remote, key);
}
