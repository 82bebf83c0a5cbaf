// File times. The creation time that was set lives in an extended attribute, since the kernel lets nobody set its own.
#include <vel/os/linux/file_times.h>

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <vel/os/error_codes.h>
#include <vel/os/linux/error.h>
#include <vel/os/linux/file_object.h>

namespace vel::os {
namespace {

constexpr char created_attribute[] = "user.vel.crtime"; // 8 bytes, most significant first
constexpr int64_t ticks_per_second = 10'000'000;
constexpr int64_t seconds_to_1970 = 11'644'473'600; // from 1601

// Some file systems keep times of any year; those that no file time can tell become the nearest one that a calendar
// can, in every time zone.
uint64_t to_ticks(int64_t seconds, uint32_t nanoseconds) {
    constexpr int64_t latest = 922'314'816'000 - seconds_to_1970; // 30827-12-30
    const int64_t kept = std::clamp(seconds, -seconds_to_1970, latest);
    return static_cast<uint64_t>((kept + seconds_to_1970) * ticks_per_second + nanoseconds / 100);
}

uint64_t to_ticks(const statx_timestamp& time) { return to_ticks(time.tv_sec, time.tv_nsec); }

timespec to_timespec(uint64_t ticks) {
    if (ticks == 0) return {0, UTIME_OMIT};
    const auto signed_ticks = static_cast<int64_t>(ticks);
    return {signed_ticks / ticks_per_second - seconds_to_1970, signed_ticks % ticks_per_second * 100};
}

// 0 when none was set.
uint64_t stored_created(int descriptor) {
    unsigned char bytes[8];
    if (::fgetxattr(descriptor, created_attribute, bytes, sizeof bytes) != sizeof bytes) return 0;
    uint64_t ticks = 0;
    for (const unsigned char byte : bytes) ticks = ticks << 8 | byte;
    return ticks;
}

uint32_t store_created(int descriptor, uint64_t ticks) {
    unsigned char bytes[8];
    for (int i = 0; i < 8; ++i) bytes[i] = static_cast<unsigned char>(ticks >> (56 - 8 * i));
    if (::fsetxattr(descriptor, created_attribute, bytes, sizeof bytes, 0) == 0) return error::none;
    return errno == ENOTSUP ? error::none : system_error(errno); // this file system keeps none, as the contract allows
}

} // namespace

uint32_t read_times(int descriptor, FileTimes& times) {
    struct statx status {};
    if (::statx(descriptor, "", AT_EMPTY_PATH, STATX_BASIC_STATS | STATX_BTIME, &status) != 0)
        return system_error(errno);
    times.accessed = to_ticks(status.stx_atime);
    times.written = to_ticks(status.stx_mtime);
    times.created = stored_created(descriptor);
    if (times.created == 0 && (status.stx_mask & STATX_BTIME)) times.created = to_ticks(status.stx_btime);
    if (times.created == 0) times.created = std::min(times.written, to_ticks(status.stx_ctime));
    return error::none;
}

// Writing the attribute costs a journal entry, so an unchanged time is left alone.
uint32_t write_created(int descriptor, uint64_t ticks) {
    FileTimes current{};
    if (const uint32_t code = read_times(descriptor, current)) return code;
    return current.created == ticks ? error::none : store_created(descriptor, ticks);
}

uint32_t file_times(void* file, FileTimes& times) {
    const Pinned<FileObject> object(file, HandleKind::file);
    return object ? read_times(object->descriptor(), times) : error::invalid_handle;
}

uint32_t set_file_times(void* file, const FileTimes& times) {
    const Pinned<FileObject> object(file, HandleKind::file);
    if (!object) return error::invalid_handle;
    constexpr uint64_t sign_bit = uint64_t{1} << 63;
    if ((times.created | times.accessed | times.written) & sign_bit) return error::invalid_parameter;
    if (times.created != 0)
        if (const uint32_t code = write_created(object->descriptor(), times.created)) return code;
    const timespec both[] = {to_timespec(times.accessed), to_timespec(times.written)};
    return ::futimens(object->descriptor(), both) == 0 ? error::none : system_error(errno);
}

} // namespace vel::os
