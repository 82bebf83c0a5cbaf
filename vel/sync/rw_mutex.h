// Reader/writer lock between threads.
#pragma once

#include <condition_variable>
#include <vel/sync/mutex.h>

/// Many readers or one writer. A waiting writer shuts out new readers.
///
/// Writers hold the inherited mutex, the entry lock, for as long as they write; readers hold it only to register. The
/// entry lock is taken before the count lock, and nobody waits while holding the count lock.
/// Threads:   a writer's thread releases; writing is recursive. A reader that asks to write waits for itself for ever.
/// Ownership: a copy is a fresh lock that nobody holds; assigning changes nothing.
/// Errors:    timed acquisition: 0x20000003. A refused `try` leaves the error code alone.
class VEL_API VEL_RW_Thread_Mutex : public VEL_Thread_Mutex {
public:
    VEL_RW_Thread_Mutex();
    VEL_RW_Thread_Mutex(const VEL_RW_Thread_Mutex&) : VEL_RW_Thread_Mutex() {}
    VEL_RW_Thread_Mutex& operator=(const VEL_RW_Thread_Mutex&) { return *this; }
    ~VEL_RW_Thread_Mutex() override;

    /// As `tryacquire_write`.
    int tryacquire() override;
    int tryacquire_read() override;
    int tryacquire_write() override;

    using VEL_Thread_Mutex::acquire;
    /// As `acquire_write`.
    int acquire() override;
    int acquire_read() override;
    int acquire_write() override;

    /// One operation for both kinds: as long as any reader is registered it counts as a reader's release, on purpose;
    /// else it is the writer's.
    int release() override;

private:
    int register_reader();

    std::condition_variable no_readers_; // signalled when the last reader leaves
    int32_t readers_ = 0;                // guarded by count_lock_
    std::mutex count_lock_;
};
