// Files, byte-range locks and directories. Paths are UTF-8 with '/' between components.
#pragma once

#include <string>
#include <vel/types.h>

namespace vel::os {

enum class FileOpen : uint8_t {
    create_new,    // fails with 80 when it exists
    create_always, // truncates an existing one
    open_read,     // must exist
    open_write,    // must exist; read and write
};

/// Creation, access and write time in 100 ns ticks since 1601-01-01, UTC; 0 leaves a time as it is when setting.
struct FileTimes {
    uint64_t created;
    uint64_t accessed;
    uint64_t written;
};

struct FileInfo {
    bool directory;
    bool read_only; // no owner write bit
    uint64_t size;
};

/// One entry of a directory.
struct DirectoryEntry {
    std::string name;
    bool directory; // false for links, also to directories
};

/// Opens a file; a directory gives 5. Missing parents give 3.
uint32_t open_file(const char* path, FileOpen how, void*& file);

/// Moves up to `size` bytes at the file position (sockets too); `moved` 0 with code 0 is the end of the file.
uint32_t read_file(void* file, void* buffer, uint64_t size, uint64_t& moved);
uint32_t write_file(void* file, const void* data, uint64_t size, uint64_t& moved);

/// The same at a position of its own; the file position stays.
uint32_t read_file_at(void* file, void* buffer, uint64_t size, uint64_t offset, uint64_t& moved);
uint32_t write_file_at(void* file, const void* data, uint64_t size, uint64_t offset, uint64_t& moved);

/// @param whence  0 begin, 1 current, 2 end
uint32_t seek_file(void* file, int64_t offset, uint32_t whence, int64_t& position);
uint32_t file_size(void* file, uint64_t& size);
uint32_t set_file_size(void* file, uint64_t size);
uint32_t file_times(void* file, FileTimes& times);
uint32_t set_file_times(void* file, const FileTimes& times);

/// Exclusive lock on a byte range; ranges of two handles exclude each other, in this process and across processes.
/// Without `wait` a taken range gives 33. A length of 0 succeeds without a lock. Unlock needs the very range: 158.
uint32_t lock_range(void* file, uint64_t offset, uint64_t length, bool wait);
uint32_t unlock_range(void* file, uint64_t offset, uint64_t length);

uint32_t path_info(const char* path, FileInfo& info);
uint32_t set_read_only(const char* path, bool read_only);
uint32_t delete_file(const char* path);

/// Replaces the target in one step: a copy is written beside it and renamed.
uint32_t copy_file(const char* from, const char* to);

/// Renames, replacing the target; across devices copies and deletes.
uint32_t move_file(const char* from, const char* to);

/// Access test. @param mode  0 exists, 2 write, 4 read, 6 both
uint32_t access_path(const char* path, int mode);

uint32_t create_directory(const char* path);

/// Removes an empty directory; 145 when it is not.
uint32_t remove_directory(const char* path);

/// Removes a directory with all it holds. Never follows a link; stops at the first failure.
uint32_t remove_directory_tree(const char* path);

/// Directory of the running executable, without a trailing separator.
uint32_t executable_directory(std::string& path);

} // namespace vel::os
