// Composition root: the order in which the library starts and stops. The only file that knows every subsystem.
#include <vel/library.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vel/frame/error.h>
#include <vel/memory/allocator.h>
#include <vel/memory/malloc.h>
#include <vel/os/error_codes.h>
#include <vel/sync/single_instance.h>
#include <vel/threads/thread_manager.h>

namespace vel {
namespace {

std::mutex context_mutex;
std::condition_variable stopped;
std::thread::id stopper;       // guarded by the mutex: who takes the steps after the last user left; none otherwise
std::atomic<int32_t> users{0}; // written under the mutex

// An allocator that the application has installed stays, and then the library's own are made when they are asked for.
bool start_allocators() {
    if (current_allocator()) return true;
    VELLib::set_allocator(VEL_Std_Allocator::instance());
    return current_allocator() && VEL_Virtual_Allocator::instance() && VEL_Global_Allocator::instance();
}

// In the order of start. The socket layer is always there on this system and needs no step.
bool start() {
    // The reliable-UDP layer starts here.
    return start_allocators() && VEL_Thread_Manager::instance() != nullptr;
}

// In the order of stop. It runs without the mutex, so that the threads it waits for can still ask for the library's
// state. The allocators stay: blocks may be freed later.
void stop() {
    if (VEL_Thread_Manager* threads = VEL_Thread_Manager::instance()) threads->close();
    // The registry of HTTP requests closes here.
    VEL_SingleInstance::release_all_instance();
    // The reliable-UDP layer stops here.
}

bool stopping() { return stopper != std::thread::id(); }

// Whether the stop that is under way may need the calling thread to go on: a single instance's destructor runs in one of
// its steps, and the library's own threads are waited for.
bool stop_needs_this_thread() {
    return stopping() && (stopper == std::this_thread::get_id() || !VEL_Thread_Manager::thr_self().invalid());
}

} // namespace
} // namespace vel

namespace VELLib {

int initialize() {
    std::unique_lock lock(vel::context_mutex);
    if (vel::stop_needs_this_thread()) {
        SetErrorCode(vel::error::object_closed);
        return -1;
    }
    vel::stopped.wait(lock, [] { return !vel::stopping(); });
    if (vel::users == 0 && !vel::start()) return -1;
    ++vel::users;
    return 0;
}

void uninitialize() {
    {
        std::lock_guard lock(vel::context_mutex);
        if (vel::users == 0 || --vel::users > 0) return;
        vel::stopper = std::this_thread::get_id();
    }
    vel::stop();
    {
        std::lock_guard lock(vel::context_mutex);
        vel::stopper = std::thread::id();
    }
    vel::stopped.notify_all();
}

bool isInitiate() { return vel::users > 0; }

} // namespace VELLib
