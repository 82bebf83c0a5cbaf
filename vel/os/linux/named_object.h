// Files that stand for named objects: their directory, their names, and opening them safely.
//
// Any user may create, hold and scribble on what lies there. So nothing is followed, only a regular file with one name
// is taken, an existing file is never opened with the creating flag, and a new one appears complete and open to all.
#pragma once

#include <string>
#include <vel/types.h>

namespace vel::os {

/// Path of a named object. Bytes outside [A-Za-z0-9._-] are percent-escaped; a long name is cut and told apart by a
/// digest of the whole.
std::string named_object_path(const char* kind, const char* name);

/// Opens the file for reading and writing, or creates it empty. Errors: 4, 5, 8 and other system codes.
uint32_t open_named_object(const std::string& path, int& descriptor);

} // namespace vel::os
