// Interface of the handlers that a proactor calls.
#pragma once

#include <vel/types.h>

class VEL_Async_Accept_Operation;
class VEL_Async_Connect_Operation;
class VEL_Async_Post_Operation;
class VEL_Async_Read_Operation;
class VEL_Async_Write_Operation;
class VEL_Proactor;

/// What a proactor calls when something that a handler started has finished.
///
/// Derive from VEL_Async_Handler_Impl<Counter> (async_handler_impl.h), which counts references and gives every slot a
/// default, or from one of the ready-made handlers: VEL_Async_SOCK_Stream, VEL_Async_Acceptor, VEL_Async_SOCK_Dgram.
///
/// Threads:   slots are called on the proactor's workers, several at a time when several operations are pending; a
///            handler serialises itself where it needs to. No lock of the library is held during a call, with one
///            exception: `close_handle`.
/// Ownership: handlers die by reference count. A registration, a pending operation and a timer hold one reference each,
///            and the proactor one more during each call. A slot that gets an operation owns it: it deletes it or
///            starts it again.
/// Errors:    a negative result of one of the five completion slots unregisters the operation's key, which leads to
///            `handle_close`; of `handle_timeout`, ends the timer.
class VEL_API VEL_Async_Handler {
public:
    virtual ~VEL_Async_Handler() = default;

    /// Takes or drops a reference and returns the new count; the drop to 0 deletes the handler.
    virtual int addref() = 0;
    virtual int release() = 0;

    /// One started operation has finished. The bytes moved stand in the operation.
    /// @param error  0, or the system's or the socket layer's code; 995 when the handle was closed meanwhile
    virtual int handle_accept(VEL_Async_Accept_Operation* op, uint32_t error) = 0;
    virtual int handle_connect(VEL_Async_Connect_Operation* op, uint32_t error) = 0;
    virtual int handle_input(VEL_Async_Read_Operation* op, uint32_t error) = 0;
    virtual int handle_output(VEL_Async_Write_Operation* op, uint32_t error) = 0;

    /// A message posted with VEL_Proactor::sendMessage. A sender may be waiting for VEL_Message_Block::signal on it.
    virtual int handle_signal(VEL_Async_Post_Operation* op) = 0;

    /// A timer is due. It runs again after `interval_ms`, which may be changed here, unless the result is negative:
    /// then it ends with `handle_close(0, id, proactor)`.
    virtual int handle_timeout(int32_t timer_id, uint32_t& interval_ms, VEL_Proactor* proactor) = 0;

    /// A registration or a timer of this handler has ended. Closing the handle is the handler's business.
    /// @param key     the completion key, or 0 for a timer
    /// @param handle  the handle that was registered, or the timer id read as a pointer
    virtual int handle_close(uint32_t key, void* handle, VEL_Proactor* proactor) = 0;

    /// Asked through VEL_Proactor::close_handle to close its handle. Called under the proactor's lock: nothing in here
    /// may wait for another thread that uses the proactor.
    virtual int close_handle() = 0;
};
