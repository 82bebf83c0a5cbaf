// The base of the asynchronous operations and the checks that starting them has in common.
#include <vel/proactor/async_operation.h>

#include <vel/frame/fail.h>
#include <vel/os/completion_port.h>
#include <vel/proactor/held_handler.h>

constinit thread_local vel::HeldHandler* vel::HeldHandler::innermost_ = nullptr;

VEL_Async_Operation::VEL_Async_Operation(uint32_t code) : vel::IoRequest{}, code_(code) {}

VEL_Async_Operation::VEL_Async_Operation(VEL_Proactor* proactor, uint32_t completion_key, void* handle,
                                         VEL_Async_Handler* handler, uint32_t code)
    : vel::IoRequest{},
      completion_key_(completion_key),
      handle_(handle),
      handler_(handler),
      proactor_(proactor),
      code_(code) {
    vel::os::aim(*this, handle);
    if (handler_ != nullptr) handler_->addref();
}

VEL_Async_Operation::~VEL_Async_Operation() {
    if (handler_ != nullptr) vel::HeldHandler::release(handler_);
}

void VEL_Async_Operation::set(VEL_Proactor* proactor, uint32_t completion_key, void* handle,
                              VEL_Async_Handler* handler) {
    clear_overlapped();
    completion_key_ = completion_key;
    handle_ = handle;
    vel::os::aim(*this, handle);
    proactor_ = proactor;
    VEL_Async_Handler* former = handler_;
    handler_ = handler;
    // The same handler set again gains a reference here and loses none: deliberate, see the header.
    if (handler_ != nullptr) handler_->addref();
    if (former != nullptr && former != handler) former->release();
}

int VEL_Async_Operation::refuse_start() const {
    const bool aimless = handler_ == nullptr || proactor_ == nullptr;
    return vel::fail(aimless ? vel::error::null_member : vel::error::no_completion_key);
}

void VEL_Async_Operation::clear_overlapped(uint64_t file_offset) {
    Internal = 0;
    InternalHigh = 0;
    Offset = static_cast<uint32_t>(file_offset);
    OffsetHigh = static_cast<uint32_t>(file_offset >> 32);
}

int VEL_Async_Read_Operation::prepare(VEL_Byte_Block& block, size_t size) const {
    if (check_start() < 0) return -1;
    return block.size() < size ? block.set(size, nullptr) : 0;
}

int VEL_Async_Write_Operation::prepare(const VEL_Byte_Block& block, size_t size) const {
    if (check_start() < 0) return -1;
    if (block.is_null()) return vel::fail(vel::error::invalid_parameter);
    if (block.size() < size) return vel::fail(vel::error::insufficient_buffer);
    return 0;
}
