// What a socket class keeps about its reactor: registration, time-out timer and read suspension; not for users.
#pragma once

#include <vel/reactor/socket.h>
#include <vel/types.h>

class VEL_Event_Handler;
class VEL_Reactor;

namespace vel {

/// One socket's connection to its reactor, shared by the stream, the acceptor and the datagram socket.
///
/// Threads:   the owner's lock guards it and is held during every call; calls into the reactor are made under it, so
///            the reactor must not call handlers under its own lock, and does not.
/// Ownership: owns the socket; the reactor outlives the registration. `handler` is the owner.
/// Errors:    -1 with the thread's code, as the reactor's.
struct ReactorLink {
    VEL_Reactor* reactor = nullptr;
    VEL_Socket socket;
    uint32_t events = 0;    // bits registered with the reactor
    int32_t timer_id = 0;   // time-out timer, 0 for none
    int32_t suspend_id = 0; // read suspension, 0 for none

    /// 10038 for a closed socket, 0x20000004 without a reactor; else 0.
    int check_open() const;

    int select_event(VEL_Event_Handler* handler, uint32_t mask);

    /// Removes bits without `handle_close`.
    void clear_event(VEL_Event_Handler* handler, uint32_t mask);
    int set_timeout(VEL_Event_Handler* handler, uint32_t timeout_ms);
    void cancel_timeout();

    /// Stops input for `timeout_ms`; the owner's `handle_timeout` sees the end by the timer's id.
    int suspend_read(VEL_Event_Handler* handler, uint32_t timeout_ms);
    int resume_read(VEL_Event_Handler* handler);

    /// After the reactor has ended a registration or a timer: forgets what ended, then takes back all the rest without
    /// further `handle_close`, closes the socket and forgets the reactor.
    void ended(VEL_Event_Handler* handler, void* handle, uint32_t mask);

    /// Takes back everything and closes the socket. Registration and time-out timer are reported to `handle_close`
    /// unless `no_close`; the suspension never is.
    void close(VEL_Event_Handler* handler, bool no_close);
};

} // namespace vel
