// Connecting a stream socket as an asynchronous operation.
#include <vel/proactor/async_connect.h>

#include <vel/frame/fail.h>
#include <vel/os/completion_port.h>
#include <vel/platform/sockets.h>
#include <vel/proactor/async_handler.h>

namespace {

constexpr int option_level = 0xFFFF;
constexpr int connect_context = 0x7010;

} // namespace

int VEL_Async_SOCK_Connect::connect(const VEL_INET_Addr& remote) {
    if (check_start() < 0) return -1;
    clear_overlapped();
    remote_ = remote;
    return vel::result_of(vel::os::start_connect(socket(), *this, static_cast<sockaddr*>(remote_), remote_.length()));
}

int VEL_Async_SOCK_Connect::completion(uint32_t error) {
    if (error == vel::error::none && VELLib::setsockopt(socket(), option_level, connect_context, nullptr, 0) < 0)
        error = VELLib::GetErrorCode();
    return get_handler()->handle_connect(this, error);
}
