// Timers in order of expiry, shared by the reactor and the proactor.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>
#include <vel/types.h>

namespace vel {

/// The engine behind VEL_Timer_Queue: it knows handlers only as addresses.
///
/// Invariants: timers of one deadline that were scheduled one after the other stand in one run, a list; `heap_` is a
/// 4-ary heap of runs over (deadline, sequence), and the first of a run knows its place in it. Only the newest run of a
/// deadline grows, and a new run takes a fresh sequence number, so equal deadlines keep the order in which they were
/// scheduled. Each live node is linked in the bucket of its id.
class VEL_API TimerEngine {
public:
    struct Timer {
        int32_t id;
        uint32_t interval;
        uint32_t start;
        void* handler;
    };

    int32_t schedule(void* handler, uint32_t interval_ms, uint64_t now_ms, bool& sooner);
    bool cancel(int32_t id, void*& handler);
    bool reschedule(int32_t id, uint32_t interval_ms, uint64_t now_ms, bool& sooner);
    bool contains(int32_t id) const { return find(id) != none; }

    bool next_due(uint64_t now_ms, int32_t& began_with, Timer& timer) const;
    bool take_first(Timer& timer);

    uint64_t deadline_ms() const { return heap_.empty() ? UINT64_MAX : heap_.front().deadline; }
    uint32_t wait_ms(uint64_t now_ms) const;
    size_t size() const { return size_; }
    void set_last_id_for_test(int32_t last_id) { last_id_ = last_id; }

private:
    static constexpr uint32_t none = UINT32_MAX;

    struct Run {
        uint64_t deadline;
        uint64_t sequence;
        uint32_t first;
        bool operator<(const Run& other) const {
            return deadline != other.deadline ? deadline < other.deadline : sequence < other.sequence;
        }
    };

    struct Node {
        Timer timer;
        uint32_t place;  // of its run in heap_ while it is the first
        uint32_t before; // neighbours in its run
        uint32_t after;
        uint32_t next; // neighbour in its bucket, or in the list of free nodes
    };

    /// A run that can grow, known by its last timer.
    struct Recent {
        uint64_t deadline = 0;
        uint32_t last = none;
    };

    int32_t next_id();
    bool make_room();
    size_t bucket(int32_t id) const;
    uint32_t find(int32_t id) const;
    bool expires_before(uint32_t node, uint32_t other) const;
    void rehash(size_t buckets);
    void unlink(uint32_t node);
    Recent& recent(uint64_t deadline) { return recent_[deadline % recent_.size()]; }
    void enter(uint32_t node, uint64_t deadline);
    void leave(uint32_t node);
    void remove(uint32_t node);
    void remove_run(size_t index);
    void place(size_t index, const Run& run);
    void sift_up(size_t index, const Run& run);
    void sift_down(size_t index, const Run& run);
    void reposition(size_t index, const Run& run);

    std::vector<Run> heap_;
    std::vector<Node> nodes_;       // pooled; never shrinks
    std::vector<uint32_t> buckets_; // power of two; first node of each
    std::array<Recent, 16> recent_; // the newest run of a deadline, if a younger deadline has not taken its place
    size_t size_ = 0;
    uint32_t free_ = none;       // first free node
    uint32_t bucket_shift_ = 32; // 32 minus the binary logarithm of the number of buckets
    uint64_t next_sequence_ = 0;
    int32_t last_id_ = 0;
};

} // namespace vel

/// One timer as the queue shows it.
template <class Handler>
struct VEL_Time_Period {
    int32_t timer_id;  // 1 to 0x7FFFFFFE
    uint32_t interval; // milliseconds from start to expiry
    uint32_t start;    // tick at which it was scheduled or last rescheduled
    Handler* handler;

    /// Milliseconds to expiry at tick `now`, 0 when it is due.
    uint32_t remaining(uint32_t now) const { return now - start < interval ? interval - (now - start) : 0; }
};

/// Periodic timers in order of expiry; timers of equal expiry keep the order in which they were scheduled.
///
/// Threads:   none of its own and no lock: the owner's lock guards every call.
/// Ownership: handlers are addresses to it; the owner adds and drops their references.
/// Errors:    an id that is not there gives false; no error code is set.
/// Limits:    intervals are 32-bit milliseconds, the clock the caller passes in is 64-bit monotonic milliseconds and
///            never goes back. Ids run from 1 to 0x7FFFFFFE and then start again; where one names two timers, the one
///            that expires first is meant. Scheduling and cancelling cost the same with one timer or many.
template <class Handler>
class VEL_Timer_Queue {
public:
    using Period = VEL_Time_Period<Handler>;

    VEL_Timer_Queue() = default;
    virtual ~VEL_Timer_Queue() = default;
    VEL_Timer_Queue(const VEL_Timer_Queue&) = delete;
    VEL_Timer_Queue& operator=(const VEL_Timer_Queue&) = delete;

    /// Adds a timer that expires `interval_ms` from now.
    /// @param sooner  set when the earliest deadline has moved forward, so that whoever sleeps until the former one
    ///                must be woken; cleared otherwise
    /// @return its id, or -1 without memory
    int32_t schedule(Handler* handler, uint32_t interval_ms, uint64_t now_ms, bool& sooner) {
        return engine_.schedule(handler, interval_ms, now_ms, sooner);
    }

    /// Removes a timer and hands back its handler. Nobody needs to be woken: the next deadline is never earlier.
    bool cancel(int32_t id, Handler*& handler) {
        void* found = nullptr;
        if (!engine_.cancel(id, found)) return false;
        handler = static_cast<Handler*>(found);
        return true;
    }

    /// Restarts a timer from now with a new interval, behind the timers of equal expiry.
    bool reschedule(int32_t id, uint32_t interval_ms, uint64_t now_ms, bool& sooner) {
        return engine_.reschedule(id, interval_ms, now_ms, sooner);
    }

    bool contains(int32_t id) const { return engine_.contains(id); }

    /// The first timer if it is due; it stays in the queue. A pass asks until there is none, and reschedules or cancels
    /// each that it gets. Lest timers that are due again at once keep it for ever, it also ends where the timer that it
    /// began with comes round; when that has ended, the one at hand takes its part. Deliberate as it stands: another
    /// timer with a short interval may be called several times in a pass.
    /// @param clock       tells the time; it is asked only where `now_ms` leaves open whether the first timer is due
    /// @param now_ms      what the clock said last, brought up to date
    /// @param began_with  the pass's own, 0 at its start
    template <class Clock>
    bool next_due(Clock clock, uint64_t& now_ms, int32_t& began_with, Period& period) const {
        vel::TimerEngine::Timer timer;
        if (deadline_ms() > now_ms) now_ms = clock();
        return engine_.next_due(now_ms, began_with, timer) && fill(period, timer);
    }

    /// Removes the first timer, due or not, to wind the queue up; false when the queue is empty.
    bool take_first(Period& period) {
        vel::TimerEngine::Timer timer;
        return engine_.take_first(timer) && fill(period, timer);
    }

    /// Tick at which the first timer expires; UINT64_MAX without timers.
    uint64_t deadline_ms() const { return engine_.deadline_ms(); }

    /// Milliseconds until the first timer expires, 0 when it is due, VEL_INFINITE without timers.
    uint32_t wait_ms(uint64_t now_ms) const { return engine_.wait_ms(now_ms); }

    size_t size() const { return engine_.size(); }

    /// Takes the timer role: the one thread that holds it dispatches timers. False when another has it.
    bool acquire_role() {
        if (role_ > 0) return false;
        role_ = 1;
        return true;
    }

    void release_role() {
        if (role_ > 0) --role_;
    }

    /// The next id is the one after `last_id`. For tests only: it brings the end of the ids near.
    void set_last_id_for_test(int32_t last_id) { engine_.set_last_id_for_test(last_id); }

private:
    static bool fill(Period& period, const vel::TimerEngine::Timer& timer) {
        period = {timer.id, timer.interval, timer.start, static_cast<Handler*>(timer.handler)};
        return true;
    }

    vel::TimerEngine engine_;
    int32_t role_ = 0; // threads that hold the timer role, 0 or 1
};
