// Shared messages and their reply records.
#include <vel/buffers/message_block.h>

#include <memory>
#include <new>
#include <vel/buffers/archive.h>
#include <vel/buffers/payload_counter.h>
#include <vel/buffers/serializable.h>
#include <vel/frame/exception.h>
#include <vel/os/event.h>
#include <vel/os/handle.h>

namespace vel {

/// What the receiver answers. The event orders the other fields between the two threads.
struct MessageReply {
    ~MessageReply() {
        if (event != nullptr) os::close_handle(event);
        delete message;
    }

    VEL_Serializable* message = nullptr;
    void* event = nullptr; // manual-reset, never reset
    uint32_t error = 0;
    int32_t result = 0;
};

namespace {

std::unique_ptr<MessageReply> new_reply() {
    std::unique_ptr<MessageReply> reply(new (std::nothrow) MessageReply);
    if (reply == nullptr) {
        VELLib::SetErrorCode(error::not_enough_memory);
        return nullptr;
    }
    const uint32_t code = os::create_event(true, false, reply->event);
    if (code != error::none) VEL_Exception::ThrowException(code);
    return reply;
}

} // namespace
} // namespace vel

VEL_Message_Block::VEL_Message_Block(VEL_Serializable* message, bool sync) {
    if (set(message, sync) < 0) VEL_Exception::ThrowException(VELLib::GetErrorCode());
}

VEL_Message_Block::VEL_Message_Block(const VEL_Byte_Block& bytes, const VEL_Object_Factory& factory, bool sync) {
    if (set(bytes, factory, sync) < 0) VEL_Exception::ThrowException(VELLib::GetErrorCode());
}

VEL_Message_Block::VEL_Message_Block(const VEL_Message_Block& other) { share(other); }

VEL_Message_Block& VEL_Message_Block::operator=(const VEL_Message_Block& other) {
    if (*this == other) return *this;
    reset();
    share(other);
    return *this;
}

VEL_Message_Block::~VEL_Message_Block() { reset(); }

int VEL_Message_Block::set(VEL_Serializable* message, bool sync) {
    reset();
    std::unique_ptr<vel::MessageReply> reply;
    if (sync) {
        reply = vel::new_reply();
        if (reply == nullptr) return -1;
    }
    if (message == nullptr && reply == nullptr) return 0;
    counter_ = vel::new_payload_counter();
    if (counter_ == nullptr) return -1;
    message_ = message;
    reply_ = reply.release();
    return 0;
}

int VEL_Message_Block::set(const VEL_Byte_Block& bytes, const VEL_Object_Factory& factory, bool sync) {
    reset();
    VEL_Serializable* object = nullptr;
    VEL_Archive archive;
    const int used = archive.deserialize(bytes, factory, object);
    if (used < 0) return -1;
    if (used == 0) {
        VELLib::SetErrorCode(vel::error::input_too_short);
        return -1;
    }
    std::unique_ptr<VEL_Serializable> message(object);
    if (set(message.get(), sync) < 0) return -1;
    message.release();
    return 0;
}

void VEL_Message_Block::drop_share() {
    if (vel::release_payload(counter_)) {
        delete message_;
        delete reply_;
    }
    message_ = nullptr;
    reply_ = nullptr;
    counter_ = nullptr;
}

int VEL_Message_Block::signal(int result, uint32_t error, VEL_Serializable* reply) {
    if (reply_ == nullptr) return 0;
    reply_->result = result;
    reply_->error = error;
    reply_->message = reply; // an earlier one is not deleted, deliberately: a waiter may hold it
    vel::os::set_event(reply_->event);
    return 0;
}

int VEL_Message_Block::wait(uint32_t timeout_ms) const {
    if (reply_ == nullptr) return 0;
    const uint32_t code = vel::os::wait_handle(reply_->event, timeout_ms);
    if (code != vel::error::none) {
        VELLib::SetErrorCode(code);
        return -1;
    }
    if (reply_->result < 0) VELLib::SetErrorCode(vel::error::remote_failed);
    return reply_->result;
}

uint32_t VEL_Message_Block::error_code() const { return reply_ == nullptr ? 0 : reply_->error; }

void* VEL_Message_Block::get_handle() const { return reply_ == nullptr ? nullptr : reply_->event; }

VEL_Serializable* VEL_Message_Block::get_resmsg() const { return reply_ == nullptr ? nullptr : reply_->message; }

bool VEL_Message_Block::operator==(const VEL_Message_Block& other) const {
    return message_ == other.message_ && reply_ == other.reply_ && counter_ == other.counter_;
}

/// Joins the other's group; this handle is null before.
void VEL_Message_Block::share(const VEL_Message_Block& other) {
    message_ = other.message_;
    reply_ = other.reply_;
    counter_ = other.counter_;
    if (counter_ != nullptr) counter_->increment();
}
