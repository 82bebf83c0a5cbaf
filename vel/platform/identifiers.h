// Unique identifiers.
#pragma once

#include <vel/types.h>

namespace VELLib {

/// Writes a random (version 4) identifier as 36 lower-case characters and a NUL.
/// @param length  bytes of `buffer`, at least 37, else 122
/// Returns 0, or -1 with the error code.
VEL_API int genuuid(char* buffer, uint64_t length);

} // namespace VELLib
