// Accepting a connection as an asynchronous operation.
#pragma once

#include <vel/proactor/async_operation.h>

/// Accepts one connection from a listening socket into a socket prepared beforehand.
///
/// Ownership: the record owns the accepted socket until `accept_handle` hands it over, and closes what is left.
/// Errors:    `accept` as every start, or the code of making the socket; completions bring 10024 when the process has
///            run out of descriptors and 995 when the listener was closed.
class VEL_API VEL_Async_SOCK_Accept : public VEL_Async_Accept_Operation {
public:
    VEL_Async_SOCK_Accept() = default;
    VEL_Async_SOCK_Accept(VEL_Proactor* proactor, uint32_t completion_key, void* handle, VEL_Async_Handler* handler)
        : VEL_Async_Accept_Operation(proactor, completion_key, handle, handler) {}
    ~VEL_Async_SOCK_Accept() override;

    int accept(void* prepared) override;
    void* accept_handle(VEL_INET_Addr& remote) override;
    int completion(uint32_t error) override;

private:
    void close_accepted();

    uint64_t accepted_ = VEL_INVALID_SOCKET;
    alignas(8) uint8_t addresses_[64] = {}; // local address in the first half, remote in the second
};
