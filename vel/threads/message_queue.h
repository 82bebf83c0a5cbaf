// Queue of messages that wakes whoever waits for its event, a reactor among them.
#pragma once

#include <atomic>
#include <deque>
#include <memory>
#include <vel/buffers/message_block.h>
#include <vel/reactor/event_handler.h>
#include <vel/sync/mutex.h>
#include <vel/sync/thread_safety.h>
#include <vel/types.h>

/// First-in first-out queue of messages with an event that is set exactly while messages are queued.
///
/// Registered in a reactor under its event, it hands its messages to `handle_message`, one each time the reactor sees
/// the event set: a burst is served between the other events of that reactor. A send never blocks, and no queue is full.
/// Messages that are thrown away are answered, so that no sender waits for ever.
/// Threads:   every call from any thread; the lock is not held while `wait` waits, a message is answered or handled.
/// Ownership: counts its references, the creator's first. The last `release` deletes it, which closes it.
/// Errors:    -1 with 87 for a null message, 0x20000007 for a send to a closed queue, 258 for a wait that timed out, 8,
///            and the system's codes. Taking a message out of an empty queue gives -1 and leaves the code alone.
///
///     class Printer : public VEL_Message_Queue {
///         int handle_message(VEL_Message_Block& message) override {
///             print(static_cast<Line&>(*message.c_ptr()));
///             return message.signal(0, 0, nullptr);
///         }
///     };
///     Printer* printer = new Printer;
///     reactor.register_handler(printer, printer->get_event(), VEL_SIGNAL_EVENT);
///     printer->sendMessage(VEL_Message_Block(new Line("hello"), false));
class VEL_API VEL_Message_Queue : public VEL_Event_Handler_Impl<VEL_Reference_Counter_Global_Sync> {
public:
    /// Opens. Throws VEL_Exception with the code of `open`.
    VEL_Message_Queue();
    ~VEL_Message_Queue() override;
    VEL_Message_Queue(const VEL_Message_Queue&) = delete;
    VEL_Message_Queue& operator=(const VEL_Message_Queue&) = delete;

    /// Makes event and queue anew after a `close`; does nothing on an open queue. 0, or -1 with 8 or the system's code.
    int open();

    /// Puts a copy of the handle behind the last message; the message itself is shared.
    int sendMessage(const VEL_Message_Block& message);

    /// Takes the oldest message out. -1, `message` and the error code left as they are, when there is none.
    int getMessage(VEL_Message_Block& message);

    /// Waits until a message is queued, which another thread may take first.
    /// @param timeout_ms  milliseconds, VEL_INFINITE for ever
    int wait(uint32_t timeout_ms);

    /// What to wait for, and the handle for a reactor; null while closed.
    void* get_event() const { return event_.load(std::memory_order_acquire); }

    /// Throws the queued messages away, oldest first, each answered with -1 and 0x20000007.
    void reset();

    /// Throws the messages away as `reset` does, and the event with them; a wait under way ends with 0.
    void close();

    /// Hands the oldest message to `handle_message`, if there still is one, and returns its answer, else 0.
    int handle_signal(void* handle, VEL_Reactor* reactor) override;

    /// The registration has ended: nobody will ask for the messages, so they are thrown away. Where several reactors
    /// share a queue, the first that ends does so.
    int handle_close(void* handle, uint32_t mask, VEL_Reactor* reactor) override;

    /// A message has come. A negative result ends the queue's registration. The default answers -1 with 0x20000003.
    virtual int handle_message(VEL_Message_Block& message);

private:
    using Messages = std::deque<VEL_Message_Block>; // a node for each message would double what a message costs

    static void refuse(Messages& messages);

    std::atomic<void*> event_{nullptr}; // written under the lock
    std::unique_ptr<Messages> queue_;   // null while closed
    VEL_Thread_Mutex lock_;             // guards both
};
