// Free functions for files: open, transfer, size, times, byte-range locks, copy and removal.
#pragma once

#include <vel/types.h>

/// Threads:   every call from any thread. Transfers without a position share the handle's position.
/// Ownership: a handle from `create` or `open` is closed by its opener with `close`.
/// Errors:    -1 (`create`, `open`: VEL_INVALID_HANDLE) with the thread's error code set; nothing is thrown.
/// Limits:    paths are UTF-8 with '/' between components. One `read` or `write` moves at most 1 GiB.
///
///     void* file = VELLib::create("./data/part.bin", true, 0);
///     if (file != VEL_INVALID_HANDLE) {
///         VELLib::write_n(file, bytes, count);
///         VELLib::close(file);
///     }
namespace VELLib {

/// Creates a file for reading and writing, and every missing directory of its path first.
/// A read-only file in the way is made writable and tried once more.
/// @param path       must hold a separator after its first character, else 161
/// @param overwrite  true truncates an existing file; false fails with 80 when there is one
/// @param flags      sum of 1 (read-only once closed), 0x04000000 (delete when closed) and 0x80000000 (write
///                   through to the medium); other bits have no effect
/// Returns the handle, or VEL_INVALID_HANDLE. Errors: 161, 80, 5 and other system codes.
VEL_API void* create(const char* path, bool overwrite, uint32_t flags);

/// Opens an existing file for reading, or for reading and writing; a file that is refused for writing because it is
/// read-only is made writable and tried once more.
/// @param flags  as for `create`; 1 has no effect
/// Returns the handle, or VEL_INVALID_HANDLE. Errors: 2, 3 (a directory of the path is missing), 5.
VEL_API void* open(const char* path, bool readOnly, uint32_t flags);

/// Closes a handle. Returns 0, or -1 with 6.
VEL_API int close(void* file);

/// One transfer of at most `size` bytes at the file position; a socket's handle does as well.
/// @param overlapped  not null: the transfer starts at the record's offset and leaves the file position alone. On a
///                    handle that is associated with a proactor it completes there: -1 with 997. The end of the
///                    file is -1 with 38 then.
/// Returns the bytes moved; 0 is the end of the file, or a peer that has closed.
VEL_API int read(void* file, void* buffer, uint64_t size, OVERLAPPED* overlapped);
VEL_API int write(void* file, const void* data, uint64_t size, OVERLAPPED* overlapped);

/// Repeats until `size` bytes are moved; `read_n` stops early at the end of the file.
/// @param size  at most 0x7FFFFFFF, since the result could not tell more: 87
/// Returns the bytes moved, or -1 on any error, whatever was moved before it.
VEL_API int read_n(void* file, void* buffer, uint64_t size);
VEL_API int write_n(void* file, const void* data, uint64_t size);

/// @param whence  0 from the beginning, 1 from the position, 2 from the end
/// Returns the new position in bytes, or -1.
VEL_API int64_t seek(void* file, int64_t offset, uint32_t whence);

/// Size in bytes, or -1.
VEL_API int64_t getfsize(void* file);

/// Sets the end of the file at `size` bytes; the file position stays. New bytes are zero. Returns 0 or -1.
VEL_API int setfsize(void* file, uint64_t size);

/// File times in local time, cut to milliseconds. A null pointer leaves that time out. Returns 0 or -1.
/// A file system that keeps no creation time reports its oldest time and ignores a new one.
VEL_API int getftime(void* file, SYSTEMTIME* created, SYSTEMTIME* accessed, SYSTEMTIME* written);
VEL_API int setftime(void* file, const SYSTEMTIME* created, const SYSTEMTIME* accessed, const SYSTEMTIME* written);

/// Exclusive lock on a byte range, against every other handle in this and other processes, and against a second lock
/// through the same handle. Note the order: offset before length.
/// @param offset, length  in bytes; length 0 succeeds and locks nothing
/// @param overlapped      receives the offset; may be null
/// @param wait            false fails at once with 33 when a byte is taken
/// Returns 0 or -1. `funlock` needs the very range that was locked, else 158.
VEL_API int flock(void* file, uint64_t offset, uint64_t length, OVERLAPPED* overlapped, bool wait);
VEL_API int funlock(void* file, uint64_t offset, uint64_t length, OVERLAPPED* overlapped);

/// Copies over an existing file in one step: no reader sees half of it. Makes the target's missing directories first.
/// @param to  must hold a separator after its first character, else 161
/// Returns 0 or -1.
VEL_API int copyfile(const char* from, const char* to);

/// Renames, replacing an existing file; across file systems it copies and deletes. Directories and 161 as above.
VEL_API int movefile(const char* from, const char* to);

/// Deletes one file. Returns 0 or -1.
VEL_API int deletefile(const char* path);

/// @param mode  0 exists (a failure is always 2), 2 may be written, 4 may be read, 6 both
/// Returns 0 or -1.
VEL_API int taccess(const char* path, int mode);

} // namespace VELLib
