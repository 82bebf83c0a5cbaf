// Daily log files that several processes may share.
#pragma once

#include <atomic>
#include <cstdarg>
#include <memory>
#include <string>
#include <vel/sync/mutex.h>
#include <vel/types.h>

/// Writes lines with time and severity into one file a day, in one directory a month:
/// `DIRECTORY/Log202611/log_20261114.log`. A line is
/// `[2026-11-14 17:40:34][ERROR][stream.cpp][120 line]send failed` and ends with CR LF; file name and line number of the
/// caller are there at level 1 alone. The level is no filter: every call writes its line.
///
/// Threads:   any, also several loggers and processes on one directory: a line is one write to the end of the file, under
///            an exclusive lock on the bytes that are there. Arguments are formatted outside the mutex.
/// Ownership: a copy has a directory of its own and shares the open file; each closes its share.
/// Errors:    logging reports none: a line that cannot be written is dropped, and the next one tries again. A file that
///            cannot be opened leaves its reason as the thread's error code. A deleted file is made anew. A piece of a
///            line that a full disk took is cut off again; one that a killed process left stays, on a line of its own.
/// Limits:    a line has at most 32,768 bytes; the message is cut to what the header leaves of them. It ends at a NUL
///            among its characters, and other control characters in it stand in the file as they are.
///
///     VEL_Log log(1);
///     log.set_log_dir("/var/log/server");
///     log.log_error(__FILE__, __LINE__, "send to %s failed: %u", name, VELLib::GetErrorCode());
class VEL_API VEL_Log {
public:
    /// @param level  1 adds the caller's source location to each line, any other value leaves it out
    explicit VEL_Log(uint32_t level);

    /// Throw VEL_Exception with 8 when there is no memory for the directory.
    VEL_Log(const VEL_Log& other);
    VEL_Log& operator=(const VEL_Log& other);

    virtual ~VEL_Log();

    /// Called with each finished line before it is written, without a lock; a negative result keeps it out of the file.
    virtual int handle_log_output(const char* line);

    /// @param kind  0 info, 1 warning, 2 error; any other is info
    /// @param file  the caller's source file: what follows its last backslash is shown
    /// @param line  number of the caller's source line
    void log(uint32_t kind, const char* file, int line, const char* format, ...) __attribute__((format(printf, 5, 6)));
    void log_info(const char* file, int line, const char* format, ...) __attribute__((format(printf, 4, 5)));
    void log_warning(const char* file, int line, const char* format, ...) __attribute__((format(printf, 4, 5)));
    void log_error(const char* file, int line, const char* format, ...) __attribute__((format(printf, 4, 5)));

    uint32_t get_level() const { return level_.load(std::memory_order_relaxed); }
    void set_level(uint32_t level) { level_.store(level, std::memory_order_relaxed); }

    /// Lines go below this directory from the next one on; missing directories are made then. One separator at its end
    /// is left off.
    /// @param dir  null: the directory of the running executable, as before the first call
    /// Throws VEL_Exception with 8 when there is no memory; nothing has changed then.
    void set_log_dir(const char* dir);

    /// The directory in use; empty with the error code when it cannot be told.
    std::string get_log_dir();

protected:
    /// Writes the start of a line, NUL-terminated, and returns the place behind it.
    /// @param buffer  room for 32,769 bytes, of which the last three stay free
    char* make_log_header(const SYSTEMTIME& time, char* buffer, uint32_t kind, uint32_t level, const char* file,
                          int line);

    /// Writes one finished line into the file of the day of `time`.
    void log_file(const SYSTEMTIME& time, const char* line);

private:
    void write_line(uint32_t kind, const char* file, int line, const char* format, va_list arguments)
        __attribute__((format(printf, 5, 0)));
    void* open(const SYSTEMTIME& time) VEL_REQUIRES(mutex_);
    const char* get_log_dir_internal() VEL_REQUIRES(mutex_);
    void close_file() VEL_REQUIRES(mutex_);

    std::atomic<uint32_t> level_;
    std::unique_ptr<char[]> dir_ VEL_GUARDED_BY(mutex_); // without a separator at its end; null: not yet known
    void* file_ VEL_GUARDED_BY(mutex_) = VEL_INVALID_HANDLE;
    SYSTEMTIME opened_ VEL_GUARDED_BY(mutex_){}; // when the file was opened; its day is the file's
    mutable VEL_Thread_Mutex mutex_;
    uint64_t end_ VEL_GUARDED_BY(mutex_) = 0; // of the last line written through this object
};
