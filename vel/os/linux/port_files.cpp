// Positioned reads and writes on a few threads.
#include <vel/os/linux/port_files.h>

#include <algorithm>
#include <cerrno>
#include <unistd.h>
#include <vel/os/error_codes.h>
#include <vel/os/linux/completion_port.h>
#include <vel/os/linux/error.h>
#include <vel/os/linux/futex.h>
#include <vel/os/linux/service_thread.h>

namespace vel::os {
namespace {

constexpr uint64_t largest_step = 1 << 30;

ssize_t step(int descriptor, bool reading, char* at, size_t size, off_t offset) {
    ssize_t moved;
    do {
        moved = reading ? ::pread(descriptor, at, size, offset) : ::pwrite(descriptor, at, size, offset);
    } while (moved < 0 && errno == EINTR);
    return moved;
}

// Moves everything up to the end of the file.
uint32_t transfer(int descriptor, IoRequest& request) {
    const bool reading = kind_of(request) == IoKind::read_file;
    const uint64_t offset = uint64_t{request.OffsetHigh} << 32 | request.Offset;
    while (request.InternalHigh < request.length) {
        const uint64_t done = request.InternalHigh;
        const size_t size = std::min(request.length - done, largest_step);
        const ssize_t moved = step(descriptor, reading, static_cast<char*>(request.buffer) + done, size,
                                   static_cast<off_t>(offset + done));
        if (moved < 0) return system_error(errno);
        if (moved == 0) return done == 0 && reading ? error::end_of_file : error::none;
        request.InternalHigh += static_cast<uint64_t>(moved);
    }
    return error::none;
}

} // namespace

bool FilePool::submit(PortDirection& direction) {
    const std::lock_guard guard(lock_);
    if (idle_ == 0 && !add_thread() && thread_count_ == 0) return false;
    if (direction.lane == PortDirection::Lane::idle) enqueue(direction);
    direction.lane_again = true;
    return true;
}

bool FilePool::add_thread() {
    if (stopping_ || thread_count_ == most_threads) return false;
    if (!start_service_thread(threads_[thread_count_], "vel-port-files", [this] { run(); })) return false;
    ++thread_count_;
    return true;
}

void FilePool::enqueue(PortDirection& direction) {
    direction.lane = PortDirection::Lane::queued;
    direction.next_lane = nullptr;
    (last_ ? last_->next_lane : first_) = &direction;
    last_ = &direction;
    work_.notify_one();
}

void FilePool::withdraw(PortDirection& input, PortDirection& output) {
    const std::lock_guard guard(lock_);
    withdraw(input);
    withdraw(output);
}

void FilePool::withdraw(PortDirection& direction) {
    direction.lane_closed = true;
    if (direction.lane != PortDirection::Lane::queued) return;
    direction.lane = PortDirection::Lane::idle;
    PortDirection* before = nullptr;
    for (PortDirection* each = first_; each != &direction; each = each->next_lane) before = each;
    (before ? before->next_lane : first_) = direction.next_lane;
    if (last_ == &direction) last_ = before;
}

void FilePool::wait_until_idle(PortDirection& direction) {
    while (direction.lane_busy.load(std::memory_order_acquire)) futex_wait(direction.lane_busy, 1);
}

void FilePool::stop() {
    {
        const std::lock_guard guard(lock_);
        stopping_ = true;
        work_.notify_all();
    }
    for (std::thread& thread : threads_)
        if (thread.joinable()) thread.join();
}

void FilePool::run() {
    std::unique_lock guard(lock_);
    for (;;) {
        ++idle_;
        work_.wait(guard, [this] { return stopping_ || first_; });
        --idle_;
        if (stopping_) return;
        PortDirection& direction = *first_;
        first_ = direction.next_lane;
        if (!first_) last_ = nullptr;
        direction.lane = PortDirection::Lane::running;
        direction.lane_again = false;
        direction.lane_busy.store(1, std::memory_order_relaxed);
        guard.unlock();
        const bool more = serve(direction);
        guard.lock();
        retire(direction, more);
    }
}

// One transfer. True when another one waits behind it.
bool FilePool::serve(PortDirection& direction) {
    IoRequest* request = nullptr;
    {
        const std::lock_guard guard(direction);
        if (direction.head) request = direction.take_first();
    }
    if (!request) return false;
    const uint32_t code = transfer(direction.lane_owner->descriptor(), *request);
    port_.finish(*request, code);
    const std::lock_guard guard(direction);
    return direction.head != nullptr;
}

void FilePool::retire(PortDirection& direction, bool more) {
    direction.lane = PortDirection::Lane::idle;
    if ((more || direction.lane_again) && !direction.lane_closed) enqueue(direction);
    direction.lane_busy.store(0, std::memory_order_release);
    futex_wake_one(&direction.lane_busy);
}

} // namespace vel::os
