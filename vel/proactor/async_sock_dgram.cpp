// UDP socket on a proactor.
#include <vel/proactor/async_sock_dgram.h>

#include <vel/platform/sockets.h>

VEL_Async_SOCK_Dgram::~VEL_Async_SOCK_Dgram() { close(true); }

int VEL_Async_SOCK_Dgram::open(VEL_Proactor* proactor, uint16_t port, uint32_t addr) {
    return bind(proactor, VEL_INET_Addr(port, addr));
}

int VEL_Async_SOCK_Dgram::open(VEL_Proactor* proactor, uint16_t port, const char* addr) {
    VEL_INET_Addr local;
    const int result = local.set(port, addr);
    return result < 0 ? result : bind(proactor, local);
}

int VEL_Async_SOCK_Dgram::bind(VEL_Proactor* proactor, const VEL_INET_Addr& local) {
    const uint64_t socket = VELLib::socket(2, 2, 0);
    if (socket == VEL_INVALID_SOCKET) return -1;
    if (VELLib::bind(socket, local) < 0) {
        VELLib::closesocket(socket);
        return -1;
    }
    uint32_t key = 0;
    return socket_.open(proactor, socket, this, VEL_INET_Addr(), key);
}

int VEL_Async_SOCK_Dgram::recv(VEL_Byte_Block& block, size_t length) {
    return socket_.start<VEL_Async_SOCK_Read_Dgram>(
        this, [&](VEL_Async_SOCK_Read_Dgram& op) { return op.read(block, length, 0); });
}

int VEL_Async_SOCK_Dgram::recv(VEL_Async_SOCK_Read_Dgram* op, size_t length) {
    return socket_.restart([&] {
        VEL_Byte_Block block = op->read_block();
        return op->read(block, length, 0);
    });
}

int VEL_Async_SOCK_Dgram::send(const VEL_Byte_Block& block, size_t length, const VEL_INET_Addr& to) {
    return socket_.start<VEL_Async_SOCK_Write_Dgram>(this, [&](VEL_Async_SOCK_Write_Dgram& op) {
        op.send_address(to);
        return op.write(block, length, 0);
    });
}

int VEL_Async_SOCK_Dgram::send(VEL_Async_SOCK_Write_Dgram* op, size_t length) {
    return socket_.restart([&] { return op->write(op->write_block(), length, 0); });
}

int VEL_Async_SOCK_Dgram::get_local_addr(VEL_INET_Addr& addr) { return socket_.local_addr(addr); }

int VEL_Async_SOCK_Dgram::set_timeout(uint32_t timeout_ms) { return socket_.set_timeout(this, timeout_ms); }

void VEL_Async_SOCK_Dgram::cancel_timeout() { socket_.cancel_timeout(); }

int VEL_Async_SOCK_Dgram::check_open() { return socket_.check_open(); }

void VEL_Async_SOCK_Dgram::close(bool no_close) { socket_.close(no_close, no_close); }

int VEL_Async_SOCK_Dgram::handle_close(uint32_t key, void* handle, VEL_Proactor* proactor) {
    return socket_.handle_close(key, handle, proactor);
}

int VEL_Async_SOCK_Dgram::close_handle() { return socket_.close_handle(); }
