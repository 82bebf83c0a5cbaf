// Times of an open descriptor, for the calls on handles and on paths.
#pragma once

#include <vel/os/file.h>

namespace vel::os {

uint32_t read_times(int descriptor, FileTimes& times);

/// Sets the creation time where the file system can keep one; needs write permission on the file.
uint32_t write_created(int descriptor, uint64_t ticks);

} // namespace vel::os
