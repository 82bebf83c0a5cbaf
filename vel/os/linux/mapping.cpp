// Named memory: a file whose shared lock says how many have it open, opened and closed under a gate file's lock.
//
// Every opener holds a shared lock on the file for as long as it has it open. Under the gate, whoever gets the
// exclusive lock instead is alone: at opening it starts from fresh zeros, at closing it removes the file. The kernel
// drops the locks of a process that ends, so a killed holder counts no longer. The gate file is never removed.
#include <vel/os/memory.h>

#include <cerrno>
#include <fcntl.h>
#include <memory>
#include <new>
#include <string>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vel/os/error_codes.h>
#include <vel/os/linux/deadline.h>
#include <vel/os/linux/error.h>
#include <vel/os/linux/handle_table.h>
#include <vel/os/linux/named_object.h>

namespace vel::os {
namespace {

constexpr uint32_t gate_limit_ms = 5000; // honest holders need microseconds
constexpr long gate_pause_ns = 500 * 1000;

bool lock_now(int descriptor, int operation) {
    int result;
    do {
        result = ::flock(descriptor, operation | LOCK_NB);
    } while (result != 0 && errno == EINTR);
    return result == 0;
}

/// The gate of one name, held while the object lives.
class Gate {
public:
    ~Gate() {
        if (descriptor_ >= 0) ::close(descriptor_);
    }
    Gate() = default;
    Gate(const Gate&) = delete;
    Gate& operator=(const Gate&) = delete;

    uint32_t enter(const std::string& path) {
        if (const uint32_t code = open_named_object(path, descriptor_); code != error::none) {
            descriptor_ = -1;
            return code;
        }
        const Deadline deadline(gate_limit_ms);
        while (!lock_now(descriptor_, LOCK_EX)) {
            if (errno != EWOULDBLOCK) return system_error(errno);
            if (deadline.expired()) return error::busy;
            const timespec pause{0, gate_pause_ns};
            ::nanosleep(&pause, nullptr);
        }
        return error::none;
    }

private:
    int descriptor_ = -1;
};

class MappingObject final : public HandleObject {
public:
    MappingObject(std::string path, std::string gate_path) : path_(std::move(path)), gate_path_(std::move(gate_path)) {}
    ~MappingObject() override {
        if (address_) ::munmap(address_, size_);
        if (descriptor() >= 0) leave();
    }

    const std::string& path() const { return path_; }
    uint32_t map(int file);
    void* address() const { return address_; }
    uint64_t size() const { return size_; }

private:
    void leave();

    const std::string path_;
    const std::string gate_path_;
    void* address_ = nullptr;
    uint64_t size_ = 0;
};

uint32_t MappingObject::map(int file) {
    struct stat info;
    if (::fstat(file, &info) != 0) return system_error(errno);
    if (info.st_size <= 0) return error::access_denied; // emptied by somebody else
    const uint64_t page = page_size();
    const uint64_t size = (static_cast<uint64_t>(info.st_size) + page - 1) / page * page;
    void* view = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    if (view == MAP_FAILED) return system_error(errno);
    address_ = view;
    size_ = size;
    return error::none;
}

// The last one removes the file. Where it may not, being another user, it gives the memory back at least. With the
// gate out of reach the file stays, and its next opener starts afresh.
void MappingObject::leave() {
    Gate gate;
    if (gate.enter(gate_path_) != error::none) return;
    if (lock_now(descriptor(), LOCK_EX) && ::unlink(path_.c_str()) != 0 && ::ftruncate(descriptor(), 0) != 0) return;
    ::flock(descriptor(), LOCK_UN);
}

// The memory is reserved now: running out of it later would kill the process.
uint32_t create_fresh(int file, uint64_t size) {
    if (size == 0) return error::invalid_parameter;
    const uint64_t page = page_size();
    if (size > INT64_MAX - page) return error::not_enough_memory;
    if (::ftruncate(file, 0) != 0) return system_error(errno);
    int failed;
    do {
        failed = ::posix_fallocate(file, 0, static_cast<off_t>((size + page - 1) / page * page));
    } while (failed == EINTR);
    return failed == 0 ? error::none : system_error(failed);
}

/// Closes a file that did not become a handle; one that this process just made, or found left over, goes with it.
uint32_t give_up(int file, bool alone, const std::string& path, uint32_t code) {
    if (alone) ::unlink(path.c_str());
    ::close(file);
    return code;
}

uint32_t open_under_gate(std::unique_ptr<MappingObject> object, uint64_t size, void*& mapping) {
    const std::string path = object->path();
    int file;
    if (const uint32_t code = open_named_object(path, file); code != error::none) return code;
    const bool alone = lock_now(file, LOCK_EX);
    uint32_t code = alone ? create_fresh(file, size) : error::none;
    if (code == error::none && !lock_now(file, LOCK_SH)) code = error::busy;
    if (code == error::none) code = object->map(file);
    if (code != error::none) return give_up(file, alone, path, code);
    mapping = HandleTable::insert(file, HandleKind::mapping, std::move(object));
    return mapping ? error::none : error::too_many_open_files;
}

} // namespace

uint32_t open_mapping(const char* name, uint64_t size, void*& mapping, void*& address, uint64_t& mapped_size) {
    if (!name) return error::invalid_parameter;
    try {
        const std::string gate_path = named_object_path("gate", name);
        auto object = std::make_unique<MappingObject>(named_object_path("mapping", name), gate_path);
        const MappingObject& opened = *object;
        Gate gate;
        if (const uint32_t code = gate.enter(gate_path); code != error::none) return code;
        if (const uint32_t code = open_under_gate(std::move(object), size, mapping); code != error::none) return code;
        address = opened.address();
        mapped_size = opened.size();
        return error::none;
    } catch (const std::bad_alloc&) {
        return error::not_enough_memory;
    }
}

} // namespace vel::os
