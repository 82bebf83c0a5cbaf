// Receiving and sending datagrams as asynchronous operations.
#pragma once

#include <vel/proactor/async_operation.h>

/// Receives one datagram and its sender's address. A datagram longer than asked for completes with 10040.
class VEL_API VEL_Async_SOCK_Read_Dgram : public VEL_Async_Read_Operation {
public:
    VEL_Async_SOCK_Read_Dgram() = default;
    VEL_Async_SOCK_Read_Dgram(VEL_Proactor* proactor, uint32_t completion_key, void* handle, VEL_Async_Handler* handler)
        : VEL_Async_Read_Operation(proactor, completion_key, handle, handler) {}

    int read(VEL_Byte_Block& block, size_t size, size_t file_offset) override;
    VEL_Byte_Block read_block() const override { return block_; }
    size_t file_offset() const override { return 0; }
    size_t bytes_transferred() const override { return bytes_; }
    int completion(size_t bytes, uint32_t error) override;

    /// Who sent the datagram.
    VEL_INET_Addr recv_address() const { return sender_; }

private:
    VEL_INET_Addr sender_;
    VEL_Byte_Block block_;
    size_t bytes_ = 0;
};

/// Sends one datagram to the address set before.
class VEL_API VEL_Async_SOCK_Write_Dgram : public VEL_Async_Write_Operation {
public:
    VEL_Async_SOCK_Write_Dgram() = default;
    VEL_Async_SOCK_Write_Dgram(VEL_Proactor* proactor, uint32_t completion_key, void* handle,
                               VEL_Async_Handler* handler)
        : VEL_Async_Write_Operation(proactor, completion_key, handle, handler) {}

    int write(const VEL_Byte_Block& block, size_t size, size_t file_offset) override;
    VEL_Byte_Block write_block() const override { return block_; }
    size_t file_offset() const override { return 0; }
    size_t bytes_transferred() const override { return bytes_; }
    int completion(size_t bytes, uint32_t error) override;

    /// Where the datagram goes; set it before `write`.
    VEL_INET_Addr send_address() const { return destination_; }
    void send_address(const VEL_INET_Addr& to) { destination_ = to; }

private:
    VEL_INET_Addr destination_;
    VEL_Byte_Block block_;
    size_t bytes_ = 0;
};
