// Named mutex between processes.
#pragma once

#include <vel/sync/mutex.h>

/// Recursive mutex that processes share by name; without a name it belongs to this process alone.
///
/// Any user may open a name, so a name orders those who cooperate and protects from nobody.
/// Threads:   the thread that acquires releases. An owner that died hands the lock on silently.
/// Ownership: a copy shares the handle; each closes its own share.
/// Errors:    0 or -1 with a system code: 6 when not open, 258 when a timed wait ended, 288 when the caller does not own
///            what it releases. Reading and writing: 0x20000003.
class VEL_API VEL_Process_Mutex : public VEL_Base_Mutex {
public:
    /// @param name  may be null for an unnamed mutex
    /// @param open  opens at once and throws VEL_Exception when that fails; else nothing is created yet
    VEL_Process_Mutex(const char* name, bool open);
    VEL_Process_Mutex(const VEL_Process_Mutex& other);
    VEL_Process_Mutex& operator=(const VEL_Process_Mutex& other);
    ~VEL_Process_Mutex() override;

    /// Creates or opens the mutex, not acquired. It forgets a handle that is held already without closing it, on
    /// purpose: close first. 0 or -1.
    int open_mutex(const char* name);

    /// Closes the handle, if there is one.
    void close_mutex();

    int tryacquire() override;
    int tryacquire_read() override;
    int tryacquire_write() override;
    int acquire(uint32_t timeout_ms) override;
    int acquire() override;
    int acquire_read() override;
    int acquire_write() override;
    int release() override;

    /// As `acquire(timeout_ms)`, and tells whether the previous owner died holding the lock: what it guards may then be
    /// half changed.
    int acquire(uint32_t timeout_ms, bool& abandoned);

private:
    void* handle_ = nullptr;
};
