// The reactor's timers.
#include <vel/reactor/reactor.h>

#include <algorithm>
#include <vel/os/clock.h>
#include <vel/os/error_codes.h>
#include <vel/os/wait_set.h>
#include <vel/platform/report.h>
#include <vel/reactor/reactor_repository.h>
#include <vel/sync/guard.h>

namespace error = vel::error;
namespace os = vel::os;

namespace {

void* handle_of(int32_t timer_id) { return reinterpret_cast<void*>(static_cast<intptr_t>(timer_id)); }

} // namespace

int32_t VEL_Reactor::schedule_timer(VEL_Event_Handler* handler, uint32_t interval_ms) {
    VEL_Guard guard(lock_);
    if (deactivated_) return vel::report(error::object_closed);
    if (!handler) return vel::report(error::invalid_parameter);
    bool sooner = false;
    const int32_t id = timers_->schedule(handler, interval_ms, os::tick_ms64(), sooner);
    if (id < 0) return -1;
    handler->addref();
    timers_changed(sooner);
    return id;
}

/// Nobody is woken: a wait for the timer that has gone is merely too short.
int VEL_Reactor::cancel_timer(int32_t timer_id, bool no_close) {
    VEL_Guard guard(lock_);
    VEL_Event_Handler* handler = nullptr;
    if (!timers_->cancel(timer_id, handler)) return -1;
    timers_changed(false);
    guard.unlock();
    if (!no_close) handler->handle_close(handle_of(timer_id), VEL_TIMER_EVENT, this);
    handler->release();
    return 0;
}

int VEL_Reactor::reschedule_timer(int32_t timer_id, uint32_t interval_ms) {
    VEL_Guard guard(lock_);
    bool sooner = false;
    if (!timers_->reschedule(timer_id, interval_ms, os::tick_ms64(), sooner))
        return vel::report(error::invalid_parameter);
    timers_changed(sooner);
    return 0;
}

void VEL_Reactor::close_timers() {
    VEL_Guard guard(lock_);
    TimerQueue::Period timer;
    while (timers_->take_first(timer)) {
        timers_changed(false);
        guard.unlock();
        timer.handler->handle_close(handle_of(timer.timer_id), VEL_TIMER_EVENT, this);
        timer.handler->release();
        guard.lock();
    }
}

/// The first timer's tick before the look at the flag: see calc_timeout. Only a sooner one needs that order.
void VEL_Reactor::timers_changed(bool sooner) {
    const uint64_t due_ms = timers_->deadline_ms();
    if (!sooner) return first_due_ms_.store(due_ms, std::memory_order_release);
    first_due_ms_ = due_ms;
    if (timer_waits_) wakeup();
}

bool VEL_Reactor::acquire_timer() { return !timer_role_.exchange(true); }

// These need no order with what follows: whoever sees them late wakes a thread for nothing, or leaves the role alone.
void VEL_Reactor::release_timer() {
    timer_waits_.store(false, std::memory_order_release);
    timer_role_.store(false, std::memory_order_release);
}

/// The flag first: whoever makes a timer the first one after this has looked sees it and wakes this thread.
uint32_t VEL_Reactor::calc_timeout() {
    timer_waits_ = true;
    return until_first_timer();
}

uint32_t VEL_Reactor::until_first_timer() const {
    const uint64_t due_ms = first_due_ms_;
    if (due_ms == UINT64_MAX) return VEL_INFINITE;
    const uint64_t now_ms = os::tick_ms64();
    return due_ms <= now_ms ? 0 : static_cast<uint32_t>(std::min<uint64_t>(due_ms - now_ms, VEL_INFINITE - 1));
}

/// One pass over the timers that are due.
int VEL_Reactor::dispatch_timer() {
    timer_waits_.store(false, std::memory_order_release);
    uint64_t now_ms = os::tick_ms64();
    if (first_due_ms_ > now_ms) return 0;
    VEL_Guard guard(lock_);
    int dispatched = 0;
    int32_t began_with = 0;
    TimerQueue::Period timer;
    for (; timers_->next_due(os::tick_ms64, now_ms, began_with, timer); ++dispatched) {
        timer.handler->addref();
        guard.unlock();
        const int result = timer.handler->handle_timeout(timer.timer_id, timer.interval, this);
        if (result < 0) {
            cancel_timer(timer.timer_id, false);
        } else {
            guard.lock();
            if (restart(timer, now_ms)) continue;
            guard.unlock(); // it was cancelled meanwhile, so this may be the last reference
        }
        timer.handler->release();
        guard.lock();
    }
    return dispatched;
}

/// Starts a timer anew after its call, whose reference goes here, since the timer has another one. False if it has
/// ended.
bool VEL_Reactor::restart(const TimerQueue::Period& timer, uint64_t& now_ms) {
    now_ms = os::tick_ms64();
    bool sooner = false;
    if (!timers_->reschedule(timer.timer_id, timer.interval, now_ms, sooner)) return false;
    timers_changed(sooner);
    timer.handler->release();
    return true;
}
