// Named memory that processes share, with its lock.
#include <new>
#include <utility>
#include <vel/frame/error.h>
#include <vel/os/error_codes.h>
#include <vel/os/handle.h>
#include <vel/os/memory.h>
#include <vel/sync/shared_memory.h>

namespace {

std::string object_name(const char* prefix, const char* name) {
    return name ? std::string(prefix) + "/" + name : std::string(prefix);
}

} // namespace

VEL_Shared_Memory::VEL_Shared_Memory() : VEL_Process_Mutex(nullptr, false) {}

VEL_Shared_Memory::VEL_Shared_Memory(const VEL_Shared_Memory& other)
    : VEL_Process_Mutex(other),
      mapping_(other.mapping_),
      address_(other.address_),
      size_(other.size_),
      name_(other.name_) {
    if (mapping_) vel::os::share_handle(mapping_);
}

VEL_Shared_Memory& VEL_Shared_Memory::operator=(const VEL_Shared_Memory& other) {
    if (this == &other) return *this;
    close();
    VEL_Process_Mutex::operator=(other);
    if (other.mapping_) vel::os::share_handle(other.mapping_);
    mapping_ = other.mapping_;
    address_ = other.address_;
    size_ = other.size_;
    name_ = other.name_;
    return *this;
}

VEL_Shared_Memory::~VEL_Shared_Memory() { close(); }

int VEL_Shared_Memory::open(const char* name, uint64_t size) try {
    close();
    const std::string mutex_name = object_name("VEL_LIB/SHARED_MEM/MUTEX", name);
    const std::string mapping_name = object_name("VEL_LIB/SHARED_MEM", name);
    std::string own_name(name ? name : ""); // before anything is open: from here on only codes tell of failure
    if (open_mutex(mutex_name.c_str()) != 0) return -1;
    const uint64_t low_size = size & 0xFFFFFFFF; // the high half does not count, on purpose
    void* mapping = nullptr;
    void* address = nullptr;
    uint64_t mapped_size = 0;
    if (const uint32_t error = vel::os::open_mapping(mapping_name.c_str(), low_size, mapping, address, mapped_size)) {
        close_mutex();
        VELLib::SetErrorCode(error);
        return -1;
    }
    mapping_ = mapping;
    address_ = address;
    size_ = mapped_size;
    name_ = std::move(own_name);
    return static_cast<int>(size_);
} catch (const std::bad_alloc&) {
    VELLib::SetErrorCode(vel::error::not_enough_memory);
    return -1;
}

void VEL_Shared_Memory::close() {
    address_ = nullptr;
    size_ = 0;
    if (void* mapping = std::exchange(mapping_, nullptr)) vel::os::close_handle(mapping);
    close_mutex();
}

void* VEL_Shared_Memory::c_ptr(uint64_t offset) const {
    return address_ ? static_cast<char*>(address_) + offset : nullptr;
}
