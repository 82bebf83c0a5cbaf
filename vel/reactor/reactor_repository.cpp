// The registrations of a reactor.
#include <vel/reactor/reactor_repository.h>

#include <algorithm>

namespace vel {

ReactorSlot ReactorRepository::find(void* handle) const {
    const uint64_t* key = slots_.find(handle);
    return key ? find_key(*key) : ReactorSlot{};
}

ReactorSlot ReactorRepository::first() const {
    return slots_.is_empty() ? ReactorSlot{} : find_key(slots_.head()->value());
}

ReactorSlot ReactorRepository::add(void* handle, VEL_Event_Handler* handler, bool is_socket, uint32_t mask) {
    const auto is_free = [](const ReactorSlot& slot) { return slot.handler == nullptr; };
    const auto place =
        static_cast<uint64_t>(std::find_if(by_place_.begin(), by_place_.end(), is_free) - by_place_.begin());
    const uint64_t key = (registrations_ + 1) * places + place;
    if (slots_.bind(handle, key) != 0) return {};
    ++registrations_;
    by_place_[place] = {key, handle, handler, is_socket, &masks_[place]};
    masks_[place].set(key, mask);
    return by_place_[place];
}

void ReactorRepository::remove(const ReactorSlot& slot) {
    slots_.unbind(slot.handle);
    slot.mask(0);
    by_place_[slot.key % places] = {};
}

} // namespace vel
