// Events and waiting on several handles.
#pragma once

#include <vel/types.h>

namespace vel::os {

/// Creates an event. A manual-reset event stays set until `reset_event`; an auto-reset one frees exactly one waiter
/// a set. Errors: 4, 8.
uint32_t create_event(bool manual_reset, bool signalled, void*& event);

/// Setting a set event and resetting a reset one cost no system call. Errors: 6.
uint32_t set_event(void* event);
uint32_t reset_event(void* event);

/// Sets an event in two steps, so that its waiters do not run into a lock that the caller holds meanwhile: the event is
/// set at once, and who sleeps on it is woken by the second call, which may be left out where `sleepers` is 0. Errors: 6.
uint32_t mark_event(void* event, uint32_t& sleepers);
uint32_t wake_event(void* event, uint32_t sleepers);

/// Waits for one event or thread handle. 0 when signalled, 258 on time-out, 6.
/// @param timeout_ms  0 polls, VEL_INFINITE waits for ever
uint32_t wait_handle(void* handle, uint32_t timeout_ms);

/// Waits until any of `count` (1 to 64) handles is signalled; the lowest index wins. 0, 258, 6 or 87.
uint32_t wait_any(void* const* handles, uint32_t count, uint32_t timeout_ms, uint32_t& index);

} // namespace vel::os
