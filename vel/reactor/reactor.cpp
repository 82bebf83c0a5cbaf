// The reactor's life and its registrations.
#include <vel/reactor/reactor.h>

#include <new>
#include <vel/frame/exception.h>
#include <vel/os/error_codes.h>
#include <vel/os/socket.h>
#include <vel/os/wait_set.h>
#include <vel/platform/report.h>
#include <vel/reactor/reactor_repository.h>
#include <vel/sync/guard.h>

namespace error = vel::error;
namespace notice = vel::os::notice;

namespace {

uint32_t notices_of(uint32_t mask) {
    uint32_t notices = 0;
    if (mask & VEL_ACCEPT_EVENT) notices |= notice::accept;
    if (mask & VEL_CONNECT_EVENT) notices |= notice::connect;
    if (mask & VEL_OUTPUT_EVENT) notices |= notice::write;
    if (mask & VEL_INPUT_EVENT) notices |= notice::read | notice::close;
    return notices;
}

uint64_t socket_of(void* handle) { return reinterpret_cast<uint64_t>(handle); }

} // namespace

VEL_Reactor::VEL_Reactor() {
    try {
        timers_ = std::make_unique<TimerQueue>();
        repository_ = std::make_unique<vel::ReactorRepository>();
    } catch (const std::bad_alloc&) {
        VEL_Exception::ThrowException(error::not_enough_memory);
    }
    if (const uint32_t code = vel::os::create_wait_set(wait_set_)) VEL_Exception::ThrowException(code);
}

VEL_Reactor::~VEL_Reactor() { close(); }

int VEL_Reactor::register_handler(VEL_Event_Handler* handler, void* event_handle, uint32_t mask) {
    end_orphan(event_handle);
    VEL_Guard guard(lock_);
    if (const uint32_t code = refusal(handler && event_handle)) return vel::report(code);
    if (const auto slot = repository_->find(event_handle); slot.handler) {
        if (slot.is_socket) return vel::report(error::invalid_handle);
        slot.mask(slot.mask() | mask);
        return 1;
    }
    const auto slot = repository_->add(event_handle, handler, false, mask);
    return slot.handler ? admit(slot, wait_set_->add_event(slot.key, event_handle)) : -1;
}

int VEL_Reactor::register_handler(void* socket, VEL_Event_Handler* handler, uint32_t mask) {
    end_orphan(socket);
    VEL_Guard guard(lock_);
    const uint64_t number = socket_of(socket);
    if (const uint32_t code = refusal(handler && number != VEL_INVALID_SOCKET)) return vel::report(code);
    if (const auto slot = repository_->find(socket); slot.handler) {
        if (!slot.is_socket) return vel::report(error::not_a_socket);
        const uint32_t joined = slot.mask() | mask;
        if (const uint32_t code = wait_set_->bind(slot.key, number, notices_of(joined))) return vel::report(code);
        slot.mask(joined);
        return 1;
    }
    const auto slot = repository_->add(socket, handler, true, mask);
    if (!slot.handler) return -1;
    const uint32_t code = vel::os::set_nonblocking(number, true);
    return admit(slot, code ? code : wait_set_->bind(slot.key, number, notices_of(mask)));
}

/// Why there can be no registration now, or 0. A full reactor also refuses more bits of what it has, on purpose.
uint32_t VEL_Reactor::refusal(bool named) const {
    if (deactivated_) return error::object_closed;
    if (!named) return error::invalid_parameter;
    return repository_->is_full() ? error::too_many_events : error::none;
}

/// Keeps a new slot if the wait set took it. Nobody is woken: waits under way see a new member.
int VEL_Reactor::admit(const vel::ReactorSlot& slot, uint32_t code) {
    if (code == 0)
        slot.handler->addref();
    else
        repository_->remove(slot);
    return vel::report(code);
}

int VEL_Reactor::remove_handler(VEL_Event_Handler*, void* event_handle, uint32_t mask) {
    return end_handle(event_handle, mask);
}

int VEL_Reactor::remove_handler(void* socket, VEL_Event_Handler*, uint32_t mask) { return end_handle(socket, mask); }

int VEL_Reactor::end_handle(void* handle, uint32_t mask) {
    VEL_Guard guard(lock_);
    const auto slot = repository_->find(handle);
    return slot.handler ? end_bits(slot, mask, guard) : -1;
}

void VEL_Reactor::end_slot(const vel::ReactorSlot& slot, uint32_t mask) {
    VEL_Guard guard(lock_);
    end_bits(slot, mask, guard);
}

/// Ends what is left of a closed handle's registration before its number is registered anew.
void VEL_Reactor::end_orphan(void* handle) {
    VEL_Guard guard(lock_);
    const auto slot = repository_->find(handle);
    if (slot.handler && !wait_set_->has(slot.key)) end_bits(slot, ~uint32_t{VEL_NO_CLOSE_CALL}, guard);
}

/// Opens the guard for the handler's calls. A registration that has ended has no bits.
int VEL_Reactor::end_bits(const vel::ReactorSlot& slot, uint32_t mask, VEL_Guard& guard) {
    const uint32_t before = slot.mask();
    const uint32_t removed = before & mask & ~VEL_NO_CLOSE_CALL;
    if (removed == 0) return -1;
    const uint32_t left = before & ~removed;
    slot.mask(left);
    if (left == 0)
        drop(slot);
    else if (slot.is_socket && wait_set_->has(slot.key)) // without the peer's close, on purpose
        wait_set_->bind(slot.key, socket_of(slot.handle), notices_of(left) & ~notice::close);

    const bool tell = (mask & VEL_NO_CLOSE_CALL) == 0;
    if (left != 0 && !tell) return 1;
    if (left != 0) slot.handler->addref(); // for the call; at the end the registration's own covers it
    guard.unlock();
    if (tell) slot.handler->handle_close(slot.handle, removed, this);
    slot.handler->release();
    return left == 0 ? 0 : 1;
}

void VEL_Reactor::drop(const vel::ReactorSlot& slot) {
    wait_set_->remove(slot.key);
    repository_->remove(slot);
}

int VEL_Reactor::wakeup() {
    wait_set_->wake();
    return 0;
}

void VEL_Reactor::deactivate() {
    {
        VEL_Guard guard(lock_); // who registers or schedules under it is done before, or sees the end
        deactivated_ = true;
    }
    wakeup();
}

void VEL_Reactor::close() {
    deactivate();
    close_timers();
    close_slots();
}

void VEL_Reactor::close_slots() {
    VEL_Guard guard(lock_);
    for (auto slot = repository_->first(); slot.handler; slot = repository_->first()) {
        const uint32_t mask = slot.mask();
        drop(slot);
        guard.unlock();
        slot.handler->handle_close(slot.handle, mask, this);
        slot.handler->release();
        guard.lock();
    }
}
