// Reading and writing files at a position as asynchronous operations.
#pragma once

#include <vel/proactor/async_operation.h>

/// Reads from a file at a position of its own; the file's own position stays. At the end of the file it completes
/// with error 38 and 0 bytes.
///
/// Limits: one read moves fewer than 2^32 bytes; of a larger size the low 32 bits count.
class VEL_API VEL_Async_Read_File : public VEL_Async_Read_Operation {
public:
    VEL_Async_Read_File() = default;
    VEL_Async_Read_File(VEL_Proactor* proactor, uint32_t completion_key, void* handle, VEL_Async_Handler* handler)
        : VEL_Async_Read_Operation(proactor, completion_key, handle, handler) {}

    int read(VEL_Byte_Block& block, size_t size, size_t file_offset) override;
    VEL_Byte_Block read_block() const override { return block_; }
    size_t file_offset() const override { return file_offset_; }
    size_t bytes_transferred() const override { return bytes_; }
    int completion(size_t bytes, uint32_t error) override;

private:
    VEL_Byte_Block block_;
    size_t bytes_ = 0;
    size_t file_offset_ = 0;
};

/// Writes to a file at a position of its own; the file grows as needed. Limits: as VEL_Async_Read_File.
class VEL_API VEL_Async_Write_File : public VEL_Async_Write_Operation {
public:
    VEL_Async_Write_File() = default;
    VEL_Async_Write_File(VEL_Proactor* proactor, uint32_t completion_key, void* handle, VEL_Async_Handler* handler)
        : VEL_Async_Write_Operation(proactor, completion_key, handle, handler) {}

    int write(const VEL_Byte_Block& block, size_t size, size_t file_offset) override;
    VEL_Byte_Block write_block() const override { return block_; }
    size_t file_offset() const override { return file_offset_; }
    size_t bytes_transferred() const override { return bytes_; }
    int completion(size_t bytes, uint32_t error) override;

private:
    VEL_Byte_Block block_;
    size_t bytes_ = 0;
    size_t file_offset_ = 0;
};
