// What the asynchronous stream, acceptor and datagram socket have in common; no interface of its own for users.
#pragma once

#include <atomic>
#include <memory>
#include <new>
#include <vel/platform/inet_addr.h>
#include <vel/proactor/async_operation.h>
#include <vel/sync/guard.h>
#include <vel/sync/mutex.h>

namespace vel {

/// A socket registered in a proactor under a completion key, with an optional timer.
///
/// Threads:   every call from any thread; the members may be read without the lock.
/// Invariants: the lock comes after the proactor's (VEL_Proactor::close_handle calls a handler under its own lock), so
///            no call into the proactor's table or timers is made while this one is held: each operation decides under
///            its lock, releases it, calls, and stores the outcome only if proactor and key are still the same (the
///            socket may be closed already, by `close_handle`). The timer id alone is stored under the proactor's lock;
///            whoever takes it out of here cancels the timer.
class VEL_API AsyncSocket {
public:
    AsyncSocket() = default;
    AsyncSocket(const AsyncSocket&) = delete;
    AsyncSocket& operator=(const AsyncSocket&) = delete;

    uint32_t key() const { return key_; }
    uint64_t socket() const { return socket_; }
    void* handle() const { return reinterpret_cast<void*>(socket()); }
    VEL_Proactor* proactor() const { return proactor_; }

    /// 0, or -1 with 10038 (no socket) or 0x20000004 (no proactor).
    int check_open() const { return socket_ != VEL_INVALID_SOCKET && proactor_ != nullptr ? 0 : refuse(); }

    /// Takes an open socket over and registers it under a new key; on failure the socket is closed.
    /// @param key  receives the completion key
    /// Errors: 0x20000004 (no proactor), 10056 when a socket is held already, those of VEL_Proactor::register_handle.
    int open(VEL_Proactor* proactor, uint64_t socket, VEL_Async_Handler* owner, const VEL_INET_Addr& remote,
             uint32_t& key);

    /// Undoes `open`: ends the registration without `handle_close` and closes the socket. Keeps the thread's code.
    void abandon(VEL_Proactor* proactor, uint32_t key);

    /// The peer's address, under the lock.
    VEL_INET_Addr remote_addr();

    int set_timeout(VEL_Async_Handler* owner, uint32_t timeout_ms);
    void cancel_timeout();
    int local_addr(VEL_INET_Addr& address);

    /// The handler slots.
    int handle_close(uint32_t key, void* handle, VEL_Proactor* proactor);
    int close_handle();

    /// Ends the registration, then the timer, then the socket.
    /// @param no_close        do not call `handle_close` for the registration
    /// @param no_timer_close  do not call it for the timer
    void close(bool no_close, bool no_timer_close);

    /// Runs `start()` if the socket is open; for operations that are started again. Needs no lock: an operation is aimed
    /// at one handle and fails once that is closed, whatever its number stands for by then.
    template <class Start>
    int restart(Start start) {
        return check_open() < 0 ? -1 : start();
    }

    /// Makes an operation on the socket and starts it with `start(operation)`, under the lock; deletes it on failure.
    template <class Operation, class Start>
    int start(VEL_Async_Handler* owner, Start start) {
        VEL_Guard guard(lock_);
        if (check_open() < 0) return -1;
        std::unique_ptr<Operation> op(new (std::nothrow) Operation(proactor(), key(), handle(), owner));
        if (op == nullptr) return out_of_memory();
        const int result = start(*op);
        if (result >= 0) op.release(); // the port's now
        return result;
    }

private:
    static int out_of_memory();
    int refuse() const;
    bool is(const VEL_Proactor* proactor, uint32_t key) const { return proactor_ == proactor && key_ == key; }
    void close_socket();
    void give_up(VEL_Proactor* proactor, uint32_t key, bool no_timer_close);
    int32_t clear();

    std::atomic<uint64_t> socket_{VEL_INVALID_SOCKET};
    std::atomic<uint32_t> key_{0}; // 0: none
    VEL_INET_Addr remote_;         // a stream's peer
    std::atomic<VEL_Proactor*> proactor_{nullptr};
    VEL_Thread_Mutex lock_;
    std::atomic<int32_t> timer_id_{0}; // 0: none
};

} // namespace vel
