// Sleeping on a word and waking its sleepers; safe in a signal handler.
#pragma once

#include <atomic>
#include <ctime>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <vel/types.h>

namespace vel::os {

/// Sleeps while the word holds `expected`; returns also on a signal, on time-out and for no reason.
/// @param timeout  relative; null for none
inline void futex_wait(std::atomic<uint32_t>& word, uint32_t expected, const timespec* timeout = nullptr) {
    ::syscall(SYS_futex, &word, FUTEX_WAIT_PRIVATE, expected, timeout, nullptr, 0);
}

/// Only the address counts: waking a word whose owner is gone does no harm.
inline void futex_wake_one(std::atomic<uint32_t>* word) {
    ::syscall(SYS_futex, word, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

inline void futex_wake_all(std::atomic<uint32_t>& word) {
    ::syscall(SYS_futex, &word, FUTEX_WAKE_PRIVATE, INT32_MAX, nullptr, nullptr, 0);
}

} // namespace vel::os
