// The registrations of a reactor (internal).
#pragma once

#include <array>
#include <atomic>
#include <memory>
#include <vel/memory/hash_map.h>
#include <vel/os/wait_set.h>
#include <vel/types.h>

class VEL_Event_Handler;

namespace vel {

/// One registered socket or event handle. It outlives its registration as long as a thread serves it; its mask is then
/// 0, so that no further handler is called.
struct ReactorSlot {
    const uint64_t key; // its place in the wait set
    void* const handle;
    VEL_Event_Handler* const handler;
    const bool is_socket;
    std::atomic<uint32_t> mask; // changed under the reactor's lock; read without it between two handlers
};

/// Finds the slots by handle and by key, and walks them in the order of registration.
///
/// Threads:   the reactor's lock guards it.
/// Ownership: shares the slots with the threads that serve them; handlers are addresses to it.
class ReactorRepository {
public:
    using SlotPtr = std::shared_ptr<ReactorSlot>;

    bool is_full() const { return slots_.size() >= os::WaitSet::capacity; }

    /// Null when there is none.
    SlotPtr find(void* handle) const;
    SlotPtr find_key(uint64_t key) const;
    SlotPtr first() const;

    /// Adds the slot of a handle that has none, while there is room. Null and the thread's code 8 without memory.
    SlotPtr add(void* handle, VEL_Event_Handler* handler, bool is_socket, uint32_t mask);
    void remove(const ReactorSlot& slot);

private:
    // A key is the number of the registration times `places` plus the slot's index in `by_place_`: keys grow from one
    // registration to the next and lead to their slot at once.
    static constexpr uint64_t places = 64;
    static_assert(os::WaitSet::capacity <= places);

    VEL_Hash_Map<void*, SlotPtr> slots_{67};
    std::array<SlotPtr, os::WaitSet::capacity> by_place_;
    uint64_t registrations_ = 0;
};

} // namespace vel
