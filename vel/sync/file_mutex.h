// Lock on a byte range of a file.
#pragma once

#include <vel/sync/mutex.h>

/// Excludes other handles, in this process and in others, from a byte range of a file.
///
/// Ownership: the file handle stays the caller's and is never closed here; a copy names the same handle and range.
/// Errors:    0 or -1 with a system code: 6 for a bad handle, 33 when the range is taken, 158 when it is not locked.
///            Reading, writing and timed acquisition: 0x20000003.
/// Limits:    length comes before offset here, offset before length in `VELLib::flock`, on purpose.
class VEL_API VEL_File_Mutex : public VEL_Base_Mutex {
public:
    /// @param length  bytes to lock
    /// @param offset  where they start
    VEL_File_Mutex(void* file_handle, uint64_t length, uint64_t offset);
    ~VEL_File_Mutex() override;
    VEL_File_Mutex(const VEL_File_Mutex&) = default;
    VEL_File_Mutex& operator=(const VEL_File_Mutex&) = default;

    /// Names another file and range; do so only while nothing is locked.
    void setlockopt(void* file_handle, uint64_t length, uint64_t offset);

    int tryacquire() override;
    int tryacquire_read() override;
    int tryacquire_write() override;
    int acquire(uint32_t timeout_ms) override;
    int acquire() override;
    int acquire_read() override;
    int acquire_write() override;
    int release() override;

private:
    void* file_;
    uint64_t length_;
    uint64_t offset_;
};
