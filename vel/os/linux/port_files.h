// The threads that read and write files for a completion port.
#pragma once

#include <condition_variable>
#include <mutex>
#include <thread>
#include <vel/os/linux/port_binding.h>

namespace vel::os {

/// A few threads that serve the directions of files as lanes: one transfer of a lane at a time, lanes in turn.
///
/// Threads:   every call from any thread. `submit` and `withdraw` are called under the directions' locks.
/// Invariant: a lane is in the queue exactly while its state is `queued`; a direction outlives the time it is busy.
class FilePool {
public:
    explicit FilePool(PortObject& port) : port_(port) {}
    ~FilePool() { stop(); }
    FilePool(const FilePool&) = delete;
    FilePool& operator=(const FilePool&) = delete;

    /// The direction gets a request. False when there is no thread to serve it.
    bool submit(PortDirection& direction);

    /// Serves both directions no more; a transfer that is under way goes on.
    void withdraw(PortDirection& input, PortDirection& output);

    /// Waits for the transfer that is under way in a direction that was withdrawn.
    static void wait_until_idle(PortDirection& direction);

    /// Ends the threads once each has finished its transfer. Lanes are served no more.
    void stop();

private:
    static constexpr unsigned most_threads = 4;

    void run();
    void enqueue(PortDirection& direction);
    void withdraw(PortDirection& direction);
    bool serve(PortDirection& direction);
    void retire(PortDirection& direction, bool more);
    bool add_thread();

    PortObject& port_;
    std::mutex lock_;
    std::condition_variable work_;
    PortDirection* first_ = nullptr;
    PortDirection* last_ = nullptr;
    std::thread threads_[most_threads];
    unsigned thread_count_ = 0;
    unsigned idle_ = 0;
    bool stopping_ = false;
};

} // namespace vel::os
