// Error codes: the calling thread's last code and the text that belongs to a code.
#pragma once

#include <vel/types.h>

/// How the library reports failure: an operation returns -1 (or null) and leaves the reason with the calling thread.
///
/// A code is either a system or socket code, or a library code: bit 29 set (0x20000000) over an index 1 to 39.
/// Threads:   every thread has a code of its own; these functions are safe everywhere and never throw.
namespace VELLib {

/// The calling thread's last error code. Never 0: a thread without an error yet reads 0x20000001 (unknown error).
VEL_API uint32_t GetErrorCode() noexcept;

/// Sets the calling thread's error code; 0 makes the next read say "unknown error".
VEL_API void SetErrorCode(uint32_t code) noexcept;

/// Writes the message of a code, UTF-8 and NUL-terminated, into the caller's buffer.
///
/// Library texts are cut to the buffer at a character's end. A system text that does not fit, and a code without a
/// text, give the message of 0x20000001 instead, cut to `size` - 1 bytes.
/// @param size  bytes of `buffer`, its terminator included; 0 writes nothing
/// @return      the length in bytes. For system codes it counts the line end of the system's text, which is stripped
///              from the buffer: the text itself is two bytes shorter
VEL_API uint64_t GetErrorMsg(uint32_t code, char* buffer, uint64_t size);

} // namespace VELLib
