// Calendar arithmetic and the local clock.
#include <vel/platform/times.h>

#include <chrono>
#include <vel/os/clock.h>

namespace vel {
namespace {

using namespace std::chrono;
using Ticks = duration<int64_t, std::ratio<1, 10'000'000>>;

constexpr sys_days origin = year{1601} / January / 1;
constexpr int64_t days_to_1970 = (sys_days{} - origin).count();

year_month_day date_of(const SYSTEMTIME& time) { return year{time.wYear} / month{time.wMonth} / day{time.wDay}; }

// The calendar's own types keep one byte of month and day, so their width is looked at first.
bool exists(const SYSTEMTIME& time) {
    return time.wMonth <= 12 && time.wDay <= 31 && date_of(time).ok() && time.wHour < 24 && time.wMinute < 60 &&
           time.wSecond < 60 && time.wMilliseconds < 1000;
}

uint64_t ticks_or_origin(const SYSTEMTIME* time) {
    FILETIME ticks{};
    if (time) system_time_to_file_time(*time, ticks);
    return file_time_ticks(ticks);
}

} // namespace

bool system_time_to_file_time(const SYSTEMTIME& time, FILETIME& ticks) {
    if (time.wYear < 1601 || time.wYear > 30827 || !exists(time)) return false;
    const int64_t since_origin = sys_days{date_of(time)}.time_since_epoch().count() + days_to_1970;
    const Ticks total = days{since_origin} + hours{time.wHour} + minutes{time.wMinute} + seconds{time.wSecond} +
                        milliseconds{time.wMilliseconds};
    ticks = make_file_time(static_cast<uint64_t>(total.count()));
    return true;
}

bool file_time_to_system_time(const FILETIME& ticks, SYSTEMTIME& time) {
    const auto total = static_cast<int64_t>(file_time_ticks(ticks));
    if (total < 0) return false;
    const Ticks since_origin{total};
    const auto whole_days = floor<days>(since_origin);
    const sys_days date{days{whole_days.count() - days_to_1970}};
    const year_month_day calendar{date};
    const hh_mm_ss clock{floor<milliseconds>(since_origin - whole_days)};
    time.wYear = static_cast<uint16_t>(static_cast<int>(calendar.year()));
    time.wMonth = static_cast<uint16_t>(static_cast<unsigned>(calendar.month()));
    time.wDayOfWeek = static_cast<uint16_t>(weekday{date}.c_encoding());
    time.wDay = static_cast<uint16_t>(static_cast<unsigned>(calendar.day()));
    time.wHour = static_cast<uint16_t>(clock.hours().count());
    time.wMinute = static_cast<uint16_t>(clock.minutes().count());
    time.wSecond = static_cast<uint16_t>(clock.seconds().count());
    time.wMilliseconds = static_cast<uint16_t>(clock.subseconds().count());
    return true;
}

} // namespace vel

namespace VELLib {

void getcurtime(SYSTEMTIME* now) {
    vel::file_time_to_system_time(vel::make_file_time(vel::os::utc_to_local(vel::os::utc_filetime())), *now);
}

bool isvalid_time(const SYSTEMTIME* time) { return time->wYear >= 1900 && time->wYear <= 2099 && vel::exists(*time); }

int compare_time(SYSTEMTIME* a, SYSTEMTIME* b) {
    const uint64_t left = vel::ticks_or_origin(a);
    const uint64_t right = vel::ticks_or_origin(b);
    return left < right ? -1 : left > right;
}

} // namespace VELLib
