// Thread-local storage behind an object.
#pragma once

#include <new>
#include <vel/frame/exception.h>
#include <vel/types.h>

namespace vel {

/// Per-thread slots with shared ownership. `destroy` runs at the end of a thread for its value, if that is not null.
/// Codes are system codes, 0 on success.
VEL_API uint32_t create_tls_slot(void (*destroy)(void*), uint32_t& slot);
VEL_API void share_tls_slot(uint32_t slot);
VEL_API void release_tls_slot(uint32_t slot);
VEL_API void* tls_slot_value(uint32_t slot);
VEL_API uint32_t set_tls_slot_value(uint32_t slot, void* value);

} // namespace vel

/// What a thread's slot points to: the thread's value.
template <class T>
class VEL_TLS_Value {
public:
    virtual ~VEL_TLS_Value() = default;
    T value{};
};

/// One value of type T for each thread.
///
/// Threads:   any; each sees its own value, value-initialised at its first use and deleted at the thread's end.
/// Ownership: a copy names the same values; the slot is freed with the last copy. Values that threads still hold then
///            are not freed, on purpose: call `cleanup` before.
/// Errors:    the constructor and `tls_get` throw VEL_Exception, with a system code and with 8.
template <class T>
class VEL_TLS {
public:
    VEL_TLS() {
        const uint32_t error = vel::create_tls_slot(&destroy, index_);
        if (error != 0) VEL_Exception::ThrowException(error, "Thread local storage initialize failed");
    }
    VEL_TLS(const VEL_TLS& other) : index_(other.index_) { vel::share_tls_slot(index_); }
    VEL_TLS& operator=(const VEL_TLS& other) {
        vel::share_tls_slot(other.index_);
        vel::release_tls_slot(index_);
        index_ = other.index_;
        return *this;
    }
    virtual ~VEL_TLS() { vel::release_tls_slot(index_); }

    /// The calling thread's value.
    T& tls_get() {
        if (VEL_TLS_Value<T>* value = current()) return value->value;
        VEL_TLS_Value<T>* value = new (std::nothrow) VEL_TLS_Value<T>;
        if (!value) VEL_Exception::ThrowException(8, "Thread local storage variable allocation failed");
        if (vel::set_tls_slot_value(index_, value) != 0) {
            delete value;
            VEL_Exception::ThrowException(8, "Thread local storage variable setting failed");
        }
        return value->value;
    }

    /// Stores the calling thread's value. 0, or -1 with the error code left alone.
    int tls_set(const T& value) {
        try {
            tls_get() = value;
            return 0;
        } catch (const VEL_Exception&) {
            return -1;
        }
    }

    /// Deletes the calling thread's value, if any.
    void cleanup() {
        VEL_TLS_Value<T>* value = current();
        if (!value) return;
        vel::set_tls_slot_value(index_, nullptr);
        delete value;
    }

private:
    static void destroy(void* value) { delete static_cast<VEL_TLS_Value<T>*>(value); }
    VEL_TLS_Value<T>* current() const { return static_cast<VEL_TLS_Value<T>*>(vel::tls_slot_value(index_)); }

    uint32_t index_ = 0xFFFFFFFF; // none
};
