// Files of the library over those of the operating-system boundary.
#include <vel/platform/files.h>

#include <algorithm>
#include <climits>
#include <new>
#include <string_view>
#include <vel/os/clock.h>
#include <vel/os/completion_port.h>
#include <vel/os/error_codes.h>
#include <vel/os/file.h>
#include <vel/os/handle.h>
#include <vel/platform/directories.h>
#include <vel/platform/report.h>
#include <vel/platform/times.h>

namespace VELLib {
namespace {

namespace os = vel::os;
namespace error = vel::error;
using vel::report;

constexpr uint32_t read_only_flag = 0x00000001;
constexpr uint32_t delete_on_close_flag = 0x04000000;
constexpr uint32_t write_through_flag = 0x80000000;
constexpr uint64_t largest_step = uint64_t{1} << 30;

os::FileOptions to_options(uint32_t flags) {
    os::FileOptions options;
    options.read_only = flags & read_only_flag;
    options.delete_on_close = flags & delete_on_close_flag;
    options.write_through = flags & write_through_flag;
    return options;
}

// True when the file may now be worth another try: it was read-only and is no longer.
bool clear_read_only(const char* path) {
    os::FileInfo info{};
    return os::path_info(path, info) == error::none && info.regular && info.read_only &&
           os::set_read_only(path, false) == error::none;
}

void* open_or_clear(const char* path, os::FileOpen how, uint32_t flags) {
    void* file = VEL_INVALID_HANDLE;
    uint32_t code = os::open_file(path, how, file, to_options(flags));
    if (code == error::access_denied && how != os::FileOpen::open_read && clear_read_only(path))
        code = os::open_file(path, how, file, to_options(flags));
    return report(code) == 0 ? file : VEL_INVALID_HANDLE;
}

// The directories of a file that is to be made; a bare name, or one in the root, is refused.
int make_parents(const char* path) try {
    const std::string_view text(path ? path : "");
    const size_t separator = text.rfind('/');
    if (separator == std::string_view::npos || separator == 0) return report(error::bad_path_name);
    const std::string parent(text.substr(0, separator));
    return parent.find_first_not_of('/') == std::string::npos ? 0 : createdir(parent.c_str());
} catch (const std::bad_alloc&) {
    return report(error::not_enough_memory);
}

// One step never exceeds the boundary's limit, which an int can tell.
int moved_or_error(uint32_t code, uint64_t moved) { return report(code) == 0 ? static_cast<int>(moved) : -1; }

// Moves whole pieces until everything is through or a step moves nothing.
template <class Byte, class Step>
int move_all(Byte* bytes, uint64_t size, Step step) {
    if (size > INT_MAX) return report(error::invalid_parameter);
    uint64_t done = 0;
    while (done < size) {
        uint64_t moved = 0;
        if (const uint32_t code = step(bytes + done, size - done, moved)) return report(code);
        if (moved == 0) break;
        done += moved;
    }
    return static_cast<int>(done);
}

void to_local_time(uint64_t utc_ticks, SYSTEMTIME* time) {
    if (time) vel::file_time_to_system_time(vel::make_file_time(os::utc_to_local(utc_ticks)), *time);
}

// Null stands for "leave it", which is 0.
bool to_utc_ticks(const SYSTEMTIME* time, uint64_t& ticks) {
    FILETIME local{};
    if (!time) return true;
    if (!vel::system_time_to_file_time(*time, local)) return false;
    ticks = os::local_to_utc(vel::file_time_ticks(local));
    return true;
}

uint64_t as_number(void* file) { return reinterpret_cast<uintptr_t>(file); }

void set_offset(OVERLAPPED* overlapped, uint64_t offset) {
    if (!overlapped) return;
    overlapped->Offset = static_cast<uint32_t>(offset);
    overlapped->OffsetHigh = static_cast<uint32_t>(offset >> 32);
}

} // namespace

void* create(const char* path, bool overwrite, uint32_t flags) {
    if (make_parents(path) != 0) return VEL_INVALID_HANDLE;
    return open_or_clear(path, overwrite ? os::FileOpen::create_always : os::FileOpen::create_new, flags);
}

void* open(const char* path, bool readOnly, uint32_t flags) {
    return open_or_clear(path, readOnly ? os::FileOpen::open_read : os::FileOpen::open_write, flags);
}

int close(void* file) { return report(os::close_handle(file)); }

int read(void* file, void* buffer, uint64_t size, OVERLAPPED* overlapped) {
    uint64_t moved = 0;
    const uint32_t code =
        overlapped ? os::overlapped_receive(as_number(file), buffer, std::min(size, largest_step), *overlapped, moved)
                   : os::read_file(file, buffer, size, moved);
    return moved_or_error(code, moved);
}

int write(void* file, const void* data, uint64_t size, OVERLAPPED* overlapped) {
    uint64_t moved = 0;
    const uint32_t code =
        overlapped ? os::overlapped_send(as_number(file), data, std::min(size, largest_step), *overlapped, moved)
                   : os::write_file(file, data, size, moved);
    return moved_or_error(code, moved);
}

int read_n(void* file, void* buffer, uint64_t size) {
    return move_all(static_cast<char*>(buffer), size, [file](char* target, uint64_t wanted, uint64_t& moved) {
        return os::read_file(file, target, wanted, moved);
    });
}

int write_n(void* file, const void* data, uint64_t size) {
    return move_all(static_cast<const char*>(data), size, [file](const char* source, uint64_t wanted, uint64_t& moved) {
        const uint32_t code = os::write_file(file, source, wanted, moved);
        return code == error::none && moved == 0 ? error::io_device : code;
    });
}

int64_t seek(void* file, int64_t offset, uint32_t whence) {
    int64_t position = 0;
    return report(os::seek_file(file, offset, whence, position)) == 0 ? position : -1;
}

int64_t getfsize(void* file) {
    uint64_t size = 0;
    return report(os::file_size(file, size)) == 0 ? static_cast<int64_t>(size) : -1;
}

int setfsize(void* file, uint64_t size) { return report(os::set_file_size(file, size)); }

int getftime(void* file, SYSTEMTIME* created, SYSTEMTIME* accessed, SYSTEMTIME* written) {
    os::FileTimes times{};
    if (report(os::file_times(file, times)) != 0) return -1;
    to_local_time(times.created, created);
    to_local_time(times.accessed, accessed);
    to_local_time(times.written, written);
    return 0;
}

int setftime(void* file, const SYSTEMTIME* created, const SYSTEMTIME* accessed, const SYSTEMTIME* written) {
    os::FileTimes times{};
    if (!to_utc_ticks(created, times.created) || !to_utc_ticks(accessed, times.accessed) ||
        !to_utc_ticks(written, times.written))
        return report(error::invalid_parameter);
    return report(os::set_file_times(file, times));
}

int flock(void* file, uint64_t offset, uint64_t length, OVERLAPPED* overlapped, bool wait) {
    set_offset(overlapped, offset);
    return report(os::lock_range(file, offset, length, wait));
}

int funlock(void* file, uint64_t offset, uint64_t length, OVERLAPPED* overlapped) {
    set_offset(overlapped, offset);
    return report(os::unlock_range(file, offset, length));
}

int copyfile(const char* from, const char* to) {
    if (make_parents(to) != 0) return -1;
    uint32_t code = os::copy_file(from, to);
    if (code == error::access_denied && clear_read_only(to)) code = os::copy_file(from, to);
    return report(code);
}

int movefile(const char* from, const char* to) {
    if (make_parents(to) != 0) return -1;
    return report(os::move_file(from, to));
}

int deletefile(const char* path) { return report(os::delete_file(path)); }

int taccess(const char* path, int mode) {
    const uint32_t code = os::access_path(path, mode);
    return report(code != error::none && mode == 0 ? error::file_not_found : code);
}

} // namespace VELLib
