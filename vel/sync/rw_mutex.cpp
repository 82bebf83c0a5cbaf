// Reader/writer lock between threads.
#include <vel/sync/rw_mutex.h>

VEL_RW_Thread_Mutex::VEL_RW_Thread_Mutex() = default;
VEL_RW_Thread_Mutex::~VEL_RW_Thread_Mutex() = default;

int VEL_RW_Thread_Mutex::tryacquire() { return tryacquire_write(); }

int VEL_RW_Thread_Mutex::acquire() { return acquire_write(); }

int VEL_RW_Thread_Mutex::tryacquire_read() {
    if (!mutex_.try_lock()) return -1;
    return register_reader();
}

int VEL_RW_Thread_Mutex::acquire_read() {
    mutex_.lock();
    return register_reader();
}

// Called with the entry lock, which it gives back.
int VEL_RW_Thread_Mutex::register_reader() {
    {
        const std::lock_guard count_guard(count_lock_);
        ++readers_;
    }
    mutex_.unlock();
    return 0;
}

int VEL_RW_Thread_Mutex::tryacquire_write() {
    if (!mutex_.try_lock()) return -1;
    {
        const std::lock_guard count_guard(count_lock_);
        if (readers_ < 1) return 0;
    }
    mutex_.unlock();
    return -1;
}

int VEL_RW_Thread_Mutex::acquire_write() {
    mutex_.lock();
    std::unique_lock count_guard(count_lock_);
    no_readers_.wait(count_guard, [this] { return readers_ < 1; }); // lets go of the count lock while it waits
    return 0;
}

int VEL_RW_Thread_Mutex::release() {
    {
        const std::lock_guard count_guard(count_lock_);
        if (readers_ > 0) {
            if (--readers_ == 0) no_readers_.notify_all();
            return 0;
        }
    }
    mutex_.unlock();
    return 0;
}
