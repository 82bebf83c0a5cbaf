// The handle table: slots that are never freed, so that a look-up needs no lock.
#include <vel/os/linux/handle_table.h>

#include <fcntl.h>
#include <new>
#include <unistd.h>
#include <vel/os/error_codes.h>
#include <vel/os/handle.h>

namespace vel::os {
namespace {

// Word of a slot: pins in the low half, the kind above them, the generation on top.
constexpr uint64_t pin_mask = 0xFFFFFFFF;
constexpr int kind_shift = 32;
constexpr int generation_shift = 40;

constexpr HandleKind kind_of(uint64_t word) { return static_cast<HandleKind>((word >> kind_shift) & 0xFF); }
constexpr uint64_t without_kind(uint64_t word) { return word & ~(uint64_t{0xFF} << kind_shift); }

struct Slot {
    std::atomic<uint64_t> word{0};
    HandleObject* object = nullptr;
    std::atomic<PortBinding*> port_binding{nullptr};
};

constexpr uint32_t chunk_slots = 1024;
constexpr uint32_t chunk_count = 4096;
constinit Slot first_chunk[chunk_slots]; // so that a process with few handles needs no memory for them
constinit std::atomic<Slot*> chunks[chunk_count] = {first_chunk};
std::atomic<uint64_t> open_handles{0};

Slot* find_slot(int descriptor) {
    if (descriptor < 0 || static_cast<uint32_t>(descriptor) >= chunk_slots * chunk_count) return nullptr;
    Slot* chunk = chunks[static_cast<uint32_t>(descriptor) / chunk_slots].load(std::memory_order_acquire);
    return chunk ? &chunk[static_cast<uint32_t>(descriptor) % chunk_slots] : nullptr;
}

Slot* make_slot(int descriptor) {
    if (static_cast<uint32_t>(descriptor) >= chunk_slots * chunk_count) return nullptr;
    auto& chunk = chunks[static_cast<uint32_t>(descriptor) / chunk_slots];
    if (!chunk.load(std::memory_order_acquire)) {
        Slot* fresh = new (std::nothrow) Slot[chunk_slots];
        if (!fresh) return nullptr;
        Slot* expected = nullptr;
        if (!chunk.compare_exchange_strong(expected, fresh, std::memory_order_acq_rel)) delete[] fresh;
    }
    return find_slot(descriptor);
}

// Numbers below 3 are the standard streams, and 0 would be a null handle.
int above_standard_streams(int descriptor) {
    if (descriptor < 0 || descriptor > 2) return descriptor;
    const int moved = ::fcntl(descriptor, F_DUPFD_CLOEXEC, 3);
    ::close(descriptor);
    return moved;
}

int descriptor_of(void* handle) {
    const auto value = reinterpret_cast<uintptr_t>(handle);
    return value < chunk_slots * chunk_count ? static_cast<int>(value) : -1;
}

} // namespace

void* HandleTable::insert(int descriptor, HandleKind kind, std::unique_ptr<HandleObject> object) {
    descriptor = above_standard_streams(descriptor);
    if (descriptor < 0) return nullptr;
    Slot* slot = make_slot(descriptor);
    if (!slot) {
        ::close(descriptor);
        return nullptr;
    }
    // Acquire: whoever held the number before has done with the slot once its word says so.
    const uint64_t generation = (slot->word.load(std::memory_order_acquire) >> generation_shift) + 1;
    object->descriptor_ = descriptor;
    object->generation_ = static_cast<uint32_t>(generation & 0xFFFFFF);
    slot->port_binding.store(object->port_binding(), std::memory_order_release);
    slot->object = object.release();
    slot->word.store(generation << generation_shift | static_cast<uint64_t>(kind) << kind_shift | 1,
                     std::memory_order_release);
    open_handles.fetch_add(1, std::memory_order_relaxed);
    return to_handle(descriptor);
}

HandleObject* HandleTable::pin(int descriptor, HandleKind kind) {
    Slot* slot = find_slot(descriptor);
    if (!slot) return nullptr;
    uint64_t word = slot->word.load(std::memory_order_relaxed);
    do {
        const HandleKind found = kind_of(word);
        if (found == HandleKind::none || (kind != HandleKind::none && found != kind)) return nullptr;
    } while (!slot->word.compare_exchange_weak(word, word + 1, std::memory_order_acquire, std::memory_order_relaxed));
    return slot->object;
}

HandleObject* HandleTable::pin(void* handle, HandleKind kind) { return pin(descriptor_of(handle), kind); }

void HandleTable::unpin(HandleObject* object) {
    const int descriptor = object->descriptor_;
    const uint64_t before = find_slot(descriptor)->word.fetch_sub(1, std::memory_order_acq_rel);
    if ((before & pin_mask) != 1) return;
    delete object;
    open_handles.fetch_sub(1, std::memory_order_relaxed);
    ::close(descriptor);
}

uint32_t HandleTable::close(void* handle) {
    HandleObject* object = pin(handle, HandleKind::none);
    if (!object) return error::invalid_handle;
    if (object->shares_.fetch_sub(1, std::memory_order_acq_rel) > 1) {
        unpin(object);
        return error::none;
    }
    Slot* slot = find_slot(object->descriptor_);
    uint64_t word = slot->word.load(std::memory_order_relaxed);
    do {
        if (kind_of(word) == HandleKind::none) { // another thread closed it first
            unpin(object);
            return error::invalid_handle;
        }
    } while (!slot->word.compare_exchange_weak(word, without_kind(word), std::memory_order_acq_rel));
    object->detach();
    unpin(object); // the pin of this call
    unpin(object); // the table's own
    return error::none;
}

uint32_t HandleTable::share(void* handle) {
    HandleObject* object = pin(handle, HandleKind::none);
    if (!object) return error::invalid_handle;
    object->shares_.fetch_add(1, std::memory_order_relaxed);
    unpin(object);
    return error::none;
}

uint64_t HandleTable::open_count() { return open_handles.load(std::memory_order_relaxed); }

HandleKind HandleTable::kind(void* handle) {
    Slot* slot = find_slot(descriptor_of(handle));
    return slot ? kind_of(slot->word.load(std::memory_order_acquire)) : HandleKind::none;
}

uint32_t HandleTable::generation(void* handle) {
    Slot* slot = find_slot(descriptor_of(handle));
    return slot ? static_cast<uint32_t>(slot->word.load(std::memory_order_acquire) >> generation_shift) : 0;
}

PortBinding* HandleTable::port_binding(uint64_t handle) {
    Slot* slot = find_slot(descriptor_of(reinterpret_cast<void*>(handle)));
    if (!slot || kind_of(slot->word.load(std::memory_order_acquire)) == HandleKind::none) return nullptr;
    return slot->port_binding.load(std::memory_order_acquire);
}

// The model is repeated: the compiler forgets that of the declaration here, and would call for the variable's address.
constinit thread_local PinLink* PinLink::top_ __attribute__((tls_model("initial-exec"))) = nullptr;

// A signal that ends the thread finds the chain whole at every instruction; between the two steps of a drop one pin may
// be lost, never given back twice.
void PinLink::hold(HandleObject* object) {
    if (!object) return;
    object_ = object;
    below_ = top_;
    std::atomic_signal_fence(std::memory_order_release);
    top_ = this;
}

void PinLink::drop() {
    if (!object_) return;
    top_ = below_;
    std::atomic_signal_fence(std::memory_order_release);
    HandleTable::unpin(object_);
}

int PinLink::pins_of_caller(HandleObject** objects, int room) {
    int count = 0;
    for (const PinLink* link = top_; link && count < room; link = link->below_) objects[count++] = link->object_;
    return count;
}

uint32_t close_handle(void* handle) { return HandleTable::close(handle); }
uint32_t share_handle(void* handle) { return HandleTable::share(handle); }
uint64_t open_handle_count() { return HandleTable::open_count(); }

} // namespace vel::os
