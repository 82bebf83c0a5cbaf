// The queue of messages and its event.
//
// The event is set when the queue ceases to be empty and reset when it becomes so, both under the lock: it never has to
// be touched while messages come and go in between.
#include <vel/threads/message_queue.h>

#include <new>
#include <utility>
#include <vel/buffers/message_block.h>
#include <vel/frame/error.h>
#include <vel/frame/exception.h>
#include <vel/frame/fail.h>
#include <vel/os/error_codes.h>
#include <vel/os/event.h>
#include <vel/os/handle.h>
#include <vel/sync/guard.h>

VEL_Message_Queue::VEL_Message_Queue() {
    if (open() != 0) VEL_Exception::ThrowException(VELLib::GetErrorCode());
}

VEL_Message_Queue::~VEL_Message_Queue() { close(); }

int VEL_Message_Queue::open() {
    VEL_Guard guard(lock_);
    if (queue_) return 0;
    std::unique_ptr<Messages> queue;
    try {
        queue = std::make_unique<Messages>();
    } catch (const std::bad_alloc&) {
        return vel::fail(vel::error::not_enough_memory);
    }
    void* event = nullptr;
    const uint32_t code = vel::os::create_event(true, false, event);
    if (code != vel::error::none) return vel::fail(code);
    queue_ = std::move(queue);
    event_.store(event, std::memory_order_release);
    return 0;
}

// Who sleeps on the event is woken when the lock is free. Should the queue be closed in between, the handle may be
// another event's by then: its sleepers look once more at what they wait for.
int VEL_Message_Queue::sendMessage(const VEL_Message_Block& message) {
    if (message.is_null()) return vel::fail(vel::error::invalid_parameter);
    uint32_t sleepers = 0;
    VEL_Guard guard(lock_);
    if (!queue_) return vel::fail(vel::error::object_closed);
    const bool was_empty = queue_->empty();
    try {
        queue_->push_back(message);
    } catch (const std::bad_alloc&) {
        return vel::fail(vel::error::not_enough_memory);
    }
    void* event = get_event();
    if (was_empty) vel::os::mark_event(event, sleepers);
    guard.unlock();
    if (sleepers != 0) vel::os::wake_event(event, sleepers);
    return 0;
}

// What `message` held before goes when the lock is free again: its destructor is the application's.
int VEL_Message_Queue::getMessage(VEL_Message_Block& message) {
    VEL_Message_Block taken;
    {
        VEL_Guard guard(lock_);
        if (!queue_ || queue_->empty()) return -1;
        taken = std::move(queue_->front());
        queue_->pop_front();
        if (queue_->empty()) vel::os::reset_event(get_event());
    }
    message = std::move(taken);
    return 0;
}

int VEL_Message_Queue::wait(uint32_t timeout_ms) {
    const uint32_t code = vel::os::wait_handle(get_event(), timeout_ms);
    return vel::result_of(code);
}

void VEL_Message_Queue::reset() {
    Messages dropped;
    {
        VEL_Guard guard(lock_);
        if (!queue_ || queue_->empty()) return;
        queue_->swap(dropped);
        vel::os::reset_event(get_event());
    }
    refuse(dropped);
}

// Setting the event first frees those who wait for it; the closed one would never be set again.
void VEL_Message_Queue::close() {
    std::unique_ptr<Messages> dropped;
    {
        VEL_Guard guard(lock_);
        if (!queue_) return;
        dropped = std::move(queue_);
        void* event = event_.exchange(nullptr, std::memory_order_acq_rel);
        vel::os::set_event(event);
        vel::os::close_handle(event);
    }
    refuse(*dropped);
}

void VEL_Message_Queue::refuse(Messages& messages) {
    for (VEL_Message_Block& message : messages) message.signal(-1, vel::error::object_closed, nullptr);
}

int VEL_Message_Queue::handle_signal(void*, VEL_Reactor*) {
    VEL_Message_Block message;
    return getMessage(message) == 0 ? handle_message(message) : 0;
}

int VEL_Message_Queue::handle_close(void*, uint32_t, VEL_Reactor*) {
    reset();
    return 0;
}

int VEL_Message_Queue::handle_message(VEL_Message_Block& message) {
    message.signal(-1, vel::error::not_implemented, nullptr);
    return 0;
}
