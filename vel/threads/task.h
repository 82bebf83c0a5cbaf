// A message queue that is the body of the threads it is given.
#pragma once

#include <cstddef>
#include <vel/threads/message_queue.h>
#include <vel/types.h>

class VEL_Reactor;
class VEL_Thread_Manager;
class VEL_thread_t;

/// A queue whose messages are handled by threads of its own, which VEL_Thread_Manager starts.
///
/// Every thread of a task runs a reactor of its own in which the task's queue is registered, so it serves messages,
/// sockets and timers side by side. What it does is in `handle_message` and in other handlers registered in its
/// reactor; a message goes to one thread of several.
/// Threads:   as VEL_Message_Queue; with several threads `handle_message` runs on them at the same time.
/// Ownership: every thread holds one reference until it is joined, waited for or killed.
/// Errors:    as VEL_Message_Queue.
///
///     class Counter : public VEL_Task_Base {
///         int handle_message(VEL_Message_Block& message) override { return message.signal(++count_, 0, nullptr); }
///         int count_ = 0;
///     };
///     Counter* counter = new Counter;
///     VEL_thread_t thread;
///     manager.spawn(counter, thread, 1, 0, 0);
///     VEL_Message_Block question(new VEL_Serializable, true);
///     manager.sendMessage(thread, question);
///     question.wait(VEL_INFINITE);
///     manager.join(thread, nullptr);
///     counter->release();
class VEL_API VEL_Task_Base : public VEL_Message_Queue {
public:
    /// Opens the queue. Throws VEL_Exception as VEL_Message_Queue.
    VEL_Task_Base();
    ~VEL_Task_Base() override;

    /// Null: no call of the library sets it.
    VEL_Thread_Manager* thread_manager() const { return thread_manager_; }

    /// What each thread of the task runs; its result is the thread's exit code, and the reactor is closed after it.
    /// The default serves the reactor until that is deactivated, and returns 0.
    virtual int svc(VEL_Reactor* reactor);

    /// Called for each thread before it first runs, by whoever spawns it and with the manager's lock held; the thread
    /// is not yet known to the manager. A negative result undoes the whole spawn. The default returns 0.
    virtual int handle_init(const VEL_thread_t& thread, VEL_Reactor* reactor);

private:
    friend class VEL_Thread_Descriptor;
    friend class VEL_Thread_Manager;

    /// Starts `n` threads, all of them or none; called with the manager's lock held. As VEL_Thread_Manager::spawn.
    int spawn(VEL_Thread_Manager* manager, size_t n, VEL_thread_t* ids, int grp, unsigned int stack_size,
              uint32_t flags);

    /// Entry and cancel function of the threads; the argument is the descriptor.
    static int task_run(void* argument);
    static int task_exit(void* argument);

    VEL_Thread_Manager* thread_manager_ = nullptr;
};
