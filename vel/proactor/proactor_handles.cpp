// The proactor's table of registered handles and what is reached through it.
#include <vel/proactor/proactor.h>

#include <new>
#include <vel/frame/fail.h>
#include <vel/os/completion_port.h>
#include <vel/platform/sockets.h>
#include <vel/proactor/async_dgram_io.h>
#include <vel/proactor/async_post.h>
#include <vel/proactor/async_stream_io.h>
#include <vel/proactor/read_gate.h>
#include <vel/sync/guard.h>

namespace error = vel::error;
namespace os = vel::os;

namespace {

constexpr uint32_t last_possible_key = 0xFFFFFFFE;

} // namespace

uint32_t VEL_Proactor::generate_completion_key() {
    VEL_Guard guard(key_lock_);
    last_key_ = last_key_ >= last_possible_key ? 1 : last_key_ + 1;
    return last_key_;
}

/// The entry of a key, while the table stands still; null with the code while closing, for key 0 and for an unknown key.
VEL_Handle_Set* VEL_Proactor::find(uint32_t key) {
    uint32_t code = error::none;
    VEL_Handle_Set* set = nullptr;
    if (closing_ || handle_table_ == nullptr)
        code = error::object_closed;
    else if (key == 0)
        code = error::no_completion_key;
    else if ((set = handle_table_->find(key)) == nullptr)
        code = error::not_found;
    if (code != error::none) VELLib::SetErrorCode(code);
    return set;
}

/// Calls `read` while the table stands still: in the gate, or under the lock where that is shut. It takes what it wants
/// to keep along with a reference.
template <class Read>
auto VEL_Proactor::read_table(Read read) {
    {
        const vel::ReadGate::Pass pass(*table_gate_);
        if (pass.entered()) return read();
    }
    VEL_Guard guard(lock_);
    return read();
}

int VEL_Proactor::register_handle(uint32_t key, void* handle, VEL_Async_Handler* handler) {
    if (port_ == nullptr || handler == nullptr) return vel::fail(error::null_member);
    VEL_Guard guard(lock_);
    if (closing_ || handle_table_ == nullptr) return vel::fail(error::object_closed);
    if (key == 0) return vel::fail(error::no_completion_key);
    if (handle_table_->find(key) != nullptr) return vel::fail(error::invalid_parameter);
    uint32_t code = error::none;
    {
        const vel::ReadGate::Closure closure(*table_gate_);
        if (handle_table_->bind(key, {handle, handler}) < 0) return -1;
        handler->addref();
        code = os::associate(port_, handle, key);
        if (code == error::none) return 0;
        handle_table_->unbind(key);
    }
    guard.unlock();
    handler->release();
    return vel::fail(code);
}

int VEL_Proactor::remove_handle(uint32_t key, bool no_close) {
    if (port_ == nullptr) return vel::fail(error::null_member);
    VEL_Guard guard(lock_);
    if (handle_table_ == nullptr) return vel::fail(error::null_member);
    HandleTable::Node* entry = handle_table_->find_node(key);
    if (entry == nullptr) return vel::fail(error::not_found);
    const VEL_Handle_Set set = entry->value();
    {
        const vel::ReadGate::Closure closure(*table_gate_);
        handle_table_->remove(entry);
    }
    guard.unlock();
    if (!no_close) set.handler->handle_close(key, set.handle, this);
    set.handler->release();
    return 0;
}

void* VEL_Proactor::get_handle(uint32_t key, VEL_Async_Handler*& handler) {
    return read_table([&]() VEL_NO_THREAD_SAFETY_ANALYSIS -> void* {
        const VEL_Handle_Set* set = nullptr;
        if (handle_table_ == nullptr)
            VELLib::SetErrorCode(error::null_member);
        else if ((set = handle_table_->find(key)) == nullptr)
            VELLib::SetErrorCode(error::not_found);
        if (set == nullptr) return VEL_INVALID_HANDLE;
        handler = set->handler;
        handler->addref();
        return set->handle;
    });
}

int VEL_Proactor::close_handle(uint32_t key) {
    if (port_ == nullptr) return vel::fail(error::null_member);
    VEL_Guard guard(lock_);
    const VEL_Handle_Set* set = find(key);
    if (set == nullptr) return -1;
    // The one callback under the lock: nobody else ends the registration before it is over. The handler itself may.
    VEL_Async_Handler* handler = set->handler;
    handler->addref();
    handler->close_handle();
    guard.unlock();
    handler->release();
    return 0;
}

int VEL_Proactor::shutdown(uint32_t key, int how) {
    if (port_ == nullptr) return vel::fail(error::null_member);
    VEL_Guard guard(lock_);
    const VEL_Handle_Set* set = find(key);
    if (set == nullptr) return -1;
    return VELLib::shutdown(reinterpret_cast<uint64_t>(set->handle), how);
}

int VEL_Proactor::sendMessage(uint32_t key, const VEL_Message_Block& message) {
    if (port_ == nullptr) return vel::fail(error::null_member);
    if (message.is_null()) return vel::fail(error::invalid_parameter);
    std::unique_ptr<VEL_Async_Post_Operation> op; // deleted, on failure, when neither gate nor lock is held
    return read_table([&]() VEL_NO_THREAD_SAFETY_ANALYSIS {
        const VEL_Handle_Set* set = find(key);
        if (set == nullptr) return -1;
        op.reset(new (std::nothrow) VEL_Async_Post_Operation(this, key, set->handler, message));
        if (op == nullptr) return vel::fail(error::not_enough_memory);
        // Here, so that close() finds everything that was posted before it shut the gate.
        if (const uint32_t code = held_port_->post(*op, 0, key)) return vel::fail(code);
        op.release(); // the port's now
        return 0;
    });
}

/// Starts a send to the handle of a key. Nothing is held during the start: the operation is aimed at that handle and fails
/// once it is closed, whatever its number stands for by then.
template <class Operation, class Prepare>
int VEL_Proactor::start_send(uint32_t key, const VEL_Byte_Block& data, size_t length, Prepare prepare) {
    if (port_ == nullptr) return vel::fail(error::null_member);
    std::unique_ptr<Operation> op;
    const int made = read_table([&]() VEL_NO_THREAD_SAFETY_ANALYSIS {
        const VEL_Handle_Set* set = find(key);
        if (set == nullptr) return -1;
        op.reset(new (std::nothrow) Operation(this, key, set->handle, set->handler));
        return op == nullptr ? vel::fail(error::not_enough_memory) : 0;
    });
    if (made < 0) return made;
    prepare(*op);
    const int result = op->write(data, length, 0);
    if (result >= 0) op.release(); // the port's now
    return result;
}

int VEL_Proactor::sendSockStream(uint32_t key, const VEL_Byte_Block& data, size_t length) {
    return start_send<VEL_Async_SOCK_Write_Stream>(key, data, length, [](VEL_Async_SOCK_Write_Stream&) {});
}

int VEL_Proactor::sendSockDgram(uint32_t key, const VEL_Byte_Block& data, size_t length, const VEL_INET_Addr& to) {
    return start_send<VEL_Async_SOCK_Write_Dgram>(key, data, length,
                                                  [&](VEL_Async_SOCK_Write_Dgram& op) { op.send_address(to); });
}
