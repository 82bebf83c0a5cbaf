// Memory through the library's current allocator.
#pragma once

#include <vel/memory/allocator.h>

/// Threads:   safe from any thread as far as the current allocator is.
/// Errors:    those of the current allocator; without one null with 0x20000002 (library not initialised).
namespace VELLib {

/// @param size  bytes, not 0
/// @param zero  asks for memory filled with zeros
VEL_API void* malloc(uint64_t size, bool zero);

/// Resizes a block of the current allocator; null allocates a new one.
VEL_API void* realloc(void* block, uint64_t size);

/// Gives a block back to the current allocator; does nothing without one.
VEL_API void free(void* block);

/// Replaces the current allocator and returns 0. Null is taken too: then there is none.
/// The caller keeps owning it and installs it before other threads allocate: blocks of the one before must not be
/// freed through it.
VEL_API int set_allocator(VEL_Allocator* allocator);

} // namespace VELLib

namespace vel {

/// The current allocator; null when there is none.
VEL_Allocator* current_allocator();

} // namespace vel
