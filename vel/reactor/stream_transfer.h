// What the stream sockets have in common: the send queue and the ways in and out of the socket; not for users.
#pragma once

#include <vel/buffers/byte_block.h>
#include <vel/frame/error.h>
#include <vel/memory/list.h>
#include <vel/reactor/socket.h>
#include <vel/sync/guard.h>
#include <vel/sync/thread_safety.h>

namespace vel {

/// The blocks that a stream socket has to write, and its output and input as they are reported to the application.
///
/// Threads:    the stream's lock guards every call; the two `handle_` functions give it back for each report.
/// Invariants: blocks are written in the order of `send`; the pending one comes before those in the queue and has
///             unsent bytes.
/// Errors:     -1 with the thread's code.
/// Limits:     blocks below 2 GiB; a read takes at most 32,768 bytes.
class VEL_API StreamTransfer {
public:
    static constexpr uint64_t read_size = 32768;

    /// Starts with nothing to write.
    void open();

    /// Drops what was not written.
    void close();
    bool is_open() const { return open_; }

    /// Whether nothing waits to be written.
    bool is_idle() const { return pending_.is_null() && queue_.is_empty(); }

    /// Writes the block from its start, behind those that wait, as far as the socket takes it.
    /// @return bytes of this block written now; 0 when the socket would block, even if it took a part
    int send(VEL_Socket& socket, const VEL_Byte_Block& block);

    /// Writes until the socket would block, and reports each block as it is done, or the error.
    /// @param stream  a class with `check_locked` and `handle_write_stream`
    /// @param guard   holds the stream's lock
    template <class Stream>
    int handle_output(Stream& stream, VEL_Guard& guard, VEL_Socket& socket,
                      uint32_t error) VEL_NO_THREAD_SAFETY_ANALYSIS {
        for (;;) {
            if (stream.check_locked() < 0) return -1;
            Report report;
            if (!write_next(socket, error, report)) return 0;
            guard.unlock();
            const int result = stream.handle_write_stream(report.data, report.size, report.error);
            if (report.error != 0) return -1;
            if (result < 0) return result; // and the stream is not looked at again: it may be gone
            guard.lock();
        }
    }

    /// Reads once and reports what came, or the end of the stream or the error, which give -1.
    /// @param stream  a class with `check_locked` and `handle_read_stream`
    /// @param guard   holds the stream's lock
    template <class Stream>
    int handle_input(Stream& stream, VEL_Guard& guard, VEL_Socket& socket,
                     uint32_t error) VEL_NO_THREAD_SAFETY_ANALYSIS {
        if (stream.check_locked() < 0) return -1;
        char buffer[read_size]; // filled by the socket alone
        uint64_t size = 0;
        if (error == 0 && !read(socket, buffer, size, error)) return 0;
        guard.unlock();
        const int result = stream.handle_read_stream(buffer, size, error);
        return error != 0 ? -1 : result;
    }

private:
    struct Report {
        VEL_Byte_Block block; // keeps the data, also when the stream is closed meanwhile
        const void* data = nullptr;
        uint64_t size = 0;
        uint32_t error = 0;
    };

    bool next();
    int send_at_once(VEL_Socket& socket, const VEL_Byte_Block& block);
    uint32_t write_pending(VEL_Socket& socket, uint64_t& written);
    bool write_next(VEL_Socket& socket, uint32_t error, Report& report);
    bool read(VEL_Socket& socket, void* buffer, uint64_t& size, uint32_t& error);

    // A list and no VEL_Byte_Queue: that one does not tell when it is empty, as its byte count stays when whole blocks
    // are taken.
    VEL_List<VEL_Byte_Block> queue_;
    bool open_ = false;
    VEL_Byte_Block pending_; // its offset is where the unsent bytes begin
};

} // namespace vel
