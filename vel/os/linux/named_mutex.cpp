// Named mutexes: a record of each name in this process, and a file lock between the processes.
//
// Invariants of a record, under its lock: owner is the thread that holds or is about to get the file lock, so at most
// one thread of a process asks the kernel; depth above 0 exactly while the file lock is held. The first byte of the
// file is 1 while a thread owns the mutex. The kernel drops the file lock of a process that ends; the mark stays and
// tells the next owner. It is only a hint: any user may write it.
#include <vel/os/named_mutex.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstddef>
#include <ctime>
#include <fcntl.h>
#include <list>
#include <memory>
#include <mutex>
#include <new>
#include <pthread.h>
#include <string>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <unistd.h>
#include <utility>
#include <vel/os/error_codes.h>
#include <vel/os/linux/deadline.h>
#include <vel/os/linux/descriptor.h>
#include <vel/os/linux/error.h>
#include <vel/os/linux/futex.h>
#include <vel/os/linux/handle_table.h>
#include <vel/os/linux/mutex_owner.h>
#include <vel/os/linux/named_object.h>
#include <vel/os/thread.h>

namespace vel::os {
namespace {

constexpr long shortest_pause_ns = 200 * 1000;
constexpr long longest_pause_ns = 10 * 1000 * 1000;

/// The file lock between processes, with the mark that tells of an owner that died. Without a file (an unnamed mutex)
/// the mark is all there is.
class FileLock {
public:
    explicit FileLock(int descriptor) : descriptor_(descriptor) {}
    ~FileLock() {
        if (descriptor_ >= 0) ::close(descriptor_);
    }
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;

    int descriptor() const { return descriptor_; }

    uint32_t acquire(const Deadline& deadline) {
        if (descriptor_ < 0) return error::none;
        if (deadline.infinite()) return acquire_blocking();
        long pause = shortest_pause_ns;
        while (::flock(descriptor_, LOCK_EX | LOCK_NB) != 0) {
            if (errno == EINTR) continue;
            if (errno != EWOULDBLOCK) return system_error(errno);
            if (deadline.expired()) return error::wait_timeout;
            const timespec length{0, pause};
            ::nanosleep(&length, nullptr);
            pause = pause * 2 < longest_pause_ns ? pause * 2 : longest_pause_ns;
        }
        return error::none;
    }

    /// Sets the mark; true when it stood already, so that the owner before has died.
    bool mark() {
        if (descriptor_ < 0) return std::exchange(unnamed_mark_, char{1}) == 1;
        char before = 0;
        const char owned = 1;
        if (::pread(descriptor_, &before, 1, 0) == 1 && before == owned) return true;
        while (::pwrite(descriptor_, &owned, 1, 0) < 0 && errno == EINTR) {
        }
        return false;
    }

    void clear_mark() {
        unnamed_mark_ = 0;
        const char free = 0;
        while (descriptor_ >= 0 && ::pwrite(descriptor_, &free, 1, 0) < 0 && errno == EINTR) {
        }
    }

    void release() {
        if (descriptor_ >= 0) ::flock(descriptor_, LOCK_UN);
    }

private:
    uint32_t acquire_blocking() {
        while (::flock(descriptor_, LOCK_EX) != 0)
            if (errno != EINTR) return system_error(errno);
        return error::none;
    }

    const int descriptor_;
    char unnamed_mark_ = 0;
};

/// What the handles of one name in this process share.
class Record {
public:
    Record(std::string path, int descriptor) : path_(std::move(path)), file_(descriptor) {}

    const std::string& path() const { return path_; }
    int descriptor() const { return file_.descriptor(); }

    uint32_t acquire(uint32_t timeout_ms, bool& abandoned);
    uint32_t release();
    void abandon(uint32_t thread_id);

private:
    friend class Registry;
    bool wait_until_free(std::unique_lock<std::mutex>& lock, const Deadline& deadline);
    void hand_on();

    const std::string path_; // empty without a name
    FileLock file_;
    uint32_t shares_ = 1; // guarded by the registry's lock

    std::mutex mutex_;
    // Counts. A condition variable would wait at its end for a waiter that was killed.
    std::atomic<uint32_t> handed_on_{0};
    uint32_t owner_ = 0; // thread id, 0 for none
    uint32_t depth_ = 0;
};

uint32_t Record::acquire(uint32_t timeout_ms, bool& abandoned) {
    const uint32_t self = current_thread_id();
    const Deadline deadline(timeout_ms);
    abandoned = false;
    {
        std::unique_lock lock(mutex_);
        if (owner_ == self) {
            ++depth_;
            return error::none;
        }
        if (!wait_until_free(lock, deadline)) return error::wait_timeout;
        owner_ = self;
    }
    const uint32_t code = file_.acquire(deadline);
    std::lock_guard lock(mutex_);
    if (code != error::none) {
        hand_on();
        return code;
    }
    depth_ = 1;
    abandoned = file_.mark();
    return error::none;
}

bool Record::wait_until_free(std::unique_lock<std::mutex>& lock, const Deadline& deadline) {
    while (owner_ != 0) {
        if (deadline.expired()) return false;
        const uint32_t seen = handed_on_.load(std::memory_order_relaxed);
        lock.unlock();
        timespec left;
        futex_wait(handed_on_, seen, deadline.remaining(left));
        lock.lock();
    }
    return true;
}

void Record::hand_on() {
    owner_ = 0;
    depth_ = 0;
    handed_on_.fetch_add(1, std::memory_order_relaxed);
    futex_wake_all(handed_on_);
}

uint32_t Record::release() {
    std::lock_guard lock(mutex_);
    if (owner_ != current_thread_id()) return error::not_owner;
    if (--depth_ > 0) return error::none;
    file_.clear_mark();
    file_.release();
    hand_on();
    return error::none;
}

void Record::abandon(uint32_t thread_id) {
    std::lock_guard lock(mutex_);
    if (owner_ != thread_id) return;
    file_.release(); // the mark stays
    hand_on();
}

/// All records of this process.
class Registry {
public:
    /// Never destroyed: threads may still use mutexes while the process ends. Needs no memory: the end of a thread asks
    /// for it, too.
    static Registry& instance() {
        alignas(Registry) static std::byte room[sizeof(Registry)];
        static Registry& registry = *new (room) Registry;
        return registry;
    }

    uint32_t open(const char* name, Record*& record);
    void drop(Record* record);
    void abandon(uint32_t thread_id);

private:
    Record* find(const std::string& path);

    std::mutex mutex_;
    std::list<Record> records_; // guarded by mutex_
};

Record* Registry::find(const std::string& path) {
    if (path.empty()) return nullptr;
    for (Record& record : records_)
        if (record.path() == path) return &record;
    return nullptr;
}

uint32_t Registry::open(const char* name, Record*& record) {
    std::lock_guard lock(mutex_);
    const std::string path = name ? named_object_path("mutex", name) : std::string();
    record = find(path);
    if (record) {
        ++record->shares_;
        return error::none;
    }
    int opened = -1;
    if (name)
        if (const uint32_t code = open_named_object(path, opened); code != error::none) return code;
    Descriptor descriptor(opened);
    record = &records_.emplace_back(path, descriptor.get());
    descriptor.release(); // the record's now
    return error::none;
}

void Registry::drop(Record* record) {
    std::lock_guard lock(mutex_);
    if (--record->shares_ > 0) return;
    records_.remove_if([record](const Record& each) { return &each == record; });
}

void Registry::abandon(uint32_t thread_id) {
    std::lock_guard lock(mutex_);
    for (Record& record : records_) record.abandon(thread_id);
}

class MutexObject final : public HandleObject {
public:
    explicit MutexObject(Record* record) : record_(record) {}
    ~MutexObject() override { Registry::instance().drop(record_); }

    Record& record() { return *record_; }

private:
    Record* const record_;
};

// Watches for the end of a thread that has owned a mutex. False where the system has no more keys for that.
bool note_owner() {
    static const pthread_key_t key = [] {
        pthread_key_t created;
        const int failed = ::pthread_key_create(&created, [](void*) { abandon_mutexes_of(current_thread_id()); });
        return failed ? PTHREAD_KEYS_MAX : created;
    }();
    static char owned;
    return ::pthread_setspecific(key, &owned) == 0;
}

// Takes over a share of the record.
uint32_t make_handle(Record* record, void*& mutex) {
    std::unique_ptr<MutexObject> object(new (std::nothrow) MutexObject(record));
    if (!object) {
        Registry::instance().drop(record);
        return error::not_enough_memory;
    }
    const int descriptor =
        record->descriptor() < 0 ? ::eventfd(0, EFD_CLOEXEC) : ::fcntl(record->descriptor(), F_DUPFD_CLOEXEC, 3);
    if (descriptor < 0) return system_error(errno);
    mutex = HandleTable::insert(descriptor, HandleKind::mutex, std::move(object));
    return mutex ? error::none : error::too_many_open_files;
}

} // namespace

void abandon_mutexes_of(uint32_t thread_id) { Registry::instance().abandon(thread_id); }

uint32_t open_mutex(const char* name, void*& mutex) {
    try {
        Record* record;
        const uint32_t code = Registry::instance().open(name, record);
        return code == error::none ? make_handle(record, mutex) : code;
    } catch (const std::bad_alloc&) {
        return error::not_enough_memory;
    }
}

uint32_t acquire_mutex(void* mutex, uint32_t timeout_ms, bool& abandoned) {
    Pinned<MutexObject> object(mutex, HandleKind::mutex);
    if (!object) return error::invalid_handle;
    if (!note_owner()) return error::no_system_resources;
    return object->record().acquire(timeout_ms, abandoned);
}

uint32_t release_mutex(void* mutex) {
    Pinned<MutexObject> object(mutex, HandleKind::mutex);
    return object ? object->record().release() : error::invalid_handle;
}

} // namespace vel::os
