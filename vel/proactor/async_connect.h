// Connecting a stream socket as an asynchronous operation.
#pragma once

#include <vel/proactor/async_operation.h>

/// Connects a bound stream socket. Every failure of the connection itself, also an early one, arrives as a completion.
class VEL_API VEL_Async_SOCK_Connect : public VEL_Async_Connect_Operation {
public:
    VEL_Async_SOCK_Connect() = default;
    VEL_Async_SOCK_Connect(VEL_Proactor* proactor, uint32_t completion_key, void* handle, VEL_Async_Handler* handler)
        : VEL_Async_Connect_Operation(proactor, completion_key, handle, handler) {}

    int connect(const VEL_INET_Addr& remote) override;
    VEL_INET_Addr connect_address() const override { return remote_; }
    int completion(uint32_t error) override;

private:
    VEL_INET_Addr remote_;
};
