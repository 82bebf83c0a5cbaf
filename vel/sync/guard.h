// Scope guards that hold a lock.
#pragma once

#include <vel/sync/rw_mutex.h>

namespace vel {

/// Sets 0x20000004 and returns -1: the answer of a guard without a lock.
VEL_API int guard_without_lock();

/// A lock and how often it is held: what the three guards share.
template <class Mutex>
struct Hold {
    int32_t count;
    Mutex* mutex; // may be null

    int counted(int result) {
        if (result == 0) ++count;
        return result;
    }

    int release_once() {
        if (!mutex) return guard_without_lock();
        if (count < 1) return -1; // the error code stays as it is, on purpose
        const int result = mutex->release();
        if (result == 0) --count;
        return result;
    }

    void release_all() {
        if (!mutex) return;
        for (; count > 0; --count) mutex->release();
    }
};

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
    explicit VEL_Guard(VEL_Base_Mutex* mutex) VEL_ACQUIRE(mutex) : hold_{0, mutex} {
        if (mutex) hold_.counted(mutex->acquire());
    }
    VEL_Guard(const VEL_Guard&) = default;
    VEL_Guard& operator=(const VEL_Guard&) = default;
    virtual ~VEL_Guard() VEL_RELEASE() { hold_.release_all(); }

    /// Takes the lock once more.
    int lock() { return hold_.mutex ? hold_.counted(hold_.mutex->acquire()) : vel::guard_without_lock(); }
    int lock(uint32_t timeout_ms) {
        return hold_.mutex ? hold_.counted(hold_.mutex->acquire(timeout_ms)) : vel::guard_without_lock();
    }

    /// Gives the lock back once.
    int unlock() { return hold_.release_once(); }

private:
    vel::Hold<VEL_Base_Mutex> hold_;
};

/// Holds a reader/writer lock for reading; everything else as VEL_Guard.
class VEL_API VEL_SCOPED_CAPABILITY VEL_Read_Guard {
public:
    explicit VEL_Read_Guard(VEL_RW_Thread_Mutex& mutex) VEL_ACQUIRE_SHARED(mutex) : VEL_Read_Guard(&mutex) {}

    explicit VEL_Read_Guard(VEL_RW_Thread_Mutex* mutex) VEL_ACQUIRE_SHARED(mutex) : hold_{0, mutex} {
        if (mutex) hold_.counted(mutex->acquire_read());
    }
    VEL_Read_Guard(const VEL_Read_Guard&) = default;
    VEL_Read_Guard& operator=(const VEL_Read_Guard&) = default;
    virtual ~VEL_Read_Guard() VEL_RELEASE() { hold_.release_all(); }

    /// Takes the lock once more.
    int lock() { return hold_.mutex ? hold_.counted(hold_.mutex->acquire_read()) : vel::guard_without_lock(); }

    /// Gives the lock back once.
    int unlock() { return hold_.release_once(); }

private:
    vel::Hold<VEL_RW_Thread_Mutex> hold_;
};

/// Holds a reader/writer lock for writing; everything else as VEL_Guard.
class VEL_API VEL_SCOPED_CAPABILITY VEL_Write_Guard {
public:
    explicit VEL_Write_Guard(VEL_RW_Thread_Mutex& mutex) VEL_ACQUIRE(mutex) : VEL_Write_Guard(&mutex) {}

    explicit VEL_Write_Guard(VEL_RW_Thread_Mutex* mutex) VEL_ACQUIRE(mutex) : hold_{0, mutex} {
        if (mutex) hold_.counted(mutex->acquire_write());
    }
    VEL_Write_Guard(const VEL_Write_Guard&) = default;
    VEL_Write_Guard& operator=(const VEL_Write_Guard&) = default;
    virtual ~VEL_Write_Guard() VEL_RELEASE() { hold_.release_all(); }

    /// Takes the lock once more.
    int lock() { return hold_.mutex ? hold_.counted(hold_.mutex->acquire_write()) : vel::guard_without_lock(); }

    /// Gives the lock back once.
    int unlock() { return hold_.release_once(); }

private:
    vel::Hold<VEL_RW_Thread_Mutex> hold_;
};
