// Exclusive byte ranges of one file handle.
//
// Invariants:
//  - ranges_ holds every range that is locked, or being locked, through the handle; no two of them overlap, so the
//    kernel's locks of the handle never merge and an unlock frees exactly what its lock took;
//  - a range is granted from the moment the kernel has locked it; only granted ranges can be unlocked;
//  - the kernel's locks belong to the open file (not to the process), so two handles exclude each other everywhere.
#pragma once

#include <atomic>
#include <mutex>
#include <vector>
#include <vel/types.h>

namespace vel::os {

class ByteLocks {
public:
    ~ByteLocks();

    /// @param descriptor  of the file; `writable` says whether it was opened for writing
    uint32_t lock(int descriptor, bool writable, uint64_t offset, uint64_t length, bool wait);
    uint32_t unlock(int descriptor, uint64_t offset, uint64_t length);

    /// Unlocks everything and lets every waiter end with 6.
    void close(int descriptor);

    /// Takes back the range that a killed thread waited for.
    void abandon(int descriptor, uint32_t thread_id);

private:
    struct Range {
        uint64_t offset;
        uint64_t length;
        uint32_t waiter; // thread that asks the kernel for it; 0 once granted

        bool granted() const { return waiter == 0; }
    };

    uint32_t reserve(uint64_t offset, uint64_t length, bool wait);
    uint32_t settle(int descriptor, uint64_t offset, uint64_t length, uint32_t code);
    uint32_t find_lock_descriptor(int descriptor, bool writable);
    uint32_t lock_in_kernel(int descriptor, uint64_t offset, uint64_t length, bool wait) const;
    void unlock_in_kernel(int descriptor, uint64_t offset, uint64_t length) const;
    void announce();
    bool overlaps(uint64_t offset, uint64_t length) const;
    std::vector<Range>::iterator find(uint64_t offset, uint64_t length);

    std::mutex mutex_;
    // Counts what waiters look for. A condition variable would wait at its end for a waiter that was killed.
    std::atomic<uint32_t> changes_{0};
    uint32_t waiters_ = 0;      // guarded by mutex_; too high for good once a waiter was killed, which costs a call
    std::vector<Range> ranges_; // guarded by mutex_
    bool closed_ = false;       // guarded by mutex_

    // A handle opened for reading locks through a companion opened for writing, or shared where there can be none.
    // Set once under mutex_ before the first lock, constant afterwards.
    bool chosen_ = false;
    bool shared_ = false;
    int companion_ = -1;
};

} // namespace vel::os
