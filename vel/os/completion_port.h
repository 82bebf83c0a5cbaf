// Completion port: requests are started on associated handles and finish, exactly once each, at a waiting thread.
//
// Ownership: the starter keeps the request, its buffer and its addresses alive until the completion was taken or the
//            port was closed; from a successful start to that moment only the port touches them. A failed start
//            leaves no completion, and the request is the starter's again.
// Threads:   every call from any thread. A request outlives the thread that started it. Any number of threads may
//            wait; a completion waits for a busy thread no longer than a few milliseconds while another one waits here.
// Order:     requests of one direction of one handle complete in the order in which they were started; different
//            threads may take them. Posts of one thread are taken in the order in which they were posted.
// Events:    a record's hEvent, when not null, is set once its transfer has finished and its completion is queued.
#pragma once

#include <vel/types.h>

namespace vel::os {

struct Completion {
    OVERLAPPED* record; // null for a bare post
    uint64_t bytes;
    uint32_t key;
    uint32_t error; // 0 on success, else a system or socket code
    bool more;      // another one was ready behind it
};

/// @param concurrency  how many threads are expected to take completions at once, at least 1; a hint
/// Errors: 4, 8, 87.
uint32_t create_port(uint32_t concurrency, void*& port);

/// Wakes every waiter with 735 and discards what was not taken. The handles stay open and are no longer associated;
/// their pending requests are dropped without a completion, and nothing touches them once this call has returned.
/// Errors: 6.
uint32_t close_port(void* port);

/// Associates a socket or file with the port until the handle or the port is closed. What happened on the handle
/// before is not lost: a request finds data that is waiting already.
/// Errors: 6 for no such port or handle, 87 for a handle that is associated or cannot be, 8, 735.
uint32_t associate(void* port, void* handle, uint32_t key);

/// Queues a completion without any I/O. Errors: 6, 8, 735.
uint32_t post_completion(void* port, OVERLAPPED* record, uint64_t bytes, uint32_t key);

/// Takes the next completion: 0, 258 on time-out, 735 when the port was closed meanwhile, 6.
/// @param timeout_ms  0 takes only what is there, VEL_INFINITE waits for ever
uint32_t wait_completion(void* port, uint32_t timeout_ms, Completion& completion);

class PortObject;

/// A port in the hands of somebody who uses it often: spares the look-up of the handle at each call.
///
/// The port is closed through its handle as ever. From then on the calls give 735, and what is behind the port goes
/// when the last holder does.
class HeldPort {
public:
    /// Holds nothing when the handle is no open port; the calls give 6 then.
    explicit HeldPort(void* port);
    ~HeldPort();
    HeldPort(const HeldPort&) = delete;
    HeldPort& operator=(const HeldPort&) = delete;

    /// As `post_completion`, for a request that has the port's own room: needs no memory.
    uint32_t post(IoRequest& request, uint64_t bytes, uint32_t key) const;

    /// As `wait_completion`.
    uint32_t wait(uint32_t timeout_ms, Completion& completion) const;

private:
    PortObject* const object_;
};

/// Has the request start on this very handle only: on a later one with the same number it fails as on a closed one.
void aim(IoRequest& request, void* handle);

/// Starts a transfer; 0 when started (also when it has finished already: the completion arrives all the same).
/// A read completes with at least 1 byte, or 0 bytes and no error at end of stream; a send when every byte is out.
/// A read of length 0 moves nothing and completes when there is something to read or the stream has ended.
/// Closing the handle completes what is pending with 995, keeping the bytes moved so far.
/// Errors: 6 or 10038 for the handle, 87 when it is not associated, and what the system refuses at once because the
/// arguments or the state of the socket rule the call out: 10014, 10022, 10039, 10045, 10057.
uint32_t start_receive(uint64_t socket, IoRequest& request, void* buffer, uint64_t length);
uint32_t start_send(uint64_t socket, IoRequest& request, const void* data, uint64_t length);

/// Datagrams; one that was cut completes with 10040 and the bytes that fitted.
/// @param address         16 bytes that live as long as the request: the sender is stored there, or the target is read
///                        from there; may be null for a receive
/// @param address_length  in and out for a receive, and alive as long as `address`
uint32_t start_receive_from(uint64_t socket, IoRequest& request, void* buffer, uint64_t length, void* address,
                            int32_t* address_length);
uint32_t start_send_to(uint64_t socket, IoRequest& request, const void* data, uint64_t length, const void* address,
                       int32_t address_length);

/// Accepts into `accept_socket` (opened, neither bound nor connected) and fills both 16-byte addresses.
/// Out of descriptors completes with 10024; transient failures are retried. A prepared socket that was closed
/// meanwhile completes with 10038 and costs no connection, also when its handle stands for another one by then. The
/// connection blocks; but a binding of the prepared socket to a wait set or window goes over to it, and then it does not.
uint32_t start_accept(uint64_t listener, IoRequest& request, uint64_t accept_socket, void* local_address,
                      void* remote_address);

/// Connects; every failure of the connection itself arrives as a completion.
/// @param address  lives as long as the request
uint32_t start_connect(uint64_t socket, IoRequest& request, const void* address, int32_t address_length);

/// Positioned file transfers at the record's offset, done by a small pool. End of file: error 38, 0 bytes.
/// Closing the file waits for the transfer that is under way; that one completes with its own result.
uint32_t start_read_file(void* file, IoRequest& request, void* buffer, uint64_t length);
uint32_t start_write_file(void* file, IoRequest& request, const void* data, uint64_t length);

/// One transfer with a bare overlapped record: through the port of an associated handle (997, the record arrives
/// there), else at once, for a file at the record's offset, with `moved` and the record filled.
uint32_t overlapped_receive(uint64_t handle, void* buffer, uint64_t length, OVERLAPPED& record, uint64_t& moved);
uint32_t overlapped_send(uint64_t handle, const void* data, uint64_t length, OVERLAPPED& record, uint64_t& moved);
uint32_t overlapped_receive_from(uint64_t socket, void* buffer, uint64_t length, void* address, int32_t* address_length,
                                 OVERLAPPED& record, uint64_t& moved);
uint32_t overlapped_send_to(uint64_t socket, const void* data, uint64_t length, const void* address,
                            int32_t address_length, OVERLAPPED& record, uint64_t& moved);

} // namespace vel::os
