// Scope guards that hold a lock.
#pragma once

#include <vel/sync/rw_mutex.h>

namespace vel {

/// The counting that the three guards share; sets 0x20000004 and returns -1.
VEL_API int guard_without_lock();

} // namespace vel

/// Holds any lock from its construction to its end; counts how often it holds it.
///
/// A lock that could not be taken is not reported by the constructor. Code that calls out while it holds a lock
/// unlocks its guard before and locks it again after.
/// Threads:   a guard belongs to one thread.
/// Ownership: the lock outlives the guard. A copy copies the count as it stands, so copy none that holds its lock.
/// Errors:    a guard on a null lock gives -1 with 0x20000004; `unlock` of one that holds nothing -1 with the error code
///            left alone.
///
///     VEL_Guard guard(lock_);
///     guard.unlock();
///     handler->handle_input(...);
///     guard.lock();
class VEL_API VEL_SCOPED_CAPABILITY VEL_Guard {
public:
    explicit VEL_Guard(VEL_Base_Mutex& mutex) VEL_ACQUIRE(mutex) : VEL_Guard(&mutex) {}

    /// Null makes an empty guard.
    explicit VEL_Guard(VEL_Base_Mutex* mutex) VEL_ACQUIRE(mutex) : mutex_(mutex) {
        if (mutex_ && mutex_->acquire() == 0) count_ = 1;
    }
    VEL_Guard(const VEL_Guard&) = default;
    VEL_Guard& operator=(const VEL_Guard&) = default;
    virtual ~VEL_Guard() VEL_RELEASE() {
        for (; mutex_ && count_ > 0; --count_) mutex_->release();
    }

    /// Takes the lock once more.
    int lock() { return mutex_ ? counted(mutex_->acquire()) : vel::guard_without_lock(); }
    int lock(uint32_t timeout_ms) { return mutex_ ? counted(mutex_->acquire(timeout_ms)) : vel::guard_without_lock(); }

    /// Gives the lock back once.
    int unlock() {
        if (!mutex_) return vel::guard_without_lock();
        if (count_ < 1) return -1;
        const int result = mutex_->release();
        if (result == 0) --count_;
        return result;
    }

private:
    int counted(int result) {
        if (result == 0) ++count_;
        return result;
    }

    int32_t count_ = 0;
    VEL_Base_Mutex* mutex_;
};

/// Holds a reader/writer lock for reading; everything else as VEL_Guard.
class VEL_API VEL_SCOPED_CAPABILITY VEL_Read_Guard {
public:
    explicit VEL_Read_Guard(VEL_RW_Thread_Mutex& mutex) VEL_ACQUIRE_SHARED(mutex);
    explicit VEL_Read_Guard(VEL_RW_Thread_Mutex* mutex) VEL_ACQUIRE_SHARED(mutex);
    VEL_Read_Guard(const VEL_Read_Guard&) = default;
    VEL_Read_Guard& operator=(const VEL_Read_Guard&) = default;
    virtual ~VEL_Read_Guard() VEL_RELEASE();

    int lock();
    int unlock();

private:
    int32_t count_ = 0;
    VEL_RW_Thread_Mutex* mutex_;
};

/// Holds a reader/writer lock for writing; everything else as VEL_Guard.
class VEL_API VEL_SCOPED_CAPABILITY VEL_Write_Guard {
public:
    explicit VEL_Write_Guard(VEL_RW_Thread_Mutex& mutex) VEL_ACQUIRE(mutex);
    explicit VEL_Write_Guard(VEL_RW_Thread_Mutex* mutex) VEL_ACQUIRE(mutex);
    VEL_Write_Guard(const VEL_Write_Guard&) = default;
    VEL_Write_Guard& operator=(const VEL_Write_Guard&) = default;
    virtual ~VEL_Write_Guard() VEL_RELEASE();

    int lock();
    int unlock();

private:
    int32_t count_ = 0;
    VEL_RW_Thread_Mutex* mutex_;
};
