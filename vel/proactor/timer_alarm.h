// Wakes the threads that wait for timers.
#pragma once

#include <condition_variable>
#include <mutex>
#include <vel/types.h>

namespace vel {

/// A bell that everybody who waits hears: no waiter can take a ring away from another one.
///
/// Threads: every call from any thread.
///
///     uint64_t heard = alarm.rings();
///     // look what there is to do; whoever changes that rings
///     alarm.wait(timeout_ms, heard);
class VEL_API TimerAlarm {
public:
    /// How often it has rung so far.
    uint64_t rings();

    void ring();

    /// Waits until it has rung more often than `heard`, which is brought up to date, or until the time is over.
    /// @param timeout_ms  milliseconds, VEL_INFINITE for ever
    void wait(uint32_t timeout_ms, uint64_t& heard);

private:
    std::mutex mutex_;
    std::condition_variable rung_;
    uint64_t rings_ = 0; // guarded by mutex_
};

} // namespace vel
