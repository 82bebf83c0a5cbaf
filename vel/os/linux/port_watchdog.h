// The thread that notices when a completion port stands still.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <thread>

namespace vel::os {

class PortQueue;

/// Looks at a port about once a millisecond while there is something to watch, and sleeps otherwise.
///
/// Threads:   every call from any thread; the thread is created by the first `watch`.
class PortWatchdog {
public:
    explicit PortWatchdog(PortQueue& queue) : queue_(queue) {}
    ~PortWatchdog() { stop(); }
    PortWatchdog(const PortWatchdog&) = delete;
    PortWatchdog& operator=(const PortWatchdog&) = delete;

    /// Starts watching. False when the system gives no thread for it.
    bool watch();

    /// Ends the thread; nothing is watched from now on.
    void stop();

private:
    bool start();
    void run();
    void call();

    PortQueue& queue_;
    std::atomic<uint32_t> calls_{0};
    std::atomic<bool> started_{false};
    std::atomic<bool> stopping_{false};
    std::mutex start_lock_;
    std::thread thread_;
};

} // namespace vel::os
