// The watchdog's thread: a look a millisecond, and sleep between calls.
#include <vel/os/linux/port_watchdog.h>

#include <vel/os/linux/futex.h>
#include <vel/os/linux/port_queue.h>
#include <vel/os/linux/service_thread.h>

namespace vel::os {

bool PortWatchdog::watch() {
    if (!started_.load(std::memory_order_acquire) && !start()) return false;
    call();
    return true;
}

bool PortWatchdog::start() {
    const std::lock_guard guard(start_lock_);
    if (stopping_.load(std::memory_order_relaxed) || thread_.joinable()) return true;
    if (!start_service_thread(thread_, "vel-port-watch", [this] { run(); })) return false;
    started_.store(true, std::memory_order_release);
    return true;
}

void PortWatchdog::stop() {
    const std::lock_guard guard(start_lock_);
    stopping_.store(true, std::memory_order_relaxed);
    call();
    if (thread_.joinable()) thread_.join();
}

void PortWatchdog::call() {
    calls_.fetch_add(1, std::memory_order_release);
    futex_wake_one(&calls_);
}

void PortWatchdog::run() {
    constexpr timespec period{0, 1'000'000};
    while (!stopping_.load(std::memory_order_relaxed)) {
        // Read before the look: a call that comes after the look has decided to rest changes the word.
        const uint32_t calls = calls_.load(std::memory_order_acquire);
        futex_wait(calls_, calls, queue_.tick() ? &period : nullptr);
    }
}

} // namespace vel::os
