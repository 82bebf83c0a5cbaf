// Pages by address, with their sizes remembered.
#include <vel/os/memory.h>

#include <map>
#include <mutex>
#include <new>
#include <sys/mman.h>
#include <unistd.h>
#include <vel/os/error_codes.h>

namespace vel::os {
namespace {

/// Regions from `allocate_pages`. Never destroyed: objects that end with the process may still free theirs.
struct Regions {
    std::mutex mutex;
    std::map<const void*, uint64_t> sizes; // guarded by the mutex

    static Regions& instance() {
        static Regions& regions = *new Regions;
        return regions;
    }
};

bool remember(const void* address, uint64_t size) {
    Regions& regions = Regions::instance();
    std::lock_guard guard(regions.mutex);
    try {
        regions.sizes.emplace(address, size);
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

} // namespace

uint64_t page_size() {
    static const auto size = static_cast<uint64_t>(::sysconf(_SC_PAGESIZE));
    return size;
}

uint32_t allocate_pages(uint64_t size, void*& address) {
    if (size == 0) return error::invalid_parameter;
    const uint64_t page = page_size();
    if (size > UINT64_MAX - page) return error::not_enough_memory;
    const uint64_t rounded = (size + page - 1) / page * page;
    void* pages = ::mmap(nullptr, rounded, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (pages == MAP_FAILED) return error::not_enough_memory;
    if (!remember(pages, rounded)) {
        ::munmap(pages, rounded);
        return error::not_enough_memory;
    }
    address = pages;
    return error::none;
}

uint32_t pages_size(const void* address, uint64_t& size) {
    Regions& regions = Regions::instance();
    std::lock_guard guard(regions.mutex);
    const auto found = regions.sizes.find(address);
    if (found == regions.sizes.end()) return error::invalid_parameter;
    size = found->second;
    return error::none;
}

// Unmapped under the lock: the kernel may hand the address out again at once.
uint32_t free_pages(void* address) {
    Regions& regions = Regions::instance();
    std::lock_guard guard(regions.mutex);
    const auto found = regions.sizes.find(address);
    if (found == regions.sizes.end()) return error::invalid_parameter;
    ::munmap(address, found->second);
    regions.sizes.erase(found);
    return error::none;
}

} // namespace vel::os
