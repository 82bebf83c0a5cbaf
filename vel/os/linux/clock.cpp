// Clocks: the monotonic tick, the wall clock and the local calendar.
#include <vel/os/clock.h>

#include <atomic>
#include <ctime>

namespace vel::os {
namespace {

constexpr uint64_t ticks_per_second = 10000000; // of 100 ns
constexpr int64_t epoch_seconds = 11644473600;  // from 1601-01-01 to 1970-01-01

std::atomic<uint64_t> tick_offset_ms{0};

timespec now_of(clockid_t clock) {
    timespec now;
    ::clock_gettime(clock, &now);
    return now;
}

time_t unix_seconds(uint64_t filetime) { return static_cast<time_t>(filetime / ticks_per_second) - epoch_seconds; }

// `filetime` moved by whole seconds, kept within the range of a file time.
uint64_t moved_by(uint64_t filetime, int64_t seconds) {
    const uint64_t ticks = static_cast<uint64_t>(seconds < 0 ? -seconds : seconds) * ticks_per_second;
    if (seconds < 0) return filetime > ticks ? filetime - ticks : 0;
    return filetime < UINT64_MAX - ticks ? filetime + ticks : UINT64_MAX;
}

} // namespace

uint64_t tick_ms64() {
    const timespec now = now_of(CLOCK_MONOTONIC);
    const uint64_t ms = static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
    return ms + tick_offset_ms.load(std::memory_order_relaxed);
}

uint32_t tick_ms() { return static_cast<uint32_t>(tick_ms64()); }

void set_tick_offset_for_test(uint64_t offset_ms) { tick_offset_ms.store(offset_ms, std::memory_order_relaxed); }

uint64_t utc_filetime() {
    const timespec now = now_of(CLOCK_REALTIME);
    return static_cast<uint64_t>(now.tv_sec + epoch_seconds) * ticks_per_second +
           static_cast<uint64_t>(now.tv_nsec) / 100;
}

uint64_t utc_to_local(uint64_t utc_filetime) {
    const time_t seconds = unix_seconds(utc_filetime);
    tm calendar;
    if (!::localtime_r(&seconds, &calendar)) return utc_filetime;
    return moved_by(utc_filetime, calendar.tm_gmtoff);
}

// The offset is the one in force at the local time asked for; an hour that a change of the clocks skips counts on.
uint64_t local_to_utc(uint64_t local_filetime) {
    const time_t local = unix_seconds(local_filetime);
    tm calendar;
    if (!::gmtime_r(&local, &calendar)) return local_filetime;
    calendar.tm_isdst = -1;
    const time_t seconds = ::mktime(&calendar);
    if (seconds == -1 && calendar.tm_gmtoff == 0) return local_filetime;
    return moved_by(local_filetime, static_cast<int64_t>(seconds) - static_cast<int64_t>(local));
}

} // namespace vel::os
