// Handle to a message object that threads pass on, with a record through which it can be answered.
#pragma once

#include <utility>
#include <vel/types.h>

class VEL_Byte_Block;
class VEL_Object_Factory;
class VEL_Reference_Counter_Global_Sync;
class VEL_Serializable;

namespace vel {
struct MessageReply;
}

/// A message shared by reference count; a synchronous one also carries the reply its sender waits for.
///
/// Threads:   handles of one message may be copied and dropped on different threads. `signal` on one handle and `wait`
///            on another are the hand-over: what `signal` stores is there once `wait` or the event reports it.
/// Ownership: the group of handles owns the message, the reply record and the reply message; the last one deletes them.
/// Errors:    int results are -1 with the thread's code; the constructors that take data throw VEL_Exception with it.
///
///     VEL_Message_Block message(new Query(7), true);
///     queue.push(message);                       // the receiver: message.signal(0, 0, new Answer(42))
///     if (message.wait(1000) >= 0) use(message.get_resmsg());
class VEL_API VEL_Message_Block {
public:
    VEL_Message_Block() = default;

    /// As set(message, sync).
    VEL_Message_Block(VEL_Serializable* message, bool sync);

    /// As set(bytes, factory, sync).
    VEL_Message_Block(const VEL_Byte_Block& bytes, const VEL_Object_Factory& factory, bool sync);

    VEL_Message_Block(const VEL_Message_Block& other);
    VEL_Message_Block& operator=(const VEL_Message_Block& other);

    /// Hands the share over; `other` is null afterwards.
    VEL_Message_Block(VEL_Message_Block&& other) noexcept { take(other); }
    VEL_Message_Block& operator=(VEL_Message_Block&& other) noexcept {
        if (this == &other) return *this;
        reset();
        take(other);
        return *this;
    }
    virtual ~VEL_Message_Block();

    /// Takes the message over, with a reply record when `sync`. Without either the block is null.
    /// Errors: 8, and then the message stays the caller's; an event that cannot be created throws VEL_Exception.
    int set(VEL_Serializable* message, bool sync);

    /// Rebuilds the message from its serialized bytes. Errors: those of VEL_Archive::deserialize, and 15 for bytes that
    /// end before the message does.
    int set(const VEL_Byte_Block& bytes, const VEL_Object_Factory& factory, bool sync);

    /// Drops this handle's share; the block is null afterwards.
    void reset() {
        if (counter_ != nullptr) drop_share();
    }

    /// Answers a synchronous message: stores the three and frees every waiter. The record owns `reply` from here on; one
    /// stored earlier is overwritten, not deleted, and that is deliberate. Without a record nothing happens. Returns 0.
    int signal(int result, uint32_t error, VEL_Serializable* reply);

    /// Waits for the answer. Without a record 0 at once; later calls on an answered message return at once, too.
    /// @param timeout_ms  milliseconds, VEL_INFINITE for ever
    /// Returns the result given to `signal`, and for a negative one sets 0x20000009. Errors: 258 on time-out.
    int wait(uint32_t timeout_ms) const;

    /// The error given to `signal`, 0 without a record.
    uint32_t error_code() const;

    /// The record's event, which may be waited on or registered in a reactor; null without a record.
    void* get_handle() const;

    /// The reply given to `signal`, owned by the record; null without one.
    VEL_Serializable* get_resmsg() const;

    VEL_Serializable* c_ptr() const { return message_; }
    operator VEL_Serializable*() const { return message_; }
    VEL_Serializable* operator->() const { return message_; }
    bool is_null() const { return message_ == nullptr; }

    /// Equal when both share one message and record (or both are null).
    bool operator==(const VEL_Message_Block& other) const;
    bool operator!=(const VEL_Message_Block& other) const { return !(*this == other); }

private:
    void share(const VEL_Message_Block& other);
    void drop_share();
    void take(VEL_Message_Block& other) noexcept {
        message_ = std::exchange(other.message_, nullptr);
        reply_ = std::exchange(other.reply_, nullptr);
        counter_ = std::exchange(other.counter_, nullptr);
    }

    VEL_Serializable* message_ = nullptr;
    vel::MessageReply* reply_ = nullptr;
    VEL_Reference_Counter_Global_Sync* counter_ = nullptr; // null exactly when message_ and reply_ are null
};
