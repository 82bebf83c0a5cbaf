// Looking up, adding and removing the members of a wait set.
#include <vel/os/linux/wait_members.h>

#include <algorithm>
#include <cassert>

namespace vel::os {
namespace {

// The mask of the places after one was taken out below them.
uint64_t without_place(uint64_t mask, uint32_t place) {
    const uint64_t lower = WaitMembers::bit(place) - 1;
    return (mask & lower) | ((mask >> 1) & ~lower);
}

} // namespace

uint32_t WaitMembers::upper_bound(uint64_t key) const {
    const auto* end = members_ + count_;
    const auto* found = std::upper_bound(members_, end, key,
                                         [](uint64_t value, const WaitMember& member) { return value < member.key; });
    return static_cast<uint32_t>(found - members_);
}

uint32_t WaitMembers::search(uint64_t key) const {
    const uint32_t next = upper_bound(key);
    return next > 0 && members_[next - 1].key == key ? next - 1 : nowhere;
}

uint32_t WaitMembers::append(uint64_t key) {
    assert(count_ < WaitSet::capacity && (count_ == 0 || key > members_[count_ - 1].key));
    members_[count_].key = key;
    hints_[key % hint_count] = static_cast<uint8_t>(count_);
    return count_++;
}

void WaitMembers::erase(uint32_t place) {
    std::move(members_ + place + 1, members_ + count_, members_ + place);
    members_[--count_] = {};
    for (uint32_t moved = place; moved < count_; ++moved)
        hints_[members_[moved].key % hint_count] = static_cast<uint8_t>(moved);
    signalled = without_place(signalled, place);
    held = without_place(held, place);
    events = without_place(events, place);
}

} // namespace vel::os
