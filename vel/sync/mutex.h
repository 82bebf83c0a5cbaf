// The lock interface and the mutex between threads.
#pragma once

#include <mutex>
#include <vel/sync/thread_safety.h>
#include <vel/types.h>

/// The interface of every lock, and the lock that locks nothing: each operation succeeds at once.
///
/// Errors:    0, or -1 with the thread's error code set; what a lock does not offer gives 0x20000003. A lock that is
///            merely taken makes the `try` operations return -1 with the error code left alone, on purpose.
class VEL_API VEL_CAPABILITY("mutex") VEL_Base_Mutex {
public:
    VEL_Base_Mutex() = default;
    VEL_Base_Mutex(const VEL_Base_Mutex&) = default;
    VEL_Base_Mutex& operator=(const VEL_Base_Mutex&) = default;
    virtual ~VEL_Base_Mutex();

    /// Takes the lock if that needs no waiting.
    virtual int tryacquire();
    virtual int tryacquire_read();
    virtual int tryacquire_write();

    /// @param timeout_ms  longest wait; VEL_INFINITE waits for ever. Its end gives -1 with 258
    virtual int acquire(uint32_t timeout_ms);
    virtual int acquire();

    /// Takes the lock beside other readers, or alone.
    virtual int acquire_read();
    virtual int acquire_write();

    virtual int release();
};

/// Recursive mutex between the threads of a process.
///
/// Threads:   the thread that acquires releases, as often as it acquired.
/// Ownership: a copy is a fresh lock that nobody holds; assigning changes nothing.
/// Errors:    reading, writing and timed acquisition: 0x20000003.
class VEL_API VEL_Thread_Mutex : public VEL_Base_Mutex {
public:
    VEL_Thread_Mutex() = default;
    VEL_Thread_Mutex(const VEL_Thread_Mutex&) : VEL_Thread_Mutex() {}
    VEL_Thread_Mutex& operator=(const VEL_Thread_Mutex&) { return *this; }
    ~VEL_Thread_Mutex() override;

    int tryacquire() override { return mutex_.try_lock() ? 0 : -1; }
    int tryacquire_read() override;
    int tryacquire_write() override;
    int acquire(uint32_t timeout_ms) override;
    int acquire() override { return mutex_.try_lock() ? 0 : acquire_taken(); }
    int acquire_read() override;
    int acquire_write() override;
    int release() override {
        mutex_.unlock();
        return 0;
    }

protected:
    std::recursive_mutex mutex_;

private:
    int acquire_taken();
};
