// Named memory that processes share, with its lock.
#pragma once

#include <string>
#include <vel/sync/process_mutex.h>

/// A block of memory shared between processes by name; it is itself the lock that orders their access.
///
/// The block vanishes with its last opener. Any user may open and change it: check whatever is read from it.
/// Threads:   reading and writing the block is up to its users, under this lock. Opening and closing: one at a time.
/// Ownership: a copy shares the block and the lock; each closes its own share.
/// Errors:    -1 with a system code: 5, 8, 87 for a size whose low half is 0, 112, 206.
/// Limits:    a size counts modulo 2^32, on purpose.
///
///     VEL_Shared_Memory block;
///     if (block.open("counters", 4096) == -1) return -1;
///     VEL_Guard guard(block);
///     ++*static_cast<uint64_t*>(block.c_ptr(0));
class VEL_API VEL_Shared_Memory : public VEL_Process_Mutex {
public:
    VEL_Shared_Memory();
    VEL_Shared_Memory(const VEL_Shared_Memory& other);
    VEL_Shared_Memory& operator=(const VEL_Shared_Memory& other);

    /// Closes the block.
    ~VEL_Shared_Memory() override;

    /// Opens the block, or creates it filled with zeros; one that is open already is closed first.
    /// @param name  null opens the nameless block of all processes
    /// @param size  bytes to create; a block that is there keeps its own size
    /// @return      the size of the block in bytes, whole pages; -1 on failure. 2 GiB and more do not fit: compare with
    ///              -1 and ask `size`
    int open(const char* name, uint64_t size);
    void close();

    /// The address `offset` bytes into the block; null when it is not open. The offset is not checked.
    void* c_ptr(uint64_t offset) const;

    /// The start of the block; null when it is not open.
    operator void*() const { return address_; }

    /// Bytes of the block; 0 when it is not open.
    uint64_t size() const { return size_; }

    /// The name given to `open`.
    std::string name() const { return name_; }

private:
    void* mapping_ = nullptr;
    void* address_ = nullptr;
    uint64_t size_ = 0;
    std::string name_;
};
