// Tells when a thread sleeps, for tests that may touch it only then.
#pragma once

#ifndef __has_feature // a word of one compiler only
#define __has_feature(name) 0
#endif

#include <algorithm>
#include <fstream>
#include <initializer_list>
#include <string>
#include <sys/syscall.h>
#include <thread>
#include <vel/os/clock.h>

namespace vel::testing {

/// Under the thread sanitizer signals come late, and a killed thread is never joined.
#if defined(__SANITIZE_THREAD__) || __has_feature(thread_sanitizer)
inline constexpr bool delays_signals = true;
#else
inline constexpr bool delays_signals = false;
#endif

/// True once the thread sleeps in one of these system calls; false when it has not come to that in 10 s.
inline bool comes_to_sleep_in(uint32_t thread_id, std::initializer_list<long> calls) {
    const std::string path = "/proc/self/task/" + std::to_string(thread_id) + "/syscall";
    for (const uint64_t end = os::tick_ms64() + 10000; os::tick_ms64() < end; std::this_thread::yield()) {
        long call = -1;
        std::ifstream(path) >> call; // a word instead while the thread runs
        if (std::find(calls.begin(), calls.end(), call) != calls.end()) return true;
    }
    return false;
}

/// The same for the calls that wait for a lock.
inline bool comes_to_wait_for_lock(uint32_t thread_id) {
    return comes_to_sleep_in(thread_id, {SYS_futex, SYS_flock, SYS_fcntl});
}

} // namespace vel::testing
