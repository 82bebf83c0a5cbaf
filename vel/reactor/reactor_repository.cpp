// The registrations of a reactor.
#include <vel/reactor/reactor_repository.h>

#include <algorithm>
#include <new>
#include <vel/frame/error.h>
#include <vel/os/error_codes.h>

namespace vel {

ReactorRepository::SlotPtr ReactorRepository::find(void* handle) const {
    const SlotPtr* slot = slots_.find(handle);
    return slot ? *slot : nullptr;
}

ReactorRepository::SlotPtr ReactorRepository::find_key(uint64_t key) const {
    const SlotPtr& slot = by_place_[key % places];
    return slot && slot->key == key ? slot : nullptr;
}

ReactorRepository::SlotPtr ReactorRepository::first() const {
    return slots_.is_empty() ? nullptr : slots_.head()->value();
}

ReactorRepository::SlotPtr ReactorRepository::add(void* handle, VEL_Event_Handler* handler, bool is_socket,
                                                  uint32_t mask) {
    const auto place = std::find(by_place_.begin(), by_place_.end(), nullptr);
    const uint64_t key = ++registrations_ * places + static_cast<uint64_t>(place - by_place_.begin());
    try {
        const SlotPtr slot(new ReactorSlot{key, handle, handler, is_socket, {mask}});
        if (slots_.bind(handle, slot) != 0) return nullptr;
        *place = slot;
        return slot;
    } catch (const std::bad_alloc&) {
        VELLib::SetErrorCode(error::not_enough_memory);
        return nullptr;
    }
}

void ReactorRepository::remove(const ReactorSlot& slot) {
    const uint64_t place = slot.key % places; // read before the slot may go with its last owner
    slots_.unbind(slot.handle);
    by_place_[place].reset();
}

} // namespace vel
