// Receiving and sending on stream sockets as asynchronous operations.
#include <vel/proactor/async_stream_io.h>

#include <vel/frame/fail.h>
#include <vel/os/completion_port.h>
#include <vel/proactor/async_handler.h>

int VEL_Async_SOCK_Read_Stream::read(VEL_Byte_Block& block, size_t size, size_t) {
    if (prepare(block, size) < 0) return -1;
    clear_overlapped();
    block_ = block;
    bytes_ = 0;
    return vel::result_of(vel::os::start_receive(socket(), *this, block_.c_ptr(0), size));
}

/// Reads once more into its own block.
int VEL_Async_SOCK_Read_Stream::restart(size_t size) {
    if (block_.size() >= size) return read(block_, size, 0);
    VEL_Byte_Block larger = block_; // stays as it is when there is no memory for a larger one
    return read(larger, size, 0);
}

int VEL_Async_SOCK_Read_Stream::completion(size_t bytes, uint32_t error) {
    bytes_ = bytes;
    return get_handler()->handle_input(this, error);
}

int VEL_Async_SOCK_Write_Stream::write(const VEL_Byte_Block& block, size_t size, size_t) {
    if (prepare(block, size) < 0) return -1;
    clear_overlapped();
    block_ = block;
    bytes_ = 0;
    return vel::result_of(vel::os::start_send(socket(), *this, block_.c_ptr(0), size));
}

int VEL_Async_SOCK_Write_Stream::completion(size_t bytes, uint32_t error) {
    bytes_ = bytes;
    return get_handler()->handle_output(this, error);
}
