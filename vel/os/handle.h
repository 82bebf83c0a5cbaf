// Handles of the operating-system boundary: what all kinds share.
//
// A handle is an opaque pointer-sized value, never null; a socket is the same value as uint64_t, so one value can
// be used as socket or file. Every call checks the kind: a wrong or dead handle gives 6 (sockets: 10038), never a crash.
// Calls here and in the sibling headers return an error code, 0 on success; they set no thread's error code and
// never throw. All are safe from any thread.
#pragma once

#include <vel/types.h>

namespace vel::os {

/// Drops one share of the handle; the last one closes it. A call that is using the handle at that moment in another
/// thread ends first (sockets: it is woken). Errors: 6.
uint32_t close_handle(void* handle);

/// Adds a share, so that a copied owner may close its copy. Errors: 6.
uint32_t share_handle(void* handle);

/// Open handles of all kinds in this process; for leak checks.
uint64_t open_handle_count();

} // namespace vel::os
