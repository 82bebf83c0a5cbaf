// Whom a completion port wakes, and when.
#include <vel/os/linux/port_queue.h>

#include <algorithm>
#include <utility>
#include <vel/os/linux/futex.h>

namespace vel::os {
namespace {

// Another thread is woken for what those awake will not have taken by then. A wake-up takes some 50 us until the thread
// runs and costs both sides; with quick handlers and less to do it finds nothing left, and slows the others down.
constexpr int64_t worth_waking_ns = 200000;

// With fewer taken in a period the handlers are slow, blocked most likely, and one more thread helps.
constexpr uint64_t slow_takes_per_period = 16;

constexpr uint32_t quiet_periods_to_rest = 8;

} // namespace

// Threads that will look at the queue before they sleep.
uint32_t PortQueue::awake() const { return running_ + waking_ + (leader_ && !leader_sleeps() ? 1 : 0); }

void PortQueue::wake_for_push() {
    Wake wake;
    {
        const Guard guard(lock_);
        if (closed_) return;
        collect();
        wake = wake_if_needed();
    }
    carry_out(wake);
}

// Called after every change that may leave work with nobody to do it.
PortQueue::Wake PortQueue::wake_if_needed() {
    Wake wake;
    if (!work_waits() || !somebody_sleeps()) return wake;
    const uint32_t busy = unwatched_ ? 0 : awake();
    if (busy == 0) return wake_one();
    const bool wake_under_way = waking_ > 0 || interrupted_;
    if (!wake_under_way && busy < useful_ && pace_.ns_for(ready_) > worth_waking_ns) return wake_one();
    wake.watchdog = !std::exchange(watching_, true);
    return wake;
}

PortQueue::Wake PortQueue::wake_one() {
    Wake wake;
    if (Follower* follower = followers_.first) {
        call(*follower);
        wake.follower = &follower->woken;
    } else if (leader_sleeps()) {
        leader_sleeping_.store(false, std::memory_order_relaxed);
        interrupted_ = true;
        wake.leader = true;
    }
    return wake;
}

void PortQueue::carry_out(const Wake& wake) {
    if (wake.follower) futex_wake_one(wake.follower);
    if (wake.leader) events_.interrupt();
    if (!wake.watchdog || watchdog_.watch()) return;
    Wake instead;
    {
        const Guard guard(lock_);
        unwatched_ = true;
        instead = wake_if_needed();
    }
    carry_out(instead);
}

// One look of the watchdog. False when it may rest until it is called.
bool PortQueue::tick() {
    uint32_t count;
    bool go_on;
    {
        const Guard guard(lock_);
        count = rescue_count();
        quiet_ticks_ = waited_last_tick_ ? 0 : quiet_ticks_ + 1;
        watching_ = quiet_ticks_ < quiet_periods_to_rest;
        go_on = watching_;
    }
    for (; count > 0; --count) {
        Wake wake;
        {
            const Guard guard(lock_);
            if (work_waits()) wake = wake_one();
        }
        if (!wake.follower && !wake.leader) break;
        carry_out(wake);
    }
    return go_on;
}

// How many sleepers to wake: those awake had a whole period and left work lying.
uint32_t PortQueue::rescue_count() {
    const bool waits = !closed_ && work_waits() && somebody_sleeps();
    const uint64_t moved = taken_ - std::exchange(taken_last_tick_, taken_);
    const bool waited_before = std::exchange(waited_last_tick_, waits);
    if (!waits || !waited_before || moved >= slow_takes_per_period) return 0;
    if (moved > 0) return 1;
    ++epoch_; // whoever is running is blocked, or will never come back
    running_ = 0;
    return std::max(ready_, 1u);
}

} // namespace vel::os
