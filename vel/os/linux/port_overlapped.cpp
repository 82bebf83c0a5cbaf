// Transfers with a bare overlapped record: a request made by the port stands in for it.
#include <vel/os/completion_port.h>

#include <memory>
#include <new>
#include <vel/os/error_codes.h>
#include <vel/os/event.h>
#include <vel/os/file.h>
#include <vel/os/linux/completion_port.h>
#include <vel/os/socket.h>

namespace vel::os {
namespace {

using PinnedHandle = Pinned<HandleObject>;

struct Address {
    void* memory = nullptr;
    int32_t* length = nullptr; // of one to fill
    int32_t size = 0;          // of one to send to
};

std::unique_ptr<ProxyRequest> make_proxy(IoKind kind, const void* buffer, uint64_t length, OVERLAPPED& record) {
    std::unique_ptr<ProxyRequest> proxy(new (std::nothrow) ProxyRequest{});
    if (!proxy) return proxy;
    proxy->kind = static_cast<uint8_t>(proxy_bit | static_cast<uint8_t>(kind));
    proxy->buffer = const_cast<void*>(buffer);
    proxy->length = length;
    proxy->Offset = record.Offset;
    proxy->OffsetHigh = record.OffsetHigh;
    proxy->record = &record;
    return proxy;
}

// 997 when started; 87 when the handle belongs to no port.
uint32_t start(uint64_t handle, bool input, const void* buffer, uint64_t length, const Address& address,
               OVERLAPPED& record) {
    const PinnedHandle object(handle, HandleKind::none);
    PortBinding* binding = object ? object->port_binding() : nullptr;
    if (!binding) return error::invalid_handle;
    const bool file = HandleTable::kind(reinterpret_cast<void*>(handle)) == HandleKind::file;
    const IoKind kind =
        input ? (file ? IoKind::read_file : IoKind::receive) : (file ? IoKind::write_file : IoKind::send);
    std::unique_ptr<ProxyRequest> proxy = make_proxy(kind, buffer, length, record);
    if (!proxy) return error::not_enough_memory;
    proxy->address = address.memory;
    proxy->address_length = address.length;
    proxy->address_size = address.size;
    record.Internal = error::io_pending;
    const uint32_t code = input ? binding->start_input(object->descriptor(), *proxy)
                                : binding->start_output(object->descriptor(), *proxy);
    if (code) return code;
    proxy.release(); // the port's now
    return error::io_pending;
}

// Transfers at once; the record is left as by a completion.
template <class Transfer>
uint32_t at_once(OVERLAPPED& record, uint64_t& moved, Transfer transfer) {
    const uint32_t code = transfer();
    record.Internal = code;
    record.InternalHigh = moved;
    if (record.hEvent) set_event(record.hEvent);
    return code;
}

bool is_file(uint64_t handle) { return HandleTable::kind(reinterpret_cast<void*>(handle)) == HandleKind::file; }

uint64_t offset_of(const OVERLAPPED& record) { return uint64_t{record.OffsetHigh} << 32 | record.Offset; }

} // namespace

uint32_t overlapped_receive(uint64_t handle, void* buffer, uint64_t length, OVERLAPPED& record, uint64_t& moved) {
    const uint32_t started = start(handle, true, buffer, length, {}, record);
    if (started != error::invalid_parameter) return started;
    return at_once(record, moved, [&] {
        if (!is_file(handle)) return receive(handle, buffer, length, moved);
        const uint32_t code = read_file_at(reinterpret_cast<void*>(handle), buffer, length, offset_of(record), moved);
        return code == error::none && moved == 0 && length > 0 ? error::end_of_file : code;
    });
}

uint32_t overlapped_send(uint64_t handle, const void* data, uint64_t length, OVERLAPPED& record, uint64_t& moved) {
    const uint32_t started = start(handle, false, data, length, {}, record);
    if (started != error::invalid_parameter) return started;
    return at_once(record, moved, [&] {
        if (!is_file(handle)) return send(handle, data, length, moved);
        return write_file_at(reinterpret_cast<void*>(handle), data, length, offset_of(record), moved);
    });
}

uint32_t overlapped_receive_from(uint64_t socket, void* buffer, uint64_t length, void* address, int32_t* address_length,
                                 OVERLAPPED& record, uint64_t& moved) {
    if (is_file(socket)) return error::not_a_socket;
    const uint32_t started = start(socket, true, buffer, length, {address, address_length, 0}, record);
    if (started != error::invalid_parameter) return started;
    int32_t none = 0;
    int32_t& room = address_length ? *address_length : none;
    return at_once(record, moved, [&] { return receive_from(socket, buffer, length, address, room, moved); });
}

uint32_t overlapped_send_to(uint64_t socket, const void* data, uint64_t length, const void* address,
                            int32_t address_length, OVERLAPPED& record, uint64_t& moved) {
    if (is_file(socket)) return error::not_a_socket;
    const Address target{const_cast<void*>(address), nullptr, address_length};
    const uint32_t started = start(socket, false, data, length, target, record);
    if (started != error::invalid_parameter) return started;
    return at_once(record, moved, [&] { return send_to(socket, data, length, address, address_length, moved); });
}

} // namespace vel::os
