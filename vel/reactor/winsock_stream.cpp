// TCP connection whose notices arrive as messages of a window.
#include <vel/reactor/winsock_stream.h>

#include <vel/os/error_codes.h>
#include <vel/os/wait_set.h>
#include <vel/platform/report.h>

namespace {

constexpr int32_t wanted_notices =
    vel::os::notice::read | vel::os::notice::write | vel::os::notice::connect | vel::os::notice::close;

} // namespace

VEL_WinSock_Stream::~VEL_WinSock_Stream() { close(); }

int VEL_WinSock_Stream::open(HWND window, uint32_t message, const VEL_INET_Addr& remote) {
    VEL_Guard guard(lock_);
    if (socket_.is_open()) return vel::report(vel::error::already_connected);
    if (start(window, message, remote) == 0) return 0;
    const uint32_t code = VELLib::GetErrorCode();
    close();
    return vel::report(code);
}

int VEL_WinSock_Stream::open(HWND window, uint32_t message, const char* host, uint16_t port) {
    VEL_INET_Addr remote;
    const int result = remote.set(port, host);
    return result < 0 ? result : open(window, message, remote);
}

int VEL_WinSock_Stream::start(HWND window, uint32_t message, const VEL_INET_Addr& remote) {
    transfer_.open();
    if (socket_.open(2, 1, 0) < 0 || socket_.enable_nonblock() < 0) return -1;
    if (socket_.window_async_select(window, message, wanted_notices) < 0) return -1;
    if (socket_.connect(remote) < 0 && VELLib::GetErrorCode() != vel::error::would_block) return -1;
    remote_ = remote;
    return 0;
}

int VEL_WinSock_Stream::dispatch_event(int32_t notice) {
    namespace notices = vel::os::notice;
    if (check_open() < 0) return -1;
    uint32_t error = 0;
    switch (VEL_Socket::enum_window_event(notice, error)) {
    case notices::read: return handle_input(error);
    case notices::write: return handle_output(error);
    case notices::connect: return handle_connect(error);
    case notices::close: return handle_close(error);
    default: return 0;
    }
}

int VEL_WinSock_Stream::handle_input(uint32_t error) {
    VEL_Guard guard(lock_);
    return transfer_.handle_input(*this, guard, socket_, error);
}

int VEL_WinSock_Stream::handle_output(uint32_t error) {
    VEL_Guard guard(lock_);
    return transfer_.handle_output(*this, guard, socket_, error);
}

int VEL_WinSock_Stream::handle_connect(uint32_t error) { return error != 0 ? -1 : check_open(); }

int VEL_WinSock_Stream::handle_close(uint32_t) { return -1; }

int VEL_WinSock_Stream::handle_read_stream(const void*, uint64_t, uint32_t) { return 0; }

int VEL_WinSock_Stream::handle_write_stream(const void*, uint64_t, uint32_t) { return 0; }

int VEL_WinSock_Stream::send(const VEL_Byte_Block& block) {
    VEL_Guard guard(lock_);
    return check_locked() < 0 ? -1 : transfer_.send(socket_, block);
}

int VEL_WinSock_Stream::recv(void* buffer, uint64_t size) {
    VEL_Guard guard(lock_);
    return socket_.recv(buffer, size);
}

int VEL_WinSock_Stream::shutdown(int how) {
    VEL_Guard guard(lock_);
    return socket_.shutdown(how);
}

void VEL_WinSock_Stream::close() {
    VEL_Guard guard(lock_);
    socket_.close();
    transfer_.close();
    remote_.reset();
}

int VEL_WinSock_Stream::check_open() {
    VEL_Guard guard(lock_);
    return check_locked();
}

int VEL_WinSock_Stream::check_locked() const {
    if (!socket_.is_open()) return vel::report(vel::error::not_a_socket);
    return transfer_.is_open() ? 0 : vel::report(vel::error::null_member);
}

bool VEL_WinSock_Stream::is_open() const {
    VEL_Guard guard(lock_);
    return socket_.is_open();
}

uint64_t VEL_WinSock_Stream::get_handle() const {
    VEL_Guard guard(lock_);
    return socket_.get_socket();
}

int VEL_WinSock_Stream::get_local_addr(VEL_INET_Addr& address) {
    VEL_Guard guard(lock_);
    return socket_.getlocaladdr(address);
}

VEL_INET_Addr VEL_WinSock_Stream::get_remote_addr() {
    VEL_Guard guard(lock_);
    return remote_;
}
