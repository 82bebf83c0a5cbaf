// The reactor's loop: waiting, and serving what is signalled.
#include <vel/reactor/reactor.h>

#include <algorithm>
#include <chrono>
#include <vel/os/error_codes.h>
#include <vel/os/wait_set.h>
#include <vel/platform/report.h>
#include <vel/reactor/reactor_repository.h>
#include <vel/sync/guard.h>

namespace error = vel::error;
namespace notice = vel::os::notice;

namespace {

/// What is left of a caller's time. Rounded up: nobody is sent away early.
class Countdown {
public:
    explicit Countdown(uint32_t timeout_ms) : timeout_ms_(timeout_ms) {
        if (runs()) end_ = Clock::now() + std::chrono::milliseconds(timeout_ms);
    }

    uint32_t left_ms() const {
        if (!runs()) return timeout_ms_;
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end_ - Clock::now()).count();
        return static_cast<uint32_t>(std::max<int64_t>(left, 0));
    }

private:
    using Clock = std::chrono::steady_clock;

    bool runs() const { return timeout_ms_ != 0 && timeout_ms_ != VEL_INFINITE; }

    uint32_t timeout_ms_;
    Clock::time_point end_;
};

/// A notice, what it must be registered for, and who is told.
struct Service {
    uint32_t notice;
    uint32_t bit;
    int (VEL_Event_Handler::*call)(void*, VEL_Reactor*, uint32_t);
};

/// In the order in which they are served: output before input, on purpose.
constexpr Service services[] = {
    {notice::accept, VEL_ACCEPT_EVENT, &VEL_Event_Handler::handle_accept},
    {notice::connect, VEL_CONNECT_EVENT, &VEL_Event_Handler::handle_connect},
    {notice::write, VEL_OUTPUT_EVENT, &VEL_Event_Handler::handle_output},
    {notice::read, VEL_INPUT_EVENT, &VEL_Event_Handler::handle_input},
    {notice::close, VEL_INPUT_EVENT, &VEL_Event_Handler::handle_input},
};

uint32_t error_of(const vel::os::Notices& notices, uint32_t which) {
    if (which == notice::connect) return notices.connect_error;
    if (which != notice::close) return error::none;
    return notices.close_error != 0 ? notices.close_error : error::peer_closed;
}

} // namespace

int VEL_Reactor::handle_event(uint32_t timeout_ms) {
    if (!is_activate()) return vel::report(error::object_closed);
    const Countdown time(timeout_ms);
    const bool timer_role = acquire_timer();
    uint32_t left_ms = timeout_ms;
    int result = 0;
    do {
        result = run_cycle(left_ms, timer_role);
        if (result == 0) left_ms = time.left_ms();
    } while (result == 0 && left_ms > 0);
    if (timer_role) release_timer();
    return result;
}

/// One wait and what it found; -1 once the reactor is deactivated.
int VEL_Reactor::run_cycle(uint32_t timeout_ms, bool timer_role) {
    const uint32_t generation = wait_set_->generation(); // before what a wake-up tells of: the flag and the timers
    const uint32_t wait_ms = timer_role ? std::min(timeout_ms, calc_timeout()) : timeout_ms;
    if (!is_activate()) return vel::report(error::object_closed);
    uint64_t key = 0;
    const bool signalled = wait_set_->wait(0, generation, wait_ms, key) == 0 && key != 0;
    if (!is_activate()) return vel::report(error::object_closed);
    const int timers = timer_role ? dispatch_timer() : 0;
    return signalled ? timers + dispatch_from(key) : timers;
}

/// Serves a member and then, each once, those behind it that are signalled by the time it is their turn.
int VEL_Reactor::dispatch_from(uint64_t key) {
    int count = 0;
    do {
        dispatch(key);
        ++count;
    } while (is_activate() && next_signalled(key));
    return count;
}

/// Goes from `key` to the next signalled member, if there is one now. A wake-up meanwhile ends no cycle.
bool VEL_Reactor::next_signalled(uint64_t& key) {
    for (;;) {
        uint64_t next = 0;
        if (wait_set_->wait(key, wait_set_->generation(), 0, next) != 0) return false;
        if (next == 0) continue;
        key = next;
        return true;
    }
}

void VEL_Reactor::dispatch(uint64_t key) {
    VEL_Guard guard(lock_);
    const auto slot = repository_->find_key(key);
    if (!slot) return; // removed since the wait
    slot->handler->addref();
    guard.unlock();
    if (slot->is_socket)
        dispatch_socket(*slot);
    else
        dispatch_event(*slot);
    slot->handler->release();
}

void VEL_Reactor::dispatch_event(const vel::ReactorSlot& slot) {
    if ((slot.mask & VEL_SIGNAL_EVENT) == 0) return;
    if (slot.handler->handle_signal(slot.handle, this) < 0) end_registration(slot.handle, VEL_SIGNAL_EVENT, &slot);
}

void VEL_Reactor::dispatch_socket(const vel::ReactorSlot& slot) {
    vel::os::Notices notices;
    if (!wait_set_->take(slot.key, notices)) return; // another thread serves it, or has done so
    if (const uint32_t refused = call_handlers(slot, notices)) {
        // Only of this registration: the handler may have closed the socket, and its number belong to the next by now,
        // which may be the handler's own.
        end_registration(slot.handle, refused, &slot);
    }
    wait_set_->put_back(slot.key);
}

/// Tells the handler of each notice for which it is registered by then. From the first refusal on nothing is told any
/// more; the bits of that notice and of the later ones come back.
uint32_t VEL_Reactor::call_handlers(const vel::ReactorSlot& slot, const vel::os::Notices& notices) {
    uint32_t refused = 0;
    for (const Service& service : services) {
        if ((notices.mask & service.notice) == 0 || (slot.mask & service.bit) == 0) continue;
        if (refused != 0)
            refused |= service.bit;
        else if ((slot.handler->*service.call)(slot.handle, this, error_of(notices, service.notice)) < 0)
            refused = service.bit;
    }
    return refused;
}
