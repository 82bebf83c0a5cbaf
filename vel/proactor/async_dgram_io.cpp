// Receiving and sending datagrams as asynchronous operations.
#include <vel/proactor/async_dgram_io.h>

#include <vel/frame/fail.h>
#include <vel/os/completion_port.h>
#include <vel/proactor/async_handler.h>

int VEL_Async_SOCK_Read_Dgram::read(VEL_Byte_Block& block, size_t size, size_t) {
    if (prepare(block, size) < 0) return -1;
    clear_overlapped();
    block_ = block;
    bytes_ = 0;
    sender_.reset();
    return vel::result_of(vel::os::start_receive_from(socket(), *this, block_.c_ptr(0), size,
                                                      static_cast<sockaddr*>(sender_), &sender_.length()));
}

int VEL_Async_SOCK_Read_Dgram::completion(size_t bytes, uint32_t error) {
    bytes_ = bytes;
    return get_handler()->handle_input(this, error);
}

int VEL_Async_SOCK_Write_Dgram::write(const VEL_Byte_Block& block, size_t size, size_t) {
    if (prepare(block, size) < 0) return -1;
    clear_overlapped();
    block_ = block;
    bytes_ = 0;
    return vel::result_of(vel::os::start_send_to(socket(), *this, block_.c_ptr(0), size,
                                                 static_cast<sockaddr*>(destination_), destination_.length()));
}

int VEL_Async_SOCK_Write_Dgram::completion(size_t bytes, uint32_t error) {
    bytes_ = bytes;
    return get_handler()->handle_output(this, error);
}
