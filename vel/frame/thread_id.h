// The name of a thread: its handle and its id.
#pragma once

#include <vel/types.h>

/// Names a thread. A plain value: copying it does not share the handle, which belongs to whoever started the thread.
class VEL_thread_t {
public:
    /// The empty name: no handle, id 0xFFFFFFFF.
    VEL_thread_t() = default;
    VEL_thread_t(void* handle, uint32_t id) : handle_(handle), id_(id) {}

    void* thr_handle() const { return handle_; }
    uint32_t thr_id() const { return id_; }

    /// True when the handle or the id is missing.
    bool invalid() const { return id_ == 0xFFFFFFFF || handle_ == nullptr; }

    friend bool operator==(const VEL_thread_t& left, const VEL_thread_t& right) {
        return left.handle_ == right.handle_ && left.id_ == right.id_;
    }
    friend bool operator!=(const VEL_thread_t& left, const VEL_thread_t& right) { return !(left == right); }

private:
    void* handle_ = nullptr;
    uint32_t id_ = 0xFFFFFFFF;
};
