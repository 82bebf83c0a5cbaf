// Clocks of the operating-system boundary: the monotonic tick and the local calendar.
#pragma once

#include <vel/types.h>

namespace vel::os {

/// Monotonic milliseconds. Never goes back; starts anywhere.
uint64_t tick_ms64();

/// The same cut to 32 bits; wraps every 49.7 days and is compared by subtraction.
uint32_t tick_ms();

/// Adds to both ticks from now on. For tests only: it brings the 32-bit wrap near.
void set_tick_offset_for_test(uint64_t offset_ms);

/// The wall clock as 100 ns ticks since 1601-01-01 (UTC).
uint64_t utc_filetime();

/// Converts between UTC and the local calendar for file and wall-clock times, both in 100 ns ticks since 1601-01-01.
uint64_t utc_to_local(uint64_t utc_filetime);
uint64_t local_to_utc(uint64_t local_filetime);

} // namespace vel::os
