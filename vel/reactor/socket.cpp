// Socket object over the free socket functions.
#include <vel/reactor/socket.h>

#include <vel/frame/error.h>
#include <vel/frame/exception.h>
#include <vel/os/error_codes.h>
#include <vel/os/message_window.h>
#include <vel/platform/report.h>
#include <vel/reactor/reactor.h>

namespace {

int closed_socket() { return vel::report(vel::error::not_a_socket); }

int take_client(VEL_Socket& client, uint64_t accepted) {
    return accepted == VEL_INVALID_SOCKET ? -1 : client.attach(accepted);
}

} // namespace

VEL_Socket::VEL_Socket(int family, int type, int protocol) {
    if (open(family, type, protocol) < 0) VEL_Exception::ThrowException(VELLib::GetErrorCode());
}

VEL_Socket::~VEL_Socket() { close(); }

int VEL_Socket::open(int family, int type, int protocol) {
    attach(VELLib::socket(family, type, protocol));
    return is_open() ? 0 : -1;
}

int VEL_Socket::attach(uint64_t socket) {
    socket_ = socket; // and nothing else: only `close` forgets that a peer has closed, on purpose
    return 0;
}

void VEL_Socket::close() {
    if (is_open()) VELLib::closesocket(socket_);
    socket_ = VEL_INVALID_SOCKET;
    peer_closed_ = false;
}

int VEL_Socket::accept(VEL_Socket& client) {
    VEL_INET_Addr peer;
    return accept(client, peer);
}

int VEL_Socket::accept(VEL_Socket& client, VEL_INET_Addr& peer) {
    if (!is_open()) return closed_socket();
    return take_client(client, VELLib::accept(socket_, peer));
}

int VEL_Socket::accept(VEL_Socket& client, uint32_t timeout_ms) {
    VEL_INET_Addr peer;
    return accept(client, peer, timeout_ms);
}

int VEL_Socket::accept(VEL_Socket& client, VEL_INET_Addr& peer, uint32_t timeout_ms) {
    if (!is_open()) return closed_socket();
    return take_client(client, VELLib::accept(socket_, peer, timeout_ms));
}

int VEL_Socket::bind(const VEL_INET_Addr& address) {
    return is_open() ? VELLib::bind(socket_, address) : closed_socket();
}

int VEL_Socket::bind(uint16_t port, uint32_t host) { return bind(VEL_INET_Addr(port, host)); }

int VEL_Socket::bind(uint16_t port, const char* host) {
    if (!is_open()) return closed_socket();
    VEL_INET_Addr address;
    return address.set(port, host) < 0 ? -1 : bind(address);
}

int VEL_Socket::connect(const VEL_INET_Addr& address) {
    return is_open() ? VELLib::connect(socket_, address) : closed_socket();
}

int VEL_Socket::connect(const VEL_INET_Addr& address, uint32_t timeout_ms) {
    return is_open() ? VELLib::connect(socket_, address, timeout_ms) : closed_socket();
}

int VEL_Socket::connect(const char* host, uint16_t port) {
    if (!is_open()) return closed_socket();
    VEL_INET_Addr address;
    return address.set(port, host) < 0 ? -1 : connect(address);
}

int VEL_Socket::connect(const char* host, uint16_t port, uint32_t timeout_ms) {
    if (!is_open()) return closed_socket();
    VEL_INET_Addr address;
    return address.set(port, host) < 0 ? -1 : connect(address, timeout_ms);
}

int VEL_Socket::listen() { return is_open() ? VELLib::listen(socket_) : closed_socket(); }

int VEL_Socket::recv(void* buffer, uint64_t size) {
    if (!is_open()) return closed_socket();
    if (peer_closed_) return 0;
    const int received = VELLib::recv(socket_, buffer, size, nullptr);
    peer_closed_ = received == 0;
    return received;
}

int VEL_Socket::recv(void* buffer, uint64_t size, uint32_t timeout_ms) {
    if (!is_open()) return closed_socket();
    if (peer_closed_) return 0;
    return VELLib::recv(socket_, buffer, size, peer_closed_, timeout_ms);
}

int VEL_Socket::recvfrom(void* buffer, uint64_t size, VEL_INET_Addr& from) {
    return is_open() ? VELLib::recvfrom(socket_, buffer, size, from, nullptr) : closed_socket();
}

int VEL_Socket::recvfrom(void* buffer, uint64_t size, VEL_INET_Addr& from, uint32_t timeout_ms) {
    return is_open() ? VELLib::recvfrom(socket_, buffer, size, from, timeout_ms) : closed_socket();
}

int VEL_Socket::send(const void* data, uint64_t size) {
    return is_open() ? VELLib::send(socket_, data, size, nullptr) : closed_socket();
}

int VEL_Socket::send(const void* data, uint64_t size, uint32_t timeout_ms) {
    return is_open() ? VELLib::send(socket_, data, size, timeout_ms) : closed_socket();
}

int VEL_Socket::sendto(const void* data, uint64_t size, const VEL_INET_Addr& to) {
    return is_open() ? VELLib::sendto(socket_, data, size, to, nullptr) : closed_socket();
}

int VEL_Socket::sendto(const void* data, uint64_t size, const VEL_INET_Addr& to, uint32_t timeout_ms) {
    return is_open() ? VELLib::sendto(socket_, data, size, to, timeout_ms) : closed_socket();
}

int VEL_Socket::getlocaladdr(VEL_INET_Addr& address) const {
    if (!is_open()) return closed_socket();
    address.reset();
    return VELLib::getsockname(socket_, address);
}

int VEL_Socket::getpeeraddr(VEL_INET_Addr& address) const {
    if (!is_open()) return closed_socket();
    address.reset();
    return VELLib::getpeername(socket_, address);
}

int VEL_Socket::getrecvnum() const { return is_open() ? VELLib::getrecvnum(socket_) : closed_socket(); }

int VEL_Socket::get_option(int level, int name, void* value, int& length) const {
    return is_open() ? VELLib::getsockopt(socket_, level, name, value, length) : closed_socket();
}

int VEL_Socket::set_option(int level, int name, const void* value, int length) {
    return is_open() ? VELLib::setsockopt(socket_, level, name, value, length) : closed_socket();
}

int VEL_Socket::shutdown(int how) { return is_open() ? VELLib::shutdown(socket_, how) : closed_socket(); }

int VEL_Socket::enable_nonblock() { return is_open() ? VELLib::sock_enable_nonblock(socket_) : closed_socket(); }

int VEL_Socket::disable_nonblock() { return is_open() ? VELLib::sock_disable_nonblock(socket_) : closed_socket(); }

int VEL_Socket::register_event_select(VEL_Reactor* reactor, VEL_Event_Handler* handler, uint32_t mask) {
    if (!is_open()) return closed_socket();
    return reactor ? reactor->register_handler(reinterpret_cast<void*>(socket_), handler, mask)
                   : vel::report(vel::error::null_member);
}

int VEL_Socket::remove_event_select(VEL_Reactor* reactor, VEL_Event_Handler* handler, uint32_t mask) {
    if (!is_open()) return closed_socket();
    return reactor ? reactor->remove_handler(reinterpret_cast<void*>(socket_), handler, mask)
                   : vel::report(vel::error::null_member);
}

int VEL_Socket::window_async_select(HWND window, uint32_t message, int32_t events) {
    if (!is_open()) return closed_socket();
    return vel::report(vel::os::bind_window(socket_, window, message, static_cast<uint32_t>(events)));
}

int32_t VEL_Socket::enum_window_event(int64_t lparam, uint32_t& error) {
    error = static_cast<uint32_t>(lparam >> 16) & 0xFFFF;
    return static_cast<int32_t>(lparam & 0xFFFF);
}
