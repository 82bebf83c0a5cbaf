// Creates, tracks, stops and joins threads.
#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <vector>
#include <vel/frame/thread_id.h>
#include <vel/memory/hash_map.h>
#include <vel/sync/guard.h>
#include <vel/sync/mutex.h>
#include <vel/sync/tls.h>
#include <vel/threads/thread_descriptor.h>
#include <vel/types.h>

class VEL_Event_Handler;
class VEL_Message_Block;

/// Starts threads and keeps track of them until they are joined, waited for or killed.
///
/// A thread runs either a plain function or a task; a task's thread has a reactor of its own, in which the task's
/// message queue is registered. Threads carry a group number, and most operations exist for one thread and for a group.
/// Cancelling is a request: a plain thread polls `testcancel`, a task's reactor is deactivated. Killing and suspending
/// stop a thread wherever it is, also while it holds a lock that others need.
///
/// Threads:   every call from any thread. The lock is held while map and descriptors are touched, also while a cancel
///            function or a task's `handle_init` runs, and released while `join`, `wait` and `close` block and while
///            handlers and the ends of tasks run.
/// Ownership: the manager owns the descriptors; a thread that has ended keeps its entry until it is joined or waited
///            for. The destructor closes.
/// Errors:    -1 with 0x2000000A for a thread that is not (or no longer) known, 0x20000007 for spawning on a closed
///            manager, 0x20000003 where a plain thread has no queue or reactor, 258 for a wait that timed out, 1131 for
///            a thread that would wait for its own end, 8, and the system's codes.
/// Limits:    time-outs in milliseconds, VEL_INFINITE for none.
///
///     VEL_Thread_Manager* threads = VEL_Thread_Manager::instance();
///     VEL_thread_t worker;
///     if (threads->spawn(work, argument, worker, 1, 0, 0, nullptr) != 0) return -1;
///     int exit_code = 0;
///     threads->join(worker, &exit_code);
class VEL_API VEL_Thread_Manager {
public:
    /// The process-wide manager (9973 buckets), made at the first call and destroyed when the library stops.
    /// Null with the error code set when it cannot be made.
    static VEL_Thread_Manager* instance();

    /// @param buckets  chains of the table of threads; about the number of threads expected
    explicit VEL_Thread_Manager(size_t buckets);
    virtual ~VEL_Thread_Manager();
    VEL_Thread_Manager(const VEL_Thread_Manager&) = delete;
    VEL_Thread_Manager& operator=(const VEL_Thread_Manager&) = delete;

    /// Starts `n` threads that run `func(arg)`; all of them or none.
    /// @param ids          null, or room for `n` names
    /// @param grp          group number
    /// @param stack_size   bytes, 0 for the system's default
    /// @param flags        not 0 leaves the threads suspended
    /// @param cancel_func  null, or what a cancel calls with `arg`
    /// @return 0; -1 with 0x20000007, 8 or the system's code
    int spawn(int (*func)(void*), void* arg, size_t n, VEL_thread_t* ids, int grp, unsigned int stack_size,
              uint32_t flags, int (*cancel_func)(void*));

    /// The same for one thread.
    int spawn(int (*func)(void*), void* arg, VEL_thread_t& id, int grp, unsigned int stack_size, uint32_t flags,
              int (*cancel_func)(void*));

    /// Starts `n` threads that run a task, each with a reactor of its own.
    /// @return as above, and -1 with 0x20000013 when the task's `handle_init` refuses
    int spawn(VEL_Task_Base* task, size_t n, VEL_thread_t* ids, int grp, unsigned int stack_size, uint32_t flags);
    int spawn(VEL_Task_Base* task, VEL_thread_t& id, int grp, unsigned int stack_size, uint32_t flags);

    /// Asks one thread, a group or all threads to stop. The group form succeeds for an empty group too.
    int cancel(const VEL_thread_t& thread);
    int cancel(int grp);
    int cancel_all();

    /// Ends a thread without unwinding, so that what it owned is lost, and forgets it; one that has ended by itself is
    /// forgotten too. It never ends its caller: that answers -1 with 5 and keeps the thread, and so does one that cannot
    /// be stopped now with 258. The group form steps over both and returns 0.
    int kill(const VEL_thread_t& thread, int exit_code);
    int kill(int grp, int exit_code);

    /// Raises or lowers the suspend count. The forms for one thread return the count before, or -1; the group forms 0.
    int suspend(const VEL_thread_t& thread);
    int suspend(int grp);
    int resume(const VEL_thread_t& thread);
    int resume(int grp);

    /// Cancels a thread, waits for its end without limit and forgets it. A thread that was never resumed ends without
    /// running its function, with exit code -1; one that was suspended later has to be resumed by someone.
    /// @param exit_code  null, or where the thread's exit code goes
    int join(const VEL_thread_t& thread, int* exit_code);

    /// Waits for one thread, a group or all threads to end, and forgets those that have. The forms for several share
    /// one time budget. On time-out -1 with 258; what has not ended stays known. They cancel nothing: a thread that was
    /// never resumed does not end.
    int wait(const VEL_thread_t& thread, uint32_t timeout_ms);
    int wait(int grp, uint32_t timeout_ms);
    int wait(uint32_t timeout_ms);

    /// One of the THR_ values, or -1.
    int thr_state(const VEL_thread_t& thread);

    /// The group, or -1.
    int get_grp(const VEL_thread_t& thread);
    int set_grp(const VEL_thread_t& thread, int grp);

    /// Threads known: running, suspended, or ended and not yet joined.
    size_t thr_count() const;

    /// The calling thread's name; empty in a thread that no manager started.
    static VEL_thread_t thr_self();

    /// Whether the calling thread should stop. The argument is ignored on purpose: only one's own state is read.
    static bool testcancel(const VEL_thread_t& thread);

    /// Puts a message into a task thread's queue. The group form sends to every member and returns 0 whatever the
    /// members answered.
    int sendMessage(const VEL_thread_t& thread, const VEL_Message_Block& message);
    int sendMessage(int grp, const VEL_Message_Block& message);

    /// Register and remove handlers in a task thread's own reactor, and return the reactor's answer: event handles in
    /// the forms with the handler first, sockets in the others.
    int register_handler(const VEL_thread_t& thread, VEL_Event_Handler* handler, void* handle, uint32_t mask);
    int register_handler(const VEL_thread_t& thread, void* handle, VEL_Event_Handler* handler, uint32_t mask);
    int remove_handler(const VEL_thread_t& thread, VEL_Event_Handler* handler, void* handle, uint32_t mask);
    int remove_handler(const VEL_thread_t& thread, void* handle, VEL_Event_Handler* handler, uint32_t mask);

    /// Refuses new threads from now on, then cancels and joins those there are, oldest first. Called by a thread of
    /// this manager it skips that one, which stays known.
    void close();

private:
    friend class VEL_Task_Base;
    friend class VEL_Thread_Descriptor;
    using Threads = VEL_Hash_Map<VEL_thread_t, VEL_Thread_Descriptor*>;
    using Descriptors = std::vector<std::unique_ptr<VEL_Thread_Descriptor>>;

    /// Adds a descriptor under its thread's name. -1 with the error code set.
    int insert(VEL_Thread_Descriptor* descriptor);

    /// Takes a descriptor out of the map without deleting it; null with 0x2000000A when it is not there.
    VEL_Thread_Descriptor* remove(const VEL_thread_t& thread);

    /// Copies the name of the oldest thread that is not the caller; -1 when there is none.
    int pop(VEL_thread_t& thread);

    /// The descriptor of a thread; null with 0x2000000A when it is not there.
    VEL_Thread_Descriptor* find(const VEL_thread_t& thread);

    /// The oldest member of a group, of all threads where `grp` is null; null when there is none.
    VEL_Thread_Descriptor* first_of(const int* grp);

    /// Threads of a group, of all groups where `grp` is null, as names: what is called for one may end others.
    std::vector<VEL_thread_t> members(const int* grp);

    /// `insert` for a spawn under way. Throws VEL_Exception.
    void add(VEL_Thread_Descriptor& descriptor);

    /// Makes `n` threads with `create`, which adds a suspended one or throws, and lets them run unless `flags`; all of
    /// them or none. 0, or -1 with the error code set.
    int spawn_all(size_t n, VEL_thread_t* ids, uint32_t flags,
                  const std::function<void(std::unique_ptr<VEL_Thread_Descriptor>&)>& create);

    /// Second half of a spawn: ends what was created, or gives it to the map.
    void undo(Descriptors& created);
    void hand_out(Descriptors& created, VEL_thread_t* ids, uint32_t flags);

    /// Suspends the calling thread with the lock released, since resuming it takes the lock.
    int suspend_caller(VEL_Guard& guard, VEL_Thread_Descriptor& descriptor);

    /// Waits for the members with one budget of time, as `wait`.
    int wait_members(const int* grp, uint32_t timeout_ms);

    /// Waits for one thread with the lock released; when it has ended forgets it. 0, or -1 with the error code set.
    int wait_and_forget(VEL_Guard& guard, const VEL_thread_t& thread, uint32_t timeout_ms);

    /// Deletes the descriptor of a thread that has ended, unless another thread has done so.
    void forget(const VEL_thread_t& thread);

    /// The reactor of a task's thread; null with 0x2000000A or 0x20000003.
    std::shared_ptr<VEL_Reactor> reactor_of(const VEL_thread_t& thread);

    /// The platform's thread function; its argument is the descriptor.
    static uint32_t thr_entry(void* argument);

    int closed_ = 0;
    mutable VEL_Thread_Mutex lock_; // guards everything here
    std::unique_ptr<Threads> threads_;

    /// The calling thread's own descriptor, in every managed thread.
    static VEL_TLS<VEL_Thread_Descriptor*> tls_descriptor_;

    static std::atomic<VEL_Thread_Manager*> instance_; // null while there is none
    static VEL_Thread_Mutex instance_lock_;            // held while it is made and unmade
};
