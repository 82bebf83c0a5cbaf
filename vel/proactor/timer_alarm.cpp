// The alarm of the timer thread.
#include <vel/proactor/timer_alarm.h>

#include <chrono>

namespace vel {

uint64_t TimerAlarm::rings() {
    std::lock_guard guard(mutex_);
    return rings_;
}

void TimerAlarm::ring() {
    {
        std::lock_guard guard(mutex_);
        ++rings_;
    }
    rung_.notify_all();
}

void TimerAlarm::wait(uint32_t timeout_ms, uint64_t& heard) {
    std::unique_lock guard(mutex_);
    auto has_rung = [&] { return rings_ != heard; };
    if (timeout_ms == VEL_INFINITE) {
        rung_.wait(guard, has_rung);
    } else {
        rung_.wait_for(guard, std::chrono::milliseconds(timeout_ms), has_rung);
    }
    heard = rings_;
}

} // namespace vel
