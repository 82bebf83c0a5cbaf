// The ready queue of a completion port and the threads that wait at it.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <vel/os/error_codes.h>
#include <vel/os/linux/deadline.h>
#include <vel/os/linux/port_events.h>
#include <vel/os/linux/port_inbox.h>
#include <vel/os/linux/port_pace.h>
#include <vel/os/linux/port_watchdog.h>
#include <vel/os/linux/short_lock.h>
#include <vel/types.h>

namespace vel::os {

/// Finished requests in the order in which they finished, and the workers that take them.
///
/// A request goes to the inbox first, without the lock; whoever finds nothing ready moves the inbox over.
/// A worker that comes for a request takes the first ready one. When there is none it leads (waits for readiness and
/// performs the transfers itself) unless another one does, and follows (sleeps) otherwise.
///
/// Who goes to sleep says so before it looks into the inbox for the last time, and who fills the inbox looks for
/// sleepers afterwards: so one of the two sees the other, and a request never waits in the inbox while all sleep.
///
/// Invariants, all under the lock:
///  - a thread is running from the request it took until it comes for the next one; `running_` counts those the
///    watchdog has not given up on;
///  - at most one thread leads; while it sleeps there, `leader_sleeping_` is set;
///  - a sleeper is woken when nobody is awake to take what is ready, or when those who are awake would take long for it
///    and there is a processor for one more; at most one such wake is under way;
///  - in every other case in which somebody sleeps while there is something to do, the watchdog is watching.
/// The lock is never held during a system call, but when the port closes.
class PortQueue {
public:
    PortQueue(PortEvents& events, uint32_t concurrency);
    ~PortQueue();

    /// Queues a finished request: 0 or 735.
    uint32_t push(IoRequest& request) {
        if (!inbox_.push(request)) return error::port_closed;
        if (sleepers_seen()) wake_for_push(); // whoever is awake looks into the inbox before it sleeps
        return error::none;
    }

    /// Takes the first finished request: 0, 258 or 735.
    uint32_t take(uint32_t timeout_ms, IoRequest*& request);

    /// From now on there is readiness to wait for.
    void enable_events();

    /// The thread was ended by force in `take`: nobody waits for it any more. True when it led, and what it may have
    /// fetched is lost.
    bool abandon(uint32_t thread_id);

    /// Frees every waiter for good. Returns the chain of requests that nobody took.
    IoRequest* close();

private:
    friend class PortWatchdog;

    /// A sleeper's own record. The queue's memory: the sleeper may be ended by force.
    struct Follower {
        std::atomic<uint32_t> woken{0};
        uint32_t thread = 0;
        Follower* next = nullptr;
    };
    struct FollowerList {
        Follower* first = nullptr; // the last that came

        void push(Follower& follower);
        void remove(const Follower& follower);
        Follower* find(uint32_t thread) const;
        void clear();
    };

    /// What is left to do for a sleeper once the lock is free.
    struct Wake {
        std::atomic<uint32_t>* follower = nullptr;
        bool leader = false;
        bool watchdog = false;

        bool any() const { return follower || leader || watchdog; }
    };
    using Guard = std::unique_lock<ShortLock>;

    bool work_waits() const { return ready_ > 0 || (!leader_ && events_enabled_); }
    bool somebody_sleeps() const { return followers_.first || leader_sleeps(); }
    bool leader_sleeps() const { return leader_sleeping_.load(std::memory_order_relaxed); }
    /// Read without the lock, behind a push.
    bool sleepers_seen() const {
        return leader_sleeping_.load(std::memory_order_seq_cst) || has_followers_.load(std::memory_order_seq_cst);
    }
    void wake_for_push();
    uint32_t awake() const;

    struct RunningFor;
    static RunningFor& note_of_thread(uint64_t port);
    static uint32_t caller_id();
    void come_back(RunningFor& mine);
    Wake go_out(RunningFor& mine);
    void collect();
    void append(const RequestChain& chain);
    IoRequest* pop();
    int64_t pace_clock() const;
    void lead(Guard& guard, const Deadline& deadline);
    void follow(Guard& guard, const Deadline& deadline);
    bool have_spare_follower(Guard& guard);
    void leave(Follower& follower);
    void call(Follower& follower);
    Wake wake_if_needed();
    Wake wake_one();
    void carry_out(const Wake& wake);
    bool tick();
    uint32_t rescue_count();

    PortEvents& events_;
    PortWatchdog watchdog_;
    const uint64_t id_;     // tells ports apart in the threads' own notes
    const uint32_t useful_; // threads that the processors and the port's owner have use for

    // Three cache lines: what every push reads, what every push writes, and what is the workers' own.
    alignas(64) std::atomic<bool> leader_sleeping_{false};
    std::atomic<bool> has_followers_{false}; // mirrors `followers_`
    alignas(64) PortInbox inbox_;
    alignas(64) ShortLock lock_;
    IoRequest* head_ = nullptr;
    IoRequest* tail_ = nullptr;
    uint32_t ready_ = 0;
    FollowerList followers_;
    uint32_t running_ = 0;
    uint32_t epoch_ = 0; // counts how often the watchdog gave up on those running
    uint32_t waking_ = 0;
    uint32_t taken_since_poll_ = 0;
    PortPace pace_;
    uint32_t leader_ = 0; // its thread; 0 while nobody leads
    bool interrupted_ = false;
    bool events_enabled_ = false;
    bool closed_ = false;
    bool watching_ = false;
    bool unwatched_ = false; // no watchdog to be had: wake at once
    bool waited_last_tick_ = false;
    uint32_t quiet_ticks_ = 0;
    uint64_t taken_ = 0;
    uint64_t taken_last_tick_ = 0;
    FollowerList called_; // woken, on their way back; `waking_` counts them
    FollowerList spare_;
};

} // namespace vel::os
