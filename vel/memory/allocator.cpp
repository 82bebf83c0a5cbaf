// The allocators of the library and the registry of their instances.
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <unordered_set>
#include <vel/frame/error.h>
#include <vel/memory/allocator.h>
#include <vel/memory/list.h>
#include <vel/os/error_codes.h>
#include <vel/os/memory.h>

namespace vel {
namespace {

void* fail(uint32_t code) {
    VELLib::SetErrorCode(code);
    return nullptr;
}

// Makes an object that is never destroyed: blocks are still freed while the process ends.
template <class T>
T& immortal() {
    alignas(T) static std::byte storage[sizeof(T)];
    static T* const object = new (storage) T;
    return *object;
}

// The published instance; made and registered when there is none. Null when it cannot be registered.
template <class T>
T* created_once(std::atomic<T*>& published, int (*add)(VEL_Allocator*)) {
    if (T* instance = published.load(std::memory_order_acquire)) return instance;
    T& instance = immortal<T>();
    if (add(&instance) != 0) return nullptr;
    published.store(&instance, std::memory_order_release);
    return &instance;
}

struct Registry {
    std::mutex lock;
    VEL_List<VEL_Allocator*> instances; // guarded by lock
};

// The blocks of the global allocator, known by their address.
struct GlobalBlocks {
    std::mutex lock;
    std::unordered_set<void*> known; // guarded by lock
};

// Sizes of pages and global blocks count modulo 2^32, on purpose.
uint64_t low_half(uint64_t size) { return size & 0xFFFFFFFF; }

} // namespace
} // namespace vel

VEL_Allocator::~VEL_Allocator() = default;

int VEL_Allocator::add_allocator_instance(VEL_Allocator* allocator) {
    if (!allocator) {
        VELLib::SetErrorCode(vel::error::invalid_parameter);
        return -1;
    }
    auto& registry = vel::immortal<vel::Registry>();
    const std::lock_guard guard(registry.lock);
    return registry.instances.find(allocator) == 0 ? 0 : registry.instances.push_back(allocator);
}

std::atomic<VEL_Std_Allocator*> VEL_Std_Allocator::instance_{nullptr};

VEL_Std_Allocator* VEL_Std_Allocator::instance() { return vel::created_once(instance_, &add_allocator_instance); }

void* VEL_Std_Allocator::malloc(uint64_t size, bool zero) {
    if (size == 0) return vel::fail(vel::error::zero_size);
    void* block = zero ? std::calloc(1, size) : std::malloc(size);
    return block ? block : vel::fail(vel::error::not_enough_memory);
}

void* VEL_Std_Allocator::realloc(void* block, uint64_t size) {
    if (size == 0) return vel::fail(vel::error::zero_size);
    void* resized = std::realloc(block, size);
    return resized ? resized : vel::fail(vel::error::not_enough_memory);
}

void VEL_Std_Allocator::free(void* block) { std::free(block); }

std::atomic<VEL_Virtual_Allocator*> VEL_Virtual_Allocator::instance_{nullptr};

VEL_Virtual_Allocator* VEL_Virtual_Allocator::instance() {
    return vel::created_once(instance_, &add_allocator_instance);
}

void* VEL_Virtual_Allocator::malloc(uint64_t size, bool) {
    if (size == 0) return vel::fail(vel::error::zero_size);
    void* block = nullptr;
    const uint32_t error = vel::os::allocate_pages(vel::low_half(size), block);
    return error == 0 ? block : vel::fail(error);
}

void* VEL_Virtual_Allocator::realloc(void* block, uint64_t size) {
    if (size == 0) return vel::fail(vel::error::zero_size);
    if (!block) return malloc(size, true);
    uint64_t region = 0;
    if (const uint32_t error = vel::os::pages_size(block, region)) return vel::fail(error);
    if (region >= size) return block;
    // A size that wrapped below what is there could not take the old bytes.
    if (vel::low_half(size) < region) return vel::fail(vel::error::not_enough_memory);
    void* grown = malloc(size, true);
    if (!grown) return nullptr;
    std::memcpy(grown, block, region);
    free(block);
    return grown;
}

void VEL_Virtual_Allocator::free(void* block) {
    if (block) vel::os::free_pages(block); // a foreign pointer is left alone; there is nobody to tell
}

std::atomic<VEL_Global_Allocator*> VEL_Global_Allocator::instance_{nullptr};

VEL_Global_Allocator* VEL_Global_Allocator::instance() { return vel::created_once(instance_, &add_allocator_instance); }

void* VEL_Global_Allocator::malloc(uint64_t size, bool zero) {
    if (size == 0) return vel::fail(vel::error::zero_size);
    const uint64_t low_size = vel::low_half(size);
    if (low_size == 0) return vel::fail(vel::error::invalid_parameter);
    void* block = zero ? std::calloc(1, low_size) : std::malloc(low_size);
    if (!block) return vel::fail(vel::error::not_enough_memory);
    auto& blocks = vel::immortal<vel::GlobalBlocks>();
    try {
        const std::lock_guard guard(blocks.lock);
        blocks.known.insert(block);
        return block;
    } catch (const std::bad_alloc&) {
        std::free(block);
        return vel::fail(vel::error::not_enough_memory);
    }
}

void* VEL_Global_Allocator::realloc(void* block, uint64_t size) {
    if (size == 0) return vel::fail(vel::error::zero_size);
    if (!block) return malloc(size, false);
    const uint64_t low_size = vel::low_half(size);
    auto& blocks = vel::immortal<vel::GlobalBlocks>();
    const std::lock_guard guard(blocks.lock);
    auto entry = blocks.known.extract(block);
    if (entry.empty()) return vel::fail(vel::error::invalid_handle);
    void* resized = low_size > 0 ? std::realloc(block, low_size) : nullptr;
    if (resized) entry.value() = resized;
    blocks.known.insert(std::move(entry)); // the node that was taken out: allocates nothing
    if (resized) return resized;
    return vel::fail(low_size > 0 ? vel::error::not_enough_memory : vel::error::invalid_parameter);
}

void VEL_Global_Allocator::free(void* block) {
    auto& blocks = vel::immortal<vel::GlobalBlocks>();
    {
        const std::lock_guard guard(blocks.lock);
        if (blocks.known.erase(block) == 0) return;
    }
    std::free(block);
}
