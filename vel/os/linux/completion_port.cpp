// Completion ports: creation, association, posts, waiting and the end.
#include <vel/os/linux/completion_port.h>

#include <cerrno>
#include <new>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <utility>
#include <vel/os/error_codes.h>
#include <vel/os/event.h>
#include <vel/os/linux/error.h>

namespace vel::os {
namespace {

using Guard = std::lock_guard<PortDirection>;
using PinnedPort = Pinned<PortObject>;

bool is_proxy(const IoRequest& request) { return request.kind & proxy_bit; }

} // namespace

std::mutex& PortObject::associations_lock() {
    static std::mutex lock;
    return lock;
}

void PortObject::detach() {
    discard(queue_.close());
    files_.stop();
    const std::lock_guard associations(associations_lock());
    closed_ = true;
    while (bindings_) release(*bindings_);
}

void PortObject::abandon(uint32_t thread_id) {
    if (!queue_.abandon(thread_id)) return;
    const std::lock_guard associations(associations_lock());
    for (PortBinding* each = bindings_; each; each = each->next_)
        if (each->is_socket_) events_.repeat(each->descriptor_, *each); // its edge may have been fetched in vain
}

void PortObject::release(PortBinding& binding) {
    const Guard input(binding.input_);
    const Guard output(binding.output_);
    discard(binding.input_.take_all());
    discard(binding.output_.take_all());
    forget(binding);
}

void PortObject::forget(PortBinding& binding) {
    (binding.previous_ ? binding.previous_->next_ : bindings_) = binding.next_;
    if (binding.next_) binding.next_->previous_ = binding.previous_;
    binding.port_ = nullptr;
}

// Nobody will take these; only what the port made itself is freed.
void PortObject::discard(IoRequest* chain) {
    while (chain) {
        IoRequest* each = std::exchange(chain, chain->next);
        if (is_proxy(*each)) delete static_cast<ProxyRequest*>(each);
    }
}

uint32_t PortObject::associate(HandleObject& object, HandleKind kind, uint32_t key) {
    PortBinding* binding = object.port_binding();
    if (!binding) return error::invalid_parameter;
    {
        const std::lock_guard associations(associations_lock());
        const Guard input(binding->input_);
        const Guard output(binding->output_);
        if (closed_) return error::port_closed;
        if (binding->closed_) return error::invalid_handle;
        if (binding->port_) return error::invalid_parameter;
        binding->key_ = key;
        if (const uint32_t code = bind(*binding, object)) return code;
        binding->port_ = this;
        binding->previous_ = nullptr;
        binding->next_ = std::exchange(bindings_, binding);
        if (binding->next_) binding->next_->previous_ = binding;
    }
    if (kind == HandleKind::socket) queue_.enable_events();
    return error::none;
}

// Sockets join the epoll; the first edge that they get for it tells what is ready already.
uint32_t PortObject::bind(PortBinding& binding, HandleObject& object) {
    binding.descriptor_ = object.descriptor();
    binding.generation_ = object.generation();
    for (PortDirection* direction : {&binding.input_, &binding.output_}) {
        direction->ready = true;
        direction->drain = false;
        direction->lane = PortDirection::Lane::idle;
        direction->lane_owner = &binding;
    }
    if (!binding.is_socket_) return error::none;
    int type = 0;
    socklen_t length = sizeof type;
    if (::getsockopt(binding.descriptor_, SOL_SOCKET, SO_TYPE, &type, &length) < 0) return system_error(errno);
    binding.is_stream_ = type == SOCK_STREAM;
    const int error_number = events_.add(binding.descriptor_, binding);
    return error_number ? system_error(error_number) : error::none;
}

void PortObject::finish(IoRequest& request, uint32_t code) {
    request.Internal = code;
    void* event = request.hEvent;
    if (is_proxy(request)) {
        OVERLAPPED& record = *static_cast<ProxyRequest&>(request).record;
        record.Internal = code;
        record.InternalHigh = request.InternalHigh;
        event = record.hEvent;
    }
    if (queue_.push(request)) {
        request.next = nullptr;
        discard(&request);
    }
    if (event) set_event(event); // the record may be gone by now
}

uint32_t PortObject::post(IoRequest& request, uint64_t bytes, uint32_t key) {
    request.kind = static_cast<uint8_t>((request.kind & proxy_bit) | static_cast<uint8_t>(IoKind::post));
    request.Internal = error::none;
    request.InternalHigh = bytes;
    request.key = key;
    return queue_.push(request);
}

uint32_t PortObject::wait(uint32_t timeout_ms, Completion& completion) {
    IoRequest* request = nullptr;
    if (const uint32_t code = queue_.take(timeout_ms, request)) return code;
    completion.record = request;
    completion.bytes = request->InternalHigh;
    completion.key = request->key;
    completion.error = static_cast<uint32_t>(request->Internal);
    completion.more = request->next != nullptr;
    if (!is_proxy(*request)) return error::none;
    auto* proxy = static_cast<ProxyRequest*>(request);
    completion.record = proxy->record;
    delete proxy;
    return error::none;
}

uint32_t create_port(uint32_t concurrency, void*& port) {
    if (concurrency == 0) return error::invalid_parameter;
    std::unique_ptr<PortObject> object(new (std::nothrow) PortObject(concurrency));
    if (!object) return error::not_enough_memory;
    const int descriptor = ::epoll_create1(EPOLL_CLOEXEC);
    if (descriptor < 0) return system_error(errno);
    PortObject& opened = *object;
    void* handle = HandleTable::insert(descriptor, HandleKind::port, std::move(object));
    if (!handle) return error::too_many_open_files;
    if (const int error_number = opened.events().open()) {
        HandleTable::close(handle);
        return system_error(error_number);
    }
    port = handle;
    return error::none;
}

uint32_t close_port(void* port) {
    if (HandleTable::kind(port) != HandleKind::port) return error::invalid_handle;
    return HandleTable::close(port);
}

uint32_t associate(void* port, void* handle, uint32_t key) {
    const PinnedPort object(port, HandleKind::port);
    if (!object) return error::invalid_handle;
    const Pinned<HandleObject> target(handle, HandleKind::none);
    if (!target) return error::invalid_handle;
    return object->associate(*target, HandleTable::kind(handle), key);
}

uint32_t post_completion(void* port, OVERLAPPED* record, uint64_t bytes, uint32_t key) {
    const PinnedPort object(port, HandleKind::port);
    if (!object) return error::invalid_handle;
    auto* proxy = new (std::nothrow) ProxyRequest{};
    if (!proxy) return error::not_enough_memory;
    proxy->kind = proxy_bit;
    proxy->record = record;
    const uint32_t code = object->post(*proxy, bytes, key);
    if (code) delete proxy;
    return code;
}

uint32_t wait_completion(void* port, uint32_t timeout_ms, Completion& completion) {
    const PinnedPort object(port, HandleKind::port);
    return object ? object->wait(timeout_ms, completion) : error::invalid_handle;
}

HeldPort::HeldPort(void* port) : object_(static_cast<PortObject*>(HandleTable::pin(port, HandleKind::port))) {}

HeldPort::~HeldPort() {
    if (object_) HandleTable::unpin(object_);
}

uint32_t HeldPort::post(IoRequest& request, uint64_t bytes, uint32_t key) const {
    if (!object_) return error::invalid_handle;
    request.kind = 0;
    return object_->post(request, bytes, key);
}

uint32_t HeldPort::wait(uint32_t timeout_ms, Completion& completion) const {
    return object_ ? object_->wait(timeout_ms, completion) : error::invalid_handle;
}

} // namespace vel::os
