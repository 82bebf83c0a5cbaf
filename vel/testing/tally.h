// A counter that tests wait for.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace vel::testing {

/// Counts what happens on other threads.
class Tally {
public:
    /// Gives 0, so that a handler may end with it.
    int add(int64_t n = 1) {
        std::lock_guard guard(mutex_);
        count_ += n;
        changed_.notify_all();
        return 0;
    }

    int64_t count() {
        std::lock_guard guard(mutex_);
        return count_;
    }

    /// Waits until `n` have been counted; false when they have not come by then.
    bool reaches(int64_t n, int limit_ms = 30000) {
        std::unique_lock guard(mutex_);
        return changed_.wait_for(guard, std::chrono::milliseconds(limit_ms), [&] { return count_ >= n; });
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    int64_t count_ = 0;
};

} // namespace vel::testing
