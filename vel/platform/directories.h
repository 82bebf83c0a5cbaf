// Free functions for directories.
#pragma once

#include <vel/types.h>

namespace VELLib {

/// Creates a directory and every missing one above it. Trailing and doubled separators are ignored.
/// Returns 0 (also when it is there already), or -1 with the error code: 161 for a path of separators alone, 183
/// when a component exists and is no directory.
VEL_API int createdir(const char* path);

/// Removes a directory with all that it holds; a link in it is removed, never followed. The first failure stops the
/// walk. Returns 0 or -1.
VEL_API int deletedir(const char* path);

/// Directory of the running executable, without a trailing separator.
/// @param length  bytes of `buffer`; not above the directory's length: 122. A directory of 260 bytes or more: 206
/// Returns the length of the directory in bytes, or 0 with the error code.
VEL_API uint64_t getmodpath(char* buffer, uint64_t length);

} // namespace VELLib
