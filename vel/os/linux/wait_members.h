// The members of a wait set: an array in the order of keys, and what is true of them as masks of places.
#pragma once

#include <cstdint>
#include <vel/os/wait_set.h>

namespace vel::os {

class SocketNotices;

/// Plain data under the lock of its set.
struct WaitMember {
    uint64_t key = 0;
    SocketNotices* socket = nullptr; // null once it was closed or bound elsewhere; for events
    uint64_t event_tag = 0;          // of an event
    bool takes_signal = false;       // of an event: a wait changes it
};

class WaitMembers {
public:
    static constexpr uint32_t nowhere = WaitSet::capacity;

    /// Place of a key, `nowhere` when there is none.
    uint32_t find(uint64_t key) const {
        const uint32_t place = hints_[key % hint_count];
        return place < count_ && members_[place].key == key ? place : search(key);
    }

    /// Appends a key that is larger than all before.
    uint32_t append(uint64_t key);
    void erase(uint32_t place);

    uint32_t count() const { return count_; }
    WaitMember& operator[](uint32_t place) { return members_[place]; }
    const WaitMember& operator[](uint32_t place) const { return members_[place]; }

    /// Mask of the places whose keys are above `key`.
    uint64_t above(uint64_t key) const {
        const uint64_t all = bit(count_) - 1;
        if (key == 0) return all;
        const uint32_t place = find(key);
        return all & ~(bit(place != nowhere ? place + 1 : upper_bound(key)) - 1);
    }

    /// Sockets that are signalled and not held.
    uint64_t ready_sockets() const { return signalled & ~held; }

    static uint64_t bit(uint32_t place) { return uint64_t{1} << place; }

    uint64_t signalled = 0; // sockets with recorded notices
    uint64_t held = 0;      // sockets between take and put_back
    uint64_t events = 0;    // places of events

private:
    static constexpr uint64_t hint_count = 64;

    uint32_t search(uint64_t key) const;
    uint32_t upper_bound(uint64_t key) const;

    WaitMember members_[WaitSet::capacity];
    uint32_t count_ = 0;
    uint8_t hints_[hint_count] = {}; // by the low bits of a key: where one with these bits was put last
};

/// Calls `visit` with the places in a mask, lowest first.
template <class Visit>
void for_each_place(uint64_t mask, Visit visit) {
    for (; mask; mask &= mask - 1) visit(static_cast<uint32_t>(__builtin_ctzll(mask)));
}

} // namespace vel::os
