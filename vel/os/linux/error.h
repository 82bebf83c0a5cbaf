// From errno to the error numbers of the interface: the only place that translates them.
#pragma once

#include <vel/types.h>

namespace vel::os {

/// Code of a failed file, memory, thread or lock call. Where the meaning hangs on the call, this is the common one and
/// the caller looks first: ENOENT is 2 (`path_error` tells a missing parent), EEXIST 80 (a directory: 183),
/// EAGAIN 1450 (a byte-range lock: 33). An errno that only sockets know keeps its socket code; one without any number
/// is 0x40000000 + errno.
uint32_t system_error(int error);

/// Code of a failed socket call. EINPROGRESS is 10036 (a connect: 10035), EPIPE 10058 (a connection that the peer
/// closed: 10054). An errno that only files know keeps its system code.
uint32_t socket_error(int error);

/// `system_error` of a call on a path; a missing parent directory is 3.
uint32_t path_error(int error, const char* path);

} // namespace vel::os
