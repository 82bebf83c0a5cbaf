// What a poll says of a descriptor, for tests.
#pragma once

#include <poll.h>

namespace vel::testing {

/// True when the descriptor is readable within the time.
inline bool is_readable(int descriptor, int timeout_ms = 0) {
    pollfd wanted{descriptor, POLLIN, 0};
    return ::poll(&wanted, 1, timeout_ms) == 1 && (wanted.revents & POLLIN) != 0;
}

} // namespace vel::testing
