// The state that the asynchronous stream, acceptor and datagram socket have in common.
#include <vel/proactor/async_socket.h>

#include <vel/frame/fail.h>
#include <vel/platform/sockets.h>
#include <vel/proactor/proactor.h>

namespace vel {

/// Tells why a closed object can do nothing.
int AsyncSocket::refuse() const {
    return fail(socket_ == VEL_INVALID_SOCKET ? error::not_a_socket : error::null_member);
}

int AsyncSocket::out_of_memory() { return fail(error::not_enough_memory); }

int AsyncSocket::open(VEL_Proactor* proactor, uint64_t socket, VEL_Async_Handler* owner, const VEL_INET_Addr& remote,
                      uint32_t& key) {
    VEL_Guard guard(lock_);
    if (proactor == nullptr || socket_ != VEL_INVALID_SOCKET) {
        VELLib::closesocket(socket);
        return fail(proactor == nullptr ? error::null_member : error::already_connected);
    }
    key = proactor->generate_completion_key();
    socket_ = socket;
    key_ = key;
    remote_ = remote;
    proactor_ = proactor;
    guard.unlock();
    if (proactor->register_handle(key, reinterpret_cast<void*>(socket), owner) == 0) return 0;
    // The registration is left alone: where the key was taken, it is somebody else's.
    const uint32_t code = VELLib::GetErrorCode();
    give_up(proactor, key, true);
    return fail(code);
}

void AsyncSocket::abandon(VEL_Proactor* proactor, uint32_t key) {
    const uint32_t code = VELLib::GetErrorCode();
    proactor->remove_handle(key, true);
    give_up(proactor, key, true);
    VELLib::SetErrorCode(code);
}

VEL_INET_Addr AsyncSocket::remote_addr() {
    VEL_Guard guard(lock_);
    return remote_;
}

int AsyncSocket::local_addr(VEL_INET_Addr& address) {
    VEL_Guard guard(lock_);
    if (check_open() < 0) return -1;
    address.reset();
    return VELLib::getsockname(socket_, address);
}

int AsyncSocket::set_timeout(VEL_Async_Handler* owner, uint32_t timeout_ms) {
    VEL_Guard guard(lock_);
    if (check_open() < 0) return -1;
    const uint32_t key = key_;
    VEL_Proactor* proactor = proactor_;
    guard.unlock();
    if (proactor->set_timer(owner, timeout_ms, timer_id_) < 0) return -1;
    guard.lock();
    if (is(proactor, key)) return 0;
    guard.unlock();
    // Closed meanwhile. If that came before the timer was there to be cancelled, there is nothing to time; else the timer
    // was set and has ended, perhaps by running out and closing the socket itself.
    const int32_t timer = timer_id_.exchange(0);
    if (timer == 0) return 0;
    proactor->cancel_timer(timer, true);
    return fail(error::not_a_socket);
}

void AsyncSocket::cancel_timeout() {
    VEL_Guard guard(lock_);
    VEL_Proactor* proactor = proactor_;
    const int32_t timer = timer_id_.exchange(0);
    guard.unlock();
    if (proactor != nullptr && timer != 0) proactor->cancel_timer(timer, true);
}

int AsyncSocket::handle_close(uint32_t key, void* handle, VEL_Proactor* proactor) {
    VEL_Guard guard(lock_);
    if (proactor_ != proactor) return 0;
    const uint32_t own_key = key_;
    const uint64_t socket = socket_;
    const bool registration_ended = key != 0 && key == own_key;
    const bool timer_ended = key == 0 && handle != nullptr && reinterpret_cast<intptr_t>(handle) == timer_id_;
    if (!registration_ended && !timer_ended) return 0;
    const int32_t timer = clear();
    guard.unlock();
    if (registration_ended && timer != 0) proactor->cancel_timer(timer, true);
    if (timer_ended && own_key != 0) proactor->remove_handle(own_key, true);
    if (socket != VEL_INVALID_SOCKET) VELLib::closesocket(socket);
    return 0;
}

int AsyncSocket::close_handle() {
    VEL_Guard guard(lock_);
    if (socket_ == VEL_INVALID_SOCKET) return fail(error::not_a_socket);
    close_socket();
    return 0;
}

void AsyncSocket::close(bool no_close, bool no_timer_close) {
    VEL_Guard guard(lock_);
    const uint32_t key = key_;
    VEL_Proactor* proactor = proactor_;
    const int32_t timer = timer_id_.exchange(0);
    guard.unlock();
    if (proactor != nullptr && key != 0) proactor->remove_handle(key, no_close);
    if (proactor != nullptr && timer != 0) proactor->cancel_timer(timer, no_timer_close);
    give_up(proactor, key, no_timer_close);
}

/// Closes the socket and forgets everything if it is open under that key still; a timer set meanwhile ends, too.
void AsyncSocket::give_up(VEL_Proactor* proactor, uint32_t key, bool no_timer_close) {
    VEL_Guard guard(lock_);
    if (!is(proactor, key)) return;
    if (socket_ != VEL_INVALID_SOCKET) close_socket();
    const int32_t timer = clear();
    guard.unlock();
    if (proactor != nullptr && timer != 0) proactor->cancel_timer(timer, no_timer_close);
}

void AsyncSocket::close_socket() { VELLib::closesocket(socket_.exchange(VEL_INVALID_SOCKET)); }

/// Returns the timer that nobody but the caller knows any more, to be cancelled without the lock.
int32_t AsyncSocket::clear() {
    socket_ = VEL_INVALID_SOCKET;
    key_ = 0;
    remote_.reset();
    proactor_ = nullptr;
    return timer_id_.exchange(0);
}

} // namespace vel
