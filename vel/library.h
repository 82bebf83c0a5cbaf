// Start and stop of the library.
#pragma once

#include <vel/types.h>

/// Every user of the library in a process starts it before its first use and stops it after its last; the starts are
/// counted, and only the first and the last do anything.
///
/// Threads:   any, but not those of the library itself while it stops, nor the destructors of its single instances. A
///            start that meets the last stop waits for its end.
/// Errors:    `initialize` returns -1 with the code of the step that failed; nothing is counted then.
///
///     if (VELLib::initialize() != 0) return report(VELLib::GetErrorCode());
///     ...
///     VELLib::uninitialize();
namespace VELLib {

/// Starts the library, or counts one more start. An allocator that was installed before is kept; otherwise the runtime
/// heap is installed.
/// @return 0, or -1: 8, 0x20000007 where the stop that is under way would wait for the caller, and the system's codes
VEL_API int initialize();

/// Counts one start off. The last one ends the library's threads and destroys its single instances, a manager of
/// threads among them, and waits for that, so it is no business of one of those threads; memory may still be freed
/// afterwards. One too many is ignored.
VEL_API void uninitialize();

/// Whether there is a start that was not yet counted off.
VEL_API bool isInitiate();

} // namespace VELLib
