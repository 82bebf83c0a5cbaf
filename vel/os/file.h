// Files, byte-range locks and directories. Paths are UTF-8 with '/' between components.
#pragma once

#include <string>
#include <vel/types.h>

namespace vel::os {

/// All but `open_read` read and write.
enum class FileOpen : uint8_t {
    create_new,    // fails with 80 when it exists
    create_always, // truncates an existing one
    open_always,   // creates it when it is not there
    open_read,     // must exist
    open_write,    // must exist
};

struct FileOptions {
    bool append = false;          // every write goes to the end of the file, also between processes
    bool read_only = false;       // a file that is created cannot be opened for writing once this handle is closed
    bool delete_on_close = false; // the file goes with this handle
    bool write_through = false;   // a write returns when the medium has the bytes
    bool plain_only = false;      // refuses links (1921) and whatever is no regular file (5)
};

/// Creation, access and write time in 100 ns ticks since 1601-01-01, UTC; 0 leaves a time as it is when setting.
/// A file system that keeps no creation time reports its oldest time and ignores a new one.
struct FileTimes {
    uint64_t created;
    uint64_t accessed;
    uint64_t written;
};

struct FileInfo {
    bool directory;
    bool regular;   // neither a directory nor a device, pipe or the like
    bool read_only; // its owner may not write it
    uint64_t size;
};

/// What an open file is at the moment. A deleted one has no name left and goes with its last handle.
struct FileState {
    uint64_t size;
    uint64_t names;
};

/// Opens a file, never waiting for another opener; a directory gives 5, a missing parent 3.
/// Errors: 2, 3, 4, 5, 8, 80, 112 and other system codes.
uint32_t open_file(const char* path, FileOpen how, void*& file, const FileOptions& options = {});

/// Moves up to `size` bytes, at most 1 GiB a call, at the file position; a socket's handle does as well and then gives
/// socket codes. `moved` 0 with code 0 is the end of the file.
uint32_t read_file(void* file, void* buffer, uint64_t size, uint64_t& moved);
uint32_t write_file(void* file, const void* data, uint64_t size, uint64_t& moved);

/// The same at a position of its own; the file position stays.
uint32_t read_file_at(void* file, void* buffer, uint64_t size, uint64_t offset, uint64_t& moved);
uint32_t write_file_at(void* file, const void* data, uint64_t size, uint64_t offset, uint64_t& moved);

/// @param whence  0 begin, 1 current, 2 end
uint32_t seek_file(void* file, int64_t offset, uint32_t whence, int64_t& position);
uint32_t file_size(void* file, uint64_t& size);
uint32_t file_state(void* file, FileState& state);

/// The file position stays. Errors: 5 for a handle opened for reading, 112, 223.
uint32_t set_file_size(void* file, uint64_t size);
uint32_t file_times(void* file, FileTimes& times);
uint32_t set_file_times(void* file, const FileTimes& times);

/// Exclusive lock on a byte range; ranges of two handles exclude each other, in this process and across processes, and
/// so do two ranges of one handle. Without `wait` a taken range gives 33. A length of 0 succeeds without a lock, and
/// so does its unlock. Unlock needs the very range: 158. Closing the handle, or the end of the process, unlocks. A
/// thread that waits for another handle's range when its own handle is closed still waits for that range, then gets 6.
/// A handle opened for reading on a file that may not be written excludes writers' locks, not those of its like.
/// @param offset  below 2^63, with `length` not past 2^64, else 87
uint32_t lock_range(void* file, uint64_t offset, uint64_t length, bool wait);
uint32_t unlock_range(void* file, uint64_t offset, uint64_t length);

/// Follows links. Errors: 2, 3, 5.
uint32_t path_info(const char* path, FileInfo& info);
uint32_t set_read_only(const char* path, bool read_only);

/// Errors: 2, 3, 5 (also for a directory).
uint32_t delete_file(const char* path);

/// Replaces the target in one step: a copy is written beside it and renamed. A link in its place is replaced, not
/// followed. The copy has the write time and the permissions of its source.
/// Errors: those of opening and writing; 5 when the target is a directory.
uint32_t copy_file(const char* from, const char* to);

/// Renames, replacing the target; across devices copies and deletes.
uint32_t move_file(const char* from, const char* to);

/// Access test. @param mode  0 exists, 2 write, 4 read, 6 both
uint32_t access_path(const char* path, int mode);

/// Errors: 183 when anything is there under this name, 3 when a parent is missing.
uint32_t create_directory(const char* path);

/// Removes an empty directory; 145 when it is not.
uint32_t remove_directory(const char* path);

/// Removes a directory with all it holds. Never follows a link; stops at the first failure.
uint32_t remove_directory_tree(const char* path);

/// Directory of the running executable, without a trailing separator.
uint32_t executable_directory(std::string& path);

} // namespace vel::os
