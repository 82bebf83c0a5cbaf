// FIFO of byte blocks, read block by block or as one stream of bytes.
#pragma once

#include <vel/buffers/byte_block.h>

template <class T>
class VEL_List;

/// A queue of shared byte blocks with a running byte count.
///
/// Threads:   one at a time; the owner's lock guards it.
/// Ownership: a queued block shares its buffer with the handle it came from; no byte is copied but where said.
/// Errors:    int results are -1 with the thread's code; an empty queue reads 0, not an error.
/// Limits:    results are cut to int, so a single block or read stays below 2 GiB.
class VEL_API VEL_Byte_Queue {
public:
    /// Throws VEL_Exception 8 when there is no memory.
    VEL_Byte_Queue();
    virtual ~VEL_Byte_Queue();

    VEL_Byte_Queue(const VEL_Byte_Queue&) = delete;
    VEL_Byte_Queue& operator=(const VEL_Byte_Queue&) = delete;

    /// Appends a handle of the block, which is read from offset 0 whatever the caller's offset. Returns the block's
    /// size; an empty block is not queued and yields 0. Errors: 8.
    int enqueue(const VEL_Byte_Block& block);

    /// Appends a copy of the bytes. Returns `size`. Errors: 8 and the allocator's.
    int enqueue(const void* data, uint64_t size);

    /// Takes the next block whole: `out` shares it, the result is its size, 0 when the queue is empty.
    ///
    /// Two deliberate oddities: the byte count stays as it is, and of a block already read in part `out` receives as
    /// many bytes as `out` had unread before the call (never more than are left), so an empty `out` drops the rest of
    /// that block.
    /// Errors: 8 and the allocator's.
    int dequeue(VEL_Byte_Block& out);

    /// Reads up to `size` bytes into out's buffer, which is replaced by a zero-filled one when it is smaller; a buffer
    /// that is large enough is written in place, even when shared. Returns the bytes read; out's size is not cut to
    /// it. Errors: 8 and the allocator's.
    int dequeue(VEL_Byte_Block& out, uint64_t size);

    /// Reads up to `size` bytes across block borders. Returns the bytes read, fewer when the queue runs dry.
    int dequeue(void* buffer, uint64_t size);

    /// Drops all blocks and zeroes the byte count.
    void reset();

    /// The running byte count: enqueued bytes less those read byte-wise.
    uint64_t size() const { return byte_count_; }

private:
    VEL_List<VEL_Byte_Block>* blocks_;
    uint64_t byte_count_ = 0;
};
