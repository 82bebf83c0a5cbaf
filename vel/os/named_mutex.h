// Mutexes between processes, by name.
#pragma once

#include <vel/types.h>

namespace vel::os {

/// Creates or opens a recursive mutex that any user may open; null makes an unnamed one of this process. Not owned.
/// Errors: 4, 5, 8, 206 and other system codes.
uint32_t open_mutex(const char* name, void*& mutex);

/// Acquires for the calling thread. An owner that died holding it hands it on: success, with `abandoned` set.
/// 0, 258 on time-out, 6.
uint32_t acquire_mutex(void* mutex, uint32_t timeout_ms, bool& abandoned);

/// Errors: 6, 288 when the caller does not own it.
uint32_t release_mutex(void* mutex);

} // namespace vel::os
