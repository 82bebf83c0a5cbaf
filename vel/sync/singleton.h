// Holder of a class's one process-wide object.
#pragma once

#include <atomic>
#include <new>
#include <utility>
#include <vel/frame/error.h>
#include <vel/frame/exception.h>
#include <vel/sync/guard.h>
#include <vel/sync/single_instance.h>

/// Keeps the one object of class T until the library is finalised; after that a fresh one may be made.
///
/// The class keeps a static `std::atomic<T*>`, null while there is no object, and a static lock; its `instance()` is
///
///     return VEL_Singleton<Manager, VEL_Base_Mutex>::instance(instance_, instance_lock_, 9973);
///
/// Threads:   any. The pointer is read without the lock; it is set and cleared under it.
/// Limits:    the lock is recursive and outlives the holder.
/// @tparam Lock  kind of the lock; VEL_Base_Mutex takes any
template <class T, class Lock>
class VEL_Singleton : public VEL_SingleInstance {
public:
    /// The object behind `published`, made from the arguments, published and registered when there is none.
    /// Null with the error code set when it cannot be made or registered.
    template <class... Arguments>
    static T* instance(std::atomic<T*>& published, Lock& lock, Arguments&&... arguments) {
        if (T* object = published.load(std::memory_order_acquire)) return object;
        VEL_Guard guard(lock);
        if (T* object = published.load(std::memory_order_relaxed)) return object;
        try {
            auto* holder = new VEL_Singleton(published, lock, std::forward<Arguments>(arguments)...);
            if (add_instance(holder) == 0) return holder->publish();
            delete holder;
        } catch (const VEL_Exception& exception) {
            VELLib::SetErrorCode(exception.GetErrorCode());
        } catch (const std::bad_alloc&) {
            VELLib::SetErrorCode(8);
        }
        return nullptr;
    }

    /// Clears the pointer under the lock, then ends the object.
    ~VEL_Singleton() override {
        VEL_Guard guard(lock_);
        published_.store(nullptr, std::memory_order_release);
    }

private:
    template <class... Arguments>
    VEL_Singleton(std::atomic<T*>& published, Lock& lock, Arguments&&... arguments)
        : object_(std::forward<Arguments>(arguments)...),
          lock_(lock),
          published_(published) {}

    // Only once it is registered, so that nobody finds an object that is given up again. A release that comes between
    // waits for the lock.
    T* publish() {
        published_.store(&object_, std::memory_order_release);
        return &object_;
    }

    T object_;
    Lock& lock_;
    std::atomic<T*>& published_;
};
