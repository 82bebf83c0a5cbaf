// Writing and reading of the stream sockets.
#include <vel/reactor/stream_transfer.h>

#include <algorithm>
#include <vel/os/error_codes.h>

namespace vel {
namespace {

constexpr uint64_t largest_write = 1 << 30; // a socket call looks at the low 32 bits of a size

} // namespace

void StreamTransfer::open() {
    close();
    open_ = true;
}

void StreamTransfer::close() {
    queue_.clear();
    pending_.reset();
    open_ = false;
}

/// Makes the oldest block the pending one; false when there is none.
bool StreamTransfer::next() { return !pending_.is_null() || queue_.pop_front(pending_) == 0; }

/// Writes what is left of the pending block and drops it when it is done. Returns the code that stopped it.
uint32_t StreamTransfer::write_pending(VEL_Socket& socket, uint64_t& written) {
    while (pending_.current_size() > 0) {
        const int sent = socket.send(pending_.current(), std::min(pending_.current_size(), largest_write));
        if (sent < 0) return VELLib::GetErrorCode();
        pending_.offset(pending_.offset() + sent);
        written += sent;
    }
    pending_.reset();
    return error::none;
}

int StreamTransfer::send(VEL_Socket& socket, const VEL_Byte_Block& block) {
    if (!next())
        pending_ = block;
    else if (block.size() > 0 && queue_.push_back(block) < 0)
        return -1;
    uint64_t result = 0;
    while (next()) {
        const bool is_callers = pending_ == block;
        uint64_t written = 0;
        const uint32_t code = write_pending(socket, written);
        if (code != error::none) return code == error::would_block ? 0 : -1;
        if (is_callers) result += written;
    }
    return static_cast<int>(result);
}

/// Writes the next block or takes the error of the notice. False when there is nothing to report (yet).
bool StreamTransfer::write_next(VEL_Socket& socket, uint32_t error, Report& report) {
    const bool has_block = next();
    if (!has_block && error == 0) return false;
    report.block = pending_;
    report.data = pending_.current();
    report.error = error != 0 ? error : write_pending(socket, report.size);
    return report.error != error::would_block;
}

/// False when the socket would block. The end of the stream is an error here.
bool StreamTransfer::read(VEL_Socket& socket, void* buffer, uint64_t& size, uint32_t& error) {
    const int received = socket.recv(buffer, read_size);
    if (received < 0) error = VELLib::GetErrorCode();
    if (received == 0) error = error::peer_closed;
    if (received > 0) size = received;
    return error != error::would_block;
}

} // namespace vel
