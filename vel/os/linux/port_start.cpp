// Starting requests: from a handle of the user to the queue of its binding.
#include <vel/os/completion_port.h>

#include <fcntl.h>
#include <vel/os/error_codes.h>
#include <vel/os/linux/handle_table.h>
#include <vel/os/linux/port_binding.h>

namespace vel::os {
namespace {

using PinnedHandle = Pinned<HandleObject>;

void prepare(IoRequest& request, IoKind kind, const void* buffer, uint64_t length) {
    request.kind = static_cast<uint8_t>(kind);
    request.buffer = const_cast<void*>(buffer);
    request.length = length;
    request.address = nullptr;
    request.address_length = nullptr;
    request.address_size = 0;
}

uint32_t start_input(uint64_t socket, IoRequest& request) {
    PortBinding* binding = HandleTable::port_binding(socket);
    return binding ? binding->start_input(static_cast<int>(socket), request) : error::not_a_socket;
}

uint32_t start_output(uint64_t socket, IoRequest& request) {
    PortBinding* binding = HandleTable::port_binding(socket);
    return binding ? binding->start_output(static_cast<int>(socket), request) : error::not_a_socket;
}

// There is no accept call that does not wait on a listener that does.
void make_nonblocking(int descriptor) {
    const int mode = ::fcntl(descriptor, F_GETFL);
    if (!(mode & O_NONBLOCK)) ::fcntl(descriptor, F_SETFL, mode | O_NONBLOCK);
}

} // namespace

void aim(IoRequest& request, void* handle) { request.handle_generation = HandleTable::generation(handle); }

uint32_t start_receive(uint64_t socket, IoRequest& request, void* buffer, uint64_t length) {
    prepare(request, IoKind::receive, buffer, length);
    return start_input(socket, request);
}

uint32_t start_receive_from(uint64_t socket, IoRequest& request, void* buffer, uint64_t length, void* address,
                            int32_t* address_length) {
    prepare(request, IoKind::receive, buffer, length);
    request.address = address;
    request.address_length = address_length;
    return start_input(socket, request);
}

uint32_t start_send(uint64_t socket, IoRequest& request, const void* data, uint64_t length) {
    prepare(request, IoKind::send, data, length);
    return start_output(socket, request);
}

uint32_t start_send_to(uint64_t socket, IoRequest& request, const void* data, uint64_t length, const void* address,
                       int32_t address_length) {
    prepare(request, IoKind::send, data, length);
    request.address = const_cast<void*>(address);
    request.address_size = address_length;
    return start_output(socket, request);
}

uint32_t start_accept(uint64_t listener, IoRequest& request, uint64_t accept_socket, void* local_address,
                      void* remote_address) {
    if (accept_socket == listener) return error::invalid_parameter;
    const PinnedHandle prepared(accept_socket, HandleKind::socket);
    if (!prepared) return error::not_a_socket;
    prepare(request, IoKind::accept, nullptr, 0);
    request.accept_socket = accept_socket;
    request.accept_socket_generation = prepared->generation();
    request.local_address = local_address;
    request.address = remote_address;
    const PinnedHandle object(listener, HandleKind::socket);
    if (!object) return error::not_a_socket;
    make_nonblocking(object->descriptor());
    return object->port_binding()->start_input(object->descriptor(), request);
}

uint32_t start_connect(uint64_t socket, IoRequest& request, const void* address, int32_t address_length) {
    prepare(request, IoKind::connect, nullptr, 0);
    request.address = const_cast<void*>(address);
    request.address_size = address_length;
    return start_output(socket, request);
}

uint32_t start_read_file(void* file, IoRequest& request, void* buffer, uint64_t length) {
    const PinnedHandle object(file, HandleKind::file);
    if (!object) return start_receive(reinterpret_cast<uint64_t>(file), request, buffer, length);
    prepare(request, IoKind::read_file, buffer, length);
    return object->port_binding()->start_input(object->descriptor(), request);
}

uint32_t start_write_file(void* file, IoRequest& request, const void* data, uint64_t length) {
    const PinnedHandle object(file, HandleKind::file);
    if (!object) return start_send(reinterpret_cast<uint64_t>(file), request, data, length);
    prepare(request, IoKind::write_file, data, length);
    return object->port_binding()->start_output(object->descriptor(), request);
}

} // namespace vel::os
