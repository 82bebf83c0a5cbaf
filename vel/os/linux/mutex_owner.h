// The end of a thread as named mutexes see it.
#pragma once

#include <vel/types.h>

namespace vel::os {

/// Hands on what a thread that has ended still holds; the next owner is told that it was abandoned.
void abandon_mutexes_of(uint32_t thread_id);

} // namespace vel::os
