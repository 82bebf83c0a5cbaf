// Writing and reading of the stream sockets.
#include <vel/reactor/stream_transfer.h>

#include <algorithm>
#include <vel/os/error_codes.h>

namespace vel {
namespace {

constexpr uint64_t largest_write = 1 << 30; // a socket call looks at the low 32 bits of a size

/// Returns the code that stopped it, 0 when all is written.
uint32_t write(VEL_Socket& socket, const void* data, uint64_t size, uint64_t& written) {
    while (written < size) {
        const auto* rest = static_cast<const uint8_t*>(data) + written;
        const int sent = socket.send(rest, std::min(size - written, largest_write));
        if (sent < 0) return VELLib::GetErrorCode();
        written += static_cast<uint64_t>(sent);
    }
    return error::none;
}

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
    const uint32_t code = write(socket, pending_.current(), pending_.current_size(), written);
    pending_.offset(pending_.offset() + written);
    if (code == error::none) pending_.reset();
    return code;
}

int StreamTransfer::send(VEL_Socket& socket, const VEL_Byte_Block& block) {
    if (!next()) return send_at_once(socket, block);
    if (block.size() > 0 && queue_.push_back(block) < 0) return -1;
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

/// Nothing waits: the block becomes the pending one only when the socket does not take it whole.
int StreamTransfer::send_at_once(VEL_Socket& socket, const VEL_Byte_Block& block) {
    uint64_t written = 0;
    const uint32_t code = write(socket, block.c_ptr(0), block.size(), written);
    if (code == error::none) return static_cast<int>(written);
    pending_ = block;
    pending_.offset(written);
    return code == error::would_block ? 0 : -1;
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
