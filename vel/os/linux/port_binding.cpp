// Starting, resuming and ending the requests of one handle.
#include <vel/os/linux/port_binding.h>

#include <new>
#include <sys/epoll.h>
#include <thread>
#include <utility>
#include <vel/os/error_codes.h>
#include <vel/os/linux/completion_port.h>
#include <vel/os/linux/port_files.h>
#include <vel/os/linux/port_transfer.h>

namespace vel::os {
namespace {

using Guard = std::lock_guard<PortDirection>;

// Requests finished in one go before other handles get their turn.
constexpr int requests_per_turn = 16;

// For who holds another binding's lock, and must not wait for this one: two listeners may accept into each other's
// sockets. Who only passes through, with an event that comes late, say, has gone after a few tries.
bool lock_soon(std::unique_lock<PortDirection>& guard) {
    constexpr int most_tries = 100;
    for (int tries = 0; tries < most_tries; ++tries) {
        if (guard.try_lock()) return true;
        std::this_thread::yield();
    }
    return false;
}

bool is_for_socket(const IoRequest& request) { return kind_of(request) < IoKind::read_file; }

// Errors that speak of the call and not of the connection: the start fails with them.
bool is_refusal(uint32_t code) {
    switch (code) {
    case error::socket_fault:
    case error::socket_invalid:
    case error::not_a_socket:
    case error::destination_required:
    case error::operation_not_supported:
    case error::not_connected: return true;
    default: return false;
    }
}

} // namespace

void PortDirection::append(IoRequest& request) {
    request.next = nullptr;
    (tail ? tail->next : head) = &request;
    tail = &request;
}

IoRequest* PortDirection::take_first() {
    IoRequest* first = head;
    head = first->next;
    if (!head) tail = nullptr;
    return first;
}

IoRequest* PortDirection::take_all() {
    tail = nullptr;
    return std::exchange(head, nullptr);
}

// Bindings that no handle has, linked by `next_`. Those of sockets stay apart: late events must not reach a file.
struct PortBinding::Spare {
    std::mutex lock;
    PortBinding* first = nullptr;

    static Spare& of(bool socket) {
        static constinit Spare sockets, files;
        return socket ? sockets : files;
    }
};

PortBinding::Owner PortBinding::make(bool for_socket) {
    Spare& spare = Spare::of(for_socket);
    const std::lock_guard guard(spare.lock);
    PortBinding* binding = spare.first;
    if (binding)
        spare.first = binding->next_;
    else
        binding = new (std::nothrow) PortBinding(for_socket);
    if (binding) binding->set_closed(false);
    return Owner(binding);
}

void PortBinding::Recycle::operator()(PortBinding* binding) const {
    binding->set_closed(true); // a handle that was never handed out has not been closed either
    Spare& spare = Spare::of(binding->is_socket_);
    const std::lock_guard guard(spare.lock);
    binding->next_ = std::exchange(spare.first, binding);
}

void PortBinding::set_closed(bool closed) {
    const Guard input(input_);
    const Guard output(output_);
    closed_ = input_.lane_closed = output_.lane_closed = closed;
}

bool PortBinding::serves(int descriptor, const IoRequest& request) const {
    if (!port_ || closed_ || descriptor != descriptor_) return false;
    if (is_socket_ != is_for_socket(request)) return false;
    return request.handle_generation == 0 || request.handle_generation == generation_;
}

uint32_t PortBinding::refusal(const IoRequest& request) const {
    if (!closed_ && !port_ && is_socket_ == is_for_socket(request)) return error::invalid_parameter;
    return is_for_socket(request) ? error::not_a_socket : error::invalid_handle;
}

uint32_t PortBinding::start(PortDirection& direction, int descriptor, IoRequest& request) {
    const Guard guard(direction);
    if (!serves(descriptor, request)) return refusal(request);
    request.key = key_;
    request.Internal = error::io_pending;
    request.InternalHigh = 0;
    if (is_socket_) return start_transfer(direction, request);
    if (!port_->files().submit(direction)) return error::no_system_resources;
    direction.append(request);
    return error::none;
}

uint32_t PortBinding::start_transfer(PortDirection& direction, IoRequest& request) {
    if (!direction.head && direction.ready) {
        uint32_t code = error::none;
        if (perform(*this, direction, request, code)) {
            if (is_refusal(code) && request.InternalHigh == 0) return code;
            port_->finish(request, code);
            return error::none;
        }
        if (direction.ready) port_->events().repeat(descriptor_, *this);
    }
    direction.append(request);
    return error::none;
}

void PortBinding::on_events(uint32_t events) {
    const bool broken = events & (EPOLLHUP | EPOLLERR);
    // The output first: a connect that failed wants the error before a receive takes it.
    if ((broken || (events & EPOLLOUT)) && !output_.is_calm()) resume(output_, broken);
    const bool drain = broken || (events & (EPOLLRDHUP | EPOLLPRI));
    if (drain || (events & EPOLLIN)) resume(input_, drain);
}

void PortBinding::resume(PortDirection& direction, bool drain) {
    const Guard guard(direction);
    direction.ready = true;
    direction.drain |= drain;
    for (int turn = 0; direction.head && direction.ready; ++turn) {
        uint32_t code = error::none;
        const bool whole_turn = turn == requests_per_turn;
        if (whole_turn || !perform(*this, direction, *direction.head, code)) {
            if (direction.ready) port_->events().repeat(descriptor_, *this);
            return;
        }
        port_->finish(*direction.take_first(), code);
    }
}

void PortBinding::finish_all(PortDirection& direction) {
    for (IoRequest* request = direction.take_all(); request;) {
        IoRequest& cancelled = *std::exchange(request, request->next);
        port_->finish(cancelled, error::operation_cancelled);
    }
}

void PortBinding::refuse_starts() {
    const std::lock_guard associations(PortObject::associations_lock());
    const Guard input(input_);
    const Guard output(output_);
    closed_ = true;
    if (port_ && !is_socket_) port_->files().withdraw(input_, output_);
}

void PortBinding::detach() {
    refuse_starts();
    FilePool::wait_until_idle(input_); // the one under way completes before those behind it
    FilePool::wait_until_idle(output_);
    const std::lock_guard associations(PortObject::associations_lock());
    const Guard input(input_);
    const Guard output(output_);
    if (!port_) return;
    finish_all(input_);
    finish_all(output_);
    port_->forget(*this);
}

bool PortBinding::renew() {
    std::unique_lock input(input_, std::defer_lock);
    std::unique_lock output(output_, std::defer_lock);
    if (!lock_soon(input) || !lock_soon(output)) return false;
    if (!port_) return true;
    input_.ready = output_.ready = true;
    input_.drain = output_.drain = false;
    return port_->events().add(descriptor_, *this) == 0;
}

} // namespace vel::os
