// How fast the threads of a completion port get on.
#pragma once

#include <cstdint>
#include <vel/os/linux/deadline.h>

namespace vel::os {

/// The mean time from one request taken to the next while threads are awake, and what it says of those that wait.
///
/// Threads:   one at a time; the owner's lock guards it.
/// Limits:    nanoseconds; the last few spells of work count.
class PortPace {
public:
    void took_one() { ++taken_; }

    /// A thread goes to sleep: a spell of work is over. What was taken before the first of them has no beginning.
    void pause(int64_t now_ns) {
        if (taken_ > 0 && began_ns_ > 0) mean_ns_ = (mean_ns_ * 3 + (now_ns - began_ns_) / taken_) / 4;
        resume(now_ns);
    }

    /// A thread has slept: the spell begins anew, since nobody may have worked meanwhile.
    void resume(int64_t now_ns) {
        began_ns_ = now_ns;
        taken_ = 0;
    }

    /// How long those who are awake will take for so many requests.
    int64_t ns_for(uint32_t requests) const { return mean_ns_ * requests; }

private:
    int64_t mean_ns_ = 25000; // a guess until the first spell is over
    int64_t began_ns_ = 0;
    int64_t taken_ = 0;
};

} // namespace vel::os
