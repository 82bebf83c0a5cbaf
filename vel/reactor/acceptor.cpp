// Listening TCP socket on a reactor.
#include <vel/reactor/acceptor.h>

#include <vel/os/error_codes.h>
#include <vel/platform/report.h>
#include <vel/reactor/buffer_sizes.h>
#include <vel/reactor/reactor.h>
#include <vel/reactor/sock_stream.h>
#include <vel/sync/guard.h>

VEL_Acceptor::~VEL_Acceptor() { close(true); }

int VEL_Acceptor::open(VEL_Reactor* reactor, uint16_t port, uint32_t host, int receive_buffer, int send_buffer) {
    return open(reactor, VEL_INET_Addr(port, host), receive_buffer, send_buffer);
}

int VEL_Acceptor::open(VEL_Reactor* reactor, uint16_t port, const char* host, int receive_buffer, int send_buffer) {
    VEL_INET_Addr local;
    const int result = local.set(port, host);
    return result < 0 ? result : open(reactor, local, receive_buffer, send_buffer);
}

int VEL_Acceptor::open(VEL_Reactor* reactor, const VEL_INET_Addr& local, int receive_buffer, int send_buffer) {
    VEL_Guard guard(lock_);
    if (link_.socket.is_open()) return vel::report(vel::error::already_connected);
    if (start(reactor, local, receive_buffer, send_buffer) == 0) return 0;
    const uint32_t code = VELLib::GetErrorCode();
    close(true);
    return vel::report(code);
}

int VEL_Acceptor::start(VEL_Reactor* reactor, const VEL_INET_Addr& local, int receive_buffer, int send_buffer) {
    VEL_Socket& socket = link_.socket;
    if (socket.open(2, 1, 0) < 0 || socket.bind(local) < 0) return -1;
    if (vel::set_buffer_sizes(socket, receive_buffer, send_buffer) < 0) return -1;
    if (socket.listen() < 0 || socket.enable_nonblock() < 0) return -1;
    link_.reactor = reactor;
    return select_event(VEL_ACCEPT_EVENT);
}

int VEL_Acceptor::accept(VEL_SOCK_Stream& stream) {
    VEL_Guard guard(lock_);
    return check_open() < 0 ? -1 : stream.accept_from(link_.socket);
}

int VEL_Acceptor::handle_close(void* handle, uint32_t mask, VEL_Reactor* reactor) {
    VEL_Guard guard(lock_);
    if (reactor != nullptr && reactor == link_.reactor) link_.ended(this, handle, mask);
    return 0;
}

void VEL_Acceptor::close(bool no_close) {
    VEL_Guard guard(lock_);
    link_.close(this, no_close);
}

int VEL_Acceptor::check_open() {
    VEL_Guard guard(lock_);
    return link_.check_open();
}
