// The answer of a lock to an operation that it does not offer (internal).
#pragma once

namespace vel {

/// Sets 0x20000003 and returns -1.
int unsupported_lock_operation();

} // namespace vel
