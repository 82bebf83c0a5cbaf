// Memory through the library's current allocator.
#include <vel/frame/error.h>
#include <vel/memory/malloc.h>
#include <vel/os/error_codes.h>

namespace vel {
namespace {

constinit std::atomic<VEL_Allocator*> current{nullptr};

void* refuse() {
    VELLib::SetErrorCode(error::not_initialised);
    return nullptr;
}

} // namespace

VEL_Allocator* current_allocator() { return current.load(std::memory_order_acquire); }

} // namespace vel

namespace VELLib {

void* malloc(uint64_t size, bool zero) {
    VEL_Allocator* allocator = vel::current_allocator();
    return allocator ? allocator->malloc(size, zero) : vel::refuse();
}

void* realloc(void* block, uint64_t size) {
    VEL_Allocator* allocator = vel::current_allocator();
    return allocator ? allocator->realloc(block, size) : vel::refuse();
}

void free(void* block) {
    if (VEL_Allocator* allocator = vel::current_allocator()) allocator->free(block);
}

int set_allocator(VEL_Allocator* allocator) {
    vel::current.store(allocator, std::memory_order_release);
    return 0;
}

} // namespace VELLib
