// The end of a wait that may be interrupted, so that it goes on with the time that is left.
#pragma once

#include <ctime>
#include <vel/types.h>

namespace vel::os {

inline int64_t monotonic_ns() {
    timespec now;
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000000000 + now.tv_nsec;
}

/// A point on the monotonic clock, or never. The tick's test offset does not move it.
class Deadline {
public:
    /// @param timeout_ms  from now; VEL_INFINITE never ends. 0 has passed already, and is not worth a look at the clock
    explicit Deadline(uint32_t timeout_ms) : infinite_(timeout_ms == VEL_INFINITE) {
        if (!infinite_ && timeout_ms != 0) end_ns_ = monotonic_ns() + int64_t{timeout_ms} * 1000000;
    }

    bool infinite() const { return infinite_; }
    bool expired() const { return !infinite_ && (end_ns_ == 0 || monotonic_ns() >= end_ns_); }

    /// What is left, for calls that take a relative time; null when there is no end. Zero once expired.
    const timespec* remaining(timespec& storage) const {
        if (infinite_) return nullptr;
        const int64_t left = end_ns_ == 0 ? 0 : end_ns_ - monotonic_ns();
        storage.tv_sec = left > 0 ? left / 1000000000 : 0;
        storage.tv_nsec = left > 0 ? left % 1000000000 : 0;
        return &storage;
    }

private:
    bool infinite_;
    int64_t end_ns_ = 0; // 0: has passed
};

} // namespace vel::os
