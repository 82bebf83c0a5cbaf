// Wait set: socket notices and events that threads wait for together; what a reactor stands on.
//
// A notice says that something has become true of a socket. It is recorded once, when it is wanted, armed and true,
// and is disarmed until what its reader does arms it again:
//
//   notice      true when                                                   armed again by
//   read 1      unread data on a stream, a datagram waits                   every receive on the socket
//   write 2     writable, and connected when it is a stream                 a connect or accept that succeeded, a send
//                                                                           that met 10035
//   accept 8    a connection waits                                          every accept on the socket
//   connect 16  a connect that was started has finished; the error is its   a new connect
//               result; a failed one gives this notice alone
//   close 32    the peer closed and nothing is unread (error 0), or the     nothing: delivered once
//               connection broke (its error)
//
// Whoever binds a socket arms every wanted notice but a close or connect that was delivered already, so what is true
// by then is noticed at once. A notice that is recorded is true, not merely possible: nobody is called for nothing.
#pragma once

#include <memory>
#include <vel/types.h>

namespace vel::os {

namespace notice {
inline constexpr uint32_t read = 1;
inline constexpr uint32_t write = 2;
inline constexpr uint32_t accept = 8;
inline constexpr uint32_t connect = 16;
inline constexpr uint32_t close = 32;
inline constexpr uint32_t all = read | write | accept | connect | close;
} // namespace notice

/// Notices taken from a socket. An error is 0 where its notice has none, or was not taken.
struct Notices {
    uint32_t mask = 0;
    uint32_t connect_error = 0;
    uint32_t close_error = 0;
};

/// A member whose turn it is to be served.
struct Turn {
    uint64_t key = 0; // 0 before the first and behind the last
    Notices notices;  // what its socket had recorded
};

enum class WaitEnd { signalled, woken, timed_out };

/// Sockets and events that any number of threads wait for together.
///
/// Members have keys, chosen by the owner: not 0, each larger than those before it, so that the order of keys is the
/// order of registration. A member is signalled while its event is set or its socket has recorded notices.
/// Threads:   every call from any thread. A member that is added, changed or signalled while threads wait frees one.
/// Ownership: the set owns neither sockets nor events. One that is closed while it is a member falls silent; its place
///            stays until it is removed.
/// Errors:    codes, 0 on success; 10038 or 6 for a dead handle.
/// Limits:    63 members, which the owner sees to.
class WaitSet {
public:
    static constexpr uint32_t capacity = 63;

    virtual ~WaitSet() = default;

    /// Wants these notices of a socket from now on, instead of those before; a former binding of the socket, here or
    /// elsewhere, ends. 0 wants none and keeps the member. A socket into which a port accepts stays bound, to the
    /// connection from then on, and so becomes non-blocking.
    virtual uint32_t bind(uint64_t key, uint64_t socket, uint32_t notices) = 0;

    /// Adds an event or a thread. The set never resets it: a manual-reset one stays signalled until its owner does; an
    /// auto-reset one is taken by its turn.
    virtual uint32_t add_event(uint64_t key, void* event) = 0;

    /// Whether a member is still open and bound here; what is not stays silent.
    virtual bool has(uint64_t key) = 0;

    /// Takes a member out; an unknown key does nothing. Its socket reports nothing any more.
    virtual void remove(uint64_t key) = 0;

    /// Counts the calls of `wake`. Read before what the wake-ups tell of, and given to `wait`, none of them is missed.
    virtual uint32_t generation() const = 0;

    /// Waits until a member is signalled that no thread holds. Time is counted to the end: 0 looks without waiting,
    /// VEL_INFINITE waits for ever.
    /// @param generation  what `generation` gave; a wait of an older one ends at once
    virtual WaitEnd wait(uint32_t generation, uint32_t timeout_ms) = 0;

    /// Goes on to the first member behind `turn.key`, in the order of keys, that is signalled by now. Key 0 starts with
    /// what the `wait` before has found. A socket is held during its turn, so that one thread at a time serves it.
    /// False at the end.
    virtual bool next(Turn& turn) = 0;

    /// Ends a turn before `next` does. What its socket has recorded meanwhile and still is true signals it again.
    virtual void put_back(Turn& turn) = 0;

    /// Ends the waits of all threads that wait, and those of an older generation.
    virtual void wake() = 0;
};

/// Errors: 4, 8.
uint32_t create_wait_set(std::unique_ptr<WaitSet>& set);

} // namespace vel::os
