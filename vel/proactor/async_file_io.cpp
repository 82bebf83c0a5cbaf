// Reading and writing files at a position as asynchronous operations.
#include <vel/proactor/async_file_io.h>

#include <vel/frame/fail.h>
#include <vel/os/completion_port.h>
#include <vel/proactor/async_handler.h>

int VEL_Async_Read_File::read(VEL_Byte_Block& block, size_t size, size_t file_offset) {
    if (prepare(block, size) < 0) return -1;
    clear_overlapped(file_offset);
    block_ = block;
    bytes_ = 0;
    file_offset_ = file_offset;
    const auto count = static_cast<uint32_t>(size); // a file transfer counts in 32 bits: see the header
    return vel::result_of(vel::os::start_read_file(get_iohandle(), *this, block_.c_ptr(0), count));
}

int VEL_Async_Read_File::completion(size_t bytes, uint32_t error) {
    bytes_ = bytes;
    return get_handler()->handle_input(this, error);
}

int VEL_Async_Write_File::write(const VEL_Byte_Block& block, size_t size, size_t file_offset) {
    if (prepare(block, size) < 0) return -1;
    clear_overlapped(file_offset);
    block_ = block;
    bytes_ = 0;
    file_offset_ = file_offset;
    const auto count = static_cast<uint32_t>(size);
    return vel::result_of(vel::os::start_write_file(get_iohandle(), *this, block_.c_ptr(0), count));
}

int VEL_Async_Write_File::completion(size_t bytes, uint32_t error) {
    bytes_ = bytes;
    return get_handler()->handle_output(this, error);
}
