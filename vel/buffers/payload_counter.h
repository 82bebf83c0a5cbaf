// The counter that the handles of one payload hold in common (internal).
#pragma once

#include <new>
#include <vel/frame/error.h>
#include <vel/os/error_codes.h>
#include <vel/sync/reference_counter.h>

namespace vel {

/// A counter with one reference, the caller's; null with 8 when there is no memory.
inline VEL_Reference_Counter_Global_Sync* new_payload_counter() {
    auto* counter = new (std::nothrow) VEL_Reference_Counter_Global_Sync;
    if (counter == nullptr) {
        VELLib::SetErrorCode(error::not_enough_memory);
        return nullptr;
    }
    counter->increment();
    return counter;
}

/// Drops one reference. True when it was the last: the counter is gone and the payload is the caller's to free.
inline bool release_payload(VEL_Reference_Counter_Global_Sync* counter) {
    if (counter->decrement() > 0) return false;
    delete counter;
    return true;
}

} // namespace vel
