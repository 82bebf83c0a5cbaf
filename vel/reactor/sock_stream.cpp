// TCP connection on a reactor.
#include <vel/reactor/sock_stream.h>

#include <vel/os/error_codes.h>
#include <vel/platform/report.h>
#include <vel/reactor/buffer_sizes.h>
#include <vel/reactor/reactor.h>

VEL_SOCK_Stream::~VEL_SOCK_Stream() { close(true); }

int VEL_SOCK_Stream::open(VEL_Reactor* reactor, const VEL_INET_Addr& remote, uint32_t timeout_ms, int receive_buffer,
                          int send_buffer) {
    VEL_Guard guard(lock_);
    if (link_.socket.is_open()) return vel::report(vel::error::already_connected);
    return start(reactor, remote, timeout_ms, receive_buffer, send_buffer) < 0 ? give_up() : 0;
}

int VEL_SOCK_Stream::open(VEL_Reactor* reactor, const char* host, uint16_t port, uint32_t timeout_ms,
                          int receive_buffer, int send_buffer) {
    VEL_INET_Addr remote;
    const int result = remote.set(port, host);
    return result < 0 ? result : open(reactor, remote, timeout_ms, receive_buffer, send_buffer);
}

// What the last connection did not write is dropped here: its end leaves it to be looked at.
int VEL_SOCK_Stream::start(VEL_Reactor* reactor, const VEL_INET_Addr& remote, uint32_t timeout_ms, int receive_buffer,
                           int send_buffer) {
    VEL_Socket& socket = link_.socket;
    transfer_.open();
    if (socket.open(2, 1, 0) < 0 || socket.enable_nonblock() < 0) return -1;
    if (vel::set_buffer_sizes(socket, receive_buffer, send_buffer) < 0) return -1;
    link_.reactor = reactor;
    if (select_event(VEL_CONNECT_EVENT | VEL_INPUT_EVENT | VEL_OUTPUT_EVENT) < 0) return -1;
    if (timeout_ms != VEL_INFINITE && set_timeout(timeout_ms) < 0) return -1;
    if (socket.connect(remote) < 0 && VELLib::GetErrorCode() != vel::error::would_block) return -1;
    remote_ = remote;
    return 0;
}

/// Closes without losing the code of what went wrong.
int VEL_SOCK_Stream::give_up() {
    const uint32_t code = VELLib::GetErrorCode();
    close(true);
    return vel::report(code);
}

int VEL_SOCK_Stream::accept_from(VEL_Socket& listener) {
    VEL_Guard guard(lock_);
    if (link_.socket.is_open()) return vel::report(vel::error::already_connected);
    if (listener.accept(link_.socket, remote_) < 0) return -1;
    if (link_.socket.enable_nonblock() < 0) return give_up();
    transfer_.open();
    return 0;
}

int VEL_SOCK_Stream::send(const VEL_Byte_Block& block) {
    VEL_Guard guard(lock_);
    return check_locked() < 0 ? -1 : transfer_.send(link_.socket, block);
}

int VEL_SOCK_Stream::recv(void* buffer, uint64_t size) {
    VEL_Guard guard(lock_);
    return link_.socket.recv(buffer, size);
}

bool VEL_SOCK_Stream::is_send_all_completed() {
    VEL_Guard guard(lock_);
    return transfer_.is_idle();
}

int VEL_SOCK_Stream::handle_input(void*, VEL_Reactor*, uint32_t error) {
    VEL_Guard guard(lock_);
    return transfer_.handle_input(*this, guard, link_.socket, error);
}

int VEL_SOCK_Stream::handle_output(void*, VEL_Reactor*, uint32_t error) {
    VEL_Guard guard(lock_);
    return transfer_.handle_output(*this, guard, link_.socket, error);
}

int VEL_SOCK_Stream::handle_read_stream(const void*, uint64_t, uint32_t) { return 0; }

int VEL_SOCK_Stream::handle_write_stream(const void*, uint64_t, uint32_t) { return 0; }

int VEL_SOCK_Stream::handle_close(void* handle, uint32_t mask, VEL_Reactor* reactor) {
    VEL_Guard guard(lock_);
    if (reactor == nullptr || reactor != link_.reactor) return 0;
    link_.ended(this, handle, mask);
    remote_.reset();
    return 0;
}

void VEL_SOCK_Stream::close(bool no_close) {
    VEL_Guard guard(lock_);
    link_.close(this, no_close);
    transfer_.close();
    remote_.reset();
}

int VEL_SOCK_Stream::check_open() {
    VEL_Guard guard(lock_);
    return check_locked();
}

int VEL_SOCK_Stream::check_locked() const {
    if (link_.check_open() < 0) return -1;
    return transfer_.is_open() ? 0 : vel::report(vel::error::null_member);
}

int VEL_SOCK_Stream::resume_read() {
    VEL_Guard guard(lock_);
    return link_.suspend_id != 0 ? link_.resume_read(this) : check_locked();
}

int VEL_SOCK_Stream::shutdown(int how) {
    VEL_Guard guard(lock_);
    return link_.socket.shutdown(how);
}

VEL_INET_Addr VEL_SOCK_Stream::get_remote_addr() {
    VEL_Guard guard(lock_);
    return remote_;
}
