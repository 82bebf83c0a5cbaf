// Readiness-based demultiplexer: waits for sockets, events and timers and calls their handlers.
#pragma once

#include <atomic>
#include <memory>
#include <vel/reactor/event_handler.h>
#include <vel/reactor/timer_queue.h>
#include <vel/sync/mutex.h>
#include <vel/sync/thread_safety.h>
#include <vel/types.h>

namespace vel {
class ReactorRepository;
struct ReactorSlot;
} // namespace vel

namespace vel::os {
class WaitSet;
struct Turn;
} // namespace vel::os

class VEL_Guard;

/// What a handler can be registered for. 4 also reports the peer's close, as input with an error.
enum VEL_Event_Mask : uint32_t {
    VEL_SIGNAL_EVENT = 1, // event handles only
    VEL_CONNECT_EVENT = 2,
    VEL_INPUT_EVENT = 4,
    VEL_OUTPUT_EVENT = 8,
    VEL_ACCEPT_EVENT = 16,
    VEL_TIMER_EVENT = 32,     // only in `handle_close`: a timer has ended
    VEL_NO_CLOSE_CALL = 0x400 // with `remove_handler`: `handle_close` is not called
};

/// Runs handlers when what they are registered for has happened, on the threads that call `handle_event`.
///
/// In one cycle the members are served in the order of their registration, each at most once; a socket in the order
/// accept, connect, output, input, close. Output comes before input on purpose.
/// Threads:   every call from any thread; any number of threads may run `handle_event`. One lock guards tables and
///            timers and is not held during a handler's call. One socket's handlers run on one thread at a time; an
///            event handle may be served by two. One of the threads serves the timers; once it has left, the next that
///            calls `handle_event`.
/// Ownership: one reference to the handler for each registration and each timer, and one during each call. The reactor
///            closes neither sockets nor event handles.
/// Errors:    -1 with 0x20000007 once deactivated, 0x20000008 with 63 registrations (also for more bits of one that is
///            there, on purpose), 87 for a null handler or handle or an invalid socket, else the system's code.
/// Limits:    63 registrations; intervals below 2^32 ms, right across the wrap of the tick count.
///
///     VEL_Reactor reactor;
///     Chat_Acceptor* acceptor = new Chat_Acceptor;          // derived from VEL_Acceptor
///     if (acceptor->open(&reactor, 7000, 0, 0, 0) < 0) return -1;
///     acceptor->release();                                  // the registration keeps it
///     while (reactor.handle_event(VEL_INFINITE) >= 0) {}
class VEL_API VEL_Reactor {
public:
    /// Throws VEL_Exception with 8 or the system's code.
    VEL_Reactor();

    /// Closes.
    virtual ~VEL_Reactor();
    VEL_Reactor(const VEL_Reactor&) = delete;
    VEL_Reactor& operator=(const VEL_Reactor&) = delete;

    /// Registers an event handle (mask 1), or adds bits to a registration that is there.
    /// @return 0 for a new registration, 1 for more bits of one, -1
    int register_handler(VEL_Event_Handler* handler, void* event_handle, uint32_t mask);

    /// The same for a socket, its number as a pointer; it becomes non-blocking and stays so. The first handler stays:
    /// bits are added to its registration. But one whose socket or event was closed without a removal, silent since
    /// then, ends here with `handle_close`, since its number has come to something else.
    int register_handler(void* socket, VEL_Event_Handler* handler, uint32_t mask);

    /// Ends a registration for the bits of `mask`, and unless VEL_NO_CLOSE_CALL is among them calls `handle_close` with
    /// those that were registered. Any removal also ends the notice of the peer's close, on purpose, until input is
    /// registered again.
    /// @return 1 when bits are left, 0 when the registration is gone; -1, the code left as it is, for a handle that is
    ///         not registered or has none of the bits
    int remove_handler(VEL_Event_Handler* handler, void* event_handle, uint32_t mask);
    int remove_handler(void* socket, VEL_Event_Handler* handler, uint32_t mask);

    /// Waits until something is due and serves one cycle of it.
    /// @return how many members and timers were served, 0 when the time was up; -1 with 0x20000007
    int handle_event(uint32_t timeout_ms);

    /// Lets every waiting thread look at registrations and timers afresh. Returns 0.
    int wakeup();

    /// Ends all loops for good: waits under way and later ones give -1 with 0x20000007.
    void deactivate();
    bool is_activate() const { return !deactivated_.load(std::memory_order_acquire); }

    /// Deactivates and ends every timer, then every registration, each with `handle_close`.
    void close();

    /// Calls the handler's `handle_timeout` every `interval_ms` milliseconds until that refuses.
    /// @return the timer's id, 1 to 0x7FFFFFFE; -1 with 0x20000007, or without memory and then with the code left alone
    int32_t schedule_timer(VEL_Event_Handler* handler, uint32_t interval_ms);

    /// Ends a timer and, unless `no_close`, calls `handle_close(id, 32, this)`. An unknown id gives -1 and leaves the
    /// code alone.
    int cancel_timer(int32_t timer_id, bool no_close);

    /// Starts the timer's interval anew from now. Errors: 87 for an unknown id.
    int reschedule_timer(int32_t timer_id, uint32_t interval_ms);

private:
    using TimerQueue = VEL_Timer_Queue<VEL_Event_Handler>;

    uint32_t refusal(bool named) const VEL_REQUIRES(lock_);
    int admit(const vel::ReactorSlot& slot, uint32_t code) VEL_REQUIRES(lock_);
    void drop(const vel::ReactorSlot& slot) VEL_REQUIRES(lock_);
    void end_orphan(void* handle);
    int end_handle(void* handle, uint32_t mask);
    void end_slot(const vel::ReactorSlot& slot, uint32_t mask);
    int end_bits(const vel::ReactorSlot& slot, uint32_t mask, VEL_Guard& guard) VEL_REQUIRES(lock_);
    void close_timers();
    void close_slots();

    int run_cycle(uint32_t timeout_ms, bool timer_role);
    int dispatch_signalled();
    void dispatch(const vel::os::Turn& turn);
    uint32_t call_signal(const vel::ReactorSlot& slot);
    uint32_t call_handlers(const vel::ReactorSlot& slot, const vel::os::Turn& turn);

    bool acquire_timer();
    void release_timer();
    uint32_t calc_timeout();
    int dispatch_timer();
    bool restart(const TimerQueue::Period& timer, uint64_t& now_ms) VEL_REQUIRES(lock_);
    uint32_t until_first_timer() const;
    void timers_changed(bool sooner) VEL_REQUIRES(lock_);

    VEL_Thread_Mutex lock_;
    std::unique_ptr<TimerQueue> timers_ VEL_PT_GUARDED_BY(lock_);
    std::unique_ptr<vel::ReactorRepository> repository_ VEL_PT_GUARDED_BY(lock_);
    std::unique_ptr<vel::os::WaitSet> wait_set_;
    std::atomic<bool> deactivated_{false}; // set under the lock, for good

    // A cycle without a due timer takes no lock for the timers: it goes by these.
    std::atomic<uint64_t> first_due_ms_{UINT64_MAX}; // tick of the first timer; changes under the lock
    std::atomic<bool> timer_role_{false};            // a thread in `handle_event` serves the timers
    std::atomic<bool> timer_waits_{false};           // it goes by the first timer's tick, and must hear of a sooner one
};
