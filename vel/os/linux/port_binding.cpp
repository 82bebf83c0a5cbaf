// Starting, resuming and ending the requests of one handle.
#include <vel/os/linux/port_binding.h>

#include <sys/epoll.h>
#include <utility>
#include <vel/os/error_codes.h>
#include <vel/os/linux/completion_port.h>
#include <vel/os/linux/port_files.h>
#include <vel/os/linux/port_transfer.h>

namespace vel::os {
namespace {

using Guard = std::lock_guard<ShortLock>;

// Requests finished in one go before other handles get their turn.
constexpr int requests_per_turn = 16;

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

uint32_t PortBinding::start(PortDirection& direction, IoRequest& request) {
    const Guard guard(direction.lock);
    if (closed_) return is_socket_ ? error::not_a_socket : error::invalid_handle;
    if (!port_) return error::invalid_parameter;
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
        if (direction.ready) port_->events().repeat(descriptor_, event_tag_);
    }
    direction.append(request);
    return error::none;
}

void PortBinding::on_events(uint32_t events) {
    const bool broken = events & (EPOLLHUP | EPOLLERR);
    // The output first: a connect that failed wants the error before a receive takes it.
    if (broken || (events & EPOLLOUT)) resume(output_, broken);
    const bool drain = broken || (events & (EPOLLRDHUP | EPOLLPRI));
    if (drain || (events & EPOLLIN)) resume(input_, drain);
}

void PortBinding::resume(PortDirection& direction, bool drain) {
    const Guard guard(direction.lock);
    direction.ready = true;
    direction.drain |= drain;
    for (int turn = 0; direction.head && direction.ready; ++turn) {
        uint32_t code = error::none;
        const bool whole_turn = turn == requests_per_turn;
        if (whole_turn || !perform(*this, direction, *direction.head, code)) {
            if (direction.ready) port_->events().repeat(descriptor_, event_tag_);
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
    const Guard input(input_.lock);
    const Guard output(output_.lock);
    closed_ = true;
    if (port_ && !is_socket_) port_->files().withdraw(input_, output_);
}

void PortBinding::detach() {
    refuse_starts();
    FilePool::wait_until_idle(input_); // the one under way completes before those behind it
    FilePool::wait_until_idle(output_);
    const std::lock_guard associations(PortObject::associations_lock());
    const Guard input(input_.lock);
    const Guard output(output_.lock);
    if (!port_) return;
    finish_all(input_);
    finish_all(output_);
    port_->forget(*this);
}

bool PortBinding::renew(HandleObject& owner) {
    const std::unique_lock input(input_.lock, std::try_to_lock);
    const std::unique_lock output(output_.lock, std::try_to_lock);
    if (!input || !output) return false;
    if (!port_) return true;
    input_.ready = output_.ready = true;
    input_.drain = output_.drain = false;
    return port_->events().add(descriptor_, PortEvents::tag_of(owner)) == 0;
}

} // namespace vel::os
