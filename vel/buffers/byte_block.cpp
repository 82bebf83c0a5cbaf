// Shared byte buffers.
#include <vel/buffers/byte_block.h>

#include <cstring>
#include <vel/buffers/payload_counter.h>
#include <vel/frame/exception.h>
#include <vel/memory/malloc.h>

VEL_Byte_Block::VEL_Byte_Block(void* data, uint64_t size) {
    if (set(data, size) < 0) VEL_Exception::ThrowException(VELLib::GetErrorCode());
}

VEL_Byte_Block::VEL_Byte_Block(uint64_t size, const void* source) {
    if (set(size, source) < 0) VEL_Exception::ThrowException(VELLib::GetErrorCode());
}

VEL_Byte_Block::VEL_Byte_Block(const VEL_Byte_Block& other) { share(other); }

VEL_Byte_Block::~VEL_Byte_Block() { reset(); }

int VEL_Byte_Block::set(void* data, uint64_t size) {
    reset();
    if (data == nullptr || size == 0) return 0;
    counter_ = vel::new_payload_counter();
    if (counter_ == nullptr) return -1;
    data_ = static_cast<uint8_t*>(data);
    size_ = size;
    return 0;
}

int VEL_Byte_Block::set(uint64_t size, const void* source) {
    if (size == 0) return set(nullptr, 0);
    void* data = VELLib::malloc(size, source == nullptr);
    if (data == nullptr) {
        reset();
        return -1;
    }
    // The old buffer goes only after the copy: `source` may lie in it.
    if (source != nullptr) std::memcpy(data, source, size);
    if (set(data, size) == 0) return 0;
    VELLib::free(data);
    return -1;
}

void VEL_Byte_Block::reset() {
    if (counter_ != nullptr && vel::release_payload(counter_)) VELLib::free(data_);
    counter_ = nullptr;
    data_ = nullptr;
    size_ = 0;
    offset_ = 0;
}

VEL_Byte_Block VEL_Byte_Block::clone() const { return VEL_Byte_Block(size_, data_); }

/// Leaves its group for that of the other one.
void VEL_Byte_Block::replace(const VEL_Byte_Block& other) {
    reset();
    share(other);
}

/// Joins the other's group; this handle is null before.
void VEL_Byte_Block::share(const VEL_Byte_Block& other) {
    counter_ = other.counter_;
    data_ = other.data_;
    size_ = other.size_;
    offset_ = 0;
    if (counter_ != nullptr) counter_->increment();
}
