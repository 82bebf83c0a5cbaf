// The registrations of a reactor (internal).
#pragma once

#include <array>
#include <atomic>
#include <vel/memory/hash_map.h>
#include <vel/os/wait_set.h>
#include <vel/types.h>

class VEL_Event_Handler;

namespace vel {

/// The bits of the registrations that have one place after the other, and whose they are now.
class ReactorMask {
public:
    /// 0 once the registration has ended.
    uint32_t get(uint64_t key) const {
        const uint64_t word = word_.load(std::memory_order_acquire);
        return static_cast<uint32_t>(word >> 32) == owner_of(key) ? static_cast<uint32_t>(word) : 0;
    }
    void set(uint64_t key, uint32_t mask) {
        word_.store(uint64_t{owner_of(key)} << 32 | mask, std::memory_order_release);
    }

private:
    static uint32_t owner_of(uint64_t key) { return static_cast<uint32_t>(key >> 6); }

    std::atomic<uint64_t> word_{0};
};

/// One registered socket or event handle. A copy says the truth also when the registration has ended: its mask is 0
/// then, so that a thread that serves it calls no further handler.
struct ReactorSlot {
    uint64_t key = 0; // its place in the wait set
    void* handle = nullptr;
    VEL_Event_Handler* handler = nullptr; // null in a slot that stands for none
    bool is_socket = false;
    ReactorMask* bits = nullptr;

    /// Changes under the reactor's lock; read without it between two handlers.
    uint32_t mask() const { return bits->get(key); }
    void mask(uint32_t mask) const { bits->set(key, mask); }
};

/// Finds the slots by handle and by key, and walks them in the order of registration.
///
/// Threads:   the reactor's lock guards it.
/// Ownership: handlers are addresses to it.
class ReactorRepository {
public:
    bool is_full() const { return slots_.size() >= os::WaitSet::capacity; }

    /// Without a handler when there is none.
    ReactorSlot find(void* handle) const;
    ReactorSlot find_key(uint64_t key) const {
        const ReactorSlot& slot = by_place_[key % places];
        return slot.key == key ? slot : ReactorSlot{};
    }
    ReactorSlot first() const;

    /// Adds the slot of a handle that has none, while there is room. Without memory one without a handler, and the
    /// thread's code.
    ReactorSlot add(void* handle, VEL_Event_Handler* handler, bool is_socket, uint32_t mask);
    void remove(const ReactorSlot& slot);

private:
    // A key is the number of the registration times `places` plus the slot's index in `by_place_`: keys grow from one
    // registration to the next and lead to their slot at once.
    static constexpr uint64_t places = 64;
    static_assert(os::WaitSet::capacity <= places);

    VEL_Hash_Map<void*, uint64_t> slots_{67}; // keys
    std::array<ReactorSlot, os::WaitSet::capacity> by_place_;
    std::array<ReactorMask, os::WaitSet::capacity> masks_;
    uint64_t registrations_ = 0;
};

} // namespace vel
