// What a reactor calls: the handler interface, and the template that counts references for it.
#pragma once

#include <vel/sync/reference_counter.h>
#include <vel/types.h>

class VEL_Reactor;

/// Receives the events of sockets, event handles and timers from a VEL_Reactor.
///
/// Threads:   every thread that runs the reactor may call; no lock of the reactor is held. One socket's events come
///            one at a time, an event handle's may come on two threads at once.
/// Ownership: the reactor holds one reference for each registration and each timer, and one during each call; the
///            last `release` deletes the handler.
/// Errors:    a negative result of a signal, accept, connect, input or output call ends the registration for that
///            event, of `handle_timeout` the timer. `error` is the event's own code, 0 when there is none.
/// Limits:    for a socket, `handle` is its number as a pointer.
class VEL_API VEL_Event_Handler {
public:
    VEL_Event_Handler() = default;
    VEL_Event_Handler(const VEL_Event_Handler&) = default;
    VEL_Event_Handler& operator=(const VEL_Event_Handler&) = default;
    virtual ~VEL_Event_Handler();

    /// Adds or drops a reference and returns the new count.
    virtual int addref() = 0;
    virtual int release() = 0;

    /// A registered event handle is set; it stays set until its owner resets it.
    virtual int handle_signal(void* handle, VEL_Reactor* reactor) = 0;

    /// A timer has expired. It repeats with `interval`, which the handler may change.
    virtual int handle_timeout(int32_t timer_id, uint32_t& interval, VEL_Reactor* reactor) = 0;

    virtual int handle_accept(void* handle, VEL_Reactor* reactor, uint32_t error) = 0;
    virtual int handle_connect(void* handle, VEL_Reactor* reactor, uint32_t error) = 0;

    /// There is something to read, or (0x20000012) the peer has closed.
    virtual int handle_input(void* handle, VEL_Reactor* reactor, uint32_t error) = 0;
    virtual int handle_output(void* handle, VEL_Reactor* reactor, uint32_t error) = 0;

    /// The registration for the bits of `mask` has ended; for a timer (32) `handle` is its id.
    virtual int handle_close(void* handle, uint32_t mask, VEL_Reactor* reactor) = 0;
};

/// A handler that counts its references with `Counter` and does nothing at its events.
///
/// Ownership: a new handler has one reference, its creator's. The `release` that brings the count to 0 or below
///            deletes it; nothing guards against one release too many.
/// Limits:    exists for the three counters of `reference_counter.h`. A copy takes the count as it stands, so copying
///            a handler that is in use is of no use.
template <class Counter>
class VEL_Event_Handler_Impl : public VEL_Event_Handler {
public:
    VEL_Event_Handler_Impl() { counter_.increment(); }
    VEL_Event_Handler_Impl(const VEL_Event_Handler_Impl&) = default;
    VEL_Event_Handler_Impl& operator=(const VEL_Event_Handler_Impl&) = default;
    ~VEL_Event_Handler_Impl() override = default;

    int addref() override { return counter_.increment(); }

    int release() override {
        const int count = counter_.decrement();
        if (count <= 0) delete this;
        return count;
    }

    int handle_signal(void*, VEL_Reactor*) override { return 0; }
    int handle_timeout(int32_t, uint32_t&, VEL_Reactor*) override { return 0; }
    int handle_accept(void*, VEL_Reactor*, uint32_t) override { return 0; }
    int handle_connect(void*, VEL_Reactor*, uint32_t) override { return 0; }
    int handle_input(void*, VEL_Reactor*, uint32_t) override { return 0; }
    int handle_output(void*, VEL_Reactor*, uint32_t) override { return 0; }
    int handle_close(void*, uint32_t, VEL_Reactor*) override { return 0; }

private:
    Counter counter_;
};

extern template class VEL_API VEL_Event_Handler_Impl<VEL_Reference_Counter>;
extern template class VEL_API VEL_Event_Handler_Impl<VEL_Reference_Counter_Sync>;
extern template class VEL_API VEL_Event_Handler_Impl<VEL_Reference_Counter_Global_Sync>;
