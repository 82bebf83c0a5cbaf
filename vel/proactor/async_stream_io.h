// Receiving and sending on stream sockets as asynchronous operations.
#pragma once

#include <vel/proactor/async_operation.h>

/// Receives from a stream socket: completes with 1 byte or more, or with 0 and no error when the peer has closed.
class VEL_API VEL_Async_SOCK_Read_Stream : public VEL_Async_Read_Operation {
public:
    VEL_Async_SOCK_Read_Stream() = default;
    VEL_Async_SOCK_Read_Stream(VEL_Proactor* proactor, uint32_t completion_key, void* handle,
                               VEL_Async_Handler* handler)
        : VEL_Async_Read_Operation(proactor, completion_key, handle, handler) {}

    int read(VEL_Byte_Block& block, size_t size, size_t file_offset) override;
    VEL_Byte_Block read_block() const override { return block_; }
    size_t file_offset() const override { return 0; }
    size_t bytes_transferred() const override { return bytes_; }
    int completion(size_t bytes, uint32_t error) override;

private:
    friend class VEL_Async_SOCK_Stream;

    int restart(size_t size);

    VEL_Byte_Block block_;
    size_t bytes_ = 0;
};

/// Sends on a stream socket: completes when every byte has been taken, or with an error.
class VEL_API VEL_Async_SOCK_Write_Stream : public VEL_Async_Write_Operation {
public:
    VEL_Async_SOCK_Write_Stream() = default;
    VEL_Async_SOCK_Write_Stream(VEL_Proactor* proactor, uint32_t completion_key, void* handle,
                                VEL_Async_Handler* handler)
        : VEL_Async_Write_Operation(proactor, completion_key, handle, handler) {}

    int write(const VEL_Byte_Block& block, size_t size, size_t file_offset) override;
    VEL_Byte_Block write_block() const override { return block_; }
    size_t file_offset() const override { return 0; }
    size_t bytes_transferred() const override { return bytes_; }
    int completion(size_t bytes, uint32_t error) override;

private:
    friend class VEL_Async_SOCK_Stream;

    VEL_Byte_Block block_;
    size_t bytes_ = 0;
};
