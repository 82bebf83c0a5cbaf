// A small lock for sections of a few instructions or one system call that never blocks.
#pragma once

#include <atomic>
#include <cstdint>

namespace vel::os {

/// Four bytes: free, held, or held with sleepers. Spins briefly before it sleeps, since its holders are quick.
class ShortLock {
public:
    ShortLock() = default;
    ShortLock(const ShortLock&) = delete;
    ShortLock& operator=(const ShortLock&) = delete;

    void lock() {
        uint32_t expected = free_;
        if (!state_.compare_exchange_strong(expected, held, std::memory_order_acquire, std::memory_order_relaxed))
            lock_contended();
    }

    bool try_lock() {
        uint32_t expected = free_;
        return state_.compare_exchange_strong(expected, held, std::memory_order_acquire, std::memory_order_relaxed);
    }

    void unlock() {
        if (state_.exchange(free_, std::memory_order_release) == held_with_sleepers) wake_one();
    }

    /// A glance without taking it.
    bool is_free() const { return state_.load(std::memory_order_acquire) == free_; }

private:
    static constexpr uint32_t free_ = 0;
    static constexpr uint32_t held = 1;
    static constexpr uint32_t held_with_sleepers = 2;

    void lock_contended();
    void wake_one();

    std::atomic<uint32_t> state_{free_};
};

} // namespace vel::os
