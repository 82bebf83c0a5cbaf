// Accepting a connection as an asynchronous operation.
#include <vel/proactor/async_accept.h>

#include <vel/frame/fail.h>
#include <vel/os/completion_port.h>
#include <vel/platform/sockets.h>
#include <vel/proactor/async_handler.h>

namespace {

constexpr size_t area = 32; // of one address in the buffer
constexpr int option_level = 0xFFFF;
constexpr int accept_context = 0x700B;

} // namespace

VEL_Async_SOCK_Accept::~VEL_Async_SOCK_Accept() { close_accepted(); }

int VEL_Async_SOCK_Accept::accept(void* prepared) {
    if (check_start() < 0) return -1;
    close_accepted();
    const bool own = prepared == VEL_INVALID_HANDLE;
    accepted_ = own ? VELLib::socket(2, 1, 0) : reinterpret_cast<uint64_t>(prepared);
    if (accepted_ == VEL_INVALID_SOCKET) return -1;
    clear_overlapped();
    for (uint8_t& byte : addresses_) byte = 0;
    uint32_t error = vel::os::start_accept(socket(), *this, accepted_, addresses_, addresses_ + area);
    if (error == vel::error::none) return 0;
    if (own) VELLib::closesocket(accepted_);
    accepted_ = VEL_INVALID_SOCKET;
    return vel::fail(error);
}

void* VEL_Async_SOCK_Accept::accept_handle(VEL_INET_Addr& remote) {
    remote.reset();
    const auto* peer = reinterpret_cast<const sockaddr*>(addresses_ + area);
    const uint64_t accepted = accepted_;
    accepted_ = VEL_INVALID_SOCKET;
    if (accepted != VEL_INVALID_SOCKET) remote.set(peer, 16);
    return reinterpret_cast<void*>(accepted);
}

int VEL_Async_SOCK_Accept::completion(uint32_t error) {
    if (error == vel::error::none) {
        const void* listener = get_iohandle();
        if (VELLib::setsockopt(accepted_, option_level, accept_context, &listener, sizeof listener) < 0)
            error = VELLib::GetErrorCode();
    }
    return get_handler()->handle_accept(this, error);
}

void VEL_Async_SOCK_Accept::close_accepted() {
    if (accepted_ != VEL_INVALID_SOCKET) VELLib::closesocket(accepted_);
    accepted_ = VEL_INVALID_SOCKET;
}
