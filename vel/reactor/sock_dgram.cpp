// UDP socket on a reactor.
#include <vel/reactor/sock_dgram.h>

#include <algorithm>
#include <vel/frame/error.h>
#include <vel/os/error_codes.h>
#include <vel/platform/report.h>
#include <vel/reactor/reactor.h>
#include <vel/sync/guard.h>

namespace {

constexpr uint64_t read_size = 32768;
constexpr uint64_t refused_size = 65536; // more than any datagram holds

} // namespace

VEL_SOCK_Dgram::VEL_Dgram_Token::VEL_Dgram_Token(const VEL_Byte_Block& packet, VEL_INET_Addr remote)
    : remote_(remote),
      packet_(packet) {}

VEL_SOCK_Dgram::VEL_Dgram_Token::~VEL_Dgram_Token() = default;

void VEL_SOCK_Dgram::VEL_Dgram_Token::reset() {
    packet_.reset();
    remote_.reset();
}

VEL_SOCK_Dgram::~VEL_SOCK_Dgram() { close(true); }

int VEL_SOCK_Dgram::open(VEL_Reactor* reactor, uint16_t port, uint32_t host) {
    return bind(reactor, VEL_INET_Addr(port, host));
}

int VEL_SOCK_Dgram::open(VEL_Reactor* reactor, uint16_t port, const char* host) {
    VEL_INET_Addr local;
    return local.set(port, host) < 0 ? -1 : bind(reactor, local);
}

int VEL_SOCK_Dgram::bind(VEL_Reactor* reactor, const VEL_INET_Addr& local) {
    VEL_Guard guard(lock_);
    if (link_.socket.is_open()) return vel::report(vel::error::already_connected);
    queue_.clear();
    pending_.reset();
    if (prepare(local) < 0) {
        link_.socket.close();
        return -1;
    }
    link_.reactor = reactor;
    const int result = link_.select_event(this, VEL_INPUT_EVENT | VEL_OUTPUT_EVENT);
    if (result < 0) close(true);
    return result;
}

int VEL_SOCK_Dgram::prepare(const VEL_INET_Addr& local) {
    VEL_Socket& socket = link_.socket;
    if (socket.open(2, 2, 0) < 0 || socket.bind(local) < 0 || socket.enable_nonblock() < 0) return -1;
    constexpr int level = 0xFFFF, broadcast = 0x20, send_buffer = 0x1001, receive_buffer = 0x1002;
    const int on = 1, bytes = read_size;
    if (socket.set_option(level, broadcast, &on, sizeof on) < 0) return -1;
    if (socket.set_option(level, receive_buffer, &bytes, sizeof bytes) < 0) return -1;
    return socket.set_option(level, send_buffer, &bytes, sizeof bytes);
}

/// Makes the oldest datagram the pending one; false when there is none.
bool VEL_SOCK_Dgram::next() {
    if (!pending_ && !queue_.is_empty()) queue_.dequeue(pending_.emplace());
    return pending_.has_value();
}

/// Returns the code that stopped it. The pending datagram stays in any case.
uint32_t VEL_SOCK_Dgram::send_pending(uint64_t& sent) {
    const VEL_Byte_Block& packet = pending_->packet();
    // A socket call looks at the low 32 bits of a size: what is too long must not become short by that.
    const uint64_t size = std::min(packet.size(), refused_size);
    const int result = link_.socket.sendto(packet.c_ptr(0), size, pending_->remote());
    if (result < 0) return VELLib::GetErrorCode();
    sent = static_cast<uint64_t>(result);
    return vel::error::none;
}

int VEL_SOCK_Dgram::sendto(const VEL_Byte_Block& packet, const VEL_INET_Addr& to) {
    VEL_Guard guard(lock_);
    if (check_open() < 0) return -1;
    if (!next())
        pending_.emplace(packet, to);
    else if (queue_.enqueue(VEL_Dgram_Token(packet, to)) < 0)
        return -1;
    uint64_t result = 0;
    while (next()) {
        uint64_t sent = 0;
        const uint32_t code = send_pending(sent);
        // The caller's is the last one. What fails before it is left to the output notice, which can report it.
        if (code == vel::error::would_block || (code != 0 && !queue_.is_empty())) return 0;
        if (pending_->packet() == packet) result += sent;
        pending_.reset();
        if (code != 0) return -1;
    }
    return static_cast<int>(result);
}

int VEL_SOCK_Dgram::recvfrom(void* buffer, uint64_t size, VEL_INET_Addr& from) {
    VEL_Guard guard(lock_);
    return check_open() < 0 ? -1 : link_.socket.recvfrom(buffer, size, from);
}

int VEL_SOCK_Dgram::handle_input(void*, VEL_Reactor*, uint32_t error) {
    VEL_Guard guard(lock_);
    if (check_open() < 0) return -1;
    uint8_t buffer[read_size]; // filled by the socket alone
    VEL_INET_Addr from;
    const int received = error == 0 ? link_.socket.recvfrom(buffer, read_size, from) : 0;
    const uint32_t code = received < 0 ? VELLib::GetErrorCode() : error;
    if (code == vel::error::would_block) return 0;
    guard.unlock();
    const int result = handle_read_dgram(buffer, static_cast<uint64_t>(std::max(received, 0)), from, code);
    return error != 0 ? -1 : result;
}

// A datagram that the system refuses is reported, dropped, and the next one goes out: kept, it would stand before all
// the others for ever, since nothing but a send that had to wait brings another output notice.
int VEL_SOCK_Dgram::handle_output(void*, VEL_Reactor*, uint32_t error) {
    VEL_Guard guard(lock_);
    for (;;) {
        if (check_open() < 0) return -1;
        if (!next() && error == 0) return 0;
        VEL_Dgram_Token token = pending_.value_or(VEL_Dgram_Token()); // keeps the data while nothing is locked
        uint64_t sent = 0;
        const uint32_t code = error == 0 ? send_pending(sent) : error;
        if (code == vel::error::would_block) return 0;
        pending_.reset();
        guard.unlock();
        const int result = handle_write_dgram(token.packet(), sent, token.remote(), code);
        if (error != 0) return -1;
        if (result < 0) return result;
        guard.lock();
    }
}

int VEL_SOCK_Dgram::handle_close(void* handle, uint32_t mask, VEL_Reactor* reactor) {
    VEL_Guard guard(lock_);
    if (reactor == link_.reactor) link_.ended(this, handle, mask);
    return 0;
}

int VEL_SOCK_Dgram::handle_read_dgram(const void*, uint64_t, const VEL_INET_Addr&, uint32_t) { return 0; }

int VEL_SOCK_Dgram::handle_write_dgram(const void*, uint64_t, const VEL_INET_Addr&, uint32_t) { return 0; }

int VEL_SOCK_Dgram::resume_read() {
    VEL_Guard guard(lock_);
    return link_.resume_read(this);
}

void VEL_SOCK_Dgram::close(bool no_close) {
    VEL_Guard guard(lock_);
    link_.close(this, no_close);
    pending_.reset();
    queue_.clear();
}

int VEL_SOCK_Dgram::check_open() {
    VEL_Guard guard(lock_);
    return link_.check_open();
}
