// A thread that gets no processor on its way to sleep. To be included once in a program: it stands for the C library.
#pragma once

#include <atomic>
#include <sys/epoll.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

namespace vel::testing {

/// Stops one thread before it sleeps in an epoll the next time, until it is let go.
struct StarvedSleeper {
    explicit StarvedSleeper(uint32_t id) : thread(id) { next = this; }

    const uint32_t thread;
    std::atomic<bool> stopped{false}, let_go{false};
    inline static std::atomic<StarvedSleeper*> next{nullptr};
};

} // namespace vel::testing

extern "C" int epoll_pwait2(int epoll, epoll_event* events, int room, const timespec* timeout, const sigset_t*) {
    using vel::testing::StarvedSleeper;
    StarvedSleeper* victim = StarvedSleeper::next;
    if (victim && victim->thread == static_cast<uint32_t>(::gettid()) &&
        StarvedSleeper::next.compare_exchange_strong(victim, nullptr)) {
        victim->stopped = true;
        while (!victim->let_go) std::this_thread::yield();
    }
    return static_cast<int>(::syscall(SYS_epoll_pwait2, epoll, events, room, timeout, nullptr, 0));
}
