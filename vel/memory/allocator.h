// The allocator interface and the three allocators of the library.
#pragma once

#include <atomic>
#include <vel/types.h>

/// Source of raw memory. Derive from it and install it with `VELLib::set_allocator` to replace the library's own.
///
/// Threads:   the three allocators here are safe from any thread; an own one must be as well.
/// Ownership: a block goes back to the allocator it came from.
/// Errors:    null, with the reason as the thread's error code; nothing is thrown. A size of 0 gives 0x2000000B and
///            does nothing else: `realloc` to 0 leaves the block as it is.
class VEL_API VEL_Allocator {
public:
    virtual ~VEL_Allocator();

    /// @param size  bytes
    /// @param zero  asks for memory filled with zeros
    virtual void* malloc(uint64_t size, bool zero) = 0;

    /// Resizes a block, which may move; null allocates a new one. After a failure the old block is still valid.
    virtual void* realloc(void* block, uint64_t size) = 0;

    /// Gives a block back; null is ignored.
    virtual void free(void* block) = 0;

protected:
    /// Registers an allocator; one that is registered already stays so. 0, or -1 with 87 for null or 8.
    static int add_allocator_instance(VEL_Allocator* allocator);
};

/// The runtime heap; what the library uses unless told otherwise.
///
/// Errors:    8 when memory is short.
class VEL_API VEL_Std_Allocator : public VEL_Allocator {
public:
    /// The process-wide instance; null with the error code set when it cannot be registered. It lives as long as the
    /// process, so that blocks may be freed after the library was shut down.
    static VEL_Std_Allocator* instance();

    void* malloc(uint64_t size, bool zero) override;
    void* realloc(void* block, uint64_t size) override;
    void free(void* block) override;

private:
    static std::atomic<VEL_Std_Allocator*> instance_;
};

/// Whole pages straight from the system, always zeroed.
///
/// Limits:    a size counts modulo 2^32, on purpose; a block never shrinks.
/// Errors:    8 when memory is short or a grown size wraps below what is there, 87 for a size whose low half is 0 and
///            for a pointer that is no block of this family.
class VEL_API VEL_Virtual_Allocator : public VEL_Allocator {
public:
    /// As `VEL_Std_Allocator::instance`.
    static VEL_Virtual_Allocator* instance();

    void* malloc(uint64_t size, bool zero) override;

    /// Keeps the block when its whole pages hold `size` already, else moves it with all of its pages.
    void* realloc(void* block, uint64_t size) override;
    void free(void* block) override;

private:
    static std::atomic<VEL_Virtual_Allocator*> instance_;
};

/// Movable heap blocks that the allocator knows by address, so that a foreign pointer is refused.
///
/// Limits:    a size counts modulo 2^32, on purpose.
/// Errors:    8 when memory is short, 87 for a size whose low half is 0, 6 when resizing a pointer that is no block of
///            this family.
class VEL_API VEL_Global_Allocator : public VEL_Allocator {
public:
    /// As `VEL_Std_Allocator::instance`.
    static VEL_Global_Allocator* instance();

    void* malloc(uint64_t size, bool zero) override;
    void* realloc(void* block, uint64_t size) override;

    /// Gives a block back; null and a pointer that is no block of this family are ignored.
    void free(void* block) override;

private:
    static std::atomic<VEL_Global_Allocator*> instance_;
};
