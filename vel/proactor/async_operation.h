// Asynchronous operations: the base of all, and one abstract class for each direction.
#pragma once

#include <vel/buffers/byte_block.h>
#include <vel/platform/inet_addr.h>
#include <vel/types.h>

class VEL_Async_Handler;
class VEL_Proactor;

/// One request on a registered handle: a heap record that is started, completes once and is handed to its handler.
///
/// Threads:   one at a time: the starter until the start call returns, then the worker that dispatches the completion.
/// Ownership: the record keeps one reference to its handler for its whole life. While it is pending nobody touches it;
///            a start that failed leaves it with its caller; after completion the handler's slot owns it and deletes
///            it or starts it again. Its block shares the caller's bytes, so they outlive the caller's own handle.
/// Errors:    starting returns 0 when the request was started, also when it has finished already: the completion
///            arrives through the proactor all the same. Otherwise -1 with 0x20000004 (no handler or proactor),
///            0x20000014 (completion key 0), 87, 122 or the system's code.
class VEL_API VEL_Async_Operation : public vel::IoRequest {
public:
    VEL_Async_Operation(const VEL_Async_Operation&) = delete;
    VEL_Async_Operation& operator=(const VEL_Async_Operation&) = delete;
    virtual ~VEL_Async_Operation();

    VEL_Proactor* get_proactor() const { return proactor_; }
    uint32_t completion_key() const { return completion_key_; }
    void* get_iohandle() const { return handle_; }
    VEL_Async_Handler* get_handler() const { return handler_; }

    /// 1 read, 2 write, 3 accept, 4 connect, 5 post.
    int operation_code() const { return static_cast<int>(code_); }

    /// Aims the idle record at what is registered under `completion_key`. Errors: 87 (null proactor), 0x20000014 (key 0) and those
    /// of VEL_Proactor::get_handle; then the record stays as it was.
    int open(VEL_Proactor* proactor, uint32_t completion_key);

    /// Aims the idle record at the four values. Setting the handler it has already adds a reference that nobody drops
    /// for the caller; that is deliberate.
    void set(VEL_Proactor* proactor, uint32_t completion_key, void* handle, VEL_Async_Handler* handler);

protected:
    explicit VEL_Async_Operation(uint32_t code);
    VEL_Async_Operation(VEL_Proactor* proactor, uint32_t completion_key, void* handle, VEL_Async_Handler* handler,
                        uint32_t code);

    /// What every start looks at first: a handler and a proactor, then a key. Returns 0, or -1 with the code.
    int check_start() const {
        return handler_ != nullptr && proactor_ != nullptr && completion_key_ != 0 ? 0 : refuse_start();
    }

    /// Clears the overlapped part and sets the file position that the request starts at.
    void clear_overlapped(uint64_t file_offset = 0);

    uint64_t socket() const { return reinterpret_cast<uint64_t>(handle_); }

private:
    int refuse_start() const;

    uint32_t completion_key_ = 0;
    void* handle_ = VEL_INVALID_HANDLE;
    VEL_Async_Handler* handler_ = nullptr; // one reference
    VEL_Proactor* proactor_ = nullptr;
    uint32_t code_;
};

/// A request that fills a block. See the concrete classes: streams, datagrams, files.
class VEL_API VEL_Async_Read_Operation : public VEL_Async_Operation {
public:
    /// Starts reading `size` bytes at most into `block`, which grows to `size` when it is smaller.
    /// @param file_offset  position in the file; sockets ignore it
    virtual int read(VEL_Byte_Block& block, size_t size, size_t file_offset) = 0;

    /// The block that was read into, sharing the bytes.
    virtual VEL_Byte_Block read_block() const = 0;

    /// Position in the file that the read started at, 0 for sockets.
    virtual size_t file_offset() const = 0;

    /// Bytes read; 0 without an error is the end of the stream.
    virtual size_t bytes_transferred() const = 0;

    /// Called by the proactor: stores the bytes and calls the handler's `handle_input`, whose result it returns.
    virtual int completion(size_t bytes, uint32_t error) = 0;

protected:
    VEL_Async_Read_Operation() : VEL_Async_Operation(1) {}
    VEL_Async_Read_Operation(VEL_Proactor* proactor, uint32_t completion_key, void* handle, VEL_Async_Handler* handler)
        : VEL_Async_Operation(proactor, completion_key, handle, handler, 1) {}

    /// The checks of every read, then the block grown to `size`. Returns 0, or -1 with the code.
    int prepare(VEL_Byte_Block& block, size_t size) const;
};

/// A request that sends or stores the bytes of a block.
class VEL_API VEL_Async_Write_Operation : public VEL_Async_Operation {
public:
    /// Starts writing the first `size` bytes of `block`. Errors besides those of every start: 87 for a null block, 122
    /// for a block of fewer bytes.
    virtual int write(const VEL_Byte_Block& block, size_t size, size_t file_offset) = 0;

    virtual VEL_Byte_Block write_block() const = 0;
    virtual size_t file_offset() const = 0;

    /// Bytes written; less than asked for only together with an error.
    virtual size_t bytes_transferred() const = 0;

    /// Called by the proactor: stores the bytes and calls the handler's `handle_output`, whose result it returns.
    virtual int completion(size_t bytes, uint32_t error) = 0;

protected:
    VEL_Async_Write_Operation() : VEL_Async_Operation(2) {}
    VEL_Async_Write_Operation(VEL_Proactor* proactor, uint32_t completion_key, void* handle, VEL_Async_Handler* handler)
        : VEL_Async_Operation(proactor, completion_key, handle, handler, 2) {}

    /// The checks of every write. Returns 0, or -1 with the code.
    int prepare(const VEL_Byte_Block& block, size_t size) const;
};

/// A request that waits for a connection on a listening socket.
class VEL_API VEL_Async_Accept_Operation : public VEL_Async_Operation {
public:
    /// Starts to accept into `prepared`, or into a socket of the operation's own for VEL_INVALID_HANDLE. A socket
    /// left from an earlier accept is closed first.
    virtual int accept(void* prepared) = 0;

    /// Hands the accepted socket over, with its peer's address; VEL_INVALID_HANDLE when there is none (any more).
    virtual void* accept_handle(VEL_INET_Addr& remote) = 0;

    /// Called by the proactor: calls the handler's `handle_accept` and returns its result.
    virtual int completion(uint32_t error) = 0;

protected:
    VEL_Async_Accept_Operation() : VEL_Async_Operation(3) {}
    VEL_Async_Accept_Operation(VEL_Proactor* proactor, uint32_t completion_key, void* handle,
                               VEL_Async_Handler* handler)
        : VEL_Async_Operation(proactor, completion_key, handle, handler, 3) {}
};

/// A request that connects a stream socket.
class VEL_API VEL_Async_Connect_Operation : public VEL_Async_Operation {
public:
    /// Starts to connect the bound socket to `remote`; how it went arrives in `handle_connect`.
    virtual int connect(const VEL_INET_Addr& remote) = 0;

    virtual VEL_INET_Addr connect_address() const = 0;

    /// Called by the proactor: calls the handler's `handle_connect` and returns its result.
    virtual int completion(uint32_t error) = 0;

protected:
    VEL_Async_Connect_Operation() : VEL_Async_Operation(4) {}
    VEL_Async_Connect_Operation(VEL_Proactor* proactor, uint32_t completion_key, void* handle,
                                VEL_Async_Handler* handler)
        : VEL_Async_Operation(proactor, completion_key, handle, handler, 4) {}
};
