// Lock on a byte range of a file.
#include <vel/platform/files.h>
#include <vel/sync/file_mutex.h>
#include <vel/sync/unsupported.h>

VEL_File_Mutex::VEL_File_Mutex(void* file_handle, uint64_t length, uint64_t offset)
    : file_(file_handle),
      length_(length),
      offset_(offset) {}

VEL_File_Mutex::~VEL_File_Mutex() = default;

void VEL_File_Mutex::setlockopt(void* file_handle, uint64_t length, uint64_t offset) {
    file_ = file_handle;
    length_ = length;
    offset_ = offset;
}

int VEL_File_Mutex::tryacquire() { return VELLib::flock(file_, offset_, length_, nullptr, false); }
int VEL_File_Mutex::acquire() { return VELLib::flock(file_, offset_, length_, nullptr, true); }
int VEL_File_Mutex::release() { return VELLib::funlock(file_, offset_, length_, nullptr); }

int VEL_File_Mutex::acquire(uint32_t) { return vel::unsupported_lock_operation(); }
int VEL_File_Mutex::tryacquire_read() { return vel::unsupported_lock_operation(); }
int VEL_File_Mutex::tryacquire_write() { return vel::unsupported_lock_operation(); }
int VEL_File_Mutex::acquire_read() { return vel::unsupported_lock_operation(); }
int VEL_File_Mutex::acquire_write() { return vel::unsupported_lock_operation(); }
