// Completion-based demultiplexer: runs handlers when what they started has finished.
#pragma once

#include <atomic>
#include <memory>
#include <vel/memory/hash_map.h>
#include <vel/proactor/async_handler.h>
#include <vel/proactor/timer_alarm.h>
#include <vel/reactor/timer_queue.h>
#include <vel/sync/mutex.h>
#include <vel/sync/thread_safety.h>
#include <vel/threads/thread_manager.h>
#include <vel/types.h>

class VEL_Async_Operation;
class VEL_Byte_Block;
class VEL_Guard;
class VEL_INET_Addr;
class VEL_Message_Block;

namespace vel {
class AsyncSocket;
class HeldHandler;
class ReadGate;
namespace os {
class HeldPort;
} // namespace os
} // namespace vel

/// What is registered under a completion key.
struct VEL_Handle_Set {
    void* handle;
    VEL_Async_Handler* handler; // one reference
};

/// Worker threads that take finished operations from one completion port and call their handlers, and one thread that
/// runs timers.
///
/// Threads:   every call from any thread. One recursive lock guards table, timers and flags. Handlers are called
///            without it; `close_handle` of a handler is the exception. The callbacks of one handler may run on several
///            workers at once. A worker dispatches without taking a lock.
/// Ownership: the proactor keeps one reference to a handler for each registration and each timer, and one during each
///            call. A worker may drop the latter, and those of operations that were deleted in the call, only when it
///            has taken its next completion, so a handler's destructor must not wait for other callbacks. The proactor
///            never closes a registered handle: that is its handler's part, in `handle_close`.
/// Errors:    -1 with the thread's code: 0x20000004 not open, 0x20000007 closing, 0x20000014 completion key 0,
///            0x2000000A unknown key, 0x20000015 too many workers, 8, 87, or the system's code. Messages that can no
///            longer be delivered are answered with -1 and 0x20000007, so that a waiting sender goes on.
/// Limits:    63 workers; a closed proactor is not opened again. Times are 32-bit milliseconds and survive the wrap of
///            the tick count. On a registered handle only VEL_Async_Operations may be started: the workers take every
///            record that arrives for one.
///
///     VEL_Proactor proactor;
///     if (proactor.open(4) < 0) return -1;
///     Echo_Acceptor* acceptor = new Echo_Acceptor;            // derived from VEL_Async_Acceptor
///     if (acceptor->open(&proactor, 7000, 0) < 0 || acceptor->accept() < 0) return -1;
///     acceptor->release();                                    // the registration keeps it; proactor.close() ends it
class VEL_API VEL_Proactor {
public:
    VEL_Proactor();
    VEL_Proactor(const VEL_Proactor&) = delete;
    VEL_Proactor& operator=(const VEL_Proactor&) = delete;

    /// Closes. Destroying a proactor in a callback of its own threads ends the program: it would wait for itself.
    virtual ~VEL_Proactor();

    /// Starts the timer thread and the workers.
    /// @param thread_count  0 for twice the number of processors; 63 at most
    /// Errors: 0x20000015 for more than 63; 0x20000007 after `close`; 183 when it is open already.
    int open(uint32_t thread_count);

    /// Stops all threads, then ends every registration and every timer with `handle_close` and answers the messages
    /// that are left. Waits for running callbacks. From a callback on one of its own threads it only sets 1131 (it
    /// would wait for itself); a second call while one is under way returns at once.
    void close();

    /// The next completion key, 1 to 0xFFFFFFFE and then 1 again.
    uint32_t generate_completion_key();

    /// Registers a handle under a key and takes a reference to the handler. Errors: 87 when the key is taken or the
    /// handle registered already (nothing has changed then), 6, 8.
    int register_handle(uint32_t key, void* handle, VEL_Async_Handler* handler);

    /// Ends a registration and, unless `no_close`, calls the handler's `handle_close`. The handle stays open.
    int remove_handle(uint32_t key, bool no_close);

    /// The handle registered under a key, and its handler with a reference that the caller releases. All bits set on
    /// failure.
    void* get_handle(uint32_t key, VEL_Async_Handler*& handler);

    /// Asks the handler to close its handle. Calls `close_handle` of the handler under the proactor's lock.
    int close_handle(uint32_t key);

    /// Shuts down a registered socket. @param how  0 receive, 1 send, 2 both
    int shutdown(uint32_t key, int how);

    /// Posts a message to the handler's `handle_signal` on a worker. Errors: 87 for a null message.
    int sendMessage(uint32_t key, const VEL_Message_Block& message);

    /// Starts to send the first `length` bytes of `data`; the handler's `handle_output` gets the operation.
    int sendSockStream(uint32_t key, const VEL_Byte_Block& data, size_t length);
    int sendSockDgram(uint32_t key, const VEL_Byte_Block& data, size_t length, const VEL_INET_Addr& to);

    /// Calls the handler's `handle_timeout` every `interval_ms` milliseconds until that refuses.
    /// Returns the timer's id, 1 to 0x7FFFFFFE, or -1.
    int32_t schedule_timer(VEL_Async_Handler* handler, uint32_t interval_ms);

    /// Ends a timer and, unless `no_close`, calls `handle_close(0, id, this)`. An unknown id gives -1 and leaves the
    /// thread's code as it was.
    int cancel_timer(int32_t timer_id, bool no_close);

    /// Starts the timer's interval anew from now. An unknown id as with `cancel_timer`.
    int reschedule_timer(int32_t timer_id, uint32_t interval_ms);

    /// Dispatches one completion on the calling thread. Returns 1 when one was dispatched, 0 on time-out, -1 on failure
    /// or when the proactor is closing.
    /// @param timeout_ms  milliseconds, VEL_INFINITE for ever
    int handle_event(uint32_t timeout_ms);

    /// Waits for due timers and dispatches them, when no other thread does. Returns how many were dispatched, or -1.
    int handle_timer(uint32_t timeout_ms);

    /// Number of worker threads.
    size_t getiothrcnt() const { return worker_count_; }

private:
    friend class vel::AsyncSocket;
    using HandleTable = VEL_Hash_Map<uint32_t, VEL_Handle_Set>;
    using TimerQueue = VEL_Timer_Queue<VEL_Async_Handler>;

    static int thr_iocp_competion(void* proactor);
    static int thr_iocp_timer(void* proactor);
    static uint32_t calc_thr_count();

    bool is_own_thread();
    void start(uint32_t thread_count) VEL_REQUIRES(lock_);
    void stop_threads(VEL_Guard& guard) VEL_REQUIRES(lock_);
    void end_registrations(VEL_Guard& guard) VEL_REQUIRES(lock_);
    void end_timers(VEL_Guard& guard) VEL_REQUIRES(lock_);
    void drain();
    void destroy_parts() VEL_REQUIRES(lock_);

    VEL_Handle_Set* find(uint32_t key) VEL_REQUIRES(lock_);
    template <class Read>
    auto read_table(Read read);
    template <class Operation, class Prepare>
    int start_send(uint32_t key, const VEL_Byte_Block& data, size_t length, Prepare prepare);

    static void discard(VEL_Async_Operation* op);
    template <class Wait>
    int handle_next(uint32_t timeout_ms, vel::HeldHandler& held, Wait wait);
    int stop_handling(VEL_Async_Operation* op);
    int dispatch_io(VEL_Async_Operation* op, uint64_t bytes, uint32_t error, vel::HeldHandler& held);

    int32_t add_timer(VEL_Async_Handler* handler, uint32_t interval_ms) VEL_REQUIRES(lock_);
    int set_timer(VEL_Async_Handler* handler, uint32_t interval_ms, std::atomic<int32_t>& timer_id);
    uint32_t calc_timeout();
    int dispatch_timer();
    bool restart(const TimerQueue::Period& timer, uint64_t& now_ms) VEL_REQUIRES(lock_);
    int run_timers(uint32_t timeout_ms, bool& owner);
    bool acquire_timer();
    void release_timer();

    std::atomic<void*> port_{nullptr};                // null while not open
    std::unique_ptr<vel::os::HeldPort> held_port_;    // the same for own threads and for readers of the table
    vel::TimerAlarm timer_alarm_;                     // wakes who waits for timers
    VEL_Thread_Mutex lock_;                           // guards the table, the timer queue, and changes of the flags
    const std::unique_ptr<vel::ReadGate> table_gate_; // shut by who holds the lock and changes the table or is closing
    VEL_Thread_Manager threads_;
    std::unique_ptr<TimerQueue> timer_queue_ VEL_GUARDED_BY(lock_);   // null while not open
    std::unique_ptr<HandleTable> handle_table_ VEL_GUARDED_BY(lock_); // null while not open
    std::atomic<size_t> worker_count_{0};
    std::atomic<bool> closing_{false}; // set by close() for good, by a failing open() while it stops its threads
    VEL_Thread_Mutex key_lock_;
    uint32_t last_key_ VEL_GUARDED_BY(key_lock_) = 0;
};
