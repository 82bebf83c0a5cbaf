// Looks at what a thread sleeps in, for tests that may touch it only there.
#pragma once

#include <chrono>
#include <cstdint>
#include <fstream>
#include <string>
#include <sys/syscall.h>
#include <thread>

namespace vel::testing {

/// True once the thread sleeps in a system call that waits for a lock; false when it does not come to that in 10 s.
inline bool comes_to_wait_for_lock(uint32_t thread_id) {
    const std::string path = "/proc/self/task/" + std::to_string(thread_id) + "/syscall";
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (std::chrono::steady_clock::now() < end) {
        long call = -1;
        std::ifstream(path) >> call; // a word instead while the thread runs
        if (call == SYS_futex || call == SYS_flock || call == SYS_fcntl) return true;
        std::this_thread::yield();
    }
    return false;
}

} // namespace vel::testing
