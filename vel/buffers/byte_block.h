// Handle to a byte buffer that several handles share.
#pragma once

#include <vel/types.h>

class VEL_Reference_Counter_Global_Sync;

/// A heap buffer shared by reference count, with a read offset of this handle's own.
///
/// Threads:   handles of one buffer may be copied and dropped on different threads; one handle is used by one thread
///            at a time, and the bytes are not locked.
/// Ownership: the last handle frees the bytes with VELLib::free, so adopted memory must come from VELLib::malloc.
/// Errors:    int results are -1 with the thread's code; the constructors that take data throw VEL_Exception with it.
/// Limits:    the offset is never compared with the size; keeping it inside is the caller's part.
///
///     VEL_Byte_Block block(5, "hello");   // copies
///     VEL_Byte_Block same = block;        // shares, reads from 0
///     block.offset(1);                    // same.offset() stays 0
///     send(block.current(), block.current_size());
class VEL_API VEL_Byte_Block {
public:
    VEL_Byte_Block() = default;

    /// As set(data, size).
    VEL_Byte_Block(void* data, uint64_t size);

    /// As set(size, source).
    VEL_Byte_Block(uint64_t size, const void* source);

    /// Shares the other's buffer; the new handle reads from 0.
    VEL_Byte_Block(const VEL_Byte_Block& other);

    virtual ~VEL_Byte_Block();

    /// Shares the other's buffer. Assigning a block to itself, or a handle of the same buffer, only rewinds this
    /// handle to offset 0: that is deliberate.
    const VEL_Byte_Block& operator=(const VEL_Byte_Block& other) {
        if (*this == other)
            offset_ = 0;
        else
            replace(other);
        return *this;
    }

    /// Adopts the caller's buffer. Null data or size 0 makes a null block.
    /// @param size  bytes
    /// Errors: 8; then the buffer stays the caller's.
    int set(void* data, uint64_t size);

    /// Takes a new buffer of `size` bytes, filled from `source`, or with zeros when that is null. Size 0 makes a null
    /// block. `source` may lie in the block's own buffer. Errors: 8 and the allocator's; then the block is null.
    int set(uint64_t size, const void* source);

    /// Drops this handle's share; the block is null afterwards.
    void reset();

    /// A block with its own copy of all bytes, whatever the offset. A null block clones to a null block.
    /// Throws VEL_Exception with the thread's code when there is no memory.
    VEL_Byte_Block clone() const;

    /// The address `offset` bytes into the buffer, unchecked; null when the block is null.
    void* c_ptr(uint64_t offset) const { return data_ == nullptr ? nullptr : data_ + offset; }

    /// The address at the read offset.
    void* current() const { return c_ptr(offset_); }

    /// Bytes behind the read offset.
    uint64_t current_size() const { return size_ - offset_; }

    /// Sets the read offset, in bytes from the start.
    void offset(uint64_t position) { offset_ = position; }
    uint64_t offset() const { return offset_; }

    uint64_t size() const { return size_; }
    bool is_null() const { return data_ == nullptr; }
    operator void*() const { return data_; }

    /// Equal when both share one buffer (or both are null); the offsets are not compared.
    bool operator==(const VEL_Byte_Block& other) const {
        return size_ == other.size_ && counter_ == other.counter_ && data_ == other.data_;
    }
    bool operator!=(const VEL_Byte_Block& other) const { return !(*this == other); }

private:
    void share(const VEL_Byte_Block& other);
    void replace(const VEL_Byte_Block& other);

    VEL_Reference_Counter_Global_Sync* counter_ = nullptr; // held in common with the other handles of the buffer
    uint8_t* data_ = nullptr;                              // null exactly when counter_ is null and size_ is 0
    uint64_t size_ = 0;
    uint64_t offset_ = 0;
};
