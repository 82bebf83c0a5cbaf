// The proactor's timers.
#include <vel/proactor/proactor.h>

#include <algorithm>
#include <vel/frame/fail.h>
#include <vel/os/clock.h>
#include <vel/sync/guard.h>

namespace error = vel::error;
namespace os = vel::os;

namespace {

uint32_t remaining(uint32_t timeout_ms, uint32_t started) {
    const uint32_t elapsed = os::tick_ms() - started;
    return elapsed >= timeout_ms ? 0 : timeout_ms - elapsed;
}

} // namespace

int32_t VEL_Proactor::schedule_timer(VEL_Async_Handler* handler, uint32_t interval_ms) {
    if (port_ == nullptr || handler == nullptr) return vel::fail(error::null_member);
    VEL_Guard guard(lock_);
    return add_timer(handler, interval_ms);
}

/// Under the lock.
int32_t VEL_Proactor::add_timer(VEL_Async_Handler* handler, uint32_t interval_ms) {
    if (closing_ || timer_queue_ == nullptr) return vel::fail(error::object_closed);
    bool sooner = false;
    const int32_t id = timer_queue_->schedule(handler, interval_ms, os::tick_ms64(), sooner);
    if (id < 0) return -1;
    handler->addref();
    if (sooner) timer_alarm_.ring();
    return id;
}

int VEL_Proactor::cancel_timer(int32_t timer_id, bool no_close) {
    if (port_ == nullptr) return vel::fail(error::null_member);
    VEL_Guard guard(lock_);
    if (timer_queue_ == nullptr) return vel::fail(error::null_member);
    VEL_Async_Handler* handler = nullptr;
    if (!timer_queue_->cancel(timer_id, handler)) return -1; // without a code: there may be nothing wrong
    guard.unlock();
    if (!no_close) handler->handle_close(0, reinterpret_cast<void*>(static_cast<intptr_t>(timer_id)), this);
    handler->release();
    return 0;
}

int VEL_Proactor::reschedule_timer(int32_t timer_id, uint32_t interval_ms) {
    if (port_ == nullptr) return vel::fail(error::null_member);
    VEL_Guard guard(lock_);
    if (timer_queue_ == nullptr) return vel::fail(error::null_member);
    bool sooner = false;
    if (!timer_queue_->reschedule(timer_id, interval_ms, os::tick_ms64(), sooner)) return -1;
    if (sooner) timer_alarm_.ring();
    return 0;
}

/// Starts the timer that `timer_id` names anew, or a new one when that is 0. The id is stored under the lock, so it is
/// there before the timer can run.
int VEL_Proactor::set_timer(VEL_Async_Handler* handler, uint32_t interval_ms, std::atomic<int32_t>& timer_id) {
    if (port_ == nullptr) return vel::fail(error::null_member);
    VEL_Guard guard(lock_);
    const int32_t running = timer_id;
    if (running != 0) return reschedule_timer(running, interval_ms);
    const int32_t id = add_timer(handler, interval_ms);
    if (id < 0) return -1;
    timer_id = id;
    return 0;
}

int VEL_Proactor::thr_iocp_timer(void* proactor) {
    while (static_cast<VEL_Proactor*>(proactor)->handle_timer(VEL_INFINITE) >= 0) {
    }
    return 0;
}

int VEL_Proactor::handle_timer(uint32_t timeout_ms) {
    if (port_ == nullptr) return vel::fail(error::null_member);
    if (closing_) return vel::fail(error::object_closed);
    bool owner = false;
    const int result = run_timers(timeout_ms, owner);
    if (owner) release_timer();
    return result;
}

/// The loop of `handle_timer`. Who does not own the timer role only waits, and takes it over once it is free.
int VEL_Proactor::run_timers(uint32_t timeout_ms, bool& owner) {
    uint64_t heard = timer_alarm_.rings(); // read before what it announces
    for (;;) {
        const uint32_t started = os::tick_ms();
        if (!owner) owner = acquire_timer();
        const uint32_t wait_ms = owner ? std::min(timeout_ms, calc_timeout()) : timeout_ms;
        if (closing_) return vel::fail(error::object_closed);
        timer_alarm_.wait(wait_ms, heard);
        if (closing_) return vel::fail(error::object_closed);
        const int dispatched = owner ? dispatch_timer() : 0;
        if (timeout_ms != VEL_INFINITE) timeout_ms = remaining(timeout_ms, started);
        if (dispatched > 0 || timeout_ms == 0) return dispatched;
    }
}

uint32_t VEL_Proactor::calc_timeout() {
    VEL_Guard guard(lock_);
    return timer_queue_ == nullptr ? VEL_INFINITE : timer_queue_->wait_ms(os::tick_ms64());
}

/// One pass over the timers that are due.
int VEL_Proactor::dispatch_timer() {
    VEL_Guard guard(lock_);
    if (timer_queue_ == nullptr) return 0;
    uint64_t now_ms = 0;
    int dispatched = 0;
    int32_t began_with = 0;
    TimerQueue::Period timer;
    for (; !closing_ && timer_queue_->next_due(os::tick_ms64, now_ms, began_with, timer); ++dispatched) {
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
bool VEL_Proactor::restart(const TimerQueue::Period& timer, uint64_t& now_ms) {
    now_ms = os::tick_ms64();
    bool sooner = false;
    if (!timer_queue_ || !timer_queue_->reschedule(timer.timer_id, timer.interval, now_ms, sooner)) return false;
    timer.handler->release(); // and no ring: the one who would hear it is this thread, which looks again anyway
    return true;
}

bool VEL_Proactor::acquire_timer() {
    VEL_Guard guard(lock_);
    return timer_queue_ != nullptr && timer_queue_->acquire_role();
}

/// Gives the timer role back and tells those who wait for it.
void VEL_Proactor::release_timer() {
    VEL_Guard guard(lock_);
    if (timer_queue_ != nullptr) timer_queue_->release_role();
    timer_alarm_.ring();
}
