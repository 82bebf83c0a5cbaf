// The reactor's acceptor takes a connection for a proactor.
#include <vel/platform/sockets.h>
#include <vel/proactor/async_sock_stream.h>
#include <vel/reactor/acceptor.h>
#include <vel/sync/guard.h>

int VEL_Acceptor::accept(VEL_Proactor* proactor, VEL_Async_SOCK_Stream& stream) {
    VEL_Guard guard(lock_);
    if (check_open() < 0) return -1;
    VEL_INET_Addr peer;
    const uint64_t accepted = VELLib::accept(link_.socket.get_socket(), peer);
    guard.unlock();
    return accepted == VEL_INVALID_SOCKET ? -1 : stream.attach(proactor, accepted, peer);
}
