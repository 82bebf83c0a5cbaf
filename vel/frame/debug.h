// Hook for debug traces.
#pragma once

#include <vel/types.h>

namespace VELLib {

/// Place for a debug trace. Does nothing and returns 0, whatever it is given.
/// @param file    source file of the caller
/// @param line    its line
/// @param format  a printf format and its arguments
VEL_API int debug_output(const char* file, int line, const char* format, ...);

} // namespace VELLib
