// Listening TCP socket on a proactor.
#include <vel/proactor/async_acceptor.h>

#include <vel/frame/fail.h>
#include <vel/platform/sockets.h>
#include <vel/proactor/async_sock_stream.h>

VEL_Async_Acceptor::~VEL_Async_Acceptor() { close(true); }

int VEL_Async_Acceptor::open(VEL_Proactor* proactor, uint16_t port, uint32_t addr) {
    return listen(proactor, VEL_INET_Addr(port, addr));
}

int VEL_Async_Acceptor::open(VEL_Proactor* proactor, uint16_t port, const char* addr) {
    VEL_INET_Addr local;
    const int result = local.set(port, addr);
    return result < 0 ? result : listen(proactor, local);
}

int VEL_Async_Acceptor::listen(VEL_Proactor* proactor, const VEL_INET_Addr& local) {
    const uint64_t socket = VELLib::socket(2, 1, 0);
    if (socket == VEL_INVALID_SOCKET) return -1;
    if (VELLib::bind(socket, local) < 0 || VELLib::listen(socket) < 0) {
        VELLib::closesocket(socket);
        return -1;
    }
    uint32_t key = 0;
    return socket_.open(proactor, socket, this, VEL_INET_Addr(), key);
}

int VEL_Async_Acceptor::accept() {
    return socket_.start<VEL_Async_SOCK_Accept>(
        this, [](VEL_Async_SOCK_Accept& op) { return op.accept(VEL_INVALID_HANDLE); });
}

int VEL_Async_Acceptor::accept(VEL_Async_SOCK_Accept* op) {
    return socket_.restart([&] { return op->accept(VEL_INVALID_HANDLE); });
}

int VEL_Async_Acceptor::accept_socket(VEL_Async_SOCK_Accept& op, VEL_Async_SOCK_Stream& stream) {
    VEL_INET_Addr remote;
    void* accepted = op.accept_handle(remote);
    if (accepted == VEL_INVALID_HANDLE) return vel::fail(vel::error::not_a_socket);
    return stream.attach(op.get_proactor(), reinterpret_cast<uint64_t>(accepted), remote);
}

int VEL_Async_Acceptor::set_timeout(uint32_t timeout_ms) { return socket_.set_timeout(this, timeout_ms); }

void VEL_Async_Acceptor::cancel_timeout() { socket_.cancel_timeout(); }

int VEL_Async_Acceptor::check_open() { return socket_.check_open(); }

void VEL_Async_Acceptor::close(bool no_close) { socket_.close(no_close, no_close); }

int VEL_Async_Acceptor::handle_close(uint32_t key, void* handle, VEL_Proactor* proactor) {
    return socket_.handle_close(key, handle, proactor);
}

int VEL_Async_Acceptor::close_handle() { return socket_.close_handle(); }
