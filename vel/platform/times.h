// Calendar times: the local clock, checks, comparison and conversion to file times.
#pragma once

#include <vel/types.h>

namespace VELLib {

/// The local time.
VEL_API void getcurtime(SYSTEMTIME* now);

/// True for a date from 1900-01-01 to 2099-12-31 and a time of day that exist. The day of the week is not looked at.
VEL_API bool isvalid_time(const SYSTEMTIME* time);

/// -1, 0 or 1 as `a` is before, at or after `b`. A time that cannot be converted counts as 1601-01-01.
VEL_API int compare_time(SYSTEMTIME* a, SYSTEMTIME* b);

} // namespace VELLib

namespace vel {

/// Calendar time to 100 ns ticks since 1601-01-01; the day of the week is not looked at. Pure arithmetic.
/// False (and `ticks` unchanged) for a date outside 1601 to 30827 or a field out of its range.
VEL_API bool system_time_to_file_time(const SYSTEMTIME& time, FILETIME& ticks);

/// The way back, cut to milliseconds, with the day of the week. False for ticks with the highest bit set.
VEL_API bool file_time_to_system_time(const FILETIME& ticks, SYSTEMTIME& time);

/// The two halves of a file time as one number, and back.
constexpr uint64_t file_time_ticks(const FILETIME& time) {
    return uint64_t{time.dwHighDateTime} << 32 | time.dwLowDateTime;
}
constexpr FILETIME make_file_time(uint64_t ticks) {
    return {static_cast<uint32_t>(ticks), static_cast<uint32_t>(ticks >> 32)};
}

} // namespace vel
