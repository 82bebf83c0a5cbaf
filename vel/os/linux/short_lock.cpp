// The slow ways of the short lock: spinning, then sleeping.
#include <vel/os/linux/short_lock.h>

#include <vel/os/linux/futex.h>

namespace vel::os {

void ShortLock::lock_contended() {
    constexpr int spins = 100; // about a microsecond, the length of a short system call
    for (int spin = 0; spin < spins; ++spin) {
        if (state_.load(std::memory_order_relaxed) == free_ && try_lock()) return;
        __builtin_ia32_pause();
    }
    while (state_.exchange(held_with_sleepers, std::memory_order_acquire) != free_)
        futex_wait(state_, held_with_sleepers);
}

void ShortLock::wake_one() { futex_wake_one(&state_); }

} // namespace vel::os
