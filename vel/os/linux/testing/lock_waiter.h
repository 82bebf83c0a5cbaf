// Tells when a thread sleeps, for tests that may touch it only then.
#pragma once

#include <fstream>
#include <string>
#include <sys/syscall.h>
#include <thread>
#include <vel/os/clock.h>

namespace vel::testing {

/// True once the thread sleeps in a system call that waits for a lock; false when it has not come to that in 10 s.
inline bool comes_to_wait_for_lock(uint32_t thread_id) {
    const std::string path = "/proc/self/task/" + std::to_string(thread_id) + "/syscall";
    for (const uint64_t end = os::tick_ms64() + 10000; os::tick_ms64() < end; std::this_thread::yield()) {
        long call = -1;
        std::ifstream(path) >> call; // a word instead while the thread runs
        if (call == SYS_futex || call == SYS_flock || call == SYS_fcntl) return true;
    }
    return false;
}

} // namespace vel::testing
