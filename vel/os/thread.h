// Threads and thread-local slots.
#pragma once

#include <vel/types.h>

namespace vel::os {

using ThreadEntry = uint32_t (*)(void* argument);

/// Creates a thread that stands at its gate with a suspend count of 1 until `resume_thread`. The handle is signalled
/// when the thread has ended, may be waited on alone or among others, and is closed by the caller; closing it does not
/// end the thread.
/// @param stack_size  bytes, 0 for the default; raised to the smallest the system takes
/// Errors: 8, 87, 1450.
uint32_t create_thread(ThreadEntry entry, void* argument, uint32_t stack_size, void*& handle, uint32_t& id);

/// Raises or lowers the suspend count and gives the count before. The victim stops wherever it is and may hold locks.
/// Errors: 5 (a thread that has ended), 6.
uint32_t suspend_thread(void* handle, uint32_t& previous_count);
uint32_t resume_thread(void* handle, uint32_t& previous_count);

/// Ends the thread without unwinding. One still at its gate never runs its entry. The handle is signalled. A named
/// mutex that the thread held is handed on as abandoned, and a byte range that it waited for is free for others; other
/// locks stay locked.
/// Errors: 5 when the caller names itself or the thread has ended, 6, 258 when the thread could not be stopped within a
/// second: it ends as soon as it can.
uint32_t terminate_thread(void* handle, uint32_t exit_code);

/// The entry's result or the code of `terminate_thread`; 259 while the thread runs. Errors: 6.
uint32_t thread_exit_code(void* handle, uint32_t& exit_code);

/// System-wide id of the calling thread.
uint32_t current_thread_id();

/// Lets a thread that was never resumed end at its gate with this exit code. No effect on one that was resumed,
/// also where it has not come to run yet.
uint32_t abandon_gate(void* handle, uint32_t exit_code);

uint32_t processor_count();

/// Rests the processor a number of times, 10 to 60 ns each, between two looks at what another thread will change.
void pause_spinning(uint32_t times);

/// Per-thread slots. `destroy` (may be null) runs at thread end for a value that is not null. Errors: 8, 1450.
uint32_t create_slot(void (*destroy)(void*), uint32_t& slot);
uint32_t free_slot(uint32_t slot);
void* slot_value(uint32_t slot);
uint32_t set_slot_value(uint32_t slot, void* value);

} // namespace vel::os
