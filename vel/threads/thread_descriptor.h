// What the thread manager knows about one of its threads.
#pragma once

#include <atomic>
#include <memory>
#include <vel/frame/thread_id.h>
#include <vel/types.h>

class VEL_Reactor;
class VEL_Task_Base;

/// State of a managed thread; the values are part of the interface.
enum VEL_Thread_State : int {
    THR_EXITED = 0,    // the entry function has returned, or the thread was killed
    THR_SPAWNED = 1,   // created, not yet handed out
    THR_RUNNING = 2,   // resumed
    THR_CANCELLED = 3, // asked to stop
    THR_SUSPENDED = 4, // stopped by suspend, or not resumed since it was spawned
};

/// One managed thread: its name, what it runs, its group, state and exit code.
///
/// Threads:   the manager's lock guards all but state and exit code, which the thread itself writes when it ends.
/// Ownership: belongs to its manager, which deletes it at join, wait or kill. A task's descriptor owns the thread's
///            reactor and holds one reference on the task.
class VEL_API VEL_Thread_Descriptor {
public:
    virtual ~VEL_Thread_Descriptor();
    VEL_Thread_Descriptor(const VEL_Thread_Descriptor&) = delete;
    VEL_Thread_Descriptor& operator=(const VEL_Thread_Descriptor&) = delete;

    VEL_thread_t& thr_desc() { return thread_; }
    VEL_thread_t thr_desc() const { return thread_; }
    int thr_grp() const { return group_; }

    /// One of the THR_ values.
    int thr_state() const { return state_.load(std::memory_order_acquire); }

    /// The entry function's result or the code the thread was killed with; 0 before.
    int thr_exit_code() const { return exit_code_.load(std::memory_order_acquire); }

private:
    friend class VEL_Thread_Manager;
    friend class VEL_Task_Base;

    VEL_Thread_Descriptor() = default;

    /// For a thread of a task: makes its reactor with the task's queue in it. Throws VEL_Exception.
    explicit VEL_Thread_Descriptor(VEL_Task_Base* task);

    /// Takes the task's queue out of the reactor without telling the task.
    void leave_task();

    /// Creates the platform thread, suspended, in state THR_SPAWNED. Throws VEL_Exception with the system's code.
    void create(uint32_t stack_size);

    /// Body of the platform thread: runs the entry function and notes its result.
    uint32_t run();

    /// Asks the thread to stop: state THR_CANCELLED, then the cancel function. 0.
    int cancel();

    /// Ends the platform thread and closes its handle. 0, or -1 with the system's code.
    int kill(int exit_code);

    /// Whether the thread, after a kill that failed, is there still. Its exit code does not tell: any number may be one.
    bool survived() const;

    /// The previous suspend count, or -1 with the system's code.
    int suspend();
    int resume();

    /// The task that takes messages for this thread; null with 0x20000003 without one, with 0x20000007 unless the
    /// thread is running or suspended.
    VEL_Task_Base* receiver() const;

    /// Closes the handle of a thread that has ended and notes its exit code.
    void thr_close();

    bool is_caller() const;

    /// Moves to a state that a thread which has ended meanwhile does not take.
    void enter(VEL_Thread_State state);

    VEL_thread_t thread_;
    bool closed_ = false;                  // the handle was closed
    std::shared_ptr<VEL_Reactor> reactor_; // task threads only; shared with calls under way
    VEL_Task_Base* task_ = nullptr;        // one reference held; task threads only
    int (*entry_)(void*) = nullptr;
    int (*cancel_)(void*) = nullptr;
    void* argument_ = nullptr;
    int group_ = 0;
    std::atomic<int> state_{THR_EXITED};
    std::atomic<int> exit_code_{0};
};
