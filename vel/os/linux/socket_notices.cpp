// What edges, looks and calls make of the notices of a socket.
#include <vel/os/linux/socket_notices.h>

#include <cerrno>
#include <mutex>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <vel/os/error_codes.h>
#include <vel/os/linux/error.h>
#include <vel/os/linux/handle_table.h>
#include <vel/os/linux/notice_sink.h>

namespace vel::os {
namespace {

using Guard = std::lock_guard<ShortLock>;

constexpr uint32_t once_only = notice::connect | notice::close;

static_assert(POLLIN == EPOLLIN && POLLPRI == EPOLLPRI && POLLOUT == EPOLLOUT && POLLERR == EPOLLERR &&
              POLLHUP == EPOLLHUP && POLLRDHUP == EPOLLRDHUP);

} // namespace

/// A change under the socket's lock, of which the sink is told at the end.
class SocketNotices::Change {
public:
    explicit Change(SocketNotices& socket) : socket_(socket), guard_(socket.lock_) {
        socket_.fresh_ = socket_.withdrawn_ = false;
    }

    ~Change() {
        NoticeSink* sink = socket_.sink_.load(std::memory_order_relaxed);
        if (!sink) return;
        if (socket_.fresh_)
            sink->recorded(socket_, socket_.key_);
        else if (socket_.withdrawn_ && !socket_.has_recorded())
            sink->retracted(socket_.key_);
    }
    Change(const Change&) = delete;
    Change& operator=(const Change&) = delete;

private:
    SocketNotices& socket_;
    const Guard guard_;
};

Notices SocketNotices::take(uint32_t notices) {
    Notices taken;
    taken.mask = recorded_.fetch_and(~notices, std::memory_order_acq_rel) & notices;
    if (taken.mask & notice::connect) taken.connect_error = connect_error_.load(std::memory_order_relaxed);
    if (taken.mask & notice::close) taken.close_error = close_error_.load(std::memory_order_relaxed);
    return taken;
}

uint32_t SocketNotices::bind(NoticeSink& sink, uint64_t key, uint32_t wanted) {
    if (sink_.load(std::memory_order_relaxed) != &sink || key_ != key) {
        unbind();
        const Guard guard(lock_);
        if (closed_) return error::not_a_socket;
        if (const uint32_t code = sink.enter(owner_)) return code;
        key_ = key;
        sink_.store(&sink, std::memory_order_relaxed);
    }
    const Change change(*this); // a close that comes from here on ends the binding
    const uint32_t kept = wanted & once_only;
    reported_ &= ~(recorded_.fetch_and(kept) & ~kept); // what nobody has taken was not delivered
    withdrawn_ = true;
    wanted_ = wanted;
    armed_ = wanted & ~reported_;
    note_use();
    identify();
    apply(look());
    return error::none;
}

void SocketNotices::unbind() {
    const Guard guard(lock_);
    NoticeSink* sink = sink_.load(std::memory_order_relaxed);
    if (!sink) return;
    sink->leave(owner_, key_);
    sink_.store(nullptr, std::memory_order_relaxed);
    reported_ &= ~recorded_.exchange(0, std::memory_order_relaxed);
    wanted_ = armed_ = 0;
}

void SocketNotices::close() {
    {
        const Guard guard(lock_);
        closed_ = true;
        if (!bound()) return;
    }
    const std::lock_guard bindings(NoticeSink::bindings_lock());
    unbind();
}

bool SocketNotices::renew(uint32_t& code) {
    {
        const Change change(*this);
        phase_ = Phase::connected;
        if (!bound()) return false; // most are not, and need not wait for the bindings of others
    }
    const std::lock_guard bindings(NoticeSink::bindings_lock());
    {
        const Change change(*this);
        NoticeSink* sink = sink_.load(std::memory_order_relaxed);
        if (!sink) return false;
        code = sink->enter(owner_); // the system has dropped the former connection's
        if (!code) {
            withdraw(notice::all);
            note_use();
            apply(look());
            return true;
        }
    }
    unbind();
    return false;
}

bool SocketNotices::on_edge(const NoticeSink& sink, uint32_t events, uint64_t fetch, uint64_t& key) {
    const Guard guard(lock_);
    if (sink_.load(std::memory_order_relaxed) != &sink) return false;
    edges_.store(edges_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    apply(used_at_ < fetch ? events : look());
    key = key_;
    return has_recorded();
}

// A stream that gave less than it was asked for is empty; the next byte makes an edge. One edge can stand for several
// datagrams or connections, and a full buffer says nothing.
void SocketNotices::settle(Mark mark, uint32_t notice, uint32_t code, bool emptied) {
    const Change change(*this);
    note_use();
    const bool connected = phase_ == Phase::connected;
    if (connected && (code == error::connection_reset || code == error::connection_aborted)) close_error_ = code;
    withdraw(notice);
    const bool empty = code == error::would_block || (connected && !code && emptied && !urgent_);
    const bool same = edges_.load(std::memory_order_relaxed) == mark.edges;
    if (same && connected && !code && !emptied && !hung_up_) {
        if (has_unread()) record(notice::read); // cheaper than a look, and nothing else has changed
        return;
    }
    if (!empty || !same) return apply(look());
    if (hung_up_) record(notice::close);
}

void SocketNotices::send_failed(uint32_t code) {
    const Change change(*this);
    if (code == error::connection_reset || code == error::connection_aborted) close_error_ = code;
    if (phase_ == Phase::connecting && code != error::would_block) return connect_failed(code); // the send has taken it
    if (code != error::would_block) return;
    note_use();
    withdraw(notice::write);
    apply(look()); // the edge may have come since the send
}

void SocketNotices::start_listening() {
    const Change change(*this);
    phase_ = Phase::listening;
    note_use();
    apply(look());
}

// Before the call, so that no edge of the connection comes too early to be understood.
bool SocketNotices::connect_begins() {
    const Guard guard(lock_);
    if (phase_ != Phase::idle) return false;
    phase_ = Phase::connecting;
    connect_over_ = hung_up_ = urgent_ = false;
    close_error_ = error::none;
    reported_ = 0;
    armed_ |= wanted_ & (once_only | notice::read);
    return true;
}

void SocketNotices::connect_ends(uint32_t code, bool fresh) {
    constexpr uint32_t already_under_way = 10037;
    const Change change(*this);
    if (phase_ != Phase::connecting) return;
    note_use();
    if (code == error::would_block || code == already_under_way || code == error::socket_timed_out) return;
    if (code && fresh)
        phase_ = Phase::idle; // the caller has its result
    else
        finish_connect(code);
}

void SocketNotices::error_taken(uint32_t code) {
    if (code == error::none) return;
    const Change change(*this);
    if (phase_ == Phase::connecting && bound())
        finish_connect(code);
    else if (phase_ == Phase::connecting)
        phase_ = Phase::idle;
    else if (phase_ == Phase::connected)
        close_error_ = code;
}

uint32_t SocketNotices::look() const {
    pollfd entry{owner_.descriptor(), POLLIN | POLLPRI | POLLOUT | POLLRDHUP, 0};
    return ::poll(&entry, 1, 0) > 0 ? static_cast<uint16_t>(entry.revents) : 0;
}

bool SocketNotices::has_peer() const {
    sockaddr_storage peer;
    socklen_t length = sizeof peer;
    return ::getpeername(owner_.descriptor(), reinterpret_cast<sockaddr*>(&peer), &length) == 0;
}

// The number ends where an urgent byte was, and is 0 there whatever stands behind it.
bool SocketNotices::has_unread() const {
    int unread = 0;
    if (::ioctl(owner_.descriptor(), FIONREAD, &unread) == 0 && unread > 0) return true;
    char byte;
    return urgent_ && ::recv(owner_.descriptor(), &byte, 1, MSG_PEEK | MSG_DONTWAIT) > 0;
}

uint32_t SocketNotices::take_error() const {
    int pending = 0;
    socklen_t length = sizeof pending;
    if (::getsockopt(owner_.descriptor(), SOL_SOCKET, SO_ERROR, &pending, &length) < 0) pending = errno;
    return pending ? socket_error(pending) : error::none;
}

// A socket may have come to what it is before it was bound.
void SocketNotices::identify() {
    if (phase_ == Phase::connected && connect_over_) record(notice::connect);
    if (phase_ != Phase::idle) return;
    int accepts = 0;
    socklen_t length = sizeof accepts;
    if (::getsockopt(owner_.descriptor(), SOL_SOCKET, SO_ACCEPTCONN, &accepts, &length) == 0 && accepts)
        phase_ = Phase::listening;
    else if (has_peer() || (!connect_over_ && (look() & EPOLLRDHUP)))
        phase_ = Phase::connected; // perhaps no more
    else if (connect_over_)
        record(notice::connect); // failed
}

void SocketNotices::apply(uint32_t events) {
    switch (phase_) {
    case Phase::idle: return; // the system calls a socket that never was connected writable and hung up
    case Phase::connecting:
        if (events & (EPOLLOUT | EPOLLHUP | EPOLLERR)) try_finish_connect();
        return;
    case Phase::connected: return apply_connected(events);
    case Phase::listening:
        if (events & EPOLLIN) record(notice::accept);
        return;
    case Phase::datagram:
        if (events & EPOLLIN) record(notice::read);
        if (events & EPOLLOUT) record(notice::write);
        return;
    }
}

void SocketNotices::apply_connected(uint32_t events) {
    if (events & EPOLLPRI) urgent_ = true;
    if (events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) return apply_ended(events);
    if (events & EPOLLIN) record(notice::read);
    if (events & EPOLLOUT) record(notice::write);
}

// The error is left to the next receive or send when nobody wants the notice that tells of it.
void SocketNotices::apply_ended(uint32_t events) {
    hung_up_ = true;
    const bool over = events & (EPOLLHUP | EPOLLERR);
    if (over && close_error_ == error::none && (armed_ & notice::close)) close_error_ = take_error();
    const bool unread = has_unread();
    if (unread) record(notice::read);
    if (!unread || close_error_ != error::none) record(notice::close);
    if (!over && (events & EPOLLOUT)) record(notice::write);
}

// Asks for the outcome instead of trusting the event, which may be older than the connect.
void SocketNotices::try_finish_connect() {
    if (has_peer()) return finish_connect(error::none);
    if (!(wanted_ & notice::connect)) return; // the error is left to its user
    uint32_t code = take_error();
    if (code == error::none && (look() & EPOLLRDHUP)) code = error::connection_aborted; // another call has taken it
    if (code == error::none) return;
    connect_failed(code);
}

void SocketNotices::connect_failed(uint32_t code) {
    const bool was_connected = code == error::connection_reset; // a connect is never reset but refused
    if (was_connected) close_error_ = code;
    finish_connect(was_connected ? error::none : code);
}

void SocketNotices::finish_connect(uint32_t code) {
    phase_ = code ? Phase::idle : Phase::connected;
    connect_over_ = true;
    connect_error_ = code;
    record(notice::connect);
    if (code) return;
    note_use();
    armed_ |= wanted_ & notice::write;
    apply_connected(look());
}

void SocketNotices::record(uint32_t notices) {
    const uint32_t fresh = notices & armed_;
    if (!fresh) return;
    armed_ &= ~fresh;
    reported_ |= fresh & once_only;
    fresh_ = true;
    recorded_.fetch_or(fresh, std::memory_order_release);
}

void SocketNotices::withdraw(uint32_t notices) {
    armed_ |= notices & wanted_;
    if (!(recorded_.load(std::memory_order_relaxed) & notices)) return;
    recorded_.fetch_and(~notices, std::memory_order_relaxed);
    withdrawn_ = true;
}

void SocketNotices::note_use() {
    if (const NoticeSink* sink = sink_.load(std::memory_order_relaxed)) used_at_ = sink->last_fetch();
}

} // namespace vel::os
