// What the stream, the acceptor and the datagram socket of a reactor offer alike; users derive from those.
#pragma once

#include <vel/reactor/event_handler.h>
#include <vel/reactor/reactor_link.h>
#include <vel/sync/mutex.h>
#include <vel/sync/thread_safety.h>

class VEL_INET_Addr;

namespace vel {

/// A handler with one socket, its registration and its timers, all under one lock. It adds no virtual slots.
///
/// Threads:   every call from any thread.
/// Ownership: owns the socket. The class derived from it closes it in its destructor, before this part goes.
/// Errors:    -1 with the socket layer's or the reactor's code; 0x20000004 without a reactor.
class VEL_API ReactorSocket : public VEL_Event_Handler_Impl<VEL_Reference_Counter_Global_Sync> {
public:
    ~ReactorSocket() override;
    ReactorSocket(const ReactorSocket&) = delete;
    ReactorSocket& operator=(const ReactorSocket&) = delete;

    uint64_t get_handle() const;

    /// An accepted stream is given its reactor before it selects events.
    VEL_Reactor* reactor() const;
    void reactor(VEL_Reactor* reactor);

    /// Registers for more events (4 input, 8 output, 16 accept); an accepted stream starts with none. Returns 0 or -1.
    int select_event(uint32_t mask);

    /// Takes back some or all events without `handle_close`.
    void clear_event(uint32_t mask);
    void clear_event();

    /// Calls `handle_timeout` every `timeout_ms` from now on; a timer that runs already starts anew. When
    /// `handle_timeout` returns a negative value the socket is closed.
    int set_timeout(uint32_t timeout_ms);
    void cancel_timeout();

    /// The time-out timer, 0 for none.
    int32_t get_timer_id() const;

protected:
    ReactorSocket();

    // Of the sockets that transfer data; these make them public.

    /// Stops input until `resume_read`; every `timeout_ms` until then `handle_timeout` is called.
    int suspend_read(uint32_t timeout_ms);

    /// The timer of the suspension, 0 for none.
    int32_t get_suspend_id() const;
    int get_local_addr(VEL_INET_Addr& address);

    mutable VEL_Thread_Mutex lock_;
    ReactorLink link_ VEL_GUARDED_BY(lock_);
};

} // namespace vel
