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
    const bool signalled = wait_set_->wait(generation, wait_ms) == vel::os::WaitEnd::signalled;
    if (!is_activate()) return vel::report(error::object_closed);
    const int timers = timer_role ? dispatch_timer() : 0;
    return signalled ? timers + dispatch_signalled() : timers;
}

/// Serves the members in order, each once, that are signalled by the time it is their turn.
int VEL_Reactor::dispatch_signalled() {
    int count = 0;
    vel::os::Turn turn;
    for (bool more = wait_set_->next(turn); more; more = is_activate() && wait_set_->next(turn)) {
        dispatch(turn);
        ++count;
    }
    if (turn.key != 0) wait_set_->put_back(turn);
    return count;
}

void VEL_Reactor::dispatch(const vel::os::Turn& turn) {
    VEL_Guard guard(lock_);
    const vel::ReactorSlot slot = repository_->find_key(turn.key);
    if (!slot.handler) return; // removed since the wait
    slot.handler->addref();
    guard.unlock();
    if (const uint32_t refused = slot.is_socket ? call_handlers(slot, turn) : call_signal(slot)) {
        // Only of this registration: the handler may have closed the socket, and its number belong to the next by now,
        // which may be the handler's own.
        end_slot(slot, refused);
    }
    slot.handler->release();
}

/// As `call_handlers`.
uint32_t VEL_Reactor::call_signal(const vel::ReactorSlot& slot) {
    if ((slot.mask() & VEL_SIGNAL_EVENT) == 0) return 0;
    return slot.handler->handle_signal(slot.handle, this) < 0 ? uint32_t{VEL_SIGNAL_EVENT} : 0;
}

/// Tells the handler of each notice for which it is registered by then. From the first refusal on nothing is told any
/// more; the bits of that notice and of the later ones come back.
uint32_t VEL_Reactor::call_handlers(const vel::ReactorSlot& slot, const vel::os::Turn& turn) {
    uint32_t refused = 0;
    for (const Service& service : services) {
        if ((turn.notices.mask & service.notice) == 0 || (slot.mask() & service.bit) == 0) continue;
        if (refused != 0)
            refused |= service.bit;
        else if ((slot.handler->*service.call)(slot.handle, this, error_of(turn.notices, service.notice)) < 0)
            refused = service.bit;
    }
    return refused;
}
