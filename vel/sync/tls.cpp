// Shared ownership of the per-thread slots behind VEL_TLS.
#include <mutex>
#include <new>
#include <unordered_map>
#include <vel/os/error_codes.h>
#include <vel/os/thread.h>
#include <vel/sync/tls.h>

namespace vel {
namespace {

// Who owns a slot together. A slot that is not listed has one owner, so the common case allocates nothing.
struct Shares {
    std::mutex lock;
    std::unordered_map<uint32_t, uint32_t> further_owners; // guarded by lock
};

// Never destroyed: static objects release their slots while the process ends.
Shares& shares() {
    alignas(Shares) static std::byte storage[sizeof(Shares)];
    static Shares* const object = new (storage) Shares;
    return *object;
}

} // namespace

uint32_t create_tls_slot(void (*destroy)(void*), uint32_t& slot) { return os::create_slot(destroy, slot); }

void share_tls_slot(uint32_t slot) {
    const std::lock_guard guard(shares().lock);
    ++shares().further_owners[slot];
}

void release_tls_slot(uint32_t slot) {
    {
        const std::lock_guard guard(shares().lock);
        const auto found = shares().further_owners.find(slot);
        if (found != shares().further_owners.end()) {
            if (--found->second == 0) shares().further_owners.erase(found);
            return;
        }
    }
    os::free_slot(slot);
}

void* tls_slot_value(uint32_t slot) { return os::slot_value(slot); }

uint32_t set_tls_slot_value(uint32_t slot, void* value) { return os::set_slot_value(slot, value); }

} // namespace vel
