// Calls that the sockets of a reactor share: the lock, then the link.
#include <vel/reactor/reactor_socket.h>

#include <vel/sync/guard.h>

namespace vel {

ReactorSocket::ReactorSocket() = default;
ReactorSocket::~ReactorSocket() = default;

uint64_t ReactorSocket::get_handle() const {
    VEL_Guard guard(lock_);
    return link_.socket.get_socket();
}

VEL_Reactor* ReactorSocket::reactor() const {
    VEL_Guard guard(lock_);
    return link_.reactor;
}

void ReactorSocket::reactor(VEL_Reactor* reactor) {
    VEL_Guard guard(lock_);
    link_.reactor = reactor;
}

int ReactorSocket::select_event(uint32_t mask) {
    VEL_Guard guard(lock_);
    return link_.select_event(this, mask);
}

void ReactorSocket::clear_event(uint32_t mask) {
    VEL_Guard guard(lock_);
    link_.clear_event(this, mask);
}

void ReactorSocket::clear_event() {
    VEL_Guard guard(lock_);
    link_.clear_event(this, link_.events);
}

int ReactorSocket::set_timeout(uint32_t timeout_ms) {
    VEL_Guard guard(lock_);
    return link_.set_timeout(this, timeout_ms);
}

void ReactorSocket::cancel_timeout() {
    VEL_Guard guard(lock_);
    link_.cancel_timeout();
}

// The lock makes a timer that fires at once wait here until its id is known.
int32_t ReactorSocket::get_timer_id() const {
    VEL_Guard guard(lock_);
    return link_.timer_id;
}

int ReactorSocket::suspend_read(uint32_t timeout_ms) {
    VEL_Guard guard(lock_);
    return link_.suspend_read(this, timeout_ms);
}

int32_t ReactorSocket::get_suspend_id() const {
    VEL_Guard guard(lock_);
    return link_.suspend_id;
}

int ReactorSocket::get_local_addr(VEL_INET_Addr& address) {
    VEL_Guard guard(lock_);
    return link_.socket.getlocaladdr(address);
}

} // namespace vel
